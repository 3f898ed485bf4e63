#include "Support.h"

#include <QDir>
#include <QFile>
#include <QSet>
#include <QtEndian>

#include <gtest/gtest.h>

#include <set>
#include <tuple>

namespace {

using Box = std::tuple<quint64, quint64, QString>; // offset, size, type

// The small real files made by FFmpeg that ship with the repository.
QStringList realFiles()
{
    QStringList files;
    const QString root = QStringLiteral(SARVELINTH_SOURCE_DIR);
    for (const QString &dir : {root + "/samples", root + "/tests/data"}) {
        for (const QFileInfo &info : QDir(dir).entryInfoList({"*.mp4"}, QDir::Files))
            files << info.filePath();
    }
    return files;
}

// A walk of the box headers written apart from the parser: plain 32-bit and 64-bit sizes,
// descending into the usual containers.
void walk(const QByteArray &file, quint64 begin, quint64 end, std::set<Box> &boxes)
{
    static const QSet<QByteArray> containers = {"moov", "trak", "mdia", "minf", "dinf", "stbl",
                                                "edts", "udta", "mvex", "moof", "traf", "mfra"};
    quint64 at = begin;
    while (at + 8 <= end) {
        const auto *p = reinterpret_cast<const uchar *>(file.constData()) + at;
        quint64 size = qFromBigEndian<quint32>(p);
        const QByteArray type(reinterpret_cast<const char *>(p) + 4, 4);
        quint64 header = 8;
        if (size == 1) {
            size = qFromBigEndian<quint64>(p + 8);
            header = 16;
        } else if (size == 0) {
            size = end - at;
        }
        if (size < header || at + size > end)
            return;
        boxes.insert({at, size, QString::fromLatin1(type)});
        if (containers.contains(type))
            walk(file, at + header, at + size, boxes);
        at += size;
    }
}

void collect(const ReportTree::Node &node, std::set<Box> &boxes)
{
    for (const auto &child : node.children) {
        if (child->kind != ReportTree::Node::Element)
            continue;
        if (child->child("size") && child->child("type"))
            boxes.insert({child->offset, child->size, child->name});
        collect(*child, boxes);
    }
}

} // namespace

TEST(RealFiles, EveryBoxAppearsWhereAnIndependentWalkFindsIt)
{
    const QStringList files = realFiles();
    if (files.isEmpty())
        GTEST_SKIP() << "no real test files";
    for (const QString &path : files) {
        QFile file(path);
        ASSERT_TRUE(file.open(QIODevice::ReadOnly)) << path.toStdString();
        const QByteArray bytes = file.readAll();

        std::set<Box> expected;
        walk(bytes, 0, quint64(bytes.size()), expected);
        ASSERT_GT(expected.size(), 10u) << path.toStdString();

        const ReportTree report = parseReport(bytes);
        EXPECT_EQ(report.openElements(), 0);
        std::set<Box> reported;
        collect(report.root, reported);
        for (const Box &box : expected) {
            EXPECT_TRUE(reported.count(box))
                << path.toStdString() << ": " << std::get<2>(box).toStdString() << " at "
                << std::get<0>(box) << " size " << std::get<1>(box);
        }
        // Nothing of a well-formed file is unknown to the walk or cut short.
        const QString all = dump(report);
        EXPECT_FALSE(all.contains("Invalid element size.")) << path.toStdString();
        EXPECT_FALSE(all.contains("Nesting too deep.")) << path.toStdString();
    }
}

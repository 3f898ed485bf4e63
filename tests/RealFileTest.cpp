// The real files made by FFmpeg that ship with the repository, against a walk of their box headers
// written apart from the parser.

#include "Support.h"

#include <QDir>
#include <QSet>
#include <QtEndian>

#include <gtest/gtest.h>

#include <set>
#include <tuple>

namespace {

using Box = std::tuple<quint64, quint64, QString>; // offset, size, type

// Plain 32-bit and 64-bit sizes, descending into the usual containers.
void walk(const QByteArray &file, quint64 begin, quint64 end, std::set<Box> &boxes)
{
    static const QSet<QByteArray> containers = {"moov", "trak", "mdia", "minf", "dinf", "stbl",
                                                "edts", "udta", "mvex", "moof", "traf", "mfra"};
    for (quint64 at = begin; at + 8 <= end;) {
        const auto *p = reinterpret_cast<const uchar *>(file.constData()) + at;
        const QByteArray type(reinterpret_cast<const char *>(p) + 4, 4);
        quint64 size = qFromBigEndian<quint32>(p);
        const quint64 header = size == 1 ? 16 : 8;
        if (size == 1)
            size = qFromBigEndian<quint64>(p + 8);
        else if (size == 0)
            size = end - at;
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

TEST(RealFiles, EveryBoxAppearsWhereAnIndependentWalkFindsIt)
{
    const QString root = QStringLiteral(SARVELINTH_SOURCE_DIR);
    QFileInfoList files;
    for (const QString &dir : {root + "/samples", root + "/tests/data"})
        files += QDir(dir).entryInfoList({"*.mp4"}, QDir::Files);
    if (files.isEmpty())
        GTEST_SKIP() << "no real test files";
    for (const QFileInfo &info : files) {
        SCOPED_TRACE(info.filePath().toStdString());
        QFile file(info.filePath());
        ASSERT_TRUE(file.open(QIODevice::ReadOnly));
        const QByteArray bytes = file.readAll();
        std::set<Box> expected;
        walk(bytes, 0, quint64(bytes.size()), expected);
        ASSERT_GT(expected.size(), 10u);

        const ReportTree report = parseReport(bytes);
        EXPECT_EQ(report.openElements(), 0);
        std::set<Box> reported;
        collect(report.root, reported);
        for (const Box &box : expected) {
            EXPECT_TRUE(reported.count(box)) << std::get<2>(box).toStdString() << " at "
                                             << std::get<0>(box) << " size " << std::get<1>(box);
        }
        // Nothing of a well-formed file is unknown to the walk or cut short.
        const QString all = dump(report);
        EXPECT_FALSE(all.contains("Invalid element size."));
        EXPECT_FALSE(all.contains("Nesting too deep."));
    }
}

} // namespace

// The real files made by FFmpeg that ship with the repository, against a plain walk of their
// boxes and against what ffprobe reads in them.

#include "Support.h"

#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>
#include <QStandardPaths>
#include <QtEndian>

#include <gtest/gtest.h>

namespace {
// Boxes whose payload is nothing but boxes: both walks below descend into these only.
bool isContainer(const QString &type)
{
    static const QStringList containers = {"moov", "trak", "mdia", "minf", "stbl", "dinf", "edts"};
    return containers.contains(type);
}

// Every box as a plain walk of the bytes finds it: type, offset and size, one per line.
void walkBoxes(const QByteArray &bytes, quint64 begin, quint64 end, QString &out)
{
    for (quint64 at = begin; at + 8 <= end;) {
        const auto *header = reinterpret_cast<const uchar *>(bytes.constData() + at);
        quint64 size = qFromBigEndian<quint32>(header);
        if (size == 1)
            size = qFromBigEndian<quint64>(header + 8);
        else if (size == 0)
            size = end - at;
        const QString type = QString::fromLatin1(bytes.mid(qsizetype(at) + 4, 4));
        out += QStringLiteral("%1 @%2+%3\n").arg(type).arg(at).arg(size);
        if (isContainer(type))
            walkBoxes(bytes, at + 8, at + size, out);
        at += size;
    }
}

// The same list from the report's elements.
void reportedBoxes(const ReportTree::Node &parent, QString &out)
{
    for (const auto &node : parent.children) {
        if (node->kind != ReportTree::Node::Element)
            continue;
        out += QStringLiteral("%1 @%2+%3\n").arg(node->name).arg(node->offset).arg(node->size);
        if (isContainer(node->name))
            reportedBoxes(*node, out);
    }
}
} // namespace

// Every box where a plain walk of the bytes finds it, and every video sample, one line each:
// stream, offset, size, key frame and the step of its dts.
TEST(RealFiles, BoxesMatchAPlainWalkAndVideoSamplesTheVideoPacketsOfFfprobe)
{
    if (QStandardPaths::findExecutable(QStringLiteral("ffprobe")).isEmpty())
        GTEST_SKIP() << "ffprobe is not installed";
    // Plain, with B-frames, with the movie in front of the media, MPEG-4 Visual, and video as the
    // second track.
    for (const char *name : {"samples/sample.mp4", "tests/data/track-h264-bframes.mp4",
                             "tests/data/track-h264-faststart.mp4", "tests/data/track-mpeg4.mp4",
                             "tests/data/track-aac-h264.mp4"}) {
        SCOPED_TRACE(name);
        const QString path = QStringLiteral(SARVELINTH_SOURCE_DIR "/") + QLatin1String(name);
        QFile file(path);
        ASSERT_TRUE(file.open(QIODevice::ReadOnly));
        const QByteArray bytes = file.readAll();
        const ReportTree report = parseReport(bytes);
        EXPECT_EQ(report.openElements(), 0);
        EXPECT_FALSE(dump(report).contains("Invalid element size."));
        QString walked, reported;
        walkBoxes(bytes, 0, quint64(bytes.size()), walked);
        reportedBoxes(report.root, reported);
        EXPECT_EQ(reported.toStdString(), walked.toStdString());
        QString ours;
        for (const ReportTree::Stream &stream : report.streams) {
            for (int i = 0; i < stream.samples.size(); ++i) {
                const Sample &sample = stream.samples[i];
                const qint64 step = i ? qint64(sample.dts) - qint64(stream.samples[i - 1].dts) : 0;
                ours += QString::asprintf("%d %llu %llu %u %lld\n", stream.index,
                                          qulonglong(sample.offset), qulonglong(sample.size),
                                          uint(sample.keyFrame), step);
            }
        }

        QProcess ffprobe;
        ffprobe.start(QStringLiteral("ffprobe"),
                      {"-v", "error", "-select_streams", "v", "-show_entries",
                       "packet=stream_index,pos,size,flags,dts", "-of", "json", path});
        ASSERT_TRUE(ffprobe.waitForFinished(30000) && ffprobe.exitCode() == 0);
        const QJsonArray packets = QJsonDocument::fromJson(ffprobe.readAllStandardOutput())
                                       .object()
                                       .value("packets")
                                       .toArray();
        ASSERT_FALSE(packets.isEmpty());
        QString theirs;
        for (int i = 0; i < packets.size(); ++i) {
            const QJsonObject packet = packets[i].toObject();
            const qint64 dts = packet.value("dts").toInteger();
            theirs += QStringLiteral("%1 %2 %3 %4 %5\n")
                          .arg(packet.value("stream_index").toInt())
                          .arg(packet.value("pos").toString(), packet.value("size").toString())
                          .arg(packet.value("flags").toString().startsWith('K') ? 1 : 0)
                          .arg(i ? dts - packets[i - 1].toObject().value("dts").toInteger() : 0);
        }
        EXPECT_EQ(ours.toStdString(), theirs.toStdString());
    }
}

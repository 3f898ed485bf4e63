// The real files made by FFmpeg that ship with the repository, against what ffprobe reads in them.

#include "Support.h"

#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>
#include <QStandardPaths>

#include <gtest/gtest.h>

// Every video sample, one line each: stream, offset, size, key frame and the step of its dts.
TEST(RealFiles, VideoSamplesMatchTheVideoPacketsOfFfprobe)
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
        const ReportTree report = parseReport(file.readAll());
        EXPECT_EQ(report.openElements(), 0);
        EXPECT_FALSE(dump(report).contains("Invalid element size."));
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

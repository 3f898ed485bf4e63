// The real files made by FFmpeg that ship with the repository, against a walk of their box headers
// written apart from the parser, and against what ffprobe reads in them.

#include "TrackSupport.h"

#include <QDateTime>
#include <QDir>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>
#include <QSet>
#include <QStandardPaths>
#include <QtEndian>

#include <gtest/gtest.h>

#include <set>
#include <tuple>

using namespace bytes;
using tracks::findElement;

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

QByteArray readSourceFile(const QString &path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

// ffprobe's JSON report of a file.
QJsonObject probe(const QString &path, const QStringList &arguments)
{
    QProcess ffprobe;
    ffprobe.start(QStringLiteral("ffprobe"),
                  QStringList{"-v", "error"} + arguments + QStringList{"-of", "json", path});
    EXPECT_TRUE(ffprobe.waitForFinished(30000) && ffprobe.exitCode() == 0) << path.toStdString();
    return QJsonDocument::fromJson(ffprobe.readAllStandardOutput()).object();
}

class Ffprobe : public ::testing::Test {
protected:
    void SetUp() override
    {
        if (QStandardPaths::findExecutable(QStringLiteral("ffprobe")).isEmpty())
            GTEST_SKIP() << "ffprobe is not installed";
    }
};

// The value of a field of the first box of the given type below node.
QString fieldOf(const ReportTree::Node &node, const char *box, const char *name)
{
    const ReportTree::Node *found = findElement(node, QString::fromLatin1(box));
    const ReportTree::Node *field = found ? found->child(QString::fromLatin1(name)) : nullptr;
    return field ? field->value : QStringLiteral("(missing)");
}

// tests/data/make-test-files.sh made this file with version 1 headers in the video track and the
// movie, version 0 in the audio track. Track by track: the handler, language and time scale of the
// media, the duration left after the edit, and the picture size; for the movie, its creation date
// and duration.
TEST_F(Ffprobe, HeaderBoxesOfAFileWithBothVersions)
{
    const QString path = QStringLiteral(SARVELINTH_SOURCE_DIR "/tests/data/header-versions.mp4");
    const QJsonObject probed =
        probe(path, {"-show_entries", "stream=codec_type,time_base,duration_ts,width,height:"
                                      "stream_tags=handler_name,language:format=duration:"
                                      "format_tags=creation_time"});
    const QJsonArray streams = probed.value("streams").toArray();
    const ReportTree tree = parseReport(readSourceFile(path));
    const ReportTree::Node *movie = findElement(tree.root, "moov");
    ASSERT_NE(movie, nullptr);
    QString ours, theirs;
    int index = 0;
    for (const auto &track : movie->children) {
        if (track->name != "trak")
            continue;
        const QJsonObject stream = streams.at(index++).toObject();
        const QJsonObject tags = stream.value("tags").toObject();
        theirs += QStringList{stream.value("codec_type") == "video" ? "vide" : "soun",
                              tags.value("handler_name").toString(),
                              tags.value("language").toString(),
                              stream.value("time_base").toString(),
                              QString::number(qint64(stream.value("duration_ts").toDouble())),
                              QString::number(stream.value("width").toInt()) + ".0",
                              QString::number(stream.value("height").toInt()) + ".0"}
                      .join(' ') +
                  '\n';
        // FFprobe's duration is the media's own less the part the edit skips; the first entry below
        // the track is the edit's.
        const qint64 duration = fieldOf(*track, "mdhd", "duration").toLongLong() -
                                fieldOf(*track, "entry", "media_time").toLongLong();
        ours += QStringList{fieldOf(*track, "hdlr", "handler_type"),
                            fieldOf(*track, "hdlr", "name"),
                            fieldOf(*track, "mdhd", "language"),
                            "1/" + fieldOf(*track, "mdhd", "timescale"),
                            QString::number(duration),
                            fieldOf(*track, "tkhd", "width"),
                            fieldOf(*track, "tkhd", "height")}
                    .join(' ') +
                '\n';
    }
    EXPECT_EQ(index, streams.size());
    const QJsonObject format = probed.value("format").toObject();
    const QDateTime created = QDateTime::fromString(
        format.value("tags").toObject().value("creation_time").toString(), Qt::ISODateWithMs);
    theirs +=
        created.toUTC().toString("dd-MM-yyyy hh:mm:ss ") + format.value("duration").toString();
    ours += findElement(*movie, "mvhd")->child("creation_time")->comment + ' ' +
            QString::number(fieldOf(*movie, "mvhd", "duration").toDouble() /
                                fieldOf(*movie, "mvhd", "timescale").toDouble(),
                            'f', 6);
    EXPECT_EQ(ours.toStdString(), theirs.toStdString());
}

// One line per sample: offset, size, key frame and the step of its dts.
QString packetsOf(const ReportTree::Stream &stream)
{
    QString text;
    for (int i = 0; i < stream.samples.size(); ++i) {
        const Sample &sample = stream.samples[i];
        const qint64 step = i ? qint64(sample.dts) - qint64(stream.samples[i - 1].dts) : 0;
        text += QString::asprintf("%llu %llu %u %lld\n", qulonglong(sample.offset),
                                  qulonglong(sample.size), uint(sample.keyFrame), step);
    }
    return text;
}

// The same of ffprobe's video packets.
QString videoPacketsOfFfprobe(const QString &path)
{
    const QJsonArray packets =
        probe(path, {"-select_streams", "v", "-show_entries", "packet=pos,size,flags,dts"})
            .value("packets")
            .toArray();
    QString text;
    for (int i = 0; i < packets.size(); ++i) {
        const QJsonObject packet = packets[i].toObject();
        const qint64 dts = packet.value("dts").toInteger();
        text += QStringLiteral("%1 %2 %3 %4\n")
                    .arg(packet.value("pos").toString(), packet.value("size").toString())
                    .arg(packet.value("flags").toString().startsWith('K') ? 1 : 0)
                    .arg(i ? dts - packets[i - 1].toObject().value("dts").toInteger() : 0);
    }
    return text;
}

// The samples of the one stream of a file that has any, against ffprobe's video packets, and the
// stream's record.
TEST_F(Ffprobe, VideoSamplesAndStreamRecords)
{
    const struct {
        const char *path;
        int videoStream, codecId, width, height;
        bool avcConfiguration;
    } files[] = {{"samples/sample.mp4", 0, 28, 64, 48, true},
                 {"tests/data/track-h264-bframes.mp4", 0, 28, 32, 24, true},
                 {"tests/data/track-h264-faststart.mp4", 0, 28, 32, 24, true},
                 {"tests/data/track-mpeg4.mp4", 0, 13, 32, 24, false},
                 {"tests/data/track-aac-h264.mp4", 1, 28, 32, 24, true}};
    for (const auto &f : files) {
        SCOPED_TRACE(f.path);
        const QString path = QStringLiteral(SARVELINTH_SOURCE_DIR "/") + f.path;
        const QByteArray bytes = readSourceFile(path);
        const ReportTree report = parseReport(bytes);
        const ReportTree::Stream *video = nullptr;
        for (const ReportTree::Stream &stream : report.streams) {
            ASSERT_TRUE(stream.samples.isEmpty() || !video) << "two streams with samples";
            video = stream.samples.isEmpty() ? video : &stream;
        }
        ASSERT_NE(video, nullptr);
        EXPECT_EQ(video->index, f.videoStream);
        EXPECT_EQ(packetsOf(*video), videoPacketsOfFfprobe(path));

        const StreamInfo &info = video->info;
        EXPECT_EQ(QList<int>({info.codecId, info.width, info.height}),
                  QList<int>({f.codecId, f.width, f.height}));
        if (!f.avcConfiguration) {
            EXPECT_EQ(info.configOffset + info.configSize, 0u);
            continue;
        }
        // The configuration is the payload of an avcC box, and begins with version 1.
        ASSERT_GE(info.configOffset, 8u);
        ASSERT_LE(info.configOffset + info.configSize, quint64(bytes.size()));
        EXPECT_EQ(bytes.mid(int(info.configOffset) - 8, 8),
                  u32(quint32(info.configSize + 8)) + "avcC");
        EXPECT_EQ(bytes.at(int(info.configOffset)), 1);
    }
}

// The boxes of a file with every stco turned into a co64 of the same offsets, and the sizes of the
// containers around them grown to match. Offsets into mdat stay right only when no moov stands in
// front of it.
QByteArray withCo64(const QByteArray &boxes)
{
    static const QList<QByteArray> containers = {"moov", "trak", "mdia", "minf", "stbl"};
    QByteArray out;
    for (int at = 0; at + 8 <= boxes.size();) {
        const auto *p = reinterpret_cast<const uchar *>(boxes.constData()) + at;
        const int size = int(qFromBigEndian<quint32>(p));
        const QByteArray type = boxes.mid(at + 4, 4);
        if (containers.contains(type)) {
            out += box(type.constData(), withCo64(boxes.mid(at + 8, size - 8)));
        } else if (type == "stco") {
            const quint32 count = qFromBigEndian<quint32>(p + 12);
            QByteArray entries = boxes.mid(at + 8, 8);
            for (quint32 i = 0; i < count; ++i)
                entries += u64(qFromBigEndian<quint32>(p + 16 + 4 * i));
            out += box("co64", entries);
        } else {
            out += boxes.mid(at, size);
        }
        at += size;
    }
    return out;
}

TEST_F(Ffprobe, VideoSamplesOfTheSameFileWithCo64)
{
    const QString path = QStringLiteral(SARVELINTH_SOURCE_DIR "/tests/data/track-h264-bframes.mp4");
    const QByteArray converted = withCo64(readSourceFile(path));
    ASSERT_TRUE(converted.contains("co64") && !converted.contains("stco"));
    const ReportTree report = parseReport(converted);
    ASSERT_EQ(report.streams.size(), 1);
    EXPECT_EQ(packetsOf(report.streams[0]), videoPacketsOfFfprobe(path));
}

} // namespace

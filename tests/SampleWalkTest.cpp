// The sample walk: the samples each video stream reports from its recorded tables, for
// crafted tables and for real files made with FFmpeg, checked against ffprobe.

#include "TrackSupport.h"

#include <QDir>
#include <QFile>
#include <QProcess>
#include <QStandardPaths>
#include <QTemporaryDir>
#include <QtEndian>

#include <gtest/gtest.h>

#include <optional>
#include <vector>

using namespace bytes;
using namespace tracks;

namespace {
constexpr quint32 MaxCount = 0xFFFFFFFF;

// One line per sample: index offset size dts pts duration keyFrame.
std::string samplesText(const ReportTree::Stream &stream)
{
    QString text;
    for (int i = 0; i < stream.samples.size(); ++i) {
        const Sample &s = stream.samples[i];
        text += QStringLiteral("%1 %2 %3 %4 %5 %6 %7\n")
                    .arg(stream.sampleIndexes[i])
                    .arg(s.offset)
                    .arg(s.size)
                    .arg(s.dts)
                    .arg(s.pts)
                    .arg(s.duration)
                    .arg(s.keyFrame);
    }
    return text.toStdString();
}

std::string videoSamples(const QByteArray &tables)
{
    const ReportTree report = parseReport(videoMovie(tables));
    if (report.streams.size() != 1)
        return "streams: " + std::to_string(report.streams.size());
    return samplesText(report.streams[0]);
}

TEST(SampleWalk, WorkedExampleOfTwoChunksAndThreeSamples)
{
    const QByteArray tables =
        cat({stts({{2, 5}, {1, 7}}), stss({1, 3}), stsc({{1, 2, 1}, {2, 1, 1}}), stsz({10, 20, 30}),
             stco({400, 900})});
    EXPECT_EQ(videoSamples(tables), "0 400 10 0 0 5 1\n"
                                    "1 410 20 5 5 5 0\n"
                                    "2 900 30 10 10 7 1\n");
}

struct WalkCase {
    const char *name;
    QByteArray tables;
    const char *expected;
};

std::string caseName(const ::testing::TestParamInfo<WalkCase> &info)
{
    return info.param.name;
}

class Walks : public ::testing::TestWithParam<WalkCase> {};

TEST_P(Walks, ReportTheSamplesOfTheTables)
{
    EXPECT_EQ(videoSamples(GetParam().tables), GetParam().expected);
}

INSTANTIATE_TEST_SUITE_P(
    Tables, Walks,
    ::testing::Values(
        // Chunks and sample-to-chunk records.
        WalkCase{"FirstRecordHoldsFromChunkOneWhateverItsFirstChunk",
                 cat({stsc({{3, 2, 1}}), stco({100, 200}), stsz({1, 2, 3, 4}), stts({{4, 10}})}),
                 "0 100 1 0 0 10 1\n"
                 "1 101 2 10 10 10 1\n"
                 "2 200 3 20 20 10 1\n"
                 "3 203 4 30 30 10 1\n"},
        WalkCase{"MiddleChunkWithoutSamplesUsesUpItsOffset",
                 cat({stsc({{1, 1, 1}, {2, 0, 1}, {3, 1, 1}}), stco({100, 200, 300}), stsz({5, 6}),
                      stts({{2, 1}}), stss({1})}),
                 "0 100 5 0 0 1 1\n"
                 "1 300 6 1 1 1 0\n"},
        WalkCase{"RecordBehindItsChunkIsNeverTakenUp",
                 cat({stsc({{1, 1, 1}, {1, 3, 1}, {3, 2, 1}}), stco({100, 200, 300, 400}),
                      stszConstant(1, 4)}),
                 "0 100 1 0 0 0 1\n"
                 "1 200 1 0 0 0 1\n"
                 "2 300 1 0 0 0 1\n"
                 "3 400 1 0 0 0 1\n"},
        WalkCase{"Co64OffsetsAbove32Bits",
                 cat({stsc({{1, 1, 1}}), co64({0x100000000, 0x200000000}), stsz({1, 2})}),
                 "0 4294967296 1 0 0 0 1\n"
                 "1 8589934592 2 0 0 0 1\n"},
        WalkCase{"StcoAndCo64ChunksInBoxOrder",
                 cat({stsc({{1, 1, 1}}), stco({100}), co64({0x100000000}), stsz({1, 2})}),
                 "0 100 1 0 0 0 1\n"
                 "1 4294967296 2 0 0 0 1\n"},
        // Sizes.
        WalkCase{"ConstantSizeAdvancesEveryOffsetByIt",
                 cat({stszConstant(100, 3), stsc({{1, 3, 1}}), stco({1000}), stts({{3, 2}})}),
                 "0 1000 100 0 0 2 1\n"
                 "1 1100 100 2 2 2 1\n"
                 "2 1200 100 4 4 2 1\n"},
        WalkCase{"OneSampleOfItsOwnSizeReadsLikeAConstantSize",
                 cat({stsz({77}), stsc({{1, 1, 1}}), stco({50}), stts({{1, 3}})}),
                 "0 50 77 0 0 3 1\n"},
        WalkCase{"ShortSizeTableKeepsTheLastSize",
                 cat({fullBox("stsz", 0, 0, words32({0, 3, 4, 6})), stsc({{1, 3, 1}}), stco({10})}),
                 "0 10 4 0 0 0 1\n"
                 "1 14 6 0 0 0 1\n"
                 "2 20 6 0 0 0 1\n"},
        // Times.
        WalkCase{"NoTimeToSampleTableGivesZeroTimes",
                 cat({stsz({1, 2}), stsc({{1, 2, 1}}), stco({10})}),
                 "0 10 1 0 0 0 1\n"
                 "1 11 2 0 0 0 1\n"},
        WalkCase{"ShortTimeToSampleTableKeepsTheLastDelta",
                 cat({stsz({1, 1, 1}), stsc({{1, 3, 1}}), stco({10}), stts({{1, 5}})}),
                 "0 10 1 0 0 5 1\n"
                 "1 11 1 5 5 5 1\n"
                 "2 12 1 10 10 5 1\n"},
        WalkCase{"TimesWrapAt32Bits",
                 cat({stszConstant(1, 3), stsc({{1, 3, 1}}), stco({10}), stts({{3, 0x80000000}})}),
                 "0 10 1 0 0 2147483648 1\n"
                 "1 11 1 2147483648 2147483648 2147483648 1\n"
                 "2 12 1 0 0 2147483648 1\n"},
        // Key frames.
        WalkCase{"EmptySyncTableFlagsNoSample",
                 cat({stszConstant(1, 2), stsc({{1, 2, 1}}), stco({10}), stss({})}),
                 "0 10 1 0 0 0 0\n"
                 "1 11 1 0 0 0 0\n"},
        WalkCase{"SyncNumberZeroFlagsNoSample",
                 cat({stszConstant(1, 2), stsc({{1, 2, 1}}), stco({10}), stss({0, 2})}),
                 "0 10 1 0 0 0 0\n"
                 "1 11 1 0 0 0 0\n"},
        WalkCase{"SyncNumberNotAboveTheLastEndsTheFlags",
                 cat({stszConstant(1, 4), stsc({{1, 4, 1}}), stco({10}), stss({2, 2, 3})}),
                 "0 10 1 0 0 0 0\n"
                 "1 11 1 0 0 0 1\n"
                 "2 12 1 0 0 0 0\n"
                 "3 13 1 0 0 0 0\n"},
        // Ends of a stream.
        WalkCase{"ChunkPassingTheCountIsCutAtIt",
                 cat({stsz({1, 2, 3}), stsc({{1, 2, 1}}), stco({100, 200})}),
                 "0 100 1 0 0 0 1\n"
                 "1 101 2 0 0 0 1\n"
                 "2 200 3 0 0 0 1\n"},
        WalkCase{"CountZeroWithEmptyChunksEndsAtOnce",
                 cat({stsz({}), stsc({{1, 0, 1}}), stco({100})}), ""},
        WalkCase{"CountZeroReportsNoSampleOfAFullChunk",
                 cat({stsz({}), stsc({{1, 2, 1}}), stco({100})}), ""},
        WalkCase{"UsedUpChunkOffsetsEndTheStream",
                 cat({stszConstant(5, 10), stsc({{1, 2, 1}}), stco({100})}),
                 "0 100 5 0 0 0 1\n"
                 "1 105 5 0 0 0 1\n"},
        WalkCase{"NoChunkCanHoldASampleAnyMore",
                 cat({stszConstant(5, 10), stsc({{1, 1, 1}, {2, 0, 1}}), stco({100, 200, 300})}),
                 "0 100 5 0 0 0 1\n"},
        // Missing tables.
        WalkCase{"NoSampleToChunkTable", cat({stszConstant(5, 2), stco({100})}), ""},
        WalkCase{"EmptySampleToChunkTable", cat({stszConstant(5, 2), stsc({}), stco({100})}), ""},
        WalkCase{"NoChunkOffsetTable", cat({stszConstant(5, 2), stsc({{1, 2, 1}})}), ""},
        WalkCase{"NoSampleSizeTable", cat({stsc({{1, 2, 1}}), stco({100})}), ""},
        WalkCase{"SizeTableWithoutItsSizes",
                 cat({fullBox("stsz", 0, 0, words32({0, 2})), stsc({{1, 2, 1}}), stco({100})}),
                 ""}),
    caseName);

TEST(SampleWalk, StreamsKeepTheirIndexAndCountTheirSamplesFromZero)
{
    const QByteArray video = cat({stszConstant(7, 2), stsc({{1, 2, 1}}), stco({100})});
    const ReportTree report = parseReport(box(
        "moov", cat({trackBox("vide", video), trackBox("soun", video), trackBox("vide", video)})));
    ASSERT_EQ(report.streams.size(), 3);
    EXPECT_EQ(samplesText(report.streams[0]), "0 100 7 0 0 0 1\n"
                                              "1 107 7 0 0 0 1\n");
    EXPECT_EQ(samplesText(report.streams[1]), "");
    EXPECT_EQ(report.streams[2].index, 2);
    EXPECT_EQ(samplesText(report.streams[2]), samplesText(report.streams[0]));
}

TEST(SampleWalk, AllStreamsTogetherReportAtMostOneSamplePerInputByte)
{
    const QByteArray endless =
        cat({stszConstant(1, MaxCount), stsc({{1, MaxCount, 1}}), stco({0})});
    const QByteArray input =
        box("moov", cat({trackBox("vide", endless), trackBox("vide", endless)}));
    const ReportTree report = parseReport(input);
    ASSERT_EQ(report.streams.size(), 2);
    EXPECT_EQ(report.streams[0].samples.size(), input.size());
    EXPECT_EQ(report.streams[0].samples.last().offset, quint64(input.size() - 1));
    EXPECT_TRUE(report.streams[1].samples.isEmpty());
}

TEST(SampleWalk, EmptyTrackOpensAStreamWithoutSamples)
{
    const ReportTree report = parseReport(box("moov", box("trak")));
    ASSERT_EQ(report.streams.size(), 1);
    EXPECT_TRUE(report.streams[0].samples.isEmpty());
}

// Real files: the video samples against ffprobe's packets.

struct Packet {
    qint64 dts = 0;
    quint64 size = 0;
    quint64 pos = 0;
    bool key = false;
};

// ffprobe's video packets of a file, or nothing when ffprobe cannot be run.
std::optional<std::vector<Packet>> probeVideoPackets(const QString &path)
{
    QProcess probe;
    probe.start(QStringLiteral("ffprobe"),
                {"-v", "error", "-select_streams", "v", "-show_packets", "-show_entries",
                 "packet=pos,size,flags,dts", "-of", "csv=nokey=0", path});
    if (!probe.waitForFinished(30000) || probe.exitCode() != 0)
        return std::nullopt;
    std::vector<Packet> packets;
    for (const QByteArray &line : probe.readAllStandardOutput().split('\n')) {
        if (!line.startsWith("packet,"))
            continue;
        Packet packet;
        for (const QByteArray &pair : line.split(',')) {
            const int equals = pair.indexOf('=');
            const QByteArray key = pair.left(equals);
            const QByteArray value = pair.mid(equals + 1);
            if (key == "dts")
                packet.dts = value.toLongLong();
            else if (key == "size")
                packet.size = value.toULongLong();
            else if (key == "pos")
                packet.pos = value.toULongLong();
            else if (key == "flags")
                packet.key = value.startsWith('K');
        }
        packets.push_back(packet);
    }
    return packets;
}

// The one stream of a report that has samples.
const ReportTree::Stream *videoStream(const ReportTree &report)
{
    const ReportTree::Stream *found = nullptr;
    for (const ReportTree::Stream &stream : report.streams) {
        if (!stream.samples.isEmpty()) {
            if (found)
                return nullptr;
            found = &stream;
        }
    }
    return found;
}

void expectSamplesOfFfprobe(const QString &path, const ReportTree::Stream &stream)
{
    const std::optional<std::vector<Packet>> packets = probeVideoPackets(path);
    ASSERT_TRUE(packets.has_value()) << "ffprobe failed on " << path.toStdString();
    ASSERT_EQ(size_t(stream.samples.size()), packets->size());
    for (size_t i = 0; i < packets->size(); ++i) {
        const Sample &sample = stream.samples[int(i)];
        const Packet &packet = (*packets)[i];
        EXPECT_EQ(sample.offset, packet.pos) << "sample " << i;
        EXPECT_EQ(sample.size, packet.size) << "sample " << i;
        EXPECT_EQ(sample.keyFrame == 1, packet.key) << "sample " << i;
        if (i > 0) {
            const Sample &before = stream.samples[int(i) - 1];
            EXPECT_EQ(qint64(sample.dts) - qint64(before.dts), packet.dts - (*packets)[i - 1].dts)
                << "sample " << i;
        }
    }
}

struct RealFile {
    const char *path; // relative to the source directory
    int videoStream;
    int codecId;
    int width;
    int height;
    bool avcConfiguration;
};

class RealTracks : public ::testing::TestWithParam<RealFile> {
protected:
    void SetUp() override
    {
        if (QStandardPaths::findExecutable(QStringLiteral("ffprobe")).isEmpty())
            GTEST_SKIP() << "ffprobe is not installed";
    }
};

std::string realFileName(const ::testing::TestParamInfo<RealFile> &info)
{
    return QFileInfo(QString::fromLatin1(info.param.path))
        .completeBaseName()
        .remove(QLatin1Char('-'))
        .toStdString();
}

QString sourcePath(const char *relative)
{
    return QStringLiteral(SARVELINTH_SOURCE_DIR "/") + QString::fromLatin1(relative);
}

QByteArray readFile(const QString &path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

TEST_P(RealTracks, VideoSamplesAndStreamRecordAgreeWithFfprobe)
{
    const QString path = sourcePath(GetParam().path);
    const QByteArray bytes = readFile(path);
    ASSERT_FALSE(bytes.isEmpty()) << path.toStdString();
    const ReportTree report = parseReport(bytes);

    const ReportTree::Stream *stream = videoStream(report);
    ASSERT_NE(stream, nullptr) << "not exactly one stream with samples";
    EXPECT_EQ(stream->index, GetParam().videoStream);
    expectSamplesOfFfprobe(path, *stream);

    const StreamInfo &info = stream->info;
    EXPECT_EQ(info.codecId, GetParam().codecId);
    EXPECT_EQ(info.width, GetParam().width);
    EXPECT_EQ(info.height, GetParam().height);
    if (GetParam().avcConfiguration) {
        // The configuration is the payload of an avcC box, and begins with version 1.
        ASSERT_GE(info.configOffset, 8u);
        ASSERT_LE(info.configOffset + info.configSize, quint64(bytes.size()));
        const auto *box =
            reinterpret_cast<const uchar *>(bytes.constData()) + info.configOffset - 8;
        EXPECT_EQ(QByteArray(reinterpret_cast<const char *>(box) + 4, 4), "avcC");
        EXPECT_EQ(qFromBigEndian<quint32>(box), info.configSize + 8);
        EXPECT_EQ(bytes.at(int(info.configOffset)), 1);
    } else {
        EXPECT_EQ(info.configOffset, 0u);
        EXPECT_EQ(info.configSize, 0u);
    }
}

INSTANTIATE_TEST_SUITE_P(
    Files, RealTracks,
    ::testing::Values(RealFile{"samples/sample.mp4", 0, 28, 64, 48, true},
                      RealFile{"tests/data/track-h264-bframes.mp4", 0, 28, 32, 24, true},
                      RealFile{"tests/data/track-h264-faststart.mp4", 0, 28, 32, 24, true},
                      RealFile{"tests/data/track-mpeg4.mp4", 0, 13, 32, 24, false},
                      RealFile{"tests/data/track-aac-h264.mp4", 1, 28, 32, 24, true}),
    realFileName);

// The boxes of a file with every stco turned into a co64 of the same offsets, and the sizes
// of the containers around them grown to match. Offsets into mdat stay right only when no
// moov stands in front of it.
QByteArray withCo64(const QByteArray &boxes)
{
    static const QList<QByteArray> containers = {"moov", "trak", "mdia", "minf", "stbl"};
    QByteArray out;
    int at = 0;
    while (at + 8 <= boxes.size()) {
        const auto *p = reinterpret_cast<const uchar *>(boxes.constData()) + at;
        const int size = int(qFromBigEndian<quint32>(p));
        const QByteArray type = boxes.mid(at + 4, 4);
        const QByteArray payload = boxes.mid(at + 8, size - 8);
        if (containers.contains(type)) {
            out += box(type.constData(), withCo64(payload));
        } else if (type == "stco") {
            const quint32 count = qFromBigEndian<quint32>(p + 12);
            QByteArray entries = u32(count);
            for (quint32 i = 0; i < count; ++i)
                entries += u64(qFromBigEndian<quint32>(p + 16 + 4 * i));
            out += box("co64", payload.left(4) + entries);
        } else {
            out += boxes.mid(at, size);
        }
        at += size;
    }
    return out;
}

TEST_F(RealTracks, Co64FileAgreesWithFfprobe)
{
    const QByteArray original = readFile(sourcePath("tests/data/track-h264-bframes.mp4"));
    const QByteArray converted = withCo64(original);
    ASSERT_TRUE(converted.contains("co64"));
    ASSERT_FALSE(converted.contains("stco"));
    QTemporaryDir dir;
    const QString path = dir.filePath(QStringLiteral("co64.mp4"));
    QFile file(path);
    ASSERT_TRUE(file.open(QIODevice::WriteOnly) && file.write(converted) == converted.size());
    file.close();

    const ReportTree report = parseReport(converted);
    const ReportTree::Stream *stream = videoStream(report);
    ASSERT_NE(stream, nullptr);
    expectSamplesOfFfprobe(path, *stream);
    EXPECT_EQ(samplesText(*stream), samplesText(*videoStream(parseReport(original))));
}

} // namespace

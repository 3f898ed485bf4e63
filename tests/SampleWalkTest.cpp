// The sample walk: the samples each video stream reports from its recorded tables, for crafted
// tables and for real files made with FFmpeg, checked against ffprobe.

#include "TrackSupport.h"

#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>
#include <QStandardPaths>
#include <QTemporaryDir>
#include <QtEndian>

#include <gtest/gtest.h>

using namespace bytes;
using namespace tracks;

namespace {
constexpr quint32 MaxCount = 0xFFFFFFFF;

// One line per sample: index offset size dts pts duration keyFrame.
QString samplesText(const ReportTree::Stream &stream)
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
    return text;
}

QString videoSamples(const QByteArray &tables)
{
    const ReportTree report = parseReport(videoMovie(tables));
    if (report.streams.size() != 1)
        return QStringLiteral("streams: %1\n").arg(report.streams.size());
    return samplesText(report.streams[0]);
}

TEST(SampleWalk, WorkedExampleOfTwoChunksAndThreeSamples)
{
    EXPECT_EQ(videoSamples(cat({stts({{2, 5}, {1, 7}}), stss({1, 3}), stsc({{1, 2, 1}, {2, 1, 1}}),
                                stsz({10, 20, 30}), stco({400, 900})})),
              "0 400 10 0 0 5 1\n"
              "1 410 20 5 5 5 0\n"
              "2 900 30 10 10 7 1\n");
}

// The samples of each case under its name in tests/golden/SampleWalk/crafted-tables.txt.
TEST(SampleWalk, CraftedTables)
{
    const std::pair<const char *, QByteArray> cases[] = {
        // Chunks and sample-to-chunk records.
        {"first record holds from chunk one whatever its first chunk",
         cat({stsc({{3, 2, 1}}), stco({100, 200}), stsz({1, 2, 3, 4}), stts({{4, 10}})})},
        {"middle chunk without samples uses up its offset",
         cat({stsc({{1, 1, 1}, {2, 0, 1}, {3, 1, 1}}), stco({100, 200, 300}), stsz({5, 6}),
              stts({{2, 1}}), stss({1})})},
        {"record behind its chunk is never taken up",
         cat({stsc({{1, 1, 1}, {1, 3, 1}, {3, 2, 1}}), stco({100, 200, 300, 400}),
              stszConstant(1, 4)})},
        {"co64 offsets above 32 bits",
         cat({stsc({{1, 1, 1}}), co64({0x100000000, 0x200000000}), stsz({1, 2})})},
        {"stco and co64 chunks in box order",
         cat({stsc({{1, 1, 1}}), stco({100}), co64({0x100000000}), stsz({1, 2})})},
        // Sizes.
        {"constant size advances every offset by it",
         cat({stszConstant(100, 3), stsc({{1, 3, 1}}), stco({1000}), stts({{3, 2}})})},
        {"one sample of its own size reads like a constant size",
         cat({stsz({77}), stsc({{1, 1, 1}}), stco({50}), stts({{1, 3}})})},
        {"short size table keeps the last size",
         cat({fullBox("stsz", 0, 0, words32({0, 3, 4, 6})), stsc({{1, 3, 1}}), stco({10})})},
        // Times.
        {"no time-to-sample table gives zero times",
         cat({stsz({1, 2}), stsc({{1, 2, 1}}), stco({10})})},
        {"short time-to-sample table keeps the last delta",
         cat({stsz({1, 1, 1}), stsc({{1, 3, 1}}), stco({10}), stts({{1, 5}})})},
        {"times wrap at 32 bits",
         cat({stszConstant(1, 3), stsc({{1, 3, 1}}), stco({10}), stts({{3, 0x80000000}})})},
        // Key frames.
        {"empty sync table flags no sample",
         cat({stszConstant(1, 2), stsc({{1, 2, 1}}), stco({10}), stss({})})},
        {"sync number zero flags no sample",
         cat({stszConstant(1, 2), stsc({{1, 2, 1}}), stco({10}), stss({0, 2})})},
        {"sync number not above the last ends the flags",
         cat({stszConstant(1, 4), stsc({{1, 4, 1}}), stco({10}), stss({2, 2, 3})})},
        // Ends of a stream.
        {"chunk passing the count is cut at it",
         cat({stsz({1, 2, 3}), stsc({{1, 2, 1}}), stco({100, 200})})},
        {"count zero with empty chunks ends at once",
         cat({stsz({}), stsc({{1, 0, 1}}), stco({100})})},
        {"count zero reports no sample of a full chunk",
         cat({stsz({}), stsc({{1, 2, 1}}), stco({100})})},
        {"used-up chunk offsets end the stream",
         cat({stszConstant(5, 10), stsc({{1, 2, 1}}), stco({100})})},
        {"no chunk can hold a sample any more",
         cat({stszConstant(5, 10), stsc({{1, 1, 1}, {2, 0, 1}}), stco({100, 200, 300})})},
        // Missing tables.
        {"no sample-to-chunk table", cat({stszConstant(5, 2), stco({100})})},
        {"empty sample-to-chunk table", cat({stszConstant(5, 2), stsc({}), stco({100})})},
        {"no chunk offset table", cat({stszConstant(5, 2), stsc({{1, 2, 1}})})},
        {"no sample size table", cat({stsc({{1, 2, 1}}), stco({100})})},
        {"size table without its sizes",
         cat({fullBox("stsz", 0, 0, words32({0, 2})), stsc({{1, 2, 1}}), stco({100})})},
    };
    QString all;
    for (const auto &[name, tables] : cases)
        all += QStringLiteral("== ") + QLatin1String(name) + '\n' + videoSamples(tables);
    expectGolden(QStringLiteral("SampleWalk/crafted-tables"), all);
}

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

// Real files: the samples of the one stream that has any, against ffprobe's video packets.
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
    QProcess probe;
    probe.start(QStringLiteral("ffprobe"), {"-v", "error", "-select_streams", "v", "-show_entries",
                                            "packet=pos,size,flags,dts", "-of", "json", path});
    ASSERT_TRUE(probe.waitForFinished(30000) && probe.exitCode() == 0) << path.toStdString();
    const QJsonArray packets =
        QJsonDocument::fromJson(probe.readAllStandardOutput()).object().value("packets").toArray();
    ASSERT_EQ(stream.samples.size(), packets.size());
    for (int i = 0; i < packets.size(); ++i) {
        const Sample &sample = stream.samples[i];
        const QJsonObject packet = packets[i].toObject();
        EXPECT_EQ(sample.offset, packet.value("pos").toString().toULongLong()) << "sample " << i;
        EXPECT_EQ(sample.size, packet.value("size").toString().toULongLong()) << "sample " << i;
        EXPECT_EQ(sample.keyFrame == 1, packet.value("flags").toString().startsWith('K'))
            << "sample " << i;
        if (i > 0) {
            EXPECT_EQ(qint64(sample.dts - stream.samples[i - 1].dts),
                      packet.value("dts").toInteger() -
                          packets[i - 1].toObject().value("dts").toInteger())
                << "sample " << i;
        }
    }
}

QByteArray readSourceFile(const char *relative)
{
    QFile file(QStringLiteral(SARVELINTH_SOURCE_DIR "/") + QLatin1String(relative));
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

class RealTracks : public ::testing::Test {
protected:
    void SetUp() override
    {
        if (QStandardPaths::findExecutable(QStringLiteral("ffprobe")).isEmpty())
            GTEST_SKIP() << "ffprobe is not installed";
    }
};

TEST_F(RealTracks, VideoSamplesAndStreamRecordAgreeWithFfprobe)
{
    const struct {
        const char *path; // relative to the source directory
        int videoStream;
        int codecId;
        int width;
        int height;
        bool avcConfiguration;
    } files[] = {{"samples/sample.mp4", 0, 28, 64, 48, true},
                 {"tests/data/track-h264-bframes.mp4", 0, 28, 32, 24, true},
                 {"tests/data/track-h264-faststart.mp4", 0, 28, 32, 24, true},
                 {"tests/data/track-mpeg4.mp4", 0, 13, 32, 24, false},
                 {"tests/data/track-aac-h264.mp4", 1, 28, 32, 24, true}};
    for (const auto &f : files) {
        SCOPED_TRACE(f.path);
        const QByteArray bytes = readSourceFile(f.path);
        ASSERT_FALSE(bytes.isEmpty());
        const ReportTree report = parseReport(bytes);
        const ReportTree::Stream *stream = videoStream(report);
        ASSERT_NE(stream, nullptr) << "not exactly one stream with samples";
        EXPECT_EQ(stream->index, f.videoStream);
        expectSamplesOfFfprobe(QStringLiteral(SARVELINTH_SOURCE_DIR "/") + f.path, *stream);

        const StreamInfo &info = stream->info;
        EXPECT_EQ(QList<int>({info.codecId, info.width, info.height}),
                  QList<int>({f.codecId, f.width, f.height}));
        if (!f.avcConfiguration) {
            EXPECT_EQ(info.configOffset + info.configSize, 0u);
            continue;
        }
        // The configuration is the payload of an avcC box, and begins with version 1.
        ASSERT_GE(info.configOffset, 8u);
        ASSERT_LE(info.configOffset + info.configSize, quint64(bytes.size()));
        const QByteArray header = bytes.mid(int(info.configOffset) - 8, 8);
        EXPECT_EQ(header, u32(quint32(info.configSize + 8)) + "avcC");
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
    const QByteArray original = readSourceFile("tests/data/track-h264-bframes.mp4");
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

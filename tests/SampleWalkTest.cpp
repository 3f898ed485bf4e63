// The sample walk: the samples each video stream reports from its recorded tables. The real files
// are in RealFileTest.cpp.

#include "TrackSupport.h"

#include <gtest/gtest.h>

using namespace bytes;
using namespace tracks;

namespace {

// The samples of a movie of one video track with these tables, one line each: index offset size dts
// pts duration keyFrame.
QString videoSamples(const QByteArray &tables)
{
    const ReportTree report = parseReport(videoMovie(tables));
    if (report.streams.size() != 1)
        return QStringLiteral("streams: %1\n").arg(report.streams.size());
    const ReportTree::Stream &stream = report.streams[0];
    QString text;
    for (int i = 0; i < stream.samples.size(); ++i) {
        const Sample &s = stream.samples[i];
        text += QString::asprintf("%llu %llu %llu %llu %llu %llu %u\n",
                                  qulonglong(stream.sampleIndexes[i]), qulonglong(s.offset),
                                  qulonglong(s.size), qulonglong(s.dts), qulonglong(s.pts),
                                  qulonglong(s.duration), uint(s.keyFrame));
    }
    return text;
}

TEST(SampleWalk, WorkedExampleOfTwoChunksAndThreeSamples)
{
    EXPECT_EQ(videoSamples(cat({table("stts", {{2, 5}, {1, 7}}), counted("stss", {1, 3}),
                                table("stsc", {{1, 2, 1}, {2, 1, 1}}), stsz({10, 20, 30}),
                                counted("stco", {400, 900})})),
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
         cat({table("stsc", {{3, 2, 1}}), counted("stco", {100, 200}), stsz({1, 2, 3, 4}),
              table("stts", {{4, 10}})})},
        {"middle chunk without samples uses up its offset",
         cat({table("stsc", {{1, 1, 1}, {2, 0, 1}, {3, 1, 1}}), counted("stco", {100, 200, 300}),
              stsz({5, 6}), table("stts", {{2, 1}}), counted("stss", {1})})},
        {"record behind its chunk is never taken up",
         cat({table("stsc", {{1, 1, 1}, {1, 3, 1}, {3, 2, 1}}),
              counted("stco", {100, 200, 300, 400}), stszConstant(1, 4)})},
        {"second sample-to-chunk table starts over",
         cat({table("stsc", {{1, 2, 1}}), table("stsc", {{1, 1, 1}}), counted("stco", {100, 200}),
              stsz({1, 2})})},
        {"stco and co64 chunks in box order",
         cat({table("stsc", {{1, 1, 1}}), counted("stco", {100}), co64({0x100000000}),
              stsz({1, 2})})},
        // Sizes.
        {"constant size advances every offset by it",
         cat({stszConstant(100, 3), table("stsc", {{1, 3, 1}}), counted("stco", {1000}),
              table("stts", {{3, 2}})})},
        {"one sample of its own size reads like a constant size",
         cat({stsz({77}), table("stsc", {{1, 1, 1}}), counted("stco", {50}),
              table("stts", {{1, 3}})})},
        {"second size table starts over", cat({stsz({10, 20, 30}), stszConstant(100, 2),
                                               table("stsc", {{1, 3, 1}}), counted("stco", {10})})},
        {"short size table keeps the last size",
         cat({fullBox("stsz", 0, 0, words32({0, 3, 4, 6})), table("stsc", {{1, 3, 1}}),
              counted("stco", {10})})},
        // Times.
        {"no time-to-sample table gives zero times",
         cat({stsz({1, 2}), table("stsc", {{1, 2, 1}}), counted("stco", {10})})},
        {"runs expand and a second time-to-sample table goes on behind the first",
         cat({stszConstant(1, 6), table("stsc", {{1, 6, 1}}), counted("stco", {10}),
              table("stts", {{3, 5}, {0, 9}, {2, 7}}), table("stts", {{1, 8}})})},
        {"short time-to-sample table keeps the last delta",
         cat({stsz({1, 1, 1}), table("stsc", {{1, 3, 1}}), counted("stco", {10}),
              table("stts", {{1, 5}})})},
        {"times wrap at 32 bits", cat({stszConstant(1, 3), table("stsc", {{1, 3, 1}}),
                                       counted("stco", {10}), table("stts", {{3, 0x80000000}})})},
        // Key frames.
        {"empty sync table flags no sample", cat({stszConstant(1, 2), table("stsc", {{1, 2, 1}}),
                                                  counted("stco", {10}), counted("stss", {})})},
        {"sync number not above the last ends the flags",
         cat({stszConstant(1, 4), table("stsc", {{1, 4, 1}}), counted("stco", {10}),
              counted("stss", {2, 2, 3})})},
        // Ends of a stream.
        {"chunk passing the count is cut at it",
         cat({stsz({1, 2, 3}), table("stsc", {{1, 2, 1}}), counted("stco", {100, 200})})},
        {"count zero reports no sample of a full chunk",
         cat({stsz({}), table("stsc", {{1, 2, 1}}), counted("stco", {100})})},
        {"used-up chunk offsets end the stream",
         cat({stszConstant(5, 10), table("stsc", {{1, 2, 1}}), counted("stco", {100})})},
        {"no chunk can hold a sample any more",
         cat({stszConstant(5, 10), table("stsc", {{1, 1, 1}, {2, 0, 1}}),
              counted("stco", {100, 200, 300})})},
        // Missing tables.
        {"no sample-to-chunk table", cat({stszConstant(5, 2), counted("stco", {100})})},
        {"no chunk offset table", cat({stszConstant(5, 2), table("stsc", {{1, 2, 1}})})},
        {"no sample size table", cat({table("stsc", {{1, 2, 1}}), counted("stco", {100})})},
    };
    QString all;
    for (const auto &[name, tables] : cases)
        all += QStringLiteral("== ") + QLatin1String(name) + '\n' + videoSamples(tables);
    expectGolden(QStringLiteral("SampleWalk/crafted-tables"), all);
}

// Each trak opens the stream of its index. Only a track whose last handler, wherever it stands
// in the track, is exactly "vide" reports samples; the others report theirs as a video track
// would, and record nothing.
TEST(SampleWalk, OnlyTracksWhoseLastHandlerIsVideReportSamples)
{
    const QByteArray tables =
        cat({table("stts", {{2, 5}}), counted("stss", {2}), table("stsc", {{1, 2, 1}}),
             counted("stco", {400}), stsz({7, 8})});
    const auto track = [&](const QByteArray &handlers, const QByteArray &behind = {}) {
        return box("trak", box("mdia", handlers + box("minf", box("stbl", tables))) + behind);
    };
    const QByteArray movie =
        box("moov",
            cat({track(handlerBox("soun") + handlerBox("vide")), box("trak"),
                 track(handlerBox("vide") + handlerBox("VIDE")),
                 track(handlerBox("vide") + handlerBox("vid\0")),
                 track(handlerBox("vide"), box("udta", fullBox("meta", 0, 0, handlerBox("mdir")))),
                 track(handlerBox("vide"))}));
    const ReportTree report = parseReport(movie);
    QString samples;
    for (const ReportTree::Stream &stream : report.streams)
        samples += QStringLiteral("%1:%2 ").arg(stream.index).arg(stream.samples.size());
    EXPECT_EQ(samples, "0:2 1:0 2:0 3:0 4:0 5:2 ");
    EXPECT_EQ(dump(parseReport(box("moov", track(handlerBox("soun"))))).remove("soun"),
              dump(parseReport(box("moov", track(handlerBox("vide"))))).remove("vide"));
}

} // namespace

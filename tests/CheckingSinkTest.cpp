// The checking sink is the oracle of the fuzzer and of the sweeps: it must notice every
// kind of unsound report, and pass a sound one on unchanged.

#include "Checked.h"

#include <gtest/gtest.h>

#include <functional>

namespace {

void field(ReportSink &sink, quint64 offset)
{
    sink.addField(false, offset, 0, 4, "f", "v", QString(), QString(), -1);
}

struct SinkCase {
    const char *name;
    std::function<void(ReportSink &)> calls; // between beginReport (of 100 bytes) and endReport
    const char *problem;
};

TEST(CheckingSink, NoticesEveryUnsoundReport)
{
    const quint8 raw[2] = {1, 2};
    const SinkCase cases[] = {
        {"Sound",
         [&](ReportSink &s) {
             s.beginElement(0, 40, "moov", -1);
             field(s, 0);
             s.beginElement(0, 0, "entry", 0);
             s.setElementOffset(8);
             field(s, 8);
             s.addRawField(12, 2, raw, "r", QString());
             s.endElement();
             s.endElement();
             s.beginElement(40, 60, "mdat", -1);
             s.endElement();
             s.beginStream(0, StreamInfo());
             s.addSample(0, Sample());
             s.endStream();
             s.beginStream(2, StreamInfo());
             s.endStream();
         },
         ""},
        {"Unclosed", [](ReportSink &s) { s.beginElement(0, 8, "moov", -1); },
         "endReport with an element still open"},
        {"ClosedTwice",
         [](ReportSink &s) {
             s.beginElement(0, 8, "moov", -1);
             s.endElement();
             s.endElement();
         },
         "endElement without an open element"},
        {"FieldOutsideAnElement", [](ReportSink &s) { field(s, 0); },
         "addField without an open element"},
        {"SizeOutsideAnElement", [](ReportSink &s) { s.setElementSize(4); },
         "setElementSize without an open element"},
        {"OffsetOutsideAnElement", [](ReportSink &s) { s.setElementOffset(4); },
         "setElementOffset without an open element"},
        {"ChildBeforeItsElement",
         [](ReportSink &s) {
             s.beginElement(0, 100, "moov", -1);
             s.beginElement(0, 0, "entry", 0);
             field(s, 4);
             s.setElementOffset(8);
             s.endElement();
             s.endElement();
         },
         "a child placed before the start of its element"},
        {"TopLevelGap",
         [](ReportSink &s) {
             s.beginElement(0, 8, "free", -1);
             s.endElement();
             s.beginElement(9, 8, "free", -1);
             s.endElement();
         },
         "top-level element not behind the last one"},
        {"TopLevelAtTheEnd",
         [](ReportSink &s) {
             s.beginElement(0, 100, "free", -1);
             s.endElement();
             s.beginElement(100, 8, "free", -1);
             s.endElement();
         },
         "top-level element at the end of the input"},
        {"SampleOutsideAStream", [](ReportSink &s) { s.addSample(0, Sample()); },
         "sample outside a stream"},
        {"StreamsOutOfOrder",
         [](ReportSink &s) {
             s.beginStream(1, StreamInfo());
             s.endStream();
             s.beginStream(0, StreamInfo());
             s.endStream();
         },
         "streams out of index order"},
        {"StreamInsideAnElement",
         [](ReportSink &s) {
             s.beginElement(0, 8, "moov", -1);
             s.beginStream(0, StreamInfo());
         },
         "beginStream inside an element"},
        {"ElementAfterTheStreams",
         [](ReportSink &s) {
             s.beginStream(0, StreamInfo());
             s.endStream();
             s.beginElement(0, 8, "moov", -1);
             s.endElement();
         },
         "beginElement after the streams began"},
        {"StreamNotEnded", [](ReportSink &s) { s.beginStream(0, StreamInfo()); },
         "endReport with a stream still open"},
    };
    for (const SinkCase &c : cases) {
        SCOPED_TRACE(c.name);
        // Only a sound report is passed on: the tree relies on the order being right.
        const bool sound = c.problem[0] == '\0';
        ReportTree tree;
        CheckingSink sink(CheckingSink::Record, sound ? &tree : nullptr);
        sink.beginReport("f.mp4", 100);
        c.calls(sink);
        sink.endReport();
        EXPECT_EQ(sink.problem(), c.problem);
        if (sound) {
            EXPECT_EQ(tree.reportsEnded, 1);
            EXPECT_EQ(tree.root.children.size(), 2u);
            EXPECT_EQ(tree.streams.size(), 2);
        }
    }
}

TEST(CheckingSink, CountsWhatPassesAndHandsItOnUnchanged)
{
    const QByteArray input = bytes::cat(
        {bytes::box("ftyp", bytes::text("isomabcdmp41")), bytes::box("moov", bytes::box("udta"))});
    ReportTree report;
    const CheckedRun run = parseChecked(input, &report);
    EXPECT_TRUE(run.sound()) << run.problem;
    EXPECT_EQ(dump(report), dump(parseReport(input)));
    EXPECT_EQ(run.elements, 4u); // ftyp, compatible_brands, moov, udta
    EXPECT_EQ(run.fields, 2u + 2u + 1u + 2u + 2u);
    EXPECT_EQ(run.maxDepth, 2);
}

} // namespace

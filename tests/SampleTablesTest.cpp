// The sample table boxes: what each reports, and what a video track records of it in its table
// buffers, read back after the parse.

#include "TrackSupport.h"

#include <gtest/gtest.h>

using namespace bytes;
using namespace tracks;

namespace {
constexpr quint32 MaxCount = 0xFFFFFFFF;

// Compared with tests/golden/SampleTables/<name>.txt.
TEST(SampleTables, ReportEveryEntryThatLiesInsideTheBoxAndTheInput)
{
    ContainerAbstract::Settings hex;
    hex.valueBase = 16;
    const struct {
        const char *name;
        QByteArray input;
        ContainerAbstract::Settings settings = {};
    } cases[] = {
        // Entries as elements or as indexed fields; offsets unsigned; a constant sample size
        // without entries.
        {"every-table", cat({stts({{3, 5}, {0, 9}}), stss({1, 5}), stsc({{1, 2, 1}, {3, 1, 2}}),
                             stco({400, 0xFFFFFFFF}), co64({0x100000000}), stsz({7, 9}),
                             fullBox("stsz", 0, 0, words32({100, 5, 1, 2}))})},
        {"empty-table", stco({})},
        {"count-beyond-the-box",
         cat({fullBox("stss", 0, 0, words32({5, 1, 2})), box("free", words32({3, 4}))})},
        {"entry-cut-by-the-input",
         cat({u32(100), text("stco"), zeros(4), words32({3, 1, 2}), u16(0)})},
        {"count-cut-off", fullBox("stts", 0, 0, u16(7))},
        {"stsz-without-its-count", fullBox("stsz", 0, 0, u32(0))},
        {"value-base-16", stco({255}), hex},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        expectGolden(QStringLiteral("SampleTables/") + QLatin1String(c.name),
                     dump(parseReport(c.input, c.settings)));
    }
}

using TableList = QVector<QIODevice *> TestParser::*;

TEST(SampleTables, VideoTrackRecordsEachTableInItsBufferLayout)
{
    const struct {
        const char *name;
        QByteArray tables;
        TableList list;
        QByteArray expected;
    } cases[] = {
        {"stts runs expand to one delta per sample", stts({{3, 5}, {0, 9}, {2, 7}}),
         &TestParser::timeToSampleTables, hostWords<quint32>({5, 5, 5, 7, 7})},
        {"a second stts goes on behind the first", stts({{2, 5}}) + stts({{1, 8}}),
         &TestParser::timeToSampleTables, hostWords<quint32>({5, 5, 8})},
        {"stss numbers stay one-based", stss({1, 5}), &TestParser::syncSampleTables,
         hostWords<quint32>({1, 5})},
        {"stsc: the count, then the records", stsc({{1, 2, 1}, {3, 1, 2}}),
         &TestParser::sampleToChunkTables, hostWords<quint32>({2, 1, 2, 1, 3, 1, 2})},
        {"an empty stsc records its count", stsc({}), &TestParser::sampleToChunkTables,
         hostWords<quint32>({0})},
        {"a second stsc starts the buffer over", stsc({{1, 2, 1}, {3, 1, 2}}) + stsc({{5, 6, 7}}),
         &TestParser::sampleToChunkTables, hostWords<quint32>({1, 5, 6, 7, 3, 1, 2})},
        {"stco and co64 share one buffer of unsigned 8-byte offsets in box order",
         cat({stco({0xFFFFFFFF}), co64({0x200000000, 0x123456789}), stco({900})}),
         &TestParser::chunkOffsetTables,
         hostWords<quint64>({0xFFFFFFFF, 0x200000000, 0x123456789, 900})},
        {"stsz: the count, then a size per sample", stsz({10, 20, 30}),
         &TestParser::sampleSizeTables, hostWords<quint32>({3, 10, 20, 30})},
        {"a constant sample size is one word", stszConstant(100, 5), &TestParser::sampleSizeTables,
         hostWords<quint32>({1, 100})},
        {"stsz without samples", stsz({}), &TestParser::sampleSizeTables, hostWords<quint32>({0})},
        {"a second stsz starts the buffer over", stsz({10, 20, 30}) + stszConstant(100, 7),
         &TestParser::sampleSizeTables, hostWords<quint32>({1, 100, 20, 30})},
        {"entries beyond the box are not recorded", fullBox("stco", 0, 0, words32({5, 400})),
         &TestParser::chunkOffsetTables, hostWords<quint64>({400})},
    };
    for (const auto &c : cases) {
        KeptParse kept(videoMovie(c.tables));
        ASSERT_EQ(kept.parser.sampleOutputs.size(), 1) << c.name;
        EXPECT_EQ(kept.buffer(kept.parser.*c.list, 0).toHex().toStdString(),
                  c.expected.toHex().toStdString())
            << c.name;
    }
}

TEST(SampleTables, StszSetsTheStreamsSampleCount)
{
    KeptParse kept(videoMovie(cat({stszConstant(100, 5), stsz({10, 20, 30})})));
    EXPECT_EQ(kept.parser.sampleCounts, QVector<quint64>({3}));
    EXPECT_EQ(kept.parser.sampleCount, 3u);
}

const TableList AllTables[] = {&TestParser::chunkOffsetTables, &TestParser::sampleToChunkTables,
                               &TestParser::sampleSizeTables, &TestParser::timeToSampleTables,
                               &TestParser::syncSampleTables};

TEST(SampleTables, TrackThatIsNotVideoReportsButRecordsNothing)
{
    const QByteArray tables = cat({stts({{3, 5}}), stss({1}), stsc({{1, 3, 1}}), stco({400}),
                                   co64({900}), stsz({10, 20, 30})});
    KeptParse kept(box("moov", trackBox("soun", tables)));
    EXPECT_EQ(dump(kept.report).remove(QStringLiteral("soun")),
              dump(parseReport(videoMovie(tables))).remove(QStringLiteral("vide")));
    ASSERT_EQ(kept.parser.sampleOutputs.size(), 1);
    EXPECT_EQ(kept.parser.sampleOutputs[0], nullptr);
    EXPECT_EQ(kept.parser.sampleCounts, QVector<quint64>({0}));
    EXPECT_EQ(kept.parser.sampleCount, 3u);
    for (TableList list : AllTables) {
        ASSERT_EQ((kept.parser.*list).size(), 1);
        EXPECT_TRUE(kept.buffer(kept.parser.*list, 0).isEmpty());
    }
}

TEST(SampleTables, TablesOutsideAnyTrackRecordNothing)
{
    KeptParse kept(cat({handlerBox("vide"), stsz({10, 20}), stco({400})}));
    EXPECT_TRUE(kept.parser.sampleOutputs.isEmpty());
    EXPECT_TRUE(kept.parser.chunkOffsetTables.isEmpty());
    EXPECT_TRUE(kept.parser.sampleCounts.isEmpty());
    EXPECT_TRUE(dump(kept.report).contains(QStringLiteral("entry_size[1] @64+4 = 20")));
}

TEST(SampleTables, EachTrakOpensTheStreamOfItsIndex)
{
    KeptParse kept(box("moov", cat({trackBox("vide", cat({stsz({10, 20, 30}), stco({400})})),
                                    trackBox("soun", stsz({1, 2})), box("trak"),
                                    trackBox("vide", cat({stsz({5, 6}), stco({900})}))})));
    const TestParser &parser = kept.parser;
    EXPECT_EQ(parser.streams.size(), 4);
    ASSERT_EQ(parser.sampleOutputs.size(), 4);
    EXPECT_NE(parser.sampleOutputs[0], nullptr);
    EXPECT_EQ(parser.sampleOutputs[1], nullptr);
    EXPECT_EQ(parser.sampleOutputs[2], nullptr);
    EXPECT_NE(parser.sampleOutputs[3], nullptr);
    EXPECT_EQ(parser.sampleCounts, QVector<quint64>({3, 0, 0, 2}));
    EXPECT_EQ(kept.buffer(parser.chunkOffsetTables, 3), hostWords<quint64>({900}));
    EXPECT_EQ(kept.buffer(parser.sampleSizeTables, 3), hostWords<quint32>({2, 5, 6}));
    for (TableList list : AllTables)
        EXPECT_EQ((parser.*list).size(), 4);
}

TEST(SampleTables, OnlyATrakWhoseBoxesAreWalkedOpensAStream)
{
    // A trak whose size cannot hold its header, and one below the deepest walked level.
    QByteArray tooDeep = box("trak");
    for (int level = 0; level < 64; ++level)
        tooDeep = box("moov", tooDeep);
    for (const QByteArray &input : {cat({u32(4), text("trak")}), tooDeep}) {
        KeptParse kept(input);
        EXPECT_TRUE(kept.parser.streams.isEmpty());
        EXPECT_TRUE(kept.parser.syncSampleTables.isEmpty());
    }
}

TEST(SampleTables, TimeToSampleBuffersHoldAtMostOneWordPerInputByte)
{
    // Each track asks for 2^32 - 1 deltas; the first takes what the input allows.
    const QByteArray run = stts({{MaxCount, 3}});
    const QByteArray input = box("moov", cat({trackBox("vide", run), trackBox("vide", run)}));
    KeptParse kept(input);
    const QByteArray first = kept.buffer(kept.parser.timeToSampleTables, 0);
    EXPECT_EQ(first.size(), 4 * input.size());
    EXPECT_EQ(first.right(4), hostWords<quint32>({3}));
    EXPECT_TRUE(kept.buffer(kept.parser.timeToSampleTables, 1).isEmpty());
}

// Counts of 2^32 - 1 in boxes that hold two entries: the entries that are there, and a report and
// samples bounded by the input.
TEST(SampleTables, CountsTheBoxDoesNotBackEndSmall)
{
    const struct {
        const char *name;
        QByteArray tables;
        int entries; // reported by the first box of the case
    } cases[] = {
        {"stts", fullBox("stts", 0, 0, words32({MaxCount, 1, 1, 2, 3})), 2},
        {"stss", fullBox("stss", 0, 0, words32({MaxCount, 1, 5})), 2},
        {"stsc", fullBox("stsc", 0, 0, words32({MaxCount, 1, 2, 1, 3, 4, 1})), 2},
        {"stco", fullBox("stco", 0, 0, words32({MaxCount, 8, 16})), 2},
        {"co64", fullBox("co64", 0, 0, cat({u32(MaxCount), u64(8), u64(16)})), 2},
        {"stsz", fullBox("stsz", 0, 0, words32({0, MaxCount, 4, 5})), 2},
        {"stts run of all samples",
         cat({stts({{MaxCount, 1}}), stszConstant(10, MaxCount), stsc({{1, MaxCount, 1}}),
              stco({0})}),
         1},
        {"constant size for all samples",
         cat({stszConstant(1000, MaxCount), stsc({{1, MaxCount, 1}}), stco({0})}), 0},
        {"stsd entry sizes zero", fullBox("stsd", 0, 0, cat({u32(MaxCount), zeros(100)})), 1},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        const QByteArray input = videoMovie(c.tables);
        const ReportTree report = parseReport(input);
        const ReportTree::Node *table =
            findElement(report.root, QString::fromLatin1(c.tables.mid(4, 4)));
        ASSERT_NE(table, nullptr);
        int entries = 0;
        for (const auto &child : table->children)
            entries += child->index >= 0 ? 1 : 0;
        EXPECT_EQ(entries, c.entries);
        EXPECT_LE(dump(report).count('\n'), 2 * input.size());
        ASSERT_EQ(report.streams.size(), 1);
        EXPECT_LE(report.streams[0].samples.size(), input.size());
    }
}

} // namespace

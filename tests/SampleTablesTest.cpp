// The sample table boxes: what each reports, and what a video track records of it in its
// table buffers, read back after the parse.

#include "TrackSupport.h"

#include <gtest/gtest.h>

using namespace bytes;
using namespace tracks;

namespace {
constexpr quint32 MaxCount = 0xFFFFFFFF;

// The header lines of a full box of version 0 and flags 0 at offset 0.
std::string header(const char *type, quint64 size)
{
    return QStringLiteral("%1 @0+%2\n"
                          "  size @0+4 = %2\n"
                          "  type @4+4 = %1\n"
                          "  version @8+1 = 0\n"
                          "  flags @9+3 = 0\n")
        .arg(QLatin1String(type))
        .arg(size)
        .toStdString();
}

struct ReportCase {
    const char *name;
    QByteArray input;
    std::string expected;
    ContainerAbstract::Settings settings = {};
};

std::string caseName(const ::testing::TestParamInfo<ReportCase> &info)
{
    return info.param.name;
}

class TableReports : public ::testing::TestWithParam<ReportCase> {};

TEST_P(TableReports, ReportEveryEntryThatLiesInsideTheBoxAndTheInput)
{
    EXPECT_EQ(dump(parseReport(GetParam().input, GetParam().settings)).toStdString(),
              GetParam().expected);
}

ContainerAbstract::Settings hexValues()
{
    ContainerAbstract::Settings settings;
    settings.valueBase = 16;
    return settings;
}

INSTANTIATE_TEST_SUITE_P(
    Boxes, TableReports,
    ::testing::Values(
        ReportCase{"SttsEntriesAreElements", stts({{3, 5}, {0, 9}}),
                   header("stts", 32) + "  entry_count @12+4 = 2\n"
                                        "  entry[0] @16+8\n"
                                        "    sample_count @16+4 = 3\n"
                                        "    sample_delta @20+4 = 5\n"
                                        "  entry[1] @24+8\n"
                                        "    sample_count @24+4 = 0\n"
                                        "    sample_delta @28+4 = 9\n"},
        ReportCase{"StssNumbersAreIndexedFields", stss({1, 5}),
                   header("stss", 24) + "  entry_count @12+4 = 2\n"
                                        "  sample_number[0] @16+4 = 1\n"
                                        "  sample_number[1] @20+4 = 5\n"},
        ReportCase{"StscEntriesHoldThreeWords", stsc({{1, 2, 1}, {3, 1, 2}}),
                   header("stsc", 40) + "  entry_count @12+4 = 2\n"
                                        "  entry[0] @16+12\n"
                                        "    first_chunk @16+4 = 1\n"
                                        "    samples_per_chunk @20+4 = 2\n"
                                        "    sample_description_index @24+4 = 1\n"
                                        "  entry[1] @28+12\n"
                                        "    first_chunk @28+4 = 3\n"
                                        "    samples_per_chunk @32+4 = 1\n"
                                        "    sample_description_index @36+4 = 2\n"},
        ReportCase{"StcoOffsetsAreUnsigned", stco({400, 0xFFFFFFFF}),
                   header("stco", 24) + "  entry_count @12+4 = 2\n"
                                        "  chunk_offset[0] @16+4 = 400\n"
                                        "  chunk_offset[1] @20+4 = 4294967295\n"},
        ReportCase{"Co64OffsetsAre64Bit", co64({0x100000000}),
                   header("co64", 24) + "  entry_count @12+4 = 1\n"
                                        "  chunk_offset[0] @16+8 = 4294967296\n"},
        ReportCase{"StszSizePerSample", stsz({7, 9}),
                   header("stsz", 28) + "  sample_size @12+4 = 0\n"
                                        "  sample_count @16+4 = 2\n"
                                        "  entry_size[0] @20+4 = 7\n"
                                        "  entry_size[1] @24+4 = 9\n"},
        ReportCase{"StszConstantSizeHasNoEntries", fullBox("stsz", 0, 0, words32({100, 5, 1, 2})),
                   header("stsz", 28) + "  sample_size @12+4 = 100\n"
                                        "  sample_count @16+4 = 5\n"},
        ReportCase{"EmptyTableReportsItsCount", stco({}),
                   header("stco", 16) + "  entry_count @12+4 = 0\n"},
        ReportCase{"CountBeyondTheBoxStopsAtItsEnd",
                   cat({fullBox("stss", 0, 0, words32({5, 1, 2})), box("free", words32({3, 4}))}),
                   header("stss", 24) + "  entry_count @12+4 = 5\n"
                                        "  sample_number[0] @16+4 = 1\n"
                                        "  sample_number[1] @20+4 = 2\n"
                                        "free @24+16\n"
                                        "  size @24+4 = 16\n"
                                        "  type @28+4 = free\n"
                                        "  data @32+8\n"},
        ReportCase{"EntryCutByTheEndOfTheInputIsLeftOut",
                   cat({u32(100), text("stco"), zeros(4), words32({3, 1, 2}), u16(0)}),
                   header("stco", 100) + "  entry_count @12+4 = 3\n"
                                         "  chunk_offset[0] @16+4 = 1\n"
                                         "  chunk_offset[1] @20+4 = 2\n"},
        ReportCase{"CountCutOffReportsNothing", fullBox("stts", 0, 0, u16(7)), header("stts", 14)},
        ReportCase{"StszWithoutItsCountReportsTheSize", fullBox("stsz", 0, 0, u32(0)),
                   header("stsz", 16) + "  sample_size @12+4 = 0\n"},
        ReportCase{"NumbersInTheValueBase", stco({255}),
                   header("stco", 20) + "  entry_count @12+4 = 1\n"
                                        "  chunk_offset[0] @16+4 = ff\n",
                   hexValues()}),
    caseName);

using TableList = QVector<QIODevice *> TestParser::*;

struct RecordCase {
    const char *name;
    QByteArray tables;
    TableList list;
    QByteArray expected;
};

std::string recordCaseName(const ::testing::TestParamInfo<RecordCase> &info)
{
    return info.param.name;
}

class TableRecords : public ::testing::TestWithParam<RecordCase> {};

TEST_P(TableRecords, VideoTrackRecordsTheTableInItsBufferLayout)
{
    KeptParse kept(videoMovie(GetParam().tables));
    ASSERT_EQ(kept.parser.sampleOutputs.size(), 1);
    EXPECT_EQ(kept.buffer(kept.parser.*GetParam().list, 0).toHex().toStdString(),
              GetParam().expected.toHex().toStdString());
}

INSTANTIATE_TEST_SUITE_P(
    Tables, TableRecords,
    ::testing::Values(
        RecordCase{"SttsRunsAreExpandedToOneDeltaPerSample", stts({{3, 5}, {0, 9}, {2, 7}}),
                   &TestParser::timeToSampleTables, hostWords<quint32>({5, 5, 5, 7, 7})},
        RecordCase{"SecondSttsGoesOnBehindTheFirst", cat({stts({{2, 5}}), stts({{1, 8}})}),
                   &TestParser::timeToSampleTables, hostWords<quint32>({5, 5, 8})},
        RecordCase{"StssNumbersStayOneBased", stss({1, 5}), &TestParser::syncSampleTables,
                   hostWords<quint32>({1, 5})},
        RecordCase{"StscLeadingCountThenRecords", stsc({{1, 2, 1}, {3, 1, 2}}),
                   &TestParser::sampleToChunkTables, hostWords<quint32>({2, 1, 2, 1, 3, 1, 2})},
        RecordCase{"EmptyStscRecordsItsCount", stsc({}), &TestParser::sampleToChunkTables,
                   hostWords<quint32>({0})},
        RecordCase{"SecondStscStartsTheBufferOver",
                   cat({stsc({{1, 2, 1}, {3, 1, 2}}), stsc({{5, 6, 7}})}),
                   &TestParser::sampleToChunkTables, hostWords<quint32>({1, 5, 6, 7, 3, 1, 2})},
        RecordCase{"StcoOffsetsAreWidenedTo8Bytes", stco({400, 0xFFFFFFFF}),
                   &TestParser::chunkOffsetTables, hostWords<quint64>({400, 0xFFFFFFFF})},
        RecordCase{"StcoAndCo64ShareOneBufferInBoxOrder",
                   cat({stco({400}), co64({0x200000000, 0x123456789}), stco({900})}),
                   &TestParser::chunkOffsetTables,
                   hostWords<quint64>({400, 0x200000000, 0x123456789, 900})},
        RecordCase{"StszSizePerSample", stsz({10, 20, 30}), &TestParser::sampleSizeTables,
                   hostWords<quint32>({3, 10, 20, 30})},
        RecordCase{"StszConstantSizeIsOneWord", stszConstant(100, 5), &TestParser::sampleSizeTables,
                   hostWords<quint32>({1, 100})},
        RecordCase{"StszWithoutSamples", stsz({}), &TestParser::sampleSizeTables,
                   hostWords<quint32>({0})},
        RecordCase{"SecondStszStartsTheBufferOver", cat({stsz({10, 20, 30}), stszConstant(100, 7)}),
                   &TestParser::sampleSizeTables, hostWords<quint32>({1, 100, 20, 30})},
        RecordCase{"EntriesBeyondTheBoxAreNotRecorded", fullBox("stco", 0, 0, words32({5, 400})),
                   &TestParser::chunkOffsetTables, hostWords<quint64>({400})}),
    recordCaseName);

TEST(TableRecords, StszSetsTheStreamsSampleCount)
{
    KeptParse kept(videoMovie(cat({stszConstant(100, 5), stsz({10, 20, 30})})));
    EXPECT_EQ(kept.parser.sampleCounts, QVector<quint64>({3}));
    EXPECT_EQ(kept.parser.sampleCount, 3u);
}

TEST(TableRecords, TrackThatIsNotVideoReportsButRecordsNothing)
{
    const QByteArray tables = cat({stts({{3, 5}}), stss({1}), stsc({{1, 3, 1}}), stco({400}),
                                   co64({900}), stsz({10, 20, 30})});
    KeptParse kept(box("moov", trackBox("soun", tables)));
    const ReportTree reference = parseReport(videoMovie(tables));
    EXPECT_EQ(dump(kept.report).remove(QStringLiteral("soun")),
              dump(reference).remove(QStringLiteral("vide")));

    ASSERT_EQ(kept.parser.sampleOutputs.size(), 1);
    EXPECT_EQ(kept.parser.sampleOutputs[0], nullptr);
    EXPECT_EQ(kept.parser.sampleCounts[0], 0u);
    EXPECT_EQ(kept.parser.sampleCount, 3u);
    for (TableList list : {&TestParser::chunkOffsetTables, &TestParser::sampleToChunkTables,
                           &TestParser::sampleSizeTables, &TestParser::timeToSampleTables,
                           &TestParser::syncSampleTables}) {
        ASSERT_EQ((kept.parser.*list).size(), 1);
        EXPECT_TRUE(kept.buffer(kept.parser.*list, 0).isEmpty());
    }
}

TEST(TableRecords, TablesOutsideAnyTrackRecordNothing)
{
    KeptParse kept(cat({handlerBox("vide"), stsz({10, 20}), stco({400})}));
    EXPECT_TRUE(kept.parser.sampleOutputs.isEmpty());
    EXPECT_TRUE(kept.parser.chunkOffsetTables.isEmpty());
    EXPECT_TRUE(kept.parser.sampleCounts.isEmpty());
    EXPECT_NE(dump(kept.report).indexOf(QStringLiteral("entry_size[1] @64+4 = 20")), -1);
}

TEST(TableRecords, EachTrakOpensTheStreamOfItsIndex)
{
    KeptParse kept(box("moov", cat({trackBox("vide", cat({stsz({10, 20, 30}), stco({400})})),
                                    trackBox("soun", stsz({1, 2})), box("trak"),
                                    trackBox("vide", cat({stsz({5, 6}), stco({900})}))})));
    const TestParser &parser = kept.parser;
    ASSERT_EQ(parser.streams.size(), 4);
    ASSERT_EQ(parser.sampleOutputs.size(), 4);
    EXPECT_NE(parser.sampleOutputs[0], nullptr);
    EXPECT_EQ(parser.sampleOutputs[1], nullptr);
    EXPECT_EQ(parser.sampleOutputs[2], nullptr);
    EXPECT_NE(parser.sampleOutputs[3], nullptr);
    EXPECT_EQ(parser.sampleCounts, QVector<quint64>({3, 0, 0, 2}));
    EXPECT_EQ(kept.buffer(parser.chunkOffsetTables, 3), hostWords<quint64>({900}));
    EXPECT_EQ(kept.buffer(parser.sampleSizeTables, 3), hostWords<quint32>({2, 5, 6}));
    for (const auto *tables :
         {&parser.chunkOffsetTables, &parser.sampleToChunkTables, &parser.sampleSizeTables,
          &parser.timeToSampleTables, &parser.syncSampleTables})
        EXPECT_EQ(tables->size(), 4);
}

TEST(TableRecords, OnlyATrakWhoseBoxesAreWalkedOpensAStream)
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

TEST(TableRecords, TimeToSampleBuffersHoldAtMostOneWordPerInputByte)
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

struct HostileCase {
    const char *name;
    QByteArray tables;
    quint64 expectedEntries; // entries reported by the box of the case
};

std::string hostileCaseName(const ::testing::TestParamInfo<HostileCase> &info)
{
    return info.param.name;
}

class HostileTables : public ::testing::TestWithParam<HostileCase> {};

// Entries of the first box in the sample table: its elements and indexed fields.
quint64 reportedEntries(const ReportTree &report)
{
    const ReportTree::Node *stbl = findElement(report.root, QStringLiteral("stbl"));
    for (const auto &table : stbl->children) {
        if (table->kind != ReportTree::Node::Element)
            continue;
        quint64 entries = 0;
        for (const auto &child : table->children)
            entries += child->index >= 0 ? 1 : 0;
        return entries;
    }
    return 0;
}

TEST_P(HostileTables, CountsTheBoxDoesNotBackEndSmall)
{
    const QByteArray input = videoMovie(GetParam().tables);
    const ReportTree report = parseReport(input);
    EXPECT_EQ(reportedEntries(report), GetParam().expectedEntries);
    EXPECT_LE(countNodes(report.root), quint64(2 * input.size()));
    EXPECT_LE(countSamples(report), quint64(input.size()));
}

INSTANTIATE_TEST_SUITE_P(
    Counts, HostileTables,
    ::testing::Values(
        HostileCase{"Stts", fullBox("stts", 0, 0, words32({MaxCount, 1, 1, 2, 3})), 2},
        HostileCase{"Stss", fullBox("stss", 0, 0, words32({MaxCount, 1, 5})), 2},
        HostileCase{"Stsc", fullBox("stsc", 0, 0, words32({MaxCount, 1, 2, 1, 3, 4, 1})), 2},
        HostileCase{"Stco", fullBox("stco", 0, 0, words32({MaxCount, 8, 16})), 2},
        HostileCase{"Co64", fullBox("co64", 0, 0, cat({u32(MaxCount), u64(8), u64(16)})), 2},
        HostileCase{"Stsz", fullBox("stsz", 0, 0, words32({0, MaxCount, 4, 5})), 2},
        HostileCase{"SttsRunOfAllSamples",
                    cat({stts({{MaxCount, 1}}), stszConstant(10, MaxCount),
                         stsc({{1, MaxCount, 1}}), stco({0})}),
                    1},
        HostileCase{"StszConstantSizeForAllSamples",
                    cat({stszConstant(1000, MaxCount), stsc({{1, MaxCount, 1}}), stco({0})}), 0},
        HostileCase{"StsdEntrySizesZero", fullBox("stsd", 0, 0, cat({u32(MaxCount), zeros(100)})),
                    1}),
    hostileCaseName);

} // namespace

// The sample table boxes: what each reports, and what a video track records of it in its table
// buffers, read back after the parse.

#include "TrackSupport.h"

#include <QtEndian>

#include <gtest/gtest.h>

using namespace bytes;
using namespace tracks;

namespace {
constexpr quint32 MaxCount = 0xFFFFFFFF;

// Compared with tests/golden/SampleTables/<name>.txt, in value base 16 when the name ends so.
TEST(SampleTables, ReportEveryEntryThatLiesInsideTheBoxAndTheInput)
{
    const std::pair<const char *, QByteArray> cases[] = {
        // Entries as elements or as indexed fields; offsets unsigned; a constant sample size
        // without entries.
        {"every-table",
         cat({table("stts", {{3, 5}, {0, 9}}), counted("stss", {1, 5}),
              table("stsc", {{1, 2, 1}, {3, 1, 2}}), counted("stco", {400, 0xFFFFFFFF}),
              co64({0x100000000}), stsz({7, 9}), fullBox("stsz", 0, 0, words32({100, 5, 1, 2}))})},
        // An empty table, a count and a constant size cut off by the box, a count beyond the box,
        // and entries cut off by the end of the input.
        {"short-tables",
         cat({counted("stco", {}), fullBox("stts", 0, 0, u16(7)), fullBox("stsz", 0, 0, u32(0)),
              fullBox("stss", 0, 0, words32({5, 1, 2})), box("free", words32({3, 4})), u32(100),
              text("stco"), zeros(4), words32({3, 1, 2}), u16(0)})},
        {"stco-base16", counted("stco", {255})},
    };
    for (const auto &[name, input] : cases) {
        ContainerAbstract::Settings settings;
        settings.valueBase = QByteArray(name).endsWith("-base16") ? 16 : 10;
        expectGolden(QStringLiteral("SampleTables/") + QLatin1String(name),
                     dump(parseReport(input, settings)));
    }
}

// What a stream recorded: its sample count and each table buffer that is not empty, as the
// host-order words it holds (8 bytes wide for chunk offsets, 4 for all else).
std::string recorded(const KeptParse &kept, int stream)
{
    const TestParser &parser = kept.parser;
    const std::pair<const char *, const QVector<QIODevice *> *> lists[] = {
        {"chunk offsets", &parser.chunkOffsetTables},
        {"sample to chunk", &parser.sampleToChunkTables},
        {"sample sizes", &parser.sampleSizeTables},
        {"time to sample", &parser.timeToSampleTables},
        {"sync samples", &parser.syncSampleTables}};
    QString text = QStringLiteral("samples %1").arg(parser.sampleCounts.value(stream));
    for (const auto &[name, list] : lists) {
        const QByteArray buffer = kept.buffer(*list, stream);
        const int width = list == &parser.chunkOffsetTables ? 8 : 4;
        if (!buffer.isEmpty())
            text += QStringLiteral(", %1:").arg(QLatin1String(name));
        for (int at = 0; at + width <= buffer.size(); at += width) {
            const char *word = buffer.constData() + at;
            text += ' ' + QString::number(width == 8 ? qFromUnaligned<quint64>(word)
                                                     : qFromUnaligned<quint32>(word));
        }
        if (buffer.size() % width)
            text += QStringLiteral(" and %1 bytes").arg(buffer.size() % width);
    }
    return text.toStdString();
}

TEST(SampleTables, VideoTrackRecordsEachTableInItsBufferLayout)
{
    const std::pair<QByteArray, const char *> cases[] = {
        // Runs expand to one delta per sample; a second table goes on behind the first.
        {table("stts", {{3, 5}, {0, 9}, {2, 7}}), "samples 0, time to sample: 5 5 5 7 7"},
        {table("stts", {{2, 5}}) + table("stts", {{1, 8}}), "samples 0, time to sample: 5 5 8"},
        {counted("stss", {1, 5}), "samples 0, sync samples: 1 5"},
        // The count, then the records; a second table starts the buffer over.
        {table("stsc", {{1, 2, 1}, {3, 1, 2}}), "samples 0, sample to chunk: 2 1 2 1 3 1 2"},
        {table("stsc", {}), "samples 0, sample to chunk: 0"},
        {table("stsc", {{1, 2, 1}, {3, 1, 2}}) + table("stsc", {{5, 6, 7}}),
         "samples 0, sample to chunk: 1 5 6 7 3 1 2"},
        // stco and co64 share one buffer of unsigned 8-byte offsets, in box order.
        {cat({counted("stco", {0xFFFFFFFF}), co64({0x200000000}), counted("stco", {900})}),
         "samples 0, chunk offsets: 4294967295 8589934592 900"},
        // The count, then a size per sample or one constant size; a second table starts over.
        {stsz({10, 20, 30}), "samples 3, sample sizes: 3 10 20 30"},
        {stszConstant(100, 5), "samples 5, sample sizes: 1 100"},
        {stsz({}), "samples 0, sample sizes: 0"},
        {stsz({10, 20, 30}) + stszConstant(100, 7), "samples 7, sample sizes: 1 100 20 30"},
        {fullBox("stco", 0, 0, words32({5, 400})), "samples 0, chunk offsets: 400"},
    };
    for (const auto &[tables, expected] : cases) {
        KeptParse kept(videoMovie(tables));
        ASSERT_EQ(kept.parser.sampleOutputs.size(), 1);
        EXPECT_EQ(recorded(kept, 0), expected);
    }
}

// Each trak opens the stream of its index; a track that is not video records nothing but the sample
// count of the parser.
TEST(SampleTables, EachTrakOpensTheStreamOfItsIndex)
{
    const QByteArray otherTables =
        cat({table("stts", {{3, 5}}), counted("stss", {1}), table("stsc", {{1, 3, 1}}),
             counted("stco", {400}), co64({900}), stsz({10, 20, 30})});
    KeptParse kept(box(
        "moov",
        cat({trackBox("vide", cat({stszConstant(100, 5), stsz({7, 8}), counted("stco", {400})})),
             box("trak"), trackBox("vide", cat({stsz({5, 6}), counted("stco", {900})})),
             trackBox("soun", otherTables)})));
    const TestParser &parser = kept.parser;
    ASSERT_EQ(parser.sampleOutputs.size(), 4);
    EXPECT_EQ(parser.streams.size(), 4);
    for (const QVector<QIODevice *> *list :
         {&parser.chunkOffsetTables, &parser.sampleToChunkTables, &parser.sampleSizeTables,
          &parser.timeToSampleTables, &parser.syncSampleTables})
        EXPECT_EQ(list->size(), 4);
    std::string streams;
    for (int stream = 0; stream < 4; ++stream)
        streams +=
            (parser.sampleOutputs[stream] ? "video " : "other ") + recorded(kept, stream) + '\n';
    EXPECT_EQ(streams, "video samples 2, chunk offsets: 400, sample sizes: 2 7 8\n"
                       "other samples 0\n"
                       "video samples 2, chunk offsets: 900, sample sizes: 2 5 6\n"
                       "other samples 0\n");
    EXPECT_EQ(parser.sampleCount, 3u);

    // Its report is that of a video track.
    EXPECT_EQ(dump(parseReport(box("moov", trackBox("soun", otherTables)))).remove("soun"),
              dump(parseReport(videoMovie(otherTables))).remove("vide"));
}

TEST(SampleTables, OnlyATrakWhoseBoxesAreWalkedOpensAStream)
{
    // Tables outside any trak, a trak whose size cannot hold its header, and one below the deepest
    // walked level.
    QByteArray tooDeep = box("trak");
    for (int level = 0; level < 64; ++level)
        tooDeep = box("moov", tooDeep);
    for (const QByteArray &input :
         {cat({handlerBox("vide"), stsz({10, 20}), counted("stco", {400})}),
          cat({u32(4), text("trak")}), tooDeep}) {
        KeptParse kept(input);
        EXPECT_TRUE(kept.parser.streams.isEmpty());
        EXPECT_TRUE(kept.parser.sampleOutputs.isEmpty());
        EXPECT_TRUE(kept.parser.sampleCounts.isEmpty());
        EXPECT_TRUE(kept.parser.chunkOffsetTables.isEmpty());
        EXPECT_TRUE(kept.parser.syncSampleTables.isEmpty());
    }
}

TEST(SampleTables, TimeToSampleBuffersHoldAtMostOneWordPerInputByte)
{
    // Each track asks for 2^32 - 1 deltas; the first takes what the input allows.
    const QByteArray run = table("stts", {{MaxCount, 3}});
    const QByteArray input = box("moov", cat({trackBox("vide", run), trackBox("vide", run)}));
    KeptParse kept(input);
    const QByteArray first = kept.buffer(kept.parser.timeToSampleTables, 0);
    ASSERT_EQ(first.size(), 4 * input.size());
    EXPECT_EQ(qFromUnaligned<quint32>(first.constData() + first.size() - 4), 3u);
    EXPECT_TRUE(kept.buffer(kept.parser.timeToSampleTables, 1).isEmpty());
}

// Counts of 2^32 - 1 in boxes that hold two entries: the entries that are there, and a report and
// samples bounded by the input.
TEST(SampleTables, CountsTheBoxDoesNotBackEndSmall)
{
    const std::pair<QByteArray, int> cases[] = {
        // the tables, and the entries of the first
        {fullBox("stts", 0, 0, words32({MaxCount, 1, 1, 2, 3})), 2},
        {fullBox("stss", 0, 0, words32({MaxCount, 1, 5})), 2},
        {fullBox("stsc", 0, 0, words32({MaxCount, 1, 2, 1, 3, 4, 1})), 2},
        {fullBox("stco", 0, 0, words32({MaxCount, 8, 16})), 2},
        {fullBox("co64", 0, 0, cat({u32(MaxCount), u64(8), u64(16)})), 2},
        {fullBox("stsz", 0, 0, words32({0, MaxCount, 4, 5})), 2},
        {fullBox("stsd", 0, 0, cat({u32(MaxCount), zeros(100)})), 1}, // entry sizes zero
        // A time-to-sample run and a constant size for all samples.
        {cat({table("stts", {{MaxCount, 1}}), stszConstant(10, MaxCount),
              table("stsc", {{1, MaxCount, 1}}), counted("stco", {0})}),
         1},
        {cat({stszConstant(1000, MaxCount), table("stsc", {{1, MaxCount, 1}}),
              counted("stco", {0})}),
         0},
    };
    for (const auto &[tables, expectedEntries] : cases) {
        const QString type = QString::fromLatin1(tables.mid(4, 4));
        SCOPED_TRACE(type.toStdString());
        const QByteArray input = videoMovie(tables);
        const ReportTree report = parseReport(input);
        const ReportTree::Node *table = findElement(report.root, type);
        ASSERT_NE(table, nullptr);
        int entries = 0;
        for (const auto &child : table->children)
            entries += child->index >= 0 ? 1 : 0;
        EXPECT_EQ(entries, expectedEntries);
        EXPECT_LE(dump(report).count('\n'), 2 * input.size());
        ASSERT_EQ(report.streams.size(), 1);
        EXPECT_LE(report.streams[0].samples.size(), input.size());
    }
}

} // namespace

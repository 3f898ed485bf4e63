// The sample table boxes: what each reports, and what a video track records of it in its table
// buffers, read back after the parse.

#include "TrackSupport.h"

#include <QIODevice>
#include <QtEndian>

#include <gtest/gtest.h>

using namespace bytes;
using namespace tracks;

namespace {

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

// What each stream recorded, a line each: video or other, its sample count and each table buffer
// that is not empty, as the host-order words it holds (8 bytes wide for chunk offsets, 4 for all
// else).
std::string recorded(const QByteArray &input)
{
    TestParser parser;
    ReportTree report;
    parser.parseBytes(QStringLiteral("test.mp4"), input, report);
    const std::pair<const char *, const QVector<QIODevice *> *> lists[] = {
        {"chunk offsets", &parser.chunkOffsetTables},
        {"sample to chunk", &parser.sampleToChunkTables},
        {"sample sizes", &parser.sampleSizeTables},
        {"time to sample", &parser.timeToSampleTables},
        {"sync samples", &parser.syncSampleTables}};
    QString text;
    for (int stream = 0; stream < parser.sampleOutputs.size(); ++stream) {
        text += QStringLiteral("%1 samples %2")
                    .arg(parser.sampleOutputs[stream] ? "video" : "other")
                    .arg(parser.sampleCounts.value(stream));
        for (const auto &[name, list] : lists) {
            QIODevice *device = list->value(stream);
            const QByteArray buffer = device && device->seek(0) ? device->readAll() : QByteArray();
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
        text += '\n';
    }
    return text.toStdString();
}

TEST(SampleTables, VideoTrackRecordsEachTableInItsBufferLayout)
{
    const std::pair<QByteArray, const char *> cases[] = {
        // Runs expand to one delta per sample; a second table goes on behind the first.
        {table("stts", {{3, 5}, {0, 9}, {2, 7}}) + table("stts", {{1, 8}}),
         "samples 0, time to sample: 5 5 5 7 7 8"},
        {counted("stss", {1, 5}), "samples 0, sync samples: 1 5"},
        // The count, then the records; a second table starts the buffer over.
        {table("stsc", {{1, 2, 1}, {3, 1, 2}}) + table("stsc", {{5, 6, 7}}),
         "samples 0, sample to chunk: 1 5 6 7 3 1 2"},
        // stco and co64 share one buffer of unsigned 8-byte offsets, in box order; a count beyond
        // the box takes only the entries inside it.
        {cat({counted("stco", {0xFFFFFFFF}), co64({0x200000000}),
              fullBox("stco", 0, 0, words32({5, 900}))}),
         "samples 0, chunk offsets: 4294967295 8589934592 900"},
        // The count, then a size per sample or one constant size; a second table starts over.
        {stsz({10, 20, 30}) + stszConstant(100, 7), "samples 7, sample sizes: 1 100 20 30"},
    };
    for (const auto &[tables, expected] : cases)
        EXPECT_EQ(recorded(videoMovie(tables)), "video " + std::string(expected) + '\n');
}

// Each trak opens the stream of its index; a track that is not video records nothing, and its
// report is that of a video track.
TEST(SampleTables, EachTrakOpensTheStreamOfItsIndex)
{
    const QByteArray otherTables =
        cat({table("stts", {{3, 5}}), counted("stss", {1}), table("stsc", {{1, 3, 1}}),
             counted("stco", {400}), co64({900}), stsz({10, 20, 30})});
    EXPECT_EQ(
        recorded(box("moov", cat({trackBox("vide", cat({stsz({7, 8}), counted("stco", {400})})),
                                  box("trak"), trackBox("soun", otherTables)}))),
        "video samples 2, chunk offsets: 400, sample sizes: 2 7 8\n"
        "other samples 0\n"
        "other samples 0\n");
    EXPECT_EQ(dump(parseReport(box("moov", trackBox("soun", otherTables)))).remove("soun"),
              dump(parseReport(videoMovie(otherTables))).remove("vide"));
}

} // namespace

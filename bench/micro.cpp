// Per-call costs of the report's hot paths, each in isolation: rendering a field's number,
// writing a field or a sample with each writer, and a box, a table entry and a sample
// through the parser with a sink that drops everything.
#include "ContainerMP4.h"
#include "JsonWriter.h"
#include "Render.h"
#include "TextWriter.h"

#include <benchmark/benchmark.h>

#include <QByteArray>
#include <QString>

#include <cstdio>

namespace {

// Numbers of the sizes the table fields show: small sizes and counts, and file offsets.
quint64 fieldNumber(quint64 i)
{
    return (i & 1) ? 1000 + (i * 7919) % 9000 : 100000000 + i * 1013;
}

FILE *devNull()
{
    static FILE *file = std::fopen("/dev/null", "wb");
    return file;
}

class NullSink : public ReportSink {
public:
    void beginReport(const QString &, quint64) override {}
    void endReport() override {}
    void beginElement(quint64, quint64, const QString &, qint64) override {}
    void setElementOffset(quint64) override {}
    void setElementSize(quint64) override {}
    void setElementNote(const QString &) override {}
    void setElementValue(const QString &) override {}
    void endElement() override {}
    void addField(bool, quint64, quint8, quint64, const QString &, const QString &value,
                  const QString &, const QString &, qint64) override
    {
        benchmark::DoNotOptimize(value.constData());
    }
    void addRawField(quint64, quint64, const quint8 *, const QString &, const QString &) override {}
    void beginStream(int, const StreamInfo &) override {}
    void addSample(quint64, const Sample &sample) override { benchmark::DoNotOptimize(&sample); }
    void endStream() override {}
};

// The parser without the file name check, which prints a line for every file.
class BenchParser : public ContainerMP4 {
protected:
    int verifyContainerFormat(const QString &) override { return ParseOk; }
};

// Big-endian words and boxes.
QByteArray u32(quint32 value)
{
    const char bytes[4] = {char(value >> 24), char(value >> 16), char(value >> 8), char(value)};
    return QByteArray(bytes, 4);
}

QByteArray box(const char *type, const QByteArray &payload)
{
    return u32(quint32(8 + payload.size())) + QByteArray(type, 4) + payload;
}

QByteArray fullBox(const char *type, const QByteArray &payload)
{
    return box(type, u32(0) + payload);
}

// A movie with one video track whose sample table holds the given boxes.
QByteArray videoMovie(const QByteArray &tables)
{
    const QByteArray handler =
        fullBox("hdlr", u32(0) + QByteArray("vide") + QByteArray(12, '\0') + QByteArray("V", 2));
    return box("moov", box("trak", box("mdia", handler + box("minf", box("stbl", tables)))));
}

void parseWithNullSink(benchmark::State &state, const QByteArray &file, int64_t items)
{
    NullSink sink;
    for (auto _ : state) {
        BenchParser parser;
        parser.parseBytes(QStringLiteral("bench.mp4"), file, sink);
    }
    state.SetItemsProcessed(state.iterations() * items);
}

void RenderNumber(benchmark::State &state)
{
    quint64 i = 0;
    for (auto _ : state) {
        const QString text = Render::u64(fieldNumber(i++), 10);
        benchmark::DoNotOptimize(text.constData());
    }
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(RenderNumber);

// The values are rendered beforehand: this is the writer's own cost.
template <typename Writer> void FieldThroughWriter(benchmark::State &state, Writer &writer)
{
    QString values[64];
    for (int i = 0; i < 64; ++i)
        values[i] = Render::u64(fieldNumber(quint64(i)), 10);
    const QString name = QStringLiteral("entry_size");
    writer.beginReport(QStringLiteral("bench.mp4"), 1 << 30);
    writer.beginElement(0, 1 << 30, QStringLiteral("stsz"), -1);
    quint64 i = 0;
    for (auto _ : state) {
        writer.addField(false, 100000000 + 4 * i, 0, 4, name, values[i & 63], QString(), QString(),
                        qint64(i));
        ++i;
    }
    writer.endReport();
    state.SetItemsProcessed(state.iterations());
}

void FieldThroughJsonWriter(benchmark::State &state)
{
    JsonWriter writer(devNull());
    FieldThroughWriter(state, writer);
}
BENCHMARK(FieldThroughJsonWriter);

void FieldThroughTextWriter(benchmark::State &state)
{
    TextWriter writer(devNull(), false);
    FieldThroughWriter(state, writer);
}
BENCHMARK(FieldThroughTextWriter);

template <typename Writer> void SampleThroughWriter(benchmark::State &state, Writer &writer)
{
    writer.beginReport(QStringLiteral("bench.mp4"), 1 << 30);
    writer.beginStream(0, StreamInfo());
    Sample sample;
    quint64 i = 0;
    for (auto _ : state) {
        sample.offset = 100000000 + 1013 * i;
        sample.size = fieldNumber(i);
        sample.dts = quint32(512 * i);
        sample.pts = quint32(512 * i + 1024);
        sample.duration = 512;
        sample.keyFrame = i % 120 == 0;
        writer.addSample(i++, sample);
    }
    writer.endReport();
    state.SetItemsProcessed(state.iterations());
}

void SampleThroughJsonWriter(benchmark::State &state)
{
    JsonWriter writer(devNull());
    SampleThroughWriter(state, writer);
}
BENCHMARK(SampleThroughJsonWriter);

void SampleThroughTextWriter(benchmark::State &state)
{
    TextWriter writer(devNull(), true);
    SampleThroughWriter(state, writer);
}
BENCHMARK(SampleThroughTextWriter);

// Boxes without payload parser at the top level: header read, table lookup, two fields.
void BoxThroughWalker(benchmark::State &state)
{
    constexpr int Boxes = 4096;
    QByteArray file;
    for (int i = 0; i < Boxes; ++i)
        file += box("skip", QByteArray(8, '\0'));
    parseWithNullSink(state, file, Boxes);
}
BENCHMARK(BoxThroughWalker);

// Sample sizes of a video track: a field and a recorded word each.
void TableEntryThroughParser(benchmark::State &state)
{
    constexpr quint32 Entries = 1 << 16;
    QByteArray sizes = u32(0) + u32(Entries);
    for (quint32 i = 0; i < Entries; ++i)
        sizes += u32(quint32(fieldNumber(i)));
    parseWithNullSink(state, videoMovie(fullBox("stsz", sizes)), Entries);
}
BENCHMARK(TableEntryThroughParser);

// Samples of a video track with tables of a few entries: the parse is the walk, plus the
// recording of one duration word per sample. A free box makes the file as large as the
// samples need: each sample and each duration word takes up one byte of the input budget.
void SampleThroughWalk(benchmark::State &state)
{
    constexpr quint32 Samples = 1 << 16;
    const QByteArray tables = fullBox("stts", u32(1) + u32(Samples) + u32(512)) +
                              fullBox("stsc", u32(1) + u32(1) + u32(Samples) + u32(1)) +
                              fullBox("stsz", u32(700) + u32(Samples)) +
                              fullBox("stco", u32(1) + u32(4096));
    parseWithNullSink(state, box("free", QByteArray(Samples, '\0')) + videoMovie(tables), Samples);
}
BENCHMARK(SampleThroughWalk);

} // namespace

BENCHMARK_MAIN();

#pragma once

#include "Support.h"

#include <QIODevice>

#include <initializer_list>
#include <utility>
#include <vector>

// Builders of tracks and sample tables for the track tests, and a parse that keeps its
// parser so that the recorded table buffers can be read back.
namespace tracks {

using Pairs = std::initializer_list<std::pair<quint32, quint32>>;
struct ChunkRun {
    quint32 firstChunk;
    quint32 samplesPerChunk;
    quint32 descriptionIndex;
};

inline QByteArray words32(std::initializer_list<quint32> values)
{
    QByteArray all;
    for (quint32 value : values)
        all += bytes::u32(value);
    return all;
}

// hdlr with the given handler type and an 8-byte name, 40 bytes in all.
inline QByteArray handlerBox(const char *type)
{
    using namespace bytes;
    return fullBox("hdlr", 0, 0, cat({u32(0), text(type), zeros(12), text("Handler"), u8(0)}));
}

// A trak whose media has the given handler type and these boxes in its sample table.
inline QByteArray trackBox(const char *handlerType, const QByteArray &tables)
{
    using namespace bytes;
    return box("trak",
               box("mdia", cat({handlerBox(handlerType), box("minf", box("stbl", tables))})));
}

inline QByteArray videoMovie(const QByteArray &tables)
{
    return bytes::box("moov", trackBox("vide", tables));
}

inline QByteArray stts(Pairs runs)
{
    QByteArray entries = bytes::u32(quint32(runs.size()));
    for (const auto &run : runs)
        entries += bytes::u32(run.first) + bytes::u32(run.second);
    return bytes::fullBox("stts", 0, 0, entries);
}

inline QByteArray stss(std::initializer_list<quint32> numbers)
{
    return bytes::fullBox("stss", 0, 0, bytes::u32(quint32(numbers.size())) + words32(numbers));
}

inline QByteArray stsc(std::initializer_list<ChunkRun> runs)
{
    QByteArray entries = bytes::u32(quint32(runs.size()));
    for (const ChunkRun &run : runs)
        entries += words32({run.firstChunk, run.samplesPerChunk, run.descriptionIndex});
    return bytes::fullBox("stsc", 0, 0, entries);
}

inline QByteArray stco(std::initializer_list<quint32> offsets)
{
    return bytes::fullBox("stco", 0, 0, bytes::u32(quint32(offsets.size())) + words32(offsets));
}

inline QByteArray co64(std::initializer_list<quint64> offsets)
{
    QByteArray entries = bytes::u32(quint32(offsets.size()));
    for (quint64 offset : offsets)
        entries += bytes::u64(offset);
    return bytes::fullBox("co64", 0, 0, entries);
}

// stsz with one size for all samples.
inline QByteArray stszConstant(quint32 sampleSize, quint32 sampleCount)
{
    return bytes::fullBox("stsz", 0, 0, words32({sampleSize, sampleCount}));
}

// stsz with a size for each sample.
inline QByteArray stsz(std::initializer_list<quint32> sizes)
{
    return bytes::fullBox("stsz", 0, 0, words32({0, quint32(sizes.size())}) + words32(sizes));
}

// Host-order words as a table buffer holds them.
template <typename T> QByteArray hostWords(std::initializer_list<T> values)
{
    QByteArray all;
    for (T value : values)
        all += QByteArray(reinterpret_cast<const char *>(&value), sizeof value);
    return all;
}

// A parse whose parser stays alive for a look at its recorded state.
struct KeptParse {
    explicit KeptParse(const QByteArray &input)
    {
        parser.parseBytes(QStringLiteral("test.mp4"), input, report);
    }

    // The whole buffer of a table list's entry; empty when there is none.
    QByteArray buffer(const QVector<QIODevice *> &tables, int stream) const
    {
        QIODevice *device = tables.value(stream);
        if (!device)
            return QByteArray();
        device->seek(0);
        return device->readAll();
    }

    TestParser parser;
    ReportTree report;
};

// The first element of the given name under node, depth first.
inline const ReportTree::Node *findElement(const ReportTree::Node &node, const QString &name)
{
    for (const auto &child : node.children) {
        if (child->kind != ReportTree::Node::Element)
            continue;
        if (child->name == name)
            return child.get();
        if (const ReportTree::Node *found = findElement(*child, name))
            return found;
    }
    return nullptr;
}

// Elements, fields and samples of a report.
inline quint64 countNodes(const ReportTree::Node &node)
{
    quint64 count = 1;
    for (const auto &child : node.children)
        count += countNodes(*child);
    return count;
}

inline quint64 countSamples(const ReportTree &report)
{
    quint64 count = 0;
    for (const ReportTree::Stream &stream : report.streams)
        count += quint64(stream.samples.size());
    return count;
}

} // namespace tracks

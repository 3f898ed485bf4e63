#pragma once

#include "Support.h"

#include <initializer_list>

// Builders of tracks and sample tables for the track tests.
namespace tracks {

using Words = std::initializer_list<quint32>;

inline QByteArray words32(Words values)
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
    return fullBox("hdlr", 0, 0,
                   cat({u32(0), QByteArray(type, 4), zeros(12), text("Handler"), u8(0)}));
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

// A table of version 0: the entry count, then the words of each entry ("stts", "stsc").
inline QByteArray table(const char *type, std::initializer_list<Words> entries)
{
    QByteArray all = bytes::u32(quint32(entries.size()));
    for (Words entry : entries)
        all += words32(entry);
    return bytes::fullBox(type, 0, 0, all);
}

// A table of version 0 whose entries are single words ("stss", "stco").
inline QByteArray counted(const char *type, Words values)
{
    return bytes::fullBox(type, 0, 0, bytes::u32(quint32(values.size())) + words32(values));
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
inline QByteArray stsz(Words sizes)
{
    return bytes::fullBox("stsz", 0, 0, words32({0, quint32(sizes.size())}) + words32(sizes));
}

} // namespace tracks

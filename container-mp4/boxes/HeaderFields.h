#pragma once

#include "ContainerMP4.h"
#include "Render.h"

#include <QString>
#include <QStringList>

#include <cstring>

// A block of big-endian fields read in one piece, as the movie, track and media headers
// and the sample entries are. Each field is turned to host order in place, with the
// parser's byte swap, at the moment it is taken.
class ContainerMP4::FieldBlock {
public:
    FieldBlock(ContainerMP4 &parser, unsigned char *bytes)
        : parser(parser)
        , bytes(bytes)
    {
    }

    // A field of 8 bytes in version 1 and 4 bytes otherwise; the narrow form is
    // zero-extended, so both widths render the same way.
    quint64 wide(quint64 position, quint64 width)
    {
        return width == 8 ? take<quint64>(position) : take<quint32>(position);
    }
    quint64 u64(quint64 position) { return take<quint64>(position); }
    quint32 u32(quint64 position) { return take<quint32>(position); }
    quint16 u16(quint64 position) { return take<quint16>(position); }
    qint16 i16(quint64 position) { return take<qint16>(position); }

    // Consecutive 32-bit words, each rendered on its own, joined by ", ".
    template <typename RenderWord> QString words(quint64 position, int count, RenderWord renderWord)
    {
        QStringList texts;
        for (int i = 0; i < count; ++i)
            texts << renderWord(take<quint32>(position + 4 * quint64(i)));
        return texts.join(QStringLiteral(", "));
    }

private:
    template <typename T> T take(quint64 position)
    {
        unsigned char *field = bytes + position;
        parser.swapBytes(field, quint8(sizeof(T)));
        T value;
        std::memcpy(&value, field, sizeof(T));
        return value;
    }

    ContainerMP4 &parser;
    unsigned char *bytes;
};

namespace HeaderFields {

// Width of the creation, modification and duration fields of the headers.
inline quint64 wideWidth(quint32 boxVersion)
{
    return boxVersion == 1 ? 8 : 4;
}

// The three 5-bit groups of a language word, top down, as letters counted from 0x60.
// Groups are not checked: 0 gives '`' and values above 26 characters behind 'z'.
inline QString language(quint16 word)
{
    const char letters[3] = {char(((word >> 10) & 0x1F) + 0x60), char(((word >> 5) & 0x1F) + 0x60),
                             char((word & 0x1F) + 0x60)};
    return QString::fromLatin1(letters, 3);
}

// 8.8 volume of the movie and the track header: both bytes as unsigned numbers.
inline QString volume(quint16 word, int base)
{
    return Render::fixedPoint(word >> 8, word & 0xFF, base);
}

} // namespace HeaderFields

#include "TrackContext.h"

#include "boxes/HeaderFields.h"

namespace {
// The big-endian number of bytes bytes at ahead bytes into a noted box; 0 when it does not
// lie whole inside the box and the input.
quint64 numberAt(InputDevice &file, const TableBox &box, quint64 ahead, int bytes)
{
    if (!box.present || ahead + quint64(bytes) > box.size)
        return 0;
    InputDevice &input = sourceOf(file, box);
    unsigned char buffer[8] = {};
    input.seek(qint64(box.offset + ahead));
    if (input.readBytes(reinterpret_cast<char *>(buffer), bytes) != bytes)
        return 0;
    quint64 value = 0;
    for (int i = 0; i < bytes; ++i)
        value = value << 8 | buffer[i];
    return value;
}

// The width of the times of a header: 8 bytes in version 1 and 4 in every other.
quint64 timeWidth(const TableBox &header)
{
    return HeaderFields::wideWidth(header.version);
}
} // namespace

quint32 TrackBoxes::trackId(InputDevice &input, const TableBox &trackHeader)
{
    return quint32(numberAt(input, trackHeader, 2 * timeWidth(trackHeader), 4));
}

quint32 TrackBoxes::timescale(InputDevice &input, const TableBox &header)
{
    return quint32(numberAt(input, header, 2 * timeWidth(header), 4));
}

QString TrackBoxes::majorBrand(InputDevice &input, const TableBox &fileType)
{
    // The field's text ends at its first zero byte.
    const quint64 brand = numberAt(input, fileType, 0, 4);
    QString text;
    for (int shift = 24; shift >= 0 && quint8(brand >> shift) != 0; shift -= 8)
        text += QChar::fromLatin1(char(brand >> shift));
    return text;
}

quint64 TrackBoxes::duration(InputDevice &input, const TableBox &mediaHeader)
{
    const quint64 w = timeWidth(mediaHeader);
    return numberAt(input, mediaHeader, 2 * w + 4, int(w));
}

QString TrackBoxes::language(InputDevice &input, const TableBox &mediaHeader)
{
    const quint64 w = timeWidth(mediaHeader);
    if (!mediaHeader.present || 3 * w + 6 > mediaHeader.size)
        return QString();
    const QString code =
        HeaderFields::language(quint16(numberAt(input, mediaHeader, 3 * w + 4, 2)));
    for (const QChar letter : code) {
        if (letter < QLatin1Char('a') || letter > QLatin1Char('z'))
            return QString();
    }
    return code;
}

std::vector<Edit> TrackBoxes::edits(InputDevice &input, const TableBox &editList, size_t limit)
{
    // Times of 64 bits in version 1, of 32 bits in version 0; other versions have none.
    const quint64 w = editList.version == 1 ? 8 : editList.version == 0 ? 4 : 0;
    std::vector<Edit> edits;
    if (w == 0)
        return edits;
    const quint64 count = numberAt(input, editList, 0, 4);
    const quint64 entrySize = 2 * w + 4;
    for (quint64 i = 0; i < count && edits.size() < limit; ++i) {
        const quint64 at = 4 + i * entrySize;
        if (at + entrySize > editList.size ||
            sourceOf(input, editList).bytesFrom(editList.offset + at) < entrySize)
            break;
        Edit edit;
        edit.segmentDuration = numberAt(input, editList, at, int(w));
        const quint64 mediaTime = numberAt(input, editList, at + w, int(w));
        edit.mediaTime = w == 8 ? qint64(mediaTime) : qint64(qint32(quint32(mediaTime)));
        edit.rate = qint16(numberAt(input, editList, at + 2 * w, 2));
        edits.push_back(edit);
    }
    return edits;
}

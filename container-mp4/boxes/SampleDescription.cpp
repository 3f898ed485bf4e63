#include "Bounds.h"
#include "Codecs.h"
#include "ContainerMP4.h"
#include "HeaderFields.h"
#include "Render.h"

#include <memory>
#include <new>

namespace {
// Bytes of the fixed fields of a visual sample entry, its size and type included.
constexpr quint64 VisualEntrySize = 86;
// A tail shorter than this cannot hold a box and its payload; it is shown as data.
constexpr quint64 SmallestWalkedTail = 9;
} // namespace

// stsd: the sample entries of a track. In a video track each visual sample entry is decoded
// field by field, gives the stream its codec, width and height, and has the boxes behind
// its fixed fields walked; in any other track the first entry is shown as data and the rest
// is left alone. The payload is read once; only the bytes the input delivers are decoded.
int ContainerMP4::parseBoxSTSD(quint64 offset, quint64 size)
{
    const quint64 wanted = qMin(size, input.bytesFrom(offset));
    std::unique_ptr<unsigned char[]> payload(new (std::nothrow) unsigned char[wanted + 1]);
    if (!payload)
        return ParseOutOfMemory;
    const quint64 decoded = quint64(
        qMax<qint64>(input.readBytes(reinterpret_cast<char *>(payload.get()), qint64(wanted)), 0));
    if (decoded < 4)
        return ParseOk;

    const quint32 entryCount = FieldBlock(*this, payload.get()).u32(0);
    reportField(offset, 4, "entry_count", Render::u32(entryCount, valueBase));

    const quint64 boxEnd = endOf(offset, size);
    int result = ParseOk;
    quint64 at = 4; // the entry's position in the payload
    for (quint32 i = 0; i < entryCount && at + 8 <= decoded; ++i) {
        unsigned char *bytes = payload.get() + at;
        FieldBlock entry(*this, bytes);
        const quint64 entryStart = offset + at;
        const quint32 entrySize = entry.u32(0);
        beginElement(entryStart, entrySize, QStringLiteral("sample_entry"), i);
        reportField(entryStart, 4, "size", Render::u32(entrySize, sizeBase));
        const QString type = Render::latin1Text(reinterpret_cast<const char *>(bytes) + 4, 4);
        reportField(entryStart + 4, 4, "type", type);

        if (currentTrackType != VideoTrack) {
            reportPayload(entryStart + 8, entrySize >= 8 ? entrySize - 8 : 0,
                          "specific_config_data");
            endElement();
            break;
        }

        StreamInfo *stream = currentStream();
        if (const Codec *codec = codecOf(type); codec && stream) {
            stream->codecId = codec->id;
            stream->codecName = QString::fromLatin1(codec->name);
        }

        // Fixed fields cut off by the end of the input: what is there is shown as data.
        if (at + VisualEntrySize > decoded) {
            if (decoded > at + 8)
                reportPayload(entryStart + 8, decoded - at - 8, "data");
            endElement();
            break;
        }

        auto raw = [&](quint64 position, quint64 width, const char *name, const char *comment) {
            addRawField(entryStart + position, width, bytes + position, QString::fromLatin1(name),
                        QString::fromLatin1(comment));
        };
        auto number = [&](quint64 position, quint64 width, const char *name, qint32 value,
                          const char *comment = "") {
            reportField(entryStart + position, width, name, Render::i32(value, valueBase),
                        QString::fromLatin1(comment));
        };
        raw(8, 6, "reserved", "default 0");
        number(14, 2, "data_reference_index", entry.u16(14));
        number(16, 2, "pre_defined", entry.u16(16), "default 0");
        number(18, 2, "reserved", entry.u16(18), "default 0");
        raw(20, 12, "pre_defined", "default 0");
        const quint16 width = entry.u16(32);
        number(32, 2, "width", width);
        if (stream)
            stream->width = width;
        const quint16 height = entry.u16(34);
        number(34, 2, "height", height);
        if (stream)
            stream->height = height;
        raw(36, 4, "horizresolution", "default 0x00480000 (72 dpi)");
        raw(40, 4, "vertresolution", "default 0x00480000 (72 dpi)");
        reportField(entryStart + 44, 4, "reserved", Render::u32(entry.u32(44), valueBase),
                    "default 0");
        number(48, 2, "frame_count", entry.u16(48), "default 1");
        reportField(entryStart + 50, 32, "compressorname",
                    Render::latin1Text(reinterpret_cast<const char *>(bytes) + 50, 32));
        number(82, 2, "depth", entry.u16(82), "default 24 (0x18)");
        number(84, 2, "pre_defined", entry.i16(84), "default -1");

        // The tail: whatever stands behind the fixed fields, up to the next entry, or up to
        // the end of the box for the last one.
        const quint64 tailStart = entryStart + VisualEntrySize;
        const quint64 tailEnd = i == entryCount - 1 ? boxEnd : entryStart + entrySize;
        if (tailStart < tailEnd) {
            const quint64 tailSize = tailEnd - tailStart;
            if (tailSize < SmallestWalkedTail) {
                reportPayload(tailStart, tailSize, "data");
            } else {
                beginElement(tailStart, tailSize, QStringLiteral("specific_config_data"), -1);
                const quint64 savedOffset = currentOffset;
                result = walkChildren(tailStart, tailEnd);
                currentOffset = savedOffset;
                endElement();
            }
        }
        endElement();

        // A size that does not even cover its own header gives no place for a next entry.
        if (entrySize < 8)
            break;
        at += entrySize;
    }
    return result;
}

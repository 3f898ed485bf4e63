#include "ContainerMP4.h"
#include "HeaderFields.h"
#include "Render.h"

// tkhd: times, number and duration of one track, its layer, volume, matrix and the
// presentation size. Times are shown as stored, with no date.
int ContainerMP4::parseBoxTKHD(quint64 offset, quint64 /*size*/)
{
    // Room for version 1; the block is read whole whatever the version, and bytes behind
    // the fields of version 0 are never looked at.
    unsigned char block[92] = {};
    const quint64 count = quint64(input.readBytes(reinterpret_cast<char *>(block), sizeof block));
    const quint64 w = HeaderFields::wideWidth(boxVersion);
    if (count < 3 * w + 68)
        return ParseTruncated;

    FieldBlock fields(*this, block);
    // Unsigned 16.16: a half of 0x8000 or more stays positive.
    auto sizeText = [this](quint32 value) {
        return Render::fixedPoint(value >> 16, value & 0xFFFF, valueBase);
    };

    reportField(offset, w, "creation_time", Render::u64(fields.wide(0, w), valueBase));
    reportField(offset + w, w, "modification_time", Render::u64(fields.wide(w, w), valueBase));
    reportField(offset + 2 * w, 4, "track_id", Render::u32(fields.u32(2 * w), valueBase));
    reportField(offset + 2 * w + 4, 4, "reserved", Render::u32(fields.u32(2 * w + 4), valueBase));
    reportField(offset + 2 * w + 8, w, "duration",
                Render::u64(fields.wide(2 * w + 8, w), valueBase));
    reportField(offset + 3 * w + 8, 8, "reserved", fields.words(3 * w + 8, 2, [this](quint32 word) {
        return Render::u32(word, valueBase);
    }));
    reportField(offset + 3 * w + 16, 2, "layer", Render::i32(fields.i16(3 * w + 16), valueBase));
    reportField(offset + 3 * w + 18, 2, "alternate_group",
                Render::i32(fields.i16(3 * w + 18), valueBase));
    reportField(offset + 3 * w + 20, 2, "volume",
                HeaderFields::volume(fields.u16(3 * w + 20), valueBase));
    reportField(offset + 3 * w + 22, 2, "reserved", Render::i32(fields.u16(3 * w + 22), valueBase));
    // Signed here, unlike the same matrix in the movie header.
    reportField(offset + 3 * w + 24, 36, "transformation_matrix",
                fields.words(3 * w + 24, 9,
                             [this](quint32 word) { return Render::i32(qint32(word), valueBase); }),
                QStringLiteral("(u, v, w)"));
    reportField(offset + 3 * w + 60, 4, "width", sizeText(fields.u32(3 * w + 60)));
    reportField(offset + 3 * w + 64, 4, "height", sizeText(fields.u32(3 * w + 64)));
    return ParseOk;
}

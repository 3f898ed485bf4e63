#include "ContainerMP4.h"
#include "HeaderFields.h"
#include "Render.h"

// mdhd: times, time scale, duration and language of one track's media. Times are shown
// as stored, with no date.
int ContainerMP4::parseBoxMDHD(quint64 offset, quint64 /*size*/)
{
    // Room for version 1; the block is read whole whatever the version, and bytes behind
    // the fields of version 0 are never looked at.
    unsigned char block[32] = {};
    const quint64 count = quint64(input.readBytes(reinterpret_cast<char *>(block), sizeof block));
    const quint64 w = HeaderFields::wideWidth(boxVersion);
    if (count < 3 * w + 8)
        return ParseTruncated;

    FieldBlock fields(*this, block);
    reportField(offset, w, "creation_time", Render::u64(fields.wide(0, w), valueBase));
    reportField(offset + w, w, "modification_time", Render::u64(fields.wide(w, w), valueBase));
    reportField(offset + 2 * w, 4, "timescale", Render::u32(fields.u32(2 * w), valueBase));
    reportField(offset + 2 * w + 4, w, "duration",
                Render::u64(fields.wide(2 * w + 4, w), valueBase));

    // One word holds both: a pad bit on top, shown unshifted, and the language below it.
    const quint16 word = fields.u16(3 * w + 4);
    addField(true, offset + 3 * w + 4, 0, 1, QStringLiteral("pad"),
             Render::i32(word & 0x8000, valueBase), QString(), QString(), -1);
    addField(true, offset + 3 * w + 4, 1, 15, QStringLiteral("language"),
             HeaderFields::language(word), QString(), QString(), -1);

    reportField(offset + 3 * w + 6, 2, "pre_defined",
                Render::i32(fields.u16(3 * w + 6), valueBase));
    return ParseOk;
}

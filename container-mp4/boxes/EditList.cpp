#include "ContainerMP4.h"
#include "HeaderFields.h"
#include "Render.h"
#include "TableReading.h"

// elst: the edits that map the media of a track onto the movie's timeline. The layout of an
// entry follows the version: 64-bit times in version 1, 32-bit times in version 0, and in
// any other version only the rate. Entries are shown only while one lies whole inside the
// box and inside the input, so a count the box cannot hold costs nothing beyond the bytes
// that are there.
int ContainerMP4::parseBoxELST(quint64 offset, quint64 size)
{
    quint32 entryCount = 0;
    input.readBytes(reinterpret_cast<char *>(&entryCount), 4);
    swapBytes(&entryCount, 4);
    reportField(offset, 4, "entry_count", Render::u32(entryCount, valueBase));

    const quint64 timeWidth = boxVersion == 1 ? 8 : boxVersion == 0 ? 4 : 0;
    const quint64 entrySize = 2 * timeWidth + 4;
    TableReader reader(input, offset, size);
    unsigned char entry[20];
    for (quint32 i = 0; i < entryCount && reader.read(4 + entrySize * i, entry, entrySize); ++i) {
        const quint64 p = offset + 4 + entrySize * i;
        FieldBlock fields(*this, entry);
        beginListEntry(QStringLiteral("entry"), i);
        setElementOffset(p);
        if (timeWidth == 8) {
            setElementSize(entrySize);
            reportField(p, 8, "segment_duration", Render::u64(fields.u64(0), valueBase));
            reportField(p + 8, 8, "media_time", Render::i64(qint64(fields.u64(8)), valueBase));
        } else if (timeWidth == 4) {
            setElementSize(entrySize);
            reportField(p, 4, "segment_duration", Render::u32(fields.u32(0), valueBase));
            reportField(p + 4, 4, "media_time", Render::i32(qint32(fields.u32(4)), valueBase));
        }
        const quint64 rate = 2 * timeWidth;
        reportField(p + rate, 2, "media_rate_integer", Render::i32(fields.i16(rate), valueBase));
        reportField(p + rate + 2, 2, "media_rate_fraction",
                    Render::i32(fields.i16(rate + 2), valueBase), QStringLiteral("default 0"));
        endElement();
    }

    input.seek(qint64(offset));
    return ParseOk;
}

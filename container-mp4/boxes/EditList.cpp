#include "ContainerMP4.h"
#include "Render.h"

// elst: the edits that map the media of a track onto the movie's timeline. The layout of an
// entry follows the version: 64-bit times in version 1, 32-bit times in version 0, and in
// any other version only the rate.
int ContainerMP4::parseBoxELST(quint64 offset, quint64 size)
{
    quint32 entryCount = 0;
    input.readBytes(reinterpret_cast<char *>(&entryCount), 4);
    swapBytes(&entryCount, 4);
    addField(false, offset, 0, 4, QStringLiteral("entry_count"), Render::u32(entryCount, valueBase),
             QString(), QString(), -1);

    const quint64 entrySize = boxVersion == 1 ? 20 : boxVersion == 0 ? 12 : 4;
    const quint64 inputSize = quint64(input.size());
    // Entries are shown only while one lies whole inside the box and inside the input, so
    // a count the box cannot hold costs nothing beyond the bytes that are there.
    quint64 position = 4; // relative to offset
    for (quint32 i = 0; i < entryCount; ++i, position += entrySize) {
        if (position + entrySize > size || offset + position + entrySize > inputSize)
            break;
        quint64 p = offset + position;
        beginListEntry(QStringLiteral("entry"), i);
        setElementOffset(p);
        if (boxVersion == 1) {
            setElementSize(20);
            input.seek(qint64(p));
            quint64 times[2] = {};
            input.readBytes(reinterpret_cast<char *>(times), 16);
            swapBytes(&times[0], 8);
            reportField(p, 8, "segment_duration", Render::u64(times[0], valueBase));
            swapBytes(&times[1], 8);
            reportField(p + 8, 8, "media_time", Render::i64(qint64(times[1]), valueBase));
            p += 16;
        } else if (boxVersion == 0) {
            setElementSize(12);
            input.seek(qint64(p));
            quint32 times[2] = {};
            input.readBytes(reinterpret_cast<char *>(times), 8);
            swapBytes(&times[0], 4);
            reportField(p, 4, "segment_duration", Render::u32(times[0], valueBase));
            swapBytes(&times[1], 4);
            reportField(p + 4, 4, "media_time", Render::i32(qint32(times[1]), valueBase));
            p += 8;
        }
        input.seek(qint64(p));
        qint16 rate[2] = {};
        input.readBytes(reinterpret_cast<char *>(rate), 4);
        swapBytes(&rate[0], 2);
        reportField(p, 2, "media_rate_integer", Render::i32(rate[0], valueBase));
        swapBytes(&rate[1], 2);
        reportField(p + 2, 2, "media_rate_fraction", Render::i32(rate[1], valueBase),
                    QStringLiteral("default 0"));
        endElement();
    }

    input.seek(qint64(offset));
    return ParseOk;
}

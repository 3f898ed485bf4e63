#include "ContainerMP4.h"

// avcC: the AVC decoder configuration. It is not decoded here; the stream record tells
// where its bytes lie, so that a reader of the record can fetch them from the file.
int ContainerMP4::parseBoxAVCC(quint64 offset, quint64 size)
{
    if (!streams.isEmpty() && streams.last()) {
        streams.last()->configOffset = offset;
        streams.last()->configSize = size;
    }
    addField(false, offset, 0, size, QStringLiteral("data"), QString(), QString(), QString(), -1);
    input.seek(qint64(offset));
    return ParseOk;
}

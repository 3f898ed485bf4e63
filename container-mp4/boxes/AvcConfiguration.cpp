#include "ContainerMP4.h"

// avcC: the AVC decoder configuration. It is not decoded here; the stream record tells
// where its bytes lie, so that a reader of the record can fetch them from the file.
int ContainerMP4::parseBoxAVCC(quint64 offset, quint64 size)
{
    if (StreamInfo *stream = currentStream()) {
        stream->configOffset = offset;
        stream->configSize = size;
    }
    reportPayload(offset, size, "data");
    input.seek(qint64(offset));
    return ParseOk;
}

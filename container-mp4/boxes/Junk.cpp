#include "ContainerMP4.h"

// free and skip: filler whose bytes mean nothing, so none is read.
int ContainerMP4::parseJunk(quint64 offset, quint64 size)
{
    reportPayload(offset, size, "data", Payload::Filler);
    return ParseOk;
}

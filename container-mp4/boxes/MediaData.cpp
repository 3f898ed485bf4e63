#include "ContainerMP4.h"

// mdat: the media itself, reported as one stretch however large it is.
int ContainerMP4::parseBoxMDAT(quint64 offset, quint64 size)
{
    reportPayload(offset, size, "media_data", Payload::MediaData);
    return ParseOk;
}

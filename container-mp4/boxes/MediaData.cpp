#include "ContainerMP4.h"

// mdat: the media itself, reported as one stretch however large it is.
int ContainerMP4::parseBoxMDAT(quint64 offset, quint64 size)
{
    addField(false, offset, 0, size, QStringLiteral("media_data"), QString(), QString(), QString(),
             -1);
    return ParseOk;
}

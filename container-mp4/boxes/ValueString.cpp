#include "ContainerMP4.h"

#include <memory>
#include <new>

// Makes a stretch of the input, zero bytes and all, the value of the open element.
int ContainerMP4::parseValueString(quint64 length)
{
    const quint64 wanted = qMin(length, input.bytesFrom(input.pos()));
    std::unique_ptr<char[]> bytes(new (std::nothrow) char[wanted ? wanted : 1]);
    if (!bytes)
        return ParseOutOfMemory;
    const qint64 delivered = input.readBytes(bytes.get(), qint64(wanted));
    setElementValue(QString::fromLocal8Bit(bytes.get(), qsizetype(delivered)));
    return ParseOk;
}

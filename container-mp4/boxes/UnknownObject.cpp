#include "ContainerMP4.h"

#include <memory>
#include <new>

// A box of a type the table does not know: its first bytes as printable text, so that a
// reader can guess what it holds. Bytes outside 0x20..0x7F show as '.'.
int ContainerMP4::parseUnknownObject(quint64 offset, quint64 size)
{
    if (!showUnknownData || size == 0)
        return ParseOk;

    const quint64 wanted = qMin(qMin(size, maxUnknownDataSize), input.bytesFrom(input.pos()));
    std::unique_ptr<char[]> bytes(new (std::nothrow) char[wanted + 1]);
    if (!bytes)
        return ParseOutOfMemory;

    const quint64 delivered = quint64(input.readBytes(bytes.get(), qint64(wanted)));
    for (quint64 i = 0; i < delivered; ++i) {
        if (static_cast<signed char>(bytes[i]) < 32)
            bytes[i] = '.';
    }
    reportField(offset, delivered, "data", QString::fromLatin1(bytes.get(), qsizetype(delivered)));
    return ParseOk;
}

#pragma once

#include <QtGlobal>

#include <limits>

// The position behind size bytes from offset, held at 2^64 - 1 where the sum would pass it:
// sizes read from a file can be anything, and an end that wraps around would lie before
// its start.
inline quint64 endOf(quint64 offset, quint64 size)
{
    return size > std::numeric_limits<quint64>::max() - offset ? std::numeric_limits<quint64>::max()
                                                               : offset + size;
}

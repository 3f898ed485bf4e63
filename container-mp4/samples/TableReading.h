#pragma once

#include "InputDevice.h"

#include <QIODevice>

// Reads the entries of a sample table box. An entry is read only while it lies whole inside
// the box's payload and inside the input, so a count the box does not back costs nothing
// beyond the entries that are there.
class TableReader {
public:
    TableReader(InputDevice &input, quint64 offset, quint64 size)
        : input(input)
        , offset(offset)
        , size(size)
        , inputSize(quint64(qMax<qint64>(input.size(), 0)))
    {
    }

    // Reads width bytes at position, counted from the start of the payload, into bytes.
    // False, with nothing read, when they do not lie whole inside the payload and the input.
    bool read(quint64 position, void *bytes, quint64 width)
    {
        if (position > size || width > size - position)
            return false;
        const quint64 at = offset + position;
        if (at < offset || at > inputSize || width > inputSize - at)
            return false;
        input.seek(qint64(at));
        return input.readBytes(static_cast<char *>(bytes), qint64(width)) == qint64(width);
    }

private:
    InputDevice &input;
    quint64 offset;
    quint64 size;
    quint64 inputSize;
};

// Records one record where the device stands and moves it behind the record.
inline void recordRecord(QIODevice *device, const void *record, qint64 width)
{
    const qint64 position = device->pos();
    device->write(static_cast<const char *>(record), width);
    device->seek(position + width);
}

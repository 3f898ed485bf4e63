#pragma once

#include "InputDevice.h"
#include "samples/TrackContext.h"

#include <QtGlobal>

#include <vector>

// Reads the records of a sample table one after the other, from where they lie in the input:
// the walk of a track's samples keeps one cursor on each of its tables, so that a table of a
// million entries costs a block of memory, not a copy of its own. A record is read only
// while it lies whole inside the box and the input.
class TableCursor {
public:
    // The records of width bytes from skip bytes into the table's payload on.
    TableCursor(InputDevice &input, const TableBox &table, quint64 skip, quint64 width)
        : input(sourceOf(input, table))
        , begin(table.offset)
        , end(table.present ? table.offset + qMin(table.size, this->input.bytesFrom(table.offset))
                            : 0)
        , position(table.present ? table.offset + skip : 0)
        , width(width)
    {
        if (end < begin)
            end = begin;
    }

    // The next record; null when there is none.
    const unsigned char *next()
    {
        if (position < begin || position >= end || width > end - position)
            return nullptr;
        if (position < blockStart || position + width > blockStart + block.size()) {
            const quint64 length = qMin<quint64>(end - position, BlockSize);
            block.resize(length);
            input.seek(qint64(position));
            if (quint64(input.readBytes(reinterpret_cast<char *>(block.data()), qint64(length))) !=
                length)
                return nullptr;
            blockStart = position;
        }
        const unsigned char *record = block.data() + (position - blockStart);
        position += width;
        ++taken;
        return record;
    }

    // Records read so far.
    quint64 count() const { return taken; }

    // The big-endian number of bytes bytes at at in a record.
    static quint64 number(const unsigned char *record, int at, int bytes)
    {
        quint64 value = 0;
        for (int i = 0; i < bytes; ++i)
            value = value << 8 | record[at + i];
        return value;
    }

private:
    static constexpr quint64 BlockSize = 64 * 1024;

    InputDevice &input;
    quint64 begin;
    quint64 end;
    quint64 position;
    quint64 width;
    std::vector<unsigned char> block;
    quint64 blockStart = 0;
    quint64 taken = 0;
};

#pragma once

#include "InputDevice.h"

#include <QIODevice>

#include <cstring>

// Reads the entries of a sample table box. An entry is read only while it lies whole inside
// the box's payload and inside the input, so a count the box does not back costs nothing
// beyond the entries that are there. The payload is fetched from the input a block at a
// time, so that an entry costs a copy rather than a seek and a read of its own.
class TableReader {
public:
    TableReader(InputDevice &input, quint64 offset, quint64 size)
        : input(input)
        , offset(offset)
        , size(size)
        , inputSize(quint64(qMax<qint64>(input.size(), 0)))
    {
    }
    TableReader(const TableReader &) = delete;
    TableReader &operator=(const TableReader &) = delete;

    // Reads width bytes at position, counted from the start of the payload, into bytes.
    // False, with nothing read, when they do not lie whole inside the payload and the input.
    bool read(quint64 position, void *bytes, quint64 width)
    {
        if (position > size || width > size - position)
            return false;
        const quint64 at = offset + position;
        if (at < offset || at > inputSize || width > inputSize - at)
            return false;
        if (position < blockStart || position - blockStart + width > blockLength) {
            // What follows in the payload, up to a block.
            const quint64 length = qMin(qMin(size - position, inputSize - at), BlockSize);
            input.seek(qint64(at));
            blockStart = position;
            blockLength = quint64(qMax<qint64>(input.readBytes(block, qint64(length)), 0));
            if (width > blockLength)
                return false;
        }
        std::memcpy(bytes, block + (position - blockStart), width);
        return true;
    }

private:
    static constexpr quint64 BlockSize = 4096;

    InputDevice &input;
    quint64 offset;
    quint64 size;
    quint64 inputSize;
    char block[BlockSize];
    quint64 blockStart = 0; // payload position of block[0]
    quint64 blockLength = 0;
};

// Records a box's entries into a table buffer, starting where the device stands. Records
// are gathered into blocks, and each block costs the device a write and a seek behind it,
// so a record costs a copy. The last block goes to the device when the recorder goes out
// of scope. Without a device, nothing is recorded.
class TableRecorder {
public:
    explicit TableRecorder(QIODevice *device)
        : device(device)
    {
    }
    ~TableRecorder() { flush(); }
    TableRecorder(const TableRecorder &) = delete;
    TableRecorder &operator=(const TableRecorder &) = delete;

    // One record of up to a block's size.
    void record(const void *bytes, qint64 width)
    {
        if (!device)
            return;
        if (width > BlockSize - used)
            flush();
        std::memcpy(block + used, bytes, size_t(width));
        used += width;
    }

    // count records of the same 4-byte word.
    void recordWords(quint32 word, quint64 count)
    {
        if (!device)
            return;
        while (count > 0) {
            if (BlockSize - used < 4)
                flush();
            const quint64 now = qMin(count, quint64(BlockSize - used) / 4);
            for (quint64 i = 0; i < now; ++i)
                std::memcpy(block + used + 4 * qint64(i), &word, 4);
            used += 4 * qint64(now);
            count -= now;
        }
    }

private:
    static constexpr qint64 BlockSize = 4096;

    void flush()
    {
        if (used == 0)
            return;
        const qint64 position = device->pos();
        device->write(block, used);
        device->seek(position + used);
        used = 0;
    }

    QIODevice *device;
    char block[BlockSize];
    qint64 used = 0;
};

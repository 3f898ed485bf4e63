#pragma once

#include "PayloadReader.h"

#include <QString>

#include <iterator>

// The descriptors of esds and iods, each an element named after it: a tag byte, a size in
// one to four bytes of 7 bits each (the top bit set on every byte but the last), then its
// body, which may hold further descriptors. Reads those from the current position up to end,
// a position in the file; a size beyond its parent's end is held to it.
void readDescriptors(PayloadReader &box, quint64 end);

// A code and what it means, for the comments of coded fields.
struct CodeName {
    quint64 code;
    const char *name;
};

// The meaning of a code in a table of codes; empty for a code the table does not hold.
template <typename Table> QString nameOf(const Table &table, quint64 code)
{
    for (auto entry = std::begin(table); entry != std::end(table); ++entry) {
        if (entry->code == code)
            return QString::fromLatin1(entry->name);
    }
    return QString();
}

// "level 3.1" of a level given as its whole part and tenths; "level 3" without tenths.
QString levelText(quint64 whole, quint64 tenths);

// The bytes from the current position to end, a position in the file.
inline quint64 leftBefore(const PayloadReader &box, quint64 end)
{
    return end > box.at() ? end - box.at() : 0;
}

#include "ByteSelection.h"

#include <algorithm>
#include <limits>

namespace {
quint64 endOf(quint64 offset, quint64 size)
{
    return size > std::numeric_limits<quint64>::max() - offset ? std::numeric_limits<quint64>::max()
                                                               : offset + size;
}
} // namespace

ByteSelection::ByteSelection(quint64 limit)
    : byteLimit(limit)
{
}

void ByteSelection::beginReport(quint64 size)
{
    fileSize = size;
    total = 0;
    reached = false;
    reachedAt = 0;
    open.clear();
    exclusions.clear();
    chosen.clear();
}

void ByteSelection::beginElement(quint64 offset, quint64 size, const QString &name)
{
    OpenElement element;
    element.offset = offset;
    element.size = size;
    element.mediaPayload = name == QLatin1String("mdat") || name == QLatin1String("free") ||
                           name == QLatin1String("skip");
    open.push_back(element);
}

void ByteSelection::setElementOffset(quint64 offset)
{
    if (!open.empty())
        open.back().offset = offset;
}

void ByteSelection::setElementSize(quint64 size)
{
    if (!open.empty())
        open.back().size = size;
}

void ByteSelection::setElementNote(const QString &note)
{
    if (!open.empty() && (note == QLatin1String("Unknown element!") ||
                          note == QLatin1String("Invalid element size.")))
        open.back().notUnderstood = true;
}

void ByteSelection::addPositionField(quint64 offset, quint64 size)
{
    if (open.empty() || size == 0)
        return;
    const OpenElement &element = open.back();
    const quint64 end = endOf(offset, size);
    if (element.mediaPayload)
        exclude(offset, end);
    else
        exclude(std::max(offset, endOf(element.offset, KeptHead)), end);
}

void ByteSelection::endElement()
{
    if (open.empty())
        return;
    const OpenElement element = open.back();
    open.pop_back();
    if (element.notUnderstood)
        exclude(endOf(element.offset, KeptHead), endOf(element.offset, element.size));
    if (open.empty()) {
        choose(element);
        exclusions.clear();
    }
}

void ByteSelection::exclude(quint64 begin, quint64 end)
{
    if (begin >= end || reached)
        return;
    // Exclusions mostly arrive in file order: touching the last one, they merge with it.
    if (!exclusions.empty()) {
        Span &last = exclusions.back();
        if (begin >= last.begin && begin <= last.end) {
            last.end = std::max(last.end, end);
            return;
        }
    }
    exclusions.push_back({begin, end});
}

void ByteSelection::choose(const OpenElement &element)
{
    const quint64 end = std::min(endOf(element.offset, element.size), fileSize);
    std::sort(exclusions.begin(), exclusions.end(),
              [](const Span &a, const Span &b) { return a.begin < b.begin; });
    quint64 position = element.offset;
    for (const Span &excluded : exclusions) {
        if (position >= end)
            break;
        if (excluded.begin > position)
            append(position, std::min(excluded.begin, end) - position);
        position = std::max(position, excluded.end);
    }
    if (position < end)
        append(position, end - position);
}

void ByteSelection::append(quint64 offset, quint64 size)
{
    if (reached)
        return;
    if (size > byteLimit - total) {
        size = byteLimit - total;
        reached = true;
        reachedAt = offset + size;
    }
    if (size == 0)
        return;
    total += size;
    if (!chosen.empty() && chosen.back().offset + chosen.back().size == offset)
        chosen.back().size += size;
    else
        chosen.push_back({offset, size});
}

#include "ByteSelection.h"

#include "Bounds.h"

#include <algorithm>

ByteSelection::ByteSelection(quint64 limit)
    : byteLimit(limit)
{
}

void ByteSelection::beginReport(const QString &, quint64 size)
{
    fileSize = size;
    total = 0;
    reached = false;
    reachedAt = 0;
    open.clear();
    exclusions.clear();
    chosen.clear();
}

void ByteSelection::endReport()
{
    // Elements a parser left open end with the report.
    while (!open.empty())
        endElement();
}

void ByteSelection::beginElement(quint64 offset, quint64 size, const QString &, qint64)
{
    open.push_back({offset, size, false});
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

void ByteSelection::setElementState(ElementState)
{
    if (!open.empty())
        open.back().notRead = true;
}

void ByteSelection::addPayloadField(quint64 offset, quint64 size, const QString &, Payload payload)
{
    if (open.empty() || size == 0)
        return;
    const quint64 end = endOf(offset, size);
    if (payload == Payload::Data)
        exclude(std::max(offset, endOf(open.back().offset, KeptHead)), end);
    else
        exclude(offset, end);
}

void ByteSelection::endElement()
{
    if (open.empty())
        return;
    const OpenElement element = open.back();
    open.pop_back();
    if (element.notRead)
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

#pragma once

#include <QString>
#include <QtGlobal>

#include <vector>

// Chooses the bytes of a file that the HTML report carries for its hex view, from the
// report's element calls: the bytes of every top-level element, less media payloads and
// bulk data, up to a limit. Left out are:
// - the fields shown only by position (no value) in mdat, free and skip: the media data;
// - in other elements, what such fields hold beyond the element's first 4 KiB;
// - in elements the parser did not understand (an unknown type or an invalid size),
//   everything beyond their first 4 KiB.
// Only the current top-level element's exclusions are held, and the chosen ranges stop
// at the limit, so memory stays bounded by the limit and the largest box's child count.
class ByteSelection {
public:
    struct Range {
        quint64 offset = 0;
        quint64 size = 0;
        bool operator==(const Range &other) const
        {
            return offset == other.offset && size == other.size;
        }
    };

    // Bytes kept of elements the parser did not understand and of position-only fields.
    static constexpr quint64 KeptHead = 4096;

    explicit ByteSelection(quint64 limit);

    void beginReport(quint64 fileSize);
    void beginElement(quint64 offset, quint64 size, const QString &name);
    void setElementOffset(quint64 offset);
    void setElementSize(quint64 size);
    void setElementNote(const QString &note);
    // A field of the innermost element shown only by its position (it has no value).
    void addPositionField(quint64 offset, quint64 size);
    void endElement();

    quint64 limit() const { return byteLimit; }
    // The chosen ranges in file order, none touching the next.
    const std::vector<Range> &ranges() const { return chosen; }
    // Whether the limit left bytes out, and the first byte it left out.
    bool limitReached() const { return reached; }
    quint64 limitOffset() const { return reachedAt; }

private:
    // Bytes from begin up to end.
    struct Span {
        quint64 begin = 0;
        quint64 end = 0;
    };
    struct OpenElement {
        quint64 offset = 0;
        quint64 size = 0;
        bool mediaPayload = false; // mdat, free, skip
        bool notUnderstood = false;
    };

    void exclude(quint64 begin, quint64 end);
    // Adds the element's bytes less the exclusions to the chosen ranges.
    void choose(const OpenElement &element);
    void append(quint64 offset, quint64 size);

    quint64 byteLimit;
    quint64 fileSize = 0;
    quint64 total = 0;
    bool reached = false;
    quint64 reachedAt = 0;
    std::vector<OpenElement> open;
    std::vector<Span> exclusions; // of the current top-level element
    std::vector<Range> chosen;
};

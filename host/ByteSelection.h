#pragma once

#include "ReportSink.h"

#include <QString>
#include <QtGlobal>

#include <vector>

// Chooses the bytes of a file that the HTML report carries for its hex view, from the
// report's calls: the bytes of every top-level element, less media payloads and bulk data,
// up to a limit. Left out are:
// - the payload fields of media data and filler;
// - what other payload fields hold beyond their element's first 4 KiB;
// - in elements whose content the parser did not read (an unknown type, an invalid size),
//   everything beyond their first 4 KiB.
// Only the current top-level element's exclusions are held, and the chosen ranges stop
// at the limit, so memory stays bounded by the limit and the largest box's child count.
class ByteSelection : public ReportSink {
public:
    struct Range {
        quint64 offset = 0;
        quint64 size = 0;
    };

    // Bytes kept of elements the parser did not read and of payload fields.
    static constexpr quint64 KeptHead = 4096;

    explicit ByteSelection(quint64 limit);

    quint64 limit() const { return byteLimit; }
    // The chosen ranges in file order, none touching the next.
    const std::vector<Range> &ranges() const { return chosen; }
    // Whether the limit left bytes out, and the first byte it left out.
    bool limitReached() const { return reached; }
    quint64 limitOffset() const { return reachedAt; }

    void beginReport(const QString &fileName, quint64 fileSize) override;
    void endReport() override;
    void beginElement(quint64 offset, quint64 size, const QString &name, qint64 index) override;
    void setElementOffset(quint64 offset) override;
    void setElementSize(quint64 size) override;
    void setElementNote(const QString &) override {}
    void setElementValue(const QString &) override {}
    void setElementState(ElementState state) override;
    void endElement() override;
    void addField(bool, quint64, quint8, quint64, const QString &, const QString &, const QString &,
                  const QString &, qint64) override
    {
    }
    void addPayloadField(quint64 offset, quint64 size, const QString &name,
                         Payload payload) override;
    void addRawField(quint64, quint64, const quint8 *, const QString &, const QString &) override {}
    void beginStream(int, const StreamInfo &) override {}
    void addSample(quint64, const Sample &) override {}
    void endStream() override {}

private:
    // Bytes from begin up to end.
    struct Span {
        quint64 begin = 0;
        quint64 end = 0;
    };
    struct OpenElement {
        quint64 offset = 0;
        quint64 size = 0;
        bool notRead = false;
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

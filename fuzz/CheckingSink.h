#pragma once

#include "ReportSink.h"

#include <QString>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

// A report sink that checks the shape of the report as it streams past: elements
// balanced, element operations only on an open element, fields only inside an element,
// nothing placed before the start of the element it belongs to, top-level boxes one
// behind the other, samples only inside a stream and streams in increasing index order
// after the element tree. It counts what it sees, reads every
// byte of every raw field (so that a sanitizer sees a raw field that points outside its
// buffer) and can pass everything on to a second sink.
//
// In Abort mode the first violation prints a message and aborts, which is what a fuzzer
// wants; in Record mode the first violation is kept for a test to look at.
class CheckingSink : public ReportSink {
public:
    enum Mode { Abort, Record };

    explicit CheckingSink(Mode mode = Abort, ReportSink *next = nullptr)
        : mode(mode)
        , next(next)
    {
    }

    // Bound on the number of report nodes that walks over a file of the given size may
    // produce: one walk reports at most 16 nodes per byte it covers, plus a few field
    // groups; the walker's work budget lets a damaged file walk its bytes up to 64 times.
    // Anything beyond grows with a count read from the file rather than with the file.
    static constexpr quint64 WalksOfADamagedFile = 64;
    static quint64 nodeBound(quint64 fileSize, quint64 walks = 1)
    {
        return walks * (16 * fileSize + 256);
    }

    // The first violation, empty while the report is sound.
    const std::string &problem() const { return firstProblem; }
    bool finished() const { return reportEnded; }

    quint64 elements = 0;
    quint64 fields = 0; // plain and raw
    quint64 samples = 0;
    quint64 streams = 0;
    quint64 problems = 0;
    int maxDepth = 0;

    quint64 nodes() const { return elements + fields + samples + problems; }

    void beginReport(const QString &fileName, quint64 size) override
    {
        require(!reportBegun, "second beginReport");
        reportBegun = true;
        reportedFileSize = size;
        if (next)
            next->beginReport(fileName, size);
    }

    void endReport() override
    {
        requireInReport("endReport");
        require(open.empty(), "endReport with an element still open");
        require(!streamOpen, "endReport with a stream still open");
        reportEnded = true;
        if (next)
            next->endReport();
    }

    void beginElement(quint64 offset, quint64 size, const QString &name, qint64 index) override
    {
        requireInReport("beginElement");
        require(!streamBegun, "beginElement after the streams began");
        if (open.empty()) {
            // The base walks the top level box by box: each starts where the last ended,
            // and none starts at or behind the end of the input.
            require(offset == nextTopLevelOffset, "top-level element not behind the last one");
            require(offset < reportedFileSize, "top-level element at the end of the input");
        }
        open.push_back(OpenElement{offset, size, ~quint64(0), open.empty()});
        ++elements;
        if (int(open.size()) > maxDepth)
            maxDepth = int(open.size());
        if (next)
            next->beginElement(offset, size, name, index);
    }

    void setElementOffset(quint64 offset) override
    {
        requireOpen("setElementOffset");
        if (!open.empty())
            open.back().offset = offset;
        if (next)
            next->setElementOffset(offset);
    }

    void setElementSize(quint64 size) override
    {
        requireOpen("setElementSize");
        if (!open.empty())
            open.back().size = size;
        if (next)
            next->setElementSize(size);
    }

    void setElementNote(const QString &text) override
    {
        requireOpen("setElementNote");
        if (next)
            next->setElementNote(text);
    }

    void setElementValue(const QString &text) override
    {
        requireOpen("setElementValue");
        if (next)
            next->setElementValue(text);
    }

    void setElementState(ElementState state) override
    {
        requireOpen("setElementState");
        if (!open.empty() && state == ElementState::Inflated)
            open.back().inflated = true;
        if (next)
            next->setElementState(state);
    }

    void endElement() override
    {
        requireOpen("endElement");
        if (!open.empty()) {
            const OpenElement closing = open.back();
            open.pop_back();
            require(closing.firstChildOffset >= closing.offset,
                    "a child placed before the start of its element");
            // An element learns its final offset only here (list entries set it late). One
            // of inflated bytes has positions of its own, which place nothing in its parent.
            if (!closing.inflated)
                placeChild(closing.offset);
            if (closing.topLevel) {
                const quint64 end = closing.offset + closing.size;
                nextTopLevelOffset = end < closing.offset ? ~quint64(0) : end;
            }
        }
        if (next)
            next->endElement();
    }

    void addField(bool bitField, quint64 offset, quint8 bitOffset, quint64 size,
                  const QString &name, const QString &value, const QString &extra,
                  const QString &comment, qint64 index) override
    {
        requireOpen("addField");
        placeChild(offset);
        ++fields;
        if (next)
            next->addField(bitField, offset, bitOffset, size, name, value, extra, comment, index);
    }

    void addRawField(quint64 offset, quint64 size, const quint8 *data, const QString &name,
                     const QString &comment) override
    {
        requireOpen("addRawField");
        require(size == 0 || data != nullptr, "raw field without data");
        placeChild(offset);
        // Every byte is read, and the volatile store keeps the reads from being optimised
        // away, so that a sanitizer sees a raw field that points outside its buffer.
        if (data) {
            [[maybe_unused]] volatile quint8 last = 0;
            for (quint64 i = 0; i < size; ++i)
                last = data[i];
        }
        ++fields;
        if (next)
            next->addRawField(offset, size, data, name, comment);
    }

    void setFileFacts(const FileFacts &facts) override
    {
        requireInReport("setFileFacts");
        require(open.empty(), "setFileFacts inside an element");
        require(!streamBegun, "setFileFacts after a stream");
        require(!factsGiven, "second setFileFacts");
        factsGiven = true;
        if (next)
            next->setFileFacts(facts);
    }

    void beginStream(int index, const StreamInfo &info) override
    {
        requireInReport("beginStream");
        require(open.empty(), "beginStream inside an element");
        require(!streamOpen, "beginStream inside a stream");
        require(index > lastStreamIndex, "streams out of index order");
        lastStreamIndex = index;
        streamBegun = true;
        streamOpen = true;
        ++streams;
        if (next)
            next->beginStream(index, info);
    }

    void addSample(quint64 sampleIndex, const Sample &sample) override
    {
        requireInReport("addSample");
        require(streamOpen, "sample outside a stream");
        ++samples;
        if (next)
            next->addSample(sampleIndex, sample);
    }

    void addTrackSample(quint64 sampleIndex, const TrackSample &sample) override
    {
        requireInReport("addTrackSample");
        require(streamOpen, "sample outside a stream");
        ++samples;
        if (next)
            next->addTrackSample(sampleIndex, sample);
    }

    void addItem(const Item &item) override
    {
        requireInReport("addItem");
        require(open.empty() && !streamOpen, "an item inside an element or a stream");
        if (item.extents)
            require(item.extentsReason.isEmpty(), "an item with extents and a reason");
        if (next)
            next->addItem(item);
    }

    void addProblem(const Problem &problem) override
    {
        requireInReport("addProblem");
        require(open.empty() && !streamOpen, "a problem inside an element or a stream");
        ++problems;
        if (next)
            next->addProblem(problem);
    }

    void setCoverage(const Coverage &coverage) override
    {
        requireInReport("setCoverage");
        require(coverage.fileSize == reportedFileSize, "coverage of another size");
        // Each part no larger than the whole, so that no sum wraps.
        const auto addsUp = [](const CoverageParts &p, quint64 length) {
            for (const auto &[name, part] : coveragePartNames) {
                if (p.*part > length)
                    return false;
                length -= p.*part;
            }
            return length == 0;
        };
        require(addsUp(coverage, coverage.fileSize),
                "coverage parts that do not add up to the file size");
        quint64 mapped = 0;
        CoverageParts sums;
        for (const CoverageParts &cell : coverage.cells) {
            const quint64 length = std::min(coverage.cellSize, coverage.fileSize - mapped);
            require(mapped < coverage.fileSize && addsUp(cell, length),
                    "a cell of the coverage map whose parts do not add up to its length");
            mapped += length;
            for (const auto &[name, part] : coveragePartNames)
                sums.*part += cell.*part;
        }
        require(mapped == coverage.fileSize && coverage.cells.size() <= Coverage::MapCells,
                "a coverage map that does not cover the file in at most MapCells cells");
        require(std::memcmp(&sums, static_cast<const CoverageParts *>(&coverage), sizeof sums) == 0,
                "a coverage map whose cells do not add up to the parts of the file");
        if (next)
            next->setCoverage(coverage);
    }

    void endStream() override
    {
        requireInReport("endStream");
        require(streamOpen, "endStream without a stream");
        streamOpen = false;
        if (next)
            next->endStream();
    }

private:
    struct OpenElement {
        quint64 offset;
        quint64 size;
        quint64 firstChildOffset;
        bool topLevel;
        bool inflated = false;
    };

    void placeChild(quint64 offset)
    {
        if (!open.empty() && offset < open.back().firstChildOffset)
            open.back().firstChildOffset = offset;
    }

    void require(bool condition, const std::string &what)
    {
        if (condition)
            return;
        if (mode == Abort) {
            std::fprintf(stderr, "CheckingSink: %s\n", what.c_str());
            std::abort();
        }
        if (firstProblem.empty())
            firstProblem = what;
    }
    void requireInReport(const char *operation)
    {
        require(reportBegun && !reportEnded, std::string(operation) + " outside the report");
    }
    void requireOpen(const char *operation)
    {
        requireInReport(operation);
        require(!open.empty(), std::string(operation) + " without an open element");
    }

    Mode mode;
    ReportSink *next;
    std::string firstProblem;
    std::vector<OpenElement> open;
    bool reportBegun = false;
    bool reportEnded = false;
    bool factsGiven = false;
    bool streamBegun = false;
    bool streamOpen = false;
    int lastStreamIndex = -1;
    quint64 reportedFileSize = 0;
    quint64 nextTopLevelOffset = 0;
};

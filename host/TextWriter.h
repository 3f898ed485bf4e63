#pragma once

#include "OutputBuffer.h"
#include "ReportWriter.h"

#include <vector>

// Writes reports for people: an indented tree with one line per element and one per
// field, then one line per stream, or with samples shown, a table of each stream's
// samples. docs/json-format.md describes the layout.
//
// An element's header line waits for its first child or its end, since a list entry
// learns its offset and size after it is opened; the note and value get lines of their
// own where they arrive.
class TextWriter : public ReportWriter {
public:
    TextWriter(FILE *out, bool showSamples);

    void setContainerName(const QString &name) override;
    void reportError(const QString &fileName, const QString &problem) override;
    void flush() override;
    int writeError() const override;

    void beginReport(const QString &fileName, quint64 fileSize) override;
    void endReport() override;
    void beginElement(quint64 offset, quint64 size, const QString &name, qint64 index) override;
    void setElementOffset(quint64 offset) override;
    void setElementSize(quint64 size) override;
    void setElementNote(const QString &text) override;
    void setElementValue(const QString &text) override;
    void endElement() override;
    void addField(bool bitField, quint64 offset, quint8 bitOffset, quint64 size,
                  const QString &name, const QString &value, const QString &extra,
                  const QString &comment, qint64 index) override;
    void addRawField(quint64 offset, quint64 size, const quint8 *data, const QString &name,
                     const QString &comment) override;
    void beginStream(int index, const StreamInfo &info) override;
    void addSample(quint64 sampleIndex, const Sample &sample) override;
    void addTrackSample(quint64 sampleIndex, const TrackSample &sample) override;
    void endStream() override;
    void addItem(const Item &item) override;
    void addProblem(const Problem &problem) override;
    void setCoverage(const Coverage &coverage) override;
    void endProblems() override;

private:
    struct OpenElement {
        quint64 offset = 0;
        quint64 size = 0;
        QString name;
        qint64 index = -1;
        bool headerWritten = false;
    };

    void text(const QString &value);
    void indent(size_t level);
    // Writes the header line of the innermost open element if it is still held.
    void writePendingHeader();
    // Starts a line inside the innermost open element.
    void beginChildLine();
    // A line of the innermost open element: its note or its value after a label.
    void writeElementLine(const char *label, const QString &value);
    // Closes the elements and the stream still open, before what closes the report.
    void leaveStreams();
    void writeStreamLine(bool withCount);
    // The deep facts of a stream, which has them.
    void writeTrackFacts(const StreamInfo &info);
    void writeVideoFacts(const VideoFacts &video);
    void writeUnits(const std::vector<SampleUnit> &units);
    void writeSampleCount();
    void writeSampleTableHeader();

    OutputBuffer out;
    bool showSamples;
    QString containerName;
    // Open elements; entries beyond `depth` are kept to be reused.
    std::vector<OpenElement> open;
    size_t depth = 0;
    bool inReport = false;
    bool anyReport = false;
    bool inStream = false;
    bool problemsBegun = false;
    int streamIndex = 0;
    StreamInfo stream;
    quint64 streamSamples = 0;
};

#pragma once

#include "OutputBuffer.h"
#include "ReportWriter.h"

#include <functional>
#include <memory>
#include <utility>
#include <vector>

// Writes each report as one JSON object on one line: the file, its element tree and its
// streams with their samples. docs/json-format.md describes the document.
//
// Everything is written as it arrives, except what the model delivers late: an element's
// offset, size, note, state and value go behind its children, so only the open elements
// are held.
class JsonWriter : public ReportWriter {
public:
    // Plain documents hold the keys every version of the report has held; annotated ones
    // add what a viewer needs beyond them: the codec's name, what the bytes of a payload
    // field hold and why an element's content was not read.
    enum class Keys { Plain, Annotated };

    explicit JsonWriter(FILE *out, Keys keys = Keys::Plain);
    // A writer into a buffer shared with the text around the documents, such as a page.
    JsonWriter(OutputBuffer &out, OutputBuffer::Escaping escaping, Keys keys);

    // Opens a report object with the members every report begins with: "file", "fileSize"
    // and "container".
    static void beginReportObject(OutputBuffer &out, OutputBuffer::Escaping escaping,
                                  const QString &fileName, quint64 fileSize,
                                  const QString &containerName);

    // Writes further members of the report object behind "streams": called at the end of
    // each report, it writes each member led by a comma.
    void setTrailer(std::function<void()> writeMembers) { trailer = std::move(writeMembers); }

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
    void setElementState(ElementState state) override;
    void endElement() override;
    void addField(bool bitField, quint64 offset, quint8 bitOffset, quint64 size,
                  const QString &name, const QString &value, const QString &extra,
                  const QString &comment, qint64 index) override;
    void addPayloadField(quint64 offset, quint64 size, const QString &name,
                         Payload payload) override;
    void addRawField(quint64 offset, quint64 size, const quint8 *data, const QString &name,
                     const QString &comment) override;
    void beginStream(int index, const StreamInfo &info) override;
    void addSample(quint64 sampleIndex, const Sample &sample) override;
    void addTrackSample(quint64 sampleIndex, const TrackSample &sample) override;
    void endStream() override;
    void addItem(const Item &item) override;
    void addJoinedFile(const QString &fileName, quint64 fileSize) override;
    void addProblem(const Problem &problem) override;
    void setCoverage(const Coverage &coverage) override;
    void endProblems() override;

private:
    // What an open element still has to write when it closes.
    struct OpenElement {
        quint64 offset = 0;
        quint64 size = 0;
        QString note;
        QString value;
        const char *state = nullptr; // the annotation, when the content was not read
        bool hasChildren = false;
    };

    void string(const QString &text);
    // The deep facts of a stream, which has them.
    void writeTrackFacts(const StreamInfo &info);
    // A number, or null without one.
    void optionalNumber(std::optional<qint64> value);
    // A table entry's index, or none for -1.
    static std::optional<qint64> entryIndex(qint64 index)
    {
        return index >= 0 ? std::optional<qint64>(index) : std::nullopt;
    }
    // A field object without its closing brace.
    void writeField(bool bitField, quint64 offset, quint8 bitOffset, quint64 size,
                    const QString &name, const QString &value, const QString &extra,
                    const QString &comment, qint64 index);
    // Separates a node from the one before it in the same list.
    void beginNode();
    // Closes the elements still open and the element list, and opens the stream list.
    void leaveElements();
    // Closes the stream list and opens the problem list.
    void addProblemsList();
    // Closes whichever of the lists is open.
    void closeLists();

    std::unique_ptr<OutputBuffer> ownBuffer;
    OutputBuffer &out;
    OutputBuffer::Escaping escaping;
    bool annotated;
    std::function<void()> trailer;
    QString containerName;
    // Open elements; entries beyond `depth` are kept to be reused.
    std::vector<OpenElement> open;
    size_t depth = 0;
    bool topHasElements = false;
    bool inElements = false;
    bool inReport = false;
    bool hasStreams = false;
    bool inStream = false;
    bool streamHasSamples = false;
    bool inItems = false;
    bool inProblems = false;
    bool hasProblems = false;
    bool listsClosed = false;
    // Joined files, for the list behind the elements.
    std::vector<std::pair<QString, quint64>> joinedFiles;
};

#pragma once

#include "OutputBuffer.h"
#include "ReportWriter.h"

#include <vector>

// Writes each report as one JSON object on one line: the file, its element tree and its
// streams with their samples. docs/json-format.md describes the document.
//
// Everything is written as it arrives, except what the model delivers late: an element's
// offset, size, note and value go behind its children, so only the open elements are held.
class JsonWriter : public ReportWriter {
public:
    explicit JsonWriter(FILE *out);

    void setContainerName(const QString &name) override;
    void reportError(const QString &fileName, const QString &problem) override;
    void flush() override;
    bool failed() const override;

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
    void endStream() override;

protected:
    // For writers that embed the documents in other text: strings are written with the
    // given escaping.
    JsonWriter(FILE *out, OutputBuffer::Escaping escaping);

    // Writes further members of the report object behind "streams", each led by a comma.
    virtual void writeReportExtras() {}
    // A JSON string.
    void string(const QString &text);

    OutputBuffer out;

private:
    // What an open element still has to write when it closes.
    struct OpenElement {
        quint64 offset = 0;
        quint64 size = 0;
        QString note;
        QString value;
        bool hasChildren = false;
    };

    // Separates a node from the one before it in the same list.
    void beginNode();
    // Closes the elements still open and the element list, and opens the stream list.
    void leaveElements();

    OutputBuffer::Escaping escaping;
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
};

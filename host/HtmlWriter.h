#pragma once

#include "ByteSelection.h"
#include "JsonWriter.h"
#include "OutputBuffer.h"
#include "TeeWriter.h"

class SourceBytes;

// Writes one self-contained HTML page for all reports: the page's head, then each report
// as the JSON writer's annotated document inside a <script type="application/json">
// element, then the page's tail with the script that shows them. No part of the page loads
// anything.
//
// Each report goes to the byte selection as well, and its document carries one member
// more, "embeddedBytes", with the bytes of the file the selection chose for the hex view,
// read from the file after its report. Strings are escaped so that no text of the file
// can end the script element.
class HtmlWriter : public TeeWriter {
public:
    static constexpr quint64 DefaultByteLimit = 16 * 1024 * 1024;

    explicit HtmlWriter(FILE *file, quint64 byteLimit = DefaultByteLimit);

    void setContainerName(const QString &name) override;
    void setSource(const std::shared_ptr<SourceBytes> &source) override { nextBytes = source; }
    void reportError(const QString &fileName, const QString &problem) override;
    void flush() override;
    void finish() override;
    int writeError() const override;

    void beginReport(const QString &fileName, quint64 fileSize) override;
    void endReport() override;

private:
    void writeHead();
    void beginScript();
    // The "embeddedBytes" member: the chosen bytes of the file as base64 text, read piece
    // by piece.
    void writeEmbeddedBytes();
    void writeRanges();

    OutputBuffer out;
    ByteSelection selection;
    JsonWriter json;
    std::shared_ptr<SourceBytes> bytes;     // of the report being written
    std::shared_ptr<SourceBytes> nextBytes; // of the next report, when set
    bool headWritten = false;
};

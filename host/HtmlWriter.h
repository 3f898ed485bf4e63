#pragma once

#include "ByteSelection.h"
#include "JsonWriter.h"

// Writes one self-contained HTML page for all reports: the page's head, then each report
// as the JSON writer's document inside a <script type="application/json"> element, then
// the page's tail with the script that shows them. No part of the page loads anything.
//
// Each report document carries one member more, "embeddedBytes", with bytes of the file
// for the hex view (which ones: ByteSelection), read from the file after its report.
// Strings are escaped so that no text of the file can end the script element.
class HtmlWriter : public JsonWriter {
public:
    static constexpr quint64 DefaultByteLimit = 16 * 1024 * 1024;

    explicit HtmlWriter(FILE *out, quint64 byteLimit = DefaultByteLimit);

    void reportError(const QString &fileName, const QString &problem) override;
    void finish() override;

    void beginReport(const QString &fileName, quint64 fileSize) override;
    void endReport() override;
    void beginElement(quint64 offset, quint64 size, const QString &name, qint64 index) override;
    void setElementOffset(quint64 offset) override;
    void setElementSize(quint64 size) override;
    void setElementNote(const QString &text) override;
    void endElement() override;
    void addField(bool bitField, quint64 offset, quint8 bitOffset, quint64 size,
                  const QString &name, const QString &value, const QString &extra,
                  const QString &comment, qint64 index) override;
    void beginStream(int index, const StreamInfo &info) override;

protected:
    void writeReportExtras() override;

private:
    void writeHead();
    void beginScript();
    // The chosen bytes of the file, as base64 text, read piece by piece.
    void writeRanges();

    ByteSelection selection;
    QString fileName;
    bool headWritten = false;
    bool inReport = false;
    bool inElements = false;
};

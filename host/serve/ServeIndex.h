#pragma once

#include "FileIndex.h"
#include "ReportWriter.h"

#include <memory>
#include <vector>

// The writer of --serve: it writes no report but keeps the index of each file's report
// (FileIndex) for the server to read from, and the problem of each file without one.
class ServeIndex : public ReportWriter {
public:
    struct File {
        QString fileName;
        QString error; // why the file has no report; empty when it has one
        std::unique_ptr<FileIndex> index;
    };

    const std::vector<File> &files() const { return fileList; }

    void setContainerName(const QString &name) override { containerName = name; }
    void reportError(const QString &fileName, const QString &problem) override;
    void flush() override {}
    int writeError() const override { return 0; }

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
    void addProblem(const Problem &problem) override;
    void setCoverage(const Coverage &coverage) override;

private:
    std::vector<File> fileList;
    FileIndex *current = nullptr; // the index of the report being made
    QString containerName;
};

#pragma once

#include "FileIndex.h"
#include "TeeWriter.h"

#include <memory>
#include <vector>

// The writer of --serve: it writes no report but keeps the index of each file's report
// (FileIndex) for the server to read from, and the problem of each file without one. Each
// report goes to its file's index as it is made.
class ServeIndex : public TeeWriter {
public:
    struct File {
        QString fileName;
        QString error; // why the file has no report; empty when it has one
        std::unique_ptr<FileIndex> index;
    };

    ServeIndex()
        : TeeWriter({})
    {
    }

    const std::vector<File> &files() const { return fileList; }

    void setContainerName(const QString &name) override { containerName = name; }
    void setSource(const std::shared_ptr<SourceBytes> &source) override { nextBytes = source; }
    void reportError(const QString &fileName, const QString &problem) override;
    void flush() override {}
    int writeError() const override { return 0; }

    void beginReport(const QString &fileName, quint64 fileSize) override;
    void endReport() override;

private:
    std::vector<File> fileList;
    FileIndex *current = nullptr; // the index of the report being made
    QString containerName;
    std::shared_ptr<SourceBytes> nextBytes; // of the next report, when set
};

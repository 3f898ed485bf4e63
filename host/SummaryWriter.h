#pragma once

#include "JsonWriter.h"
#include "OutputBuffer.h"
#include "TeeWriter.h"

#include <QStringList>

#include <optional>
#include <vector>

// Writes a summary of each file as one JSON object on one line: what the file is (its major
// brand, the length of its presentation, its streams with their handlers, codecs and sample
// counts) and, when the files are checked, how many problems of each severity it lists and
// their codes; with deep analysis of a file of items, their number and the primary item's
// type and size. A file that gets no report gets the JSON writer's error line. With the reports,
// each file's JSON report comes first, on its own line, then its summary.
// docs/json-format.md describes the summary.
class SummaryWriter : public TeeWriter {
public:
    enum class Reports { Without, With };

    SummaryWriter(FILE *file, bool checked, Reports reports, JsonWriter::Keys reportKeys);

    void setContainerName(const QString &name) override;
    void reportError(const QString &fileName, const QString &problem) override;
    void flush() override;
    int writeError() const override;

    void beginReport(const QString &fileName, quint64 fileSize) override;
    void endReport() override;
    void setFileFacts(const FileFacts &facts) override;
    void beginStream(int index, const StreamInfo &info) override;
    void addSample(quint64 sampleIndex, const Sample &sample) override;
    void addTrackSample(quint64 sampleIndex, const TrackSample &sample) override;
    void addItem(const Item &item) override;
    void addProblem(const Problem &problem) override;

private:
    struct Stream {
        int index = 0;
        QString handlerType;
        QString codecName;
        QString sampleEntry; // of deep analysis only
        bool deep = false;
        quint64 samples = 0;
    };

    void string(const QString &text);
    void writeSummary();

    OutputBuffer out;
    JsonWriter report;
    bool checked;
    QString containerName;
    // The file being reported.
    QString fileName;
    quint64 fileSize = 0;
    FileFacts file;
    std::vector<Stream> streams;
    // Of deep analysis: the items, and the primary one's type and size.
    quint64 items = 0;
    std::optional<Item> primaryItem;
    quint64 problemCounts[3] = {};
    QStringList problemCodes; // each once, in the order they first come
};

#pragma once

#include "ReportWriter.h"

#include <QString>

#include <memory>
#include <optional>
#include <vector>

// The rows of the samples arrays of the Python module, laid out as its NumPy dtypes say
// (Module.cpp builds them from these offsets).
struct SampleRow {
    quint64 index = 0;
    quint64 offset = 0;
    quint64 size = 0;
    qint64 dts = 0;
    qint64 pts = 0;
    quint32 duration = 0;
    bool key = false;
};

// A sample of deep analysis: the columns of every sample, then the time it is presented at
// and where it came from. Entries and fragment places that do not apply are -1;
// presentationTime means nothing where presented is false.
struct TrackSampleRow {
    SampleRow sample;
    qint64 presentationTime = 0;
    bool presented = false;
    quint64 chunk = 0;
    qint64 stscEntry = -1;
    qint64 sttsEntry = -1;
    qint64 cttsEntry = -1;
    qint64 moof = -1;
    qint64 moofOffset = -1;
    qint64 traf = -1;
    qint64 trun = -1;
    qint64 trunEntry = -1;
};

// Rows of one stream in blocks of fixed size, so that gathering a million samples never
// copies them and never holds twice their memory; they go to one array at the end.
class RowBlocks {
public:
    explicit RowBlocks(size_t rowSize)
        : rowSize(rowSize)
    {
    }

    // A new zeroed row at the end.
    void *append();
    quint64 count() const { return rows; }
    size_t bytesPerRow() const { return rowSize; }
    // Copies every row to target, which holds count() rows, and frees the blocks as it goes.
    void moveTo(char *target);

private:
    static constexpr size_t RowsPerBlock = 64 * 1024;

    size_t rowSize;
    quint64 rows = 0;
    std::vector<std::unique_ptr<char[]>> blocks;
};

// The writer behind inspect(): it keeps what a report tells beside its element tree: the
// file, its facts, the streams with their samples as rows, and with checks the problems and
// the coverage. It keeps nothing of the elements, so its memory grows with the samples only.
class SampleArrays : public ReportWriter {
public:
    struct Stream {
        int index = 0;
        StreamInfo info;
        RowBlocks rows;
    };

    explicit SampleArrays(bool deep)
        : deep(deep)
    {
    }

    QString fileName;
    quint64 fileSize = 0;
    QString containerName;
    // Why the file has no report; empty when it has one.
    QString error;
    std::optional<FileFacts> facts;
    std::vector<Stream> streams;
    std::vector<Problem> problems;
    std::optional<Coverage> coverage;
    bool deep;

    void setContainerName(const QString &name) override { containerName = name; }
    void reportError(const QString &name, const QString &problem) override;
    void flush() override {}
    int writeError() const override { return 0; }

    bool takesElementTree() const override { return false; }
    void beginReport(const QString &name, quint64 size) override;
    void endReport() override {}
    void beginElement(quint64, quint64, const QString &, qint64) override {}
    void setElementOffset(quint64) override {}
    void setElementSize(quint64) override {}
    void setElementNote(const QString &) override {}
    void setElementValue(const QString &) override {}
    void endElement() override {}
    void addField(bool, quint64, quint8, quint64, const QString &, const QString &, const QString &,
                  const QString &, qint64) override
    {
    }
    void addPayloadField(quint64, quint64, const QString &, Payload) override {}
    void addRawField(quint64, quint64, const quint8 *, const QString &, const QString &) override {}
    void setFileFacts(const FileFacts &fileFacts) override { facts = fileFacts; }
    void beginStream(int index, const StreamInfo &info) override;
    void addSample(quint64 sampleIndex, const Sample &sample) override;
    void addTrackSample(quint64 sampleIndex, const TrackSample &sample) override;
    void endStream() override {}
    void addProblem(const Problem &problem) override { problems.push_back(problem); }
    void setCoverage(const Coverage &fileCoverage) override { coverage = fileCoverage; }
};

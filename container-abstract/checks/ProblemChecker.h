#pragma once

#include "ReportSink.h"

#include <QString>

#include <deque>
#include <map>
#include <set>
#include <tuple>
#include <vector>

// The checks a report allows by itself, whatever the format of its file: samples whose bytes
// lie past the end of the file, outside every media data payload, on top of each other or
// that have none; and where every byte of the file went. It sits in front of the sink a report
// goes to and passes every call on, holding back the problems, its own and those the parser
// reports on its way, which it passes on at the end of the report, with the coverage, before
// the report ends.
//
// Memory: the media data, filler, unknown and trailing ranges (as many as the file has such
// boxes), the extents of items, 16 bytes per sample for the checks that need the samples in the
// order of their offsets, and at most MaxProblems problems; beyond those only their number is kept.
class SARVELINTH_ABSTRACT_EXPORT ProblemChecker : public ReportSink {
public:
    static constexpr size_t MaxProblems = 10000;

    explicit ProblemChecker(ReportSink &next);

    // The problems of the report so far, by severity, those left out included.
    const ProblemCounts &counts() const { return problemCounts; }

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
    void setFileFacts(const FileFacts &facts) override;
    void beginStream(int index, const StreamInfo &info) override;
    void addSample(quint64 sampleIndex, const Sample &sample) override;
    void addTrackSample(quint64 sampleIndex, const TrackSample &sample) override;
    void endStream() override;
    void addItem(const Item &item) override;
    void addProblem(const Problem &problem) override;

private:
    // Bytes from begin up to end.
    struct Range {
        quint64 begin = 0;
        quint64 end = 0;
    };
    // A sample as the checks of offsets need it: 16 bytes.
    struct SampleRange {
        quint64 offset = 0;
        quint32 size = 0;
        quint32 stream = 0;
    };
    // The samples of the open stream with one kind of problem: how many, and the first.
    struct Tally {
        quint64 count = 0;
        quint64 firstIndex = 0;
        quint64 firstOffset = 0;
        quint64 firstSize = 0;
    };

    // The bytes from offset on that lie inside the innermost open element: the bytes of an
    // element or payload count once, inside its parent, however far it declares to reach.
    // None for one that begins outside its parent, such as an element whose positions lie in
    // bytes inflated from the file rather than in the file.
    Range insideParent(quint64 offset, quint64 size) const;
    void checkSample(quint64 sampleIndex, quint64 offset, quint64 size);
    // A problem of the samples tallied: what one or many of them do.
    void tallyProblem(const Tally &tally, const char *code, Severity severity, const QString &one,
                      const QString &many);
    // The overlaps of the samples, and the coverage of the file, from the samples in order.
    Coverage finishSamples();

    ReportSink &next;
    quint64 fileSize = 0;
    std::vector<Range> openElements;
    std::vector<Range> mediaData, filler, unknown, trailing;
    std::vector<Range> itemData; // the extents of items
    std::deque<SampleRange> samples;
    // Where the samples of each stream begin among them, and whether each stream's come in the
    // order of their offsets.
    std::vector<size_t> runStarts{0};
    bool runsInOrder = true;
    // Of the open stream.
    int streamIndex = 0;
    QString streamPath;
    Tally zeroSize, pastEnd, outsideMediaData;
    std::vector<Range> sortedMediaData;
    std::vector<QString> streamPaths; // by stream index

    std::vector<Problem> problems;
    // Of each problem kept: its code, severity, offset and size.
    std::set<std::tuple<QString, int, quint64, quint64>> reported;
    std::map<QString, quint64> leftOut; // problems beyond MaxProblems, by code
    ProblemCounts problemCounts;
};

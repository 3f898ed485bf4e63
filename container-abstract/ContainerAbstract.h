#pragma once

#include "Export.h"
#include "InputDevice.h"
#include "Records.h"
#include "ReportSink.h"

#include <QObject>
#include <QString>
#include <QStringList>
#include <QVector>

// Base of the container parsers. It opens the input, drives a parser through its five
// virtual operations and forwards everything the parser reports to a ReportSink.
class SARVELINTH_ABSTRACT_EXPORT ContainerAbstract : public QObject {
    Q_OBJECT

public:
    // One row of a parser's table of known elements.
    class SARVELINTH_ABSTRACT_EXPORT CommonElement {
    public:
        CommonElement();
        CommonElement(int elementType, const QString &name);
        CommonElement(const CommonElement &other);
        CommonElement &operator=(const CommonElement &other) = default;

        int elementType;
        QString name;
    };

    // Results of the parsing operations.
    enum ParseResult {
        ParseOk = 0,
        ParseNotThisFormat = 3,
        ParseTruncated = 5,
        ParseUnknownElement = 7,
        ParseOutOfMemory = 9,
    };

    // Results of a whole run.
    enum RunResult {
        RunOk = 0,
        RunNotThisFormat = 1, // the parser does not take the file; nothing was reported
        RunOpenFailed = 2,    // the file could not be opened; nothing was reported
    };

    // Values of currentTrackType: what the track being parsed holds, as far as it matters.
    enum TrackType {
        VideoTrack = 0,
        OtherTrack = 4,
    };

    struct Settings {
        quint64 maxUnknownDataSize = 64;
        bool showUnknownData = true;
        int sizeBase = 10;
        int valueBase = 10;
        // Deep analysis: the wider vocabulary of boxes and the samples of every track.
        bool deepAnalysis = false;
        // Checks: the problems of the file, and where its bytes went.
        bool checkProblems = false;
        // With deep analysis: the NAL units or OBUs of every sample of H.264, HEVC and AV1.
        bool sampleUnits = false;
    };

    ContainerAbstract();
    ~ContainerAbstract() override;

    void configure(const Settings &settings);

    // Runs the parser over a file and reports it to sink, under shownName when one is given
    // (standard input's spool is shown as "-"). On RunOpenFailed, *error says why.
    RunResult parse(const QString &fileName, ReportSink &sink, QString *error = nullptr,
                    const QString &shownName = QString());
    // Reads the input of the next runs from source instead of the file parse() names, which
    // still judges the format and names the report. The source outlives the runs.
    void readFrom(ByteSource *source) { byteSource = source; }
    // The same over bytes in memory; fileName serves the format check and the report.
    RunResult parseBytes(const QString &fileName, const QByteArray &bytes, ReportSink &sink);
    // Runs the parser over files read as one presentation, in the order given: an
    // initialization segment (or a whole file with its movie) first, then media segments.
    // Each file's elements come inside an element named after the file, at their own
    // offsets; the streams of the presentation follow once, each sample naming its file.
    // RunNotThisFormat when the parser does not take the first file or cannot join files.
    RunResult parseJoined(const QStringList &fileNames, ReportSink &sink, QString *error = nullptr);
    // The problems the last run found; none without checks.
    const ProblemCounts &problemCounts() const { return problemsFound; }

protected:
    virtual int verifyContainerFormat(const QString &fileName) = 0;
    virtual int findBeginOfContainer(qint64 *offset) = 0;
    virtual int parseElement(quint64 *size) = 0;
    virtual void prepareParsing() {}
    virtual void finalizeParsing() {}
    // Joined files: whether the parser carries what it gathered of the tracks from one file
    // to the next, and the call that tells it the input is on the next file, before that
    // file's elements. Parsers that cannot join files take no notice.
    virtual bool canJoinFiles() const { return false; }
    virtual void continueWithFile(int file) { Q_UNUSED(file); }
    // Joined files: puts the input on a file of the presentation, counted from 0; false when
    // it cannot be opened again.
    bool switchToFile(int file);

    void beginElement(quint64 offset, quint64 size, const QString &name, qint64 index);
    void beginListEntry(const QString &name, qint64 index);
    void setElementOffset(quint64 offset);
    void setElementSize(quint64 size);
    void endElement();
    void addField(bool bitField, quint64 offset, quint8 bitOffset, quint64 size,
                  const QString &name, const QString &value, const QString &extra,
                  const QString &comment, qint64 index);
    void addRawField(quint64 offset, quint64 size, const quint8 *data, const QString &name,
                     const QString &comment);
    // A field shown only by its position, and what its bytes hold.
    void addPayloadField(quint64 offset, quint64 size, const QString &name, Payload payload);
    void addElementNote(const QString &text);
    // Why the innermost open element's content was not read.
    void setElementState(ElementState state);
    void setElementValue(const QString &text);
    void swapBytes(void *data, quint8 size);
    int reportSample(uint stream, quint64 sampleIndex);
    // What the file tells of itself; once, before the first stream is handed over.
    void reportFileFacts(const FileFacts &facts);
    // A problem of the file, for the checks; nothing without them.
    void reportProblem(const Problem &problem);
    // The same for a sample of deep analysis, which brings its own record.
    void reportTrackSample(int stream, quint64 sampleIndex, const TrackSample &sample);
    // An item of deep analysis; the streams are all handed over before the first.
    void reportItem(const Item &item);

    // Opens the entries of a new stream: a zeroed StreamInfo, a sample count of 0 and no
    // sample output. Returns the stream's index.
    int openStream();
    // Makes the samples of a stream wanted: they go to the report.
    void enableSampleOutput(int stream);

    quint64 maxUnknownDataSize = 64;
    bool showUnknownData = true;
    int sizeBase = 10;
    int valueBase = 10;
    bool deepAnalysis = false;
    bool checkProblems = false;
    bool sampleUnits = false;
    // Whether the sink of the run takes the element tree; the checks always need it.
    bool treeWanted = true;
    InputDevice input;
    quint64 currentOffset = 0;
    QVector<ReportSink *> sampleOutputs;
    QVector<quint64> sampleCounts;
    Sample currentSample;
    QVector<StreamInfo *> streams;
    int currentTrackType = OtherTrack;
    quint32 sampleCount = 0;
    // Joined files: their names, empty for a file alone; the file the input is on; and the
    // bytes of all of them.
    QStringList joinedFiles;
    int currentFile = 0;
    quint64 joinedSize = 0;

private:
    RunResult run(const QString &fileName, ReportSink &sink);
    // The elements of the input from begin to its end.
    void walkElements(qint64 begin);
    // Where a sample of the stream goes, with the streams before it begun and ended; null
    // when its samples are not wanted.
    ReportSink *sampleOutputFor(uint stream);
    void advanceStreamsTo(int stream);

    ReportSink *sink = nullptr;
    ByteSource *byteSource = nullptr;
    int openStreamIndex = -1; // stream whose samples the sink is receiving
    int nextStreamIndex = 0;  // next stream to hand to the sink
    ProblemCounts problemsFound;
};

#pragma once

#include "ContainerAbstract.h"
#include "samples/TrackContext.h"

#include <QHash>
#include <QIODevice>
#include <QString>
#include <QStringList>
#include <QUuid>
#include <QVector>

#include <array>
#include <memory>
#include <optional>
#include <utility>

#define SARVELINTH_MP4_EXPORT Q_DECL_EXPORT

class DeepAnalysis;
class PayloadReader;
struct SegmentIndexWalk;
class TableReader;

// A payload parser of the deep vocabulary (deep/).
using DeepParser = int (*)(PayloadReader &box);

// Parser of the ISO base media file format (mp4, f4v and relatives).
class SARVELINTH_MP4_EXPORT ContainerMP4 : public ContainerAbstract {
public:
    ContainerMP4();
    ~ContainerMP4() override;

protected:
    using BoxHandler = int (ContainerMP4::*)(quint64 offset, quint64 size);

    // The boxes whose place the walk notes, to read them again at the end: the file type and
    // the movie header, and in a track the boxes that tell its samples and their timing.
    enum class NotedBox {
        None,
        FileType,
        MovieHeader,
        MediaData,
        TrackHeader,
        MediaHeader,
        EditList,
        TimeToSample,
        SampleToChunk,
        SampleSizes,
        ChunkOffsets,
        ChunkOffsets64,
        SyncSamples,
    };

    // One row of the box table: what the walker does with a box of one type.
    class SARVELINTH_MP4_EXPORT ElementMP4 : public ContainerAbstract::CommonElement {
    public:
        ElementMP4();
        ElementMP4(int elementType, int fullBox, BoxHandler handler, QString name,
                   QString description, bool opensStream = false);
        ElementMP4(const ElementMP4 &other);
        ElementMP4 &operator=(const ElementMP4 &other);
        ~ElementMP4();

        BoxHandler handler;
        int fullBox;
        QString description;
        // Whether a box of this type holds one stream (trak): the stream is opened before
        // the box's children are walked.
        bool opensStream;
        // The payload parser of a row of the deep vocabulary. It runs in place of handler,
        // which it may call in turn: the basic parser of its type, if there is one.
        DeepParser deepParser = nullptr;
        // Whether the walk notes where a box of this type lies.
        NotedBox noted = NotedBox::None;
    };

    // Values of ElementMP4::elementType; only Container changes what the walker does.
    enum ElementType { FileTypeBox = 4, ContainerBox = 7, PlainBox = 8 };

    int verifyContainerFormat(const QString &fileName) override;
    int findBeginOfContainer(qint64 *offset) override;
    int parseElement(quint64 *size) override;
    void prepareParsing() override;
    void finalizeParsing() override;
    // Deep analysis joins files: the tracks of the first go on in the fragments of the others.
    bool canJoinFiles() const override { return deepAnalysis; }
    void continueWithFile(int file) override;

    // File-level payloads
    int parseValueString(quint64 length);
    int parseFileType(quint64 offset, quint64 size);
    int parseJunk(quint64 offset, quint64 size);
    int parseUnknownObject(quint64 offset, quint64 size);
    int parseBoxMDAT(quint64 offset, quint64 size);
    // Header boxes
    int parseBoxMVHD(quint64 offset, quint64 size);
    int parseBoxTKHD(quint64 offset, quint64 size);
    int parseBoxMDHD(quint64 offset, quint64 size);
    int parseBoxHDLR(quint64 offset, quint64 size);
    int parseBoxVMHD(quint64 offset, quint64 size);
    int parseBoxSMHD(quint64 offset, quint64 size);
    int parseBoxELST(quint64 offset, quint64 size);
    // Sample description and sample tables
    int parseBoxSTSD(quint64 offset, quint64 size);
    int parseBoxSTTS(quint64 offset, quint64 size);
    int parseBoxSTSS(quint64 offset, quint64 size);
    int parseBoxSTSC(quint64 offset, quint64 size);
    int parseBoxSTCO(quint64 offset, quint64 size);
    int parseBoxCO64(quint64 offset, quint64 size);
    int parseBoxSTSZ(quint64 offset, quint64 size);
    int parseBoxAVCC(quint64 offset, quint64 size);
    // Header pieces
    int getSize(quint64 *value, quint8 width);
    int getID(QString *id);
    int getUUID(QUuid *uuid);
    // The name of the row of a uuid box whose usertype lies at the given offset, such as
    // "uuid{a2394f52-5a9b-4f14-a244-6c427c648df4}".
    QString userTypeRow(quint64 at);
    int searchID(const QString &id, ElementMP4 *element);

    // Walks the boxes from begin up to end, one parseElement each, and returns the result
    // of the last one. Stops at the end of the input and when the work budget is spent.
    int walkChildren(quint64 begin, quint64 end);

    quint32 boxVersion = 0;
    quint32 boxFlags = 0;
    bool boxIsFull = false;
    QHash<QString, ElementMP4 *> elements;
    QVector<QIODevice *> chunkOffsetTables;
    QVector<QIODevice *> sampleToChunkTables;
    QVector<QIODevice *> sampleSizeTables;
    QVector<QIODevice *> timeToSampleTables;
    QVector<QIODevice *> syncSampleTables;

    // A block of big-endian fields read in one piece (boxes/HeaderFields.h).
    class FieldBlock;

private:
    // Reads and reports the payload of a box for the deep vocabulary.
    friend class PayloadReader;

    void buildBoxTable();
    // Deep analysis takes the other suffixes of the family, and files whose first bytes are
    // the header of a box the table knows.
    static bool isFamilySuffix(const QString &suffix);
    bool beginsWithABox(const QString &fileName);
    // Deep analysis (deep/): adds the rows of the deep vocabulary to the box table, which
    // take the place of the basic rows of the same type.
    void addDeepRows();
    // The row of a box type, or null for a type the table does not know. A row keyed
    // "parent/*" serves the children of a parent type that have no row of their own.
    const ElementMP4 *rowOf(const QString &type) const;
    // Deep analysis: the 32-bit zero that may end a list of atoms, when it is all that is left
    // from position to end, is reported as a field of the list. Whether it was.
    bool endsWithTerminator(quint64 position, quint64 end);
    // Four type bytes as text, those of no printable character as escapes such as \x00.
    static QString typeText(const char *bytes);
    // Runs the deep parser of a row over a payload.
    int parseDeepBox(const ElementMP4 &row, quint64 offset, quint64 size);
    // The samples of every track from its tables, told as deep analysis tells them.
    void walkTrackSamples();
    // Walks the bytes a compressed movie (cmvd) inflates to as a child of its box, which lies
    // at boxStart: the bytes are the input meanwhile, and stay with the parser to the end.
    int walkInflated(const QByteArray &bytes, quint64 boxStart, quint64 boxSize);
    // The bytes of every compressed movie inflated, kept for the noted boxes that lie in them,
    // with the box in the file they come from, where the problems found in them are placed.
    struct InflatedMovie {
        std::unique_ptr<InputDevice> bytes;
        quint64 boxStart;
        quint64 boxSize;
    };
    std::vector<InflatedMovie> inflatedMovies;
    // The device of the inflated bytes being walked; null while the file is.
    InputDevice *inflatedSource = nullptr;
    // The items of the file's top-level meta box, resolved and checked (items/).
    void reportItems();
    // Deep analysis with checks (deep/Segments.cpp): a top-level box from start to end, its
    // data from dataStart, against the references of the sidx boxes before it and the
    // movie fragment of a CMAF file before it; the brands of a file type, the timescales of
    // a movie's tracks.
    void checkTopLevelBox(const QString &type, quint64 start, quint64 dataStart, quint64 end);
    // The end of a file's boxes: the references not met and the fragment without its mdat.
    void checkSegmentsAtEnd();
    // The reference an index's walk is in, against the boxes met in it; the walk moves on.
    void finishReference(SegmentIndexWalk &index);
    void dropFinishedIndexes();
    // The data of the pending CMAF fragment against the payload of the mdat behind it.
    void checkFragmentData(std::optional<std::pair<quint64, quint64>> mediaData);

    // The types of the boxes being walked, outermost first; while a payload is parsed, the
    // last is its box's own.
    QVector<QString> boxPath;
    // Of each of those, its place among the siblings of its type, from 0.
    QVector<int> boxIndexes;
    // For each level being walked, the siblings seen so far by type; where each level ends.
    std::vector<std::vector<std::pair<QString, int>>> siblingCounts;
    std::vector<quint64> levelEnds;
    // The offset of the first top-level box of each type.
    QHash<QString, quint64> firstTopLevel;
    // The place of the next box of a type among its siblings, counted.
    int siblingIndex(const QString &type);
    // A new level of siblings begins below the box being walked.
    void beginSiblings();
    // The path and the sibling places move together, into a box and out of it.
    void enterBox(const QString &type);
    void leaveBox();
    // The path of the box being walked, such as "moov/trak[1]/mdia": each box with its place
    // among its siblings of the same type where it is not the first.
    QString pathText() const;

    // Checks (checks/): the problems a box shows on the walk, reported to the checks.
    struct BoxHeader {
        quint64 start;
        quint64 declaredSize;
        quint64 totalSize;
        quint64 headerSize;
        quint64 parentEnd;
        bool known;
        bool invalidSize;
        bool tooDeep;
    };
    void noteProblem(const char *code, Severity severity, quint64 offset, quint64 size,
                     const QString &message, const QString &path);
    // The same for bytes of the given source: the input when null, else inflated bytes, whose
    // problems are placed on the box they were inflated from.
    void noteProblemIn(const InputDevice *source, const char *code, Severity severity,
                       quint64 offset, quint64 size, const QString &message, const QString &path);
    void checkBox(const BoxHeader &box);
    void checkPayload(int result, quint64 start, quint64 size, quint64 payloadSize);
    void checkWorkBudget(quint64 start, quint64 size);
    void checkTrack(int stream, quint64 start, quint64 size);
    // The checks of the tables and headers of every track, and of the file's top level.
    void checkTracks();
    // Notes where a box lies, for the movie or the track of the innermost trak being walked.
    void noteBox(NotedBox kind, quint64 payload, quint64 size);
    // The trak boxes being walked, one inside the other.
    int openTrakBoxes = 0;
    // What the walk notes of each stream's track, by stream index.
    std::vector<TrackContext> trackContexts;
    TableBox fileType; // the first ftyp or styp of the top level
    TableBox movieHeader;
    std::vector<TableBox> mediaDataBoxes; // the payloads of mdat
    // What deep analysis gathers while the boxes are walked; null without deep analysis.
    std::unique_ptr<DeepAnalysis> deep;

    // Guards against hostile nesting: the depth of the box being walked, and the bytes
    // walked so far against a budget in proportion to the input.
    int depth = 0;
    quint64 workDone = 0;
    bool walkStopped = false;

    // Fields. Every plain field goes through these; only bit fields and raw fields call
    // the base directly.
    void reportField(quint64 at, quint64 size, const QString &name, const QString &value,
                     const QString &comment = QString())
    {
        addField(false, at, 0, size, name, value, QString(), comment, -1);
    }
    void reportField(quint64 at, quint64 size, const char *name, const QString &value,
                     const QString &comment = QString())
    {
        reportField(at, size, QString::fromLatin1(name), value, comment);
    }
    // A field of a list of like fields, at its place in the list.
    void reportListField(quint64 at, quint64 size, const QString &name, const QString &value,
                         qint64 index)
    {
        addField(false, at, 0, size, name, value, QString(), QString(), index);
    }
    // Bytes shown only by their position.
    void reportPayload(quint64 at, quint64 size, const char *name, Payload payload = Payload::Data)
    {
        addPayloadField(at, size, QString::fromLatin1(name), payload);
    }

    // The current track: the stream of the innermost trak being walked (samples/).
    using TableList = QVector<QIODevice *> ContainerMP4::*;
    // The five table lists, one entry per stream each, for what is done to all alike.
    static constexpr std::array<TableList, 5> TableLists = {
        &ContainerMP4::chunkOffsetTables, &ContainerMP4::sampleToChunkTables,
        &ContainerMP4::sampleSizeTables, &ContainerMP4::timeToSampleTables,
        &ContainerMP4::syncSampleTables};
    // Opens the stream of a box that holds one before its children are walked, and returns
    // its index.
    int beginTrack();
    // Makes the stream's samples wanted when the track turned out to be a video track.
    void endTrack(int stream);
    // The record of the current track's stream, or null outside every track.
    StreamInfo *currentStream() const { return streams.isEmpty() ? nullptr : streams.last(); }
    // The buffer the current track records a table into, or null when nothing is recorded.
    // With an entry width, room is made for the records of the entries (of that width in
    // the file) that a box of boxSize bytes can hold, each recordWidth bytes in the buffer.
    QIODevice *recordingDevice(TableList list, quint64 entries = 0, int entryWidth = 0,
                               quint64 boxSize = 0, int recordWidth = 0);
    // Reads the 4-byte word at position of a table's payload and reports it as the field
    // name; false, with nothing reported, when the payload or the input ends before it.
    bool reportTableWord(TableReader &reader, quint64 offset, quint64 position, const char *name,
                         quint32 *word);
    // Chunk offsets of stco (4-byte entries) and co64 (8-byte entries).
    int parseChunkOffsets(quint64 offset, quint64 size, quint64 width);
    // Walks the samples of one stream; spends the sample budget shared by all streams.
    void walkStream(int stream, quint64 &samplesLeft);
    // Per stream: whether an stss was recorded for it. Without one, every sample is a key frame.
    QVector<bool> syncTableSeen;
    // Time-to-sample words recorded for all tracks together, held to one per input byte.
    quint64 timeToSampleWords = 0;
};

extern "C" {
SARVELINTH_MP4_EXPORT ContainerAbstract *createParser();
SARVELINTH_MP4_EXPORT QString containerName();
SARVELINTH_MP4_EXPORT QStringList supportedExtensions();
// The other suffixes of the family, which deep analysis takes.
SARVELINTH_MP4_EXPORT QStringList deepExtensions();
}

#pragma once

#include "ReportSink.h"
#include "Spool.h"

#include <QByteArray>
#include <QHash>
#include <QString>

#include <memory>
#include <optional>
#include <vector>

class SourceBytes;

// The report of one file, kept in temporary files in a form that is read back in pieces:
// fixed-size records of elements (by id), of each element's children and child elements
// (each list in one stretch), of samples and of summaries of samples for charts. Texts are
// kept as references: the names and comments a parser repeats are held once, short texts
// inside the reference, longer ones in a file of texts.
//
// Memory holds the open elements, one write buffer per file, the table of repeated texts
// (bounded) and the summaries of 4096 samples and more, so it does not grow with the report.
class FileIndex : public ReportSink {
public:
    // Samples summed up per chart item: an item of level L holds 64^L samples.
    static constexpr int SummaryShift = 6;
    // At most this many distinct field names of one element are kept for the filter.
    static constexpr size_t MaxFieldNames = 32;
    // Element 0 stands for the file: its children are the top-level elements.
    static constexpr quint64 FileElement = 0;

    struct Element {
        quint64 offset = 0;
        quint64 size = 0;
        qint64 index = -1;
        quint64 name = 0; // text references
        quint64 note = 0;
        quint64 value = 0;
        quint64 parent = 0;
        quint64 childStart = 0; // of its children, in the child file of its depth
        quint64 childCount = 0;
        quint64 kidStart = 0; // of its child elements' ids, in the kid file of its depth
        quint64 kidCount = 0;
        quint64 position = 0; // among the child elements of its parent
        quint32 depth = 0;    // 0 for the file, 1 for top-level elements
        quint8 state = 0;     // 0 when read, else the ElementState + 1
        quint8 unused[3] = {};
    };
    enum ChildKind : quint8 { FieldChild, RawChild, ElementChild };
    struct Child {
        quint64 offset = 0; // of an element child: the element's id
        quint64 size = 0;
        qint64 index = -1;
        quint64 name = 0; // text references; a raw field's value holds its bytes in hex
        quint64 value = 0;
        quint64 extra = 0;
        quint64 comment = 0;
        quint8 kind = FieldChild;
        quint8 bitField = 0;
        quint8 bitOffset = 0;
        quint8 payload = 0; // 0 for a field with a value, else the Payload + 1
        quint32 unused = 0;
    };
    enum SampleFlag : quint32 {
        KeyFrame = 1,
        Deep = 2,         // a sample of deep analysis, with times and origin
        Presented = 4,    // has a presentation time
        FromFragment = 8, // origin holds moof, moofOffset, traf, trun, trunEntry; else chunk,
                          // stscEntry, sttsEntry, cttsEntry
    };
    // A sample; those of the basic report are kept as the first 40 bytes only.
    struct SampleRecord {
        quint64 offset = 0;
        quint64 size = 0;
        qint64 dts = 0;
        qint64 pts = 0;
        quint32 duration = 0;
        quint32 flags = 0;
        qint64 presentationTime = 0;
        qint64 origin[5] = {};
        quint64 units = 0; // the text of the JSON array of its units (--units); 0 without
    };
    // The sizes of a run of samples, split into key frames and others; minima of none are
    // ~0.
    struct Summary {
        qint64 firstDts = 0;
        quint64 frameMin = ~quint64(0);
        quint64 frameMax = 0;
        quint64 keyMin = ~quint64(0);
        quint64 keyMax = 0;
        quint64 keys = 0;
        void add(const Summary &other);
    };
    struct Stream {
        int index = 0;
        StreamInfo info;
        bool deep = false;
        quint64 first = 0;      // the position of its first record in the sample file
        quint64 recordSize = 0; // set by its first sample
        quint64 count = 0;
        quint64 keys = 0;
        quint64 totalSize = 0;
        quint64 maxSize = 0;
        // The chart's axis: decode time when it never falls, else the sample number.
        bool byTime = false;
        bool ordered = true;
        qint64 xMin = 0;
        qint64 xMax = 0;
        quint64 summaryStart = 0;                      // its first level-1 item in the summary file
        std::vector<std::vector<Summary>> upper;       // levels 2 and up
        std::vector<std::pair<Summary, quint32>> open; // the item being summed per level
        qint64 lastDts = 0;
        quint32 lastDuration = 0;
    };
    // One column of a chart: its samples, and their sizes.
    struct Column {
        quint64 first = 0;
        quint64 count = 0;
        Summary sizes;
    };
    struct SearchResult {
        quint64 count = 0;
        std::vector<quint64> matches; // the first ones in file order
    };

    FileIndex(const QString &fileName, const QString &container);
    ~FileIndex() override;

    const QString &fileName() const { return name; }
    // Where the file's bytes are read: the file under its name unless set otherwise.
    SourceBytes &bytes() const { return *source; }
    void setSource(std::shared_ptr<SourceBytes> bytes) { source = std::move(bytes); }
    const QString &container() const { return containerName; }
    quint64 fileSize() const { return size; }
    // Why the index cannot be used; empty when it can.
    QString problem() const;
    quint64 elementCount() const { return nextId; }
    const std::vector<Stream> &streams() const { return streamList; }
    // What checks found, when the report was checked: the problems (as many as the checks
    // keep) and where the bytes of the file went.
    const std::vector<Problem> &problems() const { return problemList; }
    const std::optional<Coverage> &coverage() const { return coverageValue; }
    // The items of a file of images, in deep mode; as many as its item boxes hold.
    const std::vector<Item> &items() const { return itemList; }

    // The escaped JSON text of a reference.
    QByteArray text(quint64 reference) const;
    bool element(quint64 id, Element *record) const;
    // Up to count records from `from` on; false when they cannot be read.
    bool children(const Element &parent, quint64 from, quint64 count,
                  std::vector<Child> *records) const;
    bool kids(const Element &parent, quint64 from, quint64 count, std::vector<quint64> *ids) const;
    bool samples(const Stream &stream, quint64 from, quint64 count,
                 std::vector<SampleRecord> *records) const;
    // The first sample whose place on the chart's axis is x or later.
    quint64 locate(const Stream &stream, qint64 x) const;
    // Samples from x0 to x1 on the chart's axis in `columns` columns.
    bool chart(const Stream &stream, qint64 x0, qint64 x1, quint32 columns,
               std::vector<Column> *result) const;
    // The elements whose name, or the name of one of whose fields, holds the query (any
    // case): how many, and the first `limit`.
    SearchResult search(const QString &query, size_t limit) const;
    // The ids from the top down to the deepest element that holds the bytes from offset
    // to end.
    std::vector<quint64> pathTo(quint64 offset, quint64 end) const;

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
    void addProblem(const Problem &problem) override { problemList.push_back(problem); }
    void setCoverage(const Coverage &coverage) override { coverageValue = coverage; }
    void addItem(const Item &item) override { itemList.push_back(item); }

private:
    // A child as the child files hold it, in 32 bytes; one whose size, index or texts do not
    // fit is kept whole in the file of large children, at the position its offset holds.
    struct PackedChild {
        quint64 offset = 0;
        quint64 value = 0;
        quint32 size = 0;
        qint32 index = -1;
        quint16 name = 0; // the number of an interned text + 1; 0 for none
        quint16 comment = 0;
        quint8 kind = FieldChild;
        quint8 bitOffset = 0;
        quint8 flags = 0; // BitFieldFlag, LargeFlag, and the payload shifted by PayloadShift
        quint8 unused = 0;
    };
    static constexpr quint8 BitFieldFlag = 1;
    static constexpr quint8 LargeFlag = 2;
    static constexpr int PayloadShift = 2;

    struct OpenElement {
        quint64 id = 0;
        Element record;
        std::vector<quint64> fieldNames;
    };

    Spool &spoolAt(std::vector<std::unique_ptr<Spool>> &spools, size_t depth);
    quint64 intern(const QString &text);
    quint64 store(QStringView text);
    quint64 storeEscaped(const char *bytes, size_t length);
    void addChild(const Child &child);
    // Keeps a field name of the innermost open element for the filter.
    void noteFieldName(quint64 reference);
    void writeElement(quint64 id, const Element &record);
    void flushElements();
    void addRecord(const SampleRecord &record, bool deep);
    void summarize(const Summary &sample);
    bool readSummaries(const Stream &stream, int level, quint64 from, quint64 count,
                       std::vector<Summary> *items) const;
    qint64 dtsOf(const Stream &stream, quint64 i) const;
    bool textMatches(quint64 reference, const QString &query,
                     std::vector<qint8> *internedMatches) const;

    QString name;
    std::shared_ptr<SourceBytes> source;
    QString containerName;
    quint64 size = 0;
    QString openProblem;

    // Texts: the repeated ones by number, the long ones in a file.
    QHash<QString, quint32> internIds;
    std::vector<QByteArray> interned;
    Spool texts;
    std::string scratch;
    QByteArray unitsText; // of the sample being added

    Spool elementFile;
    std::vector<Element> window; // element records from windowBase on, not yet written
    quint64 windowBase = 0;
    quint64 windowUsed = 0;
    std::vector<std::unique_ptr<Spool>> childFiles; // by the depth of the parent
    std::vector<std::unique_ptr<Spool>> kidFiles;
    Spool largeChildren;
    Spool searchFile; // per element: id, name, count, field names
    std::vector<OpenElement> open;
    quint64 nextId = 1;

    Spool sampleFile;
    Spool summaryFile; // level-1 items of every stream
    std::vector<Stream> streamList;
    bool inStream = false;

    std::vector<Problem> problemList;
    std::optional<Coverage> coverageValue;
    std::vector<Item> itemList;
};

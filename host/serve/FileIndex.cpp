#include "FileIndex.h"

#include "Bounds.h"
#include "JsonText.h"
#include "SourceBytes.h"
#include "CodecJson.h"

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <functional>
#include <limits>
#include <queue>

namespace {
// Repeated texts held in memory at most; further ones go to the file of texts.
// Their numbers fit in the 16 bits of a packed child.
constexpr size_t MaxInterned = 0xFFFF;
// Element records held back before they are written, so that most are written in blocks.
constexpr quint64 WindowSize = 4096;
// Records read at a time when a range is walked.
constexpr quint64 ReadBlock = 1024;

constexpr quint64 InternedBit = quint64(1) << 63;
constexpr quint64 InlineBit = quint64(1) << 62;
constexpr size_t MaxInline = 7;

static_assert(sizeof(FileIndex::Element) == 104, "element records are written as they are");
static_assert(sizeof(FileIndex::Child) == 64, "child records are written as they are");
static_assert(sizeof(FileIndex::SampleRecord) == 96, "sample records are written as they are");
constexpr quint64 BasicSampleSize = offsetof(FileIndex::SampleRecord, presentationTime);
static_assert(sizeof(FileIndex::Summary) == 48, "summaries are written as they are");

quint64 levelSize(int level)
{
    return quint64(1) << (FileIndex::SummaryShift * level);
}

FileIndex::Summary summaryOf(const FileIndex::SampleRecord &record)
{
    FileIndex::Summary summary;
    summary.firstDts = record.dts;
    if (record.flags & FileIndex::KeyFrame) {
        summary.keyMin = summary.keyMax = record.size;
        summary.keys = 1;
    } else {
        summary.frameMin = summary.frameMax = record.size;
    }
    return summary;
}
} // namespace

void FileIndex::Summary::add(const Summary &other)
{
    frameMin = std::min(frameMin, other.frameMin);
    frameMax = std::max(frameMax, other.frameMax);
    keyMin = std::min(keyMin, other.keyMin);
    keyMax = std::max(keyMax, other.keyMax);
    keys += other.keys;
}

FileIndex::FileIndex(const QString &fileName, const QString &container)
    : name(fileName)
    , source(std::make_shared<SourceBytes>(fileName))
    , containerName(container)
    , elementFile(0)
{
    for (Spool *spool :
         {&texts, &largeChildren, &searchFile, &sampleFile, &summaryFile, &elementFile}) {
        if (!spool->open() && openProblem.isEmpty())
            openProblem = spool->error();
    }
}

FileIndex::~FileIndex() = default;

QString FileIndex::problem() const
{
    if (!openProblem.isEmpty())
        return openProblem;
    for (const Spool *spool :
         {&texts, &largeChildren, &searchFile, &sampleFile, &summaryFile, &elementFile}) {
        if (!spool->error().isEmpty())
            return spool->error();
    }
    for (const auto *files : {&childFiles, &kidFiles}) {
        for (const auto &spool : *files) {
            if (!spool->error().isEmpty())
                return spool->error();
        }
    }
    return QString();
}

Spool &FileIndex::spoolAt(std::vector<std::unique_ptr<Spool>> &spools, size_t depth)
{
    while (spools.size() <= depth) {
        spools.push_back(std::make_unique<Spool>());
        if (!spools.back()->open() && openProblem.isEmpty())
            openProblem = spools.back()->error();
    }
    return *spools[depth];
}

// ---- Texts -------------------------------------------------------------------------------

quint64 FileIndex::intern(const QString &text)
{
    if (text.isEmpty())
        return 0;
    const auto found = internIds.constFind(text);
    if (found != internIds.constEnd())
        return InternedBit | found.value();
    if (interned.size() >= MaxInterned)
        return store(text);
    QByteArray escaped;
    json::appendEscaped(escaped, text);
    const quint32 id = quint32(interned.size());
    interned.push_back(escaped);
    internIds.insert(text, id);
    return InternedBit | id;
}

quint64 FileIndex::store(QStringView text)
{
    if (text.isEmpty())
        return 0;
    const size_t room = size_t(text.size()) * json::MaxEscapedUnitBytes;
    if (scratch.size() < room)
        scratch.resize(room);
    const char *end = json::escape(scratch.data(), text);
    return storeEscaped(scratch.data(), size_t(end - scratch.data()));
}

quint64 FileIndex::storeEscaped(const char *bytes, size_t length)
{
    if (length == 0)
        return 0;
    if (length <= MaxInline) {
        quint64 reference = InlineBit | (quint64(length) << 56);
        for (size_t i = 0; i < length; ++i)
            reference |= quint64(quint8(bytes[i])) << (8 * i);
        return reference;
    }
    // A long text: its length as a base-128 number, then its bytes.
    const quint64 position = texts.size();
    quint8 head[10];
    size_t used = 0;
    quint64 left = length;
    do {
        head[used++] = quint8((left & 0x7F) | (left > 0x7F ? 0x80 : 0));
        left >>= 7;
    } while (left != 0);
    texts.append(head, used);
    texts.append(bytes, length);
    return position + 1;
}

QByteArray FileIndex::text(quint64 reference) const
{
    if (reference == 0)
        return QByteArray();
    if (reference & InternedBit) {
        const quint64 id = reference & ~InternedBit;
        return id < interned.size() ? interned[id] : QByteArray();
    }
    if (reference & InlineBit) {
        QByteArray bytes;
        const size_t length = size_t((reference >> 56) & 7);
        for (size_t i = 0; i < length; ++i)
            bytes += char((reference >> (8 * i)) & 0xFF);
        return bytes;
    }
    const quint64 position = reference - 1;
    quint8 head[10] = {};
    const quint64 headSize =
        std::min<quint64>(sizeof head, texts.size() - std::min(texts.size(), position));
    if (!texts.read(position, head, size_t(headSize)))
        return QByteArray();
    quint64 length = 0;
    size_t used = 0;
    for (int shift = 0; used < headSize; shift += 7) {
        const quint8 byte = head[used++];
        length |= quint64(byte & 0x7F) << shift;
        if (!(byte & 0x80))
            break;
    }
    const quint64 start = position + used;
    if (start > texts.size() || length > texts.size() - start)
        return QByteArray();
    QByteArray bytes(qsizetype(length), Qt::Uninitialized);
    if (!texts.read(start, bytes.data(), size_t(length)))
        return QByteArray();
    return bytes;
}

// ---- Building ------------------------------------------------------------------------------

void FileIndex::beginReport(const QString &fileName, quint64 fileSize)
{
    name = fileName;
    size = fileSize;
    open.clear();
    OpenElement file;
    file.id = FileElement;
    open.push_back(file);
}

void FileIndex::endReport()
{
    if (inStream)
        endStream();
    while (open.size() > 1)
        endElement();
    if (!open.empty()) {
        Element &file = open.front().record;
        file.size = size;
        writeElement(FileElement, file);
        open.clear();
    }
    flushElements();
    window = std::vector<Element>();
}

namespace {
// The number + 1 of an interned text that a packed child holds, or 0 for none.
bool packable(quint64 reference, quint16 *number)
{
    if (reference == 0) {
        *number = 0;
        return true;
    }
    if (!(reference & InternedBit) || (reference & ~InternedBit) >= MaxInterned)
        return false;
    *number = quint16((reference & ~InternedBit) + 1);
    return true;
}

quint64 unpacked(quint16 number)
{
    return number == 0 ? 0 : InternedBit | (number - 1);
}
} // namespace

void FileIndex::addChild(const Child &child)
{
    Element &parent = open.back().record;
    PackedChild packed;
    if (child.size <= std::numeric_limits<quint32>::max() &&
        child.index >= std::numeric_limits<qint32>::min() &&
        child.index <= std::numeric_limits<qint32>::max() && child.extra == 0 &&
        packable(child.name, &packed.name) && packable(child.comment, &packed.comment)) {
        packed.offset = child.offset;
        packed.value = child.value;
        packed.size = quint32(child.size);
        packed.index = qint32(child.index);
        packed.kind = child.kind;
        packed.bitOffset = child.bitOffset;
        packed.flags =
            quint8((child.bitField ? BitFieldFlag : 0) | (child.payload << PayloadShift));
    } else {
        packed.offset = largeChildren.size();
        packed.flags = LargeFlag;
        largeChildren.append(&child, sizeof child);
    }
    spoolAt(childFiles, parent.depth).append(&packed, sizeof packed);
    ++parent.childCount;
}

void FileIndex::beginElement(quint64 offset, quint64 size, const QString &name, qint64 index)
{
    if (open.empty())
        return;
    const quint64 id = nextId++;
    Child child;
    child.kind = ElementChild;
    child.offset = id;
    addChild(child);
    Element &parent = open.back().record;
    spoolAt(kidFiles, parent.depth).append(&id, sizeof id);
    const quint64 position = parent.kidCount++;

    OpenElement element;
    element.id = id;
    Element &record = element.record;
    record.offset = offset;
    record.size = size;
    record.index = index;
    record.name = intern(name);
    record.parent = open.back().id;
    record.position = position;
    record.depth = parent.depth + 1;
    record.childStart = spoolAt(childFiles, record.depth).size();
    record.kidStart = spoolAt(kidFiles, record.depth).size();
    open.push_back(std::move(element));
}

void FileIndex::setElementOffset(quint64 offset)
{
    if (open.size() > 1)
        open.back().record.offset = offset;
}

void FileIndex::setElementSize(quint64 size)
{
    if (open.size() > 1)
        open.back().record.size = size;
}

void FileIndex::setElementNote(const QString &text)
{
    if (open.size() > 1)
        open.back().record.note = store(text);
}

void FileIndex::setElementValue(const QString &text)
{
    if (open.size() > 1)
        open.back().record.value = store(text);
}

void FileIndex::setElementState(ElementState state)
{
    if (open.size() > 1)
        open.back().record.state = quint8(int(state) + 1);
}

void FileIndex::endElement()
{
    if (open.size() <= 1)
        return;
    const OpenElement &element = open.back();
    writeElement(element.id, element.record);
    const quint64 head[3] = {element.id, element.record.name, element.fieldNames.size()};
    searchFile.append(head, sizeof head);
    searchFile.append(element.fieldNames.data(), element.fieldNames.size() * sizeof(quint64));
    open.pop_back();
}

// Elements end in another order than they begin: those that end soon after they begin go
// into the window and are written with it; the few that stay open long are written alone.
void FileIndex::writeElement(quint64 id, const Element &record)
{
    if (id < windowBase) {
        elementFile.writeAt(id * sizeof record, &record, sizeof record);
        return;
    }
    if (id >= windowBase + window.size()) {
        flushElements();
        windowBase = id - id % WindowSize;
    }
    if (window.empty())
        window.resize(WindowSize);
    window[id - windowBase] = record;
    windowUsed = std::max(windowUsed, id - windowBase + 1);
}

void FileIndex::flushElements()
{
    if (windowUsed > 0)
        elementFile.writeAt(windowBase * sizeof(Element), window.data(),
                            size_t(windowUsed) * sizeof(Element));
    windowUsed = 0;
}

void FileIndex::noteFieldName(quint64 reference)
{
    std::vector<quint64> &names = open.back().fieldNames;
    if (reference == 0 || names.size() >= MaxFieldNames ||
        (!names.empty() && names.back() == reference))
        return;
    if (std::find(names.begin(), names.end(), reference) == names.end())
        names.push_back(reference);
}

void FileIndex::addField(bool bitField, quint64 offset, quint8 bitOffset, quint64 size,
                         const QString &name, const QString &value, const QString &extra,
                         const QString &comment, qint64 index)
{
    if (open.empty())
        return;
    Child child;
    child.offset = offset;
    child.size = size;
    child.index = index;
    child.name = intern(name);
    child.value = store(value);
    child.extra = store(extra);
    child.comment = intern(comment);
    child.bitField = bitField ? 1 : 0;
    child.bitOffset = bitOffset;
    noteFieldName(child.name);
    addChild(child);
}

void FileIndex::addPayloadField(quint64 offset, quint64 size, const QString &name, Payload payload)
{
    if (open.empty())
        return;
    Child child;
    child.offset = offset;
    child.size = size;
    child.name = intern(name);
    child.payload = quint8(int(payload) + 1);
    noteFieldName(child.name);
    addChild(child);
}

void FileIndex::addRawField(quint64 offset, quint64 size, const quint8 *data, const QString &name,
                            const QString &comment)
{
    if (open.empty())
        return;
    Child child;
    child.kind = RawChild;
    child.offset = offset;
    child.size = size;
    child.name = intern(name);
    child.comment = intern(comment);
    if (data && size > 0) {
        static const char hex[] = "0123456789abcdef";
        scratch.resize(std::max<size_t>(scratch.size(), size_t(size) * 2));
        for (quint64 i = 0; i < size; ++i) {
            scratch[2 * i] = hex[data[i] >> 4];
            scratch[2 * i + 1] = hex[data[i] & 15];
        }
        child.value = storeEscaped(scratch.data(), size_t(size) * 2);
    }
    noteFieldName(child.name);
    addChild(child);
}

void FileIndex::beginStream(int index, const StreamInfo &info)
{
    if (inStream)
        endStream();
    Stream stream;
    stream.index = index;
    stream.info = info;
    stream.deep = info.track.has_value();
    stream.first = sampleFile.size();
    stream.summaryStart = summaryFile.size() / sizeof(Summary);
    streamList.push_back(std::move(stream));
    inStream = true;
}

// A sample's index is its place in the stream, which the index keeps.
void FileIndex::addSample(quint64, const Sample &sample)
{
    SampleRecord record;
    record.offset = sample.offset;
    record.size = sample.size;
    record.dts = sample.dts;
    record.pts = sample.pts;
    record.duration = sample.duration;
    record.flags = sample.keyFrame ? quint32(KeyFrame) : 0u;
    addRecord(record, false);
}

void FileIndex::addTrackSample(quint64, const TrackSample &sample)
{
    SampleRecord record;
    record.offset = sample.offset;
    record.size = sample.size;
    record.dts = sample.dts;
    record.pts = sample.pts;
    record.duration = sample.duration;
    record.flags = Deep | (sample.keyFrame ? quint32(KeyFrame) : 0u);
    if (sample.presentationTime) {
        record.flags |= Presented;
        record.presentationTime = *sample.presentationTime;
    }
    if (const std::optional<FragmentOrigin> &origin = sample.fragment) {
        record.flags |= FromFragment;
        record.origin[0] = qint64(origin->moof);
        record.origin[1] = qint64(origin->moofOffset);
        record.origin[2] = qint64(origin->traf);
        record.origin[3] = qint64(origin->trun);
        record.origin[4] = qint64(origin->trunEntry);
    } else {
        record.origin[0] = qint64(sample.chunk);
        record.origin[1] = sample.sampleToChunkEntry;
        record.origin[2] = sample.timeToSampleEntry;
        record.origin[3] = sample.compositionEntry;
    }
    if (sample.units) {
        unitsText.clear();
        ByteArrayOut out{unitsText};
        writeUnitsJson(out, *sample.units);
        record.units = storeEscaped(unitsText.constData(), size_t(unitsText.size()));
    }
    addRecord(record, true);
}

void FileIndex::addRecord(const SampleRecord &record, bool deep)
{
    if (!inStream)
        return;
    Stream &stream = streamList.back();
    // The first sample decides how large the stream's records are.
    if (stream.count == 0)
        stream.recordSize = deep ? sizeof record : BasicSampleSize;
    sampleFile.append(&record, size_t(stream.recordSize));
    if (stream.count == 0)
        stream.xMin = record.dts;
    else if (record.dts < stream.lastDts)
        stream.ordered = false;
    ++stream.count;
    stream.keys += (record.flags & KeyFrame) ? 1 : 0;
    stream.totalSize += record.size;
    stream.maxSize = std::max(stream.maxSize, record.size);
    stream.lastDts = record.dts;
    stream.lastDuration = record.duration;
    summarize(summaryOf(record));
}

// Adds a sample to the item being summed at each level; an item that is full goes to its
// level and into the item of the level above.
void FileIndex::summarize(const Summary &sample)
{
    Stream &stream = streamList.back();
    Summary item = sample;
    for (size_t level = 0;; ++level) {
        if (stream.open.size() == level)
            stream.open.emplace_back();
        auto &[sum, count] = stream.open[level];
        if (count == 0)
            sum = item;
        else
            sum.add(item);
        if (++count < levelSize(1))
            return;
        item = sum;
        count = 0;
        if (level == 0) {
            summaryFile.append(&item, sizeof item);
        } else {
            if (stream.upper.size() < level)
                stream.upper.resize(level);
            stream.upper[level - 1].push_back(item);
        }
    }
}

void FileIndex::endStream()
{
    if (!inStream)
        return;
    Stream &stream = streamList.back();
    qint64 end = 0;
    if (__builtin_add_overflow(stream.lastDts, qint64(stream.lastDuration), &end))
        end = stream.lastDts;
    stream.byTime = stream.ordered && stream.count > 0 && end > stream.xMin;
    if (stream.byTime) {
        stream.xMax = end;
    } else {
        stream.xMin = 0;
        stream.xMax = qint64(std::max<quint64>(stream.count, 1));
    }
    stream.open = {};
    inStream = false;
}

// ---- Reading -------------------------------------------------------------------------------

bool FileIndex::element(quint64 id, Element *record) const
{
    return id < nextId && elementFile.readRecord(id * sizeof(Element), record);
}

bool FileIndex::children(const Element &parent, quint64 from, quint64 count,
                         std::vector<Child> *records) const
{
    records->clear();
    if (from >= parent.childCount)
        return true;
    count = std::min(count, parent.childCount - from);
    if (parent.depth >= childFiles.size())
        return false;
    std::vector<PackedChild> packed{size_t(count)};
    if (!childFiles[parent.depth]->read(parent.childStart + from * sizeof(PackedChild),
                                        packed.data(), size_t(count) * sizeof(PackedChild)))
        return false;
    records->resize(size_t(count));
    for (size_t i = 0; i < packed.size(); ++i) {
        const PackedChild &kept = packed[i];
        Child &child = (*records)[i];
        if (kept.flags & LargeFlag) {
            if (!largeChildren.readRecord(kept.offset, &child))
                return false;
            continue;
        }
        child.offset = kept.offset;
        child.value = kept.value;
        child.size = kept.size;
        child.index = kept.index;
        child.name = unpacked(kept.name);
        child.comment = unpacked(kept.comment);
        child.kind = kept.kind;
        child.bitOffset = kept.bitOffset;
        child.bitField = (kept.flags & BitFieldFlag) ? 1 : 0;
        child.payload = quint8(kept.flags >> PayloadShift);
    }
    return true;
}

bool FileIndex::kids(const Element &parent, quint64 from, quint64 count,
                     std::vector<quint64> *ids) const
{
    ids->clear();
    if (from >= parent.kidCount)
        return true;
    count = std::min(count, parent.kidCount - from);
    if (parent.depth >= kidFiles.size())
        return false;
    ids->resize(size_t(count));
    return kidFiles[parent.depth]->read(parent.kidStart + from * sizeof(quint64), ids->data(),
                                        size_t(count) * sizeof(quint64));
}

bool FileIndex::samples(const Stream &stream, quint64 from, quint64 count,
                        std::vector<SampleRecord> *records) const
{
    records->clear();
    if (from >= stream.count)
        return true;
    count = std::min(count, stream.count - from);
    const size_t size = size_t(stream.recordSize);
    std::vector<char> bytes(size_t(count) * size);
    if (!sampleFile.read(stream.first + from * size, bytes.data(), bytes.size()))
        return false;
    records->resize(size_t(count));
    for (size_t i = 0; i < records->size(); ++i)
        std::memcpy(&(*records)[i], bytes.data() + i * size, size);
    return true;
}

qint64 FileIndex::dtsOf(const Stream &stream, quint64 i) const
{
    qint64 dts = 0;
    sampleFile.read(stream.first + i * stream.recordSize + offsetof(SampleRecord, dts), &dts,
                    sizeof dts);
    return dts;
}

quint64 FileIndex::locate(const Stream &stream, qint64 x) const
{
    if (!stream.byTime)
        return x <= 0 ? 0 : std::min(quint64(x), stream.count);
    quint64 low = 0;
    quint64 high = stream.count;
    while (low < high) {
        const quint64 middle = low + (high - low) / 2;
        if (dtsOf(stream, middle) < x)
            low = middle + 1;
        else
            high = middle;
    }
    return low;
}

bool FileIndex::readSummaries(const Stream &stream, int level, quint64 from, quint64 count,
                              std::vector<Summary> *items) const
{
    items->clear();
    if (level == 1) {
        if (from + count > (stream.count >> SummaryShift))
            return false;
        items->resize(size_t(count));
        return summaryFile.read((stream.summaryStart + from) * sizeof(Summary), items->data(),
                                size_t(count) * sizeof(Summary));
    }
    if (size_t(level - 2) >= stream.upper.size())
        return false;
    const std::vector<Summary> &all = stream.upper[size_t(level - 2)];
    if (from > all.size() || count > all.size() - from)
        return false;
    items->assign(all.begin() + qsizetype(from), all.begin() + qsizetype(from + count));
    return true;
}

bool FileIndex::chart(const Stream &stream, qint64 x0, qint64 x1, quint32 columns,
                      std::vector<Column> *result) const
{
    result->assign(columns, Column());
    if (columns == 0 || x1 <= x0 || stream.count == 0)
        return true;
    const quint64 begin = locate(stream, x0);
    const quint64 end =
        x1 == std::numeric_limits<qint64>::max() ? stream.count : locate(stream, x1 + 1);
    if (begin >= end)
        return true;
    const double span = double(x1) - double(x0);
    auto visit = [&](const Summary &item, quint64 first, quint64 count) {
        const double x = stream.byTime ? double(item.firstDts) : double(first);
        const double at = (x - double(x0)) / span * columns;
        const quint32 column = at <= 0 ? 0 : at >= columns ? columns - 1 : quint32(at);
        Column &target = (*result)[column];
        if (target.count == 0)
            target.first = first;
        target.count += count;
        target.sizes.add(item);
    };

    // The coarsest level whose items are no wider than a column.
    const quint64 perColumn = (end - begin) / columns;
    int level = 0;
    while (level < int(stream.upper.size()) + 1 && levelSize(level + 1) <= perColumn)
        ++level;

    bool ok = true;
    std::vector<SampleRecord> records;
    std::vector<Summary> items;
    std::function<void(int, quint64, quint64)> cover = [&](int at, quint64 from, quint64 to) {
        if (from >= to || !ok)
            return;
        if (at == 0) {
            for (quint64 i = from; i < to && ok; i += ReadBlock) {
                ok = samples(stream, i, std::min(ReadBlock, to - i), &records);
                for (size_t k = 0; k < records.size(); ++k)
                    visit(summaryOf(records[k]), i + k, 1);
            }
            return;
        }
        const quint64 step = levelSize(at);
        const quint64 whole = (from + step - 1) / step * step;
        const quint64 wholeEnd = to / step * step;
        if (whole >= wholeEnd) {
            cover(at - 1, from, to);
            return;
        }
        cover(at - 1, from, whole);
        for (quint64 k = whole / step; k < wholeEnd / step && ok; k += ReadBlock) {
            ok = readSummaries(stream, at, k, std::min(ReadBlock, wholeEnd / step - k), &items);
            for (size_t j = 0; j < items.size(); ++j)
                visit(items[j], (k + j) * step, step);
        }
        cover(at - 1, wholeEnd, to);
    };
    cover(level, begin, end);
    return ok;
}

bool FileIndex::textMatches(quint64 reference, const QString &query,
                            std::vector<qint8> *internedMatches) const
{
    if (reference == 0)
        return false;
    if (reference & InternedBit) {
        const quint64 id = reference & ~InternedBit;
        if (id >= internedMatches->size())
            return false;
        qint8 &known = (*internedMatches)[size_t(id)];
        if (known < 0)
            known = QString::fromUtf8(interned[size_t(id)]).toLower().contains(query) ? 1 : 0;
        return known == 1;
    }
    return QString::fromUtf8(text(reference)).toLower().contains(query);
}

FileIndex::SearchResult FileIndex::search(const QString &query, size_t limit) const
{
    SearchResult result;
    const QString lowered = query.toLower();
    std::vector<qint8> internedMatches(interned.size(), -1);
    // The first matches in file order are those of the lowest ids.
    std::priority_queue<quint64> first;
    std::vector<quint64> block;
    constexpr quint64 BlockWords = 64 * 1024;
    quint64 position = 0;
    const quint64 total = searchFile.size();
    size_t at = 0;
    // Entries are read a block at a time; one cut by the block's end is read again whole.
    while (position < total) {
        const quint64 words = std::min(BlockWords, (total - position) / sizeof(quint64));
        block.resize(size_t(words));
        if (words == 0 || !searchFile.read(position, block.data(), size_t(words) * 8))
            break;
        at = 0;
        while (at + 3 <= block.size()) {
            const quint64 count = std::min<quint64>(block[at + 2], MaxFieldNames);
            if (at + 3 + count > block.size())
                break;
            bool match = textMatches(block[at + 1], lowered, &internedMatches);
            for (quint64 k = 0; k < count && !match; ++k)
                match = textMatches(block[at + 3 + k], lowered, &internedMatches);
            if (match) {
                ++result.count;
                first.push(block[at]);
                if (first.size() > limit)
                    first.pop();
            }
            at += size_t(3 + count);
        }
        if (at == 0)
            break;
        position += at * sizeof(quint64);
    }
    result.matches.resize(first.size());
    for (size_t i = first.size(); i-- > 0; first.pop())
        result.matches[i] = first.top();
    return result;
}

std::vector<quint64> FileIndex::pathTo(quint64 offset, quint64 end) const
{
    std::vector<quint64> path;
    Element current;
    if (!element(FileElement, &current))
        return path;
    std::vector<quint64> id;
    Element candidate;
    // Children lie in file order, so the one that may hold the bytes is the last that
    // starts at or before them.
    while (current.kidCount > 0) {
        quint64 low = 0;
        quint64 high = current.kidCount;
        while (low < high) {
            const quint64 middle = low + (high - low) / 2;
            if (!kids(current, middle, 1, &id) || id.empty() || !element(id[0], &candidate))
                return path;
            if (candidate.offset <= offset)
                low = middle + 1;
            else
                high = middle;
        }
        if (low == 0 || !kids(current, low - 1, 1, &id) || id.empty() ||
            !element(id[0], &candidate))
            break;
        if (candidate.offset > offset || endOf(candidate.offset, candidate.size) < end)
            break;
        path.push_back(id[0]);
        current = candidate;
    }
    return path;
}

#include "ProblemChecker.h"

#include "Bounds.h"

#include <QStringList>

#include <algorithm>
#include <limits>
#include <queue>

namespace {
// Sorts ranges and merges those that touch or overlap, so that each byte is in one of them.
template <typename Range> std::vector<Range> united(std::vector<Range> ranges)
{
    std::sort(ranges.begin(), ranges.end(),
              [](const Range &a, const Range &b) { return a.begin < b.begin; });
    std::vector<Range> merged;
    for (const Range &range : ranges) {
        if (range.begin >= range.end)
            continue;
        if (!merged.empty() && range.begin <= merged.back().end)
            merged.back().end = std::max(merged.back().end, range.end);
        else
            merged.push_back(range);
    }
    return merged;
}

// The bytes of a that b leaves, both united.
template <typename Range>
std::vector<Range> without(const std::vector<Range> &a, const std::vector<Range> &b)
{
    std::vector<Range> left;
    size_t j = 0;
    for (Range range : a) {
        while (j < b.size() && b[j].end <= range.begin)
            ++j;
        for (size_t k = j; k < b.size() && b[k].begin < range.end; ++k) {
            if (b[k].begin > range.begin)
                left.push_back({range.begin, b[k].begin});
            range.begin = std::max(range.begin, b[k].end);
        }
        if (range.begin < range.end)
            left.push_back(range);
    }
    return left;
}

template <typename Range> quint64 total(const std::vector<Range> &ranges)
{
    quint64 sum = 0;
    for (const Range &range : ranges)
        sum += range.end - range.begin;
    return sum;
}

// A map of a file of this size with no bytes placed yet.
Coverage emptyMap(quint64 fileSize)
{
    Coverage coverage;
    coverage.fileSize = fileSize;
    coverage.cellSize =
        std::max<quint64>(1, fileSize / Coverage::MapCells + (fileSize % Coverage::MapCells != 0));
    coverage.cells.resize(
        size_t(fileSize / coverage.cellSize + (fileSize % coverage.cellSize != 0)));
    return coverage;
}

// Counts bytes from begin to end, inside the file, to a part in the cells they fall in.
void addToMap(Coverage &coverage, quint64 CoverageParts::*part, quint64 begin, quint64 end)
{
    while (begin < end) {
        const quint64 cell = begin / coverage.cellSize;
        const quint64 cellEnd = std::min(end, (cell + 1) * coverage.cellSize);
        coverage.cells[size_t(cell)].*part += cellEnd - begin;
        begin = cellEnd;
    }
}

template <typename Range>
void addToMap(Coverage &coverage, quint64 CoverageParts::*part, const std::vector<Range> &ranges)
{
    for (const Range &range : ranges)
        addToMap(coverage, part, range.begin, range.end);
}

QString plural(quint64 count, const char *one, const char *many)
{
    return QStringLiteral("%1 %2").arg(count).arg(QLatin1String(count == 1 ? one : many));
}
} // namespace

ProblemChecker::ProblemChecker(ReportSink &next)
    : next(next)
{
}

void ProblemChecker::beginReport(const QString &fileName, quint64 size)
{
    fileSize = size;
    next.beginReport(fileName, size);
}

ProblemChecker::Range ProblemChecker::insideParent(quint64 offset, quint64 size) const
{
    const Range range{offset, endOf(offset, size)};
    if (openElements.empty())
        return range;
    const Range &parent = openElements.back();
    if (offset < parent.begin || offset >= parent.end)
        return {parent.begin, parent.begin};
    return {offset, std::min(range.end, parent.end)};
}

void ProblemChecker::beginElement(quint64 offset, quint64 size, const QString &name, qint64 index)
{
    openElements.push_back(insideParent(offset, size));
    next.beginElement(offset, size, name, index);
}

void ProblemChecker::setElementOffset(quint64 offset)
{
    if (!openElements.empty()) {
        const quint64 size = openElements.back().end - openElements.back().begin;
        openElements.back() = {offset, endOf(offset, size)};
    }
    next.setElementOffset(offset);
}

void ProblemChecker::setElementSize(quint64 size)
{
    if (!openElements.empty())
        openElements.back().end = endOf(openElements.back().begin, size);
    next.setElementSize(size);
}

void ProblemChecker::setElementNote(const QString &text)
{
    next.setElementNote(text);
}

void ProblemChecker::setElementValue(const QString &text)
{
    next.setElementValue(text);
}

void ProblemChecker::setElementState(ElementState state)
{
    if (state == ElementState::UnknownType && !openElements.empty())
        unknown.push_back(openElements.back());
    next.setElementState(state);
}

void ProblemChecker::endElement()
{
    if (!openElements.empty())
        openElements.pop_back();
    next.endElement();
}

void ProblemChecker::addField(bool bitField, quint64 offset, quint8 bitOffset, quint64 size,
                              const QString &name, const QString &value, const QString &extra,
                              const QString &comment, qint64 index)
{
    next.addField(bitField, offset, bitOffset, size, name, value, extra, comment, index);
}

void ProblemChecker::addPayloadField(quint64 offset, quint64 size, const QString &name,
                                     Payload payload)
{
    if (payload == Payload::MediaData)
        mediaData.push_back(insideParent(offset, size));
    else if (payload == Payload::Filler)
        filler.push_back(insideParent(offset, size));
    next.addPayloadField(offset, size, name, payload);
}

void ProblemChecker::addRawField(quint64 offset, quint64 size, const quint8 *data,
                                 const QString &name, const QString &comment)
{
    next.addRawField(offset, size, data, name, comment);
}

void ProblemChecker::setFileFacts(const FileFacts &facts)
{
    next.setFileFacts(facts);
}

void ProblemChecker::beginStream(int index, const StreamInfo &info)
{
    if (sortedMediaData.empty() && !mediaData.empty())
        sortedMediaData = united(mediaData);
    streamIndex = index;
    streamPath = info.boxPath;
    streamPaths.resize(std::max(streamPaths.size(), size_t(index) + 1));
    streamPaths[size_t(index)] = info.boxPath;
    runStarts.push_back(samples.size());
    zeroSize = pastEnd = outsideMediaData = Tally();
    next.beginStream(index, info);
}

void ProblemChecker::addSample(quint64 sampleIndex, const Sample &sample)
{
    checkSample(sampleIndex, sample.offset, sample.size);
    next.addSample(sampleIndex, sample);
}

void ProblemChecker::addTrackSample(quint64 sampleIndex, const TrackSample &sample)
{
    checkSample(sampleIndex, sample.offset, sample.size);
    next.addTrackSample(sampleIndex, sample);
}

void ProblemChecker::checkSample(quint64 sampleIndex, quint64 offset, quint64 size)
{
    const auto tally = [&](Tally &kind) {
        if (kind.count++ == 0)
            kind = {1, sampleIndex, offset, size};
    };
    const quint64 end = endOf(offset, size);
    if (size == 0) {
        tally(zeroSize);
        return;
    }
    if (end > fileSize)
        tally(pastEnd);
    // Media data outside every payload of media data; a file without any keeps its media
    // elsewhere, where its data references say.
    if (!sortedMediaData.empty()) {
        const auto after =
            std::upper_bound(sortedMediaData.begin(), sortedMediaData.end(), offset,
                             [](quint64 at, const Range &range) { return at < range.begin; });
        if (after == sortedMediaData.begin() || std::prev(after)->end < end)
            tally(outsideMediaData);
    }
    if (offset < fileSize) {
        const quint64 inFile = std::min(end, fileSize) - offset;
        if (samples.size() > runStarts.back() && offset < samples.back().offset)
            runsInOrder = false;
        samples.push_back(
            {offset, quint32(std::min<quint64>(inFile, 0xFFFFFFFF)), quint32(streamIndex)});
    }
}

void ProblemChecker::tallyProblem(const Tally &tally, const char *code, Severity severity,
                                  const QString &one, const QString &many)
{
    if (tally.count == 0)
        return;
    addProblem({QString::fromLatin1(code), severity, tally.firstOffset, tally.firstSize, streamPath,
                QStringLiteral("%1 of stream %2 %3; the first is sample %4 at offset %5")
                    .arg(plural(tally.count, "sample", "samples"))
                    .arg(streamIndex)
                    .arg(tally.count == 1 ? one : many)
                    .arg(tally.firstIndex)
                    .arg(tally.firstOffset)});
}

void ProblemChecker::endStream()
{
    tallyProblem(zeroSize, "zero-size-sample", Severity::Warning, QStringLiteral("has no bytes"),
                 QStringLiteral("have no bytes"));
    const QString end = QString::number(fileSize);
    tallyProblem(pastEnd, "sample-past-eof", Severity::Error,
                 QStringLiteral("reaches past the end of the file at ") + end,
                 QStringLiteral("reach past the end of the file at ") + end);
    tallyProblem(outsideMediaData, "sample-outside-mdat", Severity::Error,
                 QStringLiteral("lies outside every media data box"),
                 QStringLiteral("lie outside every media data box"));
    next.endStream();
}

void ProblemChecker::addItem(const Item &item)
{
    if (item.extents) {
        for (const ItemExtent &extent : *item.extents)
            itemData.push_back({extent.offset, endOf(extent.offset, extent.length)});
    }
    next.addItem(item);
}

void ProblemChecker::addProblem(const Problem &problem)
{
    // A box that the walk comes back to, reaching past its parent, shows its problems again.
    if (problems.size() < MaxProblems &&
        !reported.insert({problem.code, int(problem.severity), problem.offset, problem.size})
             .second)
        return;
    switch (problem.severity) {
    case Severity::Error:
        ++problemCounts.errors;
        break;
    case Severity::Warning:
        ++problemCounts.warnings;
        break;
    case Severity::Info:
        ++problemCounts.infos;
        break;
    }
    if (problem.code == QLatin1String("trailing-bytes"))
        trailing.push_back({problem.offset, endOf(problem.offset, problem.size)});
    if (problems.size() < MaxProblems)
        problems.push_back(problem);
    else
        ++leftOut[problem.code];
}

Coverage ProblemChecker::finishSamples()
{
    // The samples of a stream mostly come in the order of their offsets: the streams are then
    // merged as they are, else sorted first.
    const auto byOffset = [](const SampleRange &a, const SampleRange &b) {
        return a.offset < b.offset;
    };
    if (!runsInOrder) {
        std::sort(samples.begin(), samples.end(), byOffset);
        runStarts = {0};
    }

    // Each byte counts once, for the first of these that holds it.
    const std::vector<Range> bytesTrailing = united(trailing);
    const std::vector<Range> bytesUnknown = without(united(unknown), bytesTrailing);
    const std::vector<Range> taken = united([&] {
        std::vector<Range> all = bytesTrailing;
        all.insert(all.end(), bytesUnknown.begin(), bytesUnknown.end());
        return all;
    }());
    const std::vector<Range> bytesFiller = without(united(filler), taken);
    // The bytes of items, wherever they lie, are theirs before they are media data.
    const std::vector<Range> bytesItems =
        without(united(itemData), united([&] {
                    std::vector<Range> all = taken;
                    all.insert(all.end(), bytesFiller.begin(), bytesFiller.end());
                    return all;
                }()));
    const std::vector<Range> bytesMedia =
        without(united(mediaData), united([&] {
                    std::vector<Range> all = taken;
                    all.insert(all.end(), bytesFiller.begin(), bytesFiller.end());
                    all.insert(all.end(), bytesItems.begin(), bytesItems.end());
                    return all;
                }()));
    Coverage coverage = emptyMap(fileSize);
    addToMap(coverage, &CoverageParts::trailing, bytesTrailing);
    addToMap(coverage, &CoverageParts::unknown, bytesUnknown);
    addToMap(coverage, &CoverageParts::filler, bytesFiller);
    addToMap(coverage, &CoverageParts::unreferencedMediaData, bytesMedia);
    addToMap(coverage, &CoverageParts::itemData, bytesItems);

    // The samples in order: their union within the media data, and where one begins before
    // the one before it has ended.
    quint64 sampleBytes = 0;
    quint64 overlaps = 0;
    const SampleRange *firstOverlap = nullptr;
    const SampleRange *overlapped = nullptr;
    const SampleRange *reachest = nullptr; // the sample that reaches furthest so far
    Range merged;
    size_t media = 0;
    const auto countMerged = [&] {
        while (media < bytesMedia.size() && bytesMedia[media].end <= merged.begin)
            ++media;
        for (size_t m = media; m < bytesMedia.size() && bytesMedia[m].begin < merged.end; ++m) {
            const quint64 begin = std::max(merged.begin, bytesMedia[m].begin);
            const quint64 end = std::min(merged.end, bytesMedia[m].end);
            sampleBytes += end - begin;
            addToMap(coverage, &CoverageParts::sampleData, begin, end);
        }
    };
    // Each run's next sample, the one of the least offset on top.
    using Cursor = std::pair<size_t, size_t>; // position, end of its run
    const auto later = [&](const Cursor &a, const Cursor &b) {
        return samples[a.first].offset > samples[b.first].offset;
    };
    std::priority_queue<Cursor, std::vector<Cursor>, decltype(later)> next(later);
    for (size_t run = 0; run < runStarts.size(); ++run) {
        const size_t end = run + 1 < runStarts.size() ? runStarts[run + 1] : samples.size();
        if (runStarts[run] < end)
            next.push({runStarts[run], end});
    }
    while (!next.empty()) {
        Cursor cursor = next.top();
        next.pop();
        const SampleRange &sample = samples[cursor.first];
        if (++cursor.first < cursor.second)
            next.push(cursor);
        const quint64 end = sample.offset + sample.size;
        if (reachest && sample.offset < reachest->offset + reachest->size) {
            if (overlaps++ == 0) {
                firstOverlap = &sample;
                overlapped = reachest;
            }
        }
        if (!reachest || end > reachest->offset + reachest->size)
            reachest = &sample;
        if (merged.end > merged.begin && sample.offset <= merged.end) {
            merged.end = std::max(merged.end, end);
        } else {
            countMerged();
            merged = {sample.offset, end};
        }
    }
    countMerged();
    if (overlaps > 0) {
        addProblem(
            {QStringLiteral("samples-overlap"), Severity::Error, firstOverlap->offset,
             firstOverlap->size, streamPaths[firstOverlap->stream],
             QStringLiteral("%1 with the sample before it; the first, of stream %2 at "
                            "offset %3, shares bytes with a sample of stream %4 at offset %5")
                 .arg(plural(overlaps, "sample shares bytes", "samples share bytes"))
                 .arg(firstOverlap->stream)
                 .arg(firstOverlap->offset)
                 .arg(overlapped->stream)
                 .arg(overlapped->offset)});
    }
    samples.clear();

    // What no other part holds is structure, in the whole file and in each cell.
    for (size_t cell = 0; cell < coverage.cells.size(); ++cell) {
        CoverageParts &parts = coverage.cells[cell];
        parts.unreferencedMediaData -= parts.sampleData;
        const quint64 length =
            std::min(coverage.cellSize, fileSize - quint64(cell) * coverage.cellSize);
        parts.structure = length - parts.trailing - parts.unknown - parts.filler - parts.itemData -
                          parts.sampleData - parts.unreferencedMediaData;
    }
    coverage.trailing = total(bytesTrailing);
    coverage.unknown = total(bytesUnknown);
    coverage.filler = total(bytesFiller);
    coverage.sampleData = sampleBytes;
    coverage.unreferencedMediaData = total(bytesMedia) - sampleBytes;
    coverage.itemData = total(bytesItems);
    coverage.structure = fileSize - coverage.trailing - coverage.unknown - coverage.filler -
                         coverage.itemData - total(bytesMedia);
    return coverage;
}

void ProblemChecker::endReport()
{
    // Ranges reach no further than the file.
    for (std::vector<Range> *ranges : {&mediaData, &filler, &unknown, &trailing, &itemData}) {
        for (Range &range : *ranges) {
            range.begin = std::min(range.begin, fileSize);
            range.end = std::min(range.end, fileSize);
        }
    }
    const Coverage coverage = finishSamples();
    if (!leftOut.empty()) {
        QStringList codes;
        quint64 count = 0;
        for (const auto &[code, number] : leftOut) {
            codes << QStringLiteral("%1 %2").arg(code).arg(number);
            count += number;
        }
        problems.push_back({QStringLiteral("problems-left-out"), Severity::Info, 0, 0, QString(),
                            QStringLiteral("%1 more are left out of this list: %2")
                                .arg(plural(count, "problem", "problems"))
                                .arg(codes.join(QStringLiteral(", ")))});
    }
    for (const Problem &problem : problems)
        next.addProblem(problem);
    next.setCoverage(coverage);
    next.endReport();
}

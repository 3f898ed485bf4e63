#include "ContainerMP4.h"
#include "TableCursor.h"

#include <QStringList>

#include <algorithm>
#include <functional>
#include <optional>

// The problems of a track's tables, read again in place at the end of the walk: counts that
// disagree, sample-to-chunk and sync sample entries that cannot be, durations and edits that
// do not fit the media, chunks out of order and counts the box cannot hold; and of the file's
// top level: no ftyp in front, no moov.

namespace {

// One table as the checks read it: its entry count and a cursor on its entries.
struct Table {
    Table(InputDevice &input, const TableBox &box, quint64 headerBytes, quint64 entrySize)
        : box(box)
        , entries(input, box, headerBytes, entrySize)
    {
        TableCursor header(input, box, 0, headerBytes);
        const unsigned char *words = header.next();
        readable = words != nullptr;
        if (words)
            count = TableCursor::number(words, int(headerBytes) - 4, 4);
        // The entries the box holds behind its header.
        capacity =
            box.size > headerBytes && entrySize > 0 ? (box.size - headerBytes) / entrySize : 0;
    }

    const TableBox &box;
    TableCursor entries;
    quint64 count = 0;
    quint64 capacity = 0;
    bool readable = false; // whether its count lies in the box and the input
};

QString plural(quint64 count, const char *one, const char *many)
{
    return QStringLiteral("%1 %2").arg(count).arg(QLatin1String(count == 1 ? one : many));
}

// What the tables of one track say, and the problems they show.
class TrackTableCheck {
public:
    using Report = std::function<void(const char *code, Severity severity, const TableBox &box,
                                      const QString &message)>;

    TrackTableCheck(InputDevice &input, const TrackContext &track, quint32 movieTimescale,
                    Report report)
        : input(input)
        , track(track)
        , movieTimescale(movieTimescale)
        , report(std::move(report))
    {
    }

    void run()
    {
        if (!track.sampleSizes.present)
            return;
        const quint64 samples = sampleCount();
        largestOffset = largestCompositionOffset();
        checkTimes(samples);
        checkChunks(samples);
        checkSyncSamples(samples);
        checkEdits(samples);
    }

private:
    // The short-payload problem of a table whose count needs more bytes than it holds.
    void checkCapacity(const Table &table, const char *name, const char *entries)
    {
        if (table.count > table.capacity)
            report("short-payload", Severity::Error, table.box,
                   QStringLiteral("%1 lists %2, its %3 bytes hold %4")
                       .arg(QLatin1String(name), plural(table.count, "entry", entries))
                       .arg(table.box.size)
                       .arg(table.capacity));
    }

    quint64 sampleCount()
    {
        // stsz: size and count; stz2: field size and count, the entries of 4 bits two to a byte.
        TableCursor header(input, track.sampleSizes, 0, 8);
        const unsigned char *words = header.next();
        if (!words)
            return 0;
        const quint64 count = TableCursor::number(words, 4, 4);
        const quint64 fieldBits = track.compactSampleSizes ? TableCursor::number(words, 3, 1) : 32;
        const bool constant = !track.compactSampleSizes && TableCursor::number(words, 0, 4) != 0;
        const quint64 bytes = constant ? 0 : (count * fieldBits + 7) / 8;
        if (bytes > track.sampleSizes.size - std::min<quint64>(track.sampleSizes.size, 8))
            report("short-payload", Severity::Error, track.sampleSizes,
                   QStringLiteral("%1 lists %2, which need %3 bytes, but holds %4")
                       .arg(track.compactSampleSizes ? "stz2" : "stsz",
                            plural(count, "sample", "samples"))
                       .arg(bytes)
                       .arg(track.sampleSizes.size - std::min<quint64>(track.sampleSizes.size, 8)));
        return count;
    }

    void checkTimes(quint64 samples)
    {
        Table stts(input, track.timeToSample, 4, 8);
        checkCapacity(stts, "stts", "entries");
        quint64 counted = 0;
        quint64 duration = 0;
        quint64 lastDelta = 0;
        while (const unsigned char *entry = stts.entries.next()) {
            const quint64 count = TableCursor::number(entry, 0, 4);
            lastDelta = TableCursor::number(entry, 4, 4);
            counted += count;
            duration += count * lastDelta;
        }
        mediaDuration = duration;
        lastStep = lastDelta;
        if (track.timeToSample.present && counted != samples)
            report("sample-table-mismatch", Severity::Error, track.sampleSizes,
                   QStringLiteral("%1 lists %2, stts %3")
                       .arg(track.compactSampleSizes ? "stz2" : "stsz",
                            plural(samples, "sample", "samples"))
                       .arg(counted));
        // A writer may count the media's duration up to the end of its composition times.
        const quint64 declared = TrackBoxes::duration(input, track.mediaHeader);
        if (track.mediaHeader.present && track.timeToSample.present && samples > 0 &&
            largestOffset &&
            (declared > duration + lastDelta + *largestOffset || duration > declared + lastDelta))
            report("duration-mismatch", Severity::Warning, track.mediaHeader,
                   QStringLiteral("mdhd gives a duration of %1, the durations of stts add up to %2")
                       .arg(declared)
                       .arg(duration));
    }

    void checkChunks(quint64 samples)
    {
        Table stco(input, track.chunkOffsets, 4, track.chunkOffsetWidth);
        checkCapacity(stco, track.chunkOffsetWidth == 8 ? "co64" : "stco", "entries");
        const quint64 chunks = std::min(stco.count, stco.capacity);
        quint64 previous = 0;
        quint64 unordered = 0;
        while (const unsigned char *entry = stco.entries.next()) {
            const quint64 offset = TableCursor::number(entry, 0, int(track.chunkOffsetWidth));
            unordered += offset < previous ? 1 : 0;
            previous = offset;
        }
        if (unordered > 0)
            report("chunk-offsets-unordered", Severity::Info, track.chunkOffsets,
                   QStringLiteral("%1 before the chunk in front of %2")
                       .arg(plural(unordered, "chunk offset lies", "chunk offsets lie"),
                            QLatin1String(unordered == 1 ? "it" : "them")));

        // Each entry holds from its first chunk up to the next entry's; the last to the end.
        Table stsc(input, track.sampleToChunk, 4, 12);
        checkCapacity(stsc, "stsc", "entries");
        quint64 inChunks = 0;
        quint64 lastFirst = 0;
        quint64 lastPerChunk = 0;
        quint64 index = 0;
        QStringList wrong;
        while (const unsigned char *entry = stsc.entries.next()) {
            const quint64 first = TableCursor::number(entry, 0, 4);
            const quint64 perChunk = TableCursor::number(entry, 4, 4);
            if (first == 0)
                wrong << QStringLiteral("entry %1 begins at chunk 0").arg(index);
            else if (index > 0 && first <= lastFirst)
                wrong << QStringLiteral("entry %1 begins at chunk %2, not behind %3")
                             .arg(index)
                             .arg(first)
                             .arg(lastFirst);
            if (perChunk == 0)
                wrong << QStringLiteral("entry %1 gives its chunks no sample").arg(index);
            if (first > chunks && stco.readable)
                wrong << QStringLiteral("entry %1 begins at chunk %2 of %3")
                             .arg(index)
                             .arg(first)
                             .arg(chunks);
            if (index > 0 && first > lastFirst)
                inChunks +=
                    (std::min(first - 1, chunks) - std::min(lastFirst - 1, chunks)) * lastPerChunk;
            lastFirst = std::max<quint64>(first, 1);
            lastPerChunk = perChunk;
            ++index;
        }
        if (index > 0 && lastFirst <= chunks)
            inChunks += (chunks - (lastFirst - 1)) * lastPerChunk;
        if (!wrong.isEmpty())
            report("stsc-invalid", Severity::Error, track.sampleToChunk,
                   wrong.mid(0, 3).join(QStringLiteral("; ")) +
                       (wrong.size() > 3 ? QStringLiteral("; and %1 more").arg(wrong.size() - 3)
                                         : QString()));
        if (stsc.readable && stco.readable && inChunks != samples)
            report("sample-table-mismatch", Severity::Error, track.sampleToChunk,
                   QStringLiteral("%1 lists %2, the %3 of stsc and %4 hold %5")
                       .arg(track.compactSampleSizes ? "stz2" : "stsz",
                            plural(samples, "sample", "samples"), plural(chunks, "chunk", "chunks"),
                            track.chunkOffsetWidth == 8 ? "co64" : "stco")
                       .arg(inChunks));
    }

    void checkSyncSamples(quint64 samples)
    {
        Table stss(input, track.syncSamples, 4, 4);
        checkCapacity(stss, "stss", "entries");
        QStringList wrong;
        quint64 last = 0;
        quint64 index = 0;
        while (const unsigned char *entry = stss.entries.next()) {
            const quint64 number = TableCursor::number(entry, 0, 4);
            if (number == 0)
                wrong << QStringLiteral("entry %1 is 0").arg(index);
            else if (number > samples)
                wrong << QStringLiteral("entry %1 is sample %2 of %3")
                             .arg(index)
                             .arg(number)
                             .arg(samples);
            else if (number <= last)
                wrong << QStringLiteral("entry %1 is sample %2, not behind %3")
                             .arg(index)
                             .arg(number)
                             .arg(last);
            last = std::max(last, number);
            ++index;
        }
        if (!wrong.isEmpty())
            report("sync-sample-invalid", Severity::Error, track.syncSamples,
                   wrong.mid(0, 3).join(QStringLiteral("; ")) +
                       (wrong.size() > 3 ? QStringLiteral("; and %1 more").arg(wrong.size() - 3)
                                         : QString()));
    }

    // The largest composition offset, by which the media presents behind its decoding times;
    // none where the track has a ctts that was not read (it is read in deep analysis only).
    std::optional<quint64> largestCompositionOffset()
    {
        if (track.hasCompositionOffsets && !track.compositionOffsets.present)
            return std::nullopt;
        quint64 largest = 0;
        Table ctts(input, track.compositionOffsets, 4, 8);
        while (const unsigned char *entry = ctts.entries.next()) {
            const quint64 offset = TableCursor::number(entry, 4, 4);
            // Signed from version 1 on: a negative offset moves nothing behind the end.
            if (track.compositionOffsets.version == 0 || offset < 0x80000000)
                largest = std::max(largest, offset);
        }
        return largest;
    }

    // The media presents up to the end of its last sample, moved by the largest composition
    // offset.
    void checkEdits(quint64 samples)
    {
        const quint32 timescale = TrackBoxes::timescale(input, track.mediaHeader);
        if (!track.editList.present || movieTimescale == 0 || timescale == 0 || samples == 0 ||
            !largestOffset)
            return;
        const quint64 mediaEnd = mediaDuration + *largestOffset;
        // An edit's duration is in the movie's units, which writers round up: one of them, in
        // the track's units, is as exact as it can be.
        const quint64 movieUnit = (quint64(timescale) + movieTimescale - 1) / movieTimescale;
        const quint64 slack = std::max(lastStep, movieUnit);
        const std::vector<Edit> edits = TrackBoxes::edits(input, track.editList, 1024);
        for (size_t i = 0; i < edits.size(); ++i) {
            const Edit &edit = edits[i];
            if (edit.mediaTime < 0 || edit.rate == 0)
                continue;
            const unsigned __int128 length =
                (unsigned __int128)edit.segmentDuration * timescale / movieTimescale;
            const unsigned __int128 end = quint64(edit.mediaTime) + length;
            if (end > (unsigned __int128)mediaEnd + slack) {
                report("edit-past-media", Severity::Warning, track.editList,
                       QStringLiteral("edit %1 presents the media up to %2, behind its end at %3 "
                                      "(in the track's time units)")
                           .arg(i)
                           .arg(quint64(std::min<unsigned __int128>(end, ~quint64(0))))
                           .arg(mediaEnd));
                return;
            }
        }
    }

    InputDevice &input;
    const TrackContext &track;
    quint32 movieTimescale;
    Report report;
    quint64 mediaDuration = 0;
    quint64 lastStep = 0;
    std::optional<quint64> largestOffset;
};
} // namespace

void ContainerMP4::checkTracks()
{
    if (!checkProblems)
        return;
    const quint32 movieTimescale = TrackBoxes::timescale(input, movieHeader);
    for (const TrackContext &track : trackContexts) {
        TrackTableCheck(input, track, movieTimescale,
                        [this](const char *code, Severity severity, const TableBox &box,
                               const QString &message) {
                            noteProblemIn(box.source, code, severity, box.offset, box.size, message,
                                          box.path);
                        })
            .run();
    }

    // The top level: a brand in front of the movie and its media, and a movie for the media.
    const quint64 none = ~quint64(0);
    const quint64 ftyp = firstTopLevel.value(QStringLiteral("ftyp"), none);
    const quint64 moov = firstTopLevel.value(QStringLiteral("moov"), none);
    const quint64 mdat = firstTopLevel.value(QStringLiteral("mdat"), none);
    const bool segment = firstTopLevel.contains(QStringLiteral("moof")) ||
                         firstTopLevel.contains(QStringLiteral("styp"));
    if (std::min(moov, mdat) != none && ftyp > std::min(moov, mdat) && !segment)
        noteProblem("missing-box", Severity::Warning, std::min(moov, mdat), 0,
                    QStringLiteral("no ftyp box stands in front of the %1 box")
                        .arg(moov < mdat ? "moov" : "mdat"),
                    QString());
    // A file of items, such as a HEIF image, tells its media data in its top-level meta box.
    const bool items = firstTopLevel.contains(QStringLiteral("meta"));
    if (mdat != none && moov == none && !segment && !items)
        noteProblem("missing-box", Severity::Error, mdat, 0,
                    QStringLiteral("the file has media data but no moov box to tell its samples"),
                    QString());
}

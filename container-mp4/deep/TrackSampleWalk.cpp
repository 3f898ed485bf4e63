#include "DeepAnalysis.h"
#include "SampleUnits.h"
#include "TableCursor.h"

#include "ContainerMP4.h"

#include <algorithm>
#include <functional>
#include <limits>
#include <memory>

namespace {
// Edits taken into account for presentation times; a list longer than any real file's
// cannot make the walk cost more than this many steps per sample.
constexpr size_t MaxEditsApplied = 256;

// Sizes of samples from stsz (one size for all, or one field of 4 bytes each) or from stz2
// (fields of 4, 8 or 16 bits).
class SampleSizes {
public:
    SampleSizes(InputDevice &input, const TrackContext &track)
        : fieldBits(compactFieldBits(input, track))
        , entries(input, track.sampleSizes, 8, entryWidth(fieldBits))
    {
        TableCursor header(input, track.sampleSizes, 0, 8);
        if (const unsigned char *words = header.next()) {
            total = TableCursor::number(words, 4, 4);
            if (fieldBits == 0)
                constant = quint32(TableCursor::number(words, 0, 4));
        }
    }

    // The bits per entry of stz2, in the low byte of its first word; 0 for stsz.
    static quint32 compactFieldBits(InputDevice &input, const TrackContext &track)
    {
        if (!track.compactSampleSizes)
            return 0;
        TableCursor header(input, track.sampleSizes, 0, 4);
        const unsigned char *word = header.next();
        return word ? quint32(word[3]) : 0;
    }

    // The bytes a cursor takes per step: four of stsz, one or two of stz2 (two sizes of 4 bits
    // share a byte).
    static quint64 entryWidth(quint32 fieldBits)
    {
        return fieldBits == 0 ? 4 : fieldBits == 16 ? 2 : 1;
    }

    quint64 count() const { return total; }

    // The size of the next sample; false when the table holds no more.
    bool next(quint64 *size)
    {
        if (fieldBits == 0 && constant != 0) {
            *size = constant;
            return true;
        }
        if (fieldBits == 4) {
            // Two sizes to a byte, the first in the high half.
            if (!half) {
                const unsigned char *byte = entries.next();
                if (!byte)
                    return false;
                pair = *byte;
                half = true;
                *size = pair >> 4;
            } else {
                half = false;
                *size = pair & 0xF;
            }
            return true;
        }
        // stz2 knows no other field sizes than 4, 8 and 16 bits.
        const int width = fieldBits == 0 ? 4 : fieldBits == 8 ? 1 : fieldBits == 16 ? 2 : 0;
        const unsigned char *field = width > 0 ? entries.next() : nullptr;
        if (!field)
            return false;
        *size = TableCursor::number(field, 0, width);
        return true;
    }

private:
    quint32 fieldBits;
    TableCursor entries;
    quint64 total = 0;
    quint32 constant = 0;
    bool half = false;
    unsigned char pair = 0;
};

// Runs of equal values, as stts and ctts list them: each entry is a sample count and a value.
class Runs {
public:
    Runs(InputDevice &input, const TableBox &table, bool signedValues)
        : entries(input, table, 4, 8)
        , signedValues(signedValues)
    {
    }

    // The value of the next sample and the entry that gives it; false when the table holds
    // no more entries.
    bool next(qint64 *value, qint64 *entry)
    {
        while (left == 0) {
            const unsigned char *record = entries.next();
            if (!record)
                return false;
            left = TableCursor::number(record, 0, 4);
            const quint32 word = quint32(TableCursor::number(record, 4, 4));
            current = signedValues ? qint64(qint32(word)) : qint64(word);
            index = qint64(entries.count()) - 1;
        }
        --left;
        *value = current;
        *entry = index;
        return true;
    }

private:
    TableCursor entries;
    bool signedValues;
    quint64 left = 0;
    qint64 current = 0;
    qint64 index = -1;
};

// Where samples lie by chunk: the entries of stsc, each from its first chunk on.
class ChunkRuns {
public:
    ChunkRuns(InputDevice &input, const TableBox &table)
        : entries(input, table, 4, 12)
    {
        following = entries.next();
    }

    // The samples of the given chunk, counted from 1, and the entry that tells them. Before
    // the first entry's first chunk, the first entry holds.
    quint64 samplesIn(quint64 chunk, qint64 *entry)
    {
        while (following && (index < 0 || TableCursor::number(following, 0, 4) <= chunk)) {
            perChunk = TableCursor::number(following, 4, 4);
            ++index;
            following = entries.next();
        }
        *entry = index;
        return perChunk;
    }

    // Whether no later entry can give a chunk samples.
    bool exhausted() const { return !following; }

private:
    TableCursor entries;
    const unsigned char *following = nullptr; // the entry not taken up yet
    quint64 perChunk = 0;
    qint64 index = -1;
};

// The presentation time of a composition time: through the track's edit list onto the
// movie's timeline, in the track's time units.
class EditMap {
public:
    EditMap(InputDevice &input, const TrackContext &track, quint32 movieTimescale,
            quint32 trackTimescale)
        : listed(track.editList.present && track.editList.version <= 1)
    {
        if (!listed)
            return;
        // One edit more than are applied tells whether the last applied is the last.
        const std::vector<Edit> edits =
            TrackBoxes::edits(input, track.editList, MaxEditsApplied + 1);
        const size_t count = std::min(edits.size(), MaxEditsApplied);
        // Each edit's span of media time and where it starts on the movie's timeline, both
        // in track units.
        unsigned __int128 start = 0;
        for (size_t i = 0; i < count; ++i) {
            const Edit &edit = edits[i];
            if (movieTimescale == 0)
                break;
            // A last edit of duration 0 lasts as long as the media.
            const bool open = edit.segmentDuration == 0 && i + 1 == edits.size();
            const unsigned __int128 length =
                (unsigned __int128)edit.segmentDuration * trackTimescale / movieTimescale;
            if (edit.mediaTime >= 0)
                spans.push_back(
                    {edit.mediaTime, edit.rate == 0, open, quint64(clamp(length)), clamp(start)});
            start += length;
        }
    }

    std::optional<qint64> present(qint64 pts) const
    {
        if (!listed)
            return pts;
        for (const Span &span : spans) {
            const qint64 into = pts - span.mediaStart;
            if (span.dwell ? into == 0 : into >= 0 && (span.open || quint64(into) < span.length))
                return span.movieStart + into;
        }
        return std::nullopt;
    }

private:
    struct Span {
        qint64 mediaStart;
        bool dwell; // media_rate 0: the media at mediaStart held for the edit's duration
        bool open;
        quint64 length;
        qint64 movieStart;
    };

    static qint64 clamp(unsigned __int128 value)
    {
        return value > quint64(std::numeric_limits<qint64>::max())
                   ? std::numeric_limits<qint64>::max()
                   : qint64(value);
    }

    bool listed;
    std::vector<Span> spans;
};
// The walk of one track's samples: where it stands, and where its samples go.
struct TrackWalk {
    InputDevice &input;
    const TrackContext &track;
    const EditMap &edits;
    quint64 &samplesLeft; // of all tracks together
    std::function<void(quint64 index, const TrackSample &sample)> report;
    // The checks of the runs: their decoding times and where their data lies.
    std::function<void(const char *code, Severity severity, const FragmentRun &run,
                       const QString &message)>
        problem;
    const std::vector<TableBox> &mediaData; // the payloads of mdat, in file order
    // Joined files: puts the input on a file of the presentation; null for a file alone,
    // whose samples name no file.
    std::function<bool(int file)> switchFile;
    quint64 index = 0;
    qint64 dts = 0; // of the next sample

    void add(TrackSample &sample, qint64 compositionOffset)
    {
        sample.dts = dts;
        sample.pts = dts + compositionOffset;
        sample.presentationTime = edits.present(sample.pts);
        report(index, sample);
        dts += sample.duration;
        ++index;
        --samplesLeft;
    }

    // The samples of the sample tables: chunk after chunk as the sample-to-chunk entries
    // give them.
    void walkTables()
    {
        SampleSizes sizes(input, track);
        TableCursor chunkOffsets(input, track.chunkOffsets, 4, track.chunkOffsetWidth);
        ChunkRuns chunks(input, track.sampleToChunk);
        Runs deltas(input, track.timeToSample, false);
        Runs offsets(input, track.compositionOffsets, track.compositionOffsets.version >= 1);
        TableCursor syncNumbers(input, track.syncSamples, 4, 4);
        const bool everySampleSync = !track.syncSamples.present;
        const unsigned char *nextSync = syncNumbers.next();
        TrackSample sample;
        sample.file = switchFile ? 0 : -1;
        for (quint64 chunk = 1; index < sizes.count() && samplesLeft > 0; ++chunk) {
            const unsigned char *chunkOffset = chunkOffsets.next();
            if (!chunkOffset)
                break;
            qint64 chunkEntry = -1;
            const quint64 inChunk = chunks.samplesIn(chunk, &chunkEntry);
            if (inChunk == 0 && chunks.exhausted())
                break;
            sample.offset = TableCursor::number(chunkOffset, 0, int(track.chunkOffsetWidth));
            for (quint64 i = 0; i < inChunk && index < sizes.count() && samplesLeft > 0; ++i) {
                if (!sizes.next(&sample.size))
                    break;
                qint64 delta = 0;
                if (!deltas.next(&delta, &sample.timeToSampleEntry))
                    sample.timeToSampleEntry = -1;
                qint64 compositionOffset = 0;
                if (!offsets.next(&compositionOffset, &sample.compositionEntry))
                    sample.compositionEntry = -1;
                // Sync numbers count from 1 and increase; one not above the last is passed.
                while (nextSync && TableCursor::number(nextSync, 0, 4) < index + 1)
                    nextSync = syncNumbers.next();
                sample.duration = quint32(delta);
                sample.keyFrame = everySampleSync ||
                                  (nextSync && TableCursor::number(nextSync, 0, 4) == index + 1);
                sample.chunk = chunk;
                sample.sampleToChunkEntry = chunkEntry;
                add(sample, compositionOffset);
                sample.offset += sample.size;
            }
        }
    }

    // A run whose tfdt does not go on from the samples before it leaves a gap in the track's
    // time or goes back in it; a run whose data is not inside the payload of an mdat points
    // at something other than media.
    void checkRun(const FragmentRun &run)
    {
        if (run.baseMediaDecodeTime && index > 0 && qint64(*run.baseMediaDecodeTime) != dts)
            problem("tfdt-discontinuity", Severity::Warning, run,
                    QStringLiteral("tfdt gives the run a decoding time of %1, where the samples "
                                   "before it end at %2")
                        .arg(*run.baseMediaDecodeTime)
                        .arg(dts));
        if (run.dataSize == 0 || mediaData.empty())
            return;
        const quint64 end = run.dataOffset + run.dataSize;
        const auto inside =
            std::find_if(mediaData.begin(), mediaData.end(), [&](const TableBox &box) {
                return box.file == run.file && run.dataOffset >= box.offset &&
                       end >= run.dataOffset && end <= box.offset + box.size;
            });
        if (inside == mediaData.end())
            problem("trun-data-past-mdat", Severity::Error, run,
                    QStringLiteral("the run's %1 bytes of data at offset %2 do not lie inside the "
                                   "payload of an mdat box")
                        .arg(run.dataSize)
                        .arg(run.dataOffset));
    }

    // The samples of the movie fragments, run after run, in file order. A run that follows a
    // tfdt starts at its decoding time; any other goes on from the sample before it.
    void walkFragments()
    {
        TrackSample sample;
        for (const FragmentRun &run : track.runs) {
            if (switchFile) {
                if (!switchFile(run.file))
                    continue;
                sample.file = run.file;
            }
            checkRun(run);
            if (run.baseMediaDecodeTime)
                dts = qint64(*run.baseMediaDecodeTime);
            const bool hasDuration = run.flags & 0x100;
            const bool hasSize = run.flags & 0x200;
            const bool hasFlags = run.flags & 0x400;
            const bool hasOffset = run.flags & 0x800;
            const quint64 entrySize = 4 * quint64(hasDuration + hasSize + hasFlags + hasOffset);
            TableCursor entries(
                input, TableBox{run.entries, entrySize * run.sampleCount, 0, true, QString()}, 0,
                entrySize);
            sample.offset = run.dataOffset;
            sample.fragment = run.origin;
            for (quint32 i = 0; i < run.sampleCount && samplesLeft > 0; ++i) {
                const unsigned char *entry = entrySize > 0 ? entries.next() : nullptr;
                if (entrySize > 0 && !entry)
                    break;
                // The fields an entry has, in their order; the defaults stand for the others.
                int at = 0;
                const auto field = [&](bool present, quint32 fallback) {
                    if (!present)
                        return fallback;
                    at += 4;
                    return quint32(TableCursor::number(entry, at - 4, 4));
                };
                sample.duration = field(hasDuration, run.defaults.duration);
                sample.size = field(hasSize, run.defaults.size);
                const quint32 firstFlags =
                    i == 0 && run.firstSampleFlags ? *run.firstSampleFlags : run.defaults.flags;
                const quint32 flags = field(hasFlags, firstFlags);
                const quint32 offset = field(hasOffset, 0);
                // The sample_is_non_sync_sample bit.
                sample.keyFrame = !(flags & 0x10000);
                sample.fragment->trunEntry = i;
                add(sample, run.version == 0 ? qint64(offset) : qint64(qint32(offset)));
                sample.offset += sample.size;
            }
        }
    }
};
} // namespace

// Deep analysis reports the samples of every track: those of its sample tables, read in
// place, then those of its movie fragments, each with its decoding and composition time,
// its duration, whether it is a sync sample, its presentation time and the entries that made
// it. All tracks together report at most one sample per input byte.
void ContainerMP4::walkTrackSamples()
{
    const quint32 movieTimescale = TrackBoxes::timescale(input, movieHeader);
    quint64 samplesLeft = joinedFiles.isEmpty() ? quint64(input.size()) : joinedSize;
    for (int stream = 0; stream < streams.size(); ++stream) {
        // The facts and the sample tables of joined files lie in the first.
        switchToFile(0);
        enableSampleOutput(stream);
        const TrackContext &track = trackContexts[size_t(stream)];
        // The facts of the headers; a track known from its fragments only has its track_ID.
        TrackFacts &facts =
            streams[stream]->track ? *streams[stream]->track : streams[stream]->track.emplace();
        if (track.trackHeader.present)
            facts.trackId = TrackBoxes::trackId(input, track.trackHeader);
        facts.timescale = TrackBoxes::timescale(input, track.mediaHeader);
        facts.duration = TrackBoxes::duration(input, track.mediaHeader);
        facts.language = TrackBoxes::language(input, track.mediaHeader);
        const EditMap edits(input, track, movieTimescale, facts.timescale);
        // With sample units, each sample's units go with it, read into one buffer.
        std::unique_ptr<SampleUnitWalk> unitWalk;
        if (sampleUnits) {
            const QString path = streams[stream]->boxPath;
            unitWalk = std::make_unique<SampleUnitWalk>(
                input, *streams[stream],
                [this, path](const char *code, Severity severity, quint64 offset, quint64 size,
                             const QString &message) {
                    noteProblem(code, severity, offset, size, message, path);
                });
            if (!unitWalk->reads())
                unitWalk.reset();
        }
        std::vector<SampleUnit> units;
        TrackWalk walk{input,
                       track,
                       edits,
                       samplesLeft,
                       [this, stream, &unitWalk, &units](quint64 index, const TrackSample &sample) {
                           if (!unitWalk) {
                               reportTrackSample(stream, index, sample);
                               return;
                           }
                           unitWalk->read(sample, units);
                           TrackSample withUnits = sample;
                           withUnits.units = &units;
                           reportTrackSample(stream, index, withUnits);
                       },
                       [this](const char *code, Severity severity, const FragmentRun &run,
                              const QString &message) {
                           noteProblem(code, severity, run.origin.moofOffset, 0, message, run.path);
                       },
                       mediaDataBoxes,
                       nullptr};
        if (!joinedFiles.isEmpty())
            walk.switchFile = [this](int file) { return switchToFile(file); };
        walk.walkTables();
        walk.walkFragments();
        if (unitWalk)
            unitWalk->finish();
    }
}

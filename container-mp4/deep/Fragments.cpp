#include "Bounds.h"
#include "DeepAnalysis.h"
#include "DeepRows.h"
#include "PayloadReader.h"

#include <QStringList>

// Movie fragments: the defaults of mvex, and moof with its track fragments and their runs of
// samples. The runs stay where they are; deep analysis notes where each begins, where its
// data lies and what defaults hold for it, and reads them again for the samples at the end.

namespace {

// tfhd flags
constexpr quint32 BaseDataOffsetPresent = 0x1;
constexpr quint32 SampleDescriptionIndexPresent = 0x2;
constexpr quint32 DefaultSampleDurationPresent = 0x8;
constexpr quint32 DefaultSampleSizePresent = 0x10;
constexpr quint32 DefaultSampleFlagsPresent = 0x20;
constexpr quint32 DurationIsEmpty = 0x10000;
constexpr quint32 DefaultBaseIsMoof = 0x20000;
// trun flags
constexpr quint32 DataOffsetPresent = 0x1;
constexpr quint32 FirstSampleFlagsPresent = 0x4;
constexpr quint32 SampleDurationPresent = 0x100;
constexpr quint32 SampleSizePresent = 0x200;
constexpr quint32 SampleFlagsPresent = 0x400;
constexpr quint32 SampleCompositionTimeOffsetsPresent = 0x800;

// The names of the flags set in a flags word, for the comment beside it.
QString flagNames(quint32 flags, std::initializer_list<std::pair<quint32, const char *>> names)
{
    QStringList set;
    for (const auto &[bit, name] : names) {
        if (flags & bit)
            set << QString::fromLatin1(name);
    }
    return set.join(QStringLiteral(", "));
}

// The version and flags of a full box whose flags say which fields follow, reported here
// rather than by the walker so that the flags can be named.
quint32 versionAndNamedFlags(PayloadReader &box,
                             std::initializer_list<std::pair<quint32, const char *>> names)
{
    const quint32 flags = quint32(box.peekUnsigned(4) & 0xFFFFFF);
    box.u8("version");
    box.u24("flags", flagNames(flags, names));
    return flags;
}

// A sample_flags word, decoded into its parts as a group of bit fields.
quint32 sampleFlags(PayloadReader &box, const QString &name, qint64 index = -1)
{
    box.beginGroup(name, index, 4);
    PayloadReader::Bits bits = box.bits(4);
    const quint32 value =
        quint32((bits.field("reserved", 4) << 28) | (bits.field("is_leading", 2) << 26) |
                (bits.field("sample_depends_on", 2) << 24) |
                (bits.field("sample_is_depended_on", 2) << 22) |
                (bits.field("sample_has_redundancy", 2) << 20) |
                (bits.field("sample_padding_value", 3) << 17));
    const quint32 nonSync = quint32(bits.flag("sample_is_non_sync_sample")) << 16;
    const quint32 priority = quint32(bits.field("sample_degradation_priority", 16));
    box.endGroup();
    return value | nonSync | priority;
}

int parseMovieExtendsHeader(PayloadReader &box)
{
    box.versioned("fragment_duration", box.version() == 1);
    box.rest();
    return ContainerAbstract::ParseOk;
}

int parseTrackExtends(PayloadReader &box)
{
    SampleDefaults defaults;
    const quint32 trackId = box.u32("track_ID");
    defaults.descriptionIndex = box.u32("default_sample_description_index");
    defaults.duration = box.u32("default_sample_duration");
    defaults.size = box.u32("default_sample_size");
    defaults.flags = sampleFlags(box, QStringLiteral("default_sample_flags"));
    if (box.ok() && box.deep())
        box.deep()->trackDefaults[trackId] = defaults;
    box.rest();
    return ContainerAbstract::ParseOk;
}

// moof: its runs' data is found from its first byte on, unless a track fragment says else.
int parseMovieFragment(PayloadReader &box)
{
    FragmentWalk &walk = box.deep()->fragment;
    walk = FragmentWalk();
    walk.moofOffset = box.boxOffset();
    walk.moofIndex = box.deep()->moofCount++;
    walk.moofDataEnd = walk.moofOffset;
    const int result = box.walkChildren();
    // A CMAF fragment holds the samples of one track.
    if (box.deep()->cmaf && walk.trafCount != 1)
        box.problem("cmaf-traf-count", Severity::Warning,
                    QStringLiteral("the movie fragment of a CMAF file holds %1 track fragments, "
                                   "where it holds one")
                        .arg(walk.trafCount));
    return result;
}

// mfhd: the fragments count up, one by one; a number that does not rise tells of a fragment
// out of place, one that rises by more than one of a fragment lost.
int parseMovieFragmentHeader(PayloadReader &box)
{
    const quint32 sequence = box.u32("sequence_number");
    box.rest();
    std::optional<quint32> &last = box.deep()->lastSequenceNumber;
    if (box.ok() && last && sequence <= *last)
        box.problem("sequence-number-order", Severity::Warning,
                    QStringLiteral("the fragment's sequence number is %1, not above the %2 of the "
                                   "fragment before it")
                        .arg(sequence)
                        .arg(*last));
    else if (box.ok() && last && sequence != *last + 1)
        box.problem("fragment-sequence-gap", Severity::Warning,
                    QStringLiteral("the fragment's sequence number is %1, where %2 follows the "
                                   "fragment before it")
                        .arg(sequence)
                        .arg(quint64(*last) + 1));
    if (box.ok())
        last = sequence;
    return ContainerAbstract::ParseOk;
}

int parseTrackFragment(PayloadReader &box)
{
    FragmentWalk &walk = box.deep()->fragment;
    walk.inTraf = true;
    walk.stream = -1;
    walk.trackId = 0;
    walk.decodeTimeSeen = false;
    walk.trunCount = 0;
    walk.baseMediaDecodeTime.reset();
    const int result = box.walkChildren();
    // The samples of a CMAF track fragment say when they decode.
    if (box.deep()->cmaf && !walk.decodeTimeSeen)
        box.problem("cmaf-tfdt-missing", Severity::Warning,
                    QStringLiteral("the track fragment of a CMAF file has no tfdt"));
    // The next track fragment without a base of its own goes on behind this one's data.
    walk.moofDataEnd = walk.dataEnd;
    walk.inTraf = false;
    ++walk.trafCount;
    return result;
}

int parseTrackFragmentHeader(PayloadReader &box)
{
    const quint32 flags = versionAndNamedFlags(
        box, {{BaseDataOffsetPresent, "base-data-offset-present"},
              {SampleDescriptionIndexPresent, "sample-description-index-present"},
              {DefaultSampleDurationPresent, "default-sample-duration-present"},
              {DefaultSampleSizePresent, "default-sample-size-present"},
              {DefaultSampleFlagsPresent, "default-sample-flags-present"},
              {DurationIsEmpty, "duration-is-empty"},
              {DefaultBaseIsMoof, "default-base-is-moof"}});
    const quint32 trackId = box.u32("track_ID");
    DeepAnalysis *deep = box.deep();
    SampleDefaults defaults = deep->trackDefaults[trackId];
    quint64 base = 0;
    if (flags & BaseDataOffsetPresent)
        base = box.u64("base_data_offset");
    if (flags & SampleDescriptionIndexPresent)
        defaults.descriptionIndex = box.u32("sample_description_index");
    if (flags & DefaultSampleDurationPresent)
        defaults.duration = box.u32("default_sample_duration");
    if (flags & DefaultSampleSizePresent)
        defaults.size = box.u32("default_sample_size");
    if (flags & DefaultSampleFlagsPresent)
        defaults.flags = sampleFlags(box, QStringLiteral("default_sample_flags"));
    box.rest();
    // A CMAF fragment can be moved as it is: its data is found from the moof's first byte.
    if (deep->cmaf && box.ok() && (!(flags & DefaultBaseIsMoof) || (flags & BaseDataOffsetPresent)))
        box.problem("cmaf-base-not-moof", Severity::Warning,
                    (flags & BaseDataOffsetPresent)
                        ? QStringLiteral("the track fragment header of a CMAF file gives a "
                                         "base_data_offset")
                        : QStringLiteral("the track fragment header of a CMAF file does not set "
                                         "default-base-is-moof"));

    FragmentWalk &walk = deep->fragment;
    if (!walk.inTraf || !box.ok())
        return ContainerAbstract::ParseOk;
    walk.stream = box.streamOfTrack(trackId);
    walk.trackId = trackId;
    walk.defaults = defaults;
    // The base of the track fragment's data: given, the moof's first byte, or the end of the
    // data of the track fragment before it in the moof.
    if (!(flags & BaseDataOffsetPresent))
        base =
            (flags & DefaultBaseIsMoof) || walk.trafCount == 0 ? walk.moofOffset : walk.moofDataEnd;
    walk.baseDataOffset = base;
    walk.dataEnd = base;
    return ContainerAbstract::ParseOk;
}

int parseTrackFragmentDecodeTime(PayloadReader &box)
{
    const quint64 time = box.versioned("baseMediaDecodeTime", box.version() == 1);
    box.rest();
    FragmentWalk &walk = box.deep()->fragment;
    if (walk.inTraf && box.ok()) {
        walk.baseMediaDecodeTime = time;
        walk.decodeTimeSeen = true;
    }
    return ContainerAbstract::ParseOk;
}

int parseTrackRun(PayloadReader &box)
{
    const quint32 version = quint32(box.peekUnsigned(1));
    const quint32 flags = versionAndNamedFlags(
        box, {{DataOffsetPresent, "data-offset-present"},
              {FirstSampleFlagsPresent, "first-sample-flags-present"},
              {SampleDurationPresent, "sample-duration-present"},
              {SampleSizePresent, "sample-size-present"},
              {SampleFlagsPresent, "sample-flags-present"},
              {SampleCompositionTimeOffsetsPresent, "sample-composition-time-offsets-present"}});
    const quint32 count = box.u32("sample_count");
    FragmentWalk &walk = box.deep()->fragment;
    FragmentRun run;
    run.flags = flags;
    run.version = version;
    run.defaults = walk.defaults;
    // The run's data: from the base plus its offset, or behind the data of the run before.
    const qint32 dataOffset = (flags & DataOffsetPresent) ? box.i32("data_offset") : 0;
    run.dataOffset = (flags & DataOffsetPresent) ? walk.baseDataOffset + quint64(qint64(dataOffset))
                                                 : walk.dataEnd;
    if (flags & FirstSampleFlagsPresent)
        run.firstSampleFlags = sampleFlags(box, QStringLiteral("first_sample_flags"));
    run.entries = box.at();

    static const QString sampleName = QStringLiteral("sample");
    static const QString durationName = QStringLiteral("sample_duration");
    static const QString sizeName = QStringLiteral("sample_size");
    static const QString flagsName = QStringLiteral("sample_flags");
    static const QString offsetName = QStringLiteral("sample_composition_time_offset");
    const quint64 entrySize =
        4 * quint64(bool(flags & SampleDurationPresent) + bool(flags & SampleSizePresent) +
                    bool(flags & SampleFlagsPresent) +
                    bool(flags & SampleCompositionTimeOffsetsPresent));
    quint64 dataSize = 0;
    quint64 duration = 0;
    // The presentation times of the run, counted from the decode time of its first sample.
    std::optional<std::pair<qint64, qint64>> presentation;
    quint32 whole = 0;
    for (; whole < count && (entrySize == 0 || box.available() >= entrySize); ++whole) {
        if (entrySize == 0) {
            // Entries without fields take no bytes: the count alone says how many.
            dataSize += quint64(run.defaults.size) * count;
            duration = quint64(run.defaults.duration) * count;
            presentation = {0, qint64(duration)};
            whole = count;
            break;
        }
        box.beginGroup(sampleName, whole, entrySize);
        const quint64 sampleDuration = (flags & SampleDurationPresent)
                                           ? box.unsignedField(durationName, 4)
                                           : run.defaults.duration;
        const quint64 size =
            (flags & SampleSizePresent) ? box.unsignedField(sizeName, 4) : run.defaults.size;
        if (flags & SampleFlagsPresent)
            sampleFlags(box, flagsName);
        qint64 compositionOffset = 0;
        if (flags & SampleCompositionTimeOffsetsPresent) {
            compositionOffset = version == 0 ? qint64(box.unsignedField(offsetName, 4))
                                             : box.signedField(offsetName, 4);
        }
        box.endGroup();
        widen(presentation,
              shiftedBy({compositionOffset, compositionOffset + qint64(sampleDuration)}, duration));
        duration += sampleDuration;
        dataSize += size;
    }
    box.rest();

    if (!walk.inTraf || walk.stream < 0)
        return ContainerAbstract::ParseOk;
    run.sampleCount = whole;
    run.baseMediaDecodeTime = walk.baseMediaDecodeTime;
    walk.baseMediaDecodeTime.reset();
    run.origin.moof = walk.moofIndex;
    run.origin.moofOffset = walk.moofOffset;
    run.origin.traf = walk.trafCount;
    run.origin.trun = walk.trunCount++;
    run.dataSize = dataSize;
    run.path = box.path();
    run.file = box.deep()->file;
    walk.dataEnd = run.dataOffset + dataSize;
    quint64 &trackDuration = walk.durations[walk.trackId];
    if (presentation)
        widen(walk.presentations[walk.trackId], shiftedBy(*presentation, trackDuration));
    trackDuration += duration;
    if (dataSize > 0)
        widen(walk.dataSpan, std::pair{run.dataOffset, endOf(run.dataOffset, dataSize)});
    if (TrackContext *track = box.track())
        track->runs.push_back(run);
    return ContainerAbstract::ParseOk;
}

} // namespace

DeepRows fragmentRows()
{
    return {
        {"mehd", DeepPlain, 1, parseMovieExtendsHeader},
        {"trex", DeepPlain, 1, parseTrackExtends},
        {"moof", DeepPlain, 0, parseMovieFragment},
        {"mfhd", DeepPlain, 1, parseMovieFragmentHeader},
        {"traf", DeepPlain, 0, parseTrackFragment},
        {"tfhd", DeepPlain, 0, parseTrackFragmentHeader},
        {"tfdt", DeepPlain, 1, parseTrackFragmentDecodeTime},
        {"trun", DeepPlain, 0, parseTrackRun},
    };
}

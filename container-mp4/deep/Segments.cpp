#include "Bounds.h"
#include "DeepAnalysis.h"
#include "DeepRows.h"
#include "PayloadReader.h"

#include <QByteArrayView>
#include <QDateTime>
#include <QTimeZone>

#include <cmath>

// The boxes of segmented and streamed files beside the fragments themselves: the indexes of
// segments and of the fragments of a file, the producer's clock, in-band events, download
// hints, levels and the groups a track belongs to.

namespace {

// References of sidx boxes held at once for the checks, waiting for the boxes they cover, and
// the sidx boxes they belong to, each of which every top-level box is held against: a file of
// many indexes that all reach far ahead has those beyond not checked. Real files wait on a
// few at a time: one per track, or the levels of a hierarchy.
constexpr size_t MaxHeldReferences = 100000;
constexpr size_t MaxHeldIndexes = 32;
// The bytes of the brands of an ftyp or styp that are looked at for those of CMAF.
constexpr quint64 MaxBrandBytes = 4096;

// An NTP time, seconds since 1900 in the high 32 bits and their fraction in the low, as the
// UTC date it stands for.
QString ntpDate(quint64 ntp)
{
    constexpr qint64 SecondsFrom1900To1970 = 2208988800;
    const qint64 seconds = qint64(ntp >> 32) - SecondsFrom1900To1970;
    const qint64 milliseconds = qint64(((ntp & 0xFFFFFFFF) * 1000) >> 32);
    return QDateTime::fromMSecsSinceEpoch(seconds * 1000 + milliseconds, QTimeZone::utc())
               .toString(QStringLiteral("dd-MM-yyyy hh:mm:ss.zzz")) +
           QStringLiteral(" UTC");
}

QString byteCount(int bytes)
{
    return bytes == 1 ? QStringLiteral("1 byte") : QStringLiteral("%1 bytes").arg(bytes);
}

// sidx: the subsegments of a segment, each a run of media or a further index, with its size,
// duration and where its first stream access point lies.
int parseSegmentIndex(PayloadReader &box)
{
    const bool wide = box.version() != 0;
    SegmentIndexWalk walk;
    walk.referenceId = box.u32("reference_id");
    walk.timescale = box.u32("timescale", QStringLiteral("units per second"));
    box.versioned("earliest_presentation_time", wide);
    const quint64 firstOffset =
        box.versioned("first_offset", wide, QStringLiteral("bytes from the end of this box"));
    box.u16("reserved");
    const quint16 count = box.u16("reference_count");
    const QString reference = QStringLiteral("reference");
    const QString media = QStringLiteral("media");
    const QString index = QStringLiteral("index");
    DeepAnalysis *deep = box.deep();
    // The references of a top-level sidx are checked against the top-level boxes behind it.
    const bool held = box.checks() && box.parentType().isEmpty() && !box.insideInflated() &&
                      deep->heldReferences + count <= MaxHeldReferences &&
                      deep->segmentIndexes.size() < MaxHeldIndexes;
    if (held)
        walk.references.reserve(count);
    walk.entries = box.at();
    for (quint16 i = 0; i < count && box.available() >= 12; ++i) {
        box.beginGroup(reference, i, 12);
        const bool isIndex = box.peekUnsigned(1) >> 7;
        PayloadReader::Bits size = box.bits(4);
        size.field("reference_type", 1, isIndex ? index : media);
        const quint64 referencedSize = size.field("referenced_size", 31, QStringLiteral("bytes"));
        const quint32 duration = box.u32("subsegment_duration");
        if (held)
            walk.references.push_back({quint32(referencedSize), duration});
        PayloadReader::Bits access = box.bits(4);
        access.flag("starts_with_sap");
        access.field("sap_type", 3);
        access.field("sap_delta_time", 28);
        box.endGroup();
    }
    box.rest();
    if (box.checks() && box.parentType().isEmpty() && !held)
        box.note(QStringLiteral("Its references are not checked: the sidx boxes before it wait "
                                "for the boxes of their references, %1 boxes or %2 references "
                                "being the most that are held.")
                     .arg(MaxHeldIndexes)
                     .arg(MaxHeldReferences));
    if (held && box.ok() && !walk.references.empty()) {
        walk.path = box.path();
        walk.start = endOf(box.end(), firstOffset);
        deep->heldReferences += walk.references.size();
        deep->segmentIndexes.push_back(std::move(walk));
    }
    return ContainerAbstract::ParseOk;
}

// ssix: the byte ranges of each subsegment and the level each holds.
int parseSubsegmentIndex(PayloadReader &box)
{
    const quint32 count = box.u32("subsegment_count");
    const QString subsegment = QStringLiteral("subsegment");
    const QString range = QStringLiteral("range");
    const QString level = QStringLiteral("level");
    const QString rangeSize = QStringLiteral("range_size");
    for (quint32 i = 0; i < count && box.available() >= 4; ++i) {
        const quint64 ranges = box.peekUnsigned(4);
        box.beginGroup(subsegment, i, 4 + 4 * ranges);
        box.u32("range_count");
        for (quint64 j = 0; j < ranges && box.available() >= 4; ++j) {
            box.beginGroup(range, qint64(j), 4);
            box.unsignedField(level, 1);
            box.unsignedField(rangeSize, 3);
            box.endGroup();
        }
        box.endGroup();
    }
    box.rest();
    return ContainerAbstract::ParseOk;
}

// prft: the wall-clock time at which the producer handled a media time of a track.
int parseProducerReferenceTime(PayloadReader &box)
{
    box.u32("reference_track_id");
    box.u64("ntp_timestamp", ntpDate(box.peekUnsigned(8)));
    box.versioned("media_time", box.version() != 0);
    box.rest();
    return ContainerAbstract::ParseOk;
}

// All ones stand for a duration not known yet.
void eventDuration(PayloadReader &box)
{
    box.u32("event_duration",
            box.peekUnsigned(4) == 0xFFFFFFFF ? QStringLiteral("unknown") : QString());
}

// emsg: an event for the application, with the scheme that says how to read its message;
// its time is relative to the segment in version 0 and absolute from version 1 on.
int parseEventMessage(PayloadReader &box)
{
    if (box.version() == 0) {
        box.nullTerminated("scheme_id_uri");
        box.nullTerminated("value");
        box.u32("timescale", QStringLiteral("units per second"));
        box.u32("presentation_time_delta");
        eventDuration(box);
        box.u32("id");
    } else if (box.version() == 1) {
        box.u32("timescale", QStringLiteral("units per second"));
        box.u64("presentation_time");
        eventDuration(box);
        box.u32("id");
        box.nullTerminated("scheme_id_uri");
        box.nullTerminated("value");
    }
    box.rest(box.version() <= 1 ? "message_data" : "data");
    return ContainerAbstract::ParseOk;
}

// tfra: random access points of a track: the time of each, the fragment that holds it and
// its place there, the three numbers in fields of 1 to 4 bytes.
int parseTrackFragmentRandomAccess(PayloadReader &box)
{
    box.u32("track_id");
    // Each length is one less than the bytes of its number.
    const quint64 lengths = box.peekUnsigned(4);
    const int trafWidth = int(lengths >> 4 & 3) + 1;
    const int trunWidth = int(lengths >> 2 & 3) + 1;
    const int sampleWidth = int(lengths & 3) + 1;
    PayloadReader::Bits sizes = box.bits(4);
    sizes.field("reserved", 26);
    sizes.field("length_size_of_traf_num", 2, byteCount(trafWidth));
    sizes.field("length_size_of_trun_num", 2, byteCount(trunWidth));
    sizes.field("length_size_of_sample_num", 2, byteCount(sampleWidth));
    const quint32 count = box.u32("number_of_entry");
    const bool wide = box.version() == 1;
    const QString entry = QStringLiteral("entry");
    const QString time = QStringLiteral("time");
    const QString moofOffset = QStringLiteral("moof_offset");
    const QString trafNumber = QStringLiteral("traf_number");
    const QString trunNumber = QStringLiteral("trun_number");
    const QString sampleNumber = QStringLiteral("sample_number");
    const int timeWidth = wide ? 8 : 4;
    const quint64 entrySize = quint64(2 * timeWidth + trafWidth + trunWidth + sampleWidth);
    for (quint32 i = 0; i < count && box.available() >= entrySize; ++i) {
        box.beginGroup(entry, i, entrySize);
        box.unsignedField(time, timeWidth);
        box.unsignedField(moofOffset, timeWidth);
        box.unsignedField(trafNumber, trafWidth);
        box.unsignedField(trunNumber, trunWidth);
        box.unsignedField(sampleNumber, sampleWidth);
        box.endGroup();
    }
    box.rest();
    return ContainerAbstract::ParseOk;
}

// mfro: the size of the mfra it closes, for a reader that starts from the end of the file.
int parseMovieFragmentRandomAccessOffset(PayloadReader &box)
{
    box.u32("size", QStringLiteral("bytes of the enclosing mfra"));
    box.rest();
    return ContainerAbstract::ParseOk;
}

// pdin: pairs of a download rate and the delay before playing at that rate without stalls.
int parseProgressiveDownloadInfo(PayloadReader &box)
{
    const QString entry = QStringLiteral("entry");
    const QString rate = QStringLiteral("rate");
    const QString delay = QStringLiteral("initial_delay");
    const QString bytesPerSecond = QStringLiteral("bytes per second");
    const QString milliseconds = QStringLiteral("ms");
    for (qint64 i = 0; box.available() >= 8; ++i) {
        box.beginGroup(entry, i, 8);
        box.unsignedField(rate, 4, bytesPerSecond);
        box.unsignedField(delay, 4, milliseconds);
        box.endGroup();
    }
    box.rest();
    return ContainerAbstract::ParseOk;
}

QString assignmentName(quint64 type)
{
    switch (type) {
    case 0:
        return QStringLiteral("by sample group");
    case 1:
        return QStringLiteral("by sample group and parameter");
    case 2:
    case 3:
        return QStringLiteral("by track");
    case 4:
        return QStringLiteral("by sub-track");
    default:
        return QString();
    }
}

// leva: the levels of the subsegments of a segment and how samples are assigned to each.
int parseLevelAssignment(PayloadReader &box)
{
    const quint8 count = box.u8("level_count");
    const QString level = QStringLiteral("level");
    for (quint8 i = 0; i < count && box.available() >= 5; ++i) {
        const quint64 type = box.peekUnsigned(1, 4) & 0x7F;
        box.beginGroup(level, i, 5 + (type == 1 ? 8 : type == 0 || type == 4 ? 4 : 0));
        box.u32("track_id");
        PayloadReader::Bits assignment = box.bits(1);
        assignment.flag("padding_flag");
        assignment.field("assignment_type", 7, assignmentName(type));
        if (type == 0 || type == 1)
            box.fourcc("grouping_type");
        if (type == 1)
            box.u32("grouping_type_parameter");
        if (type == 4)
            box.u32("sub_track_id");
        box.endGroup();
    }
    box.rest();
    return ContainerAbstract::ParseOk;
}

// A box of trgr: the group of tracks of its type this track belongs to.
int parseTrackGroupType(PayloadReader &box)
{
    box.u32("track_group_id");
    box.rest();
    return ContainerAbstract::ParseOk;
}

} // namespace

DeepRows segmentRows()
{
    return {
        {"sidx", DeepPlain, 1, parseSegmentIndex},
        {"ssix", DeepPlain, 1, parseSubsegmentIndex},
        {"prft", DeepPlain, 1, parseProducerReferenceTime},
        {"emsg", DeepPlain, 1, parseEventMessage},
        {"tfra", DeepPlain, 1, parseTrackFragmentRandomAccess},
        {"mfro", DeepPlain, 1, parseMovieFragmentRandomAccessOffset},
        {"pdin", DeepPlain, 1, parseProgressiveDownloadInfo},
        {"leva", DeepPlain, 1, parseLevelAssignment},
        // Not a full box: the basic table's version word is the first group's header.
        {"trgr", DeepContainer, 0, nullptr},
        {"trgr/*", DeepPlain, 1, parseTrackGroupType},
    };
}

void ContainerMP4::checkTopLevelBox(const QString &type, quint64 start, quint64 dataStart,
                                    quint64 end)
{
    if (!deep || !checkProblems)
        return;
    const bool isMediaData = type == QLatin1String("mdat");
    const bool isFragment = type == QLatin1String("moof");
    if (deep->pendingFragment) {
        checkFragmentData(isMediaData ? std::optional<std::pair<quint64, quint64>>({dataStart, end})
                                      : std::nullopt);
    }
    if (isFragment && deep->cmaf)
        deep->pendingFragment = {start, end - start, pathText(), deep->fragment.dataSpan};

    for (SegmentIndexWalk &index : deep->segmentIndexes) {
        while (index.next < index.references.size()) {
            const quint64 referenceEnd = endOf(index.start, index.references[index.next].first);
            if (start >= referenceEnd) {
                finishReference(index);
                continue;
            }
            if (!index.begun && start == index.start && type == QLatin1String("prft")) {
                // Writers put the producer time of a fragment before its moof and leave it
                // out of the referenced size: the reference begins behind it.
                index.start = end;
                break;
            }
            if (start < index.start) {
                // A box that reaches into the reference from before it.
                index.broken = index.broken || end > index.start;
                break;
            }
            index.broken = index.broken || (!index.begun && start != index.start);
            index.begun = true;
            index.boxesEnd = end;
            const auto duration = deep->fragment.durations.find(index.referenceId);
            if (isFragment && duration != deep->fragment.durations.end()) {
                const quint64 base = index.trackDuration.value_or(0);
                const auto span = deep->fragment.presentations.find(index.referenceId);
                if (span != deep->fragment.presentations.end() && span->second)
                    widen(index.presentation, shiftedBy(*span->second, base));
                index.trackDuration = base + duration->second;
            }
            break;
        }
    }
    dropFinishedIndexes();

    if (type == QLatin1String("moov")) {
        for (const TrackContext &track : trackContexts) {
            if (track.trackHeader.present && track.mediaHeader.present)
                deep->trackTimescales[TrackBoxes::trackId(input, track.trackHeader)] =
                    TrackBoxes::timescale(input, track.mediaHeader);
        }
    } else if (type == QLatin1String("ftyp") || type == QLatin1String("styp")) {
        // The major brand and the compatible brands, leaving out the minor version between.
        QByteArray brands(qsizetype(end > dataStart ? qMin(end - dataStart, MaxBrandBytes) : 0),
                          '\0');
        input.seek(qint64(dataStart));
        brands.truncate(qMax<qsizetype>(0, input.readBytes(brands.data(), brands.size())));
        for (qsizetype at = 0; at + 4 <= brands.size(); at += at == 0 ? 8 : 4) {
            const QByteArrayView brand(brands.constData() + at, 4);
            deep->cmaf = deep->cmaf || brand == "cmfc" || brand == "cmf2";
        }
    }
}

void ContainerMP4::checkSegmentsAtEnd()
{
    if (!deep || !checkProblems)
        return;
    if (deep->pendingFragment)
        checkFragmentData(std::nullopt);
    for (SegmentIndexWalk &index : deep->segmentIndexes) {
        // The reference the file ends in ends with the last box; those behind it are missing.
        if (index.next < index.references.size() && index.begun)
            finishReference(index);
        if (index.next < index.references.size())
            noteProblem("sidx-mismatch", Severity::Error, index.entries + 12 * index.next,
                        12 * (index.references.size() - index.next),
                        QStringLiteral("references %1 to %2 of the sidx begin at byte %3, past "
                                       "the boxes of the file")
                            .arg(index.next)
                            .arg(index.references.size() - 1)
                            .arg(index.start),
                        index.path);
    }
    deep->segmentIndexes.clear();
    deep->heldReferences = 0;
}

void ContainerMP4::finishReference(SegmentIndexWalk &index)
{
    // Named, not bound, so that the lambdas below may take them.
    const quint32 size = index.references[index.next].first;
    const quint32 duration = index.references[index.next].second;
    const quint64 end = endOf(index.start, size);
    const auto mismatch = [&](const QString &message) {
        noteProblem("sidx-mismatch", Severity::Error, index.entries + 12 * index.next, 12,
                    QStringLiteral("reference %1 of the sidx covers bytes %2 to %3: %4")
                        .arg(index.next)
                        .arg(index.start)
                        .arg(end)
                        .arg(message),
                    index.path);
    };
    const auto timescale = deep->trackTimescales.find(index.referenceId);
    if (!index.begun) {
        mismatch(QStringLiteral("no box begins there"));
    } else if (index.broken) {
        mismatch(QStringLiteral("its first byte is not the first of a box"));
    } else if (index.boxesEnd != end) {
        mismatch(QStringLiteral("the boxes there end at byte %1").arg(index.boxesEnd));
    } else if (index.trackDuration && index.timescale != 0 &&
               timescale != deep->trackTimescales.end() && timescale->second != 0) {
        // Converted to the units of the sidx, the samples may differ by less than one. The
        // duration is that of the samples or, at the end of a stream whose composition
        // offsets reorder pictures, the span of their presentation times.
        const auto same = [&](quint64 trackUnits) {
            return index.timescale == timescale->second
                       ? trackUnits == duration
                       : std::abs(double(trackUnits) * index.timescale / timescale->second -
                                  double(duration)) < 1;
        };
        const quint64 presented =
            index.presentation && index.presentation->second > index.presentation->first
                ? quint64(index.presentation->second) - quint64(index.presentation->first)
                : 0;
        if (!same(*index.trackDuration) && !(index.presentation && same(presented)))
            mismatch(QStringLiteral("it lasts %1 units of %2 per second, where the samples of "
                                    "track %3 there last %4 units of %5 per second")
                         .arg(duration)
                         .arg(index.timescale)
                         .arg(index.referenceId)
                         .arg(*index.trackDuration)
                         .arg(timescale->second) +
                     (index.presentation && presented != *index.trackDuration
                          ? QStringLiteral(" and are presented for %1").arg(presented)
                          : QString()));
    }
    index.start = end;
    ++index.next;
    index.begun = false;
    index.broken = false;
    index.boxesEnd = 0;
    index.trackDuration.reset();
    index.presentation.reset();
}

void ContainerMP4::dropFinishedIndexes()
{
    auto &indexes = deep->segmentIndexes;
    for (auto index = indexes.begin(); index != indexes.end();) {
        if (index->next < index->references.size()) {
            ++index;
            continue;
        }
        deep->heldReferences -= index->references.size();
        index = indexes.erase(index);
    }
}

void ContainerMP4::checkFragmentData(std::optional<std::pair<quint64, quint64>> mediaData)
{
    const PendingFragment fragment = *deep->pendingFragment;
    deep->pendingFragment.reset();
    if (!fragment.dataSpan)
        return;
    const auto [first, end] = *fragment.dataSpan;
    if (!mediaData)
        noteProblem("cmaf-data-outside-mdat", Severity::Warning, fragment.offset, fragment.size,
                    QStringLiteral("no mdat follows the movie fragment of a CMAF file, whose "
                                   "samples lie in bytes %1 to %2")
                        .arg(first)
                        .arg(end),
                    fragment.path);
    else if (first < mediaData->first || end > mediaData->second)
        noteProblem("cmaf-data-outside-mdat", Severity::Warning, fragment.offset, fragment.size,
                    QStringLiteral("the samples of the movie fragment of a CMAF file lie in bytes "
                                   "%1 to %2, outside the data of the mdat behind it, bytes %3 to "
                                   "%4")
                        .arg(first)
                        .arg(end)
                        .arg(mediaData->first)
                        .arg(mediaData->second),
                    fragment.path);
}

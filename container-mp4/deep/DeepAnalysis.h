#pragma once

#include "items/ItemWalk.h"
#include "samples/TrackContext.h"

#include <QStringList>
#include <QtGlobal>

#include <algorithm>
#include <map>
#include <optional>
#include <utility>
#include <vector>

// A span (first, end) widened to take in another.
template <typename T> void widen(std::optional<std::pair<T, T>> &span, std::pair<T, T> part)
{
    span = span ? std::pair{std::min(span->first, part.first), std::max(span->second, part.second)}
                : part;
}

// Presentation times (first, end) counted from a decode time `by` units later; in wrapping
// arithmetic, as hostile runs may add up past any range.
inline std::pair<qint64, qint64> shiftedBy(std::pair<qint64, qint64> span, quint64 by)
{
    return {qint64(by + quint64(span.first)), qint64(by + quint64(span.second))};
}

// The movie fragment being walked and the track fragment inside it, for the base data offset
// of their runs.
struct FragmentWalk {
    // moof
    quint64 moofOffset = 0;
    quint64 moofIndex = 0;
    quint64 trafCount = 0;   // of the moof so far
    quint64 moofDataEnd = 0; // the end of the data of its last traf
    // For the checks: the bytes the data of its runs spans; by track_ID, the durations of its
    // samples, and the span of their presentation times (first, end), counted from the decode
    // time of the track's first sample in the moof.
    std::optional<std::pair<quint64, quint64>> dataSpan;
    std::map<quint32, quint64> durations;
    std::map<quint32, std::optional<std::pair<qint64, qint64>>> presentations;
    // traf
    bool inTraf = false;
    int stream = -1; // the stream of its track; -1 before its tfhd
    quint32 trackId = 0;
    bool decodeTimeSeen = false; // a tfdt
    SampleDefaults defaults;
    quint64 baseDataOffset = 0;
    quint64 dataEnd = 0; // the end of the data of its last run
    quint64 trunCount = 0;
    std::optional<quint64> baseMediaDecodeTime;
};

// A sidx of the file whose references wait for the top-level boxes they cover, for the
// checks: each reference must begin and end on the boxes there and last as long as the
// samples of its track in them.
struct SegmentIndexWalk {
    quint64 entries = 0; // where the first reference lies in the file, 12 bytes each
    QString path;        // of the sidx
    quint32 referenceId = 0;
    quint32 timescale = 0;
    // referenced_size and subsegment_duration of each reference, in order.
    std::vector<std::pair<quint32, quint32>> references;
    size_t next = 0;    // the reference the walk is in
    quint64 start = 0;  // its first byte
    bool begun = false; // a box began inside it
    bool broken = false;
    quint64 boxesEnd = 0; // where the last box that began inside it ends
    std::optional<quint64> trackDuration;
    // The span of the presentation times of those samples, counted from the decode time of the
    // first: it differs from their durations where composition offsets reorder the pictures.
    std::optional<std::pair<qint64, qint64>> presentation;
};

// A movie fragment of a file of the cmfc or cmf2 brand, waiting for the box behind it: the
// mdat that holds the data of its runs.
struct PendingFragment {
    quint64 offset = 0;
    quint64 size = 0;
    QString path;
    std::optional<std::pair<quint64, quint64>> dataSpan;
};

// What deep analysis gathers of a file while its boxes are walked.
class DeepAnalysis {
public:
    quint64 moofCount = 0;
    int file = 0;                              // of joined files, the one being walked
    std::optional<quint32> lastSequenceNumber; // of the last mfhd
    // For the checks, of the file being walked: its sidx boxes whose references are not all
    // met yet and how many references they hold together, and the last moof of a CMAF file
    // before the box behind it is met.
    std::vector<SegmentIndexWalk> segmentIndexes;
    size_t heldReferences = 0;
    std::optional<PendingFragment> pendingFragment;
    // For the checks, of all joined files: whether a file type lists cmfc or cmf2, whose
    // fragments then follow the structural rules of CMAF, and the timescale of each track by
    // track_ID.
    bool cmaf = false;
    std::map<quint32, quint32> trackTimescales;
    // From trex, by track_ID.
    std::map<quint32, SampleDefaults> trackDefaults;
    FragmentWalk fragment;
    // The key values of the keys box of the metadata box being walked, for the items of
    // its ilst that stand for a key by its index (1 for the first).
    QStringList metadataKeys;
    // The compression type of the dcom of the compressed movie being walked.
    QString movieCompression;
    // The items of the file's top-level meta box.
    ItemWalk items;
    // The type the codecs string of a track begins with while the children of the track's
    // first sample entry are walked, for its configuration box to complete; empty elsewhere.
    QString codecsEntry;
};

#pragma once

#include "Records.h"

#include <QStringList>
#include <QtGlobal>

#include <map>
#include <optional>
#include <vector>

// Where a box of a sample table lies: its payload behind the version and flags word.
struct TableBox {
    quint64 offset = 0;
    quint64 size = 0;
    quint32 version = 0;
    bool present = false;
};

// One entry of an edit list.
struct Edit {
    quint64 segmentDuration = 0; // in the movie's time units
    qint64 mediaTime = 0;        // in the track's; -1 for an empty edit
    qint32 rate = 0;             // media_rate_integer; 0 for a dwell
};

// The defaults of a track's samples in movie fragments: those of trex, which those of tfhd
// override.
struct SampleDefaults {
    quint32 descriptionIndex = 0;
    quint32 duration = 0;
    quint32 size = 0;
    quint32 flags = 0;
};

// One run of samples of a movie fragment (trun), as the walk of the samples needs it: its
// entries stay in the file and are read again at the end.
struct FragmentRun {
    quint64 entries = 0;     // file position of its first entry
    quint32 sampleCount = 0; // the entries that lie whole inside the box and the input
    quint32 flags = 0;       // the trun's flags, which say the fields of an entry
    quint32 version = 0;
    quint64 dataOffset = 0; // file position of its first sample's data
    SampleDefaults defaults;
    std::optional<quint32> firstSampleFlags;
    // From tfdt, for the first run of a traf: the decoding time of its first sample.
    std::optional<quint64> baseMediaDecodeTime;
    FragmentOrigin origin; // trunEntry unused
};

// What deep analysis gathers of one track while its boxes are walked: where its sample
// tables lie and how its media maps onto the movie's timeline. A table given twice is taken
// from its last box.
struct TrackContext {
    TableBox timeToSample;        // stts
    TableBox compositionOffsets;  // ctts
    TableBox sampleToChunk;       // stsc
    TableBox sampleSizes;         // stsz or stz2
    quint32 compactFieldSize = 0; // stz2: bits per entry; 0 for stsz
    TableBox chunkOffsets;        // stco or co64
    quint32 chunkOffsetWidth = 4; // bytes per entry: 4 for stco, 8 for co64
    TableBox syncSamples;         // stss
    bool hasEditList = false;
    std::vector<Edit> edits;
    int perSampleIvSize = -1;      // tenc: the IV bytes of each protected sample; -1 while unknown
    std::vector<FragmentRun> runs; // of its movie fragments, in file order
};

// The movie fragment being walked and the track fragment inside it, for the base data offset
// of their runs.
struct FragmentWalk {
    // moof
    quint64 moofOffset = 0;
    quint64 moofIndex = 0;
    quint64 trafCount = 0;   // of the moof so far
    quint64 moofDataEnd = 0; // the end of the data of its last traf
    // traf
    bool inTraf = false;
    int stream = -1; // the stream of its track; -1 before its tfhd
    SampleDefaults defaults;
    quint64 baseDataOffset = 0;
    quint64 dataEnd = 0; // the end of the data of its last run
    quint64 trunCount = 0;
    std::optional<quint64> baseMediaDecodeTime;
};

// What deep analysis gathers of a file while its boxes are walked.
class DeepAnalysis {
public:
    // The context of the track of a stream, made on first use.
    TrackContext &track(int stream)
    {
        if (size_t(stream) >= tracks.size())
            tracks.resize(size_t(stream) + 1);
        return tracks[size_t(stream)];
    }
    // The track of a stream that gathered nothing is empty.
    const std::vector<TrackContext> &allTracks() const { return tracks; }

    quint32 movieTimescale = 0;
    quint64 moofCount = 0;
    // From trex, by track_ID.
    std::map<quint32, SampleDefaults> trackDefaults;
    FragmentWalk fragment;
    // The key values of the keys box of the metadata box being walked, for the items of
    // its ilst that stand for a key by its index (1 for the first).
    QStringList metadataKeys;

private:
    std::vector<TrackContext> tracks; // by stream index
};

#pragma once

#include <QStringList>
#include <QtGlobal>

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
    // The key values of the keys box of the metadata box being walked, for the items of
    // its ilst that stand for a key by its index (1 for the first).
    QStringList metadataKeys;

private:
    std::vector<TrackContext> tracks; // by stream index
};

#pragma once

#include "InputDevice.h"
#include "Records.h"

#include <QString>
#include <QtGlobal>

#include <optional>
#include <vector>

// Where a box lies that is read again at the end of the walk: its payload behind the version
// and flags word, and its version. A box given twice counts from its last.
struct TableBox {
    quint64 offset = 0;
    quint64 size = 0;
    quint32 version = 0;
    bool present = false;
    QString path; // of the box, for the problems the checks find in it
    // Where the box lies: null for the input, else the inflated bytes of a compressed movie,
    // which the parser keeps to the end.
    InputDevice *source = nullptr;
};

// The device a noted box is read from: its own source, else the input.
inline InputDevice &sourceOf(InputDevice &input, const TableBox &box)
{
    return box.source ? *box.source : input;
}

// The defaults of a track's samples in movie fragments: those of trex, which those of tfhd
// override.
struct SampleDefaults {
    quint32 descriptionIndex = 0;
    quint32 duration = 0;
    quint32 size = 0;
    quint32 flags = 0;
};

// One run of samples of a movie fragment (trun): its entries stay in the file and are read
// again at the end.
struct FragmentRun {
    QString path;            // of its trun
    quint64 entries = 0;     // file position of its first entry
    quint32 sampleCount = 0; // the entries that lie whole inside the box and the input
    quint32 flags = 0;       // the trun's flags, which say the fields of an entry
    quint32 version = 0;
    quint64 dataOffset = 0; // file position of its first sample's data
    SampleDefaults defaults;
    std::optional<quint32> firstSampleFlags;
    // From tfdt, for the first run of a traf: the decoding time of its first sample.
    std::optional<quint64> baseMediaDecodeTime;
    quint64 dataSize = 0;  // the bytes of its samples' data
    FragmentOrigin origin; // trunEntry unused
};

// What the walk notes of one track: where the boxes lie that tell its samples and its
// timing, so that they can be read again, in place, at the end; and, in deep analysis, the
// runs of its movie fragments.
struct TrackContext {
    TableBox trackHeader;            // tkhd
    TableBox mediaHeader;            // mdhd
    TableBox editList;               // elst
    TableBox timeToSample;           // stts
    TableBox compositionOffsets;     // ctts
    TableBox sampleToChunk;          // stsc
    TableBox sampleSizes;            // stsz or stz2
    bool compactSampleSizes = false; // stz2
    TableBox chunkOffsets;           // stco or co64
    quint32 chunkOffsetWidth = 4;    // bytes per entry: 4 for stco, 8 for co64
    TableBox syncSamples;            // stss
    int perSampleIvSize = -1;      // tenc: the IV bytes of each protected sample; -1 while unknown
    quint32 requiredBoxesSeen = 0; // for the checks: the boxes every track needs that it has
    bool hasCompositionOffsets = false; // a ctts box, read or not
    std::vector<FragmentRun> runs;      // of its movie fragments, in file order
};

// One entry of an edit list.
struct Edit {
    quint64 segmentDuration = 0; // in the movie's time units
    qint64 mediaTime = 0;        // in the track's; -1 for an empty edit
    qint32 rate = 0;             // media_rate_integer; 0 for a dwell
};

// The values of the noted boxes, read from the input.
namespace TrackBoxes {
// track_ID of a tkhd; 0 without one.
quint32 trackId(InputDevice &input, const TableBox &trackHeader);
// timescale of an mvhd or mdhd; 0 without one.
quint32 timescale(InputDevice &input, const TableBox &header);
// The major brand of an ftyp or styp, as its field shows it; empty without one.
QString majorBrand(InputDevice &input, const TableBox &fileType);
// duration of an mvhd or mdhd; 0 without one.
quint64 duration(InputDevice &input, const TableBox &mediaHeader);
// The ISO 639-2 code of an mdhd; empty where it holds none.
QString language(InputDevice &input, const TableBox &mediaHeader);
// The edits of an elst that lie whole in the box and the input, up to limit of them.
std::vector<Edit> edits(InputDevice &input, const TableBox &editList, size_t limit);
} // namespace TrackBoxes

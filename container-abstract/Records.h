#pragma once

#include <QString>
#include <QtGlobal>

#include <optional>
#include <utility>
#include <vector>

// The sample slot: the sample a parser is about to hand over.
struct Sample {
    quint64 offset = 0;
    quint64 size = 0;
    quint32 dts = 0;
    quint32 pts = 0;
    quint32 duration = 0;
    quint32 keyFrame = 0;
};

// What a sequence parameter set or sequence header tells of the pictures of a stream. -1 or
// 0 where it does not tell.
struct VideoFacts {
    int codedWidth = 0; // the decoded picture, in luma samples
    int codedHeight = 0;
    int width = 0; // the picture shown: the coded one less its cropping
    int height = 0;
    int bitDepthLuma = 0;
    int bitDepthChroma = 0;
    int chromaFormat = -1; // 0 monochrome, 1 4:2:0, 2 4:2:2, 3 4:4:4
    int colourPrimaries = -1;
    int transferCharacteristics = -1;
    int matrixCoefficients = -1;
    // The frame rate as timeScale / frameDuration, where the stream states it.
    quint32 timeScale = 0;
    quint32 frameDuration = 0;
};

// What deep analysis tells of the track behind a stream.
struct TrackFacts {
    quint32 trackId = 0;
    quint32 timescale = 0; // time units per second of the track's media; 0 when not known
    quint64 duration = 0;  // in the track's time units
    QString language;
    QString sampleEntry; // the type of the first sample entry, such as "avc1"
    // The codecs string of that entry, as manifests and MIME types name the stream by, such
    // as "avc1.64001F": its type and what its configuration tells of the profile and level.
    QString codecs;
    // Of a package read from its manifest: the representation (or variant) of the stream.
    QString representation;
    // Of an audio sample entry; 0 for others.
    quint32 channelCount = 0;
    quint32 sampleRate = 0;
    // Of a video stream: what its first sequence parameter set or sequence header tells.
    std::optional<VideoFacts> video;
};

// Facts of one stream, filled in by the parser while it walks the stream's boxes.
struct StreamInfo {
    int width = 0;
    int height = 0;
    int reserved = 0; // kept for the record layout; no parser uses it
    int codecId = 0;
    quint64 configOffset = 0;
    quint64 configSize = 0;
    QString codecName;               // the codec for people, such as "H.264"; empty when not known
    QString handlerType;             // the handler of the track's media, such as "vide" or "soun"
    std::optional<TrackFacts> track; // deep analysis only
    QString boxPath;                 // where the stream's box lies, such as "moov/trak[1]"
};

// What a file tells of itself as a whole, for summaries: the brand it is written to and the
// length of its presentation. Empty or 0 where the file does not tell.
struct FileFacts {
    QString majorBrand;
    quint32 timescale = 0; // time units per second of the duration
    quint64 duration = 0;
};

// Where a sample of a movie fragment came from: the moof (counted from 0 in the file, and its
// offset), the traf inside it and the trun inside that (each counted from 0), and the entry of
// the trun.
struct FragmentOrigin {
    quint64 moof = 0;
    quint64 moofOffset = 0;
    quint64 traf = 0;
    quint64 trun = 0;
    quint64 trunEntry = 0;
};

// A payload of a SEI message: its type, its size, and for what it holds the count of closed
// caption triplets (user data registered as ATSC A/53) or the UUID of unregistered data.
struct SeiPayload {
    quint32 type = 0;
    const char *name = ""; // for people, such as "recovery point"
    quint64 size = 0;
    int captions = -1; // -1: no closed captions
    QString uuid;      // of user data unregistered only
};

// A NAL unit or OBU of a sample: where it lies (its length field in front included), its
// type, the fields of its header, and of the first slice of a picture and of SEI what tells
// the most. -1 where the codec or the unit has no such field.
struct SampleUnit {
    quint64 offset = 0;
    quint64 size = 0;
    int type = 0;
    const char *typeName = ""; // for people, such as "IDR slice"
    int nalRefIdc = -1;        // H.264
    int layerId = -1;          // nuh_layer_id of HEVC, spatial_id of AV1
    int temporalId = -1;       // nuh_temporal_id_plus1 of HEVC, temporal_id of AV1
    int sliceType = -1;
    qint64 firstMbInSlice = -1;          // H.264
    int firstSliceSegmentInPicFlag = -1; // HEVC
    std::vector<SeiPayload> sei;
};

// A sample as deep analysis reports it: times in 64 bits, signed where composition offsets
// make them so, the time it is presented at, and the table entries that made it.
struct TrackSample {
    quint64 offset = 0;
    quint64 size = 0;
    qint64 dts = 0;
    qint64 pts = 0;
    quint32 duration = 0;
    bool keyFrame = false;
    // The pts mapped through the track's edit list onto the movie's timeline, in the
    // track's time units; absent where no edit presents the sample.
    std::optional<qint64> presentationTime;
    // A sample of the sample tables: its chunk, counted from 1, and the 0-based entries of
    // sample-to-chunk, time-to-sample and composition offsets (-1: no such table).
    quint64 chunk = 0;
    qint64 sampleToChunkEntry = -1;
    qint64 timeToSampleEntry = -1;
    qint64 compositionEntry = -1;
    // A sample of a movie fragment has an origin there instead.
    std::optional<FragmentOrigin> fragment;
    // Of joined files: the file the sample lies in, counted from 0; -1 for a file alone.
    int file = -1;
    // With sample units: the sample's NAL units or OBUs, valid during the call that hands
    // the sample over; null without.
    const std::vector<SampleUnit> *units = nullptr;
};

// A run of an item's bytes.
struct ItemExtent {
    quint64 offset = 0; // in the file
    quint64 length = 0;
};

// A property associated with an item: its place in the property container (counted from 1),
// its box type and path, and whether the item cannot be used without it.
struct ItemProperty {
    quint32 index = 0;
    QString type;
    bool essential = false;
    QString path; // empty where the index names no box
};

// References of one type between items: from the item to others ("to"), or from others to
// the item ("from").
struct ItemReference {
    QString type;
    bool outgoing = true;
    std::vector<quint32> items;
};

// The layout of a grid image: its tiles in rows and columns, and the size of the picture they
// make.
struct ItemGrid {
    quint32 rows = 0;
    quint32 columns = 0;
    quint32 outputWidth = 0;
    quint32 outputHeight = 0;
};

// The layout of an overlay image: the canvas, its fill colour, and where each image it
// derives from (in the order of its dimg references) lies on it.
struct ItemOverlay {
    quint16 canvasFill[4] = {}; // red, green, blue, alpha
    quint32 outputWidth = 0;
    quint32 outputHeight = 0;
    struct Offset {
        qint32 x = 0;
        qint32 y = 0;
    };
    std::vector<Offset> offsets;
};

// An item of a file of items, such as an image of a HEIF file, as deep analysis resolves it
// at the end of the walk.
struct Item {
    quint32 id = 0;
    QString type; // such as "hvc1", "av01" or "grid"
    QString name;
    QString contentType;
    bool primary = false;
    bool hidden = false;
    // Where the item's bytes lie in the file; absent, with the reason, where they cannot be
    // told.
    std::optional<std::vector<ItemExtent>> extents;
    QString extentsReason;
    std::vector<ItemProperty> properties;
    std::vector<ItemReference> references;
    // From its ispe property; 0 without one.
    quint32 width = 0;
    quint32 height = 0;
    std::optional<ItemGrid> grid;
    std::optional<ItemOverlay> overlay;
};

// What the bytes of a field shown only by its position hold. Writers that keep a file's
// bytes leave out media data and filler, and keep only the head of other data.
enum class Payload {
    Data,      // bytes the parser does not interpret, such as a box without a payload parser
    MediaData, // the media itself
    Filler,    // bytes that mean nothing (free, skip)
};

// The name of a payload kind in the reports: "data", "media-data" or "filler".
inline const char *payloadName(Payload payload)
{
    switch (payload) {
    case Payload::MediaData:
        return "media-data";
    case Payload::Filler:
        return "filler";
    case Payload::Data:
        break;
    }
    return "data";
}

// How bad a problem of a file is.
enum class Severity {
    Error,   // the file breaks the format's rules or loses data
    Warning, // legal but suspicious or wasteful
    Info,
};

// The name of a severity in the reports: "error", "warning" or "info".
inline const char *severityName(Severity severity)
{
    switch (severity) {
    case Severity::Warning:
        return "warning";
    case Severity::Info:
        return "info";
    case Severity::Error:
        break;
    }
    return "error";
}

// Something wrong with a file, found by the checks: a stable code, the bytes it concerns,
// the path of the box they lie in (such as "moov/trak[1]/mdia/minf/stbl/stsz") and a
// sentence for people that names the numbers involved.
struct Problem {
    QString code;
    Severity severity = Severity::Error;
    quint64 offset = 0;
    quint64 size = 0;
    QString path;
    QString message;
};

// The problems of a file, by severity.
struct ProblemCounts {
    quint64 errors = 0;
    quint64 warnings = 0;
    quint64 infos = 0;
};

// Bytes of a file, or of a stretch of it, by where they went.
struct CoverageParts {
    quint64 structure = 0;             // box headers, fields and payloads shown by position
    quint64 sampleData = 0;            // media data the samples reference, each byte once
    quint64 itemData = 0;              // bytes the extents of items reference, each byte once
    quint64 unreferencedMediaData = 0; // media data no sample references
    quint64 filler = 0;                // free, skip and the like
    quint64 unknown = 0;               // boxes of a type the parser does not know
    quint64 trailing = 0;              // bytes behind the last box that form no box
};

// The parts by the names the reports give them, in the order they are reported.
inline constexpr std::pair<const char *, quint64 CoverageParts::*> coveragePartNames[] = {
    {"structure", &CoverageParts::structure},
    {"sampleData", &CoverageParts::sampleData},
    {"itemData", &CoverageParts::itemData},
    {"unreferencedMediaData", &CoverageParts::unreferencedMediaData},
    {"filler", &CoverageParts::filler},
    {"unknown", &CoverageParts::unknown},
    {"trailing", &CoverageParts::trailing}};

// Where every byte of a file went. The parts add up to the file's size.
struct Coverage : CoverageParts {
    // A map of the file has at most this many cells, whatever its length.
    static constexpr quint64 MapCells = 1024;

    quint64 fileSize = 0;
    // The map: the parts of each stretch of cellSize bytes, in file order, the last one
    // possibly shorter; each cell's parts add up to its length.
    quint64 cellSize = 0;
    std::vector<CoverageParts> cells;
};

// Why the parser did not read an element's content. Writers that keep a file's bytes keep
// only the head of such an element.
enum class ElementState {
    UnknownType, // a type the parser does not know
    InvalidSize, // a size smaller than the element's own header
    TooDeep,     // nested below the deepest level the parser walks
    Inflated,    // read from bytes inflated from the file: the positions inside lie in them
};

// The name of an element state in the reports.
inline const char *elementStateName(ElementState state)
{
    switch (state) {
    case ElementState::InvalidSize:
        return "invalid-size";
    case ElementState::TooDeep:
        return "too-deep";
    case ElementState::Inflated:
        return "inflated";
    case ElementState::UnknownType:
        break;
    }
    return "unknown-type";
}

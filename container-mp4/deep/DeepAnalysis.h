#pragma once

#include "items/ItemWalk.h"
#include "samples/TrackContext.h"

#include <QStringList>
#include <QtGlobal>

#include <map>
#include <optional>

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
    quint64 moofCount = 0;
    std::optional<quint32> lastSequenceNumber; // of the last mfhd
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
};

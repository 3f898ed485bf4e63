#pragma once

#include "Records.h"

#include <array>

// The NAL units and OBUs of samples: what the first bytes of each tell, as --units lists
// them and the codec checks use them.
namespace Units {

enum class Codec { H264, Hevc, Av1 };

// What the units before tell of those behind: the parameter sets and sequence header seen,
// from the decoder configuration and in band.
struct StreamState {
    // Parameter set IDs seen: bit i of a mask for ID i.
    quint64 sequenceSets[4] = {}; // up to 256 IDs
    quint64 pictureSets[4] = {};
    // HEVC: the num_extra_slice_header_bits of each picture parameter set.
    std::array<quint8, 64> extraSliceHeaderBits = {};
    // AV1: reduced_still_picture_header of the sequence header.
    bool reducedStillPicture = false;
};

// What a unit tells beyond its listed fields.
struct UnitFacts {
    bool picture = false;         // a slice of a picture, or an AV1 frame or frame header
    bool randomAccess = false;    // an IDR or IRAP picture, an AV1 key frame
    bool intra = false;           // a slice of type I
    bool recoveryPoint = false;   // a SEI with a recovery point
    int pictureParameterSet = -1; // that a slice refers to
};

// The head of the unit: bytes holds its first available bytes (at most size). The unit's
// type, header fields, slice and SEI fields go to unit; state learns from parameter sets.
void read(Codec codec, const uchar *bytes, quint64 available, StreamState &state, SampleUnit &unit,
          UnitFacts &facts);

// How many bytes of a unit of this first byte (and second) read() wants.
quint64 wanted(Codec codec, const uchar *bytes, quint64 available);

// Whether the ID's bit is set in a mask of 256 bits; IDs out of range are never set.
inline bool has(const quint64 (&mask)[4], quint64 id)
{
    return id < 256 && (mask[id / 64] >> (id % 64) & 1);
}
inline void set(quint64 (&mask)[4], quint64 id)
{
    if (id < 256)
        mask[id / 64] |= quint64(1) << (id % 64);
}

} // namespace Units

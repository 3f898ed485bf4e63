#pragma once

#include "PayloadReader.h"

// The parameter sets of the decoder configurations, decoded syntax element after syntax
// element through the codec layer (codecs/).
enum class ParameterSet {
    AvcSequence,
    AvcPicture,
    AvcSequenceExtension,
    HevcVideo,
    HevcSequence,
    HevcPicture,
};

// Reads the body of a parameter set's NAL unit, from the current position (behind the unit's
// header, and for an AVC sequence parameter set behind level_idc) up to end, a position in
// the file. What its syntax does not cover, such as an extension not decoded, is shown as
// data. A sequence parameter set that is the track's first gives the track's video facts.
void readParameterSet(PayloadReader &box, quint64 end, ParameterSet kind, int profileIdc = 0);

// The configuration OBUs of av1C, from the current position to the end of the payload: each
// OBU's header, and the sequence header and the metadata decoded.
void readConfigurationObus(PayloadReader &box);

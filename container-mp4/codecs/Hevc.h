#pragma once

#include "Records.h"
#include "SyntaxReader.h"

// The parameter sets of HEVC, read from behind their NAL unit header of two bytes.
namespace Hevc {

void videoParameterSet(SyntaxReader &r);
void sequenceParameterSet(SyntaxReader &r, VideoFacts &facts);
void pictureParameterSet(SyntaxReader &r);

} // namespace Hevc

#pragma once

#include "Records.h"
#include "SyntaxReader.h"

// The parameter sets of H.264, read from behind their NAL unit header. The sequence
// parameter set's body starts behind profile_idc, the constraint flags and level_idc, which
// its caller reads as bytes.
namespace H264 {

// The facts of a sequence parameter set go to facts, its chroma format to chromaFormatIdc
// for the picture parameter sets behind it.
void sequenceParameterSet(SyntaxReader &r, int profileIdc, VideoFacts &facts);
void pictureParameterSet(SyntaxReader &r, int chromaFormatIdc);
void sequenceParameterSetExtension(SyntaxReader &r);

} // namespace H264

#pragma once

#include "Records.h"
#include "SyntaxReader.h"

// The OBUs of AV1 as a decoder configuration carries them: the header of each, the sequence
// header and the metadata of HDR.
namespace Av1 {

// The OBU's header: its fields, and its size from the first byte behind the size field (its
// payload); a unit without a size field runs to the end of what holds it.
struct ObuHeader {
    int type = 0;
    bool hasSize = false;
    quint64 payloadSize = 0;
};
ObuHeader obuHeader(SyntaxReader &r);
// leb128(): a size of up to 8 bytes of 7 bits each, the lowest first.
quint64 leb128(SyntaxReader &r, const char *name);

void sequenceHeader(SyntaxReader &r, VideoFacts &facts);
void metadata(SyntaxReader &r);

} // namespace Av1

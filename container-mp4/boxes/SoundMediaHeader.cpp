#include "ContainerMP4.h"
#include "Render.h"

// smhd: the stereo balance of a sound track.
int ContainerMP4::parseBoxSMHD(quint64 offset, quint64 /*size*/)
{
    // Zeroed, so that what a short read leaves out shows as 0.
    quint16 words[2] = {};
    input.readBytes(reinterpret_cast<char *>(words), sizeof words);

    // Signed 8.8: both bytes are signed, so 0xFF80 shows as -1.-128.
    swapBytes(&words[0], 2);
    reportField(offset, 2, "balance",
                Render::fixedPoint(qint8(words[0] >> 8), qint8(words[0] & 0xFF), valueBase));

    swapBytes(&words[1], 2);
    reportField(offset + 2, 2, "reserved", Render::i32(words[1], valueBase));
    return ParseOk;
}

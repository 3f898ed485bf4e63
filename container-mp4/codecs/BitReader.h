#pragma once

#include <QtGlobal>

#include <vector>

// Reads the payload of one NAL unit or OBU bit after bit: fixed-width numbers and the
// Exp-Golomb codes ue(v) and se(v). The emulation prevention bytes of a NAL unit (the 0x03
// behind two zero bytes) are taken out of what is read, yet every position the reader gives
// is a bit of the file, so that a field is shown where its bits stand.
//
// A read past the end, or an Exp-Golomb code of 32 leading zero bits or more, fails: the
// position stays at the start of that read, the reader stays failed, every later read
// returns 0, and the caller's loops end on ok().
class BitReader {
public:
    // bytes: the unit's bytes as the file holds them, the first at fileOffset. nal: whether
    // emulation prevention bytes are taken out (NAL units) or not (OBUs).
    BitReader(const uchar *bytes, quint64 size, quint64 fileOffset, bool nal);

    bool ok() const { return !failed; }
    // The position in the payload without its emulation prevention bytes, in bits.
    quint64 position() const { return bit; }
    void seek(quint64 position, bool stillOk);
    // Ends the reading, for a count no valid stream can hold.
    void fail() { failed = true; }
    // Bits left to read.
    quint64 left() const { return failed ? 0 : 8 * quint64(payload.size()) - bit; }
    // The bit of the file that holds the payload's bit at position.
    quint64 fileBit(quint64 position) const;
    // The bits of the file from the payload's bit from up to, not with, bit to: the
    // emulation prevention bytes between them count.
    quint64 fileBits(quint64 from, quint64 to) const;

    // count bits, 0 to 64, from the top bit down.
    quint64 u(int count);
    quint64 ue();
    qint64 se();
    // Whether more than the stop bit and its padding is left: the rbsp_trailing_bits are
    // the last bit set and the zero bits behind it.
    bool moreData() const;
    // Whether the next bit is that stop bit.
    bool atStopBit() const { return !failed && bit + 1 == lastOne; }
    bool byteAligned() const { return bit % 8 == 0; }

private:
    std::vector<uchar> payload;
    // The payload's byte indices that follow a removed emulation prevention byte, in order.
    std::vector<quint32> removed;
    quint64 start; // the file's bit of the first byte
    quint64 bit = 0;
    quint64 lastOne = 0; // the payload's bit just behind its last bit set; 0 without one
    bool failed = false;
};

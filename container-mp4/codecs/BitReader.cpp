#include "BitReader.h"

#include <algorithm>

BitReader::BitReader(const uchar *bytes, quint64 size, quint64 fileOffset, bool nal)
    : start(8 * fileOffset)
{
    payload.reserve(size);
    int zeros = 0;
    for (quint64 i = 0; i < size; ++i) {
        if (nal && zeros >= 2 && bytes[i] == 3) {
            removed.push_back(quint32(payload.size()));
            zeros = 0;
            continue;
        }
        zeros = bytes[i] == 0 ? zeros + 1 : 0;
        payload.push_back(bytes[i]);
    }
    for (quint64 i = payload.size(); i > 0; --i) {
        if (const uchar last = payload[i - 1]) {
            int trailing = 0;
            while (!(last >> trailing & 1))
                ++trailing;
            lastOne = 8 * i - quint64(trailing);
            break;
        }
    }
}

void BitReader::seek(quint64 position, bool stillOk)
{
    bit = position;
    failed = !stillOk;
}

quint64 BitReader::fileBit(quint64 position) const
{
    const quint64 byte = position / 8;
    const auto before = std::upper_bound(removed.begin(), removed.end(), byte) - removed.begin();
    return start + 8 * (byte + quint64(before)) + position % 8;
}

quint64 BitReader::fileBits(quint64 from, quint64 to) const
{
    return to <= from ? 0 : fileBit(to - 1) + 1 - fileBit(from);
}

quint64 BitReader::u(int count)
{
    if (failed || count < 0 || count > 64 || quint64(count) > left()) {
        failed = true;
        return 0;
    }
    quint64 value = 0;
    for (int i = 0; i < count; ++i, ++bit)
        value = value << 1 | (payload[bit / 8] >> (7 - bit % 8) & 1);
    return value;
}

quint64 BitReader::ue()
{
    // A code that fails leaves the position at its start, as a fixed-width read does.
    const quint64 start = bit;
    int zeros = 0;
    while (!failed && u(1) == 0)
        failed = failed || ++zeros >= 32;
    const quint64 rest = failed ? 0 : u(zeros);
    if (failed) {
        bit = start;
        return 0;
    }
    return (quint64(1) << zeros) - 1 + rest;
}

qint64 BitReader::se()
{
    const quint64 code = ue();
    return code & 1 ? qint64((code + 1) / 2) : -qint64(code / 2);
}

bool BitReader::moreData() const
{
    return !failed && bit + 1 < lastOne;
}

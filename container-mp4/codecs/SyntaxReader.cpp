#include "SyntaxReader.h"

void SyntaxReader::report(quint64 from, const char *name, quint64 value, bool isSigned,
                          const QString &comment, qint64 index)
{
    if (sink && bits.ok() && bits.position() > from)
        sink->field(bits.fileBit(from), bits.fileBits(from, bits.position()), name, value, isSigned,
                    comment, index);
}

quint64 SyntaxReader::u(const char *name, int count, const QString &comment, qint64 index)
{
    const quint64 from = bits.position();
    const quint64 value = bits.u(count);
    report(from, name, value, false, comment, index);
    return value;
}

quint64 SyntaxReader::ue(const char *name, const QString &comment, qint64 index)
{
    const quint64 from = bits.position();
    const quint64 value = bits.ue();
    report(from, name, value, false, comment, index);
    return value;
}

qint64 SyntaxReader::se(const char *name, qint64 index)
{
    const quint64 from = bits.position();
    const qint64 value = bits.se();
    report(from, name, quint64(value), true, QString(), index);
    return value;
}

bool SyntaxReader::flag(const char *name, qint64 index)
{
    const quint64 from = bits.position();
    const bool value = bits.u(1) != 0;
    if (sink)
        report(from, name, value, false, value ? QStringLiteral("yes") : QStringLiteral("no"),
               index);
    return value;
}

void SyntaxReader::trailingBits(bool obu)
{
    if (!bits.atStopBit())
        return;
    u(obu ? "trailing_one_bit" : "rbsp_stop_one_bit", 1);
    if (!bits.byteAligned())
        u(obu ? "trailing_zero_bit" : "rbsp_alignment_zero_bit", int(8 - bits.position() % 8));
}

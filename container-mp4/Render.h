#pragma once

#include <QString>

#include <cstring>

// How the report renders numbers and texts from file bytes.
namespace Render {

inline QString u64(quint64 value, int base)
{
    return QString::number(value, base);
}

inline QString u32(quint32 value, int base)
{
    return QString::number(value, base);
}

// Signed numbers show a minus sign in base 10 only; in any other base they show as the
// unsigned 64-bit two's complement, as the report has always rendered them.
inline QString i64(qint64 value, int base)
{
    return base == 10 ? QString::number(value) : QString::number(quint64(value), base);
}

inline QString i32(qint32 value, int base)
{
    return i64(value, base);
}

// Fixed-point text: the high and the low half as integers joined by ".", so 1.5 in 16.16
// shows as 1.32768.
inline QString fixedPoint(qint32 high, qint32 low, int base)
{
    return i32(high, base) + QLatin1Char('.') + i32(low, base);
}

// Text of file bytes: one Latin-1 character per byte, ending at the first zero byte.
inline QString latin1Text(const char *bytes, qsizetype maxLength)
{
    const void *zero = std::memchr(bytes, 0, size_t(maxLength));
    const qsizetype length = zero ? static_cast<const char *>(zero) - bytes : maxLength;
    return QString::fromLatin1(bytes, length);
}

} // namespace Render

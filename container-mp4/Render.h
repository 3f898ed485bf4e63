#pragma once

#include <QString>

#include <algorithm>
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

// Renders the numbers of a table's entries one after the other into one text, which keeps
// its storage from entry to entry: a table of millions of entries costs no allocation per
// entry as long as no one keeps a copy of the text. Each call returns the text with the new
// number, valid until the next call. The digits are those of QString::number.
class NumberText {
public:
    const QString &render(quint64 value, int base)
    {
        if (base < 2 || base > 36) {
            text = QString::number(value, base);
            return text;
        }
        char16_t digits[64];
        char16_t *const end = digits + 64;
        char16_t *begin = end;
        if (base == 10) {
            do {
                *--begin = char16_t(u'0' + value % 10);
                value /= 10;
            } while (value != 0);
        } else {
            do {
                const auto digit = char16_t(value % quint64(base));
                *--begin = digit < 10 ? char16_t(u'0' + digit) : char16_t(u'a' + digit - 10);
                value /= quint64(base);
            } while (value != 0);
        }
        text.resize(end - begin);
        std::copy(begin, end, reinterpret_cast<char16_t *>(text.data()));
        return text;
    }

private:
    QString text;
};

// Text of file bytes: one Latin-1 character per byte, ending at the first zero byte.
inline QString latin1Text(const char *bytes, qsizetype maxLength)
{
    const void *zero = std::memchr(bytes, 0, size_t(maxLength));
    const qsizetype length = zero ? static_cast<const char *>(zero) - bytes : maxLength;
    return QString::fromLatin1(bytes, length);
}

} // namespace Render

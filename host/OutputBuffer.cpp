#include "OutputBuffer.h"

namespace {
// The longest UTF-8 or escape sequence one step of appendText writes.
constexpr size_t MaxUnitBytes = 6;

// Writes the decimal digits of value so that they end at end; returns where they begin.
char *formatDecimal(quint64 value, char *end)
{
    do {
        *--end = char('0' + value % 10);
        value /= 10;
    } while (value != 0);
    return end;
}

const char HexDigits[] = "0123456789abcdef";
const char Base64Digits[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
} // namespace

OutputBuffer::OutputBuffer(FILE *out, size_t capacity)
    : out(out)
    , capacity(capacity < 64 ? 64 : capacity)
    , data(new char[this->capacity])
{
}

OutputBuffer::~OutputBuffer()
{
    drain();
}

void OutputBuffer::append(const char *text, size_t length)
{
    if (length > capacity - used) {
        drain();
        if (length > capacity) {
            writeFailed |= std::fwrite(text, 1, length, out) != length;
            return;
        }
    }
    std::memcpy(data.get() + used, text, length);
    used += length;
}

void OutputBuffer::appendUnsigned(quint64 value)
{
    char digits[20];
    char *end = digits + sizeof digits;
    const char *begin = formatDecimal(value, end);
    append(begin, size_t(end - begin));
}

void OutputBuffer::appendSigned(qint64 value)
{
    if (value < 0) {
        put('-');
        // Negating in unsigned arithmetic keeps the lowest value in range.
        appendUnsigned(0 - quint64(value));
    } else {
        appendUnsigned(quint64(value));
    }
}

void OutputBuffer::appendUnsignedPadded(quint64 value, int width)
{
    char digits[20];
    char *end = digits + sizeof digits;
    const char *begin = formatDecimal(value, end);
    appendSpaces(width - int(end - begin));
    append(begin, size_t(end - begin));
}

void OutputBuffer::appendSpaces(int count)
{
    for (; count > 0; --count)
        put(' ');
}

void OutputBuffer::appendHex(const quint8 *bytes, quint64 count, bool separator)
{
    for (quint64 i = 0; i < count; ++i) {
        reserve(3);
        if (separator && i != 0)
            data[used++] = ' ';
        data[used++] = HexDigits[bytes[i] >> 4];
        data[used++] = HexDigits[bytes[i] & 0xF];
    }
}

void OutputBuffer::appendBase64(const quint8 *bytes, quint64 count)
{
    for (quint64 i = 0; i < count; i += 3) {
        reserve(4);
        const quint64 left = count - i;
        const quint32 group = quint32(bytes[i]) << 16 |
                              (left > 1 ? quint32(bytes[i + 1]) << 8 : 0) |
                              (left > 2 ? quint32(bytes[i + 2]) : 0);
        data[used++] = Base64Digits[group >> 18];
        data[used++] = Base64Digits[(group >> 12) & 0x3F];
        data[used++] = left > 1 ? Base64Digits[(group >> 6) & 0x3F] : '=';
        data[used++] = left > 2 ? Base64Digits[group & 0x3F] : '=';
    }
}

void OutputBuffer::appendText(const QString &text, Escaping escaping)
{
    const auto *unit = reinterpret_cast<const char16_t *>(text.constData());
    const char16_t *const first = unit;
    const char16_t *const end = unit + text.size();
    while (unit != end) {
        reserve(MaxUnitBytes);
        char *at = data.get() + used;
        char32_t c = *unit++;
        if (c < 0x80) {
            const bool opensTag =
                escaping == Escaping::Script && c == '<' && unit != end && *unit == '!';
            if (c < 0x20 || (escaping == Escaping::Plain && c == 0x7F) || opensTag) {
                if (escaping != Escaping::Plain) {
                    std::memcpy(at, "\\u00", 4);
                    at += 4;
                } else {
                    *at++ = '\\';
                    *at++ = 'x';
                }
                *at++ = HexDigits[c >> 4];
                *at++ = HexDigits[c & 0xF];
            } else {
                const bool closesTag = c == '/' && escaping == Escaping::Script &&
                                       unit - 1 != first && unit[-2] == '<';
                if ((escaping != Escaping::Plain && (c == '"' || c == '\\')) || closesTag)
                    *at++ = '\\';
                *at++ = char(c);
            }
            used = size_t(at - data.get());
            continue;
        }
        // Line and paragraph separators end a line in script text.
        if (escaping == Escaping::Script && (c == 0x2028 || c == 0x2029)) {
            std::memcpy(at, c == 0x2028 ? "\\u2028" : "\\u2029", 6);
            used += 6;
            continue;
        }
        if (c >= 0xD800 && c <= 0xDFFF) {
            if (c <= 0xDBFF && unit != end && *unit >= 0xDC00 && *unit <= 0xDFFF)
                c = 0x10000 + ((c - 0xD800) << 10) + (*unit++ - 0xDC00);
            else
                c = 0xFFFD;
        }
        if (c < 0x800) {
            *at++ = char(0xC0 | (c >> 6));
        } else if (c < 0x10000) {
            *at++ = char(0xE0 | (c >> 12));
            *at++ = char(0x80 | ((c >> 6) & 0x3F));
        } else {
            *at++ = char(0xF0 | (c >> 18));
            *at++ = char(0x80 | ((c >> 12) & 0x3F));
            *at++ = char(0x80 | ((c >> 6) & 0x3F));
        }
        *at++ = char(0x80 | (c & 0x3F));
        used = size_t(at - data.get());
    }
}

void OutputBuffer::flush()
{
    drain();
    if (std::fflush(out) != 0)
        writeFailed = true;
}

void OutputBuffer::drain()
{
    if (used == 0)
        return;
    writeFailed |= std::fwrite(data.get(), 1, used, out) != used;
    used = 0;
}

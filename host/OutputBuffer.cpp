#include "OutputBuffer.h"

namespace {
const char HexDigits[] = "0123456789abcdef";
const char Base64Digits[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

// Per escaping, the ASCII characters that appendText cannot copy as they are.
struct SpecialCharacters {
    bool json[128] = {};
    bool script[128] = {};
    bool plain[128] = {};

    constexpr SpecialCharacters()
    {
        for (int c = 0; c < 0x20; ++c)
            json[c] = script[c] = plain[c] = true;
        json['"'] = json['\\'] = true;
        script['"'] = script['\\'] = script['<'] = script['/'] = true;
        plain[0x7F] = true;
    }
};
constexpr SpecialCharacters Special;
} // namespace

constexpr OutputBuffer::DecimalTables::DecimalTables()
    : powersOf10()
    , digitPairs()
{
    quint64 power = 1;
    for (int i = 0; i < 20; ++i, power *= 10)
        powersOf10[i] = power;
    for (int i = 0; i < 100; ++i) {
        digitPairs[2 * i] = char('0' + i / 10);
        digitPairs[2 * i + 1] = char('0' + i % 10);
    }
}

const OutputBuffer::DecimalTables OutputBuffer::decimal;

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

void OutputBuffer::appendLong(const char *text, size_t length)
{
    drain();
    if (length > capacity) {
        if (std::fwrite(text, 1, length, out) != length)
            writeFailed();
        return;
    }
    std::memcpy(data.get(), text, length);
    used = length;
}

void OutputBuffer::appendUnsignedPadded(quint64 value, int width)
{
    appendSpaces(width - decimalDigits(value));
    appendUnsigned(value);
}

void OutputBuffer::appendSignedPadded(qint64 value, int width)
{
    const quint64 magnitude = value < 0 ? 0 - quint64(value) : quint64(value);
    appendSpaces(width - decimalDigits(magnitude) - (value < 0 ? 1 : 0));
    appendSigned(value);
}

void OutputBuffer::appendSpaces(int count)
{
    while (count > 0) {
        const size_t now = qMin(size_t(count), capacity);
        reserve(now);
        std::memset(data.get() + used, ' ', now);
        used += now;
        count -= int(now);
    }
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

namespace {
// The work of appendText and encodeText, inlined into the report's hot path.
Q_ALWAYS_INLINE char *encode(char *at, QStringView text, qsizetype *position, qsizetype end,
                             OutputBuffer::Escaping escaping)
{
    const bool *const special = escaping == OutputBuffer::Escaping::Json     ? Special.json
                                : escaping == OutputBuffer::Escaping::Script ? Special.script
                                                                             : Special.plain;
    const char16_t *const first = text.utf16();
    const char16_t *const last = first + text.size();
    const char16_t *unit = first + *position;
    const char16_t *const pieceEnd = first + end;
    while (unit < pieceEnd) {
        char32_t c = *unit++;
        if (c < 0x80 && !special[c]) {
            *at++ = char(c);
            continue;
        }
        if (c < 0x80) {
            const bool opensTag = escaping == OutputBuffer::Escaping::Script && c == '<' &&
                                  unit != last && *unit == '!';
            if (c < 0x20 || (escaping == OutputBuffer::Escaping::Plain && c == 0x7F) || opensTag) {
                if (escaping != OutputBuffer::Escaping::Plain) {
                    std::memcpy(at, "\\u00", 4);
                    at += 4;
                } else {
                    *at++ = '\\';
                    *at++ = 'x';
                }
                *at++ = HexDigits[c >> 4];
                *at++ = HexDigits[c & 0xF];
            } else {
                const bool closesTag = c == '/' && escaping == OutputBuffer::Escaping::Script &&
                                       unit - 1 != first && unit[-2] == '<';
                if ((escaping != OutputBuffer::Escaping::Plain && (c == '"' || c == '\\')) ||
                    closesTag)
                    *at++ = '\\';
                *at++ = char(c);
            }
            continue;
        }
        // Line and paragraph separators end a line in script text.
        if (escaping == OutputBuffer::Escaping::Script && (c == 0x2028 || c == 0x2029)) {
            std::memcpy(at, c == 0x2028 ? "\\u2028" : "\\u2029", 6);
            at += 6;
            continue;
        }
        if (c >= 0xD800 && c <= 0xDFFF) {
            if (c <= 0xDBFF && unit != last && *unit >= 0xDC00 && *unit <= 0xDFFF)
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
    }
    *position = unit - first;
    return at;
}
} // namespace

void OutputBuffer::appendText(const QString &text, Escaping escaping)
{
    qsizetype position = 0;
    while (position < text.size()) {
        // Room for a piece of the text at its longest, so that no unit needs a check of its
        // own. A surrogate pair may take one unit past the piece, in 4 bytes for 2 units.
        const qsizetype pieceUnits =
            qMin(text.size() - position, qsizetype(capacity / MaxUnitBytes));
        reserve(size_t(pieceUnits) * MaxUnitBytes);
        char *const at =
            encode(data.get() + used, text, &position, position + pieceUnits, escaping);
        used = size_t(at - data.get());
    }
}

char *OutputBuffer::encodeText(char *at, QStringView text, qsizetype *position, qsizetype end,
                               Escaping escaping)
{
    return encode(at, text, position, end, escaping);
}

void OutputBuffer::flush()
{
    drain();
    if (std::fflush(out) != 0)
        writeFailed();
}

void OutputBuffer::drain()
{
    if (used == 0)
        return;
    if (std::fwrite(data.get(), 1, used, out) != used)
        writeFailed();
    used = 0;
}

void OutputBuffer::writeFailed()
{
    if (error == 0)
        error = errno != 0 ? errno : EIO;
}

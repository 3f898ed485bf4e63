#include "JsonText.h"

namespace json {

char *escape(char *at, QStringView text)
{
    static const char hex[] = "0123456789abcdef";
    const char16_t *unit = text.utf16();
    const char16_t *const end = unit + text.size();
    while (unit != end) {
        char32_t c = *unit++;
        if (c < 0x80) {
            if (c < 0x20) {
                *at++ = '\\';
                *at++ = 'u';
                *at++ = '0';
                *at++ = '0';
                *at++ = hex[c >> 4];
                *at++ = hex[c & 15];
            } else {
                if (c == '"' || c == '\\')
                    *at++ = '\\';
                *at++ = char(c);
            }
            continue;
        }
        if (c >= 0xD800 && c < 0xE000) {
            // A high surrogate followed by a low one is a pair; anything else stands alone.
            if (c < 0xDC00 && unit != end && *unit >= 0xDC00 && *unit < 0xE000)
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
    return at;
}

void appendEscaped(QByteArray &out, QStringView text)
{
    const qsizetype size = out.size();
    out.resize(size + text.size() * MaxEscapedUnitBytes);
    out.truncate(escape(out.data() + size, text) - out.constData());
}

QByteArray errorBody(const QString &message)
{
    QByteArray body("{\"error\":");
    appendString(body, message);
    body += '}';
    return body;
}

} // namespace json

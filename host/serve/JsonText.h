#pragma once

#include <QByteArray>
#include <QString>

// Pieces of the JSON answers of the server, written as the report's JSON writer writes
// them (docs/json-format.md): UTF-8, quote and backslash escaped, control characters as
// \u00XX, a lone surrogate as U+FFFD.
namespace json {
// The most bytes one UTF-16 unit of a text takes escaped.
constexpr int MaxEscapedUnitBytes = 6;
// Writes the text's content as it goes between the quotes of a JSON string at `at`, which
// has room for MaxEscapedUnitBytes per unit; returns the end of what it wrote.
char *escape(char *at, QStringView text);
// The text's content as it goes between the quotes of a JSON string.
void appendEscaped(QByteArray &out, QStringView text);
// The text as a JSON string, in quotes.
inline void appendString(QByteArray &out, QStringView text)
{
    out += '"';
    appendEscaped(out, text);
    out += '"';
}
inline void appendNumber(QByteArray &out, quint64 value)
{
    out += QByteArray::number(value);
}
inline void appendSigned(QByteArray &out, qint64 value)
{
    out += QByteArray::number(value);
}
// {"error":"..."}: the body of every answer that refuses a request.
QByteArray errorBody(const QString &message);
} // namespace json

#pragma once

#include "OutputBuffer.h"

#include <QByteArray>
#include <QString>

#include <optional>

// Pieces of the JSON answers of the server, written as the report's JSON writer writes
// them (docs/json-format.md), with the output buffer's encoding: UTF-8, quote and backslash
// escaped, control characters as \u00XX, a lone surrogate as U+FFFD.
namespace json {
// The most bytes one UTF-16 unit of a text takes escaped.
constexpr size_t MaxEscapedUnitBytes = OutputBuffer::MaxUnitBytes;
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

// Writes a JSON object into out, member by member, each behind the comma it needs; the
// object closes when the writer goes out of scope.
class Object {
public:
    explicit Object(QByteArray &out)
        : out(out)
    {
        out += '{';
    }
    ~Object() { out += '}'; }
    Object(const Object &) = delete;
    Object &operator=(const Object &) = delete;

    // Writes the member's key; its value is for the caller to write to what it returns.
    QByteArray &key(const char *name)
    {
        if (!empty)
            out += ',';
        empty = false;
        out += '"';
        out += name;
        out += "\":";
        return out;
    }
    void number(const char *name, quint64 value) { appendNumber(key(name), value); }
    void integer(const char *name, qint64 value) { appendSigned(key(name), value); }
    // An integer, or null without one.
    void optionalInteger(const char *name, std::optional<qint64> value)
    {
        if (value)
            integer(name, *value);
        else
            key(name) += "null";
    }
    void boolean(const char *name, bool value) { key(name) += value ? "true" : "false"; }
    void string(const char *name, QStringView text) { appendString(key(name), text); }
    // A text that is escaped already, or that needs no escaping (a fixed name).
    void escaped(const char *name, QByteArrayView text)
    {
        QByteArray &value = key(name);
        value += '"';
        value += text;
        value += '"';
    }

private:
    QByteArray &out;
    bool empty = true;
};

// Writes a JSON array into out: next() writes the comma an element needs and returns where
// to write it. The array closes when the writer goes out of scope.
class Array {
public:
    explicit Array(QByteArray &out)
        : out(out)
    {
        out += '[';
    }
    ~Array() { out += ']'; }
    Array(const Array &) = delete;
    Array &operator=(const Array &) = delete;

    QByteArray &next()
    {
        if (!empty)
            out += ',';
        empty = false;
        return out;
    }

private:
    QByteArray &out;
    bool empty = true;
};
} // namespace json

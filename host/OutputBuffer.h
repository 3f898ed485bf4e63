#pragma once

#include <QString>

#include <cstdio>
#include <cstring>
#include <memory>

// A write buffer in front of a FILE*. Reports run to millions of records, so the writers
// format straight into this buffer: numbers without locale machinery, strings from their
// UTF-16 units to UTF-8 without a temporary QByteArray. The buffer has a fixed size and is
// written out whenever it fills.
class OutputBuffer {
public:
    // How control characters and quotes in a string are written.
    enum class Escaping {
        Json,   // quote and backslash escaped, control characters as \u00XX
        Script, // Json that cannot end or disturb the HTML script element it sits in:
                // "</" as "<\/", "<!" as "\u003c!", U+2028 and U+2029 as \u escapes
        Plain   // control characters as \xNN, so one record stays on one line
    };

    explicit OutputBuffer(FILE *out, size_t capacity = 64 * 1024);
    ~OutputBuffer();
    OutputBuffer(const OutputBuffer &) = delete;
    OutputBuffer &operator=(const OutputBuffer &) = delete;

    void put(char c)
    {
        if (used == capacity)
            drain();
        data[used++] = c;
    }
    void append(const char *text, size_t length);
    template <size_t N> void appendLiteral(const char (&text)[N]) { append(text, N - 1); }
    void appendUnsigned(quint64 value);
    void appendSigned(qint64 value);
    // The number right-aligned in a column of at least width characters.
    void appendUnsignedPadded(quint64 value, int width);
    void appendSpaces(int count);
    // Two lower-case hex digits per byte; with separator, a space between bytes.
    void appendHex(const quint8 *bytes, quint64 count, bool separator);
    // Base64 with padding. Pieces of one text join seamlessly when all but the last hold a
    // multiple of 3 bytes.
    void appendBase64(const quint8 *bytes, quint64 count);
    // UTF-8 of the text. Lone surrogates become U+FFFD, so the output is always valid UTF-8.
    void appendText(const QString &text, Escaping escaping);

    // Writes out the buffer and flushes the stream.
    void flush();
    // Whether a write to the stream has failed.
    bool failed() const { return writeFailed || std::ferror(out) != 0; }

private:
    // Makes room for count bytes.
    void reserve(size_t count)
    {
        if (capacity - used < count)
            drain();
    }
    void drain();

    FILE *out;
    size_t capacity;
    std::unique_ptr<char[]> data;
    size_t used = 0;
    bool writeFailed = false;
};

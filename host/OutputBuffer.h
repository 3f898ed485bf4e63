#pragma once

#include <QString>
#include <QtAlgorithms>

#include <cerrno>
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
    void append(const char *text, size_t length)
    {
        if (length <= capacity - used) {
            std::memcpy(data.get() + used, text, length);
            used += length;
        } else {
            appendLong(text, length);
        }
    }
    template <size_t N> void appendLiteral(const char (&text)[N]) { append(text, N - 1); }
    void appendCString(const char *text) { append(text, std::strlen(text)); }
    void appendUnsigned(quint64 value)
    {
        reserve(MaxDigits);
        used += formatDecimal(value, data.get() + used);
    }
    void appendSigned(qint64 value)
    {
        reserve(MaxDigits + 1);
        if (value < 0) {
            data[used++] = '-';
            // Negating in unsigned arithmetic keeps the lowest value in range.
            used += formatDecimal(0 - quint64(value), data.get() + used);
        } else {
            used += formatDecimal(quint64(value), data.get() + used);
        }
    }
    // The number right-aligned in a column of at least width characters.
    void appendUnsignedPadded(quint64 value, int width);
    void appendSignedPadded(qint64 value, int width);
    void appendSpaces(int count);
    // Two lower-case hex digits per byte; with separator, a space between bytes.
    void appendHex(const quint8 *bytes, quint64 count, bool separator);
    // Base64 with padding. Pieces of one text join seamlessly when all but the last hold a
    // multiple of 3 bytes.
    void appendBase64(const quint8 *bytes, quint64 count);
    // UTF-8 of the text. Lone surrogates become U+FFFD, so the output is always valid UTF-8.
    void appendText(const QString &text, Escaping escaping);
    // The most bytes one UTF-16 unit of a text takes in appendText.
    static constexpr size_t MaxUnitBytes = 6;
    // appendText's work for the units of text from *position up to end, written at `at`,
    // which has room for MaxUnitBytes per unit: returns the end of what it wrote, and leaves
    // *position behind the last unit read (a surrogate pair may take one unit past end).
    static char *encodeText(char *at, QStringView text, qsizetype *position, qsizetype end,
                            Escaping escaping);
    // The text as a JSON string: in quotes, with the given escaping.
    void appendString(const QString &text, Escaping escaping)
    {
        put('"');
        appendText(text, escaping);
        put('"');
    }

    // The number of decimal digits of value.
    static int decimalDigits(quint64 value)
    {
        // The bit length times log10(2) is the digit count or one more than it.
        const int guess = ((64 - qCountLeadingZeroBits(value | 1)) * 1233) >> 12;
        return guess + ((value | 1) >= decimal.powersOf10[guess] ? 1 : 0);
    }

    // Writes out the buffer and flushes the stream.
    void flush();
    // The error number of the first write to the stream that failed, 0 while none has.
    int writeError() const { return error != 0 ? error : std::ferror(out) != 0 ? EIO : 0; }

private:
    static constexpr size_t MaxDigits = 20;
    // Powers of 10 up to 10^19, and the digit pairs 00 to 99.
    struct DecimalTables {
        constexpr DecimalTables();
        quint64 powersOf10[MaxDigits];
        char digitPairs[200];
    };
    static const DecimalTables decimal;

    // Writes the decimal digits of value at `at`, two at a time from the last; returns
    // their count.
    static size_t formatDecimal(quint64 value, char *at)
    {
        const int count = decimalDigits(value);
        char *end = at + count;
        while (value >= 100) {
            end -= 2;
            std::memcpy(end, decimal.digitPairs + 2 * (value % 100), 2);
            value /= 100;
        }
        if (value >= 10)
            std::memcpy(end - 2, decimal.digitPairs + 2 * value, 2);
        else
            end[-1] = char('0' + value);
        return size_t(count);
    }

    // Makes room for count bytes.
    void reserve(size_t count)
    {
        if (capacity - used < count)
            drain();
    }
    // Appends a text that does not fit into what is left of the buffer.
    void appendLong(const char *text, size_t length);
    void drain();
    // Takes note of a failed write.
    void writeFailed();

    FILE *out;
    size_t capacity;
    std::unique_ptr<char[]> data;
    size_t used = 0;
    int error = 0;
};

// The fast paths of number and text output against the slow, obvious ones: the output
// buffer's digits and escapes, and the table parsers' reused number text.
#include "OutputBuffer.h"
#include "Render.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <limits>
#include <string>
#include <vector>

namespace {

// What an OutputBuffer of 64 bytes writes.
template <typename Write> std::string written(Write write)
{
    char *data = nullptr;
    size_t size = 0;
    FILE *file = open_memstream(&data, &size);
    {
        OutputBuffer out(file, 64);
        write(out);
    }
    std::fclose(file);
    std::string text(data, size);
    std::free(data);
    return text;
}

// Numbers at every change of digit count, and the extremes.
std::vector<quint64> edgeNumbers()
{
    std::vector<quint64> numbers = {0, 1, std::numeric_limits<quint64>::max(),
                                    std::numeric_limits<quint32>::max()};
    for (quint64 power = 10;; power *= 10) {
        numbers.insert(numbers.end(), {power - 1, power, power + 1});
        if (power > std::numeric_limits<quint64>::max() / 10)
            return numbers;
    }
}

TEST(NumberFormatting, DecimalDigitsOfEveryLength)
{
    for (quint64 value : edgeNumbers()) {
        const std::string expected = std::to_string(value);
        EXPECT_EQ(OutputBuffer::decimalDigits(value), int(expected.size())) << expected;
        EXPECT_EQ(written([&](OutputBuffer &out) { out.appendUnsigned(value); }), expected);
        EXPECT_EQ(written([&](OutputBuffer &out) { out.appendUnsignedPadded(value, 22); }),
                  std::string(22 - expected.size(), ' ') + expected);
    }
    for (qint64 value : {std::numeric_limits<qint64>::min(), qint64(-1), qint64(-10), qint64(0),
                         std::numeric_limits<qint64>::max()}) {
        EXPECT_EQ(written([&](OutputBuffer &out) { out.appendSigned(value); }),
                  std::to_string(value));
    }
}

TEST(NumberFormatting, NumbersSpacesAndLongTextsAtTheEdgeOfTheBuffer)
{
    // Each number starts at another place before the end of the buffer; the spaces and the
    // text are longer than the whole buffer.
    const std::string longText(150, 'y');
    std::string expected;
    for (int i = 0; i < 70; ++i)
        expected += "x" + std::to_string(18446744073709551615ULL - quint64(i));
    expected += std::string(150, ' ') + "|" + longText;
    EXPECT_EQ(written([&](OutputBuffer &out) {
                  for (int i = 0; i < 70; ++i) {
                      out.put('x');
                      out.appendUnsigned(18446744073709551615ULL - quint64(i));
                  }
                  out.appendSpaces(150);
                  out.put('|');
                  out.append(longText.data(), longText.size());
              }),
              expected);
}

TEST(NumberFormatting, EscapesOfEveryKindAtEveryPlaceOfABufferPiece)
{
    // The tail holds a character of each kind that is not copied as it is: a surrogate
    // pair, lone surrogates, a quote, a backslash, control characters, DEL, a non-ASCII
    // letter, a line separator and the two openings of HTML markup that script text must
    // not hold.
    const QString tail = QString::fromUtf16(u"\U0001F600\"\\\u0001\n\u007f\u00e9\u2028</<!") +
                         QChar(0xD800) + QChar('a') + QChar(0xDC00);
    const struct {
        OutputBuffer::Escaping escaping;
        std::string expected;
    } cases[] = {
        {OutputBuffer::Escaping::Json, "\xf0\x9f\x98\x80\\\"\\\\\\u0001\\u000a\x7f\xc3\xa9"
                                       "\xe2\x80\xa8</<!\xef\xbf\xbd"
                                       "a\xef\xbf\xbd"},
        {OutputBuffer::Escaping::Script, "\xf0\x9f\x98\x80\\\"\\\\\\u0001\\u000a\x7f\xc3\xa9"
                                         "\\u2028<\\/\\u003c!\xef\xbf\xbd"
                                         "a\xef\xbf\xbd"},
        {OutputBuffer::Escaping::Plain, "\xf0\x9f\x98\x80\"\\\\x01\\x0a\\x7f\xc3\xa9"
                                        "\xe2\x80\xa8</<!\xef\xbf\xbd"
                                        "a\xef\xbf\xbd"},
    };
    for (const auto &escapingCase : cases) {
        for (int lead = 0; lead < 40; ++lead) {
            const QString text = QString(lead, QLatin1Char('a')) + tail + tail;
            EXPECT_EQ(
                written([&](OutputBuffer &out) { out.appendText(text, escapingCase.escaping); }),
                std::string(size_t(lead), 'a') + escapingCase.expected + escapingCase.expected)
                << "escaping " << int(escapingCase.escaping) << ", lead " << lead;
        }
    }
}

TEST(NumberFormatting, NumberTextHasTheDigitsOfQStringNumberInEveryBase)
{
    Render::NumberText number;
    for (int base = 2; base <= 36; ++base) {
        for (quint64 value : edgeNumbers()) {
            EXPECT_EQ(number.render(value, base), QString::number(value, base))
                << value << " in base " << base;
        }
    }
    // The text is reused, but copies of earlier numbers keep their digits.
    const QString first = number.render(12345, 10);
    const QString second = number.render(7, 10);
    number.render(4294967295ULL, 16);
    EXPECT_EQ(first, QStringLiteral("12345"));
    EXPECT_EQ(second, QStringLiteral("7"));
}

} // namespace

// The header boxes: movie, track and media header, handler, video and sound media header and edit
// list, in every version, at their short-read thresholds and in the renderings that set them apart.

#include "Support.h"

#include <QFile>
#include <QStringList>

#include <gtest/gtest.h>

#include <ctime>
#include <string>
#include <vector>

using namespace bytes;

namespace {

// A parse that keeps the result of each top-level box.
struct Parse : TestParser {
    explicit Parse(const QByteArray &input, int valueBase = 10)
    {
        Settings settings;
        settings.valueBase = valueBase;
        configure(settings);
        parseBytes(QStringLiteral("test.mp4"), input, report);
    }

    int parseElement(quint64 *size) override
    {
        ++level;
        const int result = TestParser::parseElement(size);
        if (--level == 0)
            results.push_back(result);
        return result;
    }

    ReportTree report;
    std::vector<int> results;
    int level = 0;
};

QByteArray patched(QByteArray payload, int position, const QByteArray &bytes)
{
    return payload.replace(position, bytes.size(), bytes);
}

// A matrix with a negative word in it, to tell signed from unsigned rendering.
const QByteArray Matrix =
    cat({u32(0x00010000), zeros(12), u32(0xFFFF0000), zeros(12), u32(0x40000000)});
// mvhd from "rate" and tkhd from the 8-byte "reserved" on, the same in every version.
const QByteArray MovieTail =
    cat({u32(0x00018000), u16(0x0180), u16(0xFFFF), u32(1), u32(0xFFFFFFFF), Matrix, u32(0),
         u32(0xFFFFFFFF), u32(2), u32(3), u32(4), u32(5), u32(7)});
const QByteArray TrackTail = cat({zeros(8), u16(0xFFFF), u16(1), u16(0x0100), u16(0xFFFF), Matrix,
                                  u32(0x01408000), u32(0x00F00000)});
const QByteArray MovieV0 = cat({u32(2082844801), u32(2082844800), u32(600), u32(12345), MovieTail});
const QByteArray MovieV1 = cat({u64(6377812101), u64(0), u32(600), u64(1ull << 40), MovieTail});
const QByteArray TrackV0 =
    cat({u32(3000000000), u32(2082844801), u32(1), u32(0xDEADBEEF), u32(5000), TrackTail});
const QByteArray TrackV1 =
    cat({u64(0x100000005), u64(2082844801), u32(1), u32(0xDEADBEEF), u64(1ull << 40), TrackTail});
const QByteArray MediaV0 =
    cat({u32(2082844801), u32(3), u32(90000), u32(0x12345678), u16(0x55C4), u16(0xFFFF)});
const QByteArray MediaV1 =
    cat({u64(6377812101), u64(3), u32(90000), u64(1ull << 40), u16(0xD5C4), u16(0)});

QByteArray handler(const char *type, const QByteArray &name = QByteArray())
{
    return fullBox("hdlr", 0, 0, cat({u32(0), QByteArray(type, 4), zeros(12), name}));
}

// Dates are shown in local time; the expected texts are those of UTC.
class HeaderBoxes : public ::testing::Test {
protected:
    static void SetUpTestSuite()
    {
        qputenv("TZ", "UTC");
        tzset();
    }
};

// Whole reports, compared with tests/golden/HeaderBoxes/<name>.txt, in value base 16 when the name
// ends so. Every version but 1 has narrow times (versions 2 and 255 in the short reads below); mvhd
// moves its times from 1904 to 1970 when they lie above the offset.
TEST_F(HeaderBoxes, WholeReportsInEveryVersionAndBase)
{
    const QByteArray elstEntry = cat({u32(10), u32(20), u16(1), u16(0)});
    const std::pair<const char *, QByteArray> cases[] = {
        {"mvhd-v0", fullBox("mvhd", 0, 0, MovieV0)},
        {"mvhd-v1", fullBox("mvhd", 1, 0, MovieV1)},        // the date takes the low 32 bits
        {"mvhd-v0-base16", fullBox("mvhd", 0, 0, MovieV0)}, // comments stay decimal
        // A box shorter than its layout reads the rest from the box behind it.
        {"mvhd-shorter-than-its-layout",
         cat({fullBox("mvhd", 0, 0, MovieV0.left(92)), box("free", zeros(4))})},
        {"tkhd-v0", fullBox("tkhd", 0, 3, TrackV0)},
        {"tkhd-v1", fullBox("tkhd", 1, 3, TrackV1)},
        {"tkhd-v0-base16", fullBox("tkhd", 0, 3, TrackV0)},
        {"mdhd-v0", fullBox("mdhd", 0, 0, MediaV0)},
        {"mdhd-v1", fullBox("mdhd", 1, 0, MediaV1)}, // the pad bit is left unshifted
        {"hdlr", fullBox("hdlr", 0, 0,
                         cat({u32(0), text("vide"), u32(1), u32(2), u32(0xFFFFFFFF),
                              text("VideoHandler"), u8(0)}))},
        // Below 20 payload bytes: what is there, zeros for the rest and an empty name.
        {"hdlr-short", fullBox("hdlr", 0, 0, cat({u32(7), text("soun"), u16(0x0102)}))},
        // A size of 2^31: the name is read only as far as the input.
        {"hdlr-beyond-input",
         cat({u32(0x80000000), text("hdlr"), zeros(8), text("vide"), zeros(12), text("clipped")})},
        // The graphics mode comment only for copy.
        {"vmhd", fullBox("vmhd", 0, 1, cat({u16(0), u16(0x8000), u16(0), u16(0xFFFF)}))},
        // Short reads show the missing bytes as zero.
        {"vmhd-short", fullBox("vmhd", 0, 1, cat({u16(1), u8(0x12)}))},
        {"smhd", fullBox("smhd", 0, 0, cat({u16(0xFF80), u16(0x1234)}))},
        {"elst-v0", fullBox("elst", 0, 0,
                            cat({u32(2), u32(0xFFFFFFFF), u32(0xFFFFFFFF), u16(1), u16(0), u32(100),
                                 u32(0), u16(0xFFFF), u16(5)}))},
        {"elst-v1", fullBox("elst", 1, 0,
                            cat({u32(2), u64(1ull << 33), u64(~0ull), u16(1), u16(0), u64(7),
                                 u64(1000), u16(2), u16(0x8000)}))},
        // Other versions have only the rate and no entry size.
        {"elst-v2", fullBox("elst", 2, 0, cat({u32(2), u16(1), u16(0), u16(0xFFFF), u16(3)}))},
        {"elst-v1-base16", fullBox("elst", 1, 0, cat({u32(1), u64(5), u64(~0ull), zeros(4)}))},
        // The count says more than the box holds; the box behind it is no entry.
        {"elst-count-beyond-box",
         cat({fullBox("elst", 0, 0, cat({u32(0xFFFFFFFF), elstEntry})), box("free", zeros(4))})},
        // Half an entry at the end of the input.
        {"elst-half-entry-in-input",
         fullBox("elst", 0, 0, cat({u32(2), elstEntry, elstEntry})).left(34)},
    };
    for (const auto &[name, input] : cases) {
        SCOPED_TRACE(name);
        const Parse parsed(input, QByteArray(name).endsWith("-base16") ? 16 : 10);
        expectGolden(QStringLiteral("HeaderBoxes/") + QLatin1String(name), dump(parsed.report));
    }
}

// Single fields whose renderings tell signed from unsigned, or a rule from its neighbour.
TEST_F(HeaderBoxes, FieldRenderings)
{
    const auto movie = [](int at, const QByteArray &word) {
        return fullBox("mvhd", 0, 0, patched(MovieV0, at, word));
    };
    const std::pair<QByteArray, const char *> cases[] = {
        {movie(0, u32(0xFFFFFFFF)), "creation_time @12+4 = 2212122495 // 06-02-2040 06:28:15"},
        // Rate is signed fixed point, volume and the track's width unsigned.
        {movie(16, u32(0xFFFF0000)), "rate @28+4 = -1.0"},
        {movie(20, u16(0xFF00)), "volume @32+2 = 255.0"},
        {fullBox("tkhd", 0, 0, patched(TrackV0, 72, u32(0xFFFFFFFF))), "width @84+4 = 65535.65535"},
        // The name has one character per byte and ends at the first zero byte; a leading length
        // byte is no length.
        {handler("soun", cat({u8(3), u8(0xC3), u8(0xA9), u8(0), text("cd")})),
         "name @32+6 = \003\xC3\x83\xC2\xA9"},
    };
    for (const auto &[input, line] : cases) {
        const QString dumped = dump(Parse(input).report);
        EXPECT_TRUE(dumped.contains("  " + QString::fromUtf8(line) + '\n')) << dumped.toStdString();
    }
}

// mvhd, tkhd and mdhd need their whole layout in the input, whatever the box declares, and report
// nothing of their payload without it.
TEST_F(HeaderBoxes, ShortReadsOneByteBelowTheLayoutReportNoPayload)
{
    const struct {
        const char *type;
        quint8 version;
        int layout;        // payload bytes of the version's layout
        int payloadFields; // fields behind version and flags
    } thresholds[] = {{"mvhd", 0, 96, 11}, {"mvhd", 1, 108, 11}, {"mvhd", 2, 96, 11},
                      {"tkhd", 0, 80, 13}, {"tkhd", 1, 92, 13},  {"tkhd", 255, 80, 13},
                      {"mdhd", 0, 20, 7},  {"mdhd", 1, 32, 7},   {"mdhd", 2, 20, 7}};
    for (const auto &t : thresholds) {
        SCOPED_TRACE(std::string(t.type) + " version " + std::to_string(t.version));
        const QByteArray whole = fullBox(t.type, t.version, 0, zeros(t.layout));
        const Parse complete(whole);
        EXPECT_EQ(complete.results, std::vector<int>{ContainerAbstract::ParseOk});
        EXPECT_EQ(complete.report.root.children.at(0)->children.size(),
                  size_t(4 + t.payloadFields));
        // The box still declares its whole layout; the input ends one byte early.
        const Parse cut(whole.left(whole.size() - 1));
        EXPECT_EQ(cut.results, std::vector<int>{ContainerAbstract::ParseTruncated});
        EXPECT_EQ(dump(cut.report), dump(parseReport(whole)).section('\n', 0, 4) + '\n');
    }
}

// Dumps of the header boxes below node, in file order.
QString headerDumps(const ReportTree::Node &node)
{
    static const QStringList types = {"mvhd", "tkhd", "mdhd", "hdlr", "vmhd", "smhd", "elst"};
    QString all;
    for (const auto &child : node.children) {
        if (child->kind == ReportTree::Node::Element)
            all += types.contains(child->name) ? dump(*child) : headerDumps(*child);
    }
    return all;
}

// A real file made by FFmpeg (tests/data/make-test-files.sh): version 1 headers in the video track
// and the movie, version 0 in the audio track. The script asked for creation time 2024-01-02
// 03:04:05 UTC (stored from 1904 as 3787009445, shown as such in tkhd and mdhd), movie and video
// time scale 10^9, five seconds of 16x16 video and one second of 8 kHz audio that starts 1024
// samples into its media. The handler of the metadata below udta names "appl" (1634758764) as
// maker.
TEST_F(HeaderBoxes, RealFileEveryFieldOfTheHeaderBoxes)
{
    QFile file(QStringLiteral(SARVELINTH_SOURCE_DIR "/tests/data/header-versions.mp4"));
    ASSERT_TRUE(file.open(QIODevice::ReadOnly));
    expectGolden(QStringLiteral("HeaderBoxes/header-versions-file"),
                 headerDumps(parseReport(file.readAll()).root));
}

} // namespace

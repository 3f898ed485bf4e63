// The header boxes: movie, track and media header, handler, video and sound media header
// and edit list, field by field, in every version, at their short-read thresholds and in
// the renderings that set them apart.

#include "Support.h"

#include <QDateTime>
#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>
#include <QStringList>

#include <gtest/gtest.h>

#include <ctime>
#include <string>
#include <vector>

using namespace bytes;

namespace {

// A parser that keeps the result of each top-level box and shows the track type it ends
// with.
class ResultRecorder : public TestParser {
public:
    std::vector<int> results;

protected:
    int parseElement(quint64 *size) override
    {
        ++level;
        const int result = TestParser::parseElement(size);
        --level;
        if (level == 0)
            results.push_back(result);
        return result;
    }

private:
    int level = 0;
};

struct Parsed {
    std::string dump;
    std::vector<int> results; // one for each top-level box
    int trackType = -1;
    ReportTree report;
};

Parsed parse(const QByteArray &input, int valueBase = 10)
{
    Parsed parsed;
    ResultRecorder parser;
    ContainerAbstract::Settings settings;
    settings.valueBase = valueBase;
    parser.configure(settings);
    parser.parseBytes(QStringLiteral("test.mp4"), input, parsed.report);
    parsed.dump = dump(parsed.report).toStdString();
    parsed.results = parser.results;
    parsed.trackType = parser.currentTrackType;
    return parsed;
}

std::string report(const QByteArray &input, int valueBase = 10)
{
    return parse(input, valueBase).dump;
}

// Value of a field of the first top-level box.
std::string fieldValue(const QByteArray &input, const char *name)
{
    const ReportTree tree = parseReport(input);
    const ReportTree::Node *field = tree.root.children.at(0)->child(QString::fromLatin1(name));
    return field ? field->value.toStdString() : "(missing)";
}

std::string fieldComment(const QByteArray &input, const char *name)
{
    const ReportTree tree = parseReport(input);
    const ReportTree::Node *field = tree.root.children.at(0)->child(QString::fromLatin1(name));
    return field ? field->comment.toStdString() : "(missing)";
}

QByteArray patched(QByteArray payload, int position, const QByteArray &bytes)
{
    return payload.replace(position, bytes.size(), bytes);
}

// Dates are shown in local time; the expected texts are those of UTC.
class UtcDates : public ::testing::Test {
protected:
    static void SetUpTestSuite()
    {
        qputenv("TZ", "UTC");
        tzset();
    }
};

// A matrix with a negative word in it, to tell signed from unsigned rendering.
QByteArray matrix()
{
    return cat({u32(0x00010000), u32(0), u32(0), u32(0), u32(0xFFFF0000), u32(0), u32(0), u32(0),
                u32(0x40000000)});
}

// mvhd from "rate" on, the same in every version.
QByteArray movieHeaderTail()
{
    return cat({u32(0x00018000), u16(0x0180), u16(0xFFFF), u32(1), u32(0xFFFFFFFF), matrix(),
                u32(0), u32(0xFFFFFFFF), u32(2), u32(3), u32(4), u32(5), u32(7)});
}

QByteArray movieHeaderV0()
{
    return cat({u32(2082844801), u32(2082844800), u32(600), u32(12345), movieHeaderTail()});
}

QByteArray movieHeaderV1()
{
    return cat({u64(6377812101), u64(0), u32(600), u64(1ull << 40), movieHeaderTail()});
}

// tkhd from the 8-byte "reserved" on, the same in every version.
QByteArray trackHeaderTail()
{
    return cat({u32(0), u32(0), u16(0xFFFF), u16(1), u16(0x0100), u16(0xFFFF), matrix(),
                u32(0x01408000), u32(0x00F00000)});
}

QByteArray trackHeaderV0()
{
    return cat(
        {u32(3000000000), u32(2082844801), u32(1), u32(0xDEADBEEF), u32(5000), trackHeaderTail()});
}

QByteArray trackHeaderV1()
{
    return cat({u64(0x100000005), u64(2082844801), u32(1), u32(0xDEADBEEF), u64(1ull << 40),
                trackHeaderTail()});
}

QByteArray mediaHeaderV0()
{
    return cat({u32(2082844801), u32(3), u32(90000), u32(0x12345678), u16(0x55C4), u16(0xFFFF)});
}

QByteArray mediaHeaderV1()
{
    return cat({u64(6377812101), u64(3), u32(90000), u64(1ull << 40), u16(0xD5C4), u16(0)});
}

QByteArray handler(const char *type, const QByteArray &name = QByteArray())
{
    return fullBox("hdlr", 0, 0, cat({u32(0), QByteArray(type, 4), zeros(12), name}));
}

} // namespace

// ---------------------------------------------------------------------------------------
// mvhd

class MovieHeader : public UtcDates {};

TEST_F(MovieHeader, VersionZeroAndEveryVersionButOneUseNarrowTimes)
{
    for (int version : {0, 2, 255}) {
        const Parsed parsed = parse(fullBox("mvhd", quint8(version), 0, movieHeaderV0()));
        EXPECT_EQ(parsed.dump,
                  "mvhd @0+108\n"
                  "  size @0+4 = 108\n"
                  "  type @4+4 = mvhd\n"
                  "  version @8+1 = " +
                      std::to_string(version) +
                      "\n"
                      "  flags @9+3 = 0\n"
                      "  creation_time @12+4 = 1 // 01-01-1970 00:00:01\n"
                      "  modification_time @16+4 = 2082844800 // 02-01-2036 00:00:00\n"
                      "  timescale @20+4 = 600 // in 1/600 s\n"
                      "  duration @24+4 = 12345\n"
                      "  rate @28+4 = 1.-32768\n"
                      "  volume @32+2 = 1.128\n"
                      "  reserved @34+2 = 65535\n"
                      "  reserved @36+8 = 1, 4294967295\n"
                      "  transformation_matrix @44+36 = 65536, 0, 0, 0, 4294901760, 0, 0, 0, "
                      "1073741824 // (u, v, w)\n"
                      "  pre_defined @80+24 = 0, -1, 2, 3, 4, 5\n"
                      "  next_track_ID @104+4 = 7\n")
            << "version " << version;
        EXPECT_EQ(parsed.results, std::vector<int>{0});
    }
}

TEST_F(MovieHeader, VersionOneHasWideTimesWhoseDateTakesTheLow32Bits)
{
    EXPECT_EQ(report(fullBox("mvhd", 1, 0, movieHeaderV1())),
              "mvhd @0+120\n"
              "  size @0+4 = 120\n"
              "  type @4+4 = mvhd\n"
              "  version @8+1 = 1\n"
              "  flags @9+3 = 0\n"
              "  creation_time @12+8 = 4294967301 // 01-01-1970 00:00:05\n"
              "  modification_time @20+8 = 0 // 01-01-1970 00:00:00\n"
              "  timescale @28+4 = 600 // in 1/600 s\n"
              "  duration @32+8 = 1099511627776\n"
              "  rate @40+4 = 1.-32768\n"
              "  volume @44+2 = 1.128\n"
              "  reserved @46+2 = 65535\n"
              "  reserved @48+8 = 1, 4294967295\n"
              "  transformation_matrix @56+36 = 65536, 0, 0, 0, 4294901760, 0, 0, 0, 1073741824 "
              "// (u, v, w)\n"
              "  pre_defined @92+24 = 0, -1, 2, 3, 4, 5\n"
              "  next_track_ID @116+4 = 7\n");
}

TEST_F(MovieHeader, ValueBase16LeavesCommentsDecimalAndShowsNegativesAsTwosComplement)
{
    EXPECT_EQ(report(fullBox("mvhd", 0, 0, movieHeaderV0()), 16),
              "mvhd @0+108\n"
              "  size @0+4 = 108\n"
              "  type @4+4 = mvhd\n"
              "  version @8+1 = 0\n"
              "  flags @9+3 = 0\n"
              "  creation_time @12+4 = 1 // 01-01-1970 00:00:01\n"
              "  modification_time @16+4 = 7c25b080 // 02-01-2036 00:00:00\n"
              "  timescale @20+4 = 258 // in 1/600 s\n"
              "  duration @24+4 = 3039\n"
              "  rate @28+4 = 1.ffffffffffff8000\n"
              "  volume @32+2 = 1.80\n"
              "  reserved @34+2 = ffff\n"
              "  reserved @36+8 = 1, ffffffff\n"
              "  transformation_matrix @44+36 = 10000, 0, 0, 0, ffff0000, 0, 0, 0, 40000000 "
              "// (u, v, w)\n"
              "  pre_defined @80+24 = 0, ffffffffffffffff, 2, 3, 4, 5\n"
              "  next_track_ID @104+4 = 7\n");
}

TEST_F(MovieHeader, TimesAboveThe1904OffsetMoveTo1970AndOthersStay)
{
    struct Case {
        quint8 version;
        quint64 stored;
        const char *value;
        const char *date;
    };
    const Case cases[] = {
        {0, 0, "0", "01-01-1970 00:00:00"},
        {0, 2082844799, "2082844799", "01-01-2036 23:59:59"},
        {0, 2082844800, "2082844800", "02-01-2036 00:00:00"},
        {0, 2082844801, "1", "01-01-1970 00:00:01"},
        {0, 0xFFFFFFFF, "2212122495", "06-02-2040 06:28:15"},
        {1, 2082844801, "1", "01-01-1970 00:00:01"},
        {1, 6377812101, "4294967301", "01-01-1970 00:00:05"},
    };
    for (const Case &c : cases) {
        const QByteArray payload = c.version == 1
                                       ? patched(movieHeaderV1(), 0, u64(c.stored))
                                       : patched(movieHeaderV0(), 0, u32(quint32(c.stored)));
        const QByteArray input = fullBox("mvhd", c.version, 0, payload);
        EXPECT_EQ(fieldValue(input, "creation_time"), c.value) << c.stored;
        EXPECT_EQ(fieldComment(input, "creation_time"), c.date) << c.stored;
    }
}

TEST_F(MovieHeader, RateIsSignedFixedPointAndVolumeUnsigned)
{
    struct Case {
        quint32 rate;
        const char *rateText;
        quint16 volume;
        const char *volumeText;
    };
    const Case cases[] = {
        {0x00010000, "1.0", 0x0100, "1.0"},
        {0x00018000, "1.-32768", 0x0180, "1.128"},
        {0xFFFF0000, "-1.0", 0xFF00, "255.0"},
        {0x01408000, "320.-32768", 0x00FF, "0.255"},
    };
    for (const Case &c : cases) {
        const QByteArray payload =
            patched(patched(movieHeaderV0(), 16, u32(c.rate)), 20, u16(c.volume));
        const QByteArray input = fullBox("mvhd", 0, 0, payload);
        EXPECT_EQ(fieldValue(input, "rate"), c.rateText) << c.rate;
        EXPECT_EQ(fieldValue(input, "volume"), c.volumeText) << c.volume;
    }
}

TEST_F(MovieHeader, BoxShorterThanItsLayoutTakesTheRestFromWhatFollows)
{
    // 92 payload bytes: "next_track_ID" is the size field of the free box behind.
    const QByteArray input =
        cat({fullBox("mvhd", 0, 0, movieHeaderV0().left(92)), box("free", zeros(4))});
    const Parsed parsed = parse(input);
    const ReportTree::Node &movie = *parsed.report.root.children.at(0);
    EXPECT_EQ(movie.size, 104u);
    ASSERT_NE(movie.child("next_track_ID"), nullptr);
    EXPECT_EQ(movie.child("next_track_ID")->offset, 104u);
    EXPECT_EQ(movie.child("next_track_ID")->value, "12");
    EXPECT_EQ(parsed.report.root.children.at(1)->name, "free");
}

// ---------------------------------------------------------------------------------------
// tkhd

TEST(TrackHeader, VersionZeroAndEveryVersionButOneUseNarrowTimes)
{
    for (int version : {0, 2, 255}) {
        EXPECT_EQ(report(fullBox("tkhd", quint8(version), 3, trackHeaderV0())),
                  "tkhd @0+92\n"
                  "  size @0+4 = 92\n"
                  "  type @4+4 = tkhd\n"
                  "  version @8+1 = " +
                      std::to_string(version) +
                      "\n"
                      "  flags @9+3 = 3\n"
                      "  creation_time @12+4 = 3000000000\n"
                      "  modification_time @16+4 = 2082844801\n"
                      "  track_id @20+4 = 1\n"
                      "  reserved @24+4 = 3735928559\n"
                      "  duration @28+4 = 5000\n"
                      "  reserved @32+8 = 0, 0\n"
                      "  layer @40+2 = -1\n"
                      "  alternate_group @42+2 = 1\n"
                      "  volume @44+2 = 1.0\n"
                      "  reserved @46+2 = 65535\n"
                      "  transformation_matrix @48+36 = 65536, 0, 0, 0, -65536, 0, 0, 0, "
                      "1073741824 // (u, v, w)\n"
                      "  width @84+4 = 320.32768\n"
                      "  height @88+4 = 240.0\n")
            << "version " << version;
    }
}

TEST(TrackHeader, VersionOneHasWideTimesShownAsStored)
{
    EXPECT_EQ(report(fullBox("tkhd", 1, 3, trackHeaderV1())),
              "tkhd @0+104\n"
              "  size @0+4 = 104\n"
              "  type @4+4 = tkhd\n"
              "  version @8+1 = 1\n"
              "  flags @9+3 = 3\n"
              "  creation_time @12+8 = 4294967301\n"
              "  modification_time @20+8 = 2082844801\n"
              "  track_id @28+4 = 1\n"
              "  reserved @32+4 = 3735928559\n"
              "  duration @36+8 = 1099511627776\n"
              "  reserved @44+8 = 0, 0\n"
              "  layer @52+2 = -1\n"
              "  alternate_group @54+2 = 1\n"
              "  volume @56+2 = 1.0\n"
              "  reserved @58+2 = 65535\n"
              "  transformation_matrix @60+36 = 65536, 0, 0, 0, -65536, 0, 0, 0, 1073741824 "
              "// (u, v, w)\n"
              "  width @96+4 = 320.32768\n"
              "  height @100+4 = 240.0\n");
}

TEST(TrackHeader, ValueBase16)
{
    EXPECT_EQ(report(fullBox("tkhd", 0, 3, trackHeaderV0()), 16),
              "tkhd @0+92\n"
              "  size @0+4 = 92\n"
              "  type @4+4 = tkhd\n"
              "  version @8+1 = 0\n"
              "  flags @9+3 = 3\n"
              "  creation_time @12+4 = b2d05e00\n"
              "  modification_time @16+4 = 7c25b081\n"
              "  track_id @20+4 = 1\n"
              "  reserved @24+4 = deadbeef\n"
              "  duration @28+4 = 1388\n"
              "  reserved @32+8 = 0, 0\n"
              "  layer @40+2 = ffffffffffffffff\n"
              "  alternate_group @42+2 = 1\n"
              "  volume @44+2 = 1.0\n"
              "  reserved @46+2 = ffff\n"
              "  transformation_matrix @48+36 = 10000, 0, 0, 0, ffffffffffff0000, 0, 0, 0, "
              "40000000 // (u, v, w)\n"
              "  width @84+4 = 140.8000\n"
              "  height @88+4 = f0.0\n");
}

TEST(TrackHeader, SizeHalvesAreUnsigned)
{
    struct Case {
        quint32 width;
        const char *text;
    };
    const Case cases[] = {
        {0x01400000, "320.0"},
        {0x01408000, "320.32768"},
        {0xFFFFFFFF, "65535.65535"},
        {0, "0.0"},
    };
    for (const Case &c : cases) {
        const QByteArray input = fullBox("tkhd", 0, 0, patched(trackHeaderV0(), 72, u32(c.width)));
        EXPECT_EQ(fieldValue(input, "width"), c.text) << c.width;
    }
}

// ---------------------------------------------------------------------------------------
// mdhd

TEST(MediaHeader, VersionZeroAndEveryVersionButOneUseNarrowTimes)
{
    for (int version : {0, 2, 255}) {
        EXPECT_EQ(report(fullBox("mdhd", quint8(version), 0, mediaHeaderV0())),
                  "mdhd @0+32\n"
                  "  size @0+4 = 32\n"
                  "  type @4+4 = mdhd\n"
                  "  version @8+1 = " +
                      std::to_string(version) +
                      "\n"
                      "  flags @9+3 = 0\n"
                      "  creation_time @12+4 = 2082844801\n"
                      "  modification_time @16+4 = 3\n"
                      "  timescale @20+4 = 90000\n"
                      "  duration @24+4 = 305419896\n"
                      "  pad @28.0+1b = 0\n"
                      "  language @28.1+15b = und\n"
                      "  pre_defined @30+2 = 65535\n")
            << "version " << version;
    }
}

TEST(MediaHeader, VersionOneHasWideTimesAndAnUnshiftedPadBit)
{
    EXPECT_EQ(report(fullBox("mdhd", 1, 0, mediaHeaderV1())), "mdhd @0+44\n"
                                                              "  size @0+4 = 44\n"
                                                              "  type @4+4 = mdhd\n"
                                                              "  version @8+1 = 1\n"
                                                              "  flags @9+3 = 0\n"
                                                              "  creation_time @12+8 = 6377812101\n"
                                                              "  modification_time @20+8 = 3\n"
                                                              "  timescale @28+4 = 90000\n"
                                                              "  duration @32+8 = 1099511627776\n"
                                                              "  pad @40.0+1b = 32768\n"
                                                              "  language @40.1+15b = und\n"
                                                              "  pre_defined @42+2 = 0\n");
    EXPECT_EQ(report(fullBox("mdhd", 1, 0, mediaHeaderV1()), 16),
              "mdhd @0+44\n"
              "  size @0+4 = 44\n"
              "  type @4+4 = mdhd\n"
              "  version @8+1 = 1\n"
              "  flags @9+3 = 0\n"
              "  creation_time @12+8 = 17c25b085\n"
              "  modification_time @20+8 = 3\n"
              "  timescale @28+4 = 15f90\n"
              "  duration @32+8 = 10000000000\n"
              "  pad @40.0+1b = 8000\n"
              "  language @40.1+15b = und\n"
              "  pre_defined @42+2 = 0\n");
}

TEST(MediaHeader, LanguageIsThreeCharactersFromFiveBitGroupsUnchecked)
{
    struct Case {
        quint16 word;
        const char *language;
    };
    const Case cases[] = {
        {0x55C4, "und"}, {0xD5C4, "und"},          {0x15C7, "eng"}, // 5, 14, 7
        {0x0000, "```"}, {0x7FFF, "\x7f\x7f\x7f"}, {0x6B7B, "z{{"}, // 26, 27, 27: past z
    };
    for (const Case &c : cases) {
        const QByteArray input = fullBox("mdhd", 0, 0, patched(mediaHeaderV0(), 16, u16(c.word)));
        EXPECT_EQ(fieldValue(input, "language"), c.language) << c.word;
    }
}

// ---------------------------------------------------------------------------------------
// Short reads: mvhd, tkhd and mdhd need their whole layout in the input, whatever the box
// declares, and report nothing of their payload without it.

struct Threshold {
    const char *type;
    quint8 version;
    int layout;        // payload bytes of the version's layout
    int payloadFields; // fields behind version and flags
};

class ShortRead : public ::testing::TestWithParam<Threshold> {};

TEST_P(ShortRead, WholeLayoutInTheInputReportsEveryFieldOneByteLessNone)
{
    const Threshold t = GetParam();
    const QByteArray whole = fullBox(t.type, t.version, 0, zeros(t.layout));

    const Parsed complete = parse(whole);
    EXPECT_EQ(complete.results, std::vector<int>{ContainerAbstract::ParseOk});
    EXPECT_EQ(complete.report.root.children.at(0)->children.size(), size_t(4 + t.payloadFields));

    // The box still declares its whole layout; the input ends one byte early.
    const Parsed cut = parse(whole.left(whole.size() - 1));
    EXPECT_EQ(cut.results, std::vector<int>{ContainerAbstract::ParseTruncated});
    const ReportTree::Node &box = *cut.report.root.children.at(0);
    EXPECT_EQ(box.size, quint64(whole.size()));
    ASSERT_EQ(box.children.size(), 4u);
    EXPECT_EQ(box.children[3]->name, "flags");
}

INSTANTIATE_TEST_SUITE_P(
    HeaderBoxes, ShortRead,
    ::testing::Values(Threshold{"mvhd", 0, 96, 11}, Threshold{"mvhd", 1, 108, 11},
                      Threshold{"mvhd", 2, 96, 11}, Threshold{"tkhd", 0, 80, 13},
                      Threshold{"tkhd", 1, 92, 13}, Threshold{"tkhd", 255, 80, 13},
                      Threshold{"mdhd", 0, 20, 7}, Threshold{"mdhd", 1, 32, 7},
                      Threshold{"mdhd", 2, 20, 7}),
    [](const auto &info) {
        return std::string(info.param.type) + "Version" + std::to_string(info.param.version);
    });

// ---------------------------------------------------------------------------------------
// hdlr

TEST(Handler, FieldsAndNameUpToItsZeroByte)
{
    EXPECT_EQ(report(fullBox("hdlr", 0, 0,
                             cat({u32(0), text("vide"), u32(1), u32(2), u32(0xFFFFFFFF),
                                  text("VideoHandler"), u8(0)}))),
              "hdlr @0+45\n"
              "  size @0+4 = 45\n"
              "  type @4+4 = hdlr\n"
              "  version @8+1 = 0\n"
              "  flags @9+3 = 0\n"
              "  pre_defined @12+4 = 0\n"
              "  handler_type @16+4 = vide\n"
              "  reserved @20+4 = 1\n"
              "  reserved @24+4 = 2\n"
              "  reserved @28+4 = 4294967295\n"
              "  name @32+13 = VideoHandler\n");
}

TEST(Handler, NameFillsTheRestOfTheBoxAndEndsAtTheFirstZeroByte)
{
    struct Case {
        QByteArray name;
        const char *line;
    };
    const Case cases[] = {
        {QByteArray(), "name @32+0"},
        {text("Full"), "name @32+4 = Full"},
        {cat({text("ab"), u8(0), text("cd")}), "name @32+5 = ab"},
        {cat({u8(0), text("abc")}), "name @32+4"},
        // One character per byte, not UTF-8.
        {cat({u8(0xC3), u8(0xA9)}), "name @32+2 = \xC3\x83\xC2\xA9"},
        // A leading length byte is not treated as one.
        {cat({u8(3), text("abc")}), "name @32+4 = \x03"
                                    "abc"},
    };
    for (const Case &c : cases) {
        const std::string dumped = report(handler("soun", c.name));
        const std::string lastLine = dumped.substr(dumped.rfind("  name"));
        EXPECT_EQ(lastLine, "  " + std::string(c.line) + "\n") << c.line;
    }
}

TEST(Handler, PayloadBelowTwentyBytesReadsWhatIsThereAndHasAnEmptyName)
{
    const Parsed parsed = parse(fullBox("hdlr", 0, 0, cat({u32(7), text("soun"), u16(0x0102)})));
    EXPECT_EQ(parsed.dump, "hdlr @0+22\n"
                           "  size @0+4 = 22\n"
                           "  type @4+4 = hdlr\n"
                           "  version @8+1 = 0\n"
                           "  flags @9+3 = 0\n"
                           "  pre_defined @12+4 = 7\n"
                           "  handler_type @16+4 = soun\n"
                           "  reserved @20+4 = 16908288\n"
                           "  reserved @24+4 = 0\n"
                           "  reserved @28+4 = 0\n"
                           "  name @32+0\n");
    EXPECT_EQ(parsed.results, std::vector<int>{ContainerAbstract::ParseOk});

    // Even the handler type can be cut short.
    EXPECT_EQ(report(fullBox("hdlr", 0, 0, cat({u32(0), text("vi")}))),
              "hdlr @0+18\n"
              "  size @0+4 = 18\n"
              "  type @4+4 = hdlr\n"
              "  version @8+1 = 0\n"
              "  flags @9+3 = 0\n"
              "  pre_defined @12+4 = 0\n"
              "  handler_type @16+4 = vi\n"
              "  reserved @20+4 = 0\n"
              "  reserved @24+4 = 0\n"
              "  reserved @28+4 = 0\n"
              "  name @32+0\n");
}

TEST(Handler, NameOfABoxLargerThanTheInputIsReadOnlyAsFarAsTheInput)
{
    const QByteArray fields = cat({u32(0), text("vide"), zeros(12), text("clipped")});
    // A 32-bit size of 2^31 and a big_size of 2^40 alike.
    const QByteArray narrow = cat({u32(0x80000000), text("hdlr"), u32(0), fields});
    EXPECT_EQ(report(narrow), "hdlr @0+2147483648\n"
                              "  size @0+4 = 2147483648\n"
                              "  type @4+4 = hdlr\n"
                              "  version @8+1 = 0\n"
                              "  flags @9+3 = 0\n"
                              "  pre_defined @12+4 = 0\n"
                              "  handler_type @16+4 = vide\n"
                              "  reserved @20+4 = 0\n"
                              "  reserved @24+4 = 0\n"
                              "  reserved @28+4 = 0\n"
                              "  name @32+2147483616 = clipped\n");
    const QByteArray wide = cat({u32(1), text("hdlr"), u64(1ull << 40), u32(0), fields});
    const Parsed parsed = parse(wide);
    const ReportTree::Node *name = parsed.report.root.children.at(0)->child("name");
    ASSERT_NE(name, nullptr);
    EXPECT_EQ(name->offset, 40u);
    EXPECT_EQ(name->size, (1ull << 40) - 40);
    EXPECT_EQ(name->value, "clipped");
}

// Every hdlr read decides the track type, wherever it stands; only "vide" exactly makes a
// video track.
TEST(Handler, OnlyVideSetsTheVideoTrackTypeAndTheLastHandlerCounts)
{
    struct Case {
        std::vector<const char *> types;
        int trackType;
    };
    const Case cases[] = {
        {{"vide"}, 0},          {{"vide", "soun"}, 4}, {{"vide", "VIDE"}, 4},
        {{"vide", "vid\0"}, 4}, {{"vide", "mdir"}, 4}, {{"vide", "\0\0\0\0"}, 4},
        {{"soun", "vide"}, 0},
    };
    for (const Case &c : cases) {
        QByteArray input;
        for (const char *type : c.types)
            input += handler(type);
        EXPECT_EQ(parse(input).trackType, c.trackType) << c.types.back();
    }

    // A handler below meta behind the track's own turns the track into a non-video one.
    const QByteArray movie =
        box("moov", cat({box("trak", box("mdia", handler("vide", text("V")))),
                         box("udta", fullBox("meta", 0, 0, handler("mdir")))}));
    EXPECT_EQ(parse(movie).trackType, 4);
}

// ---------------------------------------------------------------------------------------
// vmhd and smhd

TEST(VideoMediaHeader, GraphicsModeCommentOnlyForCopyAndColourAlwaysDecimal)
{
    EXPECT_EQ(report(fullBox("vmhd", 0, 1, cat({u16(0), u16(0x8000), u16(0), u16(0xFFFF)}))),
              "vmhd @0+20\n"
              "  size @0+4 = 20\n"
              "  type @4+4 = vmhd\n"
              "  version @8+1 = 0\n"
              "  flags @9+3 = 1\n"
              "  graphicsmode @12+2 = 0 // Copy over existing image.\n"
              "  opcolor @14+6 = 32768, 0, 65535 // red, green, blue\n");
    EXPECT_EQ(report(fullBox("vmhd", 0, 1, cat({u16(0x40), u16(0x40), u16(0x40), u16(0x40)})), 16),
              "vmhd @0+20\n"
              "  size @0+4 = 20\n"
              "  type @4+4 = vmhd\n"
              "  version @8+1 = 0\n"
              "  flags @9+3 = 1\n"
              "  graphicsmode @12+2 = 40\n"
              "  opcolor @14+6 = 64, 64, 64 // red, green, blue\n");
}

TEST(VideoMediaHeader, ShortReadShowsMissingBytesAsZero)
{
    const Parsed parsed = parse(fullBox("vmhd", 0, 1, cat({u16(1), u8(0x12)})));
    EXPECT_EQ(parsed.dump, "vmhd @0+15\n"
                           "  size @0+4 = 15\n"
                           "  type @4+4 = vmhd\n"
                           "  version @8+1 = 0\n"
                           "  flags @9+3 = 1\n"
                           "  graphicsmode @12+2 = 1\n"
                           "  opcolor @14+6 = 4608, 0, 0 // red, green, blue\n");
    EXPECT_EQ(parsed.results, std::vector<int>{ContainerAbstract::ParseOk});
}

TEST(SoundMediaHeader, BalanceIsSignedInBothHalves)
{
    EXPECT_EQ(report(fullBox("smhd", 0, 0, cat({u16(0xFF80), u16(0x1234)}))),
              "smhd @0+16\n"
              "  size @0+4 = 16\n"
              "  type @4+4 = smhd\n"
              "  version @8+1 = 0\n"
              "  flags @9+3 = 0\n"
              "  balance @12+2 = -1.-128\n"
              "  reserved @14+2 = 4660\n");

    struct Case {
        quint16 balance;
        int base;
        const char *text;
    };
    const Case cases[] = {
        {0x0000, 10, "0.0"},
        {0x0100, 10, "1.0"},
        {0xFF00, 10, "-1.0"},
        {0x7F7F, 10, "127.127"},
        {0x0180, 16, "1.ffffffffffffff80"},
        {0xFF80, 16, "ffffffffffffffff.ffffffffffffff80"},
    };
    for (const Case &c : cases) {
        const ReportTree tree = [&] {
            ContainerAbstract::Settings settings;
            settings.valueBase = c.base;
            return parseReport(fullBox("smhd", 0, 0, cat({u16(c.balance), u16(0)})), settings);
        }();
        EXPECT_EQ(tree.root.children.at(0)->child("balance")->value.toStdString(), c.text)
            << c.balance;
    }
}

TEST(SoundMediaHeader, ShortReadShowsMissingBytesAsZero)
{
    EXPECT_EQ(report(fullBox("smhd", 0, 0, u8(0xFF))), "smhd @0+13\n"
                                                       "  size @0+4 = 13\n"
                                                       "  type @4+4 = smhd\n"
                                                       "  version @8+1 = 0\n"
                                                       "  flags @9+3 = 0\n"
                                                       "  balance @12+2 = -1.0\n"
                                                       "  reserved @14+2 = 0\n");
}

// ---------------------------------------------------------------------------------------
// elst

TEST(EditList, VersionZeroEntriesHave32BitTimes)
{
    EXPECT_EQ(report(fullBox("elst", 0, 0,
                             cat({u32(2), u32(0xFFFFFFFF), u32(0xFFFFFFFF), u16(1), u16(0),
                                  u32(100), u32(0), u16(0xFFFF), u16(5)}))),
              "elst @0+40\n"
              "  size @0+4 = 40\n"
              "  type @4+4 = elst\n"
              "  version @8+1 = 0\n"
              "  flags @9+3 = 0\n"
              "  entry_count @12+4 = 2\n"
              "  entry[0] @16+12\n"
              "    segment_duration @16+4 = 4294967295\n"
              "    media_time @20+4 = -1\n"
              "    media_rate_integer @24+2 = 1\n"
              "    media_rate_fraction @26+2 = 0 // default 0\n"
              "  entry[1] @28+12\n"
              "    segment_duration @28+4 = 100\n"
              "    media_time @32+4 = 0\n"
              "    media_rate_integer @36+2 = -1\n"
              "    media_rate_fraction @38+2 = 5 // default 0\n");
}

TEST(EditList, VersionOneEntriesHave64BitTimes)
{
    EXPECT_EQ(report(fullBox("elst", 1, 0,
                             cat({u32(2), u64(1ull << 33), u64(~0ull), u16(1), u16(0), u64(7),
                                  u64(1000), u16(2), u16(0x8000)}))),
              "elst @0+56\n"
              "  size @0+4 = 56\n"
              "  type @4+4 = elst\n"
              "  version @8+1 = 1\n"
              "  flags @9+3 = 0\n"
              "  entry_count @12+4 = 2\n"
              "  entry[0] @16+20\n"
              "    segment_duration @16+8 = 8589934592\n"
              "    media_time @24+8 = -1\n"
              "    media_rate_integer @32+2 = 1\n"
              "    media_rate_fraction @34+2 = 0 // default 0\n"
              "  entry[1] @36+20\n"
              "    segment_duration @36+8 = 7\n"
              "    media_time @44+8 = 1000\n"
              "    media_rate_integer @52+2 = 2\n"
              "    media_rate_fraction @54+2 = -32768 // default 0\n");
}

TEST(EditList, OtherVersionsHaveOnlyTheRateAndNoEntrySize)
{
    EXPECT_EQ(report(fullBox("elst", 2, 0, cat({u32(2), u16(1), u16(0), u16(0xFFFF), u16(3)}))),
              "elst @0+24\n"
              "  size @0+4 = 24\n"
              "  type @4+4 = elst\n"
              "  version @8+1 = 2\n"
              "  flags @9+3 = 0\n"
              "  entry_count @12+4 = 2\n"
              "  entry[0] @16+0\n"
              "    media_rate_integer @16+2 = 1\n"
              "    media_rate_fraction @18+2 = 0 // default 0\n"
              "  entry[1] @20+0\n"
              "    media_rate_integer @20+2 = -1\n"
              "    media_rate_fraction @22+2 = 3 // default 0\n");
}

TEST(EditList, ValueBase16ShowsNegativeTimesAsTwosComplement)
{
    EXPECT_EQ(report(fullBox("elst", 0, 0,
                             cat({u32(1), u32(0xFFFFFFFF), u32(0xFFFFFFFF), u16(0xFFFF), u16(0)})),
                     16),
              "elst @0+28\n"
              "  size @0+4 = 28\n"
              "  type @4+4 = elst\n"
              "  version @8+1 = 0\n"
              "  flags @9+3 = 0\n"
              "  entry_count @12+4 = 1\n"
              "  entry[0] @16+12\n"
              "    segment_duration @16+4 = ffffffff\n"
              "    media_time @20+4 = ffffffffffffffff\n"
              "    media_rate_integer @24+2 = ffffffffffffffff\n"
              "    media_rate_fraction @26+2 = 0 // default 0\n");
    const ReportTree tree = [] {
        ContainerAbstract::Settings settings;
        settings.valueBase = 16;
        return parseReport(fullBox("elst", 1, 0, cat({u32(1), u64(5), u64(~0ull), zeros(4)})),
                           settings);
    }();
    EXPECT_EQ(tree.root.children.at(0)->child("entry")->child("media_time")->value,
              "ffffffffffffffff");
}

TEST(EditList, ZeroEntries)
{
    const Parsed parsed = parse(fullBox("elst", 0, 0, u32(0)));
    EXPECT_EQ(parsed.dump, "elst @0+16\n"
                           "  size @0+4 = 16\n"
                           "  type @4+4 = elst\n"
                           "  version @8+1 = 0\n"
                           "  flags @9+3 = 0\n"
                           "  entry_count @12+4 = 0\n");
    EXPECT_EQ(parsed.results, std::vector<int>{ContainerAbstract::ParseOk});
}

TEST(EditList, EntriesStopWhereTheBoxOrTheInputEndsWhateverTheCount)
{
    const QByteArray entry = cat({u32(10), u32(20), u16(1), u16(0)});
    const char *oneEntry = "  entry[0] @16+12\n"
                           "    segment_duration @16+4 = 10\n"
                           "    media_time @20+4 = 20\n"
                           "    media_rate_integer @24+2 = 1\n"
                           "    media_rate_fraction @26+2 = 0 // default 0\n";

    // The count says more than the box holds; the box behind it is no entry.
    EXPECT_EQ(
        report(cat({fullBox("elst", 0, 0, cat({u32(0xFFFFFFFF), entry})), box("free", zeros(4))})),
        std::string("elst @0+28\n"
                    "  size @0+4 = 28\n"
                    "  type @4+4 = elst\n"
                    "  version @8+1 = 0\n"
                    "  flags @9+3 = 0\n"
                    "  entry_count @12+4 = 4294967295\n") +
            oneEntry +
            "free @28+12\n"
            "  size @28+4 = 12\n"
            "  type @32+4 = free\n"
            "  data @36+4\n");

    // Half an entry at the end of the box, and half an entry at the end of the input.
    const QByteArray halfInBox = fullBox("elst", 0, 0, cat({u32(2), entry, entry.left(6)}));
    const QByteArray halfInInput = fullBox("elst", 0, 0, cat({u32(2), entry, entry})).left(34);
    for (const QByteArray &input : {halfInBox, halfInInput}) {
        const std::string dumped = report(input);
        EXPECT_NE(dumped.find(oneEntry), std::string::npos) << dumped;
        EXPECT_EQ(dumped.find("entry[1]"), std::string::npos) << dumped;
    }
}

// ---------------------------------------------------------------------------------------
// A real file made by FFmpeg (tests/data/make-test-files.sh): version 1 headers in the
// video track and the movie, version 0 in the audio track.

namespace {

QString headerVersionsFile()
{
    return QStringLiteral(SARVELINTH_SOURCE_DIR "/tests/data/header-versions.mp4");
}

bool isHeaderBox(const QString &name)
{
    static const QStringList types = {"mvhd", "tkhd", "mdhd", "hdlr", "vmhd", "smhd", "elst"};
    return types.contains(name);
}

// Dumps of the header boxes below node, in file order.
QString headerDumps(const ReportTree::Node &node)
{
    QString all;
    for (const auto &child : node.children) {
        if (child->kind != ReportTree::Node::Element)
            continue;
        all += isHeaderBox(child->name) ? dump(*child) : headerDumps(*child);
    }
    return all;
}

} // namespace

class RealHeaderFile : public UtcDates {};

// What the script asked for: creation time 2024-01-02 03:04:05 UTC (stored from 1904 as
// 3787009445, shown as such in tkhd and mdhd), movie and video time scale 10^9, five
// seconds of 16x16 video and one second of 8 kHz audio that starts 1024 samples into its
// media. The handler of the metadata below udta names "appl" (1634758764) as maker.
TEST_F(RealHeaderFile, EveryFieldOfTheHeaderBoxes)
{
    QFile file(headerVersionsFile());
    if (!file.open(QIODevice::ReadOnly))
        GTEST_SKIP() << "missing " << headerVersionsFile().toStdString();
    const ReportTree tree = parseReport(file.readAll());
    EXPECT_EQ(headerDumps(tree.root).toStdString(),
              "mvhd @1532+120\n"
              "  size @1532+4 = 120\n"
              "  type @1536+4 = mvhd\n"
              "  version @1540+1 = 1\n"
              "  flags @1541+3 = 0\n"
              "  creation_time @1544+8 = 1704164645 // 02-01-2024 03:04:05\n"
              "  modification_time @1552+8 = 1704164645 // 02-01-2024 03:04:05\n"
              "  timescale @1560+4 = 1000000000 // in 1/1000000000 s\n"
              "  duration @1564+8 = 5000000000\n"
              "  rate @1572+4 = 1.0\n"
              "  volume @1576+2 = 1.0\n"
              "  reserved @1578+2 = 0\n"
              "  reserved @1580+8 = 0, 0\n"
              "  transformation_matrix @1588+36 = 65536, 0, 0, 0, 65536, 0, 0, 0, 1073741824 // "
              "(u, v, w)\n"
              "  pre_defined @1624+24 = 0, 0, 0, 0, 0, 0\n"
              "  next_track_ID @1648+4 = 3\n"
              "tkhd @1660+104\n"
              "  size @1660+4 = 104\n"
              "  type @1664+4 = tkhd\n"
              "  version @1668+1 = 1\n"
              "  flags @1669+3 = 3\n"
              "  creation_time @1672+8 = 3787009445\n"
              "  modification_time @1680+8 = 3787009445\n"
              "  track_id @1688+4 = 1\n"
              "  reserved @1692+4 = 0\n"
              "  duration @1696+8 = 5000000000\n"
              "  reserved @1704+8 = 0, 0\n"
              "  layer @1712+2 = 0\n"
              "  alternate_group @1714+2 = 0\n"
              "  volume @1716+2 = 0.0\n"
              "  reserved @1718+2 = 0\n"
              "  transformation_matrix @1720+36 = 65536, 0, 0, 0, 65536, 0, 0, 0, 1073741824 // "
              "(u, v, w)\n"
              "  width @1756+4 = 16.0\n"
              "  height @1760+4 = 16.0\n"
              "elst @1772+36\n"
              "  size @1772+4 = 36\n"
              "  type @1776+4 = elst\n"
              "  version @1780+1 = 1\n"
              "  flags @1781+3 = 0\n"
              "  entry_count @1784+4 = 1\n"
              "  entry[0] @1788+20\n"
              "    segment_duration @1788+8 = 5000000000\n"
              "    media_time @1796+8 = 0\n"
              "    media_rate_integer @1804+2 = 1\n"
              "    media_rate_fraction @1806+2 = 0 // default 0\n"
              "mdhd @1816+44\n"
              "  size @1816+4 = 44\n"
              "  type @1820+4 = mdhd\n"
              "  version @1824+1 = 1\n"
              "  flags @1825+3 = 0\n"
              "  creation_time @1828+8 = 3787009445\n"
              "  modification_time @1836+8 = 3787009445\n"
              "  timescale @1844+4 = 1000000000\n"
              "  duration @1848+8 = 5000000000\n"
              "  pad @1856.0+1b = 0\n"
              "  language @1856.1+15b = und\n"
              "  pre_defined @1858+2 = 0\n"
              "hdlr @1860+45\n"
              "  size @1860+4 = 45\n"
              "  type @1864+4 = hdlr\n"
              "  version @1868+1 = 0\n"
              "  flags @1869+3 = 0\n"
              "  pre_defined @1872+4 = 0\n"
              "  handler_type @1876+4 = vide\n"
              "  reserved @1880+4 = 0\n"
              "  reserved @1884+4 = 0\n"
              "  reserved @1888+4 = 0\n"
              "  name @1892+13 = VideoHandler\n"
              "vmhd @1913+20\n"
              "  size @1913+4 = 20\n"
              "  type @1917+4 = vmhd\n"
              "  version @1921+1 = 0\n"
              "  flags @1922+3 = 1\n"
              "  graphicsmode @1925+2 = 0 // Copy over existing image.\n"
              "  opcolor @1927+6 = 0, 0, 0 // red, green, blue\n"
              "tkhd @2316+92\n"
              "  size @2316+4 = 92\n"
              "  type @2320+4 = tkhd\n"
              "  version @2324+1 = 0\n"
              "  flags @2325+3 = 3\n"
              "  creation_time @2328+4 = 3787009445\n"
              "  modification_time @2332+4 = 3787009445\n"
              "  track_id @2336+4 = 2\n"
              "  reserved @2340+4 = 0\n"
              "  duration @2344+4 = 1000000000\n"
              "  reserved @2348+8 = 0, 0\n"
              "  layer @2356+2 = 0\n"
              "  alternate_group @2358+2 = 1\n"
              "  volume @2360+2 = 1.0\n"
              "  reserved @2362+2 = 0\n"
              "  transformation_matrix @2364+36 = 65536, 0, 0, 0, 65536, 0, 0, 0, 1073741824 // "
              "(u, v, w)\n"
              "  width @2400+4 = 0.0\n"
              "  height @2404+4 = 0.0\n"
              "elst @2416+28\n"
              "  size @2416+4 = 28\n"
              "  type @2420+4 = elst\n"
              "  version @2424+1 = 0\n"
              "  flags @2425+3 = 0\n"
              "  entry_count @2428+4 = 1\n"
              "  entry[0] @2432+12\n"
              "    segment_duration @2432+4 = 1000000000\n"
              "    media_time @2436+4 = 1024\n"
              "    media_rate_integer @2440+2 = 1\n"
              "    media_rate_fraction @2442+2 = 0 // default 0\n"
              "mdhd @2452+32\n"
              "  size @2452+4 = 32\n"
              "  type @2456+4 = mdhd\n"
              "  version @2460+1 = 0\n"
              "  flags @2461+3 = 0\n"
              "  creation_time @2464+4 = 3787009445\n"
              "  modification_time @2468+4 = 3787009445\n"
              "  timescale @2472+4 = 8000\n"
              "  duration @2476+4 = 9024\n"
              "  pad @2480.0+1b = 0\n"
              "  language @2480.1+15b = und\n"
              "  pre_defined @2482+2 = 0\n"
              "hdlr @2484+45\n"
              "  size @2484+4 = 45\n"
              "  type @2488+4 = hdlr\n"
              "  version @2492+1 = 0\n"
              "  flags @2493+3 = 0\n"
              "  pre_defined @2496+4 = 0\n"
              "  handler_type @2500+4 = soun\n"
              "  reserved @2504+4 = 0\n"
              "  reserved @2508+4 = 0\n"
              "  reserved @2512+4 = 0\n"
              "  name @2516+13 = SoundHandler\n"
              "smhd @2537+16\n"
              "  size @2537+4 = 16\n"
              "  type @2541+4 = smhd\n"
              "  version @2545+1 = 0\n"
              "  flags @2546+3 = 0\n"
              "  balance @2549+2 = 0.0\n"
              "  reserved @2551+2 = 0\n"
              "hdlr @2949+33\n"
              "  size @2949+4 = 33\n"
              "  type @2953+4 = hdlr\n"
              "  version @2957+1 = 0\n"
              "  flags @2958+3 = 0\n"
              "  pre_defined @2961+4 = 0\n"
              "  handler_type @2965+4 = mdir\n"
              "  reserved @2969+4 = 1634758764\n"
              "  reserved @2973+4 = 0\n"
              "  reserved @2977+4 = 0\n"
              "  name @2981+1\n");
}

namespace {

// The first element of the given name below node, depth first.
const ReportTree::Node *findElement(const ReportTree::Node &node, const QString &name)
{
    for (const auto &child : node.children) {
        if (child->kind != ReportTree::Node::Element)
            continue;
        if (child->name == name)
            return child.get();
        if (const ReportTree::Node *found = findElement(*child, name))
            return found;
    }
    return nullptr;
}

QString fieldOf(const ReportTree::Node *box, const char *name)
{
    const ReportTree::Node *field = box ? box->child(QString::fromLatin1(name)) : nullptr;
    return field ? field->value : QStringLiteral("(missing)");
}

} // namespace

// The same file as FFprobe reads it: track by track, the handler, language and time scale
// of the media, the picture size, and the duration left after the edit; for the movie,
// its creation date and duration.
TEST_F(RealHeaderFile, AgreesWithFFprobe)
{
    QFile file(headerVersionsFile());
    if (!file.open(QIODevice::ReadOnly))
        GTEST_SKIP() << "missing " << headerVersionsFile().toStdString();
    QProcess ffprobe;
    ffprobe.start(QStringLiteral("ffprobe"),
                  {"-v", "error", "-show_entries",
                   "stream=codec_type,time_base,duration_ts,width,height:"
                   "stream_tags=handler_name,language:format=duration:format_tags=creation_time",
                   "-of", "json", headerVersionsFile()});
    if (!ffprobe.waitForStarted())
        GTEST_SKIP() << "ffprobe is not installed";
    ASSERT_TRUE(ffprobe.waitForFinished());
    const QJsonObject probe = QJsonDocument::fromJson(ffprobe.readAllStandardOutput()).object();
    const QJsonArray streams = probe.value("streams").toArray();
    ASSERT_EQ(streams.size(), 2);

    const ReportTree tree = parseReport(file.readAll());
    const ReportTree::Node *movie = findElement(tree.root, "moov");
    ASSERT_NE(movie, nullptr);
    int track = 0;
    for (const auto &child : movie->children) {
        if (child->name != "trak")
            continue;
        ASSERT_LT(track, streams.size());
        const QJsonObject stream = streams.at(track++).toObject();
        const QJsonObject tags = stream.value("tags").toObject();
        const bool video = stream.value("codec_type").toString() == "video";
        const ReportTree::Node *media = findElement(*child, "mdhd");
        const ReportTree::Node *handler = findElement(*child, "hdlr");
        const ReportTree::Node *header = findElement(*child, "tkhd");
        const ReportTree::Node *editList = findElement(*child, "elst");
        const ReportTree::Node *edit = editList ? findElement(*editList, "entry") : nullptr;

        EXPECT_EQ(fieldOf(handler, "handler_type"), video ? "vide" : "soun");
        EXPECT_EQ(fieldOf(handler, "name"), tags.value("handler_name").toString());
        EXPECT_EQ(fieldOf(media, "language"), tags.value("language").toString());
        EXPECT_EQ("1/" + fieldOf(media, "timescale"), stream.value("time_base").toString());
        // FFprobe's duration is the media's own less the part the edit skips.
        EXPECT_EQ(fieldOf(media, "duration").toLongLong() -
                      fieldOf(edit, "media_time").toLongLong(),
                  qint64(stream.value("duration_ts").toDouble()));
        if (video) {
            EXPECT_EQ(fieldOf(header, "width"),
                      QString::number(stream.value("width").toInt()) + ".0");
            EXPECT_EQ(fieldOf(header, "height"),
                      QString::number(stream.value("height").toInt()) + ".0");
        }
    }
    EXPECT_EQ(track, 2);

    const ReportTree::Node *movieHeader = findElement(*movie, "mvhd");
    ASSERT_NE(movieHeader, nullptr);
    const QJsonObject format = probe.value("format").toObject();
    const QDateTime created = QDateTime::fromString(
        format.value("tags").toObject().value("creation_time").toString(), Qt::ISODateWithMs);
    ASSERT_TRUE(created.isValid());
    EXPECT_EQ(movieHeader->child("creation_time")->comment,
              created.toUTC().toString("dd-MM-yyyy hh:mm:ss"));
    EXPECT_EQ(fieldOf(movieHeader, "duration").toDouble() /
                  fieldOf(movieHeader, "timescale").toDouble(),
              format.value("duration").toString().toDouble());
}

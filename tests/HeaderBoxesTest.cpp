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
// Whole reports of each box, compared with tests/golden/HeaderBoxes/<name>.txt.

struct ReportCase {
    const char *name;
    QByteArray input;
    int valueBase;
    bool checkParsedOk; // every top-level box parsed without a problem
};

class WholeReport : public UtcDates {};

TEST_F(WholeReport, EveryHeaderBoxInEveryVersionAndBase)
{
    const QByteArray elstEntry = cat({u32(10), u32(20), u16(1), u16(0)});
    const ReportCase cases[] = {
        // Every version but 1 uses narrow times; the dates of mvhd move 1904 times to 1970.
        {"mvhd-v0", fullBox("mvhd", 0, 0, movieHeaderV0()), 10, true},
        {"mvhd-v2", fullBox("mvhd", 2, 0, movieHeaderV0()), 10, true},
        {"mvhd-v255", fullBox("mvhd", 255, 0, movieHeaderV0()), 10, true},
        // Wide times whose date takes the low 32 bits.
        {"mvhd-v1", fullBox("mvhd", 1, 0, movieHeaderV1()), 10, false},
        // Comments stay decimal; negatives show as two's complement.
        {"mvhd-v0-base16", fullBox("mvhd", 0, 0, movieHeaderV0()), 16, false},
        {"tkhd-v0", fullBox("tkhd", 0, 3, trackHeaderV0()), 10, false},
        {"tkhd-v2", fullBox("tkhd", 2, 3, trackHeaderV0()), 10, false},
        {"tkhd-v255", fullBox("tkhd", 255, 3, trackHeaderV0()), 10, false},
        // Wide times shown as stored.
        {"tkhd-v1", fullBox("tkhd", 1, 3, trackHeaderV1()), 10, false},
        {"tkhd-v0-base16", fullBox("tkhd", 0, 3, trackHeaderV0()), 16, false},
        {"mdhd-v0", fullBox("mdhd", 0, 0, mediaHeaderV0()), 10, false},
        {"mdhd-v2", fullBox("mdhd", 2, 0, mediaHeaderV0()), 10, false},
        {"mdhd-v255", fullBox("mdhd", 255, 0, mediaHeaderV0()), 10, false},
        // Wide times and a pad bit left unshifted.
        {"mdhd-v1", fullBox("mdhd", 1, 0, mediaHeaderV1()), 10, false},
        {"mdhd-v1-base16", fullBox("mdhd", 1, 0, mediaHeaderV1()), 16, false},
        // The name runs up to its zero byte.
        {"hdlr",
         fullBox("hdlr", 0, 0,
                 cat({u32(0), text("vide"), u32(1), u32(2), u32(0xFFFFFFFF), text("VideoHandler"),
                      u8(0)})),
         10, false},
        // Below 20 payload bytes: what is there, zeros for the rest and an empty name.
        {"hdlr-short", fullBox("hdlr", 0, 0, cat({u32(7), text("soun"), u16(0x0102)})), 10, true},
        {"hdlr-short-type", fullBox("hdlr", 0, 0, cat({u32(0), text("vi")})), 10, false},
        // A 32-bit size of 2^31: the name is read only as far as the input.
        {"hdlr-beyond-input",
         cat({u32(0x80000000), text("hdlr"), u32(0), u32(0), text("vide"), zeros(12),
              text("clipped")}),
         10, false},
        // The graphics mode comment only for copy; the colour always decimal.
        {"vmhd", fullBox("vmhd", 0, 1, cat({u16(0), u16(0x8000), u16(0), u16(0xFFFF)})), 10, false},
        {"vmhd-base16", fullBox("vmhd", 0, 1, cat({u16(0x40), u16(0x40), u16(0x40), u16(0x40)})),
         16, false},
        // Short reads show the missing bytes as zero.
        {"vmhd-short", fullBox("vmhd", 0, 1, cat({u16(1), u8(0x12)})), 10, true},
        {"smhd", fullBox("smhd", 0, 0, cat({u16(0xFF80), u16(0x1234)})), 10, false},
        {"smhd-short", fullBox("smhd", 0, 0, u8(0xFF)), 10, false},
        {"elst-v0",
         fullBox("elst", 0, 0,
                 cat({u32(2), u32(0xFFFFFFFF), u32(0xFFFFFFFF), u16(1), u16(0), u32(100), u32(0),
                      u16(0xFFFF), u16(5)})),
         10, false},
        {"elst-v1",
         fullBox("elst", 1, 0,
                 cat({u32(2), u64(1ull << 33), u64(~0ull), u16(1), u16(0), u64(7), u64(1000),
                      u16(2), u16(0x8000)})),
         10, false},
        // Other versions have only the rate and no entry size.
        {"elst-v2", fullBox("elst", 2, 0, cat({u32(2), u16(1), u16(0), u16(0xFFFF), u16(3)})), 10,
         false},
        {"elst-v0-base16",
         fullBox("elst", 0, 0,
                 cat({u32(1), u32(0xFFFFFFFF), u32(0xFFFFFFFF), u16(0xFFFF), u16(0)})),
         16, false},
        {"elst-empty", fullBox("elst", 0, 0, u32(0)), 10, true},
        // The count says more than the box holds; the box behind it is no entry.
        {"elst-count-beyond-box",
         cat({fullBox("elst", 0, 0, cat({u32(0xFFFFFFFF), elstEntry})), box("free", zeros(4))}), 10,
         false},
    };
    for (const ReportCase &c : cases) {
        SCOPED_TRACE(c.name);
        const Parsed parsed = parse(c.input, c.valueBase);
        expectGolden(QStringLiteral("HeaderBoxes/") + QLatin1String(c.name),
                     QString::fromStdString(parsed.dump));
        if (c.checkParsedOk) {
            EXPECT_EQ(parsed.results, std::vector<int>{ContainerAbstract::ParseOk});
        }
    }
}

class MovieHeader : public UtcDates {};

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
// tkhd, mdhd

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
// hdlr, vmhd, smhd, elst

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

TEST(Handler, NameOfABoxLargerThanTheInputIsReadOnlyAsFarAsTheInput)
{
    // A big_size of 2^40; the 32-bit size of 2^31 is in the whole-report table.
    const QByteArray wide = cat({u32(1), text("hdlr"), u64(1ull << 40), u32(0), u32(0),
                                 text("vide"), zeros(12), text("clipped")});
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
// smhd and elst

TEST(SoundMediaHeader, BalanceIsSignedInBothHalves)
{
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

TEST(EditList, ValueBase16ShowsWideNegativeTimesAsTwosComplement)
{
    ContainerAbstract::Settings settings;
    settings.valueBase = 16;
    const ReportTree tree =
        parseReport(fullBox("elst", 1, 0, cat({u32(1), u64(5), u64(~0ull), zeros(4)})), settings);
    EXPECT_EQ(tree.root.children.at(0)->child("entry")->child("media_time")->value,
              "ffffffffffffffff");
}

TEST(EditList, EntriesStopWhereTheBoxOrTheInputEnds)
{
    const QByteArray entry = cat({u32(10), u32(20), u16(1), u16(0)});
    const char *oneEntry = "  entry[0] @16+12\n"
                           "    segment_duration @16+4 = 10\n"
                           "    media_time @20+4 = 20\n"
                           "    media_rate_integer @24+2 = 1\n"
                           "    media_rate_fraction @26+2 = 0 // default 0\n";

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
    expectGolden(QStringLiteral("HeaderBoxes/header-versions-file"), headerDumps(tree.root));
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

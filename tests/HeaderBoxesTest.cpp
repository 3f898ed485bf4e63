// The header boxes: movie, track and media header, handler, video and sound media header and edit
// list, in every version, at their short-read thresholds and in the renderings that set them apart.

#include "TrackSupport.h"

#include <QDateTime>
#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>

#include <gtest/gtest.h>

#include <ctime>
#include <string>
#include <vector>

using namespace bytes;
using tracks::findElement;

namespace {

// A parser that keeps the result of each top-level box.
class ResultRecorder : public TestParser {
public:
    std::vector<int> results;

protected:
    int parseElement(quint64 *size) override
    {
        ++level;
        const int result = TestParser::parseElement(size);
        if (--level == 0)
            results.push_back(result);
        return result;
    }

private:
    int level = 0;
};

struct Parsed {
    ReportTree report;
    std::vector<int> results; // one for each top-level box
    int trackType = -1;       // the track type the parse ends with
};

Parsed parse(const QByteArray &input, int valueBase = 10)
{
    Parsed parsed;
    ResultRecorder parser;
    ContainerAbstract::Settings settings;
    settings.valueBase = valueBase;
    parser.configure(settings);
    parser.parseBytes(QStringLiteral("test.mp4"), input, parsed.report);
    parsed.results = parser.results;
    parsed.trackType = parser.currentTrackType;
    return parsed;
}

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
// ends so. Every version but 1 has narrow times; mvhd moves its times from 1904 to 1970 when they
// lie above the offset.
TEST_F(HeaderBoxes, WholeReportsInEveryVersionAndBase)
{
    const QByteArray elstEntry = cat({u32(10), u32(20), u16(1), u16(0)});
    const std::pair<const char *, QByteArray> cases[] = {
        {"mvhd-v0", fullBox("mvhd", 0, 0, MovieV0)},
        {"mvhd-v255", fullBox("mvhd", 255, 0, MovieV0)},
        {"mvhd-v1", fullBox("mvhd", 1, 0, MovieV1)},        // the date takes the low 32 bits
        {"mvhd-v0-base16", fullBox("mvhd", 0, 0, MovieV0)}, // comments stay decimal
        // A box shorter than its layout reads the rest from the box behind it.
        {"mvhd-shorter-than-its-layout",
         cat({fullBox("mvhd", 0, 0, MovieV0.left(92)), box("free", zeros(4))})},
        {"tkhd-v0", fullBox("tkhd", 0, 3, TrackV0)},
        {"tkhd-v2", fullBox("tkhd", 2, 3, TrackV0)},
        {"tkhd-v1", fullBox("tkhd", 1, 3, TrackV1)},
        {"tkhd-v0-base16", fullBox("tkhd", 0, 3, TrackV0)},
        {"mdhd-v0", fullBox("mdhd", 0, 0, MediaV0)},
        {"mdhd-v255", fullBox("mdhd", 255, 0, MediaV0)},
        {"mdhd-v1", fullBox("mdhd", 1, 0, MediaV1)}, // the pad bit is left unshifted
        {"mdhd-v1-base16", fullBox("mdhd", 1, 0, MediaV1)},
        {"hdlr", fullBox("hdlr", 0, 0,
                         cat({u32(0), text("vide"), u32(1), u32(2), u32(0xFFFFFFFF),
                              text("VideoHandler"), u8(0)}))},
        // Below 20 payload bytes: what is there, zeros for the rest and an empty name.
        {"hdlr-short", fullBox("hdlr", 0, 0, cat({u32(7), text("soun"), u16(0x0102)}))},
        {"hdlr-short-type", fullBox("hdlr", 0, 0, cat({u32(0), text("vi")}))},
        // Sizes of 2^31 and of 2^40: the name is read only as far as the input.
        {"hdlr-beyond-input",
         cat({u32(0x80000000), text("hdlr"), zeros(8), text("vide"), zeros(12), text("clipped")})},
        {"hdlr-big-size-beyond-input", cat({u32(1), text("hdlr"), u64(1ull << 40), zeros(8),
                                            text("vide"), zeros(12), text("clipped")})},
        // The graphics mode comment only for copy; the colour always decimal.
        {"vmhd", fullBox("vmhd", 0, 1, cat({u16(0), u16(0x8000), u16(0), u16(0xFFFF)}))},
        {"vmhd-base16", fullBox("vmhd", 0, 1, cat({u16(0x40), u16(0x40), u16(0x40), u16(0x40)}))},
        // Short reads show the missing bytes as zero.
        {"vmhd-short", fullBox("vmhd", 0, 1, cat({u16(1), u8(0x12)}))},
        {"smhd", fullBox("smhd", 0, 0, cat({u16(0xFF80), u16(0x1234)}))},
        {"smhd-short", fullBox("smhd", 0, 0, u8(0xFF))},
        {"elst-v0", fullBox("elst", 0, 0,
                            cat({u32(2), u32(0xFFFFFFFF), u32(0xFFFFFFFF), u16(1), u16(0), u32(100),
                                 u32(0), u16(0xFFFF), u16(5)}))},
        {"elst-v1", fullBox("elst", 1, 0,
                            cat({u32(2), u64(1ull << 33), u64(~0ull), u16(1), u16(0), u64(7),
                                 u64(1000), u16(2), u16(0x8000)}))},
        // Other versions have only the rate and no entry size.
        {"elst-v2", fullBox("elst", 2, 0, cat({u32(2), u16(1), u16(0), u16(0xFFFF), u16(3)}))},
        {"elst-v0-base16",
         fullBox("elst", 0, 0,
                 cat({u32(1), u32(0xFFFFFFFF), u32(0xFFFFFFFF), u16(0xFFFF), u16(0)}))},
        {"elst-v1-base16", fullBox("elst", 1, 0, cat({u32(1), u64(5), u64(~0ull), zeros(4)}))},
        {"elst-empty", fullBox("elst", 0, 0, u32(0))},
        // The count says more than the box holds; the box behind it is no entry.
        {"elst-count-beyond-box",
         cat({fullBox("elst", 0, 0, cat({u32(0xFFFFFFFF), elstEntry})), box("free", zeros(4))})},
        // Half an entry at the end of the box, and at the end of the input.
        {"elst-half-entry-in-box",
         fullBox("elst", 0, 0, cat({u32(2), elstEntry, elstEntry.left(6)}))},
        {"elst-half-entry-in-input",
         fullBox("elst", 0, 0, cat({u32(2), elstEntry, elstEntry})).left(34)},
    };
    for (const auto &[name, input] : cases) {
        SCOPED_TRACE(name);
        const Parsed parsed = parse(input, QByteArray(name).endsWith("-base16") ? 16 : 10);
        expectGolden(QStringLiteral("HeaderBoxes/") + QLatin1String(name), dump(parsed.report));
        for (int result : parsed.results)
            EXPECT_EQ(result, ContainerAbstract::ParseOk);
    }
}

// Single fields whose renderings tell signed from unsigned, or a rule from its neighbour.
TEST_F(HeaderBoxes, FieldRenderings)
{
    const auto movie = [](int at, const QByteArray &word) {
        return fullBox("mvhd", 0, 0, patched(MovieV0, at, word));
    };
    const auto language = [](quint16 word) {
        return fullBox("mdhd", 0, 0, patched(MediaV0, 16, u16(word)));
    };
    const auto balance = [](quint16 word) { return fullBox("smhd", 0, 0, u16(word) + u16(0)); };
    const struct {
        QByteArray input;
        int valueBase;
        const char *line;
    } cases[] = {
        {movie(0, u32(0xFFFFFFFF)), 10, "creation_time @12+4 = 2212122495 // 06-02-2040 06:28:15"},
        // Rate is signed fixed point, volume unsigned, the track's width unsigned.
        {movie(16, u32(0xFFFF0000)), 10, "rate @28+4 = -1.0"},
        {movie(20, u16(0xFF00)), 10, "volume @32+2 = 255.0"},
        {fullBox("tkhd", 0, 0, patched(TrackV0, 72, u32(0xFFFFFFFF))), 10,
         "width @84+4 = 65535.65535"},
        // Three groups of five bits above 0x60, not checked against the alphabet.
        {language(0x15C7), 10, "language @28.1+15b = eng"},
        {language(0x0000), 10, "language @28.1+15b = ```"},
        {language(0x6B7B), 10, "language @28.1+15b = z{{"},
        {balance(0xFF00), 10, "balance @12+2 = -1.0"},
        {balance(0x0180), 16, "balance @12+2 = 1.ffffffffffffff80"},
        {balance(0xFF80), 16, "balance @12+2 = ffffffffffffffff.ffffffffffffff80"},
        // The name ends at the first zero byte, has one character per byte, and a leading length
        // byte is no length.
        {handler("soun", cat({text("ab"), u8(0), text("cd")})), 10, "name @32+5 = ab"},
        {handler("soun", cat({u8(0), text("abc")})), 10, "name @32+4"},
        {handler("soun", cat({u8(0xC3), u8(0xA9)})), 10, "name @32+2 = \xC3\x83\xC2\xA9"},
        {handler("soun", cat({u8(3), text("abc")})), 10,
         "name @32+4 = \x03"
         "abc"},
    };
    for (const auto &c : cases) {
        const QString dumped = dump(parse(c.input, c.valueBase).report);
        EXPECT_TRUE(dumped.contains(QStringLiteral("  ") + QString::fromUtf8(c.line) + "\n"))
            << c.line << "\n"
            << dumped.toStdString();
    }
}

// Every hdlr read decides the track type, wherever it stands; only "vide" exactly makes a video
// track.
TEST_F(HeaderBoxes, OnlyVideMakesAVideoTrackAndTheLastHandlerCounts)
{
    const std::pair<QByteArray, int> cases[] = {
        {handler("vide"), 0},
        {handler("soun") + handler("vide"), 0},
        {handler("vide") + handler("VIDE"), 4},
        {handler("vide") + handler("vid\0"), 4},
        {handler("vide") + handler("\0\0\0\0"), 4},
        // A handler below meta behind the track's own turns the track into a non-video one.
        {box("moov", cat({box("trak", box("mdia", handler("vide", text("V")))),
                          box("udta", fullBox("meta", 0, 0, handler("mdir")))})),
         4},
    };
    for (const auto &[input, trackType] : cases)
        EXPECT_EQ(parse(input).trackType, trackType) << input.toHex().toStdString();
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
        const Parsed complete = parse(whole);
        EXPECT_EQ(complete.results, std::vector<int>{ContainerAbstract::ParseOk});
        EXPECT_EQ(complete.report.root.children.at(0)->children.size(),
                  size_t(4 + t.payloadFields));

        // The box still declares its whole layout; the input ends one byte early.
        const Parsed cut = parse(whole.left(whole.size() - 1));
        EXPECT_EQ(cut.results, std::vector<int>{ContainerAbstract::ParseTruncated});
        const ReportTree::Node &box = *cut.report.root.children.at(0);
        EXPECT_EQ(box.size, quint64(whole.size()));
        ASSERT_EQ(box.children.size(), 4u);
        EXPECT_EQ(box.children[3]->name, "flags");
    }
}

// A real file made by FFmpeg (tests/data/make-test-files.sh): version 1 headers in the video track
// and the movie, version 0 in the audio track. The script asked for creation time 2024-01-02
// 03:04:05 UTC (stored from 1904 as 3787009445, shown as such in tkhd and mdhd), movie and video
// time scale 10^9, five seconds of 16x16 video and one second of 8 kHz audio that starts 1024
// samples into its media. The handler of the metadata below udta names "appl" (1634758764) as
// maker.
const QString HeaderVersionsFile =
    QStringLiteral(SARVELINTH_SOURCE_DIR "/tests/data/header-versions.mp4");

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

TEST_F(HeaderBoxes, RealFileEveryFieldOfTheHeaderBoxes)
{
    QFile file(HeaderVersionsFile);
    if (!file.open(QIODevice::ReadOnly))
        GTEST_SKIP() << "missing " << HeaderVersionsFile.toStdString();
    expectGolden(QStringLiteral("HeaderBoxes/header-versions-file"),
                 headerDumps(parseReport(file.readAll()).root));
}

QString fieldOf(const ReportTree::Node *box, const char *name)
{
    const ReportTree::Node *field = box ? box->child(QString::fromLatin1(name)) : nullptr;
    return field ? field->value : QStringLiteral("(missing)");
}

// The same file as FFprobe reads it: track by track, the handler, language and time scale of the
// media, the picture size, and the duration left after the edit; for the movie, its creation date
// and duration.
TEST_F(HeaderBoxes, RealFileAgreesWithFFprobe)
{
    QFile file(HeaderVersionsFile);
    if (!file.open(QIODevice::ReadOnly))
        GTEST_SKIP() << "missing " << HeaderVersionsFile.toStdString();
    QProcess ffprobe;
    ffprobe.start(QStringLiteral("ffprobe"),
                  {"-v", "error", "-show_entries",
                   "stream=codec_type,time_base,duration_ts,width,height:"
                   "stream_tags=handler_name,language:format=duration:format_tags=creation_time",
                   "-of", "json", HeaderVersionsFile});
    if (!ffprobe.waitForStarted())
        GTEST_SKIP() << "ffprobe is not installed";
    ASSERT_TRUE(ffprobe.waitForFinished());
    const QJsonObject probe = QJsonDocument::fromJson(ffprobe.readAllStandardOutput()).object();
    QString theirs;
    for (const QJsonValue &value : probe.value("streams").toArray()) {
        const QJsonObject stream = value.toObject();
        const QJsonObject tags = stream.value("tags").toObject();
        theirs += QStringList{stream.value("codec_type") == "video" ? "vide" : "soun",
                              tags.value("handler_name").toString(),
                              tags.value("language").toString(),
                              stream.value("time_base").toString(),
                              QString::number(qint64(stream.value("duration_ts").toDouble())),
                              QString::number(stream.value("width").toInt()) + ".0",
                              QString::number(stream.value("height").toInt()) + ".0"}
                      .join(' ') +
                  '\n';
    }

    const ReportTree tree = parseReport(file.readAll());
    const ReportTree::Node *movie = findElement(tree.root, "moov");
    ASSERT_NE(movie, nullptr);
    QString ours;
    for (const auto &track : movie->children) {
        if (track->name != "trak")
            continue;
        const ReportTree::Node *media = findElement(*track, "mdhd");
        const ReportTree::Node *handler = findElement(*track, "hdlr");
        const ReportTree::Node *header = findElement(*track, "tkhd");
        const ReportTree::Node *editList = findElement(*track, "elst");
        // FFprobe's duration is the media's own less the part the edit skips.
        const qint64 duration =
            fieldOf(media, "duration").toLongLong() -
            fieldOf(editList ? findElement(*editList, "entry") : nullptr, "media_time")
                .toLongLong();
        ours += QStringList{fieldOf(handler, "handler_type"), fieldOf(handler, "name"),
                            fieldOf(media, "language"),       "1/" + fieldOf(media, "timescale"),
                            QString::number(duration),        fieldOf(header, "width"),
                            fieldOf(header, "height")}
                    .join(' ') +
                '\n';
    }
    EXPECT_EQ(ours.toStdString(), theirs.toStdString());

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

} // namespace

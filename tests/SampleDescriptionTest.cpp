// The sample description and the AVC configuration: the entries each reports, and what a
// video track's stream record takes from them.

#include "TrackSupport.h"

#include <gtest/gtest.h>

using namespace bytes;
using namespace tracks;

namespace {

// A visual sample entry: its 86 fixed bytes, then the tail.
QByteArray visualEntry(const char *type, quint16 width, quint16 height,
                       const QByteArray &tail = QByteArray(), quint32 size = 0,
                       const QByteArray &compressorName = text("x264"))
{
    const QByteArray fixed =
        cat({text(type), zeros(6), u16(1), u16(0), u16(0), zeros(12), u16(width), u16(height),
             u32(0x00480000), u32(0x00480000), u32(0), u16(1),
             compressorName + zeros(32 - compressorName.size()), u16(0x18), u16(0xFFFF)});
    return cat({u32(size ? size : quint32(4 + fixed.size() + tail.size())), fixed, tail});
}

// A track of the given handler type whose only other box is an stsd with these entries.
// The track is at 0, its handler at 8, the stsd at 48, its payload at 60, and the first
// entry at 64.
QByteArray describedTrack(const char *handlerType, quint32 entryCount, const QByteArray &entries)
{
    return box("trak", cat({handlerBox(handlerType),
                            fullBox("stsd", 0, 0, cat({u32(entryCount), entries}))}));
}

struct Described {
    std::string stsd; // the dump of the stsd element
    StreamInfo stream;
};

Described describe(const QByteArray &input, const ContainerAbstract::Settings &settings = {})
{
    const ReportTree report = parseReport(input, settings);
    Described described;
    if (const ReportTree::Node *stsd = findElement(report.root, QStringLiteral("stsd")))
        described.stsd = dump(*stsd).toStdString();
    if (!report.streams.isEmpty())
        described.stream = report.streams.last().info;
    return described;
}

const char *const StsdOfOneEntry = "stsd @48+115\n"
                                   "  size @48+4 = 115\n"
                                   "  type @52+4 = stsd\n"
                                   "  version @56+1 = 0\n"
                                   "  flags @57+3 = 0\n"
                                   "  entry_count @60+4 = 1\n";

TEST(SampleDescription, VisualEntryFieldByFieldWithItsBoxesWalked)
{
    const QByteArray avcC = box("avcC", cat({u8(1), u8(0x64), u8(0), u8(0x0a), u8(0xff)}));
    const Described described =
        describe(describedTrack("vide", 1, visualEntry("avc1", 320, 240, avcC)));
    EXPECT_EQ(described.stsd,
              std::string(StsdOfOneEntry) +
                  "  sample_entry[0] @64+99\n"
                  "    size @64+4 = 99\n"
                  "    type @68+4 = avc1\n"
                  "    reserved @72+6 = 000000000000 // default 0\n"
                  "    data_reference_index @78+2 = 1\n"
                  "    pre_defined @80+2 = 0 // default 0\n"
                  "    reserved @82+2 = 0 // default 0\n"
                  "    pre_defined @84+12 = 000000000000000000000000 // default 0\n"
                  "    width @96+2 = 320\n"
                  "    height @98+2 = 240\n"
                  "    horizresolution @100+4 = 00480000 // default 0x00480000 (72 dpi)\n"
                  "    vertresolution @104+4 = 00480000 // default 0x00480000 (72 dpi)\n"
                  "    reserved @108+4 = 0 // default 0\n"
                  "    frame_count @112+2 = 1 // default 1\n"
                  "    compressorname @114+32 = x264\n"
                  "    depth @146+2 = 24 // default 24 (0x18)\n"
                  "    pre_defined @148+2 = -1 // default -1\n"
                  "    specific_config_data @150+13\n"
                  "      avcC @150+13\n"
                  "        size @150+4 = 13\n"
                  "        type @154+4 = avcC\n"
                  "        data @158+5\n");
    EXPECT_EQ(described.stream.codecId, 28);
    EXPECT_EQ(described.stream.width, 320);
    EXPECT_EQ(described.stream.height, 240);
    EXPECT_EQ(described.stream.configOffset, 158u);
    EXPECT_EQ(described.stream.configSize, 5u);
}

struct DescriptionCase {
    const char *name;
    QByteArray input;
    const char *expected; // the dump of the stsd element from its entry_count on
};

std::string caseName(const ::testing::TestParamInfo<DescriptionCase> &info)
{
    return info.param.name;
}

class Descriptions : public ::testing::TestWithParam<DescriptionCase> {};

// The dump of the stsd element behind its header fields.
std::string entriesOf(const std::string &stsd)
{
    const size_t count = stsd.find("  entry_count");
    return count == std::string::npos ? stsd : stsd.substr(count);
}

TEST_P(Descriptions, ReportTheEntriesThatLieInsideTheInput)
{
    EXPECT_EQ(entriesOf(describe(GetParam().input).stsd), GetParam().expected);
}

INSTANTIATE_TEST_SUITE_P(
    Entries, Descriptions,
    ::testing::Values(
        DescriptionCase{"NoEntryInAVideoTrack", describedTrack("vide", 0, QByteArray()),
                        "  entry_count @60+4 = 0\n"},
        DescriptionCase{"NoEntryElsewhere", describedTrack("soun", 0, QByteArray()),
                        "  entry_count @60+4 = 0\n"},
        DescriptionCase{
            "FirstEntryOfAnotherTrackIsDataAndEndsTheBox",
            describedTrack("soun", 2,
                           cat({u32(16), text("mp4a"), zeros(8), u32(16), text("mp4a"), zeros(8)})),
            "  entry_count @60+4 = 2\n"
            "  sample_entry[0] @64+16\n"
            "    size @64+4 = 16\n"
            "    type @68+4 = mp4a\n"
            "    specific_config_data @72+8\n"},
        DescriptionCase{"EntryOfAnotherTrackTooSmallForItsHeader",
                        describedTrack("soun", 1, cat({u32(3), text("mp4a"), zeros(8)})),
                        "  entry_count @60+4 = 1\n"
                        "  sample_entry[0] @64+3\n"
                        "    size @64+4 = 3\n"
                        "    type @68+4 = mp4a\n"
                        "    specific_config_data @72+0\n"},
        DescriptionCase{
            "TailOf8BytesIsData",
            describedTrack("vide", 1, visualEntry("avc1", 16, 16, cat({u32(8), text("free")}))),
            "  entry_count @60+4 = 1\n"
            "  sample_entry[0] @64+94\n"
            "    size @64+4 = 94\n"
            "    type @68+4 = avc1\n"
            "    reserved @72+6 = 000000000000 // default 0\n"
            "    data_reference_index @78+2 = 1\n"
            "    pre_defined @80+2 = 0 // default 0\n"
            "    reserved @82+2 = 0 // default 0\n"
            "    pre_defined @84+12 = 000000000000000000000000 // default 0\n"
            "    width @96+2 = 16\n"
            "    height @98+2 = 16\n"
            "    horizresolution @100+4 = 00480000 // default 0x00480000 (72 dpi)\n"
            "    vertresolution @104+4 = 00480000 // default 0x00480000 (72 dpi)\n"
            "    reserved @108+4 = 0 // default 0\n"
            "    frame_count @112+2 = 1 // default 1\n"
            "    compressorname @114+32 = x264\n"
            "    depth @146+2 = 24 // default 24 (0x18)\n"
            "    pre_defined @148+2 = -1 // default -1\n"
            "    data @150+8\n"},
        DescriptionCase{
            "TailOf9BytesIsWalked",
            describedTrack("vide", 1,
                           visualEntry("avc1", 16, 16, cat({u32(9), text("free"), u8(7)}))),
            "  entry_count @60+4 = 1\n"
            "  sample_entry[0] @64+95\n"
            "    size @64+4 = 95\n"
            "    type @68+4 = avc1\n"
            "    reserved @72+6 = 000000000000 // default 0\n"
            "    data_reference_index @78+2 = 1\n"
            "    pre_defined @80+2 = 0 // default 0\n"
            "    reserved @82+2 = 0 // default 0\n"
            "    pre_defined @84+12 = 000000000000000000000000 // default 0\n"
            "    width @96+2 = 16\n"
            "    height @98+2 = 16\n"
            "    horizresolution @100+4 = 00480000 // default 0x00480000 (72 dpi)\n"
            "    vertresolution @104+4 = 00480000 // default 0x00480000 (72 dpi)\n"
            "    reserved @108+4 = 0 // default 0\n"
            "    frame_count @112+2 = 1 // default 1\n"
            "    compressorname @114+32 = x264\n"
            "    depth @146+2 = 24 // default 24 (0x18)\n"
            "    pre_defined @148+2 = -1 // default -1\n"
            "    specific_config_data @150+9\n"
            "      free @150+9\n"
            "        size @150+4 = 9\n"
            "        type @154+4 = free\n"
            "        data @158+1\n"},
        DescriptionCase{"FixedFieldsCutByTheEndOfTheInput",
                        describedTrack("vide", 1, visualEntry("avc1", 16, 16).left(40)),
                        "  entry_count @60+4 = 1\n"
                        "  sample_entry[0] @64+86\n"
                        "    size @64+4 = 86\n"
                        "    type @68+4 = avc1\n"
                        "    data @72+32\n"},
        DescriptionCase{"EntryHeaderCutByTheEndOfTheInput",
                        describedTrack("vide", 1, visualEntry("avc1", 16, 16).left(7)),
                        "  entry_count @60+4 = 1\n"},
        DescriptionCase{"PayloadTooShortForTheCount",
                        box("trak", cat({handlerBox("vide"), fullBox("stsd", 0, 0, u16(1))})),
                        "stsd @48+14\n"
                        "  size @48+4 = 14\n"
                        "  type @52+4 = stsd\n"
                        "  version @56+1 = 0\n"
                        "  flags @57+3 = 0\n"}),
    caseName);

// Element lines only: name, index, position and size.
QString outline(const ReportTree::Node &node, int depth = 0)
{
    QString lines;
    for (const auto &child : node.children) {
        if (child->kind != ReportTree::Node::Element)
            continue;
        lines += QStringLiteral("%1%2[%3] @%4+%5\n")
                     .arg(QString(depth * 2, QLatin1Char(' ')), child->name)
                     .arg(child->index)
                     .arg(child->offset)
                     .arg(child->size);
        lines += outline(*child, depth + 1);
    }
    return lines;
}

std::string stsdOutline(const QByteArray &input)
{
    const ReportTree report = parseReport(input);
    const ReportTree::Node *stsd = findElement(report.root, QStringLiteral("stsd"));
    return stsd ? outline(*stsd).toStdString() : "no stsd";
}

TEST(SampleDescription, EachEntryHasItsOwnPlaceAndTheLastOneFillsTheRecord)
{
    const QByteArray input =
        describedTrack("vide", 2,
                       cat({visualEntry("mp4v", 16, 8, box("esds", zeros(4))),
                            visualEntry("avc1", 64, 48, box("avcC", zeros(3)))}));
    EXPECT_EQ(stsdOutline(input), "sample_entry[0] @64+98\n"
                                  "  specific_config_data[-1] @150+12\n"
                                  "    esds[-1] @150+12\n"
                                  "sample_entry[1] @162+97\n"
                                  "  specific_config_data[-1] @248+11\n"
                                  "    avcC[-1] @248+11\n");
    const StreamInfo stream = describe(input).stream;
    EXPECT_EQ(stream.codecId, 28);
    EXPECT_EQ(stream.width, 64);
    EXPECT_EQ(stream.height, 48);
    EXPECT_EQ(stream.configOffset, 256u);
    EXPECT_EQ(stream.configSize, 3u);
}

TEST(SampleDescription, LastEntrysTailReachesToTheEndOfTheBox)
{
    // An entry that claims exactly its fixed fields, with an avcC behind it in the box.
    const QByteArray input =
        describedTrack("vide", 1, cat({visualEntry("avc1", 16, 16), box("avcC", zeros(4))}));
    EXPECT_EQ(stsdOutline(input), "sample_entry[0] @64+86\n"
                                  "  specific_config_data[-1] @150+12\n"
                                  "    avcC[-1] @150+12\n");
    EXPECT_EQ(describe(input).stream.configOffset, 158u);
}

TEST(SampleDescription, EntryOfItsFixedFieldsAloneEndingTheBoxHasNoTail)
{
    EXPECT_EQ(stsdOutline(describedTrack("vide", 1, visualEntry("avc1", 16, 16))),
              "sample_entry[0] @64+86\n");
}

TEST(SampleDescription, BoxClaimingMoreThanTheInputIsReadAsFarAsTheInputGoes)
{
    const QByteArray stsd = cat({u32(0x7FFFFFF0), text("stsd"), zeros(4), u32(1),
                                 visualEntry("avc1", 16, 16, box("avcC", zeros(2)))});
    const QByteArray input = box("trak", cat({handlerBox("vide"), stsd}));
    EXPECT_EQ(stsdOutline(input), "sample_entry[0] @64+96\n"
                                  "  specific_config_data[-1] @150+2147483530\n"
                                  "    avcC[-1] @150+10\n");
    EXPECT_EQ(describe(input).stream.configOffset, 158u);
}

TEST(SampleDescription, CountWithTheTopBitSetIsNotNegative)
{
    EXPECT_EQ(stsdOutline(describedTrack("vide", 0x80000001, visualEntry("avc1", 16, 16))),
              "sample_entry[0] @64+86\n");
}

TEST(SampleDescription, EntrySizeBelowItsHeaderEndsTheEntries)
{
    EXPECT_EQ(stsdOutline(describedTrack(
                  "vide", 3, cat({visualEntry("avc1", 16, 16, QByteArray(), 4), zeros(100)}))),
              "sample_entry[0] @64+4\n");
}

struct CodecCase {
    const char *type;
    int codecId;
};

class Codecs : public ::testing::TestWithParam<CodecCase> {};

TEST_P(Codecs, TypeOfTheLastEntrySetsTheCodecWhenItIsKnown)
{
    // The first entry gives MPEG-4 Part 2; a second of an unknown type leaves it.
    const StreamInfo stream =
        describe(
            describedTrack("vide", 2,
                           cat({visualEntry("mp4v", 1, 2), visualEntry(GetParam().type, 30, 20)})))
            .stream;
    EXPECT_EQ(stream.codecId, GetParam().codecId);
    EXPECT_EQ(stream.width, 30);
    EXPECT_EQ(stream.height, 20);
}

INSTANTIATE_TEST_SUITE_P(Types, Codecs,
                         ::testing::Values(CodecCase{"avc1", 28}, CodecCase{"mp4v", 13},
                                           CodecCase{"s263", 5}, CodecCase{"AVC1", 13},
                                           CodecCase{"hvc1", 13}),
                         [](const ::testing::TestParamInfo<CodecCase> &info) {
                             return std::string(info.param.type);
                         });

TEST(SampleDescription, TrackThatIsNotVideoLeavesItsRecordAlone)
{
    const StreamInfo stream =
        describe(describedTrack("soun", 1, visualEntry("avc1", 30, 20))).stream;
    EXPECT_EQ(stream.codecId, 0);
    EXPECT_EQ(stream.width, 0);
    EXPECT_EQ(stream.height, 0);
}

TEST(SampleDescription, VideoEntriesOutsideAnyTrackAreReportedAndStoreNothing)
{
    const ReportTree report = parseReport(cat(
        {handlerBox("vide"), fullBox("stsd", 0, 0, cat({u32(1), visualEntry("avc1", 30, 20)}))}));
    EXPECT_TRUE(report.streams.isEmpty());
    const ReportTree::Node *entry = findElement(report.root, QStringLiteral("sample_entry"));
    ASSERT_NE(entry, nullptr);
    EXPECT_EQ(entry->child(QStringLiteral("width"))->value, QStringLiteral("30"));
}

struct TextCase {
    const char *name;
    QByteArray bytes;
    QString expected;
};

class CompressorNames : public ::testing::TestWithParam<TextCase> {};

TEST_P(CompressorNames, EndAtTheFirstZeroByteAndTakeTheFirstByteAsAText)
{
    const ReportTree report =
        parseReport(describedTrack("vide", 1, visualEntry("avc1", 1, 1, {}, 0, GetParam().bytes)));
    const ReportTree::Node *entry = findElement(report.root, QStringLiteral("sample_entry"));
    ASSERT_NE(entry, nullptr);
    EXPECT_EQ(entry->child(QStringLiteral("compressorname"))->value, GetParam().expected);
}

INSTANTIATE_TEST_SUITE_P(
    Names, CompressorNames,
    ::testing::Values(TextCase{"AllZero", QByteArray(), QString()},
                      TextCase{"LengthByteIsAText",
                               text("\x0a"
                                    "abcdefghij"),
                               QStringLiteral("\nabcdefghij")},
                      TextCase{"NoZeroAtAll", QByteArray(32, 'c'), QString(32, QLatin1Char('c'))},
                      TextCase{"ZeroInTheMiddle", cat({text("ab"), u8(0), text("cd")}),
                               QStringLiteral("ab")}),
    [](const ::testing::TestParamInfo<TextCase> &info) { return std::string(info.param.name); });

TEST(SampleDescription, SignedLastFieldInAnotherBase)
{
    ContainerAbstract::Settings settings;
    settings.valueBase = 16;
    const ReportTree report =
        parseReport(describedTrack("vide", 1, visualEntry("avc1", 1, 1)), settings);
    const ReportTree::Node *entry = findElement(report.root, QStringLiteral("sample_entry"));
    ASSERT_NE(entry, nullptr);
    EXPECT_EQ(entry->child(QStringLiteral("pre_defined"), 2)->value,
              QStringLiteral("ffffffffffffffff"));
    EXPECT_EQ(entry->child(QStringLiteral("depth"))->value, QStringLiteral("18"));
    // Sizes stay in their own base.
    EXPECT_EQ(entry->child(QStringLiteral("size"))->value, QStringLiteral("86"));
}

// AVC configuration.

TEST(AvcConfiguration, RecordsWhereItsPayloadLiesWhateverTheEntrysType)
{
    const StreamInfo stream =
        describe(describedTrack("vide", 1, visualEntry("mp4v", 8, 8, box("avcC", zeros(6)))))
            .stream;
    EXPECT_EQ(stream.codecId, 13);
    EXPECT_EQ(stream.configOffset, 158u);
    EXPECT_EQ(stream.configSize, 6u);
}

TEST(AvcConfiguration, SecondBoxOverwritesTheFirst)
{
    const StreamInfo stream =
        describe(
            describedTrack(
                "vide", 1,
                visualEntry("avc1", 8, 8, cat({box("avcC", zeros(6)), box("avcC", QByteArray())}))))
            .stream;
    EXPECT_EQ(stream.configOffset, 172u);
    EXPECT_EQ(stream.configSize, 0u);
}

TEST(AvcConfiguration, OutsideAnyTrackItIsOneDataField)
{
    EXPECT_EQ(dump(parseReport(box("avcC", zeros(3)))).toStdString(), "avcC @0+11\n"
                                                                      "  size @0+4 = 11\n"
                                                                      "  type @4+4 = avcC\n"
                                                                      "  data @8+3\n");
}

} // namespace

#include "Support.h"

#include <gtest/gtest.h>

using namespace bytes;

namespace {
std::string report(const QByteArray &input, const ContainerAbstract::Settings &settings = {})
{
    return dump(parseReport(input, settings)).toStdString();
}
} // namespace

TEST(FileType, BrandsAndMinorVersion)
{
    const QByteArray input =
        box("ftyp", cat({text("isom"), u32(0x20050300), text("iso2"), text("ab"), u16(0x0063)}));
    EXPECT_EQ(report(input), "ftyp @0+24\n"
                             "  size @0+4 = 24\n"
                             "  type @4+4 = ftyp\n"
                             "  major_brand @8+4 = isom\n"
                             "  minor_version @12+4 = 2005.03.00\n"
                             "  compatible_brands @16+8\n"
                             "    brand @16+4 = iso2\n"
                             "    brand @20+4 = ab\n");
}

TEST(FileType, MinorVersionIsHexBytesWhateverTheBase)
{
    ContainerAbstract::Settings settings;
    settings.valueBase = 2;
    const QByteArray input = box("styp", cat({text("msdh"), u32(0x0000AB0C)}));
    EXPECT_EQ(report(input, settings), "styp @0+16\n"
                                       "  size @0+4 = 16\n"
                                       "  type @4+4 = styp\n"
                                       "  major_brand @8+4 = msdh\n"
                                       "  minor_version @12+4 = 0000.ab.0c\n"
                                       "  compatible_brands @16+0\n");
}

TEST(FileType, LastPartialBrandTakesBytesBehindThePayload)
{
    // 9 payload bytes: one brand of 4 bytes at +8, reaching 3 bytes past the box.
    const QByteArray input =
        cat({u32(17), text("ftyp"), text("isom"), zeros(4), text("a"), text("bcd")});
    const ReportTree tree = parseReport(input);
    const auto *brands = tree.root.children[0]->child("compatible_brands");
    ASSERT_NE(brands, nullptr);
    EXPECT_EQ(brands->size, 1u);
    ASSERT_EQ(brands->children.size(), 1u);
    EXPECT_EQ(brands->children[0]->offset, 16u);
    EXPECT_EQ(brands->children[0]->size, 4u);
    EXPECT_EQ(brands->children[0]->value, "abcd");
}

TEST(FileType, BrandTextEndsAtZeroAndShortPayloadHasNoBrands)
{
    const QByteArray zeroInside =
        box("ftyp", cat({text("ab"), u8(0), text("c"), zeros(4), zeros(4)}));
    EXPECT_EQ(report(zeroInside), "ftyp @0+20\n"
                                  "  size @0+4 = 20\n"
                                  "  type @4+4 = ftyp\n"
                                  "  major_brand @8+4 = ab\n"
                                  "  minor_version @12+4 = 0000.00.00\n"
                                  "  compatible_brands @16+4\n"
                                  "    brand @16+4\n");
    // Four payload bytes: both fields are reported, the brand list is empty.
    const QByteArray shortPayload = box("ftyp", text("qt  "));
    EXPECT_EQ(report(shortPayload), "ftyp @0+12\n"
                                    "  size @0+4 = 12\n"
                                    "  type @4+4 = ftyp\n"
                                    "  major_brand @8+4 = qt  \n"
                                    "  minor_version @12+4 = 7174.20.20\n"
                                    "  compatible_brands @16+0\n");
}

TEST(FileType, BrandsStopAtEndOfInput)
{
    // The box claims a million brands; only those inside the input are reported.
    const QByteArray input =
        cat({u32(1000016), text("ftyp"), text("isom"), zeros(4), text("avc1"), text("mp41")});
    const ReportTree tree = parseReport(input);
    const auto *brands = tree.root.children[0]->child("compatible_brands");
    EXPECT_EQ(brands->size, 1000000u);
    EXPECT_EQ(brands->children.size(), 2u);
}

TEST(Junk, FreeSkipAndMediaDataReadNothing)
{
    const QByteArray input = cat({box("free"), box("skip", zeros(3)), box("mdat", text("xyz"))});
    EXPECT_EQ(report(input), "free @0+8\n"
                             "  size @0+4 = 8\n"
                             "  type @4+4 = free\n"
                             "  data @8+0\n"
                             "skip @8+11\n"
                             "  size @8+4 = 11\n"
                             "  type @12+4 = skip\n"
                             "  data @16+3\n"
                             "mdat @19+11\n"
                             "  size @19+4 = 11\n"
                             "  type @23+4 = mdat\n"
                             "  media_data @27+3\n");
}

TEST(Junk, LastMediaDataOfSizeZeroReachesToEnd)
{
    const QByteArray input = cat({box("free", zeros(992)), u32(0), text("mdat"), zeros(3992)});
    const ReportTree tree = parseReport(input);
    const auto &mdat = *tree.root.children[1];
    EXPECT_EQ(mdat.offset, 1000u);
    EXPECT_EQ(mdat.size, 4000u);
    EXPECT_EQ(mdat.child("size")->comment, "Element extends to end of file.");
    EXPECT_EQ(mdat.child("media_data")->offset, 1008u);
    EXPECT_EQ(mdat.child("media_data")->size, 3992u);
}

struct UnknownDataCase {
    const char *name;
    bool show;
    quint64 cap;
    QByteArray payload;
    const char *data; // expected "data" field line, or "" for none
};

class UnknownData : public ::testing::TestWithParam<UnknownDataCase> {};

TEST_P(UnknownData, ShowsCappedCleanedBytes)
{
    ContainerAbstract::Settings settings;
    settings.showUnknownData = GetParam().show;
    settings.maxUnknownDataSize = GetParam().cap;
    const QByteArray input = box("zzzz", GetParam().payload);
    const std::string header = "zzzz @0+" + std::to_string(input.size()) +
                               " ! Unknown element!\n"
                               "  size @0+4 = " +
                               std::to_string(input.size()) +
                               "\n"
                               "  type @4+4 = zzzz\n";
    EXPECT_EQ(report(input, settings), header + GetParam().data);
}

INSTANTIATE_TEST_SUITE_P(Settings, UnknownData,
                         ::testing::Values(UnknownDataCase{"Hidden", false, 64, text("abc"), ""},
                                           UnknownDataCase{"Empty", true, 64, QByteArray(), ""},
                                           UnknownDataCase{"Capped", true, 16, QByteArray(100, 'x'),
                                                           "  data @8+16 = xxxxxxxxxxxxxxxx\n"},
                                           UnknownDataCase{"CapZero", true, 0, text("abc"),
                                                           "  data @8+0\n"},
                                           UnknownDataCase{"ControlAndHighBytes", true, 64,
                                                           cat({u8(0x41), u8(0), u8(0x7F), u8(0x80),
                                                                u8(0xFF), u8(0x20)}),
                                                           "  data @8+6 = A.\x7f.. \n"}),
                         [](const auto &info) { return std::string(info.param.name); });

TEST(UnknownData, ShortReadCoversOnlyDeliveredBytes)
{
    // The box claims 100 payload bytes, the input holds 5 of them.
    const QByteArray input = cat({u32(108), text("zzzz"), text("hello")});
    const ReportTree tree = parseReport(input);
    const auto *data = tree.root.children[0]->child("data");
    ASSERT_NE(data, nullptr);
    EXPECT_EQ(data->size, 5u);
    EXPECT_EQ(data->value, "hello");
}

#include "Support.h"

#include <gtest/gtest.h>

using namespace bytes;

namespace {
std::string report(const QByteArray &input, const ContainerAbstract::Settings &settings = {})
{
    return dump(parseReport(input, settings)).toStdString();
}
} // namespace

// Whole reports compared with tests/golden/FileLevel/<name>.txt.
TEST(FileLevel, WholeReports)
{
    const struct {
        const char *name;
        QByteArray input;
        int valueBase;
    } cases[] = {
        {"ftyp-brands-and-minor-version",
         box("ftyp", cat({text("isom"), u32(0x20050300), text("iso2"), text("ab"), u16(0x0063)})),
         10},
        // The minor version is hex bytes whatever the base.
        {"styp-minor-version-base-2", box("styp", cat({text("msdh"), u32(0x0000AB0C)})), 2},
        // Brand text ends at a zero byte.
        {"ftyp-zero-in-brand", box("ftyp", cat({text("ab"), u8(0), text("c"), zeros(4), zeros(4)})),
         10},
        // Four payload bytes: both fields are reported, the brand list is empty.
        {"ftyp-short-payload", box("ftyp", text("qt  ")), 10},
        // free, skip and mdat read nothing.
        {"junk", cat({box("free"), box("skip", zeros(3)), box("mdat", text("xyz"))}), 10},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        ContainerAbstract::Settings settings;
        settings.valueBase = c.valueBase;
        expectGolden(QStringLiteral("FileLevel/") + QLatin1String(c.name),
                     dump(parseReport(c.input, settings)));
    }
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

// Names the case in test listings instead of dumping its bytes.
void PrintTo(const UnknownDataCase &c, std::ostream *out)
{
    *out << c.name;
}

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

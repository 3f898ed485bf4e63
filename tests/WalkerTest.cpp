#include "Support.h"

#include <gtest/gtest.h>

#include <functional>

using namespace bytes;

namespace {
std::string report(const QByteArray &input, const ContainerAbstract::Settings &settings = {})
{
    return dump(parseReport(input, settings)).toStdString();
}
} // namespace

TEST(Walker, WorkedWalkOfNestedContainersAndSizeZero)
{
    const QByteArray input =
        cat({box("moov", box("udta", box("free", zeros(8)))), u32(0), text("abcd")});
    EXPECT_EQ(report(input), "moov @0+32\n"
                             "  size @0+4 = 32\n"
                             "  type @4+4 = moov\n"
                             "  udta @8+24\n"
                             "    size @8+4 = 24\n"
                             "    type @12+4 = udta\n"
                             "    free @16+16\n"
                             "      size @16+4 = 16\n"
                             "      type @20+4 = free\n"
                             "      data @24+8\n"
                             "abcd @32+8 ! Unknown element!\n"
                             "  size @32+4 = 0 // Element extends to end of file.\n"
                             "  type @36+4 = abcd\n");
}

struct HeaderCase {
    const char *name;
    QByteArray input;
    const char *expected;
};

class WalkerHeaders : public ::testing::TestWithParam<HeaderCase> {};

TEST_P(WalkerHeaders, ReportsHeaderAndPayloadPosition)
{
    EXPECT_EQ(report(GetParam().input), GetParam().expected);
}

INSTANTIATE_TEST_SUITE_P(
    Boxes, WalkerHeaders,
    ::testing::Values(
        HeaderCase{"EmptyContainer", box("moov"),
                   "moov @0+8\n"
                   "  size @0+4 = 8\n"
                   "  type @4+4 = moov\n"},
        HeaderCase{"FullBoxContainerWithoutChildren", fullBox("meta", 0, 0),
                   "meta @0+12\n"
                   "  size @0+4 = 12\n"
                   "  type @4+4 = meta\n"
                   "  version @8+1 = 0\n"
                   "  flags @9+3 = 0\n"},
        HeaderCase{"FullBoxWithoutHandler", fullBox("iods", 2, 0x10203, zeros(8)),
                   "iods @0+20\n"
                   "  size @0+4 = 20\n"
                   "  type @4+4 = iods\n"
                   "  version @8+1 = 2\n"
                   "  flags @9+3 = 66051\n"
                   "  data @12+8\n"},
        HeaderCase{"BigSize", bigBox("mdat", zeros(4)),
                   "mdat @0+20\n"
                   "  size @0+4 = 1 // big_size contains true size\n"
                   "  type @4+4 = mdat\n"
                   "  big_size @8+8 = 20\n"
                   "  media_data @16+4\n"},
        HeaderCase{"UnknownTypeShowsCleanedBytes",
                   box("wxyz", cat({text("A"), u8(0), u8(0x7F), u8(0x80), u8(0xFF), text(" ")})),
                   "wxyz @0+14 ! Unknown element!\n"
                   "  size @0+4 = 14\n"
                   "  type @4+4 = wxyz\n"
                   "  data @8+6 = A.\x7f.. \n"},
        HeaderCase{"Uuid",
                   box("uuid", cat({u32(0x00112233), u32(0x44556677), u32(0x8899aabb),
                                    u32(0xccddeeff), text("xy")})),
                   "uuid @0+26 ! Unknown element!\n"
                   "  size @0+4 = 26\n"
                   "  type @4+4 = uuid\n"
                   "  usertype @8+16 = {00112233-4455-6677-8899-aabbccddeeff}\n"
                   "  data @24+2 = xy\n"},
        HeaderCase{"UuidInCapitalsWithBigSize", bigBox("UUID", cat({zeros(15), u8(1), text("q")})),
                   "UUID @0+33 ! Unknown element!\n"
                   "  size @0+4 = 1 // big_size contains true size\n"
                   "  type @4+4 = UUID\n"
                   "  big_size @8+8 = 33\n"
                   "  usertype @16+16 = {00000000-0000-0000-0000-000000000001}\n"
                   "  data @32+1 = q\n"},
        HeaderCase{"LookupIsCaseSensitive", cat({box("MOOV"), box("avcc")}),
                   "MOOV @0+8 ! Unknown element!\n"
                   "  size @0+4 = 8\n"
                   "  type @4+4 = MOOV\n"
                   "avcc @8+8 ! Unknown element!\n"
                   "  size @8+4 = 8\n"
                   "  type @12+4 = avcc\n"},
        HeaderCase{"ZeroInTypeEndsIt", cat({u32(8), text("a"), u8(0), text("bc")}),
                   "a @0+8 ! Unknown element!\n"
                   "  size @0+4 = 8\n"
                   "  type @4+4 = a\n"},
        HeaderCase{"ChildReachingPastParentIsWalkedInFull",
                   cat({box("moov", cat({u32(24), text("free")})), zeros(16)}),
                   "moov @0+16\n"
                   "  size @0+4 = 16\n"
                   "  type @4+4 = moov\n"
                   "  free @8+24\n"
                   "    size @8+4 = 24\n"
                   "    type @12+4 = free\n"
                   "    data @16+16\n"
                   " @16+16 ! Unknown element!\n"
                   "  size @16+4 = 0 // Element extends to end of file.\n"
                   "  type @20+4\n"
                   "  data @24+8 = ........\n"}),
    [](const auto &info) { return std::string(info.param.name); });

// Sizes that cannot hold the box's own header: the box reaches to the end of the input,
// its header is reported as read and its payload is left alone.
TEST(Walker, SizeBelowHeaderReachesToEndOfInput)
{
    for (quint32 declared = 2; declared < 8; ++declared) {
        const QByteArray input = cat({u32(declared), text("free"), zeros(6)});
        EXPECT_EQ(report(input), "free @0+14 ! Invalid element size.\n"
                                 "  size @0+4 = " +
                                     std::to_string(declared) +
                                     "\n"
                                     "  type @4+4 = free\n")
            << declared;
    }
    EXPECT_EQ(report(cat({u32(1), text("mdat"), u64(0), zeros(2)})),
              "mdat @0+18 ! Invalid element size.\n"
              "  size @0+4 = 1 // big_size contains true size\n"
              "  type @4+4 = mdat\n"
              "  big_size @8+8 = 0\n");
    // A full box needs four bytes more than a plain one; a uuid box sixteen.
    EXPECT_EQ(report(cat({u32(11), text("mvhd"), zeros(3)})), "mvhd @0+11 ! Invalid element size.\n"
                                                              "  size @0+4 = 11\n"
                                                              "  type @4+4 = mvhd\n");
    EXPECT_EQ(report(cat({u32(20), text("uuid"), zeros(12)})),
              "uuid @0+20 ! Invalid element size.\n"
              "  size @0+4 = 20\n"
              "  type @4+4 = uuid\n"
              "  usertype @8+16 = {00000000-0000-0000-0000-000000000000}\n");
}

TEST(Walker, SizeZeroAtEndOfParentReachingOverInput)
{
    // A truncated file: the container claims more than the input holds, and the walk of
    // its children meets the end of the input.
    const QByteArray input = cat({u32(100), text("moov"), box("udta")});
    EXPECT_EQ(report(input), "moov @0+100\n"
                             "  size @0+4 = 100\n"
                             "  type @4+4 = moov\n"
                             "  udta @8+8\n"
                             "    size @8+4 = 8\n"
                             "    type @12+4 = udta\n");
}

TEST(Walker, HugeBigSizeEndsTheLevel)
{
    const QByteArray input = cat({u32(1), text("moov"), u64(~0ULL), box("free"), box("skip")});
    const ReportTree tree = parseReport(input);
    ASSERT_EQ(tree.root.children.size(), 1u);
    const auto &moov = *tree.root.children[0];
    EXPECT_EQ(moov.size, ~0ULL);
    EXPECT_NE(moov.child("free"), nullptr);
    EXPECT_NE(moov.child("skip"), nullptr);
}

TEST(Walker, NestingDeeperThan64LevelsIsCut)
{
    QByteArray input = box("free");
    for (int level = 0; level < 70; ++level)
        input = box("udta", input);
    const ReportTree tree = parseReport(input);
    const ReportTree::Node *node = &tree.root;
    for (int level = 1; level < 65; ++level) {
        node = node->child("udta");
        ASSERT_NE(node, nullptr) << level;
        EXPECT_TRUE(node->note.isEmpty());
    }
    node = node->child("udta");
    ASSERT_NE(node, nullptr);
    EXPECT_EQ(node->note, "Nesting too deep.");
    EXPECT_EQ(dump(*node).count('\n'), 4); // element, size, type, data
    EXPECT_EQ(node->child("data")->offset, node->offset + 8);
    EXPECT_EQ(node->child("data")->size, node->size - 8);
}

TEST(Walker, WorkBudgetBoundsChildrenReachingPastParents)
{
    // Each container holds one child that claims to reach to the end of the input, so
    // every level walks everything behind it again: quadratic work without a budget.
    const int count = 3000;
    QByteArray input;
    for (int i = 0; i < count; ++i)
        input += cat({u32(8), text("udta")});
    for (int i = 0; i < count; ++i)
        input[i * 8 + 3] = char(16);
    const ReportTree tree = parseReport(input);
    EXPECT_EQ(tree.openElements(), 0);
    quint64 extents = 0;
    // Boxes below level 64 walk nothing and are not budgeted.
    std::function<void(const ReportTree::Node &, int)> sum = [&](const ReportTree::Node &node,
                                                                 int level) {
        for (const auto &child : node.children) {
            if (child->kind == ReportTree::Node::Element && child->name == "udta" && level <= 64) {
                extents += qMin<quint64>(child->size, quint64(input.size()) - child->offset);
                sum(*child, level + 1);
            }
        }
    };
    sum(tree.root, 1);
    EXPECT_LE(extents, 64u * quint64(input.size()));
    EXPECT_GT(extents, 60u * quint64(input.size()));
}

TEST(Walker, ChildResultDoesNotStopTheWalk)
{
    // A truncated mvhd fails, the walk goes on behind it and the parent reports the
    // last child's result; the tree is whole either way.
    const QByteArray input = box("moov", cat({fullBox("mvhd", 0, 0, zeros(10)), box("free")}));
    const ReportTree tree = parseReport(input);
    const auto &moov = *tree.root.children[0];
    EXPECT_NE(moov.child("mvhd"), nullptr);
    EXPECT_NE(moov.child("free"), nullptr);
}

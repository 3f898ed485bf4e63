#include "Support.h"

#include <gtest/gtest.h>

#include <functional>

using namespace bytes;

// Whole reports compared with tests/golden/Walker/<name>.txt.
TEST(Walker, HeadersAndPayloadPositions)
{
    const struct {
        const char *name;
        QByteArray input;
    } cases[] = {
        // Nested containers, then a size of zero that reaches to the end of the input.
        {"nested-and-size-zero",
         cat({box("moov", box("udta", box("free", zeros(8)))), u32(0), text("abcd")})},
        {"full-box-container-without-children", fullBox("meta", 0, 0)},
        {"full-box-without-handler", fullBox("iods", 2, 0x10203, zeros(8))},
        {"big-size", bigBox("mdat", zeros(4))},
        // A big size beyond the input ends the level; the children are walked in full.
        {"huge-big-size-ends-the-level",
         cat({u32(1), text("moov"), u64(~0ULL), box("free"), box("skip")})},
        {"unknown-type-shows-cleaned-bytes",
         box("wxyz", cat({text("A"), u8(0), u8(0x7F), u8(0x80), u8(0xFF), text(" ")}))},
        {"uuid", box("uuid", cat({u32(0x00112233), u32(0x44556677), u32(0x8899aabb),
                                  u32(0xccddeeff), text("xy")}))},
        {"uuid-in-capitals-with-big-size", bigBox("UUID", cat({zeros(15), u8(1), text("q")}))},
        {"lookup-is-case-sensitive", cat({box("MOOV"), box("avcc")})},
        {"zero-in-type-ends-it", cat({u32(8), text("a"), u8(0), text("bc")})},
        {"child-reaching-past-parent-is-walked-in-full",
         cat({box("moov", cat({u32(24), text("free")})), zeros(16)})},
        // Sizes that cannot hold the box's own header: the box reaches to the end of the
        // input, its header is reported as read and its payload is left alone.
        {"size-2-below-header", cat({u32(2), text("free"), zeros(6)})},
        {"big-size-0-below-header", cat({u32(1), text("mdat"), u64(0), zeros(2)})},
        // A full box needs four bytes more than a plain one; a uuid box sixteen.
        {"full-box-size-11-below-header", cat({u32(11), text("mvhd"), zeros(3)})},
        {"uuid-size-20-below-header", cat({u32(20), text("uuid"), zeros(12)})},
        // A truncated file: the container claims more than the input holds, and the walk
        // of its children meets the end of the input.
        {"parent-reaching-past-input", cat({u32(100), text("moov"), box("udta")})},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        expectGolden(QStringLiteral("Walker/") + QLatin1String(c.name), dump(parseReport(c.input)));
    }
}

// The 65th level reports its header and its payload as data, and is walked no further.
TEST(Walker, NestingDeeperThan64LevelsIsCut)
{
    QByteArray input = box("free");
    for (int level = 0; level < 70; ++level)
        input = box("udta", input);
    const QString all = dump(parseReport(input));
    EXPECT_EQ(all.count("Nesting too deep."), 1);
    const QString indent(2 * 64, ' ');
    EXPECT_TRUE(all.endsWith(indent + "udta @512+56 ! Nesting too deep.\n" + indent +
                             "  size @512+4 = 56\n" + indent + "  type @516+4 = udta\n" + indent +
                             "  data @520+48\n"))
        << all.right(400).toStdString();
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

// The header-piece readers no walk calls, driven from a parser of their own: every byte of
// the piece counts, a zero ends an id, and a value string keeps its zero bytes and stops at
// the end of the input.
TEST(Walker, HeaderPieceReadersAndValueString)
{
    class PieceReader : public ContainerMP4 {
    public:
        quint64 threeBytes = 0, eightBytes = 0;
        QString id;

    protected:
        int parseElement(quint64 *size) override
        {
            getSize(&threeBytes, 3);
            getSize(&eightBytes, 8);
            getID(&id);
            beginElement(0, 0, QStringLiteral("value"), -1);
            const int result = parseValueString(100);
            endElement();
            *size = quint64(input.size());
            return result;
        }
    } parser;
    ReportTree report;
    parser.parseBytes(QStringLiteral("test.mp4"),
                      cat({u24(0x010203), u64(0xF00000000000000F), text("ab"), u8(0), text("d"),
                           text("x"), u8(0), text("y")}),
                      report);
    EXPECT_EQ(parser.threeBytes, 0x010203u);
    EXPECT_EQ(parser.eightBytes, 0xF00000000000000Fu);
    EXPECT_EQ(parser.id, "ab");
    EXPECT_EQ(report.root.children.at(0)->value, QString::fromLatin1("x\0y", 3));
}

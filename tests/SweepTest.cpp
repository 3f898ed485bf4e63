// Real files cut short and real files with damaged headers and counts: the report stays
// balanced and bounded, and whatever stands before the damage is reported as in the whole
// file.

#include "Checked.h"

#include <gtest/gtest.h>

#include <random>
#include <set>
#include <vector>

namespace {
// Files up to this size are swept; every cut of a larger one would take too long.
constexpr qint64 MaxSweptFile = 256 * 1024;

struct Whole {
    QByteArray bytes;
    ReportTree report;
    CheckedRun run;
};

void parseWhole(const QString &path, Whole &whole)
{
    whole.bytes = readWholeFile(path);
    whole.run = parseChecked(whole.bytes, &whole.report);
}

// Every length up to 1 KiB, 257 lengths spread over the whole file, and every boundary of
// a top-level box and of the elements directly inside one, each with its neighbours.
std::set<int> cutLengths(const Whole &whole)
{
    const int size = int(whole.bytes.size());
    std::set<int> cuts;
    for (int length = 0; length <= qMin(size, 1024); ++length)
        cuts.insert(length);
    for (int step = 0; step <= 256; ++step)
        cuts.insert(int(qint64(size) * step / 256));
    auto aroundBoundary = [&](quint64 boundary) {
        for (qint64 length = qint64(boundary) - 1; length <= qint64(boundary) + 1; ++length) {
            if (length >= 0 && length <= size)
                cuts.insert(int(length));
        }
    };
    for (const auto &top : whole.report.root.children) {
        aroundBoundary(top->offset);
        aroundBoundary(top->offset + top->size);
        for (const auto &child : top->children) {
            if (child->kind == ReportTree::Node::Element) {
                aroundBoundary(child->offset);
                aroundBoundary(child->offset + child->size);
            }
        }
    }
    return cuts;
}

class SweptFiles : public ::testing::Test {
protected:
    void SetUp() override
    {
        files = smallRealFiles(MaxSweptFile);
        ASSERT_FALSE(files.isEmpty()) << "no real test file to sweep";
    }
    QStringList files;
};

TEST_F(SweptFiles, EveryCutKeepsTheWholeBoxesBeforeIt)
{
    for (const QString &path : files) {
        SCOPED_TRACE(path.toStdString());
        Whole whole;
        parseWhole(path, whole);
        ASSERT_TRUE(whole.run.sound()) << whole.run.problem;
        const auto &tops = whole.report.root.children;
        std::vector<QString> topDumps;
        for (const auto &top : tops)
            topDumps.push_back(dump(*top));

        for (const int cut : cutLengths(whole)) {
            SCOPED_TRACE("cut at " + std::to_string(cut));
            const QByteArray input = whole.bytes.left(cut);
            ReportTree report;
            const CheckedRun run = parseChecked(input, &report);
            ASSERT_TRUE(run.sound()) << run.problem;
            ASSERT_LE(run.nodes(), whole.run.nodes() + 64);

            // One top-level element for every box that starts before the cut, at the same
            // place; those that end before it exactly as in the whole file.
            size_t started = 0;
            while (started < tops.size() && tops[started]->offset < quint64(cut))
                ++started;
            ASSERT_EQ(report.root.children.size(), started);
            for (size_t i = 0; i < started; ++i) {
                const auto &top = *tops[i];
                EXPECT_EQ(report.root.children[i]->offset, top.offset) << i;
                if (top.offset + top.size <= quint64(cut)) {
                    EXPECT_EQ(dump(*report.root.children[i]).toStdString(),
                              topDumps[i].toStdString());
                }
            }
        }
    }
}

// Where damage hurts most: the size and type of every box, and every count and size field
// of every payload, as the whole file's report locates them.
std::vector<QPair<int, int>> mutationTargets(const ReportTree::Node &node)
{
    std::vector<QPair<int, int>> targets; // offset and width
    for (const auto &child : node.children) {
        if (child->kind == ReportTree::Node::Element) {
            const auto nested = mutationTargets(*child);
            targets.insert(targets.end(), nested.begin(), nested.end());
        } else if (child->kind == ReportTree::Node::Field && !child->bitField &&
                   (child->size == 4 || child->size == 8) &&
                   (child->name == "type" || child->name.endsWith("size") ||
                    child->name.endsWith("count"))) {
            targets.push_back({int(child->offset), int(child->size)});
        }
    }
    return targets;
}

TEST_F(SweptFiles, DamagedHeadersAndCountsGiveBoundedBalancedReports)
{
    for (int fileIndex = 0; fileIndex < files.size(); ++fileIndex) {
        const QString &path = files[fileIndex];
        SCOPED_TRACE(path.toStdString());
        Whole whole;
        parseWhole(path, whole);
        ASSERT_TRUE(whole.run.sound()) << whole.run.problem;
        const auto targets = mutationTargets(whole.report.root);
        ASSERT_FALSE(targets.empty());
        const quint64 size = quint64(whole.bytes.size());
        // A damaged file may walk its bytes up to 64 times over, but no count may take the
        // report beyond the bytes that back it.
        const quint64 limit = 65 * whole.run.nodes() + 16 * size;

        std::mt19937 random(20261123u + unsigned(fileIndex));
        const quint32 specials[] = {0, 1, 7, 8, 16, 0x7FFFFFFF, 0x80000000, 0xFFFFFFF8, 0xFFFFFFFF};
        for (int round = 0; round < 400; ++round) {
            QByteArray input = whole.bytes;
            const int damages = 1 + int(random() % 3);
            std::string what;
            for (int d = 0; d < damages; ++d) {
                const auto [offset, width] = targets[random() % targets.size()];
                switch (random() % 3) {
                case 0: { // one byte of the field
                    const int at = offset + int(random() % unsigned(width));
                    input[at] = char(random());
                    what += " byte@" + std::to_string(at);
                    break;
                }
                case 1: { // the low word of the field to a value that sizes and counts meet
                    const quint32 value = specials[random() % std::size(specials)];
                    const QByteArray word = bytes::u32(value);
                    input.replace(offset + width - 4, 4, word);
                    what +=
                        " word@" + std::to_string(offset + width - 4) + "=" + std::to_string(value);
                    break;
                }
                default: { // a whole 64-bit field, or the high word of a 32-bit one, to all ones
                    input.replace(offset, width, QByteArray(width, char(0xFF)));
                    what += " ones@" + std::to_string(offset);
                    break;
                }
                }
            }
            const CheckedRun run = parseChecked(input);
            ASSERT_TRUE(run.sound()) << run.problem << " after" << what;
            EXPECT_LE(run.nodes(), limit) << what;
            EXPECT_LE(run.samples, size) << what;
        }
    }
}
} // namespace

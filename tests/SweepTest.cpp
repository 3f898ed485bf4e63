// Real files cut short and real files with damaged headers and counts: the report stays
// balanced and bounded, and whatever stands before the damage is reported as in the whole
// file.

#include "Checked.h"

#include <QDir>
#include <QFileInfo>

#include <gtest/gtest.h>

#include <memory>
#include <random>
#include <set>
#include <vector>

namespace {

struct Whole {
    QString path;
    QByteArray bytes;
    ReportTree report;
    CheckedRun run;
};

// The real MP4 files of the repository up to 256 KiB (every cut of a larger one would take
// too long), each with its report.
std::vector<std::unique_ptr<Whole>> smallRealFiles()
{
    const QString root = QStringLiteral(SARVELINTH_SOURCE_DIR);
    QStringList paths = {root + QStringLiteral("/samples/sample.mp4")};
    const QDir data(root + QStringLiteral("/tests/data"));
    for (const QString &name : data.entryList({QStringLiteral("*.mp4")}, QDir::Files, QDir::Name))
        paths << data.filePath(name);
    std::vector<std::unique_ptr<Whole>> files;
    for (const QString &path : paths) {
        if (QFileInfo(path).size() > 256 * 1024)
            continue;
        auto whole = std::make_unique<Whole>();
        whole->path = path;
        whole->bytes = readWholeFile(path);
        whole->run = parseChecked(whole->bytes, &whole->report);
        EXPECT_TRUE(whole->run.sound()) << path.toStdString() << ": " << whole->run.problem;
        files.push_back(std::move(whole));
    }
    EXPECT_FALSE(files.empty()) << "no real test file to sweep";
    return files;
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
    const auto aroundBoundaries = [&](const ReportTree::Node &node) {
        for (const quint64 boundary : {node.offset, node.offset + node.size}) {
            for (const quint64 length : {boundary - 1, boundary, boundary + 1}) {
                if (length <= quint64(size))
                    cuts.insert(int(length));
            }
        }
    };
    for (const auto &top : whole.report.root.children) {
        aroundBoundaries(*top);
        for (const auto &child : top->children) {
            if (child->kind == ReportTree::Node::Element)
                aroundBoundaries(*child);
        }
    }
    return cuts;
}

TEST(SweptFiles, EveryCutKeepsTheWholeBoxesBeforeIt)
{
    for (const auto &whole : smallRealFiles()) {
        SCOPED_TRACE(whole->path.toStdString());
        const auto &tops = whole->report.root.children;
        for (const int cut : cutLengths(*whole)) {
            SCOPED_TRACE("cut at " + std::to_string(cut));
            ReportTree report;
            const CheckedRun run = parseChecked(whole->bytes.left(cut), &report);
            ASSERT_TRUE(run.sound()) << run.problem;
            ASSERT_LE(run.nodes(), whole->run.nodes() + 64);

            // One top-level element for every box that starts before the cut, at the same
            // place; those that end before it exactly as in the whole file.
            size_t started = 0;
            while (started < tops.size() && tops[started]->offset < quint64(cut))
                ++started;
            ASSERT_EQ(report.root.children.size(), started);
            for (size_t i = 0; i < started; ++i) {
                EXPECT_EQ(report.root.children[i]->offset, tops[i]->offset) << i;
                if (tops[i]->offset + tops[i]->size <= quint64(cut)) {
                    EXPECT_EQ(dump(*report.root.children[i]).toStdString(),
                              dump(*tops[i]).toStdString());
                }
            }
        }
    }
}

// Where damage hurts most: the size and type of every box, and every count and size field
// of every payload, as the whole file's report locates them: offset and width.
void collectMutationTargets(const ReportTree::Node &node, std::vector<QPair<int, int>> &targets)
{
    for (const auto &child : node.children) {
        if (child->kind == ReportTree::Node::Element) {
            collectMutationTargets(*child, targets);
        } else if (child->kind == ReportTree::Node::Field && !child->bitField &&
                   (child->size == 4 || child->size == 8) &&
                   (child->name == "type" || child->name.endsWith("size") ||
                    child->name.endsWith("count"))) {
            targets.push_back({int(child->offset), int(child->size)});
        }
    }
}

TEST(SweptFiles, DamagedHeadersAndCountsGiveBoundedBalancedReports)
{
    const quint32 specials[] = {0, 1, 7, 8, 16, 0x7FFFFFFF, 0x80000000, 0xFFFFFFF8, 0xFFFFFFFF};
    unsigned seed = 20261123u;
    for (const auto &whole : smallRealFiles()) {
        SCOPED_TRACE(whole->path.toStdString());
        std::vector<QPair<int, int>> targets;
        collectMutationTargets(whole->report.root, targets);
        ASSERT_FALSE(targets.empty());
        const quint64 size = quint64(whole->bytes.size());
        // A damaged file may walk its bytes up to 64 times over, but no count may take the
        // report beyond the bytes that back it.
        const quint64 limit = 65 * whole->run.nodes() + 16 * size;

        std::mt19937 random(seed++);
        for (int round = 0; round < 400; ++round) {
            QByteArray input = whole->bytes;
            std::string what;
            for (int damages = 1 + int(random() % 3); damages > 0; --damages) {
                const auto [offset, width] = targets[random() % targets.size()];
                const unsigned kind = random() % 3;
                if (kind == 0) { // one byte of the field
                    const int at = offset + int(random() % unsigned(width));
                    input[at] = char(random());
                    what += " byte@" + std::to_string(at);
                } else if (kind == 1) { // the low word to a value that sizes and counts meet
                    const quint32 value = specials[random() % std::size(specials)];
                    input.replace(offset + width - 4, 4, bytes::u32(value));
                    what +=
                        " word@" + std::to_string(offset + width - 4) + "=" + std::to_string(value);
                } else { // a whole 64-bit field, or the high word of a 32-bit one, to all ones
                    input.replace(offset, width, QByteArray(width, char(0xFF)));
                    what += " ones@" + std::to_string(offset);
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

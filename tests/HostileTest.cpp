// Crafted hostile files: counts, sizes and nesting that would make a naive parser loop for
// hours, allocate gigabytes or recurse off the stack. Each must end with a balanced report
// whose size is in proportion to the file, inside a child process whose address space is
// capped, so that runaway allocation fails the test instead of slowing the machine.

#include "Checked.h"

#include <gtest/gtest.h>

#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <functional>
#include <optional>

using namespace bytes;

#if defined(__SANITIZE_ADDRESS__)
#define SARVELINTH_ADDRESS_SANITIZER 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define SARVELINTH_ADDRESS_SANITIZER 1
#endif
#endif

namespace {
constexpr quint32 MaxCount = 0xFFFFFFFF;
// Memory a parse may take beyond what the process holds before it starts.
constexpr quint64 MemoryAllowance = 64ull * 1024 * 1024;

#ifndef SARVELINTH_ADDRESS_SANITIZER
quint64 addressSpaceInUse()
{
    QFile statm(QStringLiteral("/proc/self/statm"));
    if (!statm.open(QIODevice::ReadOnly))
        return 0;
    const quint64 pages = statm.readLine().split(' ').value(0).toULongLong();
    return pages * quint64(sysconf(_SC_PAGESIZE));
}
#endif

// Runs work in a forked child whose address space may grow by MemoryAllowance at most (not
// under AddressSanitizer, whose shadow memory needs terabytes of address space; there the
// node counts stand alone). Nothing if the child died, for instance of a failed allocation.
std::optional<CheckedRun> runInLimitedChild(const std::function<CheckedRun()> &work)
{
    int channel[2];
    if (pipe(channel) != 0)
        return std::nullopt;
    const pid_t child = fork();
    if (child == 0) {
        close(channel[0]);
#ifndef SARVELINTH_ADDRESS_SANITIZER
        const rlim_t cap = rlim_t(addressSpaceInUse() + MemoryAllowance);
        const rlimit limit{cap, cap};
        if (setrlimit(RLIMIT_AS, &limit) != 0)
            _exit(2);
#endif
        // The child never returns into the test framework, whatever happens in it.
        try {
            const CheckedRun run = work();
            const bool written = write(channel[1], &run, sizeof run) == ssize_t(sizeof run);
            _exit(written ? 0 : 3);
        } catch (...) {
            _exit(4);
        }
    }
    close(channel[1]);
    CheckedRun run;
    ssize_t got = 0;
    while (got < ssize_t(sizeof run)) {
        const ssize_t n = read(channel[0], reinterpret_cast<char *>(&run) + got, sizeof run - got);
        if (n <= 0)
            break;
        got += n;
    }
    close(channel[0]);
    int status = 0;
    waitpid(child, &status, 0);
    if (child < 0 || !WIFEXITED(status) || WEXITSTATUS(status) != 0 || got != sizeof run)
        return std::nullopt;
    return run;
}

std::optional<CheckedRun> parseInLimitedChild(const QByteArray &input)
{
    return runInLimitedChild([&input] { return parseChecked(input); });
}

QByteArray handler(const char *type)
{
    return fullBox("hdlr", 0, 0, cat({u32(0), text(type), zeros(12), text("Handler"), u8(0)}));
}

// A movie with one track whose handler says video, the given boxes in its sample table
// and trakBoxes in front of its media box.
QByteArray videoTrack(const QByteArray &tables, const QByteArray &trakBoxes = QByteArray())
{
    return box("moov",
               box("trak", cat({trakBoxes, box("mdia", cat({handler("vide"),
                                                            box("minf", box("stbl", tables))}))})));
}

// The sample tables of one chunk that holds every sample; the rest of a complete table set.
QByteArray oneChunk(quint32 samplesPerChunk)
{
    return cat({fullBox("stsc", 0, 0, cat({u32(1), u32(1), u32(samplesPerChunk), u32(1)})),
                fullBox("stco", 0, 0, cat({u32(1), u32(0)}))});
}

// depth boxes of the given type, each the only content of the one before.
QByteArray nested(const char *type, int depth)
{
    QByteArray input;
    input.reserve(8 * depth);
    for (int level = 0; level < depth; ++level)
        input += cat({u32(quint32(8 * (depth - level))), text(type)});
    return input;
}

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

struct HostileCase {
    const char *name;
    QByteArray input;
    // A box whose count of 2^32 - 1 must show as stored, beside the few entries it holds.
    const char *countedBox = nullptr;
};

std::string caseName(const ::testing::TestParamInfo<HostileCase> &info)
{
    return info.param.name;
}

class Hostile : public ::testing::TestWithParam<HostileCase> {};

// Nodes a report may have for a file of the given size: a few per byte, however often the
// walk comes back to a byte and whatever the counts in the file claim.
quint64 nodeLimit(quint64 fileSize)
{
    return 16 * fileSize + 256;
}

TEST(HostileHarness, TheMemoryCapStopsRunawayAllocation)
{
#ifdef SARVELINTH_ADDRESS_SANITIZER
    GTEST_SKIP() << "no address space cap under AddressSanitizer";
#endif
    EXPECT_TRUE(runInLimitedChild([] { return CheckedRun(); }).has_value());
    EXPECT_FALSE(runInLimitedChild([] {
                     QByteArray hog(int(2 * MemoryAllowance), 'x');
                     CheckedRun run;
                     run.elements = quint64(hog.count('x'));
                     return run;
                 }).has_value());
}

TEST_P(Hostile, EndsWithABoundedBalancedReport)
{
    const QByteArray &input = GetParam().input;
    const quint64 size = quint64(input.size());
    const std::optional<CheckedRun> run = parseInLimitedChild(input);
    ASSERT_TRUE(run.has_value()) << "the parse died or ran out of memory";
    EXPECT_TRUE(run->sound()) << run->problem;
    EXPECT_LE(run->nodes(), nodeLimit(size));
    EXPECT_LE(run->samples, size);
    EXPECT_LE(run->maxDepth, 64 + 2); // 64 levels of boxes and a couple of field groups

    if (const char *type = GetParam().countedBox) {
        const ReportTree report = parseReport(input);
        const ReportTree::Node *counted = findElement(report.root, QString::fromLatin1(type));
        ASSERT_NE(counted, nullptr);
        bool countShown = false;
        for (const auto &child : counted->children)
            countShown = countShown || child->value == QLatin1String("4294967295");
        EXPECT_TRUE(countShown) << dump(*counted).toStdString();
        EXPECT_LE(dump(*counted).count('\n'), 40) << dump(*counted).toStdString();
    }
}

INSTANTIATE_TEST_SUITE_P(
    Files, Hostile,
    ::testing::Values(
        // Every table box claims 2^32 - 1 entries and holds two.
        HostileCase{
            "SttsCount",
            videoTrack(fullBox("stts", 0, 0, cat({u32(MaxCount), u32(1), u32(1), u32(2), u32(3)}))),
            "stts"},
        HostileCase{"StssCount",
                    videoTrack(fullBox("stss", 0, 0, cat({u32(MaxCount), u32(1), u32(5)}))),
                    "stss"},
        HostileCase{"StscCount",
                    videoTrack(fullBox("stsc", 0, 0,
                                       cat({u32(MaxCount), u32(1), u32(2), u32(1), u32(3), u32(4),
                                            u32(1)}))),
                    "stsc"},
        HostileCase{"StcoCount",
                    videoTrack(fullBox("stco", 0, 0, cat({u32(MaxCount), u32(8), u32(16)}))),
                    "stco"},
        HostileCase{"Co64Count",
                    videoTrack(fullBox("co64", 0, 0, cat({u32(MaxCount), u64(8), u64(16)}))),
                    "co64"},
        HostileCase{"StszCount",
                    videoTrack(fullBox("stsz", 0, 0, cat({u32(0), u32(MaxCount), u32(4), u32(5)}))),
                    "stsz"},
        HostileCase{"StsdCount",
                    videoTrack(fullBox("stsd", 0, 0,
                                       cat({u32(MaxCount), u32(16), text("avc1"), zeros(8)}))),
                    "stsd"},
        HostileCase{"ElstCount",
                    videoTrack(QByteArray(), box("edts", fullBox("elst", 0, 0,
                                                                 cat({u32(MaxCount), u32(1), u32(0),
                                                                      u32(0x10000)})))),
                    "elst"},
        HostileCase{"ElstVersion1Count",
                    videoTrack(QByteArray(), box("edts", fullBox("elst", 1, 0,
                                                                 cat({u32(MaxCount), u64(1), u64(0),
                                                                      u32(0x10000)})))),
                    "elst"},
        // The same counts in boxes that claim more bytes than the file has.
        HostileCase{"TablesReachingPastTheInput",
                    videoTrack(cat({u32(0xFFFFFF00), text("stts"), zeros(4), u32(MaxCount),
                                    u32(MaxCount), u32(1)}))},
        HostileCase{"StszCountInBoxReachingPastTheInput",
                    videoTrack(cat({u32(0xFFFFFF00), text("stsz"), zeros(4), u32(0), u32(MaxCount),
                                    u32(7)}))},
        // One time-to-sample run, a constant sample size and one chunk, each for 2^32 - 1
        // samples: the sample walk has all it needs to report them all.
        HostileCase{"SttsRunOfAllSamples",
                    videoTrack(cat({fullBox("stts", 0, 0, cat({u32(1), u32(MaxCount), u32(1)})),
                                    fullBox("stsz", 0, 0, cat({u32(10), u32(MaxCount)})),
                                    oneChunk(MaxCount)}))},
        HostileCase{"StszConstantSizeMaxCount",
                    videoTrack(cat({fullBox("stts", 0, 0, cat({u32(1), u32(5), u32(1)})),
                                    fullBox("stsz", 0, 0, cat({u32(1000), u32(MaxCount)})),
                                    oneChunk(MaxCount)}))},
        HostileCase{
            "StszZeroSizeMaxCount",
            videoTrack(cat({fullBox("stsz", 0, 0, cat({u32(0), u32(MaxCount)})), oneChunk(0)}))},
        HostileCase{"StsdEntryCountMaxEntrySizesZero",
                    videoTrack(fullBox("stsd", 0, 0, cat({u32(MaxCount), zeros(64)})))},
        HostileCase{
            "StsdEntryCountMaxOutsideAVideoTrack",
            box("moov",
                box("trak", box("mdia", box("minf", box("stbl", fullBox("stsd", 0, 0,
                                                                        cat({u32(MaxCount),
                                                                             zeros(64)})))))))},
        HostileCase{"StsdEntriesReachingPastTheBox",
                    videoTrack(fullBox("stsd", 0, 0,
                                       cat({u32(3), u32(0xFFFFFFF0), text("avc1"), zeros(90)})))},
        HostileCase{"BigSizeZero", cat({u32(1), text("moov"), u64(0), box("free")})},
        HostileCase{"BigSizeMax", cat({u32(1), text("moov"), u64(~0ull), box("free"), u32(1),
                                       text("mdat"), u64(~0ull)})},
        HostileCase{"BigSizeMaxOfALeaf", cat({u32(1), text("free"), u64(~0ull), zeros(16)})},
        HostileCase{
            "DeclaredSizes1To7",
            cat({u32(1), text("moov"), u32(2), text("trak"), u32(3), text("free"), u32(4),
                 text("udta"), u32(5), text("mvhd"), u32(6), text("stts"), u32(7), text("abcd")})},
        HostileCase{"DeclaredSizes1To7InAContainer",
                    box("moov", cat({u32(1), text("trak"), u32(2), text("mdia"), u32(3),
                                     text("free"), u32(4), text("udta"), u32(5), text("stsd"),
                                     u32(6), text("stts"), u32(7), text("uuid")}))},
        HostileCase{"UuidShorterThanItsUsertype",
                    cat({u32(20), text("uuid"), zeros(12), u32(9), text("uuid"), text("0123")})},
        HostileCase{"UuidWithBigSizeShorterThanItsUsertype",
                    cat({u32(1), text("uuid"), u64(24), zeros(8)})},
        HostileCase{"UuidCutInsideItsUsertype", cat({u32(100), text("uuid"), text("0123456")})},
        HostileCase{"FileTypeReachingFarPastTheInput",
                    cat({u32(0xFFFFFFFF), text("ftyp"), text("isom"), u32(0), text("mp4")})},
        HostileCase{"ContainersNestedTenThousandDeep", nested("moov", 10000)},
        HostileCase{"SizeZeroContainersNestedTenThousandDeep",
                    QByteArray(cat({u32(0), text("moov")})).repeated(10000)}),
    caseName);

// Containers at every 8 bytes, 32 and 16 bytes long by turns: each 32-byte box holds two
// others, each of which walks the next 32-byte box again, so the work grows like the
// Fibonacci numbers with the depth. 125 headers would take 10^13 elements unbounded.
QByteArray chainedContainers(int count)
{
    QByteArray input;
    for (int i = 0; i < count; ++i)
        input += cat({u32(i % 2 == 0 ? 32 : 16), text("udta")});
    return input;
}

TEST(HostileWork, ChainedContainersReachingPastTheirParentsStopAtTheBudget)
{
    const QByteArray input = chainedContainers(125);
    ASSERT_LT(input.size(), 1024);
    const std::optional<CheckedRun> run = parseInLimitedChild(input);
    ASSERT_TRUE(run.has_value());
    EXPECT_TRUE(run->sound()) << run->problem;
    // Each element covers at least 16 bytes of the budget of 64 times the file.
    EXPECT_LE(run->elements, 64u * quint64(input.size()) / 16);
    EXPECT_GT(run->elements, 1000u);
}

TEST(HostileWork, NothingIsReportedOnceTheBudgetIsSpent)
{
    // The chain spends the budget inside the first top-level box; the box behind it is
    // not reported, as if the input ended there.
    // Chains of several lengths, so that the budget runs out with little or much left.
    for (int count = 90; count < 100; ++count) {
        const QByteArray chain = chainedContainers(count);
        const QByteArray input =
            cat({box("moov", cat({chain, box("free", zeros(24))})), box("skip")});
        ReportTree report;
        const CheckedRun run = parseChecked(input, &report);
        EXPECT_TRUE(run.sound()) << run.problem;
        ASSERT_EQ(report.root.children.size(), 1u) << count;
        EXPECT_EQ(report.root.children[0]->name, "moov");
    }
}

TEST(HostileWork, TenThousandLevelsAreCutAtLevel65)
{
    const QByteArray input = nested("moov", 10000);
    ReportTree report;
    const CheckedRun run = parseChecked(input, &report);
    EXPECT_TRUE(run.sound()) << run.problem;
    EXPECT_EQ(run.elements, 65u);
    const ReportTree::Node *node = &report.root;
    for (int level = 1; level <= 64; ++level) {
        node = node->child("moov");
        ASSERT_NE(node, nullptr) << level;
        EXPECT_EQ(node->note, "") << level;
    }
    node = node->child("moov");
    ASSERT_NE(node, nullptr);
    EXPECT_EQ(node->note, "Nesting too deep.");
    EXPECT_EQ(node->offset, 64u * 8);
    EXPECT_EQ(dump(*node).toStdString(), "moov @512+79488 ! Nesting too deep.\n"
                                         "  size @512+4 = 79488\n"
                                         "  type @516+4 = moov\n"
                                         "  data @520+79480\n");
}

TEST(HostileWork, SizesBelowTheHeaderReachToTheEndOfTheInput)
{
    // Declared size 1 with a big_size of 0, then the sizes 2 to 7: each box swallows the
    // rest of the input, so only the first is reported.
    for (quint32 declared = 1; declared < 8; ++declared) {
        const QByteArray input = cat({u32(declared), text("moov"), zeros(8), box("free")});
        ReportTree report;
        const CheckedRun run = parseChecked(input, &report);
        EXPECT_TRUE(run.sound()) << run.problem;
        ASSERT_EQ(report.root.children.size(), 1u) << declared;
        const ReportTree::Node &moov = *report.root.children[0];
        EXPECT_EQ(moov.note, "Invalid element size.") << declared;
        EXPECT_EQ(moov.size, quint64(input.size())) << declared;
        EXPECT_EQ(moov.child("free"), nullptr) << declared;
    }
}
} // namespace

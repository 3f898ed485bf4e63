// Crafted hostile files and the inputs that once broke the parser: counts, sizes and
// nesting that would make a naive parser loop for hours, allocate gigabytes or recurse off
// the stack. Each must end with a balanced report whose size is in proportion to the file,
// inside a child process whose address space is capped, so that runaway allocation fails
// the test instead of slowing the machine. The checking sink that judges the report is
// tested first.

#include "Checked.h"

#include <QDir>

#include <gtest/gtest.h>

#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <functional>
#include <map>
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

// Plays a script of sink calls separated by spaces: "b0,40" begins an element at 0 of
// size 40, "e" ends it, "f8" is a field at 8, "r8" a raw field, "o8" and "z8" set the open
// element's offset and size, "s0" begins stream 0, "a" adds a sample, "t" ends the stream.
void play(ReportSink &sink, const char *script)
{
    static const quint8 raw[2] = {1, 2};
    quint64 first = 0;
    quint64 second = 0;
    const std::map<char, std::function<void()>> calls = {
        {'b', [&] { sink.beginElement(first, second, "x", -1); }},
        {'e', [&] { sink.endElement(); }},
        {'f', [&] { sink.addField(false, first, 0, 4, "f", "v", QString(), QString(), -1); }},
        {'r', [&] { sink.addRawField(first, 2, raw, "r", QString()); }},
        {'o', [&] { sink.setElementOffset(first); }},
        {'z', [&] { sink.setElementSize(first); }},
        {'s', [&] { sink.beginStream(int(first), StreamInfo()); }},
        {'a', [&] { sink.addSample(0, Sample()); }},
        {'t', [&] { sink.endStream(); }},
    };
    for (const QString &call : QString::fromLatin1(script).split(' ')) {
        const QStringList numbers = call.mid(1).split(',');
        first = numbers.value(0).toULongLong();
        second = numbers.value(1).toULongLong();
        calls.at(call[0].toLatin1())();
    }
}

// The checking sink is the oracle of the fuzzer, of these tests and of the sweeps: it must
// notice every kind of unsound report, and pass a sound one on unchanged.
TEST(CheckingSink, NoticesEveryUnsoundReport)
{
    const struct {
        const char *script; // between beginReport of 100 bytes and endReport
        const char *problem;
    } cases[] = {
        {"b0,40 f0 b0,0 o8 f8 r12 e e b40,60 e s0 a t s2 t", ""},
        {"b0,8", "endReport with an element still open"},
        {"b0,8 e e", "endElement without an open element"},
        {"f0", "addField without an open element"},
        {"z4", "setElementSize without an open element"},
        {"o4", "setElementOffset without an open element"},
        {"b0,100 b0,0 f4 o8 e e", "a child placed before the start of its element"},
        {"b0,8 e b9,8 e", "top-level element not behind the last one"},
        {"b0,100 e b100,8 e", "top-level element at the end of the input"},
        {"a", "sample outside a stream"},
        {"s1 t s0 t", "streams out of index order"},
        {"b0,8 s0", "beginStream inside an element"},
        {"s0 t b0,8 e", "beginElement after the streams began"},
        {"s0", "endReport with a stream still open"},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.script);
        // Only a sound report is passed on: the tree relies on the order being right.
        const bool sound = c.problem[0] == '\0';
        ReportTree tree;
        CheckingSink sink(CheckingSink::Record, sound ? &tree : nullptr);
        sink.beginReport("f.mp4", 100);
        play(sink, c.script);
        sink.endReport();
        EXPECT_EQ(sink.problem(), c.problem);
        if (sound) {
            EXPECT_EQ(dump(tree).toStdString(), "x @0+40\n  f @0+4 = v\n  x @8+0\n    f @8+4 = v\n"
                                                "    r @12+2 = 0102\nx @40+60\n");
            EXPECT_EQ(tree.streams.size(), 2);
            EXPECT_EQ(sink.nodes(), 7u);
            EXPECT_EQ(sink.maxDepth, 2);
        }
    }
}

#ifndef SARVELINTH_ADDRESS_SANITIZER
quint64 addressSpaceInUse()
{
    QFile statm(QStringLiteral("/proc/self/statm"));
    if (!statm.open(QIODevice::ReadOnly))
        return 0;
    return statm.readLine().split(' ').value(0).toULongLong() * quint64(sysconf(_SC_PAGESIZE));
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
            _exit(write(channel[1], &run, sizeof run) == ssize_t(sizeof run) ? 0 : 3);
        } catch (...) {
            _exit(4);
        }
    }
    close(channel[1]);
    // One write of less than PIPE_BUF bytes arrives whole.
    CheckedRun run;
    const ssize_t got = read(channel[0], &run, sizeof run);
    close(channel[0]);
    int status = 0;
    waitpid(child, &status, 0);
    if (child < 0 || !WIFEXITED(status) || WEXITSTATUS(status) != 0 || got != sizeof run)
        return std::nullopt;
    return run;
}

// A balanced report of at most a few nodes per byte, however often the walk comes back to
// a byte and whatever the counts in the file claim.
void expectBoundedBalancedReport(const QByteArray &input)
{
    const std::optional<CheckedRun> run = runInLimitedChild([&] { return parseChecked(input); });
    ASSERT_TRUE(run.has_value()) << "the parse died or ran out of memory";
    EXPECT_TRUE(run->sound()) << run->problem;
    EXPECT_LE(run->nodes(), 16 * quint64(input.size()) + 256);
    EXPECT_LE(run->samples, quint64(input.size()));
    EXPECT_LE(run->maxDepth, 64 + 2); // 64 levels of boxes and a couple of field groups
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

// A movie with one track whose handler says video, the given boxes in its sample table
// and trakBoxes in front of its media box.
QByteArray videoTrack(const QByteArray &tables, const QByteArray &trakBoxes = QByteArray())
{
    const QByteArray handler =
        fullBox("hdlr", 0, 0, cat({u32(0), text("vide"), zeros(12), text("Handler"), u8(0)}));
    const QByteArray media = box("mdia", cat({handler, box("minf", box("stbl", tables))}));
    return box("moov", box("trak", cat({trakBoxes, media})));
}

// The sample tables of one chunk that holds every sample; the rest of a complete table set.
QByteArray oneChunk(quint32 samplesPerChunk)
{
    return cat({fullBox("stsc", 0, 0, cat({u32(1), u32(1), u32(samplesPerChunk), u32(1)})),
                fullBox("stco", 0, 0, cat({u32(1), u32(0)}))});
}

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

TEST(Hostile, CraftedFilesEndWithABoundedBalancedReport)
{
    QByteArray deep;
    for (int level = 10000; level > 0; --level)
        deep += cat({u32(quint32(8 * level)), text("moov")});
    const struct {
        const char *name;
        QByteArray input;
    } cases[] = {
        // Every table box claims 2^32 - 1 entries and holds two; what they report is the
        // business of the table tests, their memory is checked here.
        {"SttsCount",
         videoTrack(fullBox("stts", 0, 0, cat({u32(MaxCount), u32(1), u32(1), u32(2), u32(3)})))},
        {"StssCount", videoTrack(fullBox("stss", 0, 0, cat({u32(MaxCount), u32(1), u32(5)})))},
        {"StscCount",
         videoTrack(fullBox("stsc", 0, 0,
                            cat({u32(MaxCount), u32(1), u32(2), u32(1), u32(3), u32(4), u32(1)})))},
        {"StcoCount", videoTrack(fullBox("stco", 0, 0, cat({u32(MaxCount), u32(8), u32(16)})))},
        {"Co64Count", videoTrack(fullBox("co64", 0, 0, cat({u32(MaxCount), u64(8), u64(16)})))},
        {"StszCount",
         videoTrack(fullBox("stsz", 0, 0, cat({u32(0), u32(MaxCount), u32(4), u32(5)})))},
        {"StsdCount",
         videoTrack(fullBox("stsd", 0, 0, cat({u32(MaxCount), u32(16), text("avc1"), zeros(8)})))},
        {"ElstCount",
         videoTrack({}, box("edts", fullBox("elst", 0, 0,
                                            cat({u32(MaxCount), u32(1), u32(0), u32(0x10000)}))))},
        {"ElstVersion1Count",
         videoTrack({}, box("edts", fullBox("elst", 1, 0,
                                            cat({u32(MaxCount), u64(1), u64(0), u32(0x10000)}))))},
        // The same counts in boxes that claim more bytes than the file has.
        {"TablesReachingPastTheInput", videoTrack(cat({u32(0xFFFFFF00), text("stts"), zeros(4),
                                                       u32(MaxCount), u32(MaxCount), u32(1)}))},
        {"StszCountInBoxReachingPastTheInput",
         videoTrack(cat({u32(0xFFFFFF00), text("stsz"), zeros(4), u32(0), u32(MaxCount), u32(7)}))},
        // One time-to-sample run, a constant sample size and one chunk, each for 2^32 - 1
        // samples: the sample walk has all it needs to report them all.
        {"SttsRunOfAllSamples",
         videoTrack(
             cat({fullBox("stts", 0, 0, cat({u32(1), u32(MaxCount), u32(1)})),
                  fullBox("stsz", 0, 0, cat({u32(10), u32(MaxCount)})), oneChunk(MaxCount)}))},
        {"StszConstantSizeMaxCount",
         videoTrack(
             cat({fullBox("stts", 0, 0, cat({u32(1), u32(5), u32(1)})),
                  fullBox("stsz", 0, 0, cat({u32(1000), u32(MaxCount)})), oneChunk(MaxCount)}))},
        {"StszZeroSizeMaxCount",
         videoTrack(cat({fullBox("stsz", 0, 0, cat({u32(0), u32(MaxCount)})), oneChunk(0)}))},
        {"StsdEntryCountMaxEntrySizesZero",
         videoTrack(fullBox("stsd", 0, 0, cat({u32(MaxCount), zeros(64)})))},
        {"StsdEntryCountMaxOutsideAVideoTrack",
         box("moov",
             box("trak",
                 box("mdia", box("minf", box("stbl", fullBox("stsd", 0, 0,
                                                             cat({u32(MaxCount), zeros(64)})))))))},
        {"StsdEntriesReachingPastTheBox",
         videoTrack(
             fullBox("stsd", 0, 0, cat({u32(3), u32(0xFFFFFFF0), text("avc1"), zeros(90)})))},
        {"BigSizeZero", cat({u32(1), text("moov"), u64(0), box("free")})},
        {"BigSizeMax",
         cat({u32(1), text("moov"), u64(~0ull), box("free"), u32(1), text("mdat"), u64(~0ull)})},
        {"BigSizeMaxOfALeaf", cat({u32(1), text("free"), u64(~0ull), zeros(16)})},
        {"DeclaredSizes1To7",
         cat({u32(1), text("moov"), u32(2), text("trak"), u32(3), text("free"), u32(4),
              text("udta"), u32(5), text("mvhd"), u32(6), text("stts"), u32(7), text("abcd")})},
        {"DeclaredSizes1To7InAContainer",
         box("moov", cat({u32(1), text("trak"), u32(2), text("mdia"), u32(3), text("free"), u32(4),
                          text("udta"), u32(5), text("stsd"), u32(6), text("stts"), u32(7),
                          text("uuid")}))},
        {"UuidShorterThanItsUsertype",
         cat({u32(20), text("uuid"), zeros(12), u32(9), text("uuid"), text("0123")})},
        {"UuidWithBigSizeShorterThanItsUsertype", cat({u32(1), text("uuid"), u64(24), zeros(8)})},
        {"UuidCutInsideItsUsertype", cat({u32(100), text("uuid"), text("0123456")})},
        {"FileTypeReachingFarPastTheInput",
         cat({u32(0xFFFFFFFF), text("ftyp"), text("isom"), u32(0), text("mp4")})},
        {"ContainersNestedTenThousandDeep", deep},
        {"SizeZeroContainersNestedTenThousandDeep",
         QByteArray(cat({u32(0), text("moov")})).repeated(10000)},
        {"ChainedContainersReachingPastTheirParents", chainedContainers(125)},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        expectBoundedBalancedReport(c.input);
    }
}

TEST(Hostile, KeptRegressionInputsEndWithABoundedBalancedReport)
{
    const QDir dir(QStringLiteral(SARVELINTH_SOURCE_DIR "/tests/data/regressions"));
    const QStringList names = dir.entryList(QDir::Files, QDir::Name);
    EXPECT_FALSE(names.isEmpty());
    for (const QString &name : names) {
        SCOPED_TRACE(name.toStdString());
        expectBoundedBalancedReport(readWholeFile(dir.filePath(name)));
    }
}

TEST(HostileWork, NothingIsReportedOnceTheBudgetIsSpent)
{
    // The chain spends the budget inside the first top-level box; the box behind it is
    // not reported, as if the input ended there. Chains of several lengths, so that the
    // budget runs out with little or much left.
    for (int count = 90; count < 100; ++count) {
        const QByteArray input = cat(
            {box("moov", cat({chainedContainers(count), box("free", zeros(24))})), box("skip")});
        ReportTree report;
        EXPECT_TRUE(parseChecked(input, &report).sound()) << count;
        ASSERT_EQ(report.root.children.size(), 1u) << count;
        EXPECT_EQ(report.root.children[0]->name, "moov");
    }
}

TEST(HostileWork, ContainerSizesBelowTheHeaderReachToTheEndOfTheInput)
{
    // Declared size 1 with a big_size of 0, then the sizes 2 to 7: the container swallows
    // the rest of the input and walks none of it.
    for (quint32 declared = 1; declared < 8; ++declared) {
        const QByteArray input = cat({u32(declared), text("moov"), zeros(8), box("free")});
        ReportTree report;
        EXPECT_TRUE(parseChecked(input, &report).sound()) << declared;
        ASSERT_EQ(report.root.children.size(), 1u) << declared;
        const ReportTree::Node &moov = *report.root.children[0];
        EXPECT_EQ(moov.note, "Invalid element size.") << declared;
        EXPECT_EQ(moov.size, quint64(input.size())) << declared;
        EXPECT_EQ(moov.child("free"), nullptr) << declared;
    }
}
} // namespace

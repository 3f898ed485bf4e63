// Crafted hostile files, the inputs that once broke the parser, and real files cut short or
// with damaged headers and counts. Each must end with a balanced report in proportion to the
// file, as the checking sink judges it; crafted inputs run in a child whose address space is
// capped, so that runaway allocation fails the test instead of slowing the machine.

#include "CheckingSink.h"
#include "ItemSupport.h"
#include "Support.h"

#include <QDir>
#include <QFile>

#include <gtest/gtest.h>

#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstring>
#include <functional>
#include <random>

using namespace bytes;

#if defined(__SANITIZE_ADDRESS__)
#define SARVELINTH_ADDRESS_SANITIZER 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define SARVELINTH_ADDRESS_SANITIZER 1
#endif
#endif

namespace {
constexpr quint32 Max = 0xFFFFFFFF;
// Memory a parse may take beyond what the process holds before it starts.
constexpr quint64 MemoryAllowance = 64ull * 1024 * 1024;

// What a parse under the checking sink came to.
struct CheckedRun {
    quint64 nodes = 0;
    quint64 samples = 0;
    int maxDepth = 0;
    std::string problem;
};

// Parses the input through a CheckingSink that records instead of aborting, passing the
// report on to next when given; with deep analysis and the checks when deep is set.
CheckedRun parseChecked(const QByteArray &input, ReportSink *next = nullptr, bool deep = false)
{
    CheckingSink sink(CheckingSink::Record, next);
    TestParser parser;
    ContainerAbstract::Settings settings;
    settings.deepAnalysis = deep;
    settings.checkProblems = deep;
    settings.sampleUnits = deep;
    parser.configure(settings);
    parser.parseBytes(QStringLiteral("test.mp4"), input, sink);
    return {sink.nodes(), sink.samples, sink.maxDepth,
            sink.finished() ? sink.problem() : "the report did not end"};
}

QByteArray readWholeFile(const QString &path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
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

// Runs check in a forked child whose address space may grow by MemoryAllowance at most (not
// under AddressSanitizer, whose shadow memory needs terabytes of address space; there the
// node counts stand alone). What the check found wrong, handed back through a shared page.
std::string inLimitedChild(const std::function<std::string()> &check)
{
    const size_t pageSize = size_t(sysconf(_SC_PAGESIZE));
    void *page = mmap(nullptr, pageSize, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    if (page == MAP_FAILED)
        return "no shared page";
    const pid_t child = fork();
    if (child == 0) {
#ifndef SARVELINTH_ADDRESS_SANITIZER
        const rlim_t cap = rlim_t(addressSpaceInUse() + MemoryAllowance);
        const rlimit limit{cap, cap};
        if (setrlimit(RLIMIT_AS, &limit) != 0)
            _exit(2);
#endif
        // The child never returns into the test framework, whatever happens in it.
        try {
            std::strncpy(static_cast<char *>(page), check().c_str(), pageSize - 1);
            _exit(0);
        } catch (...) {
            _exit(3);
        }
    }
    int status = 0;
    const bool done = child > 0 && waitpid(child, &status, 0) == child && WIFEXITED(status) &&
                      WEXITSTATUS(status) == 0;
    const std::string problem =
        done ? static_cast<const char *>(page) : "the check died or ran out of memory";
    munmap(page, pageSize);
    return problem;
}

QByteArray words(std::initializer_list<quint32> values)
{
    QByteArray result;
    for (quint32 value : values)
        result += u32(value);
    return result;
}

QByteArray table(const char *type, std::initializer_list<quint32> values)
{
    return fullBox(type, 0, 0, words(values));
}

// A movie with one track: the handler given (none if null), tables in its sample table and
// trakBoxes in front of its media box.
QByteArray movie(const QByteArray &tables, const char *handler = "vide",
                 const QByteArray &trakBoxes = {})
{
    const QByteArray hdlr =
        handler ? fullBox("hdlr", 0, 0, u32(0) + text(handler) + zeros(12) + text("H") + u8(0))
                : QByteArray();
    return box("moov",
               box("trak", trakBoxes + box("mdia", hdlr + box("minf", box("stbl", tables)))));
}

// A zlib stream that would inflate to count times 258 zero bytes and more: a zero, then count
// copies of the 258 bytes behind it, in a block of the fixed codes, without its end.
QByteArray inflatesToZeros(quint32 count)
{
    QByteArray stream("\x78\x01", 2);
    quint32 bits = 0;
    int used = 0;
    const auto put = [&](quint32 value, int width) { // least significant bit first
        for (int i = 0; i < width; ++i) {
            bits |= ((value >> i) & 1) << used;
            if (++used == 8) {
                stream += char(bits);
                bits = 0;
                used = 0;
            }
        }
    };
    const auto code = [&](quint32 value, int width) { // most significant bit first
        for (int i = width - 1; i >= 0; --i)
            put((value >> i) & 1, 1);
    };
    put(1, 1);     // the last block
    put(1, 2);     // of the fixed codes
    code(0x30, 8); // the literal 0
    for (quint32 i = 0; i < count; ++i) {
        code(0xC5, 8); // length 258
        code(0, 5);    // distance 1
    }
    return stream;
}

QByteArray compressedMovie(quint32 declaredSize, const QByteArray &deflated)
{
    return box("moov",
               box("cmov", box("dcom", text("zlib")) + box("cmvd", u32(declaredSize) + deflated)));
}

// A video track of one avc1 or hvc1 entry around config and one sample of the given bytes
// behind the movie.
QByteArray codedMovie(const char *entryType, const QByteArray &config, const QByteArray &sample)
{
    const QByteArray entry =
        box(entryType, zeros(6) + u16(1) + zeros(16) + u16(32) + u16(32) + zeros(50) + config);
    const auto build = [&](quint32 offset) {
        return movie(fullBox("stsd", 0, 0, u32(1) + entry) + table("stts", {1, 1, 1}) +
                     table("stsc", {1, 1, 1, 1}) + table("stsz", {0, 1, quint32(sample.size())}) +
                     table("stco", {1, offset}));
    };
    return build(quint32(build(0).size() + 8)) + box("mdat", sample);
}

// avcC around one SPS of the given profile and body.
QByteArray avcConfig(quint8 profile, const QByteArray &body)
{
    const QByteArray sps = u8(0x67) + u8(profile) + u8(0) + u8(30) + body;
    return box("avcC", u8(1) + u8(profile) + u8(0) + u8(30) + u8(0xFF) + u8(0xE1) +
                           u16(quint16(sps.size())) + sps + u8(0));
}

// hvcC around one SPS of the given body.
QByteArray hevcConfig(const QByteArray &body)
{
    const QByteArray sps = u8(0x42) + u8(0x01) + body;
    return box("hvcC", u8(1) + zeros(20) + u8(0x0F) + u8(1) + u8(0xA1) + u16(1) +
                           u16(quint16(sps.size())) + sps);
}

TEST(Hostile, CraftedAndKeptInputsEndWithABoundedBalancedReport)
{
#ifndef SARVELINTH_ADDRESS_SANITIZER
    // The cap works: a runaway allocation fails the check.
    ASSERT_NE(inLimitedChild([] {
                  return QByteArray(qsizetype(2 * MemoryAllowance), 'x').left(0).toStdString();
              }),
              "");
#endif
    const auto header = [](quint32 size, const char *type) { return u32(size) + text(type); };
    QByteArray deep;
    for (quint32 level = 10000; level > 0; --level)
        deep += header(8 * level, "moov");
    // Containers at every 8 bytes, 32 and 16 bytes long by turns: each 32-byte box holds two
    // others, each of which walks the next 32-byte box again, so the work grows like the
    // Fibonacci numbers with the depth: 10^13 elements unbounded.
    QByteArray chain;
    for (int i = 0; i < 125; ++i)
        chain += header(i % 2 == 0 ? 32 : 16, "udta");
    // Every table claims 2^32 - 1 entries; what they report is the business of the table
    // tests, their memory is checked here. Where a sample count has stsc and stco beside it,
    // those put every sample in one chunk.
    // clang-format off
    QList<QPair<QString, QByteArray>> cases = {
        {"SttsCount", movie(table("stts", {Max, 1, 1, 2, 3}))},
        {"StssCount", movie(table("stss", {Max, 1, 5}))},
        {"StscCount", movie(table("stsc", {Max, 1, 2, 1, 3, 4, 1}))},
        {"StcoCount", movie(table("stco", {Max, 8, 16}))},
        {"Co64Count", movie(table("co64", {Max, 0, 8, 0, 16}))},
        {"StszCount", movie(table("stsz", {0, Max, 4, 5}))},
        {"StsdCount", movie(table("stsd", {Max, 16, 0x61766331, 0, 0}))},
        {"ElstCount", movie({}, "vide", box("edts", table("elst", {Max, 1, 0, 0x10000})))},
        {"ElstV1Count", movie({}, "vide", box("edts", fullBox("elst", 1, 0, words({Max, 0, 1, 0, 0, 0x10000}))))},
        {"SttsPastTheInput", movie(header(0xFFFFFF00, "stts") + words({0, Max, Max, 1}))},
        {"StszPastTheInput", movie(header(0xFFFFFF00, "stsz") + words({0, 0, Max, 7}))},
        {"SttsRunOfAllSamples", movie(table("stts", {1, Max, 1}) + table("stsz", {10, Max}) + table("stsc", {1, 1, Max, 1}) + table("stco", {1, 0}))},
        {"StszConstantSizeMaxCount", movie(table("stts", {1, 5, 1}) + table("stsz", {1000, Max}) + table("stsc", {1, 1, Max, 1}) + table("stco", {1, 0}))},
        {"StszZeroSizeMaxCount", movie(table("stsz", {0, Max}) + table("stsc", {1, 1, 0, 1}) + table("stco", {1, 0}))},
        {"StsdMaxEntriesOfSizeZero", movie(fullBox("stsd", 0, 0, u32(Max) + zeros(64)))},
        {"StsdMaxEntriesOutsideAVideoTrack", movie(fullBox("stsd", 0, 0, u32(Max) + zeros(64)), nullptr)},
        {"StsdEntriesPastTheBox", movie(fullBox("stsd", 0, 0, words({3, 0xFFFFFFF0}) + text("avc1") + zeros(90)))},
        {"BigSizeZero", header(1, "moov") + u64(0) + box("free")},
        {"BigSizeMax", header(1, "moov") + u64(~0ull) + box("free") + header(1, "mdat") + u64(~0ull)},
        {"BigSizeMaxOfALeaf", header(1, "free") + u64(~0ull) + zeros(16)},
        {"DeclaredSizes1To7", header(1, "moov") + header(2, "trak") + header(3, "free") + header(4, "udta") + header(5, "mvhd") + header(6, "stts") + header(7, "abcd")},
        {"DeclaredSizes1To7InAContainer", box("moov", header(1, "trak") + header(2, "mdia") + header(3, "free") + header(4, "udta") + header(5, "stsd") + header(6, "stts") + header(7, "uuid"))},
        {"UuidShorterThanItsUsertype", header(20, "uuid") + zeros(12) + header(9, "uuid") + text("0123")},
        {"UuidWithBigSizeShorterThanItsUsertype", header(1, "uuid") + u64(24) + zeros(8)},
        {"UuidCutInsideItsUsertype", header(100, "uuid") + text("0123456")},
        {"FileTypeFarPastTheInput", header(Max, "ftyp") + text("isom") + u32(0) + text("mp4")},
        {"ContainersNestedTenThousandDeep", deep},
        {"SizeZeroContainersNestedTenThousandDeep", header(0, "moov").repeated(10000)},
        {"ChainedContainersReachingPastTheirParents", chain},
        // Movie fragments: a trun count far beyond its box, data offsets past the end of the
        // file, tfhd with every flag, and a million empty moofs.
        {"TrunCountAndDataPastTheEnd", box("moof", box("traf", fullBox("tfhd", 0, 0, u32(1)) + fullBox("trun", 1, 0xF05, words({Max, 0x7FFFFFFF, 0, 1, 2, 3, 4}))))},
        {"TfhdWithEveryFlag", box("moof", box("traf", fullBox("tfhd", 0, 0xFFFFFF, words({1, Max, Max, 5, 6, 7, Max})) + fullBox("trun", 0, 0xFFFFFF, words({3, 0, 0, 1, 2, 3, 4}))))},
        {"MillionEmptyMoofs", header(8, "moof").repeated(1000000)},
        // QuickTime: a compressed movie that would inflate to a gigabyte of zeros, one that
        // inflates to a movie nested as deep as the walk goes, wave atoms inside each other
        // and terminators where no list ends.
        {"CompressedMovieOfAGigabyte", compressedMovie(Max, inflatesToZeros(1u << 22))},
        {"CompressedMovieNestedDeep", compressedMovie(80000, qCompress(deep.left(80000)).mid(4))},
        {"WaveAtomsNestedDeep", header(0, "wave").repeated(1000) + u32(0)},
        {"TerminatorsEverywhere", box("moov", box("udta", u32(0) + box("meta", u32(0)) + u32(0)) + u32(0) + u32(0))},
        // Bitstreams: Exp-Golomb codes of 32 and more leading zeros, parameter sets of all
        // ones (the largest counts of reference frames, scaling lists and sub-layers each
        // code can give), and a sample of a million units of length 0.
        {"ExpGolombOfZeros", codedMovie("avc1", avcConfig(100, zeros(64) + u8(0x80)), u32(1) + u8(0x65))},
        {"SpsOfOnes", codedMovie("avc1", avcConfig(100, QByteArray(256, '\xFF')), u32(1) + u8(0x65))},
        {"SpsOfPocCycleOnes", codedMovie("avc1", avcConfig(66, u8(0x9F) + QByteArray(64, '\xFF')), QByteArray())},
        {"HevcSpsOfOnes", codedMovie("hvc1", hevcConfig(QByteArray(512, '\xFF')), u32(2) + u8(0x26) + u8(0x01))},
        {"HevcSpsOfZeros", codedMovie("hvc1", hevcConfig(zeros(512)), u32(2) + u8(0x26) + u8(0x01))},
        {"MillionZeroLengthUnits", codedMovie("avc1", avcConfig(66, u8(0x80)), zeros(4000000))},
    };
    // clang-format on
    cases += items::hostileItemFiles();
    const QDir kept(QStringLiteral(SARVELINTH_SOURCE_DIR "/tests/data/regressions"));
    for (const QString &name : kept.entryList(QDir::Files, QDir::Name))
        cases.append({name, readWholeFile(kept.filePath(name))});
    EXPECT_GT(cases.size(), 33);
    for (const auto &[name, input] : cases) {
        // A balanced report of at most a few nodes per byte, however often the walk comes
        // back to a byte and whatever the counts claim; 64 levels of boxes and a couple of
        // field groups.
        // Both with and without deep analysis.
        EXPECT_EQ(inLimitedChild([&input = input] {
                      for (const bool deep : {false, true}) {
                          const CheckedRun run = parseChecked(input, nullptr, deep);
                          const quint64 size = quint64(input.size());
                          const bool bounded = run.nodes <= CheckingSink::nodeBound(size) &&
                                               run.samples <= size && run.maxDepth <= 64 + 2;
                          if (!bounded)
                              return std::string("a report out of proportion to the input");
                          if (!run.problem.empty())
                              return run.problem;
                      }
                      return std::string();
                  }),
                  "")
            << name.toStdString();
    }
}

// The sample file cut at every length: one top-level element for every box that starts
// before the cut, at the same place, and those that end before it exactly as in the whole.
void checkEveryCut(const QByteArray &whole, bool deep)
{
    SCOPED_TRACE(deep ? "deep" : "basic");
    ReportTree full;
    ASSERT_EQ(parseChecked(whole, &full, deep).problem, "");
    const auto &tops = full.root.children;
    for (int cut = 0; cut <= whole.size(); ++cut) {
        ReportTree report;
        const CheckedRun run = parseChecked(whole.left(cut), &report, deep);
        ASSERT_EQ(run.problem, "") << cut;
        size_t started = 0;
        while (started < tops.size() && tops[started]->offset < quint64(cut))
            ++started;
        ASSERT_EQ(report.root.children.size(), started) << cut;
        for (size_t i = 0; i < started; ++i) {
            EXPECT_EQ(report.root.children[i]->offset, tops[i]->offset) << cut;
            if (tops[i]->offset + tops[i]->size <= quint64(cut)) {
                EXPECT_EQ(dump(*report.root.children[i]), dump(*tops[i])) << cut;
            }
        }
    }
}

TEST(Swept, EveryCutKeepsTheWholeBoxesBeforeIt)
{
    const QByteArray whole = readWholeFile(SARVELINTH_SOURCE_DIR "/samples/sample.mp4");
    for (const bool deep : {false, true})
        checkEveryCut(whole, deep);
}

// Where damage hurts most: the size and type of every box and every count and size field,
// as the whole file's report locates them.
void collectMutationTargets(const ReportTree::Node &node, QList<QPair<int, int>> &targets)
{
    for (const auto &child : node.children) {
        if (child->kind == ReportTree::Node::Element)
            collectMutationTargets(*child, targets);
        else if (child->kind == ReportTree::Node::Field && !child->bitField &&
                 (child->size == 4 || child->size == 8) &&
                 (child->name == "type" || child->name.endsWith("size") ||
                  child->name.endsWith("count")))
            targets.append({int(child->offset), int(child->size)});
    }
}

// Damages the targets of a file's report, with or without deep analysis, whose larger
// vocabulary finds more of them. A damaged file may walk its bytes up to 64 times over, but
// no count may take the report beyond the bytes that back it.
void checkDamages(const QByteArray &whole, bool deep, std::mt19937 &random)
{
    SCOPED_TRACE(deep ? "deep" : "basic");
    const quint32 specials[] = {0, 1, 7, 8, 16, 0x7FFFFFFF, 0x80000000, 0xFFFFFFF8, Max};
    ReportTree report;
    const quint64 wholeNodes = parseChecked(whole, &report, deep).nodes;
    QList<QPair<int, int>> targets;
    collectMutationTargets(report.root, targets);
    ASSERT_FALSE(targets.isEmpty());
    // The generator is seeded: file, mode and round name the damage again.
    for (int round = 0; round < 300; ++round) {
        QByteArray input = whole;
        for (int damages = 1 + int(random() % 3); damages > 0; --damages) {
            const auto [offset, width] = targets[random() % targets.size()];
            const unsigned kind = random() % 3;
            if (kind == 0) // one byte of the field
                input[offset + int(random() % unsigned(width))] = char(random());
            else if (kind == 1) // the low word to a value that sizes and counts meet
                input.replace(offset + width - 4, 4, u32(specials[random() % std::size(specials)]));
            else // a whole 64-bit field, or the high word of a 32-bit one, to all ones
                input.replace(offset, width, QByteArray(width, char(0xFF)));
        }
        const CheckedRun run = parseChecked(input, nullptr, deep);
        ASSERT_EQ(run.problem, "") << "round " << round;
        EXPECT_LE(run.nodes, 65 * wholeNodes + CheckingSink::nodeBound(quint64(whole.size())))
            << round;
        EXPECT_LE(run.samples, quint64(whole.size())) << round;
    }
}

TEST(Swept, DamagedHeadersAndCountsGiveBoundedBalancedReports)
{
    const QDir data(QStringLiteral(SARVELINTH_SOURCE_DIR "/tests/data"));
    QStringList paths = {SARVELINTH_SOURCE_DIR "/samples/sample.mp4"};
    for (const QString &name :
         data.entryList({"*.mp4", "*.m4a", "*.mov", "*.m4s", "*.heic", "*.avif"}, QDir::Files))
        paths << data.filePath(name);
    std::mt19937 random(20261123u);
    for (const QString &path : paths) {
        SCOPED_TRACE(path.toStdString());
        for (const bool deep : {false, true})
            checkDamages(readWholeFile(path), deep, random);
    }
}
} // namespace

// The checks: crafted and damaged files, each with the problems it must give, compared whole
// with tests/golden/Checks/problems.txt; a real file cut at every box boundary; the real files,
// which must give no error and no warning; and where the bytes of a file went.

#include "TrackSupport.h"

#include <QDir>
#include <QFile>

#include <gtest/gtest.h>

using namespace bytes;
using namespace tracks;

namespace {

const QString SourceDir = QStringLiteral(SARVELINTH_SOURCE_DIR);

ReportTree checked(const QByteArray &input, bool deep = false)
{
    ContainerAbstract::Settings settings;
    settings.checkProblems = true;
    settings.deepAnalysis = deep;
    return parseReport(input, settings);
}

// One line per problem: severity code @offset+size path: message; then the coverage.
QString problemsOf(const ReportTree &report)
{
    static const char *const severities[] = {"error", "warning", "info"};
    QString text;
    for (const Problem &problem : report.problems)
        text += QStringLiteral("%1 %2 @%3+%4 %5: %6\n")
                    .arg(QLatin1String(severities[int(problem.severity)]), problem.code)
                    .arg(problem.offset)
                    .arg(problem.size)
                    .arg(problem.path, problem.message);
    if (const std::optional<Coverage> &c = report.coverage)
        text += QStringLiteral("coverage %1 = %2 + %3 + %4 + %5 + %6 + %7\n")
                    .arg(c->fileSize)
                    .arg(c->structure)
                    .arg(c->sampleData)
                    .arg(c->unreferencedMediaData)
                    .arg(c->filler)
                    .arg(c->unknown)
                    .arg(c->trailing);
    return text;
}

QByteArray readFile(const QString &path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

QByteArray mvhd()
{
    return fullBox("mvhd", 0, 0, words32({0, 0, 1000, 100}) + zeros(80));
}

// A video track of time scale 100 with an mdhd of the given duration and these tables; a
// tkhd and the handler in front.
QByteArray videoTrack(const QByteArray &tables, quint32 duration = 30, const QByteArray &edits = {})
{
    const QByteArray tkhd = fullBox("tkhd", 0, 0, words32({0, 0, 1, 0, 0}) + zeros(60));
    const QByteArray mdhd =
        fullBox("mdhd", 0, 0, words32({0, 0, 100, duration}) + u16(0x55C4) + u16(0));
    return box("trak",
               tkhd + edits +
                   box("mdia", cat({mdhd, handlerBox("vide"), box("minf", box("stbl", tables))})));
}

QByteArray stsd()
{
    return fullBox("stsd", 0, 0, u32(0));
}

// A whole movie: ftyp, an mdat of 24 bytes at 20 (its payload at 28), and a moov of one track
// whose three samples of 8 bytes fill the mdat.
QByteArray movie(const QByteArray &tables, const QByteArray &moovExtra = {}, quint32 duration = 30,
                 const QByteArray &edits = {})
{
    return cat({box("ftyp", text("isom") + u32(0) + text("isom")), box("mdat", zeros(24)),
                box("moov", mvhd() + videoTrack(tables, duration, edits) + moovExtra)});
}

QByteArray goodTables()
{
    return cat({stsd(), table("stts", {{3, 10}}), table("stsc", {{1, 3, 1}}), stszConstant(8, 3),
                counted("stco", {28}), counted("stss", {1})});
}

TEST(Checks, EachDamageGivesItsProblems)
{
    const QByteArray good = movie(goodTables());
    const std::pair<const char *, QByteArray> cases[] = {
        {"a movie without damage", good},
        // Structure.
        {"cut short inside the movie", good.left(good.size() - 30)},
        {"a child grown past its parent",
         cat({box("moov", mvhd() + u32(200) + text("udta") + zeros(8)), box("free", zeros(200))})},
        {"a size below the header and bytes that form no box",
         cat({box("ftyp", text("isom") + u32(0)), u32(5) + text("free") + zeros(4)})},
        {"bytes at the end that form no box", good + QByteArray("\x00\x01\x02", 3)},
        {"two mvhd and an unknown box", movie(goodTables(), mvhd() + box("zzzz", zeros(4)))},
        {"a track without its sample description, a short hdlr and a short mvhd",
         cat({box("ftyp", text("isom") + u32(0)), box("mdat", zeros(24)),
              box("moov", cat({fullBox("mvhd", 0, 0, zeros(20)),
                               box("trak", box("mdia", fullBox("hdlr", 0, 0, zeros(8))))}))})},
        {"no ftyp in front and no movie for the media", box("mdat", zeros(8))},
        // Sample tables.
        {"stsz count raised by one",
         movie(cat({stsd(), table("stts", {{3, 10}}), table("stsc", {{1, 3, 1}}),
                    stszConstant(8, 4), counted("stco", {28})}))},
        {"a chunk offset moved past the end",
         movie(cat({stsd(), table("stts", {{3, 10}}), table("stsc", {{1, 3, 1}}),
                    stszConstant(8, 3), counted("stco", {5000})}))},
        {"stsc first chunk 0, samples per chunk 0 and a chunk past the last",
         movie(cat({stsd(), table("stts", {{3, 10}}),
                    table("stsc", {{0, 1, 1}, {2, 0, 1}, {9, 1, 1}}), stszConstant(8, 3),
                    counted("stco", {28, 36, 44})}))},
        {"stss entry 0, past the count and going back",
         movie(cat({stsd(), table("stts", {{3, 10}}), table("stsc", {{1, 3, 1}}),
                    stszConstant(8, 3), counted("stco", {28}), counted("stss", {0, 2, 1, 9})}))},
        {"samples on top of each other, a sample without bytes and chunks out of order",
         movie(cat({stsd(), table("stts", {{3, 10}}), table("stsc", {{1, 1, 1}}), stsz({8, 8, 0}),
                    counted("stco", {36, 32, 44})}))},
        {"a count the box cannot hold",
         movie(cat({stsd(), fullBox("stts", 0, 0, words32({5, 3, 10})), table("stsc", {{1, 3, 1}}),
                    stszConstant(8, 3), counted("stco", {28})}))},
        {"mdhd duration and an edit past the media",
         movie(goodTables(), {}, 90,
               box("edts", fullBox("elst", 0, 0, words32({1, 500, 0, 0x10000}))))},
        {"an edit of the 23 units of the media, rounded up to 3 of a movie of time scale 10",
         cat({box("ftyp", text("isom") + u32(0) + text("isom")), box("mdat", zeros(24)),
              box("moov",
                  fullBox("mvhd", 0, 0, words32({0, 0, 10, 3}) + zeros(80)) +
                      videoTrack(
                          cat({stsd(), table("stts", {{2, 10}, {1, 3}}), table("stsc", {{1, 3, 1}}),
                               stszConstant(8, 3), counted("stco", {28}), counted("stss", {1})}),
                          23, box("edts", fullBox("elst", 0, 0, words32({1, 3, 0, 0x10000})))))})},
    };
    QString all;
    for (const auto &[name, input] : cases)
        all += QStringLiteral("== ") + QLatin1String(name) + '\n' + problemsOf(checked(input));
    expectGolden(QStringLiteral("Checks/problems"), all);
}

// A compressed movie around a movie box: dcom names zlib, cmvd holds the declared size and the
// movie deflated.
QByteArray compressedMovie(const QByteArray &moov, quint32 declaredSize)
{
    // qCompress puts the size in front of the zlib stream.
    const QByteArray deflated = qCompress(moov, 9).mid(4);
    return box("moov",
               box("cmov", box("dcom", text("zlib")) + box("cmvd", u32(declaredSize) + deflated)));
}

// With deep analysis: QuickTime's lists of atoms ending in a terminator, a box past its parent
// with media behind it, and compressed movies, bounded and damaged.
TEST(Checks, QuickTimeListsCompressedMoviesAndBoxesPastTheirParents)
{
    const QByteArray ftyp = box("ftyp", text("qt  ") + u32(0) + text("qt  "));
    const QByteArray moov = box("moov", mvhd() + videoTrack(goodTables()));
    const QByteArray inflatesFar = box("moov", zeros(1 << 20));
    const QByteArray damaged = compressedMovie(moov, quint32(moov.size()));
    const QByteArray unknownInside = box("moov", mvhd() + box("zzzz", zeros(4)));
    const auto pastParentAt = [&](quint32 samples) {
        return box("moov",
                   mvhd() +
                       videoTrack(cat({stsd(), table("stts", {{3, 10}}), table("stsc", {{1, 3, 1}}),
                                       stszConstant(8, 3), counted("stco", {samples})})) +
                       u32(4000) + text("udta"));
    };
    const quint32 samples = quint32(ftyp.size() + pastParentAt(0).size() + 8);
    const QByteArray pastParent = cat({ftyp, pastParentAt(samples), box("mdat", zeros(24))});
    const std::pair<const char *, QByteArray> cases[] = {
        {"terminators ending udta and a QuickTime meta",
         movie(goodTables(), box("udta", cat({box("name", text("Movie")),
                                              box("meta", handlerBox("mdir") + u32(0)), u32(0)})))},
        // The last child of the moov claims 4000 bytes: the samples in the mdat behind the moov
        // stay sample data.
        {"a box past its parent with the media behind", pastParent},
        {"a compressed movie",
         cat({ftyp, box("mdat", zeros(24)), compressedMovie(moov, quint32(moov.size()))})},
        {"a compressed movie of another declared size",
         cat({ftyp, box("mdat", zeros(24)), compressedMovie(moov, 99)})},
        {"a compressed movie that inflates to far more than its box",
         cat({ftyp, compressedMovie(inflatesFar, quint32(inflatesFar.size()))})},
        {"a compressed movie cut short", cat({ftyp, damaged.left(damaged.size() - 10)})},
        {"a compressed movie whose zlib data ends early",
         cat({ftyp, box("moov", box("cmov", box("dcom", text("zlib")) +
                                                box("cmvd", u32(quint32(moov.size())) +
                                                                qCompress(moov).mid(4, 30))))})},
        {"a compressed movie with an unknown box inside",
         cat({ftyp, box("mdat", zeros(24)),
              compressedMovie(unknownInside, quint32(unknownInside.size()))})},
    };
    QString all;
    for (const auto &[name, input] : cases)
        all +=
            QStringLiteral("== ") + QLatin1String(name) + '\n' + problemsOf(checked(input, true));
    expectGolden(QStringLiteral("Checks/quicktime"), all);
}

// Movie fragments, with deep analysis: a gap in the sequence numbers, a tfdt that does not go
// on from the samples before it, and a run whose data is not in an mdat.
TEST(Checks, FragmentDamageGivesItsProblems)
{
    const auto traf = [](quint32 decodeTime, quint32 dataOffset) {
        return box("traf", cat({fullBox("tfhd", 0, 0x20038, words32({1, 10, 8, 0})),
                                fullBox("tfdt", 0, 0, u32(decodeTime)),
                                fullBox("trun", 0, 0x1, words32({2, dataOffset}))}));
    };
    const auto moof = [&](quint32 sequence, quint32 decodeTime, quint32 dataOffset) {
        return box("moof", fullBox("mfhd", 0, 0, u32(sequence)) + traf(decodeTime, dataOffset));
    };
    const QByteArray init =
        cat({box("ftyp", text("iso6") + u32(0) + text("iso6")),
             box("moov", mvhd() +
                             videoTrack(cat({stsd(), table("stts", {}), table("stsc", {}),
                                             stszConstant(0, 0), counted("stco", {})}),
                                        0) +
                             box("mvex", fullBox("trex", 0, 0, words32({1, 1, 0, 0, 0}))))});
    // Each moof is 96 bytes, and its data begins 104 bytes in, behind the header of its mdat.
    const QByteArray fragments =
        cat({moof(1, 0, 104), box("mdat", zeros(16)), moof(3, 50, 104), box("mdat", zeros(16)),
             moof(4, 40, 500), box("mdat", zeros(16))});
    expectGolden(QStringLiteral("Checks/fragment-problems"),
                 problemsOf(checked(init + fragments, true)));
}

// Segment indexes and the fragments of CMAF, with deep analysis: sidx references against the
// boxes they cover and the samples in them, the order of the sequence numbers, and the
// structure the brands cmfc and cmf2 promise. A file of one track of time scale 100, each moof
// 96 bytes with two samples of 8 bytes and of 10 units each in the 24-byte mdat behind it.
TEST(Checks, SegmentIndexesAndCmafFragmentsGiveTheirProblems)
{
    constexpr quint32 DefaultBaseIsMoof = 0x20000;
    constexpr quint32 Defaults = 0x38; // duration, size and flags
    const auto traf = [](quint32 decodeTime, quint32 dataOffset, quint32 flags, bool tfdt = true,
                         const QByteArray &base = {}) {
        return box("traf", cat({fullBox("tfhd", 0, flags, u32(1) + base + words32({10, 8, 0})),
                                tfdt ? fullBox("tfdt", 0, 0, u32(decodeTime)) : QByteArray(),
                                fullBox("trun", 0, 0x1, words32({2, dataOffset}))}));
    };
    const auto moof = [](quint32 sequence, const QByteArray &trafs) {
        return box("moof", fullBox("mfhd", 0, 0, u32(sequence)) + trafs);
    };
    const auto fragment = [&](quint32 sequence, quint32 decodeTime) {
        return moof(sequence, traf(decodeTime, 104, Defaults | DefaultBaseIsMoof)) +
               box("mdat", zeros(16));
    };
    // A sidx of track 1 whose references, each of a size and a duration, follow it after
    // firstOffset bytes.
    const auto sidx = [](std::initializer_list<std::pair<quint32, quint32>> references,
                         quint32 timescale = 100, quint32 firstOffset = 0) {
        QByteArray payload =
            words32({1, timescale, 0, firstOffset}) + u16(0) + u16(quint16(references.size()));
        for (const auto &[size, duration] : references)
            payload += words32({size, duration, 0x90000000});
        return fullBox("sidx", 0, 0, payload);
    };
    const auto init = [](const char *brand) {
        return cat({box("ftyp", text(brand) + u32(0) + text(brand)),
                    box("moov", mvhd() +
                                    videoTrack(cat({stsd(), table("stts", {}), table("stsc", {}),
                                                    stszConstant(0, 0), counted("stco", {})}),
                                               0) +
                                    box("mvex", fullBox("trex", 0, 0, words32({1, 1, 0, 0, 0}))))});
    };
    // Producer time: track 1, an NTP time and a media time.
    const QByteArray prft = fullBox("prft", 0, 0, words32({1, 0, 0, 0}));
    // Two samples shown 10 and 20 units after their decode times: they present from 10 to 40.
    const QByteArray reordered =
        moof(1, box("traf", cat({fullBox("tfhd", 0, Defaults | DefaultBaseIsMoof,
                                         u32(1) + words32({10, 8, 0})),
                                 fullBox("tfdt", 0, 0, u32(0)),
                                 fullBox("trun", 0, 0x801, words32({2, 112, 10, 20}))}))) +
        box("mdat", zeros(16));
    const QByteArray plain = init("iso6");
    const QByteArray cmaf = init("cmfc");
    // A moof of two track fragments, the data of the second behind that of the first.
    const QByteArray twoTracks = moof(1, traf(0, 176, Defaults | DefaultBaseIsMoof) +
                                             traf(20, 192, Defaults | DefaultBaseIsMoof)) +
                                 box("mdat", zeros(32));
    const std::pair<const char *, QByteArray> cases[] = {
        {"a sidx of two references, each a moof and its mdat",
         plain + sidx({{120, 20}, {120, 20}}) + fragment(1, 0) + fragment(2, 20)},
        {"a sidx in units of 1000", plain + sidx({{120, 200}}, 1000) + fragment(1, 0)},
        {"a prft before each moof, left out of the referenced sizes",
         plain + sidx({{120, 20}, {120, 20}}) + prft + fragment(1, 0) + prft + fragment(2, 20)},
        {"reordered pictures, the last subsegment as long as their presentation",
         plain + sidx({{128, 30}}) + reordered},
        {"reordered pictures, the last subsegment as long as neither",
         plain + sidx({{128, 25}}) + reordered},
        {"a referenced size 4 bytes short",
         plain + sidx({{116, 20}, {120, 20}}) + fragment(1, 0) + fragment(2, 20)},
        {"a subsegment duration of 30 where the samples last 20",
         plain + sidx({{120, 30}}) + fragment(1, 0)},
        {"references past the end of the file",
         plain + sidx({{120, 20}, {120, 20}, {120, 20}}) + fragment(1, 0)},
        {"a first_offset into the moof", plain + sidx({{112, 20}}, 100, 8) + fragment(1, 0)},
        {"a sequence number repeated", plain + fragment(1, 0) + fragment(1, 20)},
        {"a sequence number lower than the one before", plain + fragment(5, 0) + fragment(3, 20)},
        {"a CMAF file as its brand wants it", cmaf + fragment(1, 0) + fragment(2, 20)},
        {"a CMAF moof of two track fragments", cmaf + twoTracks},
        {"a CMAF track fragment without tfdt",
         cmaf + moof(1, traf(0, 88, Defaults | DefaultBaseIsMoof, false)) + box("mdat", zeros(16))},
        {"a CMAF tfhd without default-base-is-moof",
         cmaf + moof(1, traf(0, 104, Defaults)) + box("mdat", zeros(16))},
        {"a CMAF tfhd with a base_data_offset",
         cmaf +
             moof(1, traf(0, 112, Defaults | DefaultBaseIsMoof | 0x1, true,
                          u64(quint64(cmaf.size())))) +
             box("mdat", zeros(16))},
        {"a CMAF run whose data lies in the mdat before its moof",
         cmaf + fragment(1, 0) + moof(2, traf(20, quint32(-16), Defaults | DefaultBaseIsMoof)) +
             box("mdat", zeros(16))},
        {"a CMAF moof with no mdat behind it",
         cmaf + fragment(1, 0) + moof(2, traf(20, 104, Defaults | DefaultBaseIsMoof))},
    };
    QString all;
    for (const auto &[name, input] : cases)
        all +=
            QStringLiteral("== ") + QLatin1String(name) + '\n' + problemsOf(checked(input, true));
    expectGolden(QStringLiteral("Checks/segment-problems"), all);
}

// The sample cut at every boundary of its boxes: every box that the cut leaves unfinished, and
// only those, reaches past the end of the file.
TEST(Checks, EveryCutAtABoxBoundaryIsFoundWhereItIs)
{
    const QByteArray whole = readFile(SourceDir + "/samples/sample.mp4");
    const ReportTree full = parseReport(whole);
    std::vector<std::pair<quint64, quint64>> boxes;
    std::function<void(const ReportTree::Node &)> collect = [&](const ReportTree::Node &node) {
        for (const auto &child : node.children) {
            if (child->kind == ReportTree::Node::Element && !child->children.empty() &&
                child->children[0]->name == "size") {
                boxes.push_back({child->offset, child->size});
                collect(*child);
            }
        }
    };
    collect(full.root);
    for (const auto &[cut, ignored] : boxes) {
        if (cut == 0)
            continue;
        QStringList expected, found;
        for (const auto &[offset, size] : boxes) {
            if (offset < cut && offset + size > cut)
                expected << QString::number(offset);
        }
        for (const Problem &problem : checked(whole.left(int(cut))).problems) {
            if (problem.code == "box-past-eof")
                found << QString::number(problem.offset);
        }
        EXPECT_EQ(found, expected) << "cut at " << cut;
    }
}

// The real files of the tests give no error and no warning, with or without deep analysis; and
// the parts of their coverage add up to their size, but for two true warnings. mux.js numbers
// the fragments of each track from 0 on its own, so that its file repeats a sequence number.
// FFmpeg's cmaf flag on a file of two tracks puts both in each moof, where the brand it writes
// promises one.
TEST(Checks, RealFilesHaveNoErrorsOrWarnings)
{
    const QDir data(SourceDir + "/tests/data");
    QStringList paths = {SourceDir + "/samples/sample.mp4"};
    for (const QString &name : data.entryList(
             {"*.mp4", "*.m4a", "*.mov", "*.3gp", "*.m4s", "*.heic", "*.avif"}, QDir::Files))
        paths << data.filePath(name);
    for (const QString &path : paths) {
        for (const bool deep : {false, true}) {
            SCOPED_TRACE((path + (deep ? " deep" : "")).toStdString());
            const ReportTree report = checked(readFile(path), deep);
            for (const Problem &problem : report.problems) {
                if ((path.endsWith("node-muxjs.mp4") && problem.code == "sequence-number-order") ||
                    (path.endsWith("frag-cmaf.mp4") && problem.code == "cmaf-traf-count"))
                    continue;
                EXPECT_EQ(problem.severity, Severity::Info) << problem.message.toStdString();
            }
            ASSERT_TRUE(report.coverage);
            const Coverage &c = *report.coverage;
            EXPECT_EQ(c.structure + c.sampleData + c.itemData + c.unreferencedMediaData + c.filler +
                          c.unknown + c.trailing,
                      c.fileSize);
        }
    }
}

// The files of GStreamer's muxers, QuickTime's among them, give no error with deep analysis: the
// terminators of their lists of atoms are no boxes; and their coverage adds up.
TEST(Checks, GStreamerFilesHaveNoErrorsWithDeepAnalysis)
{
    const QDir data(SourceDir + "/tests/data/gstreamer");
    const QStringList names = data.entryList({"*.mp4", "*.mov"}, QDir::Files);
    EXPECT_GE(names.size(), 6);
    for (const QString &name : names) {
        SCOPED_TRACE(name.toStdString());
        const ReportTree report = checked(readFile(data.filePath(name)), true);
        for (const Problem &problem : report.problems)
            EXPECT_NE(problem.severity, Severity::Error) << problem.message.toStdString();
        ASSERT_TRUE(report.coverage);
        EXPECT_GT(report.coverage->sampleData, 0u);
        EXPECT_EQ(report.coverage->unknown, 0u);
    }
}

} // namespace

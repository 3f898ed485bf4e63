// Deep analysis: the sample tables beside the basic ones (cslg, sdtp, stsh, sbgp, sgpd, subs,
// saiz, saio, padb), each a crafted box, compared whole with
// tests/golden/Deep/sample-tables.txt; then those of real files against what other boxes of
// the same files say.

#include "TrackSupport.h"

#include <QFile>
#include <gtest/gtest.h>

using namespace bytes;
using namespace tracks;

namespace {

// The first element of the given name in the tree, depth first; null when there is none.
const ReportTree::Node *find(const ReportTree::Node &node, const QString &name)
{
    for (const auto &child : node.children) {
        if (child->kind == ReportTree::Node::Element && child->name == name)
            return child.get();
        if (const ReportTree::Node *found = find(*child, name))
            return found;
    }
    return nullptr;
}

// The value of the field of the given name among the node's children.
QString valueOf(const ReportTree::Node &node, const QString &name)
{
    for (const auto &child : node.children) {
        if (child->kind == ReportTree::Node::Field && child->name == name)
            return child->value;
    }
    return QString();
}

ReportTree deepReport(const char *name)
{
    QFile file(QStringLiteral(SARVELINTH_SOURCE_DIR "/tests/data/") + QLatin1String(name));
    EXPECT_TRUE(file.open(QIODevice::ReadOnly)) << name;
    ContainerAbstract::Settings settings;
    settings.deepAnalysis = true;
    return parseReport(file.readAll(), settings);
}

QByteArray u64s(std::initializer_list<quint64> values)
{
    QByteArray all;
    for (quint64 value : values)
        all += u64(value);
    return all;
}

// seig: protected with 8-byte IVs of their own, or with a constant IV of 8 bytes and a
// pattern of 1 encrypted and 9 clear blocks.
QByteArray seig(bool constantIv)
{
    const QByteArray kid = QByteArray::fromHex("00112233445566778899AABBCCDDEEFF");
    if (!constantIv)
        return cat({u8(0), u8(0), u8(1), u8(8), kid});
    return cat(
        {u8(0), u8(0x19), u8(1), u8(0), kid, u8(8), QByteArray::fromHex("0102030405060708")});
}

TEST(DeepSampleTables, CraftedBoxes)
{
    const std::pair<const char *, QByteArray> cases[] = {
        {"cslg of 32 and 64 bits, and of a version not known",
         cat({fullBox("cslg", 0, 0, words32({10, quint32(-5), 20, 0, 1000})),
              fullBox("cslg", 1, 0, u64s({quint64(-3), 0, 1ull << 33, 7, 9})),
              fullBox("cslg", 2, 0, u32(1))})},
        // Sync; depending and disposable; leading decodable with redundancy; leading not
        // decodable with the reserved codes.
        {"sdtp", fullBox("sdtp", 0, 0, cat({u8(0x20), u8(0x18), u8(0xD5), u8(0x7F)}))},
        {"stsh", fullBox("stsh", 0, 0, words32({2, 3, 1, 9, 8}))},
        {"sbgp of both versions",
         cat({fullBox("sbgp", 0, 0, cat({text("roll"), words32({2, 10, 0, 5, 1})})),
              fullBox("sbgp", 1, 0, cat({text("seig"), words32({4, 1, 3, 0x10001})}))})},
        // Version 1 with a default length and with a length in each entry (one longer than
        // its fields, one too short for them); version 0 without lengths.
        {"sgpd with known grouping types",
         cat({fullBox("sgpd", 1, 0, cat({text("roll"), u32(2), u32(2), u16(0xFFFF), u16(2)})),
              fullBox("sgpd", 1, 0,
                      cat({text("sync"), u32(0), u32(3), u32(1), u8(0x13), u32(3), u8(0x14),
                           u16(0xABCD), u32(0)})),
              fullBox("sgpd", 0, 0, cat({text("rap "), u32(2), u8(0x85), u8(0x00)})),
              fullBox("sgpd", 0, 0, cat({text("prol"), u32(1), u16(3)}))})},
        // Entries of other types: of the default length, and the rest of the box in version 0.
        {"sgpd with other grouping types",
         cat({fullBox("sgpd", 1, 0, cat({text("abcd"), u32(3), u32(2), u24(0x010203), u24(4)})),
              fullBox("sgpd", 0, 0, cat({text("wxyz"), u32(2), u32(0xCAFE), u16(0xF00D)}))})},
        {"subs of both versions",
         cat({fullBox("subs", 0, 0,
                      cat({u32(2), u32(1), u16(2), u16(100), u8(0), u8(1), u32(7), u16(50), u8(3),
                           u8(0), u32(0), u32(2), u16(0)})),
              fullBox("subs", 1, 0,
                      cat({u32(1), u32(1), u16(1), u32(70000), u8(0), u8(0), u32(0x80000000)}))})},
        {"padb", fullBox("padb", 0, 0, cat({u32(3), u8(0x35), u8(0x70)}))},
        // The boxes as a movie fragment carries them for encrypted samples.
        {"in a track fragment",
         box("moof",
             box("traf",
                 cat({fullBox("sdtp", 0, 0, u8(0x10)),
                      fullBox("sbgp", 0, 0, cat({text("seig"), words32({1, 2, 0x10002})})),
                      fullBox("sgpd", 2, 0,
                              cat({text("seig"), u32(1), u32(2), seig(false), seig(true)})),
                      fullBox("saiz", 1, 1,
                              cat({text("cenc"), u32(0), u8(0), u32(3), u8(8), u8(16), u8(14)})),
                      fullBox("saiz", 0, 0, cat({u8(8), u32(100)})),
                      fullBox("saio", 0, 0, words32({1, 500})),
                      fullBox("saio", 1, 1, cat({text("cenc"), u32(0), u32(2), u64s({1, 2})}))})))},
        // Counts beyond the box: the entries that are there.
        {"counts beyond the box",
         cat({fullBox("stsh", 0, 0, words32({5, 1, 2})),
              fullBox("subs", 0, 0, cat({u32(2), u32(1), u16(3), u16(9), u8(0), u8(0), u32(0)})),
              fullBox("saio", 0, 0, words32({10, 500})),
              fullBox("sgpd", 1, 0, cat({text("roll"), u32(0), u32(4), u32(2), u16(1)}))})},
        // Cut off by the end of the input: the fields that are there.
        {"sdtp cut off", fullBox("sdtp", 0, 0, zeros(100)).left(15)},
        {"sgpd cut off",
         fullBox("sgpd", 2, 0, cat({text("seig"), u32(1), u32(2), seig(true), seig(true)}))
             .left(60)},
    };
    QString all;
    for (const auto &[name, input] : cases)
        all += QStringLiteral("== ") + QLatin1String(name) + '\n' + deepDump(input);
    expectGolden(QStringLiteral("Deep/sample-tables"), all);
}

// The sdtp of an HEVC file: one entry for each sample, those of the sync samples of stss and
// only those depending on no other.
TEST(DeepSampleTables, RealSampleDependencies)
{
    const ReportTree report = deepReport("deep-hevc.mp4");
    const ReportTree::Node *sdtp = find(report.root, QStringLiteral("sdtp"));
    ASSERT_NE(sdtp, nullptr);
    ASSERT_EQ(report.streams.size(), 1);
    const QVector<TrackSample> &samples = report.streams[0].trackSamples;
    int entries = 0;
    for (const auto &child : sdtp->children) {
        if (child->kind != ReportTree::Node::Element)
            continue;
        ASSERT_LT(entries, samples.size());
        EXPECT_EQ(valueOf(*child, QStringLiteral("sample_depends_on")) == QLatin1String("2"),
                  samples[entries].keyFrame)
            << "sample " << entries;
        ++entries;
    }
    EXPECT_EQ(entries, samples.size());
}

// The roll group of AAC tracks: every sample needs the one before it decoded first.
TEST(DeepSampleTables, RealRollGroups)
{
    for (const char *name : {"deep-aac.m4a", "track-aac-h264.mp4", "deep-h264-aac.mov"}) {
        SCOPED_TRACE(name);
        const ReportTree report = deepReport(name);
        const ReportTree::Node *sgpd = find(report.root, QStringLiteral("sgpd"));
        ASSERT_NE(sgpd, nullptr);
        const ReportTree::Node *entry = find(*sgpd, QStringLiteral("entry"));
        ASSERT_NE(entry, nullptr);
        EXPECT_EQ(valueOf(*entry, QStringLiteral("roll_distance")), QStringLiteral("-1"));
        const ReportTree::Node *sbgp = find(report.root, QStringLiteral("sbgp"));
        ASSERT_NE(sbgp, nullptr);
        EXPECT_EQ(valueOf(*sbgp, QStringLiteral("grouping_type")), QStringLiteral("roll"));
    }
}

} // namespace

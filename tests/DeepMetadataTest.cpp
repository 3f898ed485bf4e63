// Deep analysis: track and data references, the media headers beside the common ones, the
// QuickTime boxes of base media, time codes and apertures, and what a file says about
// itself in udta and meta. Compared whole with tests/golden/Deep/metadata.txt.

#include "TrackSupport.h"

#include <QDir>
#include <QFile>

#include <gtest/gtest.h>

using namespace bytes;
using namespace tracks;

namespace {

const quint16 English = 0x15C7; // "eng", packed

// A data box of ilst: type indicator, locale 0, value.
QByteArray data(quint32 type, const QByteArray &value)
{
    return box("data", u32(type) + u32(0) + value);
}

QByteArray key(const char *name)
{
    return cat({u32(quint32(8 + qstrlen(name))), text("mdta"), text(name)});
}

TEST(DeepMetadata, CraftedBoxes)
{
    const std::pair<const char *, QByteArray> cases[] = {
        // tmcd is a track reference here; two bytes behind the last track ID are left over.
        {"track references", box("tref", cat({box("chap", u32(2)), box("hint", words32({1, 3})),
                                              box("tmcd", u32(4)), box("cdsc", u32(5) + u16(0))}))},
        {"data references",
         box("dinf",
             fullBox("dref", 0, 0,
                     cat({u32(5), fullBox("url ", 0, 1),
                          fullBox("url ", 0, 0, text("http://a/b") + u8(0)),
                          fullBox("urn ", 0, 0, text("urn:x") + u8(0) + text("here") + u8(0)),
                          fullBox("alis", 0, 1), fullBox("rsrc", 0, 0, text("res"))})))},
        {"media headers",
         cat({fullBox("elng", 0, 0, text("en-US") + u8(0)), fullBox("nmhd", 0, 0),
              fullBox("sthd", 0, 0),
              fullBox("hmhd", 0, 0, cat({u16(1400), u16(700), u32(64000), u32(32000), u32(0)})),
              fullBox("kind", 0, 0,
                      text("urn:mpeg:dash:role:2011") + u8(0) + text("main") + u8(0))})},
        // Balance -1.0; a bold, italic font of 12 points named in a counted string.
        {"QuickTime base media and apertures",
         cat({box("gmhd",
                  cat({fullBox("gmin", 0, 0,
                               cat({u16(0x40), u16(0x8000), u16(0x8000), u16(0x8000), u16(0xFF00),
                                    u16(0)})),
                       box("text", words32({0x10000, 0, 0, 0, 0x10000, 0, 0, 0, 0x40000000})),
                       box("tmcd",
                           fullBox("tcmi", 0, 0,
                                   cat({u16(0), u16(3), u16(12), u16(0), zeros(6), u16(0xFFFF),
                                        u16(0xFFFF), u16(0xFFFF), u8(5), text("Times")})))})),
              box("tapt", cat({fullBox("clef", 0, 0, u32(0x200000) + u32(0x180000)),
                               fullBox("prof", 0, 0, u32(0x208000) + u32(0x180000)),
                               fullBox("enof", 0, 0, u32(0x200000) + u32(0x180000))})),
              box("wide", zeros(4))})},
        // Notices in UTF-8 and in UTF-16 behind a byte-order mark; text atoms in a Macintosh
        // language, in a packed one and in none; Nero chapters of both versions.
        {"user data",
         box("udta", cat({fullBox("cprt", 0, 0, u16(English) + text("(c) 2024") + u8(0)),
                          fullBox("cprt", 0, 0,
                                  cat({u16(English), u16(0xFEFF), u16('H'), u16('i'), u16(0)})),
                          box("name", text("Movie")),
                          box("\xA9nam", cat({u16(5), u16(0), text("Title"), u16(5), u16(English),
                                              text("Titel")})),
                          box("\xA9"
                              "day",
                              u16(4) + u16(0x7FFF) + text("2024")),
                          fullBox("chpl", 0, 0, cat({u8(1), u64(0), u8(2), text("Go")})),
                          fullBox("chpl", 1, 0,
                                  cat({u32(0), u8(2), u64(0), u8(3), text("One"), u64(6000000),
                                       u8(3), text("Two")}))}))},
        // Items of each kind of value; zzzz has no row of its own and is an item all the same.
        {"ISO metadata with items",
         fullBox(
             "meta", 0, 0,
             cat({handlerBox("mdir"), fullBox("id32", 0, 0, u16(English) + text("ID3") + zeros(3)),
                  fullBox("xml ", 0, 0, text("<a/>") + u8(0)), fullBox("bxml", 0, 0, u16(0x0102)),
                  box("ilst",
                      cat({box("\xA9nam", data(1, text("Title"))),
                           box("trkn", data(0, cat({u16(0), u16(3), u16(9), u16(0)}))),
                           box("disk", data(0, cat({u16(0), u16(1), u16(2)}))),
                           box("gnre", data(0, u16(18))), box("tmpo", data(21, u16(120))),
                           box("plID", data(22, u64(0x123456789))), box("rtng", data(65, u8(0xFF))),
                           box("covr", data(13, text("\xFF\xD8\xFF\xE0"))),
                           box("desc", data(2, u16('H') + u16('i'))),
                           box("cprt", data(1, text("(c)"))),
                           box("----",
                               cat({fullBox("mean", 0, 0, text("com.apple.iTunes")),
                                    fullBox("name", 0, 0, text("iTunNORM")), data(1, text(" 0"))})),
                           box("zzzz", data(23, u32(0x3F800000)))}))}))},
        // A plain meta, the handler right behind its header; the third item has no key.
        {"QuickTime metadata with keys",
         box("moov", box("meta", cat({handlerBox("mdta"),
                                      fullBox("keys", 0, 0,
                                              cat({u32(2), key("com.apple.quicktime.title"),
                                                   key("com.apple.quicktime.year")})),
                                      box("ilst", cat({box("\0\0\0\1", data(1, text("Keyed"))),
                                                       box("\0\0\0\2", data(22, u16(2024))),
                                                       box("\0\0\0\3", data(1, text("x")))}))})))},
        // Counts and sizes beyond their boxes.
        {"counts beyond the box",
         cat({fullBox("keys", 0, 0, u32(5) + key("a")),
              box("udta", cat({box("\xA9"
                                   "cmt",
                                   u16(10) + u16(0) + text("abc")),
                               fullBox("chpl", 0, 0, cat({u8(3), u64(0), u8(1), text("A")}))}))})},
        // The input ends inside a notice and inside an item's value.
        {"notice cut off",
         box("udta", fullBox("cprt", 0, 0, u16(English) + text("(c) 2024") + u8(0))).chopped(4)},
        {"value cut off", box("ilst", box("\xA9nam", data(1, text("Title")))).chopped(2)},
    };
    QString all;
    for (const auto &[name, input] : cases)
        all += QStringLiteral("== ") + QLatin1String(name) + '\n' + deepDump(input);
    expectGolden(QStringLiteral("Deep/metadata"), all);
}

// The boxes of the family in a report, each with all inside it: tref, dinf, gmhd, udta, and
// meta outside udta.
void familyBoxes(const ReportTree::Node &parent, std::vector<const ReportTree::Node *> &found)
{
    static const QStringList types = {"tref", "dinf", "gmhd", "udta", "meta"};
    for (const auto &node : parent.children) {
        if (node->kind != ReportTree::Node::Element)
            continue;
        if (types.contains(node->name))
            found.push_back(node.get());
        else
            familyBoxes(*node, found);
    }
}

// Where a box is unknown or a payload is shown as bare data.
void undecoded(const ReportTree::Node &node, QStringList &where)
{
    if (node.note == QLatin1String("Unknown element!") ||
        (node.kind == ReportTree::Node::Field && node.name == QLatin1String("data")))
        where << QStringLiteral("%1 @%2").arg(node.name).arg(node.offset);
    for (const auto &child : node.children)
        undecoded(*child, where);
}

// The real files: every box of the family decoded; those of the files with tags, time
// codes and chapters compared whole with tests/golden/Deep/metadata-real.txt.
TEST(DeepMetadata, RealFiles)
{
    const QDir data(QStringLiteral(SARVELINTH_SOURCE_DIR "/tests/data"));
    const QStringList golden = {"deep-aac.m4a", "deep-h264-aac.mov", "deep-metadata.mov"};
    ContainerAbstract::Settings settings;
    settings.deepAnalysis = true;
    QString all;
    for (const QString &name : data.entryList({"deep-*", "track-*"}, QDir::Files)) {
        SCOPED_TRACE(name.toStdString());
        QFile file(data.filePath(name));
        ASSERT_TRUE(file.open(QIODevice::ReadOnly));
        const ReportTree report = parseReport(file.readAll(), settings);
        std::vector<const ReportTree::Node *> found;
        familyBoxes(report.root, found);
        EXPECT_FALSE(found.empty());
        const bool compared = golden.contains(name);
        if (compared)
            all += QStringLiteral("== ") + name + '\n';
        QStringList where;
        for (const ReportTree::Node *node : found) {
            undecoded(*node, where);
            if (compared)
                all += dump(*node);
        }
        EXPECT_EQ(where.join(' ').toStdString(), "");
    }
    expectGolden(QStringLiteral("Deep/metadata-real"), all);
}

} // namespace

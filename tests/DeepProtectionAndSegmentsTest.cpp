// Deep analysis: common encryption (sinf, frma, schm, schi, tenc, pssh, senc) and the boxes of
// segmented files beside the fragments (sidx, ssix, prft, emsg, tfra, mfro, pdin, leva, trgr).
// Compared whole with tests/golden/Deep/protection-and-segments.txt.

#include "Support.h"

#include <QFile>
#include <QSet>

#include <gtest/gtest.h>

using namespace bytes;

namespace {

QByteArray hex(const char *digits)
{
    return QByteArray::fromHex(digits);
}

const QByteArray keyId = hex("00112233445566778899aabbccddeeff");

// sinf of a cenc-protected avc1 entry: IVs of ivSize bytes, or a constant IV with a pattern
// (version 1) when ivSize is 0.
QByteArray protection(const char *scheme, quint8 ivSize)
{
    const QByteArray tenc =
        ivSize != 0
            ? fullBox("tenc", 0, 0, cat({u8(0), u8(0), u8(1), u8(ivSize), keyId}))
            : fullBox("tenc", 1, 0,
                      cat({u8(0), u8(0x19), u8(1), u8(0), keyId, u8(8), hex("0102030405060708")}));
    return box("sinf", cat({box("frma", text("avc1")),
                            fullBox("schm", 0, 0, cat({text(scheme), u32(0x00010000)})),
                            box("schi", tenc)}));
}

TEST(DeepProtectionAndSegments, CraftedBoxes)
{
    // The sample entries that hold sinf are another family's: sinf stands in the trak here,
    // which is what tells senc the track's IV size.
    const std::pair<const char *, QByteArray> cases[] = {
        {"cenc track: IVs of 8 bytes, then with subsamples, then a count beyond the box",
         box("trak", cat({protection("cenc", 8),
                          fullBox("senc", 0, 0,
                                  cat({u32(2), hex("0000000000000001"), hex("0000000000000002")})),
                          fullBox("senc", 0, 2,
                                  cat({u32(2), hex("0000000000000003"), u16(2), u16(5), u32(100),
                                       u16(7), u32(0), hex("0000000000000004"), u16(0)})),
                          fullBox("senc", 0, 0, cat({u32(5), hex("0000000000000005")}))}))},
        {"cbcs track: pattern and constant IV, subsamples without IVs",
         box("trak", cat({protection("cbcs", 0),
                          fullBox("senc", 0, 2, cat({u32(1), u16(1), u16(32), u32(160)}))}))},
        {"schm with its URI and a version of 1.2",
         fullBox("schm", 0, 1, cat({text("abcd"), u32(0x00010002), text("https://a.b/"), u8(0)}))},
        // Outside a track the IV size is what the entries fit: 16 bytes each; 8 with
        // subsamples; 12 fits no size; three entries that fit both 0 and 8 bytes.
        {"senc in a fragment",
         box("moof",
             box("traf",
                 cat({fullBox("senc", 0, 0, cat({u32(2), zeros(16), QByteArray(16, '\1')})),
                      fullBox("senc", 0, 2,
                              cat({u32(2), zeros(8), u16(1), u16(1), u32(2), zeros(8), u16(0)})),
                      fullBox("senc", 0, 0, cat({u32(1), zeros(12)})),
                      fullBox("senc", 0, 2,
                              cat({u32(3), u16(1), zeros(6), u16(0), u16(3), zeros(6), u16(0),
                                   zeros(8), u16(0)}))})))},
        {"pssh of version 0 and 1, and an unknown system whose data reaches past the box",
         cat({fullBox("pssh", 0, 0,
                      cat({hex("edef8ba979d64acea3c827dcd51d21ed"), u32(3), hex("080112")})),
              fullBox("pssh", 1, 0,
                      cat({hex("1077efecc0b24d02ace33c1e52e2fb4b"), u32(2), keyId,
                           hex("ffeeddccbbaa99887766554433221100"), u32(0)})),
              fullBox("pssh", 0, 0, cat({zeros(16), u32(100), hex("0102")}))})},
        {"tenc cut off by the end of the input",
         fullBox("tenc", 0, 0, cat({u8(0), u8(0), u8(1), u8(16), keyId})).left(30)},
        {"sidx of version 0: a media and an index reference",
         fullBox("sidx", 0, 0,
                 cat({u32(1), u32(1000), u32(500), u32(64), u16(0), u16(2), u32(1200), u32(2000),
                      u32(0x90000000 | 40), u32(0x80000000 | 300), u32(4000), u32(0)}))},
        {"sidx of version 1 with a count beyond the box",
         fullBox("sidx", 1, 0,
                 cat({u32(2), u32(90000), u64(0x100000000), u64(0), u16(0), u16(3), u32(800),
                      u32(3000), u32(0x80000000)}))},
        {"ssix",
         fullBox("ssix", 0, 0,
                 cat({u32(2), u32(2), u8(0), u24(100), u8(1), u24(200), u32(1), u8(2), u24(50)}))},
        // 1 January 2024 and a half second; version 1 has a 64-bit media time.
        {"prft of version 0 and 1",
         cat({fullBox("prft", 0, 0, cat({u32(1), u32(0xE93C7F00), u32(0x80000000), u32(900)})),
              fullBox("prft", 1, 24, cat({u32(1), u32(0xE93C7F00), u32(0), u64(0x100000000)}))})},
        {"emsg of version 0, 1 and 2",
         cat({fullBox("emsg", 0, 0,
                      cat({text("urn:scte:scte35:2013:bin"), u8(0), text("1"), u8(0), u32(90000),
                           u32(100), u32(0xFFFFFFFF), u32(7), hex("fc30")})),
              fullBox("emsg", 1, 0,
                      cat({u32(1000), u64(123456), u32(500), u32(8), text("urn:a"), u8(0), u8(0),
                           text("hi")})),
              fullBox("emsg", 2, 0, u32(1))})},
        // Version 0 with numbers of 1, 2 and 4 bytes; version 1 with 1-byte numbers.
        {"mfra with tfra of version 0 and 1 and mfro",
         box("mfra", cat({fullBox("tfra", 0, 0,
                                  cat({u32(1), u32(0x07), u32(2), u32(0), u32(100), u8(1), u16(1),
                                       u32(1), u32(512), u32(900), u8(2), u16(3), u32(4)})),
                          fullBox("tfra", 1, 0,
                                  cat({u32(2), u32(0), u32(1), u64(0x100000000), u64(48), u8(1),
                                       u8(1), u8(1)})),
                          fullBox("mfro", 0, 0, u32(100))}))},
        {"pdin: two pairs and a stray word",
         fullBox("pdin", 0, 0, cat({u32(16000), u32(2500), u32(64000), u32(0), u32(5)}))},
        {"leva: by sample group, with a parameter, by track, by sub-track, and a fifth cut off",
         fullBox("leva", 0, 0,
                 cat({u8(5), u32(1), u8(0x00), text("rap "), u32(1), u8(0x81), text("sync"), u32(9),
                      u32(2), u8(0x02), u32(2), u8(0x04), u32(3), u32(3)}))},
        {"trgr of a multi-source and a stereo group",
         box("trak", box("trgr", cat({fullBox("msrc", 0, 0, u32(5)),
                                      fullBox("ster", 0, 0, cat({u32(6), u32(0x80000000)}))})))},
    };
    QString all;
    for (const auto &[name, input] : cases)
        all += QStringLiteral("== ") + QLatin1String(name) + '\n' + deepDump(input);
    expectGolden(QStringLiteral("Deep/protection-and-segments"), all);
}

// The boxes of this family in files of a real writer (tests/data/make-deep-files.sh): each
// one decoded, none left as bytes, the entries of senc found with the IV size they fit.
TEST(DeepProtectionAndSegments, RealFiles)
{
    const QSet<QString> family = {"sinf", "frma", "schm", "schi", "tenc", "pssh", "senc", "sidx",
                                  "ssix", "prft", "emsg", "tfra", "mfro", "pdin", "leva", "trgr"};
    const std::pair<const char *, QSet<QString>> files[] = {
        {"deep-cenc.mp4", {"senc"}},
        {"deep-dash.mp4", {"sidx", "prft", "tfra", "mfro"}},
    };
    ContainerAbstract::Settings settings;
    settings.deepAnalysis = true;
    for (const auto &[name, expected] : files) {
        SCOPED_TRACE(name);
        QFile file(QStringLiteral(SARVELINTH_SOURCE_DIR "/tests/data/") + QLatin1String(name));
        ASSERT_TRUE(file.open(QIODevice::ReadOnly));
        const ReportTree report = parseReport(file.readAll(), settings);
        QSet<QString> seen;
        const auto check = [&](const ReportTree::Node &node, bool inFamily,
                               const auto &self) -> void {
            inFamily = inFamily || family.contains(node.name);
            if (family.contains(node.name))
                seen.insert(node.name);
            if (inFamily) {
                EXPECT_NE(node.note, QStringLiteral("Unknown element!")) << node.offset;
                EXPECT_TRUE(node.name != "data" && node.name != "entries") << node.offset;
            }
            for (const auto &child : node.children)
                self(*child, inFamily, self);
        };
        check(report.root, false, check);
        EXPECT_TRUE(seen.contains(expected));
    }
}

} // namespace

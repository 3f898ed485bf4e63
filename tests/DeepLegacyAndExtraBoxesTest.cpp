// Deep analysis: QuickTime's boxes of drawing and loading, the codec boxes of 3GPP, the SDP of
// hint tracks, spherical video and spatial audio, and uuid boxes known by their usertype.
// Compared whole with tests/golden/Deep/legacy-and-extra-boxes.txt.

#include "CheckingSink.h"
#include "TrackSupport.h"

#include <gtest/gtest.h>

#include <vector>

using namespace bytes;
using namespace tracks;

namespace {

QByteArray entry(const char *type, const QByteArray &fields, const QByteArray &boxes = {})
{
    return box(type, zeros(6) + u16(1) + fields + boxes);
}

QByteArray stsd(const QByteArray &entry)
{
    return fullBox("stsd", 0, 0, u32(1) + entry);
}

QByteArray visual(quint16 width, quint16 height)
{
    return cat({zeros(16), u16(width), u16(height), words32({0x480000, 0x480000, 0}), u16(1),
                zeros(32), u16(24), u16(0xFFFF)});
}

QByteArray audio(quint16 channels, quint32 rate)
{
    return cat({u16(0), u16(0), u32(0), u16(channels), u16(16), u16(0), u16(0), u32(rate << 16)});
}

// A uuid box of the given usertype, in hex digits, with a full box header where version is
// not -1.
QByteArray uuidBox(const char *userType, int version, quint32 flags, const QByteArray &payload)
{
    const QByteArray header = version < 0 ? QByteArray() : u8(quint8(version)) + u24(flags);
    return box("uuid", QByteArray::fromHex(userType) + header + payload);
}

// Text in UTF-16, little-endian, as Xtra holds it.
QByteArray utf16le(const char *ascii)
{
    QByteArray out;
    for (const char *c = ascii; *c; ++c)
        out += QByteArray(1, *c) + u8(0);
    return out + u16(0);
}

// One Xtra attribute with its values, each a type and bytes.
QByteArray xtraAttribute(const char *name,
                         std::initializer_list<std::pair<quint16, QByteArray>> values)
{
    QByteArray body = u32(quint32(qstrlen(name))) + text(name) + u32(quint32(values.size()));
    for (const auto &[type, bytes] : values)
        body += u32(quint32(6 + bytes.size())) + u16(type) + bytes;
    return u32(quint32(4 + body.size())) + body;
}

const char *const Xmp = "be7acfcb97a942e89c71999491e3afac";
const char *const PiffTrackEncryption = "8974dbce7be74c5184f97148f9882554";
const char *const PiffSampleEncryption = "a2394f525a9b4f14a2446c427c648df4";
const char *const FragmentTime = "6d1d9b0542d544e680e2141daff757b2";
const char *const FollowingFragments = "d4807ef2ca3946958e5426cb9e46a79f";

using Cases = std::vector<std::pair<const char *, QByteArray>>;

Cases craftedCases()
{
    const QByteArray kid = QByteArray::fromHex("00112233445566778899aabbccddeeff");
    const QByteArray xtra =
        box("Xtra", xtraAttribute("WM/EncodingTime", {{21, u64(0x2C0C5ED8A3D8CF01)}}) +
                        xtraAttribute("WM/Publisher", {{8, utf16le("Sarvelinth")}, {99, u8(7)}}));
    const QByteArray trackSdp =
        box("sdp ", text("m=video 0 RTP/AVP 96\r\na=control:trackID=1\r\n"));
    const QByteArray movieSdp = box("rtp ", text("sdp ") + text("v=0\r\ns=Sample\r\n"));
    const QByteArray projection =
        box("proj", fullBox("prhd", 0, 0, words32({0x5A0000, 0xFFF10000, 0})) +
                        fullBox("equi", 0, 0, words32({0, 0, 0x40000000, 0x40000000})));
    const QByteArray spherical =
        cat({fullBox("st3d", 0, 0, u8(1)),
             box("sv3d", fullBox("svhd", 0, 0, text("Tool") + u8(0)) + projection)});
    const QByteArray cubeMap = box("sv3d", box("proj", fullBox("cbmp", 0, 0, words32({0, 2}))));
    // Ambisonic sound, its channel layout a tag of four channels.
    const QByteArray spatialAudio =
        box("SA3D", cat({u8(0), u8(0), u32(1), u8(0), u8(0), words32({4, 0, 1, 2, 3})})) +
        fullBox("chan", 0, 0, words32({0x6B0004, 0, 0}));
    const QByteArray piffTrack =
        box("sinf", box("schi", uuidBox(PiffTrackEncryption, 0, 0, cat({u24(1), u8(8), kid}))));
    const QByteArray smoothFragment = box(
        "traf",
        cat({fullBox("tfhd", 0, 0, u32(1)),
             uuidBox(PiffSampleEncryption, 0, 0, u32(1) + QByteArray::fromHex("0102030405060708")),
             uuidBox(PiffSampleEncryption, 0, 1, cat({u24(1), u8(16), kid, u32(1), kid})),
             uuidBox(FragmentTime, 1, 0, u64(20000000) + u64(20000000)),
             uuidBox(FollowingFragments, 0, 0,
                     u8(2) + words32({40000000, 20000000, 60000000, 20000000}))}));
    // A Macintosh alias of version 2 to the file of the media, with a path item and the end.
    QByteArray volume = u8(3) + text("Mac"), target = u8(8) + text("clip.mov");
    volume += zeros(28 - volume.size());
    target += zeros(64 - target.size());
    const QByteArray alias =
        cat({zeros(4),         u16(164),    u16(2),        u16(0), volume,      u32(3000000000u),
             text("H+"),       u16(0),      u32(2),        target, u32(17),     u32(3000000001u),
             text("TVODMooV"), u16(0xFFFF), u16(1),        u32(0), u16(0),      zeros(10),
             u16(2),           u16(5),      text("a:b:c"), u8(0),  u16(0xFFFF), u16(0)});
    const QByteArray references =
        box("dinf", fullBox("dref", 0, 0,
                            cat({u32(3), fullBox("alis", 0, 0, alias), fullBox("alis", 0, 1),
                                 fullBox("rsrc", 0, 0, zeros(4) + u16(30) + u16(3) + zeros(4))})));
    return {
        // A track's preload settings, clipping region and matte; the movie's colour table,
        // Windows tags in Xtra (text, a 64-bit number and a value of no known type), and data
        // references by alias: one to another file, one to this file, one of another version.
        {"quicktime",
         box("moov",
             cat({box("trak",
                      cat({box("load", words32({0, 0xFFFFFFFF, 2, 0x120})),
                           box("clip", box("crgn", cat({u16(12), u16(0), u16(0), u16(24), u16(32),
                                                        u16(0x7FFF)}))),
                           box("matt", fullBox("kmat", 0, 0,
                                               cat({u32(12), text("raw "), u32(1), u8(9)})))})),
                  box("ctab", cat({u32(0), u16(0x8000), u16(1), words32({0xFFFF, 0xFFFFFFFF}),
                                   words32({1, 0x1000, 0})})),
                  box("udta", xtra), references}))},
        // Cut short: a colour table counting more colours than it holds, an Xtra attribute
        // larger than its box, a value larger than its attribute.
        {"quicktime cut short",
         box("moov", cat({box("ctab", cat({u32(0), u16(0), u16(200), words32({0, 0})})),
                          box("Xtra", u32(400) + u32(1) + text("A")),
                          box("Xtra", cat({u32(20), u32(1), text("B"), u32(1), u32(90), u16(8),
                                           u8(0)}))}))},
        // H.263 and AMR as 3GPP stores them.
        {"3gpp codecs",
         box("moov",
             trackBox("vide",
                      stsd(entry("s263", visual(176, 144),
                                 box("d263", cat({text("FFMP"), u8(0), u8(10), u8(0),
                                                  box("bitr", words32({64000, 128000}))}))))) +
                 trackBox("soun", stsd(entry("samr", audio(1, 8000),
                                             box("damr", cat({text("FFMP"), u8(0), u16(0x81FF),
                                                              u8(0), u8(1)}))))))},
        // The SDP of a hint track and of the whole movie.
        {"hint sdp", box("moov", box("trak", box("udta", box("hnti", trackSdp))) +
                                     box("udta", box("hnti", movieSdp)))},
        // A stereoscopic equirectangular picture, a cube map, and ambisonic sound.
        {"spherical",
         box("moov", cat({trackBox("vide", stsd(entry("avc1", visual(64, 32), spherical))),
                          trackBox("vide", stsd(entry("hvc1", visual(96, 64), cubeMap))),
                          trackBox("soun", stsd(entry("mp4a", audio(4, 48000), spatialAudio)))}))},
        // XMP; PIFF's protection boxes, one overriding the track's IV size; the times of
        // Smooth Streaming fragments in both versions; a uuid nobody knows.
        {"uuid", cat({uuidBox(Xmp, -1, 0, text("<x:xmpmeta xmlns:x=\"adobe:ns:meta/\"/>")),
                      box("moov", trackBox("vide", stsd(entry("encv", visual(16, 16), piffTrack)))),
                      box("moof", smoothFragment),
                      uuidBox("00000000000000000000000000000001", -1, 0, text("opaque"))})},
    };
}

TEST(DeepLegacyAndExtraBoxes, CraftedBoxes)
{
    QString all;
    for (const auto &[name, input] : craftedCases())
        all += QStringLiteral("== ") + QLatin1String(name) + '\n' + deepDump(input);
    expectGolden(QStringLiteral("Deep/legacy-and-extra-boxes"), all);
}

// Each crafted case cut at every length, and with each of its bytes set to 0xFF: a balanced
// report in proportion to the input, with deep analysis and the checks.
TEST(DeepLegacyAndExtraBoxes, CutAndDamagedCasesEndWithABoundedReport)
{
    for (const auto &[name, whole] : craftedCases()) {
        std::vector<QByteArray> inputs;
        for (int i = 0; i < whole.size(); ++i) {
            inputs.push_back(whole.left(i));
            inputs.push_back(whole);
            inputs.back()[i] = char(0xFF);
        }
        for (const QByteArray &input : inputs) {
            CheckingSink sink(CheckingSink::Record);
            TestParser parser;
            ContainerAbstract::Settings settings;
            settings.deepAnalysis = true;
            settings.checkProblems = true;
            parser.configure(settings);
            parser.parseBytes(QStringLiteral("test.mp4"), input, sink);
            ASSERT_TRUE(sink.finished()) << name << " " << input.toHex().constData();
            ASSERT_EQ(sink.problem(), "") << name << " " << input.toHex().constData();
            ASSERT_LE(sink.nodes(), CheckingSink::nodeBound(quint64(input.size())))
                << name << " " << input.toHex().constData();
        }
    }
}

} // namespace

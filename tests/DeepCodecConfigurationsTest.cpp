// Deep analysis: the decoder configurations of the sample entries and the descriptors of
// esds and iods, each in a trak of its own so that the stream record notes where it lies.
// Compared whole with tests/golden/Deep/codec-configurations.txt.

#include "Support.h"

#include <gtest/gtest.h>

#include <utility>

using namespace bytes;

namespace {

// Fields of the given widths in bits, packed from the top bit down and padded with zero bits
// to whole bytes.
QByteArray packBits(std::initializer_list<std::pair<int, quint64>> fields)
{
    QByteArray all;
    int used = 0;
    for (const auto &[width, value] : fields) {
        for (int bit = width - 1; bit >= 0; --bit, ++used) {
            if (used % 8 == 0)
                all += '\0';
            all[all.size() - 1] = char(all.back() | ((value >> bit & 1) << (7 - used % 8)));
        }
    }
    return all;
}

// A descriptor with its size in one byte, or in four as some writers do.
QByteArray descriptor(quint8 tag, const QByteArray &body, bool wideSize = false)
{
    const QByteArray size = wideSize ? cat({u8(0x80), u8(0x80), u8(0x80), u8(quint8(body.size()))})
                                     : u8(quint8(body.size()));
    return u8(tag) + size + body;
}

QByteArray inTrack(const QByteArray &config)
{
    return box("moov", box("trak", config));
}

// esds around an ES_Descriptor of ES_ID 1 whose DecoderConfigDescriptor has the object type
// and the DecoderSpecificInfo given (none when empty).
QByteArray esds(quint8 objectType, const QByteArray &specificInfo)
{
    const QByteArray config =
        cat({u8(objectType), u8(objectType == 0x20 ? 0x11 : 0x15), u24(0), u32(128000), u32(96000),
             specificInfo.isEmpty() ? QByteArray() : descriptor(0x05, specificInfo)});
    return fullBox("esds", 0, 0,
                   descriptor(0x03, cat({u16(1), u8(0), descriptor(0x04, config, true),
                                         descriptor(0x06, u8(2))})));
}

// An AVC NAL unit with its length in front.
QByteArray nalUnit(const QByteArray &unit)
{
    return u16(quint16(unit.size())) + unit;
}

TEST(DeepCodecConfigurations, CraftedBoxes)
{
    const QByteArray sps = cat({u8(0x67), u8(100), u8(0x0C), u8(31), u8(0xAC), u8(0xD9)});
    const QByteArray pps = cat({u8(0x68), u8(0xEB), u8(0xE3)});
    const QByteArray avcHeader = cat({u8(1), u8(100), u8(0), u8(31), u8(0xFF)});
    const QByteArray hevcHeader =
        cat({u8(1), u8(0x01), u32(0x60000000), u16(0x9000), u32(0), u8(93), u16(0xF000), u8(0xFC),
             u8(0xFD), u8(0xF8), u8(0xF8), u16(0), u8(0x0F)});
    const QByteArray vps = cat({u8(0x40), u8(0x01), u8(0x0C)});
    const std::pair<const char *, QByteArray> cases[] = {
        // High profile: a sequence and a picture parameter set, then the chroma format, the
        // bit depths and one sequence parameter set extension.
        {"avcC high", inTrack(box("avcC", cat({avcHeader, u8(0xE1), nalUnit(sps), u8(1),
                                               nalUnit(pps), u8(0xFD), u8(0xF8), u8(0xF8),
                                               u8(1), nalUnit(u8(0x6D) + u8(0))})))},
        // Three sequence parameter sets counted, the first longer than the box.
        {"avcC count and length beyond the box",
         inTrack(box("avcC", cat({avcHeader, u8(0xE3), u16(40), sps})))},
        // Main tier Main profile, level 3.1: a VPS, then two SPS of which the second is
        // longer than the box.
        {"hvcC", inTrack(box("hvcC", cat({hevcHeader, u8(2), u8(0xA0), u16(1), nalUnit(vps),
                                          u8(0x21), u16(2), nalUnit(u8(0x42) + u8(0x01)),
                                          u16(9), u8(0x42)})))},
        // Profile 0, level 5.1 (idx 13), 10 bit 4:2:0, an initial presentation delay, and a
        // sequence header OBU.
        {"av1C", inTrack(box("av1C", cat({packBits({{1, 1}, {7, 1}, {3, 0}, {5, 13}, {1, 0},
                                                    {1, 1}, {1, 0}, {1, 0}, {1, 1}, {1, 1},
                                                    {2, 1}, {3, 0}, {1, 1}, {4, 9}}),
                                          u8(0x0A), u8(0x01), u8(0x00)})))},
        {"vpcC version 1", inTrack(fullBox("vpcC", 1, 0,
                                           cat({u8(2), u8(31), u8(0xA2), u8(9), u8(16), u8(9),
                                                u16(2), u16(0xABCD)})))},
        {"vpcC version 0", inTrack(fullBox("vpcC", 0, 0,
                                           cat({u8(0), u8(10), u8(0x82), u8(0x10), u16(0)})))},
        {"vpcC version 2", inTrack(fullBox("vpcC", 2, 0, u32(0)))},
        // AAC LC, 44100 Hz stereo, with SBR and PS signalled behind the core.
        {"esds AAC with SBR and PS behind",
         inTrack(esds(0x40, packBits({{5, 2}, {4, 4}, {4, 2}, {3, 0}, {11, 0x2B7}, {5, 5},
                                      {1, 1}, {4, 3}, {11, 0x548}, {1, 1}})))},
        // HE-AAC v2 named in front: PS, 24000 Hz mono, SBR at 48000 Hz over AAC LC.
        {"esds HE-AAC v2", inTrack(esds(0x40, packBits({{5, 29}, {4, 6}, {4, 1}, {4, 3},
                                                        {5, 2}, {3, 0}})))},
        // Both frequencies explicit: the fields run beyond the first 8 bytes.
        {"esds explicit frequencies",
         inTrack(esds(0x67, packBits({{5, 5}, {4, 15}, {24, 22050}, {4, 2}, {4, 15},
                                      {24, 44100}, {5, 2}, {3, 0}})))},
        // A program_config_element and an escaped object type are not decoded.
        {"esds program config element",
         inTrack(esds(0x40, packBits({{5, 1}, {4, 3}, {4, 0}, {3, 0}, {8, 0xAB}})))},
        {"esds escaped object type",
         inTrack(esds(0x40, packBits({{5, 31}, {6, 7}, {4, 3}, {4, 2}})))},
        // MP3: no DecoderSpecificInfo. MPEG-4 Visual: its DecoderSpecificInfo as data.
        {"esds MP3", inTrack(esds(0x6B, QByteArray()))},
        {"esds MPEG-4 Visual", inTrack(esds(0x20, u32(0x000001B0)))},
        // Every flag of the ES_Descriptor; an unknown descriptor, then one whose size runs
        // beyond its parent.
        {"esds flags and sizes",
         inTrack(fullBox("esds", 0, 0,
                         descriptor(0x03, cat({u16(2), u8(0xE3), u16(7), u8(3), text("a:b"),
                                               u16(9), descriptor(0x55, u16(0xBEEF)),
                                               u8(0x06), u8(0x20), u8(2)}))))},
        // A size whose fourth byte still says another follows, and a size cut by the box.
        {"esds odd sizes", inTrack(fullBox("esds", 0, 0,
                                           cat({u8(0x06), u32(0x80808081), u8(2), u8(0x03),
                                                u8(0x81)})))},
        // Nested deeper than the descriptors are followed.
        {"esds nested", [] {
             QByteArray nested = descriptor(0x06, u8(2));
             for (int i = 0; i < 9; ++i)
                 nested = descriptor(0x03, cat({u16(quint16(i)), u8(0), nested}));
             return inTrack(fullBox("esds", 0, 0, nested));
         }()},
        // The MP4 form with the profiles and two tracks, then the initial form with a URL.
        {"iods", box("moov", cat({fullBox("iods", 0, 0,
                                          descriptor(0x10, cat({u16(0x004F), u8(0xFF), u8(0xFF),
                                                                u8(0x29), u8(0x15), u8(0xFE),
                                                                descriptor(0x0E, u32(1)),
                                                                descriptor(0x0E, u32(2))}))),
                                  fullBox("iods", 0, 0,
                                          descriptor(0x02, cat({u16(0x00BF), u8(4),
                                                                text("x.od"),
                                                                descriptor(0x0F, u16(3))})))}))},
        {"dOps mono", inTrack(box("dOps", cat({u8(0), u8(1), u16(312), u32(48000), u16(0xFE80),
                                               u8(0)})))},
        // Family 1 with six channels, of which the box holds four.
        {"dOps channel mapping",
         inTrack(box("dOps", cat({u8(0), u8(6), u16(312), u32(44100), u16(0x0100), u8(1), u8(4),
                                  u8(2), u8(0), u8(4), u8(1), u8(2)})))},
        // 44100 Hz, 3/2 with LFE at 448 kbit/s.
        {"dac3", inTrack(box("dac3", packBits({{2, 1}, {5, 8}, {3, 0}, {3, 7}, {1, 1},
                                               {5, 15}, {5, 0}})))},
        // Two independent substreams, the second with dependent ones and their channel
        // locations, then an extension byte.
        {"dec3", inTrack(box("dec3", cat({packBits({{13, 640}, {3, 1}}),
                                          packBits({{2, 0}, {5, 16}, {1, 0}, {1, 0}, {3, 0},
                                                    {3, 7}, {1, 1}, {3, 0}, {4, 0}, {1, 0}}),
                                          packBits({{2, 0}, {5, 16}, {1, 0}, {1, 1}, {3, 2},
                                                    {3, 2}, {1, 0}, {3, 0}, {4, 1}, {9, 0x100}}),
                                          u8(1)})))},
        // STREAMINFO: 44100 Hz, 2 channels, 24 bits, 1000000 samples; then a padding block
        // longer than the box.
        {"dfLa", inTrack(fullBox("dfLa", 0, 0,
                                 cat({u8(0x00), u24(34), u16(4096), u16(4096), u24(14), u24(9000),
                                      packBits({{20, 44100}, {3, 1}, {5, 23}, {36, 1000000}}),
                                      zeros(16), u8(0x81), u24(10), zeros(2)})))},
        {"alac", inTrack(fullBox("alac", 0, 0,
                                 cat({u32(4096), u8(0), u8(16), u8(40), u8(10), u8(14), u8(2),
                                      u16(255), u32(0), u32(1411200), u32(44100)})))},
        // The input ends inside the box.
        {"alac cut off", inTrack(fullBox("alac", 0, 0, cat({u32(4096), u8(0), u8(16), u8(40),
                                                             u8(10), u8(14), u8(2), u16(255),
                                                             u32(0), u32(1411200), u32(44100)})))
                             .left(40)},
    };
    QString all;
    for (const auto &[name, input] : cases)
        all += QStringLiteral("== ") + QLatin1String(name) + '\n' + deepDump(input);
    expectGolden(QStringLiteral("Deep/codec-configurations"), all);
}

} // namespace

// Deep analysis of movie fragments: the boxes of mvex and moof field by field, and the samples
// their runs give, with the base data offset rules and the defaults of tfhd over trex.
// Compared whole with tests/golden/Deep/fragments.txt; the real files are in RealFileTest.cpp.

#include "TrackSupport.h"

#include <gtest/gtest.h>

using namespace bytes;
using namespace tracks;

namespace {

// A movie of time scale 1000 with one video track of the given track_ID and time scale 100,
// empty tables, and trex defaults: duration 10, size 5, non-sync samples.
QByteArray movie(quint32 trackId = 1)
{
    const QByteArray tkhd = fullBox("tkhd", 0, 0, words32({0, 0, trackId, 0, 0}) + zeros(60));
    const QByteArray mdhd = fullBox("mdhd", 0, 0, words32({0, 0, 100, 0}) + u16(0x55C4) + u16(0));
    const QByteArray tables =
        cat({table("stts", {}), table("stsc", {}), stsz({}), counted("stco", {})});
    const QByteArray trex = fullBox("trex", 0, 0, words32({trackId, 1, 10, 5, 0x00010000}));
    return box("moov",
               cat({fullBox("mvhd", 0, 0, words32({0, 0, 1000, 0}) + zeros(80)),
                    box("trak", tkhd + box("mdia", cat({mdhd, handlerBox("vide"),
                                                        box("minf", box("stbl", tables))}))),
                    box("mvex", trex)}));
}

QByteArray moof(quint32 sequence, const QByteArray &trafs)
{
    return box("moof", fullBox("mfhd", 0, 0, u32(sequence)) + trafs);
}

QByteArray traf(const QByteArray &tfhd, const QByteArray &rest)
{
    return box("traf", tfhd + rest);
}

QByteArray tfhd(quint32 flags, const QByteArray &fields)
{
    return fullBox("tfhd", 0, flags, u32(1) + fields);
}

QByteArray trun(quint8 version, quint32 flags, const QByteArray &fields)
{
    return fullBox("trun", version, flags, fields);
}

TEST(DeepFragments, CraftedFragments)
{
    const std::pair<const char *, QByteArray> cases[] = {
        // trex gives durations, sizes and flags; the first sample's flags make it sync; the
        // data offset counts from the moof's first byte; tfdt sets the first decoding time.
        {"defaults of trex and first sample flags",
         movie() +
             moof(1,
                  traf(tfhd(0, {}), fullBox("tfdt", 1, 0, u64(1000)) +
                                        trun(0, 0x005, cat({u32(3), u32(120), u32(0x02000000)})))) +
             box("mdat", zeros(20))},
        // Every tfhd field: the base data offset is given, the defaults are tfhd's; every trun
        // field, with signed composition offsets in version 1.
        {"every field",
         movie() +
             moof(2,
                  traf(tfhd(0x3003B, cat({u64(40), u32(1), u32(20), u32(7), u32(0)})),
                       trun(1, 0xF05,
                            cat({u32(2), u32(8), u32(0x00010000), u32(30), u32(3), u32(0),
                                 u32(quint32(-10)), u32(30), u32(4), u32(0x00010000), u32(20)})))) +
             box("mdat", zeros(16))},
        // Without base flags the second traf's data goes on behind the first's, and a run
        // without a data offset behind the run before it; default-base-is-moof counts from the
        // moof; no tfdt: the times go on from the samples before.
        {"data behind the data before",
         movie() +
             moof(3, traf(tfhd(0, {}), trun(0, 0x201, cat({u32(2), u32(100), u32(6), u32(7)}))) +
                         traf(tfhd(0, {}), trun(0, 0x200, cat({u32(1), u32(9)})) +
                                               trun(0, 0x200, cat({u32(1), u32(2)})))) +
             moof(4, traf(tfhd(0x20000, {}), trun(0, 0x001, cat({u32(2), u32(8)}))))},
        // A segment alone: the track is known from its tfhd, its time scale is not.
        {"media segment without a movie",
         box("styp", text("msdh") + u32(0) + text("msdh")) +
             moof(1, traf(tfhd(0x20008, u32(512)),
                          fullBox("tfdt", 0, 0, u32(9000)) +
                              trun(0, 0x201, cat({u32(2), u32(64), u32(3), u32(4)}))))},
        // A count the box cannot hold gives the entries that are there; a data offset past the
        // end of the file is reported as it is.
        {"count beyond the box and data past the end",
         movie() + moof(5, traf(tfhd(0, {}),
                                trun(0, 0x201,
                                     cat({u32(0xFFFFFFFF), u32(0x7FFFFFF0), u32(1), u32(2)}))))},
    };
    QString all;
    for (const auto &[name, input] : cases)
        all += QStringLiteral("== ") + QLatin1String(name) + '\n' + deepDump(input);
    expectGolden(QStringLiteral("Deep/fragments"), all);
}

} // namespace

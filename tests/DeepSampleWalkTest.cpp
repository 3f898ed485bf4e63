// Deep analysis: the samples of every track, walked from its tables in place, with their
// composition and presentation times and the entries that made them. Compared whole with
// tests/golden/Deep/sample-walk.txt; the real files are in RealFileTest.cpp.

#include "TrackSupport.h"

#include <gtest/gtest.h>

using namespace bytes;
using namespace tracks;

namespace {

// A track of the given handler with a media header of the time scale and these tables,
// and an edit list when edits are given (version 0: duration, media time, rate).
QByteArray track(const char *handler, quint32 timescale, const QByteArray &tables,
                 std::initializer_list<Words> edits = {})
{
    const QByteArray mdhd =
        fullBox("mdhd", 0, 0, words32({0, 0, timescale, 1000}) + u16(0x55C4) + u16(0));
    QByteArray edts;
    if (edits.size() > 0) {
        QByteArray entries = u32(quint32(edits.size()));
        for (Words edit : edits)
            entries += words32(edit);
        edts = box("edts", fullBox("elst", 0, 0, entries));
    }
    return box("trak", edts + box("mdia", cat({mdhd, handlerBox(handler),
                                               box("minf", box("stbl", tables))})));
}

// A movie of time scale 1000 around the tracks.
QByteArray movie(const QByteArray &tracks)
{
    return box("moov", fullBox("mvhd", 0, 0, words32({0, 0, 1000, 0}) + zeros(80)) + tracks);
}

QByteArray ctts(quint8 version, std::initializer_list<Words> entries)
{
    QByteArray all = u32(quint32(entries.size()));
    for (Words entry : entries)
        all += words32(entry);
    return fullBox("ctts", version, 0, all);
}

TEST(DeepSampleWalk, CraftedTracks)
{
    const std::pair<const char *, QByteArray> cases[] = {
        // Every table: chunks of 2 then 1 samples, runs of durations, signed composition
        // offsets, sync samples; sound beside video, each with its own samples.
        {"video with every table and sound beside it",
         movie(track("vide", 100,
                     cat({table("stts", {{3, 10}, {1, 20}}),
                          ctts(1, {{1, 20}, {2, quint32(-10)}, {1, 0}}), counted("stss", {1, 4}),
                          table("stsc", {{1, 2, 1}, {2, 1, 1}}), stsz({5, 6, 7, 8}),
                          counted("stco", {1000, 2000, 3000})})) +
               track("soun", 8000,
                     cat({table("stts", {{2, 1024}}), table("stsc", {{1, 2, 1}}),
                          stszConstant(100, 2), co64({0x100000000})})))},
        // An empty edit of 500 ms moves the media to 50 units in; the media before media
        // time 10 is not presented.
        {"empty edit and media time",
         movie(track("vide", 100,
                     cat({table("stts", {{3, 10}}), table("stsc", {{1, 3, 1}}), stszConstant(1, 3),
                          counted("stco", {100})}),
                     {{500, quint32(-1), 0x10000}, {200, 10, 0x10000}}))},
        // A dwell presents only the sample at its media time.
        {"dwell", movie(track("vide", 100,
                              cat({table("stts", {{2, 10}}), table("stsc", {{1, 2, 1}}),
                                   stszConstant(1, 2), counted("stco", {100})}),
                              {{1000, 10, 0}}))},
        // stz2 in fields of 4 and 16 bits.
        {"compact sample sizes",
         movie(track("vide", 100,
                     cat({fullBox("stz2", 0, 0, cat({u24(0), u8(4), u32(3), u8(0x12), u8(0x30)})),
                          table("stsc", {{1, 3, 1}}), counted("stco", {100})})) +
               track("vide", 100,
                     cat({fullBox("stz2", 0, 0, cat({u24(0), u8(16), u32(2), u16(300), u16(400)})),
                          table("stsc", {{1, 2, 1}}), counted("stco", {100})})))},
        // Tables cut short: samples end with the sizes or the chunks, times with their
        // tables; composition offsets of version 0 are unsigned.
        {"short tables", movie(track("vide", 100,
                                     cat({table("stts", {{1, 10}}), ctts(0, {{1, 0xFFFFFFF0}}),
                                          table("stsc", {{1, 2, 1}}), stsz({1, 2, 3}),
                                          counted("stco", {100, 200})})))},
    };
    QString all;
    for (const auto &[name, input] : cases)
        all += QStringLiteral("== ") + QLatin1String(name) + '\n' + deepDump(input);
    expectGolden(QStringLiteral("Deep/sample-walk"), all);
}

} // namespace

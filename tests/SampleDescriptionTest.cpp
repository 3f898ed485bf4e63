// The sample description and the AVC configuration: the entries each reports, and what a video
// track's stream record takes from them.

#include "TrackSupport.h"

#include <gtest/gtest.h>

using namespace bytes;
using namespace tracks;

namespace {

// A visual sample entry: its 86 fixed bytes, then the tail.
QByteArray visualEntry(const char *type, quint16 width, quint16 height,
                       const QByteArray &tail = QByteArray(), quint32 size = 0,
                       const QByteArray &compressorName = text("x264"))
{
    const QByteArray fixed =
        cat({text(type), zeros(6), u16(1), u16(0), u16(0), zeros(12), u16(width), u16(height),
             u32(0x00480000), u32(0x00480000), u32(0), u16(1),
             compressorName + zeros(32 - compressorName.size()), u16(0x18), u16(0xFFFF)});
    return cat({u32(size ? size : quint32(4 + fixed.size() + tail.size())), fixed, tail});
}

// A track of the given handler type whose only other box is an stsd with these entries. The stsd is
// at 48, its payload at 60, and the first entry at 64.
QByteArray describedTrack(const char *handlerType, quint32 entryCount, const QByteArray &entries)
{
    return box("trak", cat({handlerBox(handlerType),
                            fullBox("stsd", 0, 0, cat({u32(entryCount), entries}))}));
}

// The whole report and a line for each stream record.
QString described(const QByteArray &input, int valueBase)
{
    ContainerAbstract::Settings settings;
    settings.valueBase = valueBase;
    const ReportTree report = parseReport(input, settings);
    QString text = dump(report);
    for (const ReportTree::Stream &stream : report.streams) {
        const StreamInfo &info = stream.info;
        text += QString::asprintf("stream %d: codec %d, %dx%d, configuration @%llu+%llu\n",
                                  stream.index, info.codecId, info.width, info.height,
                                  qulonglong(info.configOffset), qulonglong(info.configSize));
    }
    return text;
}

// Compared with tests/golden/SampleDescription/<name>.txt.
TEST(SampleDescription, EntriesAndTheStreamRecord)
{
    const QByteArray audioEntry = cat({u32(16), text("mp4a"), zeros(8)});
    const struct {
        const char *name;
        QByteArray input;
        int valueBase = 10;
    } cases[] = {
        {"visual-entry", describedTrack("vide", 1,
                                        visualEntry("avc1", 320, 240,
                                                    box("avcC", cat({u8(1), u8(0x64), u8(0),
                                                                     u8(0x0a), u8(0xff)}))))},
        // The last field is signed; sizes stay in their own base.
        {"visual-entry-base16", describedTrack("vide", 1, visualEntry("avc1", 1, 1)), 16},
        // Reported but stored nowhere.
        {"visual-entry-outside-any-track",
         cat({handlerBox("vide"),
              fullBox("stsd", 0, 0, cat({u32(1), visualEntry("avc1", 30, 20)}))})},
        {"no-entry-in-a-video-track", describedTrack("vide", 0, QByteArray())},
        // Outside video tracks the first entry's tail is data, and it ends the box.
        {"entries-of-another-track", describedTrack("soun", 2, audioEntry + audioEntry)},
        // A tail of 8 bytes is data; one of 9 is walked as boxes.
        {"tail-of-8-bytes",
         describedTrack("vide", 1, visualEntry("avc1", 16, 16, cat({u32(8), text("free")})))},
        {"tail-of-9-bytes",
         describedTrack("vide", 1,
                        visualEntry("avc1", 16, 16, cat({u32(9), text("free"), u8(7)})))},
        {"fixed-fields-cut-by-the-input",
         describedTrack("vide", 1, visualEntry("avc1", 16, 16).left(40))},
        {"payload-too-short-for-the-count",
         box("trak", cat({handlerBox("vide"), fullBox("stsd", 0, 0, u16(1))}))},
        // Each entry has its own place, and the last one fills the record.
        {"two-entries", describedTrack("vide", 2,
                                       cat({visualEntry("mp4v", 16, 8, box("esds", zeros(4))),
                                            visualEntry("avc1", 64, 48, box("avcC", zeros(3)))}))},
        // The last entry's tail reaches to the end of the box; without one there is no tail.
        {"last-tail-reaches-the-end-of-the-box",
         describedTrack("vide", 1, cat({visualEntry("avc1", 16, 16), box("avcC", zeros(4))}))},
        {"box-beyond-the-input",
         box("trak", cat({handlerBox("vide"), u32(0x7FFFFFF0), text("stsd"), zeros(4), u32(1),
                          visualEntry("avc1", 16, 16, box("avcC", zeros(2)))}))},
        {"count-with-the-top-bit-set",
         describedTrack("vide", 0x80000001, visualEntry("avc1", 16, 16))},
        {"entry-size-below-its-header",
         describedTrack("vide", 3,
                        cat({visualEntry("avc1", 16, 16, QByteArray(), 4), zeros(100)}))},
        // The AVC configuration is located whatever the entry's type, and a second one wins.
        {"second-avcC-overwrites-the-first",
         describedTrack(
             "vide", 1,
             visualEntry("mp4v", 8, 8, cat({box("avcC", zeros(6)), box("avcC", QByteArray())})))},
        {"avcC-outside-any-track", box("avcC", zeros(3))},
        // Each entry of a known type sets the codec; one of an unknown type, as the case of a
        // letter makes it, leaves it.
        {"codec-of-the-last-known-entry",
         describedTrack("vide", 2, cat({visualEntry("s263", 1, 1), visualEntry("AVC1", 1, 1)}))},
        // A compressor name ends at its first zero byte, and its first byte is no length.
        {"compressor-names",
         describedTrack(
             "vide", 3,
             cat({visualEntry("avc1", 1, 1, {}, 0, text("\003abc")),
                  visualEntry("avc1", 1, 1, {}, 0, QByteArray(32, 'c')),
                  visualEntry("avc1", 1, 1, {}, 0, cat({text("ab"), u8(0), text("cd")}))}))},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        expectGolden(QStringLiteral("SampleDescription/") + QLatin1String(c.name),
                     described(c.input, c.valueBase));
    }
}

} // namespace

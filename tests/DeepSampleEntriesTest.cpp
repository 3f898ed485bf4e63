// Deep analysis: stsd with sample entries of every kind, the boxes inside them and the facts
// the first entry gives its stream. Compared whole with tests/golden/Deep/sample-entries.txt;
// real files give their streams the facts ffprobe reads.

#include "TrackSupport.h"

#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>
#include <QStandardPaths>

#include <gtest/gtest.h>

using namespace bytes;
using namespace tracks;

namespace {

// A sample entry: the reserved bytes and data_reference_index 1, then its own bytes.
QByteArray entry(const char *type, const QByteArray &fields, const QByteArray &boxes = {})
{
    return box(type, zeros(6) + u16(1) + fields + boxes);
}

QByteArray stsd(quint32 count, const QByteArray &entries)
{
    return fullBox("stsd", 0, 0, u32(count) + entries);
}

// One track for each pair of handler type and sample description.
QByteArray movie(std::initializer_list<std::pair<const char *, QByteArray>> tracks)
{
    QByteArray all;
    for (const auto &[handler, description] : tracks)
        all += trackBox(handler, description);
    return box("moov", all);
}

QByteArray visual(quint16 width, quint16 height, const char *compressor)
{
    QByteArray name = u8(quint8(qstrlen(compressor))) + text(compressor);
    name += zeros(32 - name.size());
    return cat({zeros(16), u16(width), u16(height), words32({0x480000, 0x480000, 0}), u16(1), name,
                u16(24), u16(0xFFFF)});
}

QByteArray audio(quint16 version, quint16 channels, quint16 compressionId, quint32 rate)
{
    return cat({u16(version), u16(0), u32(0), u16(channels), u16(16), u16(compressionId), u16(0),
                u32(rate << 16)});
}

TEST(DeepSampleEntries, CraftedEntries)
{
    const std::pair<const char *, QByteArray> cases[] = {
        // avc1 with the boxes that extend a picture; an entry of no known type in a video
        // track is visual, with a tail too short for a box; encv has the codec of its frma.
        {"visual",
         movie(
             {{"vide",
               stsd(2,
                    entry("avc1", visual(1920, 1080, "AVC Coding"),
                          cat({box("btrt", words32({4096, 8000000, 5000000})),
                               box("colr", text("nclx") + cat({u16(9), u16(16), u16(9), u8(0x80)})),
                               box("colr", text("nclc") + cat({u16(6), u16(1), u16(6)})),
                               box("colr", text("prof") + zeros(6)), box("pasp", words32({4, 3})),
                               box("clap", words32({1888, 1, 1062, 1, 0, 1, 0, 1})),
                               box("fiel", u8(2) + u8(9)),
                               box("mdcv",
                                   cat({words32({0x84D03E80, 0x33C68A4C, 0x1D4C0BB8, 0x3D134042}),
                                        words32({10000000, 50})})),
                               box("clli", u16(1000) + u16(400)),
                               fullBox("ccst", 0, 0, u32(0xBC000000))})) +
                        entry("zzzz", visual(8, 8, ""), zeros(4)))},
              {"vide", stsd(1, entry("encv", visual(640, 360, ""),
                                     box("sinf", box("frma", text("hvc1")))))}})},
        // ISO sound of version 1 with its rate in srat, and PCM with its format beside it;
        // QuickTime sound of version 1 in a wave, and of version 2 with a channel layout.
        {"audio",
         movie(
             {{"soun", stsd(2, entry("mp4a", audio(1, 2, 0, 1), fullBox("srat", 0, 0, u32(96000))) +
                                   entry("ipcm", audio(0, 2, 0, 48000),
                                         fullBox("pcmC", 0, 0, u8(1) + u8(24))))},
              {"soun",
               stsd(1, entry("in24", audio(1, 2, 0, 44100) + words32({1, 3, 6, 3}),
                             cat({box("wave", box("enda", u16(1)) + box("\0\0\0\0")),
                                  fullBox("chan", 0, 0,
                                          cat({words32({0, 0, 1}),
                                               words32({1, 3, 0x3F800000, 0xBF000000, 0})}))})))},
              {"soun", stsd(1, entry("lpcm",
                                     cat({audio(2, 3, 0xFFFE, 1), u32(72), u64(0x40E5888000000000),
                                          words32({6, 0x7F000000, 24, 12, 18, 1})}),
                                     fullBox("chan", 0, 0, words32({0x10000, 0x3F, 0}))))}})},
        // Text entries of every kind in one track: only the first gives the stream its facts.
        {"text",
         movie({{"text",
                 stsd(5,
                      cat({entry("tx3g",
                                 cat({u32(0x20000000), u8(1), u8(0xFF), u32(0x000000FF), u16(0),
                                      u16(0), u16(60), u16(400), u16(0), u16(0), u16(1), u8(1),
                                      u8(18), u32(0xFFFFFFFF)}),
                                 box("ftab", cat({u16(2), u16(1), u8(4), text("Sans"), u16(2),
                                                  u8(5), text("Serif")}))),
                           entry("text", cat({u32(0), u32(quint32(-1)), zeros(6), u16(0), u16(0),
                                              u16(60), u16(400), zeros(8), u16(3), u16(1), u8(0),
                                              u16(0), u16(0xFFFF) + zeros(4), u8(3), text("Sub")})),
                           entry("wvtt", {},
                                 box("vttC", text("WEBVTT")) + box("vlab", text("source"))),
                           entry("stpp", text("http://www.w3.org/ns/ttml") + u8(0),
                                 box("btrt", words32({0, 0, 0}))),
                           entry("c608", {})}))}})},
        // Metadata entries and one of a type known only by its track's handler; an RTP
        // hint entry with its boxes; a timecode; an entry of no known kind.
        {"metadata, hint, timecode and other",
         movie({{"meta", stsd(3, cat({entry("mett", u8(0) + text("text/plain") + u8(0)),
                                      entry("metx", cat({u8(0), text("urn:x"), u8(0), u8(0)})),
                                      entry("mebx", {}, box("btrt", words32({0, 0, 0})))}))},
                {"hint", stsd(1, entry("rtp ", u16(1) + u16(1) + u32(1450),
                                       cat({box("tims", u32(90000)), box("tsro", u32(quint32(-5))),
                                            box("snro", u32(7))})))},
                {"tmcd", stsd(1, entry("tmcd", cat({u32(0), u32(3), u32(30000), u32(1001), u8(30),
                                                    u8(0)})))},
                {"subt", stsd(1, entry("xyz1", text("abcdef")))}})},
        // Sizes that cannot be right: 0 takes the rest of the box, below 8 cannot hold the
        // header, past the box is held to it, and a count beyond the box ends with the box.
        {"sizes",
         movie({{"vide", stsd(2, u32(0) + text("mp4v") + zeros(6) + u16(1) + visual(16, 16, "") +
                                     box("btrt", words32({0, 0, 0})))},
                {"vide",
                 stsd(2, u32(4) + text("avc1") + zeros(12) + entry("avc1", visual(16, 16, "")))},
                {"soun", stsd(1, u32(200) + text("mp4a") + zeros(6) + u16(1) +
                                     audio(0, 1, 0, 8000) + box("btrt", words32({0, 0, 0})))},
                {"soun", stsd(9, entry("Opus", audio(0, 2, 0, 48000)) + zeros(5))}})},
        // The input ends inside the fixed fields of a visual entry.
        {"cut off",
         movie({{"vide", stsd(1, entry("hvc1", visual(320, 240, "x265")))}}).chopped(40)},
    };
    QString all;
    for (const auto &[name, input] : cases)
        all += QStringLiteral("== ") + QLatin1String(name) + '\n' + deepDump(input);
    expectGolden(QStringLiteral("Deep/sample-entries"), all);
}

// Every stream of the real files has its entry type and codec, and the picture size and
// sample rate ffprobe reads (0 where a stream has none).
TEST(DeepSampleEntries, RealFilesGiveTheirStreamsTheFactsOfFfprobe)
{
    if (QStandardPaths::findExecutable(QStringLiteral("ffprobe")).isEmpty())
        GTEST_SKIP() << "ffprobe is not installed";
    ContainerAbstract::Settings deep;
    deep.deepAnalysis = true;
    for (const char *name :
         {"samples/sample.mp4", "tests/data/track-aac-h264.mp4",
          "tests/data/track-h264-bframes.mp4", "tests/data/track-h264-faststart.mp4",
          "tests/data/track-mpeg4.mp4", "tests/data/deep-hevc.mp4", "tests/data/deep-av1.mp4",
          "tests/data/deep-vp9.mp4", "tests/data/deep-opus.mp4", "tests/data/deep-ac3.mp4",
          "tests/data/deep-aac.m4a", "tests/data/deep-h264-aac.mov", "tests/data/deep-edits.mp4"}) {
        SCOPED_TRACE(name);
        const QString path = QStringLiteral(SARVELINTH_SOURCE_DIR "/") + QLatin1String(name);
        QFile file(path);
        ASSERT_TRUE(file.open(QIODevice::ReadOnly));
        const ReportTree report = parseReport(file.readAll(), deep);
        QProcess ffprobe;
        ffprobe.start(QStringLiteral("ffprobe"),
                      {"-v", "error", "-show_entries", "stream=width,height,sample_rate", "-of",
                       "json", path});
        ASSERT_TRUE(ffprobe.waitForFinished());
        const QJsonArray streams =
            QJsonDocument::fromJson(ffprobe.readAllStandardOutput())["streams"].toArray();
        ASSERT_EQ(report.streams.size(), streams.size());
        for (int i = 0; i < streams.size(); ++i) {
            const StreamInfo &info = report.streams[i].info;
            const QJsonObject theirs = streams[i].toObject();
            ASSERT_TRUE(info.track.has_value());
            EXPECT_FALSE(info.track->sampleEntry.isEmpty());
            EXPECT_FALSE(info.codecName.isEmpty());
            EXPECT_EQ(info.width, theirs["width"].toInt());
            EXPECT_EQ(info.height, theirs["height"].toInt());
            EXPECT_EQ(info.track->sampleRate, theirs["sample_rate"].toString().toUInt());
        }
    }
}

} // namespace

// Deep analysis: the codecs string of each stream, from crafted sample entries and against
// the codecs FFmpeg's DASH muxer writes into its manifest for the same streams.

#include "TrackSupport.h"

#include <QDir>
#include <QFile>
#include <QProcess>
#include <QRegularExpression>
#include <QStandardPaths>
#include <QTemporaryDir>

#include <gtest/gtest.h>

using namespace bytes;
using namespace tracks;

namespace {

QByteArray entry(const char *type, const QByteArray &fields, const QByteArray &boxes = {})
{
    return box(type, zeros(6) + u16(1) + fields + boxes);
}

QByteArray visualFields()
{
    return cat({zeros(16), u16(64), u16(48), words32({0x480000, 0x480000, 0}), u16(1), zeros(32),
                u16(24), u16(0xFFFF)});
}

QByteArray audioFields()
{
    return cat({u16(0), u16(0), u32(0), u16(2), u16(16), u16(0), u16(0), u32(48000u << 16)});
}

// The codecs string of the first stream of a movie of one track with this sample description.
QString codecsOf(const char *handler, const QByteArray &entries, quint32 count = 1)
{
    ContainerAbstract::Settings deep;
    deep.deepAnalysis = true;
    const ReportTree report = parseReport(
        box("moov", trackBox(handler, fullBox("stsd", 0, 0, u32(count) + entries))), deep);
    if (report.streams.isEmpty() || !report.streams[0].info.track)
        return QStringLiteral("no facts");
    return report.streams[0].info.track->codecs;
}

QByteArray esds(quint8 objectType, const QByteArray &specificInfo)
{
    const QByteArray config = cat({u8(objectType), u8(0x15), u24(0), u32(0), u32(0), u8(5),
                                   u8(quint8(specificInfo.size())), specificInfo});
    const QByteArray es = cat({u16(1), u8(0), u8(4), u8(quint8(config.size())), config});
    return fullBox("esds", 0, 0, cat({u8(3), u8(quint8(es.size())), es}));
}

// The twelve bytes of hvcC behind its version: profile space, tier and profile, the
// compatibility flags, the constraint bytes and the level.
QByteArray hevcConfig(quint8 general, quint32 compatibility, const QByteArray &constraints,
                      quint8 level)
{
    return box("hvcC",
               cat({u8(1), u8(general), u32(compatibility), constraints, u8(level), u16(0xF000),
                    u8(0xFC), u8(0xFD), u8(0xF8), u8(0xF8), u16(0), u8(0x0F), u8(0)}));
}

TEST(CodecsString, CraftedEntries)
{
    const QByteArray video = visualFields();
    const QByteArray sound = audioFields();
    const struct {
        const char *name;
        const char *handler;
        QByteArray entries;
        const char *codecs;
        quint32 count = 1;
    } cases[] = {
        {"avc1", "vide",
         entry("avc1", video,
               box("avcC", cat({u8(1), u8(0x64), u8(0), u8(0x1F), u8(0xFF), u8(0xE0), u8(0)}))),
         "avc1.64001F"},
        {"avc3 constrained baseline", "vide",
         entry("avc3", video, box("avcC", cat({u8(1), u8(0x42), u8(0xE0), u8(0x1E)}))),
         "avc3.42E01E"},
        {"hvc1 main", "vide",
         entry("hvc1", video, hevcConfig(0x01, 0x60000000, cat({u8(0xB0), zeros(5)}), 93)),
         "hvc1.1.6.L93.B0"},
        {"hev1 space, high tier, no constraints", "vide",
         entry("hev1", video, hevcConfig(0x62, 0x20000000, zeros(6), 120)), "hev1.A2.4.H120"},
        {"hvc1 a constraint byte behind zeros", "vide",
         entry("hvc1", video,
               hevcConfig(0x02, 0x20000000, cat({u8(0x90), zeros(3), u8(1), u8(0)}), 150)),
         "hvc1.2.4.L150.90.00.00.00.01"},
        {"av01 ten bits", "vide",
         entry("av01", video, box("av1C", cat({u8(0x81), u8(0x08), u8(0x40), u8(0)}))),
         "av01.0.08M.10"},
        {"av01 high tier, twelve bits", "vide",
         entry("av01", video, box("av1C", cat({u8(0x81), u8(0x53), u8(0xE0), u8(0)}))),
         "av01.2.19H.12"},
        {"vp09", "vide",
         entry("vp09", video, fullBox("vpcC", 1, 0, cat({u8(2), u8(31), u8(0xA0), zeros(5)}))),
         "vp09.02.31.10"},
        {"mp4a AAC LC", "soun", entry("mp4a", sound, esds(0x40, cat({u8(0x11), u8(0x90)}))),
         "mp4a.40.2"},
        {"mp4a HE-AAC", "soun", entry("mp4a", sound, esds(0x40, cat({u8(0x2B), u8(0x11)}))),
         "mp4a.40.5"},
        {"mp4a audio object type behind the escape", "soun",
         entry("mp4a", sound, esds(0x40, cat({u8(0xF9), u8(0x46), u8(0x40)}))), "mp4a.40.42"},
        {"mp4a MP3", "soun", entry("mp4a", sound, esds(0x6B, QByteArray())), "mp4a.6B"},
        {"mp4v with its visual object sequence", "vide",
         entry("mp4v", video, esds(0x20, cat({u32(0x1B0), u8(0xF5)}))), "mp4v.20.245"},
        {"Opus", "soun", entry("Opus", sound), "opus"},
        {"fLaC", "soun", entry("fLaC", sound), "flac"},
        {"ec-3", "soun", entry("ec-3", sound), "ec-3"},
        {"encv stands for its original format", "vide",
         entry("encv", video,
               cat({box("avcC", cat({u8(1), u8(0x4D), u8(0x40), u8(0x28)})),
                    box("sinf", box("frma", text("avc1")))})),
         "avc1.4D4028"},
        {"avcC cut short", "vide", entry("avc1", video, box("avcC", cat({u8(1), u8(0x64)}))),
         "avc1"},
        // The first entry names the stream, not the configuration of the second.
        {"two entries", "vide",
         entry("avc1", video) +
             entry("avc1", video, box("avcC", cat({u8(1), u8(0x64), u8(0), u8(0x1F)}))),
         "avc1", 2},
    };
    for (const auto &test : cases) {
        SCOPED_TRACE(test.name);
        EXPECT_EQ(codecsOf(test.handler, test.entries, test.count).toStdString(), test.codecs);
    }
}

// Each real file through FFmpeg's DASH muxer: the codecs of each representation of its
// manifest, against ours of the same stream in the initialization segment it wrote. FFmpeg
// leaves out the parameters of some codecs and writes the optional ones of others, so the
// shorter of the two strings begins the longer, at a dot.
TEST(CodecsString, AsFfmpegsManifestNamesThem)
{
    if (QStandardPaths::findExecutable(QStringLiteral("ffmpeg")).isEmpty())
        GTEST_SKIP() << "ffmpeg is not installed";
    ContainerAbstract::Settings deep;
    deep.deepAnalysis = true;
    const QDir data(QStringLiteral(SARVELINTH_SOURCE_DIR "/tests/data"));
    int compared = 0;
    for (const char *name : {"deep-hevc.mp4", "deep-av1.mp4", "deep-vp9.mp4", "deep-opus.mp4",
                             "deep-ac3.mp4", "deep-aac.m4a", "deep-edits.mp4"}) {
        SCOPED_TRACE(name);
        QTemporaryDir folder;
        ASSERT_TRUE(folder.isValid());
        QProcess ffmpeg;
        ffmpeg.start(QStringLiteral("ffmpeg"),
                     {"-v", "error", "-nostdin", "-i", data.filePath(QLatin1String(name)), "-map",
                      "0", "-c", "copy", "-dash_segment_type", "mp4", "-f", "dash",
                      folder.filePath("m.mpd")});
        ASSERT_TRUE(ffmpeg.waitForFinished(30000) && ffmpeg.exitCode() == 0);
        QFile manifest(folder.filePath("m.mpd"));
        ASSERT_TRUE(manifest.open(QIODevice::ReadOnly));
        const QString text = QString::fromUtf8(manifest.readAll());
        QRegularExpression representation(QStringLiteral("<Representation id=\"(\\d+)\"[^>]*"
                                                         "codecs=\"([^\"]*)\""));
        for (auto match = representation.globalMatch(text); match.hasNext();) {
            const auto found = match.next();
            QFile init(folder.filePath(QStringLiteral("init-stream%1.m4s").arg(found.captured(1))));
            ASSERT_TRUE(init.open(QIODevice::ReadOnly));
            const ReportTree report = parseReport(init.readAll(), deep);
            ASSERT_EQ(report.streams.size(), 1);
            ASSERT_TRUE(report.streams[0].info.track);
            const QString ours = report.streams[0].info.track->codecs.toLower();
            const QString theirs = found.captured(2).toLower();
            const QString &shorter = ours.size() < theirs.size() ? ours : theirs;
            const QString &longer = ours.size() < theirs.size() ? theirs : ours;
            EXPECT_TRUE(longer == shorter || longer.startsWith(shorter + '.'))
                << ours.toStdString() << " against " << theirs.toStdString();
            ++compared;
        }
    }
    EXPECT_EQ(compared, 8);
}

} // namespace

// The real files made by FFmpeg and GStreamer that ship with the repository, against a plain
// walk of their boxes and against what ffprobe reads in them.

#include "Support.h"

#include <QDir>
#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QMap>
#include <QProcess>
#include <QStandardPaths>
#include <QtEndian>

#include <gtest/gtest.h>

#include <algorithm>

namespace {
// Boxes whose payload is nothing but boxes: both walks below descend into these only.
bool isContainer(const QString &type)
{
    static const QStringList containers = {"moov", "trak", "mdia", "minf", "stbl", "dinf", "edts"};
    return containers.contains(type);
}

// Every box as a plain walk of the bytes finds it: type, offset and size, one per line.
void walkBoxes(const QByteArray &bytes, quint64 begin, quint64 end, QString &out)
{
    for (quint64 at = begin; at + 8 <= end;) {
        const auto *header = reinterpret_cast<const uchar *>(bytes.constData() + at);
        quint64 size = qFromBigEndian<quint32>(header);
        if (size == 1)
            size = qFromBigEndian<quint64>(header + 8);
        else if (size == 0)
            size = end - at;
        const QString type = QString::fromLatin1(bytes.mid(qsizetype(at) + 4, 4));
        out += QStringLiteral("%1 @%2+%3\n").arg(type).arg(at).arg(size);
        if (isContainer(type))
            walkBoxes(bytes, at + 8, at + size, out);
        at += size;
    }
}

// The same list from the report's elements.
void reportedBoxes(const ReportTree::Node &parent, QString &out)
{
    for (const auto &node : parent.children) {
        if (node->kind != ReportTree::Node::Element)
            continue;
        out += QStringLiteral("%1 @%2+%3\n").arg(node->name).arg(node->offset).arg(node->size);
        if (isContainer(node->name))
            reportedBoxes(*node, out);
    }
}
QByteArray readFile(const QString &path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

QString sourcePath(const char *name)
{
    return QStringLiteral(SARVELINTH_SOURCE_DIR "/") + QLatin1String(name);
}

// The sample entries of PCM whose samples ffprobe packs into larger packets.
const QStringList PackedPcm = {"sowt", "twos", "lpcm", "in24", "in32", "fl32", "fl64", "raw "};

// The real files that FFmpeg and the Node muxers made for the tests, and the sample, as whole
// files ffprobe reads.
QStringList realFiles()
{
    const QDir data(sourcePath("tests/data"));
    QStringList paths = {sourcePath("samples/sample.mp4")};
    for (const QString &name :
         data.entryList({"*.mp4", "*.m4a", "*.mov", "*.3gp", "*-init.m4s"}, QDir::Files))
        paths << data.filePath(name);
    return paths;
}

// The files that GStreamer's muxers made for the tests (make-gstreamer-files.sh).
QStringList gstreamerFiles()
{
    const QDir data(sourcePath("tests/data/gstreamer"));
    QStringList paths;
    for (const QString &name : data.entryList({"*.mp4", "*.mov"}, QDir::Files))
        paths << data.filePath(name);
    return paths;
}

// The streams of a file whose packets ffprobe makes of its own, not of the file's samples:
// PCM, which it packs into packets of many samples.
QList<int> packedStreams(const QString &path)
{
    QProcess ffprobe;
    ffprobe.start(QStringLiteral("ffprobe"),
                  {"-v", "error", "-show_entries", "stream=index,codec_name", "-of", "json", path});
    QList<int> packed;
    if (!ffprobe.waitForFinished(30000) || ffprobe.exitCode() != 0)
        return packed;
    const QJsonArray streams = QJsonDocument::fromJson(ffprobe.readAllStandardOutput())
                                   .object()
                                   .value("streams")
                                   .toArray();
    for (const QJsonValue &stream : streams) {
        if (stream.toObject().value("codec_name").toString().startsWith("pcm_"))
            packed << stream.toObject().value("index").toInt();
    }
    return packed;
}

// The boxes below node, by path, that are unknown or show their payload as a bare data field.
void collectOpaqueBoxes(const ReportTree::Node &node, const QString &path, QStringList &opaque)
{
    for (const auto &child : node.children) {
        if (child->kind != ReportTree::Node::Element)
            continue;
        const QString childPath = path + '/' + child->name;
        const bool isBox = !child->children.empty() && child->children[0]->name == "size";
        const bool bareData =
            std::any_of(child->children.begin(), child->children.end(), [](const auto &field) {
                return field->kind == ReportTree::Node::Field && field->name == "data" &&
                       field->value.isEmpty();
            });
        const bool allowed = QStringList{"mdat", "free", "skip", "uuid"}.contains(child->name);
        if (isBox && !allowed && (child->note == "Unknown element!" || bareData))
            opaque << childPath;
        collectOpaqueBoxes(*child, childPath, opaque);
    }
}

// The packets of a file as ffprobe reads them, one line for each, in each stream's order:
// stream, offset, size, key frame, pts - dts and the step of its dts from the packet before
// it in the same stream. With withTimes false, the last two are left out. The streams in skip
// are left out.
QString packetsOfFfprobe(const QString &path, bool videoOnly, bool withTimes,
                         const QList<int> &skip = {})
{
    QStringList arguments = {
        "-v",   "error", "-show_entries", "packet=stream_index,pos,size,flags,pts,dts", "-of",
        "json", path};
    if (videoOnly)
        arguments << "-select_streams"
                  << "v";
    QProcess ffprobe;
    ffprobe.start(QStringLiteral("ffprobe"), arguments);
    if (!ffprobe.waitForFinished(30000) || ffprobe.exitCode() != 0)
        return QStringLiteral("ffprobe failed");
    const QJsonArray packets = QJsonDocument::fromJson(ffprobe.readAllStandardOutput())
                                   .object()
                                   .value("packets")
                                   .toArray();
    QMap<int, QString> streams;
    QMap<int, qint64> lastDts;
    for (const QJsonValue &value : packets) {
        const QJsonObject packet = value.toObject();
        const int stream = packet.value("stream_index").toInt();
        if (skip.contains(stream))
            continue;
        const qint64 dts = packet.value("dts").toInteger();
        const qint64 pts = packet.contains("pts") ? packet.value("pts").toInteger() : dts;
        QString &lines = streams[stream];
        lines += QStringLiteral("%1 %2 %3 %4")
                     .arg(stream)
                     .arg(packet.value("pos").toString(), packet.value("size").toString())
                     .arg(packet.value("flags").toString().startsWith('K') ? 1 : 0);
        if (withTimes)
            lines += QStringLiteral(" %1 %2").arg(pts - dts).arg(dts - lastDts.value(stream, dts));
        lines += '\n';
        lastDts[stream] = dts;
    }
    return QStringList(streams.values()).join(QString());
}

} // namespace

// Every box where a plain walk of the bytes finds it, and every video sample, one line each:
// stream, offset, size and key frame.
TEST(RealFiles, BoxesMatchAPlainWalkAndVideoSamplesTheVideoPacketsOfFfprobe)
{
    if (QStandardPaths::findExecutable(QStringLiteral("ffprobe")).isEmpty())
        GTEST_SKIP() << "ffprobe is not installed";
    // Plain, with B-frames, with the movie in front of the media, MPEG-4 Visual, and video as the
    // second track.
    for (const char *name : {"samples/sample.mp4", "tests/data/track-h264-bframes.mp4",
                             "tests/data/track-h264-faststart.mp4", "tests/data/track-mpeg4.mp4",
                             "tests/data/track-aac-h264.mp4"}) {
        SCOPED_TRACE(name);
        const QByteArray bytes = readFile(sourcePath(name));
        const ReportTree report = parseReport(bytes);
        EXPECT_EQ(report.openElements(), 0);
        EXPECT_FALSE(dump(report).contains("Invalid element size."));
        QString walked, reported;
        walkBoxes(bytes, 0, quint64(bytes.size()), walked);
        reportedBoxes(report.root, reported);
        EXPECT_EQ(reported.toStdString(), walked.toStdString());
        QString ours;
        for (const ReportTree::Stream &stream : report.streams) {
            for (const Sample &sample : stream.samples)
                ours +=
                    QString::asprintf("%d %llu %llu %u\n", stream.index, qulonglong(sample.offset),
                                      qulonglong(sample.size), uint(sample.keyFrame));
        }
        EXPECT_EQ(ours.toStdString(),
                  packetsOfFfprobe(sourcePath(name), true, false).toStdString());
    }
}

// Deep analysis lists the samples of every track, those of movie fragments too, with
// composition times: each one as ffprobe reads its packet. Where composition offsets are
// negative, FFmpeg moves a stream's decoding times back by the most negative one, so that no
// sample decodes after it is shown; pts - dts is compared after that shift. ffprobe cannot
// judge two kinds of track: it packs the samples of PCM into packets of its own, and it takes
// every packet of a hint track for a key frame. Those are left out on both sides. The files
// of GStreamer too.
TEST(RealFiles, DeepSamplesOfEveryTrackAreThePacketsOfFfprobe)
{
    if (QStandardPaths::findExecutable(QStringLiteral("ffprobe")).isEmpty())
        GTEST_SKIP() << "ffprobe is not installed";
    ContainerAbstract::Settings deep;
    deep.deepAnalysis = true;
    const QStringList gstreamer = gstreamerFiles();
    EXPECT_GE(gstreamer.size(), 6);
    for (const QString &path : realFiles() + gstreamer) {
        SCOPED_TRACE(path.toStdString());
        const ReportTree report = parseReport(readFile(path), deep);
        const QList<int> packed = packedStreams(path);
        QString ours;
        QStringList unjudged;
        for (const ReportTree::Stream &stream : report.streams) {
            const StreamInfo &info = stream.info;
            if (packed.contains(stream.index) || info.handlerType == QLatin1String("hint") ||
                (info.track && PackedPcm.contains(info.track->sampleEntry))) {
                unjudged << QString::number(stream.index) + ' ';
                continue;
            }
            const auto &samples = stream.trackSamples;
            qint64 shift = 0;
            for (const TrackSample &sample : samples)
                shift = qMax(shift, sample.dts - sample.pts);
            for (int i = 0; i < samples.size(); ++i) {
                const TrackSample &sample = samples[i];
                const qint64 step = i ? sample.dts - samples[i - 1].dts : 0;
                ours += QString::asprintf("%d %llu %llu %d %lld %lld\n", stream.index,
                                          qulonglong(sample.offset), qulonglong(sample.size),
                                          sample.keyFrame ? 1 : 0, sample.pts - sample.dts + shift,
                                          step);
            }
        }
        QStringList theirs = packetsOfFfprobe(path, false, true, packed).split('\n');
        theirs.removeIf([&](const QString &line) {
            return std::any_of(unjudged.begin(), unjudged.end(),
                               [&](const QString &index) { return line.startsWith(index); });
        });
        EXPECT_EQ(ours.toStdString(), theirs.join('\n').toStdString());
    }
}

// Deep analysis knows every box of the real files: none is an unknown element, and none shows
// its payload as a bare data field but the media data, filler and a uuid of a user type it
// does not know.
TEST(RealFiles, DeepAnalysisDecodesEveryBoxOfTheRealFiles)
{
    ContainerAbstract::Settings deep;
    deep.deepAnalysis = true;
    QStringList paths = realFiles() + gstreamerFiles();
    paths << sourcePath("tests/data/frag-dash-segment.m4s");
    for (const QString &path : paths) {
        SCOPED_TRACE(path.toStdString());
        QStringList opaque;
        collectOpaqueBoxes(parseReport(readFile(path), deep).root, QString(), opaque);
        EXPECT_EQ(opaque.join(' ').toStdString(), "");
    }
}

// --join: an initialization segment and its media segments, made by FFmpeg's DASH and HLS
// muxers (tests/data/make-package-files.sh), reported as one presentation, against the
// packets ffprobe reads in the same files put end to end.

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QMap>
#include <QProcess>
#include <QStandardPaths>
#include <QTemporaryDir>

#include <gtest/gtest.h>

namespace {

const QDir Data(QStringLiteral(SARVELINTH_SOURCE_DIR "/tests/data"));

// Runs the command built beside the test binary in dir; its standard output.
QByteArray runTool(const QStringList &arguments, const QString &dir)
{
    const QString bin =
        QFileInfo(QFileInfo(QStringLiteral("/proc/self/exe")).canonicalFilePath()).path();
    QProcess process;
    process.setWorkingDirectory(dir);
    process.start(bin + QStringLiteral("/sarvelinth"), arguments);
    if (!process.waitForFinished(60000) || process.exitStatus() != QProcess::NormalExit)
        return {};
    return process.readAllStandardOutput();
}

// One representation of a package: its folder, its initialization segment, then its media
// segments in order.
struct Representation {
    QString folder;
    QStringList files;
};

QList<Representation> representations()
{
    QList<Representation> all;
    for (const char *folder : {"package-dash-template", "package-dash-timeline"}) {
        const QDir dir(Data.filePath(QLatin1String(folder)));
        for (const char *id : {"0", "1"}) {
            Representation representation{dir.path(),
                                          {QStringLiteral("init-stream%1.m4s").arg(id)}};
            representation.files += dir.entryList({QStringLiteral("chunk-stream%1-*.m4s").arg(id)},
                                                  QDir::Files, QDir::Name);
            all << representation;
        }
    }
    const QDir hls(Data.filePath(QStringLiteral("package-hls")));
    all << Representation{hls.path(), QStringList{"init.mp4"} +
                                          hls.entryList({"package*.m4s"}, QDir::Files, QDir::Name)};
    return all;
}

// The samples of ffprobe in the files put end to end, one line for each, stream after
// stream: the stream, the file its position falls in, the offset in that file, size, key frame, pts
// - dts (after the shift FFmpeg makes for negative composition offsets, see RealFileTest) and the
// step of its dts.
QString packetsOfFfprobe(const Representation &representation)
{
    QTemporaryDir folder;
    QFile whole(folder.filePath(QStringLiteral("whole.mp4")));
    if (!folder.isValid() || !whole.open(QIODevice::WriteOnly))
        return QStringLiteral("no temporary file");
    QList<qint64> starts;
    for (const QString &name : representation.files) {
        QFile part(QDir(representation.folder).filePath(name));
        if (!part.open(QIODevice::ReadOnly))
            return QStringLiteral("no file ") + name;
        starts << whole.pos();
        whole.write(part.readAll());
    }
    whole.close();
    QProcess ffprobe;
    ffprobe.start(QStringLiteral("ffprobe"),
                  {"-v", "error", "-show_entries", "packet=stream_index,pos,size,flags,pts,dts",
                   "-of", "json", whole.fileName()});
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
        const qint64 pos = packet.value("pos").toString().toLongLong();
        int file = 0;
        while (file + 1 < starts.size() && starts[file + 1] <= pos)
            ++file;
        const qint64 dts = packet.value("dts").toInteger();
        streams[stream] += QStringLiteral("%1 %2 %3 %4 %5 %6 %7\n")
                               .arg(stream)
                               .arg(file)
                               .arg(pos - starts[file])
                               .arg(packet.value("size").toString())
                               .arg(packet.value("flags").toString().startsWith('K') ? 1 : 0)
                               .arg(packet.value("pts").toInteger() - dts)
                               .arg(dts - lastDts.value(stream, dts));
        lastDts[stream] = dts;
    }
    return QStringList(streams.values()).join(QString());
}

// The same lines from the samples of the joined report's streams.
QString joinedSamples(const QJsonObject &report)
{
    QString lines;
    for (const QJsonValue &stream : report.value("streams").toArray()) {
        const QJsonArray samples = stream["samples"].toArray();
        qint64 shift = 0;
        for (const QJsonValue &sample : samples)
            shift = qMax(shift, sample["dts"].toInteger() - sample["pts"].toInteger());
        for (int i = 0; i < samples.size(); ++i) {
            const QJsonValue sample = samples[i];
            const qint64 dts = sample["dts"].toInteger();
            lines += QStringLiteral("%1 %2 %3 %4 %5 %6 %7\n")
                         .arg(stream["index"].toInt())
                         .arg(sample["file"].toInt(-1))
                         .arg(sample["offset"].toInteger())
                         .arg(sample["size"].toInteger())
                         .arg(sample["keyFrame"].toInt())
                         .arg(sample["pts"].toInteger() - dts + shift)
                         .arg(i ? dts - samples[i - 1]["dts"].toInteger() : 0);
        }
    }
    return lines;
}

TEST(JoinedFiles, SamplesOfEveryRepresentationAreThePacketsOfFfprobe)
{
    if (QStandardPaths::findExecutable(QStringLiteral("ffprobe")).isEmpty())
        GTEST_SKIP() << "ffprobe is not installed";
    for (const Representation &representation : representations()) {
        SCOPED_TRACE(representation.files.join(' ').toStdString());
        ASSERT_GE(representation.files.size(), 3);
        const QJsonObject report =
            QJsonDocument::fromJson(
                runTool(QStringList{"--join", "--format=json"} + representation.files,
                        representation.folder))
                .object();
        // One element for each file, named after it and as long as it, and the list of files.
        const QJsonArray elements = report.value("elements").toArray();
        const QJsonArray files = report.value("files").toArray();
        ASSERT_EQ(elements.size(), representation.files.size());
        ASSERT_EQ(files.size(), representation.files.size());
        for (int i = 0; i < files.size(); ++i) {
            const qint64 size =
                QFileInfo(QDir(representation.folder).filePath(representation.files[i])).size();
            EXPECT_EQ(elements[i]["name"].toString(), representation.files[i]);
            EXPECT_EQ(elements[i]["size"].toInteger(), size);
            EXPECT_EQ(files[i]["file"].toString(), representation.files[i]);
            EXPECT_EQ(files[i]["fileSize"].toInteger(), size);
        }
        // The tracks' facts come from the initialization segment.
        for (const QJsonValue &stream : report.value("streams").toArray()) {
            EXPECT_GT(stream["timescale"].toInteger(), 0);
            EXPECT_FALSE(stream["codecs"].toString().isEmpty());
        }
        EXPECT_EQ(joinedSamples(report).toStdString(),
                  packetsOfFfprobe(representation).toStdString());
    }
}

// A media segment alone knows no time scale; joined behind its initialization segment it
// has the track's, and without --join each file is still a report of its own.
TEST(JoinedFiles, WithoutJoinEachFileStaysAlone)
{
    const QString folder = Data.filePath(QStringLiteral("package-dash-template"));
    const QStringList files = {"init-stream0.m4s", "chunk-stream0-00001.m4s"};
    const QList<QByteArray> alone =
        runTool(QStringList{"--deep", "--format=json"} + files, folder).trimmed().split('\n');
    ASSERT_EQ(alone.size(), 2);
    const QJsonObject segment = QJsonDocument::fromJson(alone[1]).object();
    EXPECT_FALSE(segment.contains("files"));
    EXPECT_TRUE(segment["streams"][0]["timescale"].isNull());
    const QJsonObject joined =
        QJsonDocument::fromJson(runTool(QStringList{"--join", "--format=json"} + files, folder))
            .object();
    EXPECT_EQ(joined["streams"][0]["timescale"].toInteger(), 10240);
    EXPECT_EQ(joined["streams"][0]["samples"][0]["file"].toInt(), 1);
}

} // namespace

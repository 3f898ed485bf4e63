// Packages read from their manifest with --deep: the DASH and HLS packages FFmpeg made
// (tests/data/make-package-files.sh) against ffprobe, damaged copies of them against the
// codes of the package checks, and hostile manifests against their bounds.

#include "Manifest.h"
#include "Support.h"

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
#include <QtEndian>

#include <gtest/gtest.h>

#include <sys/resource.h>

namespace {

const QDir Data(QStringLiteral(SARVELINTH_SOURCE_DIR "/tests/data"));

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

QJsonObject reportOf(const QString &manifest, const QStringList &options = {})
{
    const QFileInfo info(manifest);
    return QJsonDocument::fromJson(runTool(QStringList{"--deep", "--format=json"} + options +
                                               QStringList{info.fileName()},
                                           info.path()))
        .object();
}

// The packets ffprobe reads in a representation's files put end to end, stream after stream,
// one line each: the file the packet lies in, its offset there, size, key frame, pts - dts
// and the step of its dts.
QString packetsOfFfprobe(const QDir &folder, const QStringList &files)
{
    QTemporaryDir temporary;
    QFile whole(temporary.filePath(QStringLiteral("whole.mp4")));
    if (!temporary.isValid() || !whole.open(QIODevice::WriteOnly))
        return QStringLiteral("no temporary file");
    QList<qint64> starts;
    for (const QString &name : files) {
        QFile part(folder.filePath(name));
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
        streams[stream] += QStringLiteral("%1 %2 %3 %4 %5 %6\n")
                               .arg(files[file])
                               .arg(pos - starts[file])
                               .arg(packet.value("size").toString())
                               .arg(packet.value("flags").toString().startsWith('K') ? 1 : 0)
                               .arg(packet.value("pts").toInteger() - dts)
                               .arg(dts - lastDts.value(stream, dts));
        lastDts[stream] = dts;
    }
    return QStringList(streams.values()).join(QString());
}

// The same lines from the streams of a report, each sample's file by its name in "files".
QString samplesOf(const QJsonObject &report)
{
    const QJsonArray files = report.value("files").toArray();
    QString lines;
    for (const QJsonValue &stream : report.value("streams").toArray()) {
        const QJsonArray samples = stream["samples"].toArray();
        qint64 shift = 0;
        for (const QJsonValue &sample : samples)
            shift = qMax(shift, sample["dts"].toInteger() - sample["pts"].toInteger());
        for (int i = 0; i < samples.size(); ++i) {
            const QJsonValue sample = samples[i];
            const qint64 dts = sample["dts"].toInteger();
            lines += QStringLiteral("%1 %2 %3 %4 %5 %6\n")
                         .arg(files[sample["file"].toInt()]["file"].toString())
                         .arg(sample["offset"].toInteger())
                         .arg(sample["size"].toInteger())
                         .arg(sample["keyFrame"].toInt())
                         .arg(sample["pts"].toInteger() - dts + shift)
                         .arg(i ? dts - samples[i - 1]["dts"].toInteger() : 0);
        }
    }
    return lines;
}

// The files of each representation of the packages as their manifests name them: DASH's two,
// HLS's one playlist. The manifests name 1.2 s in segments of 0.4 s: three, where FFmpeg's
// template package has a fourth audio segment of what is left; the single-file package has
// them in byte ranges of one file per representation.
struct Package {
    const char *folder;
    const char *manifest;
    QList<QStringList> representations;
};

QList<Package> packages()
{
    QList<Package> all;
    for (const char *folder : {"package-dash-template", "package-dash-timeline"}) {
        const QDir dir(Data.filePath(QLatin1String(folder)));
        Package package{folder, "package.mpd", {}};
        for (const char *id : {"0", "1"})
            package.representations
                << QStringList{QStringLiteral("init-stream%1.m4s").arg(id)} +
                       dir.entryList({QStringLiteral("chunk-stream%1-*.m4s").arg(id)}, QDir::Files,
                                     QDir::Name)
                           .mid(0, 3);
        all << package;
    }
    all << Package{"package-dash-single",
                   "package.mpd",
                   {QStringList{"package-stream0.mp4"}, QStringList{"package-stream1.mp4"}}};
    const QDir hls(Data.filePath(QStringLiteral("package-hls")));
    all << Package{
        "package-hls",
        "package.m3u8",
        {QStringList{"init.mp4"} + hls.entryList({"package*.m4s"}, QDir::Files, QDir::Name)}};
    return all;
}

// The processor time of the children that ended so far, in seconds.
double childSeconds()
{
    rusage usage{};
    getrusage(RUSAGE_CHILDREN, &usage);
    return double(usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) +
           double(usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) / 1e6;
}

QStringList problemCodes(const QJsonObject &report, const char *severity = nullptr)
{
    QStringList codes;
    for (const QJsonValue &problem : report.value("problems").toArray()) {
        if (!severity || problem["severity"].toString() == QLatin1String(severity))
            codes << problem["code"].toString();
    }
    return codes;
}

TEST(Package, SamplesOfEveryRepresentationAreThePacketsOfFfprobe)
{
    if (QStandardPaths::findExecutable(QStringLiteral("ffprobe")).isEmpty())
        GTEST_SKIP() << "ffprobe is not installed";
    for (const Package &package : packages()) {
        SCOPED_TRACE(package.folder);
        const QDir folder(Data.filePath(QLatin1String(package.folder)));
        QString expected;
        QStringList files;
        for (const QStringList &representation : package.representations) {
            expected += packetsOfFfprobe(folder, representation);
            files += representation;
        }
        const QJsonObject report =
            reportOf(folder.filePath(QLatin1String(package.manifest)), {"--check"});
        EXPECT_EQ(samplesOf(report).toStdString(), expected.toStdString());
        QStringList listed;
        for (const QJsonValue &file : report.value("files").toArray())
            listed << file["file"].toString();
        EXPECT_EQ(listed, files);
        EXPECT_TRUE(report.value("problems").isArray()) << "checked, so listed even when empty";
        EXPECT_EQ(problemCodes(report), QStringList());
        // Each stream names its representation and has the codecs the manifest declares.
        for (const QJsonValue &stream : report.value("streams").toArray())
            EXPECT_FALSE(stream["representation"].toString().isEmpty());
    }
}

// A damaged copy of the DASH package, made in a temporary folder.
class DamagedPackage {
public:
    DamagedPackage()
    {
        const QDir source(Data.filePath(QStringLiteral("package-dash-timeline")));
        for (const QString &name : source.entryList(QDir::Files))
            QFile::copy(source.filePath(name), folder.filePath(name));
    }
    QString path(const QString &name) const { return folder.filePath(name); }
    QByteArray read(const QString &name) const
    {
        QFile file(path(name));
        return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
    }
    void write(const QString &name, const QByteArray &bytes) const
    {
        QFile file(path(name));
        if (file.open(QIODevice::WriteOnly | QIODevice::Truncate))
            file.write(bytes);
    }
    QStringList codes() const { return problemCodes(reportOf(path("package.mpd"), {"--check"})); }

private:
    QTemporaryDir folder;
};

TEST(Package, DamagedPackagesGiveTheirCodes)
{
    const QString first = QStringLiteral("chunk-stream0-00001.m4s");
    const QString second = QStringLiteral("chunk-stream0-00002.m4s");
    {
        SCOPED_TRACE("a segment deleted");
        DamagedPackage package;
        QFile::remove(package.path(second));
        EXPECT_TRUE(package.codes().contains("segment-missing"));
    }
    {
        SCOPED_TRACE("a segment swapped with the next");
        DamagedPackage package;
        const QByteArray one = package.read(first);
        package.write(first, package.read(second));
        package.write(second, one);
        EXPECT_TRUE(package.codes().contains("timeline-overlap"));
    }
    {
        SCOPED_TRACE("the codecs attribute changed");
        DamagedPackage package;
        package.write("package.mpd", package.read("package.mpd").replace("avc1.", "avc3."));
        EXPECT_TRUE(package.codes().contains("codecs-mismatch"));
    }
    {
        SCOPED_TRACE("a segment's first sample made non-sync");
        DamagedPackage package;
        QByteArray bytes = package.read(second);
        // The trun's flags, then its first sample's flags: in first_sample_flags, else in
        // the first entry behind the count and the data offset.
        const qsizetype trun = bytes.indexOf("trun");
        ASSERT_GT(trun, 0);
        const quint32 flags = qFromBigEndian<quint32>(bytes.constData() + trun + 4) & 0xFFFFFF;
        qsizetype at = trun + 12 + ((flags & 1) ? 4 : 0);
        if (!(flags & 4))
            at += ((flags & 0x100) ? 4 : 0) + ((flags & 0x200) ? 4 : 0);
        ASSERT_TRUE((flags & 4) || (flags & 0x400));
        bytes[at + 1] = char(bytes[at + 1] | 1);
        package.write(second, bytes);
        EXPECT_TRUE(package.codes().contains("segment-not-sap"));
    }
    {
        SCOPED_TRACE("a segment cut in half");
        DamagedPackage package;
        const QByteArray bytes = package.read(second);
        package.write(second, bytes.left(bytes.size() / 2));
        const QStringList codes = package.codes();
        EXPECT_TRUE(codes.contains("sidx-mismatch"));
        EXPECT_TRUE(codes.contains("trun-data-past-mdat"));
    }
    {
        SCOPED_TRACE("a sidx size changed");
        DamagedPackage package;
        QByteArray bytes = package.read(second);
        // The referenced_size of the first reference, behind the fields of version 0 or 1.
        const qsizetype sidx = bytes.indexOf("sidx") - 4;
        ASSERT_GT(sidx, 0);
        const qsizetype at = sidx + (bytes[sidx + 8] ? 40 : 32);
        qToBigEndian(qFromBigEndian<quint32>(bytes.constData() + at) + 8, bytes.data() + at);
        package.write(second, bytes);
        EXPECT_EQ(package.codes(), QStringList{"sidx-mismatch"});
    }
    {
        SCOPED_TRACE("a sequence number repeated");
        DamagedPackage package;
        const QString third = QStringLiteral("chunk-stream0-00003.m4s");
        QByteArray bytes = package.read(third);
        const qsizetype mfhd = bytes.indexOf("mfhd");
        ASSERT_GT(mfhd, 0);
        qToBigEndian(quint32(2), bytes.data() + mfhd + 8);
        package.write(third, bytes);
        EXPECT_EQ(package.codes(), QStringList{"sequence-number-order"});
    }
    {
        SCOPED_TRACE("an initialization segment with the first media segment in it");
        DamagedPackage package;
        const QString init = QStringLiteral("init-stream0.m4s");
        package.write(init, package.read(init) + package.read(first));
        const QStringList codes = package.codes();
        EXPECT_TRUE(codes.contains("init-has-samples"));
        EXPECT_TRUE(codes.contains("timeline-overlap"));
    }
    {
        SCOPED_TRACE("the audio in the video's aligned adaptation set");
        DamagedPackage package;
        QByteArray mpd = package.read("package.mpd");
        const qsizetype end = mpd.indexOf("</AdaptationSet>");
        const qsizetype audio = mpd.indexOf('>', mpd.indexOf("<AdaptationSet", end)) + 1;
        ASSERT_GT(end, 0);
        package.write("package.mpd", mpd.remove(end, audio - end));
        // Video segments begin every 0.4 s, audio ones every 3072 samples of 8000 per second.
        EXPECT_EQ(package.codes(), QStringList{"representations-misaligned"});
    }
    {
        SCOPED_TRACE("two copies of the video in its aligned adaptation set");
        DamagedPackage package;
        QByteArray mpd = package.read("package.mpd");
        const qsizetype begin = mpd.indexOf("<Representation id=\"0\"");
        const qsizetype end = mpd.indexOf("</Representation>", begin) + 17;
        mpd.insert(end, mpd.mid(begin, end - begin).replace("id=\"0\"", "id=\"2\""));
        package.write("package.mpd", mpd);
        for (const char *name : {"init-stream%1.m4s", "chunk-stream%1-00001.m4s",
                                 "chunk-stream%1-00002.m4s", "chunk-stream%1-00003.m4s"})
            package.write(QString::fromLatin1(name).arg(2),
                          package.read(QString::fromLatin1(name).arg(0)));
        EXPECT_EQ(package.codes(), QStringList());
    }
}

// A SegmentBase names its media segments in the sidx of its index range: the manifest's
// element of the representation lists its references, each a byte range of the one file with
// the time and duration of the sidx. The file is FFmpeg's initialization segment and its first
// media segment, whose sidx indexes one moof and its mdat.
// Byte ranges of one file are segments of their own: a nominal duration of half theirs is
// found wrong for each range but the last, named by its bytes.
TEST(Package, ByteRangesOfOneFileAreSegmentsOfTheirOwn)
{
    QTemporaryDir folder;
    const QDir source(Data.filePath(QStringLiteral("package-dash-single")));
    for (const QString &name : source.entryList(QDir::Files))
        QFile::copy(source.filePath(name), folder.filePath(name));
    QFile manifest(folder.filePath(QStringLiteral("package.mpd")));
    ASSERT_TRUE(manifest.open(QIODevice::ReadOnly));
    const QByteArray text = manifest.readAll();
    manifest.close();
    ASSERT_TRUE(text.contains("duration=\"400000\""));
    ASSERT_TRUE(manifest.open(QIODevice::WriteOnly | QIODevice::Truncate));
    manifest.write(QByteArray(text).replace("duration=\"400000\"", "duration=\"200000\""));
    manifest.close();
    QStringList found;
    for (const QJsonValue &problem :
         reportOf(manifest.fileName(), {"--check"}).value("problems").toArray())
        found << problem["code"].toString() + ' ' + problem["path"].toString().section('/', -1);
    EXPECT_EQ(found,
              QStringList({"segment-duration-mismatch package-stream0.mp4 bytes 770-1211",
                           "segment-duration-mismatch package-stream0.mp4 bytes 1212-1614",
                           "segment-duration-mismatch package-stream1.mp4 bytes 728-1573",
                           "segment-duration-mismatch package-stream1.mp4 bytes 1574-2046"}));
}

TEST(Package, SegmentBaseNamesTheReferencesOfItsSidx)
{
    QTemporaryDir folder;
    const QDir source(Data.filePath(QStringLiteral("package-dash-timeline")));
    QByteArray whole;
    for (const char *name : {"init-stream0.m4s", "chunk-stream0-00001.m4s"}) {
        QFile part(source.filePath(QLatin1String(name)));
        ASSERT_TRUE(part.open(QIODevice::ReadOnly));
        whole += part.readAll();
    }
    const qsizetype init = QFileInfo(source.filePath("init-stream0.m4s")).size();
    const qsizetype sidx = whole.indexOf("sidx", init) - 4;
    const quint32 sidxSize = qFromBigEndian<quint32>(whole.constData() + sidx);
    QFile file(folder.filePath("video.mp4"));
    ASSERT_TRUE(file.open(QIODevice::WriteOnly));
    file.write(whole);
    file.close();
    const auto manifest = [&](qsizetype indexStart) {
        QFile mpd(folder.filePath("base.mpd"));
        EXPECT_TRUE(mpd.open(QIODevice::WriteOnly | QIODevice::Truncate));
        mpd.write(QStringLiteral("<MPD><Period><AdaptationSet><Representation id=\"v\" "
                                 "codecs=\"avc1.4d400a\"><BaseURL>video.mp4</BaseURL>"
                                 "<SegmentBase indexRange=\"%1-%2\"><Initialization "
                                 "range=\"0-%3\"/></SegmentBase></Representation>"
                                 "</AdaptationSet></Period></MPD>")
                      .arg(indexStart)
                      .arg(indexStart + sidxSize - 1)
                      .arg(init - 1)
                      .toUtf8());
        mpd.close();
        return reportOf(mpd.fileName(), {"--check"});
    };
    const QJsonObject report = manifest(sidx);
    EXPECT_EQ(problemCodes(report), QStringList());
    // The fields of the representation's element and of each of its segments, by name.
    QString timescale;
    QStringList segments;
    for (const QJsonValue &child : report["elements"][0]["children"][0]["children"].toArray()) {
        if (child["name"] == "timescale")
            timescale = child["value"].toString();
        if (child["name"] != "segment")
            continue;
        QMap<QString, QString> fields;
        for (const QJsonValue &field : child["children"].toArray())
            fields[field["name"].toString()] = field["value"].toString();
        segments << fields.values().join(' ');
    }
    // One reference of the moof and mdat behind the sidx, 0.4 s in units of 10240.
    const qsizetype moof = whole.indexOf("moof", sidx) - 4;
    EXPECT_EQ(
        segments,
        QStringList{QStringLiteral("4096 %1 %2 0 video.mp4").arg(whole.size() - moof).arg(moof)});
    EXPECT_EQ(timescale, "10240");
    EXPECT_EQ(report["streams"][0]["samples"].toArray().size(), 4);
    EXPECT_EQ(report["files"].toArray().size(), 1);

    // An index range that misses the sidx.
    EXPECT_EQ(problemCodes(manifest(sidx + 4)), QStringList{"index-invalid"});
}

// Hostile manifests end in bounded time and memory with a clear problem, and never read a
// file outside the manifest's folder.
TEST(Package, HostileManifestsAreBounded)
{
    QTemporaryDir folder;
    const auto write = [&folder](const QString &name, const QByteArray &bytes) {
        QFile file(folder.filePath(name));
        EXPECT_TRUE(file.open(QIODevice::WriteOnly));
        file.write(bytes);
        return file.fileName();
    };
    const QByteArray period = "<MPD mediaPresentationDuration=\"PT1000000000S\"><Period>"
                              "<AdaptationSet><Representation id=\"a\">";
    const QByteArray end = "</Representation></AdaptationSet></Period></MPD>";
    const struct {
        const char *name;
        QByteArray manifest;
        const char *code;
    } cases[] = {
        {"billion.mpd", period + "<SegmentTemplate duration=\"1\" media=\"$Number$.m4s\"/>" + end,
         "manifest-too-many-segments"},
        {"endless.mpd",
         "<MPD><Period><AdaptationSet><Representation id=\"a\"><SegmentTemplate media=\"$Time$\">"
         "<SegmentTimeline><S t=\"0\" d=\"1\" r=\"-1\"/></SegmentTimeline></SegmentTemplate>" +
             end,
         "manifest-unbounded"},
        {"outside.mpd",
         "<MPD><Period><AdaptationSet><Representation id=\"a\"><SegmentList>"
         "<Initialization sourceURL=\"../secret.mp4\"/><SegmentURL media=\"/etc/passwd\"/>"
         "</SegmentList>" +
             end,
         "segment-outside"},
        {"self.m3u8", "#EXTM3U\n#EXT-X-STREAM-INF:BANDWIDTH=1\nself.m3u8\n", "manifest-loop"},
        {"remote.m3u8", "#EXTM3U\n#EXTINF:1,\nhttp://127.0.0.1:1/a.m4s\n", "segment-not-local"},
        {"attribute.mpd",
         "<MPD><Period><AdaptationSet><Representation id=\"" + QByteArray(3000000, 'a') + "\">" +
             end,
         "manifest-too-large"},
    };
    for (const auto &test : cases) {
        SCOPED_TRACE(test.name);
        const QString path = write(QLatin1String(test.name), test.manifest);
        // The command's processor time: the machines of the tests are shared.
        const double before = childSeconds();
        const QJsonObject report = reportOf(path);
        EXPECT_LT(childSeconds() - before, 2.0 * TimeScale);
        EXPECT_TRUE(problemCodes(report).contains(QLatin1String(test.code)))
            << problemCodes(report).join(' ').toStdString();
        EXPECT_TRUE(report.value("files").toArray().isEmpty());
    }
    // A manifest of 100 MB is not read at all.
    QFile huge(folder.filePath("huge.mpd"));
    ASSERT_TRUE(huge.open(QIODevice::WriteOnly) && huge.resize(100 * 1024 * 1024));
    huge.close();
    EXPECT_TRUE(runTool({"--deep", "--format=json", "huge.mpd"}, folder.path()).contains("error"));
}

// The identifiers of a segment template, with widths, and a timeline's repeats.
TEST(Package, TemplatesAndTimelinesNameTheirSegments)
{
    const Manifest::Package package = Manifest::readMpd(
        "<MPD><BaseURL>media/</BaseURL><Period duration=\"PT4S\"><AdaptationSet "
        "segmentAlignment=\"true\" startWithSAP=\"1\"><SegmentTemplate timescale=\"10\" "
        "media=\"$RepresentationID$/$Bandwidth%06d$-$Time$-$Number%03d$$$.m4s\" "
        "initialization=\"$RepresentationID$/init.mp4\" startNumber=\"7\"><SegmentTimeline>"
        "<S t=\"5\" d=\"10\" r=\"1\"/><S d=\"20\"/></SegmentTimeline></SegmentTemplate>"
        "<Representation id=\"v\" bandwidth=\"800\" codecs=\"avc1.4d400a\"/>"
        "</AdaptationSet></Period></MPD>");
    ASSERT_EQ(package.representations.size(), 1u);
    const Manifest::Representation &v = package.representations[0];
    EXPECT_TRUE(package.problems.empty());
    EXPECT_EQ(v.initialization->uri, "media/v/init.mp4");
    QStringList uris;
    for (const Manifest::Segment &segment : v.segments)
        uris << segment.uri + '@' + QString::number(*segment.time);
    EXPECT_EQ(uris.join(' '), "media/v/000800-5-007$.m4s@5 media/v/000800-15-008$.m4s@15 "
                              "media/v/000800-25-009$.m4s@25");
    EXPECT_TRUE(v.startsWithSap);
    EXPECT_TRUE(v.segmentAlignment);
    EXPECT_EQ(v.codecs, "avc1.4d400a");

    const Manifest::Package hls = Manifest::readPlaylist(
        "#EXTM3U\n#EXT-X-MAP:URI=\"all.mp4\",BYTERANGE=\"100@0\"\n#EXTINF:2.5,\n"
        "#EXT-X-BYTERANGE:300@100\nall.mp4\n#EXTINF:2,\n#EXT-X-BYTERANGE:200\nall.mp4\n",
        "media.m3u8");
    ASSERT_EQ(hls.representations.size(), 1u);
    const Manifest::Representation &media = hls.representations[0];
    EXPECT_EQ(*media.initialization->rangeStart, 0u);
    ASSERT_EQ(media.segments.size(), 2u);
    EXPECT_EQ(*media.segments[1].rangeStart, 400u);
    EXPECT_EQ(media.segments[1].rangeLength, 200u);
    EXPECT_EQ(*media.segments[1].time, 2500000u);
}

} // namespace

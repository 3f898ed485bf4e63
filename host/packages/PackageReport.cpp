#include "PackageReport.h"

#include "CommandLine.h"
#include "Host.h"
#include "Manifest.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QtEndian>

#include <algorithm>
#include <cmath>

#include <map>
#include <memory>
#include <optional>

namespace {

// Problems a package keeps for the end of its report: beyond these only their count.
constexpr size_t MaxProblems = 1000;

// The problems of a package, held until every stream is written.
struct Problems {
    std::vector<Problem> list;
    ProblemCounts counts;

    void add(const char *code, Severity severity, const QString &path, const QString &message)
    {
        ++(severity == Severity::Error     ? counts.errors
           : severity == Severity::Warning ? counts.warnings
                                           : counts.infos);
        if (list.size() < MaxProblems)
            list.push_back({QString::fromLatin1(code), severity, 0, 0, path, message});
    }
};

// A file of a representation: where it lies on disk, and the media segments of the manifest
// it holds, in order: one, or several in byte ranges of the file.
struct SegmentFile {
    QString path;
    std::vector<size_t> media;
    bool initialization = false;
    bool holdsMedia = false; // an initialization segment whose file holds media segments too
};

// The first sample of a media segment file: its decoding time in units of a time scale.
struct SegmentStart {
    qint64 dts = 0;
    quint32 timescale = 0;
};

// Whether two times in units of their own time scales are the same number of seconds.
bool sameTime(const SegmentStart &a, const SegmentStart &b)
{
    if (a.timescale == 0 || b.timescale == 0)
        return a.dts == b.dts;
    // Whole seconds and what is left, each below its time scale, so that the products of the
    // rests fit in 64 bits.
    const auto split = [](const SegmentStart &time) {
        qint64 seconds = time.dts / qint64(time.timescale);
        qint64 rest = time.dts % qint64(time.timescale);
        if (rest < 0) {
            --seconds;
            rest += time.timescale;
        }
        return std::pair{seconds, quint64(rest)};
    };
    const auto [secondsA, restA] = split(a);
    const auto [secondsB, restB] = split(b);
    return secondsA == secondsB && restA * b.timescale == restB * a.timescale;
}

QString secondsText(const SegmentStart &time)
{
    return time.timescale ? QString::number(double(time.dts) / time.timescale, 'g', 12)
                          : QString::number(time.dts);
}

// Whether codecs strings name the same thing: equal but for case, or one the other with
// parameters left out behind a dot.
bool sameCodecs(const QString &declared, const QString &built)
{
    const QString a = declared.trimmed().toLower();
    const QString b = built.toLower();
    return a == b || (b.startsWith(a) && b[a.size()] == '.') ||
           (a.startsWith(b) && a[b.size()] == '.');
}

// Passes the streams of one representation's joined run on to the writer of the package: its
// streams numbered behind those before, its samples naming the files in the package's list,
// its facts naming the representation; the run's own report frame, elements and files are the
// package's business and stay here. Checks the segments as the samples pass.
class RepresentationSink : public ReportSink {
public:
    RepresentationSink(ReportSink &next, const Manifest::Representation &representation,
                       const std::vector<SegmentFile> &files, int streamBase, int fileBase,
                       bool checks, Problems &problems, std::vector<SegmentStart> &starts)
        : next(next)
        , representation(representation)
        , files(files)
        , streamBase(streamBase)
        , fileBase(fileBase)
        , checks(checks)
        , problems(problems)
        , starts(starts)
    {
    }

    int streamCount = 0;

    void beginReport(const QString &, quint64) override {}
    void endReport() override {}
    void beginElement(quint64, quint64, const QString &, qint64) override {}
    void setElementOffset(quint64) override {}
    void setElementSize(quint64) override {}
    void setElementNote(const QString &) override {}
    void setElementValue(const QString &) override {}
    void endElement() override {}
    void addField(bool, quint64, quint8, quint64, const QString &, const QString &, const QString &,
                  const QString &, qint64) override
    {
    }
    void addRawField(quint64, quint64, const quint8 *, const QString &, const QString &) override {}

    void beginStream(int index, const StreamInfo &info) override
    {
        StreamInfo named = info;
        if (named.track)
            named.track->representation = representation.id;
        stream = Stream();
        stream.index = index;
        stream.timescale = info.track ? info.track->timescale : 0;
        stream.codecs = info.track ? info.track->codecs : QString();
        streamCount = qMax(streamCount, index + 1);
        next.beginStream(streamBase + index, named);
    }
    void addSample(quint64 sampleIndex, const Sample &sample) override
    {
        next.addSample(sampleIndex, sample);
    }
    void addTrackSample(quint64 sampleIndex, const TrackSample &sample) override
    {
        if (checks)
            checkSample(sample);
        TrackSample numbered = sample;
        if (numbered.file >= 0)
            numbered.file += fileBase;
        next.addTrackSample(sampleIndex, numbered);
    }
    void endStream() override
    {
        if (checks) {
            endSegment();
            checkCodecs();
        }
        next.endStream();
    }
    void addProblem(const Problem &problem) override
    {
        ++(problem.severity == Severity::Error     ? problems.counts.errors
           : problem.severity == Severity::Warning ? problems.counts.warnings
                                                   : problems.counts.infos);
        if (problems.list.size() < MaxProblems)
            problems.list.push_back(problem);
    }

private:
    struct Stream {
        int index = 0;
        quint32 timescale = 0;
        QString codecs;
        int file = -1;                 // of the segment being passed
        std::optional<size_t> segment; // of the manifest, that the samples being passed lie in
        qint64 nextDts = 0;            // the end of the samples so far
        quint64 segmentDuration = 0;
        quint32 longestSample = 0;
    };

    // A file, and the byte range of its media segment where the manifest gives one.
    QString where(int file, std::optional<size_t> segment = std::nullopt) const
    {
        QString place = QStringLiteral("%1: %2").arg(representation.id, files[size_t(file)].path);
        if (segment && representation.segments[*segment].rangeStart) {
            const Manifest::Segment &range = representation.segments[*segment];
            place += QStringLiteral(" bytes %1-%2")
                         .arg(*range.rangeStart)
                         .arg(*range.rangeStart + range.rangeLength - 1);
        }
        return place;
    }

    // Each segment file begins where the one before ended, with a sync sample where the
    // manifest promises one, and lasts as long as the manifest declares.
    void checkSample(const TrackSample &sample)
    {
        if (sample.file < 0 || size_t(sample.file) >= files.size())
            return;
        const SegmentFile &file = files[size_t(sample.file)];
        const std::optional<size_t> segment = segmentOf(file, sample.offset);
        if (sample.file != stream.file || segment != stream.segment) {
            if (stream.file >= 0) {
                endSegment();
                if (sample.dts > stream.nextDts)
                    problems.add("timeline-gap", Severity::Error, where(sample.file, segment),
                                 QStringLiteral("the segment's first sample decodes at %1, after "
                                                "the samples before it end at %2")
                                     .arg(sample.dts)
                                     .arg(stream.nextDts));
                else if (sample.dts < stream.nextDts)
                    problems.add("timeline-overlap", Severity::Error, where(sample.file, segment),
                                 QStringLiteral("the segment's first sample decodes at %1, before "
                                                "the samples before it end at %2")
                                     .arg(sample.dts)
                                     .arg(stream.nextDts));
            }
            if (representation.startsWithSap && !sample.keyFrame && segment)
                problems.add("segment-not-sap", Severity::Error, where(sample.file, segment),
                             QStringLiteral("the segment's first sample is not a sync sample"));
            if (file.initialization && !file.holdsMedia && !initReported) {
                initReported = true;
                problems.add("init-has-samples", Severity::Warning, where(sample.file, segment),
                             QStringLiteral("the initialization segment holds samples"));
            }
            // Segment boundaries of the first stream, to be aligned with other representations.
            if (stream.index == 0 && segment)
                starts.push_back({sample.dts, stream.timescale});
            stream.file = sample.file;
            stream.segment = segment;
            stream.segmentDuration = 0;
        }
        stream.nextDts = sample.dts + sample.duration;
        stream.segmentDuration += sample.duration;
        stream.longestSample = qMax(stream.longestSample, sample.duration);
    }

    // The media segment of the manifest a sample lies in: its file's one, or where the file
    // holds several, the one whose byte range holds the sample; none in an initialization
    // segment.
    std::optional<size_t> segmentOf(const SegmentFile &file, quint64 offset) const
    {
        if (file.media.empty())
            return std::nullopt;
        if (file.media.size() == 1 && !file.initialization)
            return file.media.front();
        const auto start = [&](size_t k) {
            return representation.segments[k].rangeStart.value_or(0);
        };
        const auto after = std::upper_bound(file.media.begin(), file.media.end(), offset,
                                            [&](quint64 at, size_t k) { return at < start(k); });
        if (after == file.media.begin())
            return std::nullopt;
        const size_t k = *std::prev(after);
        const Manifest::Segment &segment = representation.segments[k];
        if (segment.rangeStart && offset - start(k) >= segment.rangeLength)
            return std::nullopt;
        return k;
    }

    // The samples of a media segment against the duration the manifest declares for it. A
    // segment of several tracks is cut on its first, whose samples are checked; the others
    // may end a frame or two to either side (audio frames and the priming of encoders).
    void endSegment()
    {
        if (!stream.segment || stream.timescale == 0 || stream.index != 0)
            return;
        const size_t k = *stream.segment;
        const Manifest::Segment &segment = representation.segments[k];
        // The last segment may end short of its declared duration.
        if (!segment.duration || k + 1 == representation.segments.size())
            return;
        const double declared =
            double(*segment.duration) / double(representation.timescale) * stream.timescale;
        const double actual = double(stream.segmentDuration);
        const double tolerance =
            qMax(double(stream.longestSample), segment.nominal ? declared / 2 : 0.0);
        if (std::abs(declared - actual) > tolerance)
            problems.add("segment-duration-mismatch", Severity::Warning,
                         where(stream.file, stream.segment),
                         QStringLiteral("the segment's samples last %1 time units of %2 per "
                                        "second; the manifest declares %3")
                             .arg(stream.segmentDuration)
                             .arg(stream.timescale)
                             .arg(qint64(declared)));
    }

    void checkCodecs()
    {
        if (representation.codecs.isEmpty() || stream.codecs.isEmpty())
            return;
        for (const QString &declared : representation.codecs.split(',')) {
            if (sameCodecs(declared, stream.codecs))
                return;
        }
        problems.add("codecs-mismatch", Severity::Error, representation.id,
                     QStringLiteral("the manifest declares codecs \"%1\"; the sample entry is %2")
                         .arg(representation.codecs, stream.codecs));
    }

    ReportSink &next;
    const Manifest::Representation &representation;
    const std::vector<SegmentFile> &files;
    int streamBase;
    int fileBase;
    bool checks;
    Problems &problems;
    std::vector<SegmentStart> &starts;
    Stream stream;
    bool initReported = false;
};

// In an adaptation set that promises segment alignment, the media segments of each
// representation begin at the times of the first representation's.
void checkAlignment(const std::vector<Manifest::Representation> &representations,
                    const std::vector<std::vector<SegmentStart>> &starts, Problems &problems)
{
    std::map<std::pair<QString, QString>, size_t> firstOfSet;
    for (size_t i = 0; i < representations.size(); ++i) {
        const Manifest::Representation &representation = representations[i];
        if (!representation.segmentAlignment)
            continue;
        const auto [first, isFirst] =
            firstOfSet.insert({{representation.period, representation.adaptationSet}, i});
        if (isFirst)
            continue;
        const Manifest::Representation &other = representations[first->second];
        const std::vector<SegmentStart> &mine = starts[i];
        const std::vector<SegmentStart> &theirs = starts[first->second];
        if (mine.size() != theirs.size()) {
            problems.add("representations-misaligned", Severity::Warning, representation.id,
                         QStringLiteral("the representation has %1 media segments, where "
                                        "representation %2 of its aligned adaptation set has %3")
                             .arg(mine.size())
                             .arg(other.id)
                             .arg(theirs.size()));
            continue;
        }
        for (size_t k = 0; k < mine.size(); ++k) {
            if (sameTime(mine[k], theirs[k]))
                continue;
            problems.add("representations-misaligned", Severity::Warning, representation.id,
                         QStringLiteral("media segment %1 of the representation begins at %2 s, "
                                        "where that of representation %3 of its aligned "
                                        "adaptation set begins at %4 s")
                             .arg(k)
                             .arg(secondsText(mine[k]), other.id, secondsText(theirs[k])));
            break;
        }
    }
}

// Reads a manifest or playlist of at most the longest a manifest may be.
bool readManifestFile(const QString &path, QByteArray *bytes, QString *problem)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly)) {
        *problem = file.errorString();
        return false;
    }
    if (file.size() > Manifest::MaxManifestBytes) {
        *problem = QStringLiteral("%1 bytes; a manifest of more than %2 bytes is not read")
                       .arg(file.size())
                       .arg(Manifest::MaxManifestBytes);
        return false;
    }
    *bytes = file.readAll();
    return true;
}

// Where the manifest's folder puts a URI of it: a path on disk, or empty, with a problem,
// for a URL, an absolute path or one leaving the folder (through ".." or a link).
QString resolve(const QDir &folder, const QString &uri, bool allowOutside, Problems &problems)
{
    if (uri.contains(QLatin1String("://")) || uri.startsWith(QLatin1String("data:"))) {
        problems.add("segment-not-local", Severity::Error, uri,
                     QStringLiteral("the manifest names a URL; nothing is fetched"));
        return QString();
    }
    const QString path = QDir::cleanPath(folder.filePath(uri));
    if (!allowOutside) {
        const QString canonical = QFileInfo(path).canonicalFilePath();
        const bool outside =
            QDir::isAbsolutePath(uri) || !path.startsWith(folder.absolutePath() + '/') ||
            (!canonical.isEmpty() && !canonical.startsWith(folder.canonicalPath() + '/'));
        if (outside) {
            problems.add("segment-outside", Severity::Error, uri,
                         QStringLiteral("the path leaves the manifest's folder; it is read only "
                                        "with --allow-outside"));
            return QString();
        }
    }
    return path;
}

// The references of a sidx as the media segments of a SegmentBase: each its byte range of the
// file, from the end of the sidx plus its first_offset on, and its time and duration in the
// units of the sidx, which become the representation's. A range that holds no whole sidx is
// a problem; so are references past the segments the manifests may name in all.
void readSegmentIndex(const QString &path, Manifest::Representation &representation,
                      quint64 &segmentTotal, Problems &problems)
{
    const Manifest::Segment &index = *representation.index;
    // A sidx of the most references a reference_count can give, and its header.
    constexpr quint64 MaxIndexBytes = 48 + 12 * 0xFFFF;
    const auto invalid = [&](const QString &why) {
        problems.add("index-invalid", Severity::Error,
                     QStringLiteral("%1: %2").arg(representation.id, index.uri),
                     QStringLiteral("the index range %1-%2 %3")
                         .arg(*index.rangeStart)
                         .arg(*index.rangeStart + index.rangeLength - 1)
                         .arg(why));
    };
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly) || !file.seek(qint64(*index.rangeStart))) {
        invalid(QStringLiteral("lies outside the file"));
        return;
    }
    const QByteArray bytes = file.read(qint64(qMin(index.rangeLength, MaxIndexBytes)));
    const auto *data = reinterpret_cast<const uchar *>(bytes.constData());
    const auto size = quint64(bytes.size());
    if (size < 12 || bytes.mid(4, 4) != "sidx") {
        invalid(QStringLiteral("does not begin with a sidx box"));
        return;
    }
    const bool wide = data[8] != 0;
    const quint64 boxSize = qFromBigEndian<quint32>(data);
    const quint64 header = wide ? 40 : 32; // up to reference_count
    if (boxSize < header || boxSize > size) {
        invalid(QStringLiteral("does not hold the whole sidx box"));
        return;
    }
    const quint32 timescale = qFromBigEndian<quint32>(data + 16);
    quint64 time = wide ? qFromBigEndian<quint64>(data + 20) : qFromBigEndian<quint32>(data + 20);
    const quint64 firstOffset =
        wide ? qFromBigEndian<quint64>(data + 28) : qFromBigEndian<quint32>(data + 24);
    const quint16 count = qFromBigEndian<quint16>(data + header - 2);
    if (header + 12 * quint64(count) > boxSize) {
        invalid(
            QStringLiteral("holds a sidx of %1 references that its size cannot hold").arg(count));
        return;
    }
    if (timescale == 0) {
        invalid(QStringLiteral("holds a sidx of time scale 0"));
        return;
    }
    representation.timescale = timescale;
    quint64 offset = *index.rangeStart + boxSize + firstOffset;
    for (quint16 i = 0; i < count; ++i) {
        if (segmentTotal >= Manifest::MaxSegments) {
            problems.add("manifest-too-many-segments", Severity::Error, representation.id,
                         QStringLiteral("the manifests name more than %1 segments; those behind "
                                        "are not read")
                             .arg(Manifest::MaxSegments));
            return;
        }
        ++segmentTotal;
        const uchar *reference = data + header + 12 * quint64(i);
        Manifest::Segment segment;
        segment.uri = index.uri;
        segment.rangeStart = offset;
        segment.rangeLength = qFromBigEndian<quint32>(reference) & 0x7FFFFFFF;
        segment.time = time;
        segment.duration = qFromBigEndian<quint32>(reference + 4);
        representation.segments.push_back(segment);
        offset += segment.rangeLength;
        time += *segment.duration;
    }
}

// The manifest's declarations as elements, for the tree of the report.
void writeManifestTree(ReportSink &sink, const QString &name, quint64 size,
                       const std::vector<Manifest::Representation> &representations)
{
    const auto field = [&sink](const char *key, const QString &value) {
        sink.addField(false, 0, 0, 0, QString::fromLatin1(key), value, QString(), QString(), -1);
    };
    const auto segment = [&](const char *kind, const Manifest::Segment &declared, qint64 index) {
        sink.beginElement(0, 0, QString::fromLatin1(kind), index);
        field("uri", declared.uri);
        if (declared.rangeStart) {
            field("range_start", QString::number(*declared.rangeStart));
            field("range_length", QString::number(declared.rangeLength));
        }
        if (declared.time)
            field("time", QString::number(*declared.time));
        if (declared.duration)
            field("duration", QString::number(*declared.duration));
        sink.endElement();
    };
    sink.beginElement(0, size, name, -1);
    for (size_t i = 0; i < representations.size(); ++i) {
        const Manifest::Representation &representation = representations[i];
        sink.beginElement(0, 0, QStringLiteral("representation"), qint64(i));
        field("id", representation.id);
        if (!representation.period.isEmpty()) {
            field("period", representation.period);
            field("adaptation_set", representation.adaptationSet);
        }
        field("codecs", representation.codecs);
        field("bandwidth", QString::number(representation.bandwidth));
        field("timescale", QString::number(representation.timescale));
        if (representation.initialization)
            segment("initialization", *representation.initialization, -1);
        if (representation.index)
            segment("index", *representation.index, -1);
        for (size_t k = 0; k < representation.segments.size(); ++k)
            segment("segment", representation.segments[k], qint64(k));
        sink.endElement();
    }
    sink.endElement();
}

} // namespace

int reportManifest(const QString &fileName, const std::vector<PluginLoader::Plugin> &plugins,
                   const Options &options, ReportWriter &writer, FILE *err, bool *errors)
{
    QString problem;
    QByteArray bytes;
    if (!readManifestFile(fileName, &bytes, &problem)) {
        std::fprintf(err, "sarvelinth: %s: %s\n", fileName.toUtf8().constData(),
                     problem.toUtf8().constData());
        writer.reportError(fileName, problem);
        return ExitFileFailed;
    }
    const QDir folder = QFileInfo(fileName).absoluteDir();
    const bool dash = QFileInfo(fileName).suffix().toLower() == QLatin1String("mpd");
    Manifest::Package package = dash
                                    ? Manifest::readMpd(bytes)
                                    : Manifest::readPlaylist(bytes, QFileInfo(fileName).fileName());
    Problems problems;
    // The media playlists of a multivariant playlist, each read once, none of them further.
    for (const auto &[uri, variant] : package.playlists) {
        const QString path = resolve(folder, uri, options.allowOutside, problems);
        QByteArray media;
        if (path.isEmpty() || QFileInfo(path) == QFileInfo(fileName))
            continue;
        if (!readManifestFile(path, &media, &problem)) {
            problems.add("segment-missing", Severity::Error, uri, problem);
            continue;
        }
        Manifest::Package inner = Manifest::readPlaylist(media, uri);
        for (Manifest::Representation &representation : inner.representations) {
            representation.id = variant.id;
            representation.codecs = variant.codecs;
            representation.bandwidth = variant.bandwidth;
            // Its segments are relative to its own folder.
            const QString base = uri.left(uri.lastIndexOf('/') + 1);
            if (representation.initialization)
                representation.initialization->uri.prepend(base);
            for (Manifest::Segment &segment : representation.segments)
                segment.uri.prepend(base);
            package.representations.push_back(std::move(representation));
        }
        for (const Manifest::Problem &found : inner.problems)
            problems.add(found.code.toLatin1().constData(), Severity::Error, uri, found.message);
    }
    for (const Manifest::Problem &found : package.problems)
        problems.add(found.code.toLatin1().constData(), Severity::Error, fileName, found.message);

    // A SegmentBase names its media segments in the sidx its index range holds.
    quint64 segmentTotal = 0;
    for (const Manifest::Representation &representation : package.representations)
        segmentTotal += representation.segments.size();
    for (Manifest::Representation &representation : package.representations) {
        if (!representation.index || !representation.segments.empty())
            continue;
        const QString path =
            resolve(folder, representation.index->uri, options.allowOutside, problems);
        if (!path.isEmpty() && QFileInfo(path).isFile())
            readSegmentIndex(path, representation, segmentTotal, problems);
    }

    // The files of each representation in order; a file that holds several segments in byte
    // ranges is read once.
    std::vector<std::vector<SegmentFile>> files(package.representations.size());
    for (size_t i = 0; i < package.representations.size(); ++i) {
        const Manifest::Representation &representation = package.representations[i];
        const auto add = [&](const Manifest::Segment &segment, size_t index, bool init) {
            const QString path = resolve(folder, segment.uri, options.allowOutside, problems);
            if (!path.isEmpty() && !files[i].empty() && files[i].back().path == path) {
                files[i].back().holdsMedia = files[i].back().holdsMedia || !init;
                if (!init)
                    files[i].back().media.push_back(index);
                return;
            }
            if (path.isEmpty())
                return;
            if (!QFileInfo(path).isFile()) {
                problems.add("segment-missing", Severity::Error, segment.uri,
                             QStringLiteral("the segment named by representation %1 is not on "
                                            "disk")
                                 .arg(representation.id));
                return;
            }
            // The one file of a SegmentBase holds the media its index names.
            files[i].push_back({path, init ? std::vector<size_t>() : std::vector<size_t>{index},
                                init, init && representation.index.has_value()});
        };
        if (representation.initialization)
            add(*representation.initialization, 0, true);
        for (size_t k = 0; k < representation.segments.size(); ++k)
            add(representation.segments[k], k, false);
    }

    writer.setContainerName(dash ? QStringLiteral("DASH") : QStringLiteral("HLS"));
    writer.beginReport(fileName, quint64(bytes.size()));
    writeManifestTree(writer, QFileInfo(fileName).fileName(), quint64(bytes.size()),
                      package.representations);
    for (const std::vector<SegmentFile> &representationFiles : files) {
        for (const SegmentFile &file : representationFiles)
            writer.addJoinedFile(QDir(folder).relativeFilePath(file.path),
                                 quint64(QFileInfo(file.path).size()));
    }
    std::vector<std::vector<SegmentStart>> starts(package.representations.size());
    int streamBase = 0;
    int fileBase = 0;
    ContainerAbstract::Settings settings = options.settings;
    settings.deepAnalysis = true;
    for (size_t i = 0; i < package.representations.size(); ++i) {
        QStringList paths;
        for (const SegmentFile &file : files[i])
            paths << file.path;
        RepresentationSink sink(writer, package.representations[i], files[i], streamBase, fileBase,
                                settings.checkProblems, problems, starts[i]);
        for (size_t k = 0; k < plugins.size() && !paths.isEmpty(); ++k) {
            std::unique_ptr<ContainerAbstract> parser(plugins[k].createParser());
            if (!parser)
                continue;
            parser->configure(settings);
            if (parser->parseJoined(paths, sink, &problem) != ContainerAbstract::RunNotThisFormat)
                break;
        }
        streamBase += sink.streamCount;
        fileBase += int(files[i].size());
    }
    if (settings.checkProblems)
        checkAlignment(package.representations, starts, problems);
    for (const Problem &found : problems.list)
        writer.addProblem(found);
    if (settings.checkProblems)
        writer.endProblems();
    writer.endReport();
    *errors = *errors || problems.counts.errors > 0;
    return ExitOk;
}

#include "Manifest.h"

#include <QFileInfo>
#include <QRegularExpression>
#include <QXmlStreamReader>

#include <cmath>
#include <limits>

namespace Manifest {

bool isManifestName(const QString &fileName)
{
    const QString suffix = QFileInfo(fileName).suffix().toLower();
    return suffix == QLatin1String("mpd") || suffix == QLatin1String("m3u8");
}

namespace {

// Attributes longer than this are refused: an MPD's longest, a template or a URL, is short.
constexpr int MaxAttributeLength = 4096;

// Seconds of an xs:duration such as "PT1H2M3.5S"; absent when it is not one.
std::optional<double> seconds(const QString &text)
{
    static const QRegularExpression pattern(
        QStringLiteral("^P(?:(\\d+)D)?(?:T(?:(\\d+)H)?(?:(\\d+)M)?(?:(\\d+(?:\\.\\d*)?)S)?)?$"));
    const QRegularExpressionMatch match = pattern.match(text.trimmed());
    if (!match.hasMatch() || text.trimmed().size() < 2)
        return std::nullopt;
    return match.captured(1).toDouble() * 86400 + match.captured(2).toDouble() * 3600 +
           match.captured(3).toDouble() * 60 + match.captured(4).toDouble();
}

std::optional<quint64> number(const QString &text)
{
    bool ok = false;
    const quint64 value = text.toULongLong(&ok);
    return ok ? std::optional<quint64>(value) : std::nullopt;
}

// "start-end" of a byte range, both included.
bool byteRange(const QString &text, Segment &segment)
{
    const qsizetype dash = text.indexOf(QLatin1Char('-'));
    const std::optional<quint64> first = number(text.left(dash));
    const std::optional<quint64> last = number(text.mid(dash + 1));
    if (dash < 0 || !first || !last || *last < *first)
        return false;
    segment.rangeStart = *first;
    segment.rangeLength = *last - *first + 1;
    return true;
}

// The attributes of a SegmentTemplate, SegmentList or SegmentBase, each inherited from the
// level above unless the level sets it.
struct Addressing {
    QString kind; // "template", "list" or "base"; empty where no level has one
    QString media;
    QString initialization;
    QString initializationRange;
    QString indexRange;
    quint64 timescale = 1;
    std::optional<quint64> duration;
    quint64 startNumber = 1;
    // SegmentTimeline: t, d and r of each S.
    struct Entry {
        std::optional<quint64> t;
        quint64 d = 0;
        qint64 r = 0;
    };
    std::vector<Entry> timeline;
    bool hasTimeline = false;
    // SegmentList: the media and range of each SegmentURL.
    std::vector<std::pair<QString, QString>> urls;
};

// The levels of the MPD from Period down to Representation, with what each inherits.
struct Level {
    QString baseUrl;
    Addressing addressing;
    QString codecs;
    bool startsWithSap = false;
    bool segmentAlignment = false;
};

class MpdReader {
public:
    explicit MpdReader(const QByteArray &bytes)
        : xml(bytes)
    {
        package.kind = QStringLiteral("dash");
    }

    Package read()
    {
        while (!xml.atEnd() && !stopped) {
            xml.readNext();
            if (xml.isStartElement())
                start();
            else if (xml.isEndElement())
                end();
        }
        if (xml.hasError() && !stopped)
            problem("manifest-invalid", QStringLiteral("the MPD is not well-formed XML at line "
                                                       "%1: %2")
                                            .arg(xml.lineNumber())
                                            .arg(xml.errorString()));
        return std::move(package);
    }

private:
    void problem(const char *code, const QString &message)
    {
        package.problems.push_back({QString::fromLatin1(code), message});
    }

    QString attribute(const char *name)
    {
        const QString value = xml.attributes().value(QLatin1String(name)).toString();
        if (value.size() > MaxAttributeLength) {
            problem("manifest-too-large",
                    QStringLiteral("the %1 attribute at line %2 is %3 characters long; at most "
                                   "%4 are read")
                        .arg(QLatin1String(name))
                        .arg(xml.lineNumber())
                        .arg(value.size())
                        .arg(MaxAttributeLength));
            return QString();
        }
        return value;
    }

    bool flag(const char *name, bool inherited)
    {
        const QString value = attribute(name);
        if (value.isEmpty())
            return inherited;
        return value == QLatin1String("true") || (value != QLatin1String("false") && value != "0");
    }

    Level &top() { return levels.back(); }

    void start()
    {
        const QStringView name = xml.name();
        if (name == QLatin1String("MPD")) {
            presentationDuration = seconds(attribute("mediaPresentationDuration"));
            levels.push_back(Level());
        } else if (name == QLatin1String("Period") && !levels.empty()) {
            Level level = top();
            level.addressing = Addressing();
            periodId = attribute("id");
            if (periodId.isEmpty())
                periodId = QString::number(periodCount);
            ++periodCount;
            const double start = seconds(attribute("start")).value_or(0);
            periodDuration = seconds(attribute("duration"));
            if (!periodDuration && presentationDuration)
                periodDuration = *presentationDuration - start;
            levels.push_back(level);
        } else if (name == QLatin1String("AdaptationSet") && !levels.empty()) {
            Level level = top();
            adaptationSetId = attribute("id");
            if (adaptationSetId.isEmpty())
                adaptationSetId = QString::number(adaptationSetCount);
            ++adaptationSetCount;
            level.codecs = attribute("codecs").isEmpty() ? level.codecs : attribute("codecs");
            level.startsWithSap = !attribute("startWithSAP").isEmpty() &&
                                  attribute("startWithSAP") != QLatin1String("0");
            level.segmentAlignment = flag("segmentAlignment", false);
            levels.push_back(level);
        } else if (name == QLatin1String("Representation") && !levels.empty()) {
            Level level = top();
            representation = Representation();
            representation.id = attribute("id");
            representation.bandwidth = number(attribute("bandwidth")).value_or(0);
            if (!attribute("codecs").isEmpty())
                level.codecs = attribute("codecs");
            if (!attribute("startWithSAP").isEmpty())
                level.startsWithSap = attribute("startWithSAP") != QLatin1String("0");
            inRepresentation = true;
            levels.push_back(level);
        } else if (name == QLatin1String("BaseURL") && !levels.empty()) {
            const QString text = xml.readElementText().trimmed();
            if (text.size() <= MaxAttributeLength)
                top().baseUrl = joinUrl(top().baseUrl, text);
        } else if ((name == QLatin1String("SegmentTemplate") ||
                    name == QLatin1String("SegmentList") || name == QLatin1String("SegmentBase")) &&
                   !levels.empty()) {
            Addressing &addressing = top().addressing;
            addressing.kind = name == QLatin1String("SegmentTemplate") ? QStringLiteral("template")
                              : name == QLatin1String("SegmentList")   ? QStringLiteral("list")
                                                                       : QStringLiteral("base");
            if (const auto timescale = number(attribute("timescale")); timescale && *timescale)
                addressing.timescale = *timescale;
            if (const auto duration = number(attribute("duration")))
                addressing.duration = *duration;
            if (const auto startNumber = number(attribute("startNumber")))
                addressing.startNumber = *startNumber;
            for (const auto &[key, target] :
                 {std::pair{"media", &addressing.media},
                  std::pair{"initialization", &addressing.initialization},
                  std::pair{"indexRange", &addressing.indexRange}}) {
                const QString value = attribute(key);
                if (!value.isEmpty())
                    *target = value;
            }
        } else if (name == QLatin1String("Initialization") && !levels.empty()) {
            top().addressing.initialization = attribute("sourceURL");
            top().addressing.initializationRange = attribute("range");
        } else if (name == QLatin1String("SegmentTimeline") && !levels.empty()) {
            top().addressing.timeline.clear();
            top().addressing.hasTimeline = true;
        } else if (name == QLatin1String("S") && !levels.empty()) {
            Addressing::Entry entry;
            entry.t = number(attribute("t"));
            entry.d = number(attribute("d")).value_or(0);
            bool ok = false;
            entry.r = attribute("r").toLongLong(&ok);
            if (!ok)
                entry.r = 0;
            if (top().addressing.timeline.size() < MaxSegments)
                top().addressing.timeline.push_back(entry);
        } else if (name == QLatin1String("SegmentURL") && !levels.empty()) {
            if (top().addressing.urls.size() < MaxSegments)
                top().addressing.urls.emplace_back(attribute("media"), attribute("mediaRange"));
        }
    }

    void end()
    {
        const QStringView name = xml.name();
        if (name == QLatin1String("Representation") && inRepresentation && !levels.empty()) {
            finishRepresentation(top());
            inRepresentation = false;
        }
        if ((name == QLatin1String("MPD") || name == QLatin1String("Period") ||
             name == QLatin1String("AdaptationSet") || name == QLatin1String("Representation")) &&
            !levels.empty())
            levels.pop_back();
    }

    static QString joinUrl(const QString &base, const QString &url)
    {
        if (base.isEmpty() || url.contains(QLatin1String("://")) || url.startsWith('/'))
            return url;
        return base.left(base.lastIndexOf('/') + 1) + url;
    }

    // A template with its identifiers filled in: $RepresentationID$, $Number$, $Time$,
    // $Bandwidth$, each with an optional %0Nd width, and $$ for a dollar sign.
    QString fill(const QString &pattern, quint64 segmentNumber, quint64 time) const
    {
        static const QRegularExpression identifier(
            QStringLiteral("\\$(RepresentationID|Number|Time|Bandwidth|)(%0(\\d{1,2})d)?\\$"));
        QString out;
        qsizetype at = 0;
        for (auto matches = identifier.globalMatch(pattern); matches.hasNext();) {
            const QRegularExpressionMatch match = matches.next();
            out += pattern.mid(at, match.capturedStart() - at);
            at = match.capturedEnd();
            const QString name = match.captured(1);
            const int width = match.captured(3).toInt();
            QString value;
            if (name.isEmpty())
                value = QStringLiteral("$");
            else if (name == QLatin1String("RepresentationID"))
                value = representation.id;
            else
                value = QString::number(name == QLatin1String("Number") ? segmentNumber
                                        : name == QLatin1String("Time") ? time
                                                                        : representation.bandwidth)
                            .rightJustified(width, QLatin1Char('0'));
            out += value;
        }
        return out + pattern.mid(at);
    }

    // Whether one more segment may be named; a problem, once, when not.
    bool room()
    {
        if (segmentTotal < MaxSegments) {
            ++segmentTotal;
            return true;
        }
        if (!stopped)
            problem("manifest-too-many-segments",
                    QStringLiteral("the manifest names more than %1 segments; those behind are "
                                   "not read")
                        .arg(MaxSegments));
        stopped = true;
        return false;
    }

    void addSegment(const QString &uri, quint64 time, quint64 duration)
    {
        Segment segment;
        segment.uri = joinUrl(top().baseUrl, uri);
        segment.time = time;
        segment.duration = duration;
        representation.segments.push_back(segment);
    }

    void finishRepresentation(const Level &level)
    {
        const Addressing &addressing = level.addressing;
        representation.period = periodId;
        representation.adaptationSet = adaptationSetId;
        representation.codecs = level.codecs;
        representation.startsWithSap = level.startsWithSap;
        representation.segmentAlignment = level.segmentAlignment;
        representation.timescale = addressing.timescale;
        // The period in the representation's time units; negative when not known.
        const double periodUnits =
            periodDuration ? *periodDuration * double(addressing.timescale) : -1;
        if (!addressing.initialization.isEmpty() || addressing.kind == QLatin1String("base")) {
            Segment init;
            init.uri = addressing.initialization.isEmpty()
                           ? level.baseUrl
                           : joinUrl(level.baseUrl, fill(addressing.initialization, 0, 0));
            if (!addressing.initializationRange.isEmpty())
                byteRange(addressing.initializationRange, init);
            representation.initialization = init;
        }
        if (addressing.kind == QLatin1String("base")) {
            Segment index;
            index.uri = level.baseUrl;
            if (byteRange(addressing.indexRange, index))
                representation.index = index;
        } else if (addressing.kind == QLatin1String("list")) {
            quint64 time = 0;
            for (const auto &[media, range] : addressing.urls) {
                if (!room())
                    break;
                addSegment(media.isEmpty() ? QString() : media, time,
                           addressing.duration.value_or(0));
                representation.segments.back().nominal = true;
                if (!range.isEmpty())
                    byteRange(range, representation.segments.back());
                if (media.isEmpty())
                    representation.segments.back().uri = level.baseUrl;
                time += addressing.duration.value_or(0);
            }
        } else if (addressing.kind == QLatin1String("template") && addressing.hasTimeline) {
            quint64 time = 0;
            quint64 segmentNumber = addressing.startNumber;
            const auto &timeline = addressing.timeline;
            for (size_t i = 0; i < timeline.size() && !stopped; ++i) {
                const Addressing::Entry &entry = timeline[i];
                if (entry.t)
                    time = *entry.t;
                if (entry.d == 0) {
                    problem("manifest-invalid",
                            QStringLiteral("an S of representation %1 has no duration")
                                .arg(representation.id));
                    break;
                }
                // r = -1 repeats up to the next S, or to the end of the period.
                quint64 repeats = quint64(qMax<qint64>(entry.r, 0));
                if (entry.r < 0) {
                    const std::optional<quint64> next =
                        i + 1 < timeline.size() ? timeline[i + 1].t : std::nullopt;
                    if (next && *next > time)
                        repeats = (*next - time + entry.d - 1) / entry.d - 1;
                    else if (periodUnits > double(time))
                        repeats =
                            quint64(std::ceil((periodUnits - double(time)) / double(entry.d))) - 1;
                    else {
                        problem("manifest-unbounded",
                                QStringLiteral("an S of representation %1 repeats without end: "
                                               "neither a next S nor the period's duration "
                                               "bounds it")
                                    .arg(representation.id));
                        break;
                    }
                }
                for (quint64 k = 0; k <= repeats && room(); ++k) {
                    addSegment(fill(addressing.media, segmentNumber, time), time, entry.d);
                    time += entry.d;
                    ++segmentNumber;
                }
            }
        } else if (addressing.kind == QLatin1String("template")) {
            const quint64 duration = addressing.duration.value_or(0);
            if (duration == 0 || periodUnits < 0) {
                problem("manifest-unbounded",
                        QStringLiteral("the segment template of representation %1 gives no "
                                       "segment duration or no period duration to count its "
                                       "segments by")
                            .arg(representation.id));
            } else {
                // A period of whole segments, give or take the rounding of its seconds.
                const double count = std::ceil(periodUnits / double(duration) - 1e-6);
                quint64 time = 0;
                for (double k = 0; k < count && room(); ++k) {
                    addSegment(fill(addressing.media, addressing.startNumber + quint64(k), time),
                               time, duration);
                    representation.segments.back().nominal = true;
                    time += duration;
                }
            }
        }
        package.representations.push_back(std::move(representation));
        representation = Representation();
    }

    QXmlStreamReader xml;
    Package package;
    std::vector<Level> levels;
    Representation representation;
    bool inRepresentation = false;
    std::optional<double> presentationDuration;
    std::optional<double> periodDuration;
    QString periodId;
    QString adaptationSetId;
    int periodCount = 0;
    int adaptationSetCount = 0;
    quint64 segmentTotal = 0;
    bool stopped = false;
};

// The value of an attribute of an HLS tag's list, such as URI="init.mp4" or BANDWIDTH=800.
QString listAttribute(const QString &list, const QString &name)
{
    qsizetype at = 0;
    while (at < list.size()) {
        const qsizetype equals = list.indexOf('=', at);
        if (equals < 0)
            break;
        const QString key = list.mid(at, equals - at).trimmed();
        qsizetype end;
        QString value;
        if (equals + 1 < list.size() && list[equals + 1] == '"') {
            end = list.indexOf('"', equals + 2);
            if (end < 0)
                end = list.size();
            value = list.mid(equals + 2, end - equals - 2);
            end = list.indexOf(',', end);
        } else {
            end = list.indexOf(',', equals);
            value = list.mid(equals + 1, end < 0 ? -1 : end - equals - 1);
        }
        if (key == name)
            return value;
        if (end < 0)
            break;
        at = end + 1;
    }
    return QString();
}

// "length[@offset]" of EXT-X-BYTERANGE; without an offset the range follows the one before it
// in the same file.
bool hlsRange(const QString &text, Segment &segment, quint64 &nextOffset)
{
    const qsizetype at = text.indexOf('@');
    const std::optional<quint64> length = number(text.left(at));
    std::optional<quint64> offset =
        at < 0 ? std::optional<quint64>(nextOffset) : number(text.mid(at + 1));
    if (!length || !offset)
        return false;
    segment.rangeStart = *offset;
    segment.rangeLength = *length;
    nextOffset = *offset + *length;
    return true;
}

} // namespace

Package readMpd(const QByteArray &bytes)
{
    return MpdReader(bytes).read();
}

Package readPlaylist(const QByteArray &bytes, const QString &name)
{
    Package package;
    package.kind = QStringLiteral("hls");
    const QList<QByteArray> lines = bytes.split('\n');
    if (lines.isEmpty() || !lines.first().trimmed().startsWith("#EXTM3U")) {
        package.problems.push_back({QStringLiteral("manifest-invalid"),
                                    QStringLiteral("the playlist does not begin with #EXTM3U")});
        return package;
    }
    Representation media;
    media.id = name;
    media.startsWithSap = true; // fMP4 segments of HLS begin with a sync sample
    double duration = 0;        // of the next segment, from its EXTINF
    std::optional<Segment> range;
    quint64 nextOffset = 0;
    double time = 0;
    QString variantLine;
    bool tooLong = false;
    for (const QByteArray &raw : lines) {
        if (raw.size() > MaxAttributeLength) {
            tooLong = true;
            continue;
        }
        const QString line = QString::fromUtf8(raw).trimmed();
        if (line.isEmpty())
            continue;
        if (line.startsWith(QLatin1String("#EXT-X-MAP:"))) {
            Segment init;
            init.uri = listAttribute(line.mid(11), QStringLiteral("URI"));
            quint64 offset = 0;
            const QString byteRange = listAttribute(line.mid(11), QStringLiteral("BYTERANGE"));
            if (!byteRange.isEmpty())
                hlsRange(byteRange, init, offset);
            media.initialization = init;
        } else if (line.startsWith(QLatin1String("#EXTINF:"))) {
            bool ok = false;
            duration = line.mid(8).section(',', 0, 0).toDouble(&ok);
            if (!ok || !std::isfinite(duration) || duration < 0)
                duration = 0;
        } else if (line.startsWith(QLatin1String("#EXT-X-BYTERANGE:"))) {
            Segment segment;
            if (hlsRange(line.mid(17), segment, nextOffset))
                range = segment;
        } else if (line.startsWith(QLatin1String("#EXT-X-STREAM-INF:"))) {
            variantLine = line.mid(18);
        } else if (line.startsWith(QLatin1String("#EXT-X-MEDIA:"))) {
            const QString uri = listAttribute(line.mid(13), QStringLiteral("URI"));
            if (!uri.isEmpty()) {
                Representation rendition;
                rendition.id = uri;
                package.playlists.emplace_back(uri, rendition);
            }
        } else if (!line.startsWith('#')) {
            if (!variantLine.isNull()) {
                Representation variant;
                variant.id = line;
                variant.codecs = listAttribute(variantLine, QStringLiteral("CODECS"));
                variant.bandwidth =
                    number(listAttribute(variantLine, QStringLiteral("BANDWIDTH"))).value_or(0);
                package.playlists.emplace_back(line, variant);
                variantLine = QString();
            } else if (media.segments.size() < MaxSegments) {
                Segment segment = range.value_or(Segment());
                segment.uri = line;
                // Times in microseconds.
                media.timescale = 1000000;
                segment.time = quint64(std::llround(time * 1e6));
                segment.duration = quint64(std::llround(duration * 1e6));
                time += duration;
                media.segments.push_back(segment);
                if (!range)
                    nextOffset = 0;
                range.reset();
                duration = 0;
            } else {
                package.problems.push_back(
                    {QStringLiteral("manifest-too-many-segments"),
                     QStringLiteral("the playlist names more than %1 segments; those behind are "
                                    "not read")
                         .arg(MaxSegments)});
                break;
            }
        }
    }
    if (tooLong)
        package.problems.push_back(
            {QStringLiteral("manifest-too-large"),
             QStringLiteral("lines longer than %1 bytes are not read").arg(MaxAttributeLength)});
    for (const auto &[uri, variant] : package.playlists) {
        if (uri == name)
            package.problems.push_back(
                {QStringLiteral("manifest-loop"), QStringLiteral("the playlist names itself")});
    }
    if (!media.segments.empty() || media.initialization)
        package.representations.push_back(std::move(media));
    return package;
}

} // namespace Manifest

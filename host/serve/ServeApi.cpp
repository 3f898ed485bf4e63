#include "ServeApi.h"

#include "Bounds.h"
#include "CodecJson.h"
#include "JsonText.h"
#include "SourceBytes.h"

#include <algorithm>
#include <map>
#include <set>
#include <utility>

namespace {
using Answer = ServeApi::Answer;

const QByteArray JsonType = QByteArrayLiteral("application/json; charset=utf-8");

Answer refused(int status, const QString &message)
{
    return {status, JsonType, json::errorBody(message)};
}

Answer ok(const QByteArray &body)
{
    return {200, JsonType, body};
}

// The parameters of a request, checked one by one; the first problem is kept.
class Parameters {
public:
    Parameters(const QUrlQuery &query, std::initializer_list<const char *> known)
    {
        for (const auto &[key, value] : query.queryItems(QUrl::FullyDecoded)) {
            if (std::find_if(known.begin(), known.end(), [&](const char *name) {
                    return key == QLatin1String(name);
                }) == known.end()) {
                fail(QStringLiteral("unknown parameter '%1'").arg(key.left(64)));
            } else if (values.count(key)) {
                fail(QStringLiteral("%1: given twice").arg(key));
            } else {
                values[key] = value;
            }
        }
    }
    const QString &problem() const { return error; }
    // A decimal number from 0 to max; fallback when the parameter is not given, or a problem
    // when it must be.
    quint64 unsignedValue(const char *name, quint64 max, std::optional<quint64> fallback)
    {
        const auto found = values.find(QLatin1String(name));
        if (found == values.end()) {
            if (!fallback)
                fail(QStringLiteral("%1: missing").arg(QLatin1String(name)));
            return fallback.value_or(0);
        }
        bool ok = isDecimal(found->second, false);
        const quint64 value = ok ? found->second.toULongLong(&ok, 10) : 0;
        if (!ok) {
            fail(QStringLiteral("%1: a decimal number, not '%2'")
                     .arg(QLatin1String(name), found->second.left(64)));
            return 0;
        }
        if (value > max)
            fail(QStringLiteral("%1: at most %2, not %3")
                     .arg(QLatin1String(name))
                     .arg(max)
                     .arg(value));
        return value;
    }
    qint64 signedValue(const char *name, qint64 fallback)
    {
        const auto found = values.find(QLatin1String(name));
        if (found == values.end())
            return fallback;
        bool ok = isDecimal(found->second, true);
        const qint64 value = ok ? found->second.toLongLong(&ok, 10) : 0;
        if (!ok)
            fail(QStringLiteral("%1: a decimal number, not '%2'")
                     .arg(QLatin1String(name), found->second.left(64)));
        return value;
    }
    QString text(const char *name)
    {
        const auto found = values.find(QLatin1String(name));
        if (found == values.end()) {
            fail(QStringLiteral("%1: missing").arg(QLatin1String(name)));
            return QString();
        }
        return found->second;
    }

private:
    static bool isDecimal(const QString &text, bool sign)
    {
        const qsizetype start = sign && text.startsWith(QLatin1Char('-')) ? 1 : 0;
        if (text.size() == start || text.size() - start > 20)
            return false;
        for (qsizetype i = start; i < text.size(); ++i) {
            if (text[i] < QLatin1Char('0') || text[i] > QLatin1Char('9'))
                return false;
        }
        return true;
    }
    void fail(const QString &message)
    {
        if (error.isEmpty())
            error = message;
    }

    std::map<QString, QString> values;
    QString error;
};

// The body of an answer: one JSON object, its members written by write.
template <typename Write> QByteArray objectBody(Write write)
{
    QByteArray out;
    {
        json::Object object(out);
        write(object);
    }
    return out;
}

// The names of an element's state and of a field's payload as the index keeps them: 0 for
// none, else the value + 1.
const char *stateText(quint8 state)
{
    return state ? elementStateName(ElementState(state - 1)) : nullptr;
}

const char *payloadText(quint8 payload)
{
    return payload ? payloadName(Payload(payload - 1)) : nullptr;
}

// A table entry's index, or none for a negative one.
std::optional<qint64> entryIndex(qint64 index)
{
    return index >= 0 ? std::optional<qint64>(index) : std::nullopt;
}

void writeElement(QByteArray &out, const FileIndex &file, quint64 id,
                  const FileIndex::Element &element)
{
    json::Object object(out);
    object.escaped("kind", "element");
    object.number("id", id);
    object.number("parent", element.parent);
    object.escaped("name", file.text(element.name));
    object.integer("index", element.index);
    object.number("offset", element.offset);
    object.number("size", element.size);
    object.escaped("note", file.text(element.note));
    object.escaped("value", file.text(element.value));
    if (const char *state = stateText(element.state))
        object.escaped("state", state);
    object.number("depth", element.depth);
    object.number("position", element.position);
    object.number("kidCount", element.kidCount);
    object.number("childCount", element.childCount);
}

void writeChild(QByteArray &out, const FileIndex &file, const FileIndex::Child &child)
{
    json::Object object(out);
    const bool raw = child.kind == FileIndex::RawChild;
    object.escaped("kind", raw ? "raw" : "field");
    object.escaped("name", file.text(child.name));
    object.number("offset", child.offset);
    object.number("size", child.size);
    if (raw) {
        object.escaped("data", file.text(child.value));
        object.escaped("comment", file.text(child.comment));
        return;
    }
    object.boolean("bitField", child.bitField);
    object.number("bitOffset", child.bitOffset);
    object.escaped("value", file.text(child.value));
    object.escaped("extra", file.text(child.extra));
    object.escaped("comment", file.text(child.comment));
    object.integer("index", child.index);
    if (const char *payload = payloadText(child.payload))
        object.escaped("payload", payload);
}

void writeStream(QByteArray &out, const FileIndex::Stream &stream)
{
    const StreamInfo &info = stream.info;
    json::Object object(out);
    object.integer("index", stream.index);
    object.integer("width", info.width);
    object.integer("height", info.height);
    object.integer("codecId", info.codecId);
    object.string("codecName", info.codecName);
    // As in the annotated report: deep analysis writes it with the track's facts.
    if (!info.track)
        object.string("handlerType", info.handlerType);
    object.number("configOffset", info.configOffset);
    object.number("configSize", info.configSize);
    if (const std::optional<TrackFacts> &facts = info.track) {
        object.number("trackId", facts->trackId);
        object.string("handlerType", info.handlerType);
        object.optionalInteger("timescale", facts->timescale != 0
                                                ? std::optional<qint64>(facts->timescale)
                                                : std::nullopt);
        object.number("duration", facts->duration);
        object.string("language", facts->language);
        object.string("sampleEntry", facts->sampleEntry);
        object.string("codecs", facts->codecs);
        if (!facts->representation.isEmpty())
            object.string("representation", facts->representation);
        if (facts->channelCount != 0) {
            object.number("channelCount", facts->channelCount);
            object.number("sampleRate", facts->sampleRate);
        }
        if (facts->video) {
            ByteArrayOut video{object.key("video")};
            writeVideoFactsJson(video, *facts->video);
        }
    }
    object.boolean("deep", stream.deep);
    object.number("sampleCount", stream.count);
    object.number("keyCount", stream.keys);
    object.number("totalSize", stream.totalSize);
    object.number("maxSize", stream.maxSize);
    object.boolean("byTime", stream.byTime);
    object.integer("xMin", stream.xMin);
    object.integer("xMax", stream.xMax);
}

void writeSample(QByteArray &out, const FileIndex &file, quint64 index,
                 const FileIndex::SampleRecord &sample)
{
    json::Object object(out);
    object.number("index", index);
    object.number("offset", sample.offset);
    object.number("size", sample.size);
    object.integer("dts", sample.dts);
    object.integer("pts", sample.pts);
    object.number("duration", sample.duration);
    object.number("keyFrame", (sample.flags & FileIndex::KeyFrame) ? 1 : 0);
    if (!(sample.flags & FileIndex::Deep))
        return;
    object.optionalInteger("presentationTime", (sample.flags & FileIndex::Presented)
                                                   ? std::optional<qint64>(sample.presentationTime)
                                                   : std::nullopt);
    if (sample.flags & FileIndex::FromFragment) {
        static const char *const names[] = {"moof", "moofOffset", "traf", "trun", "trunEntry"};
        for (int i = 0; i < 5; ++i)
            object.number(names[i], quint64(sample.origin[i]));
    } else {
        object.number("chunk", quint64(sample.origin[0]));
        object.optionalInteger("stscEntry", entryIndex(sample.origin[1]));
        object.optionalInteger("sttsEntry", entryIndex(sample.origin[2]));
        object.optionalInteger("cttsEntry", entryIndex(sample.origin[3]));
    }
    if (sample.units)
        object.key("units") += file.text(sample.units);
}

// As the report's "coverage": the parts of the file and its map.
void writeCoverage(QByteArray &out, const Coverage &coverage)
{
    json::Object object(out);
    object.number("fileSize", coverage.fileSize);
    {
        json::Object parts(object.key("parts"));
        for (const auto &[name, part] : coveragePartNames)
            parts.number(name, coverage.*part);
    }
    json::Object map(object.key("map"));
    map.number("cellSize", coverage.cellSize);
    for (const auto &[name, part] : coveragePartNames) {
        json::Array cells(map.key(name));
        for (const CoverageParts &cell : coverage.cells)
            json::appendNumber(cells.next(), cell.*part);
    }
}

// As an item of the report's "items".
void writeItem(QByteArray &out, const Item &item)
{
    json::Object object(out);
    object.number("id", item.id);
    object.string("type", item.type);
    object.string("name", item.name);
    object.string("contentType", item.contentType);
    object.boolean("primary", item.primary);
    object.boolean("hidden", item.hidden);
    if (item.extents) {
        json::Array extents(object.key("extents"));
        for (const ItemExtent &extent : *item.extents) {
            json::Object entry(extents.next());
            entry.number("offset", extent.offset);
            entry.number("length", extent.length);
        }
    } else {
        object.key("extents") += "null";
        object.string("extentsReason", item.extentsReason);
    }
    {
        json::Array properties(object.key("properties"));
        for (const ItemProperty &property : item.properties) {
            json::Object entry(properties.next());
            entry.number("index", property.index);
            if (property.path.isEmpty()) {
                entry.key("type") += "null";
            } else {
                entry.string("type", property.type);
            }
            entry.boolean("essential", property.essential);
            if (property.path.isEmpty())
                entry.key("path") += "null";
            else
                entry.string("path", property.path);
        }
    }
    {
        json::Array references(object.key("references"));
        for (const ItemReference &reference : item.references) {
            json::Object entry(references.next());
            entry.string("type", reference.type);
            entry.string("direction", reference.outgoing ? u"to" : u"from");
            json::Array ids(entry.key("items"));
            for (const quint32 id : reference.items)
                json::appendNumber(ids.next(), id);
        }
    }
    object.number("width", item.width);
    object.number("height", item.height);
    if (item.grid) {
        json::Object grid(object.key("grid"));
        grid.number("rows", item.grid->rows);
        grid.number("columns", item.grid->columns);
        grid.number("outputWidth", item.grid->outputWidth);
        grid.number("outputHeight", item.grid->outputHeight);
    }
    if (item.overlay) {
        json::Object overlay(object.key("overlay"));
        {
            json::Array fill(overlay.key("canvasFill"));
            for (const quint16 channel : item.overlay->canvasFill)
                json::appendNumber(fill.next(), channel);
        }
        overlay.number("outputWidth", item.overlay->outputWidth);
        overlay.number("outputHeight", item.overlay->outputHeight);
        json::Array offsets(overlay.key("offsets"));
        for (const ItemOverlay::Offset &offset : item.overlay->offsets) {
            json::Object entry(offsets.next());
            entry.integer("x", offset.x);
            entry.integer("y", offset.y);
        }
    }
}

void writeFile(QByteArray &out, size_t number, const ServeIndex::File &file)
{
    json::Object object(out);
    object.number("number", number);
    object.string("file", file.fileName);
    if (!file.index) {
        object.string("error", file.error);
        return;
    }
    const FileIndex &index = *file.index;
    object.number("fileSize", index.fileSize());
    object.string("container", index.container());
    object.number("elementCount", index.elementCount() - 1);
    FileIndex::Element root;
    if (index.element(FileIndex::FileElement, &root))
        object.number("topCount", root.kidCount);
    {
        json::Array streams(object.key("streams"));
        for (const FileIndex::Stream &stream : index.streams())
            writeStream(streams.next(), stream);
    }
    if (!index.items().empty()) {
        json::Array items(object.key("items"));
        for (const Item &item : index.items())
            writeItem(items.next(), item);
    }
    if (index.coverage()) {
        const std::vector<Problem> &problems = index.problems();
        object.number("problemCount", problems.size());
        object.number(
            "errorCount",
            quint64(std::count_if(problems.begin(), problems.end(), [](const Problem &problem) {
                return problem.severity == Severity::Error;
            })));
        writeCoverage(object.key("coverage"), *index.coverage());
    }
}

// The problems of a checked file, from `from` on.
Answer problemsAnswer(const FileIndex &file, const QUrlQuery &query)
{
    Parameters parameters(query, {"from", "count"});
    const quint64 from = parameters.unsignedValue("from", ~quint64(0), 0);
    const quint64 count = parameters.unsignedValue("count", ServeApi::MaxCount, 100);
    if (!parameters.problem().isEmpty())
        return refused(400, parameters.problem());
    if (!file.coverage())
        return refused(404, QStringLiteral("%1 was not checked: start the server with --check")
                                .arg(file.fileName()));
    const std::vector<Problem> &problems = file.problems();
    return ok(objectBody([&](json::Object &object) {
        object.number("from", from);
        object.number("total", problems.size());
        json::Array list(object.key("problems"));
        for (quint64 i = from; i < problems.size() && i - from < count; ++i) {
            const Problem &problem = problems[size_t(i)];
            json::Object entry(list.next());
            entry.string("code", problem.code);
            entry.escaped("severity", severityName(problem.severity));
            entry.number("offset", problem.offset);
            entry.number("size", problem.size);
            entry.string("path", problem.path);
            entry.string("message", problem.message);
        }
    }));
}

Answer readFailed(const FileIndex &file)
{
    return refused(500, QStringLiteral("the index of %1 could not be read").arg(file.fileName()));
}

// The requests about one element: itself, its child elements, all its children.
Answer nodeAnswer(const FileIndex &file, const QStringList &parts, const QUrlQuery &query)
{
    bool isNumber = false;
    const quint64 id = parts[0].toULongLong(&isNumber, 10);
    FileIndex::Element element;
    if (!isNumber || !file.element(id, &element))
        return refused(404, QStringLiteral("no node %1: the nodes of this file are 0 to %2")
                                .arg(parts[0].left(64))
                                .arg(file.elementCount() - 1));
    if (parts.size() == 1) {
        Parameters parameters(query, {});
        if (!parameters.problem().isEmpty())
            return refused(400, parameters.problem());
        QByteArray out;
        writeElement(out, file, id, element);
        return ok(out);
    }
    if (parts.size() != 2 ||
        (parts[1] != QLatin1String("elements") && parts[1] != QLatin1String("children")))
        return refused(404, QStringLiteral("no such path"));
    Parameters parameters(query, {"from", "count"});
    const quint64 from = parameters.unsignedValue("from", ~quint64(0), 0);
    const quint64 count = parameters.unsignedValue("count", ServeApi::MaxCount, 100);
    if (!parameters.problem().isEmpty())
        return refused(400, parameters.problem());
    const bool all = parts[1] == QLatin1String("children");
    const quint64 total = all ? element.childCount : element.kidCount;
    std::vector<FileIndex::Child> children;
    std::vector<quint64> ids;
    if (all ? !file.children(element, from, count, &children)
            : !file.kids(element, from, count, &ids))
        return readFailed(file);
    if (all) {
        for (const FileIndex::Child &child : children) {
            if (child.kind == FileIndex::ElementChild)
                ids.push_back(child.offset);
        }
    }
    std::map<quint64, FileIndex::Element> elements;
    for (quint64 kid : ids) {
        if (!file.element(kid, &elements[kid]))
            return readFailed(file);
    }
    return ok(objectBody([&](json::Object &object) {
        object.number("from", from);
        object.number("total", total);
        json::Array list(object.key(all ? "children" : "elements"));
        if (!all) {
            for (quint64 kid : ids)
                writeElement(list.next(), file, kid, elements[kid]);
            return;
        }
        for (const FileIndex::Child &child : children) {
            if (child.kind == FileIndex::ElementChild)
                writeElement(list.next(), file, child.offset, elements[child.offset]);
            else
                writeChild(list.next(), file, child);
        }
    }));
}

Answer bytesAnswer(const FileIndex &file, const QUrlQuery &query)
{
    Parameters parameters(query, {"offset", "size"});
    const quint64 offset = parameters.unsignedValue("offset", ~quint64(0), std::nullopt);
    const quint64 size = parameters.unsignedValue("size", ServeApi::MaxBytes, std::nullopt);
    if (!parameters.problem().isEmpty())
        return refused(400, parameters.problem());
    QString error;
    const qint64 fileSize = file.bytes().size(&error);
    QByteArray data;
    if (fileSize < 0 ||
        (offset <= quint64(fileSize) && !file.bytes().read(offset, size, &data, &error)))
        return refused(500, QStringLiteral("%1 cannot be read: %2").arg(file.fileName(), error));
    if (offset > quint64(fileSize))
        return refused(400,
                       QStringLiteral("offset: past the end of the file (%1 bytes)").arg(fileSize));
    return ok(objectBody([&](json::Object &object) {
        object.number("offset", offset);
        object.number("size", quint64(data.size()));
        object.escaped("data", data.toBase64());
    }));
}

Answer streamAnswer(const FileIndex &file, const QStringList &parts, const QUrlQuery &query)
{
    bool isNumber = false;
    const quint64 number = parts[0].toULongLong(&isNumber, 10);
    const auto &streams = file.streams();
    if (!isNumber || number >= streams.size())
        return refused(
            404, streams.empty()
                     ? QStringLiteral("no stream %1: this file has none").arg(parts[0].left(64))
                     : QStringLiteral("no stream %1: the streams of this file are 0 to %2")
                           .arg(parts[0].left(64))
                           .arg(streams.size() - 1));
    const FileIndex::Stream &stream = streams[number];
    if (parts.size() == 1) {
        Parameters parameters(query, {});
        if (!parameters.problem().isEmpty())
            return refused(400, parameters.problem());
        QByteArray out;
        writeStream(out, stream);
        return ok(out);
    }
    if (parts.size() != 2)
        return refused(404, QStringLiteral("no such path"));
    if (parts[1] == QLatin1String("samples")) {
        Parameters parameters(query, {"from", "count"});
        const quint64 from = parameters.unsignedValue("from", ~quint64(0), 0);
        const quint64 count = parameters.unsignedValue("count", ServeApi::MaxCount, 100);
        if (!parameters.problem().isEmpty())
            return refused(400, parameters.problem());
        std::vector<FileIndex::SampleRecord> samples;
        if (!file.samples(stream, from, count, &samples))
            return readFailed(file);
        return ok(objectBody([&](json::Object &object) {
            object.number("from", from);
            object.number("total", stream.count);
            json::Array list(object.key("samples"));
            for (size_t i = 0; i < samples.size(); ++i)
                writeSample(list.next(), file, from + i, samples[i]);
        }));
    }
    if (parts[1] == QLatin1String("locate")) {
        Parameters parameters(query, {"x"});
        parameters.text("x"); // required
        const qint64 x = parameters.signedValue("x", 0);
        if (!parameters.problem().isEmpty())
            return refused(400, parameters.problem());
        return ok(objectBody(
            [&](json::Object &object) { object.number("index", file.locate(stream, x)); }));
    }
    if (parts[1] == QLatin1String("chart")) {
        Parameters parameters(query, {"from", "to", "columns"});
        const qint64 x0 = parameters.signedValue("from", stream.xMin);
        const qint64 x1 = parameters.signedValue("to", stream.xMax);
        const quint64 columns = parameters.unsignedValue("columns", ServeApi::MaxColumns, 1000);
        if (parameters.problem().isEmpty() && columns == 0)
            return refused(400, QStringLiteral("columns: at least 1"));
        if (parameters.problem().isEmpty() && x1 <= x0)
            return refused(400, QStringLiteral("to: must be greater than from"));
        if (!parameters.problem().isEmpty())
            return refused(400, parameters.problem());
        std::vector<FileIndex::Column> result;
        if (!file.chart(stream, x0, x1, quint32(columns), &result))
            return readFailed(file);
        return ok(objectBody([&](json::Object &object) {
            object.integer("from", x0);
            object.integer("to", x1);
            // Column by column, each member a list; a size of a column without such samples
            // is 0.
            auto list = [&](const char *name, auto value) {
                json::Array values(object.key(name));
                for (const FileIndex::Column &column : result)
                    json::appendNumber(values.next(), value(column));
            };
            const quint64 none = ~quint64(0);
            list("first", [](const FileIndex::Column &c) { return c.first; });
            list("count", [](const FileIndex::Column &c) { return c.count; });
            list("keys", [](const FileIndex::Column &c) { return c.sizes.keys; });
            list("frameMin", [&](const FileIndex::Column &c) {
                return c.sizes.frameMin == none ? 0 : c.sizes.frameMin;
            });
            list("frameMax", [](const FileIndex::Column &c) { return c.sizes.frameMax; });
            list("keyMin", [&](const FileIndex::Column &c) {
                return c.sizes.keyMin == none ? 0 : c.sizes.keyMin;
            });
            list("keyMax", [](const FileIndex::Column &c) { return c.sizes.keyMax; });
        }));
    }
    return refused(404, QStringLiteral("no such path"));
}

Answer searchAnswer(const FileIndex &file, const QUrlQuery &query)
{
    Parameters parameters(query, {"q", "limit"});
    const QString text = parameters.text("q");
    const quint64 limit = parameters.unsignedValue("limit", ServeApi::MaxMatches, 200);
    if (!parameters.problem().isEmpty())
        return refused(400, parameters.problem());
    if (text.trimmed().isEmpty() || text.size() > ServeApi::MaxQuery)
        return refused(400, QStringLiteral("q: from 1 to %1 characters").arg(ServeApi::MaxQuery));
    const FileIndex::SearchResult result = file.search(text.trimmed(), size_t(limit));
    // The matches and the elements that lead to them, in file order.
    std::set<quint64> shown;
    std::map<quint64, FileIndex::Element> elements;
    for (quint64 id : result.matches) {
        for (quint64 at = id; at != FileIndex::FileElement && !shown.count(at);) {
            FileIndex::Element &element = elements[at];
            if (!file.element(at, &element))
                return readFailed(file);
            shown.insert(at);
            at = element.parent;
        }
    }
    return ok(objectBody([&](json::Object &object) {
        object.number("count", result.count);
        {
            json::Array matches(object.key("matches"));
            for (quint64 id : result.matches)
                json::appendNumber(matches.next(), id);
        }
        json::Array list(object.key("elements"));
        for (const auto &[id, element] : elements)
            writeElement(list.next(), file, id, element);
    }));
}

Answer pathAnswer(const FileIndex &file, const QUrlQuery &query)
{
    Parameters parameters(query, {"offset", "size"});
    const quint64 offset = parameters.unsignedValue("offset", ~quint64(0), std::nullopt);
    const quint64 size = parameters.unsignedValue("size", ~quint64(0), 0);
    if (!parameters.problem().isEmpty())
        return refused(400, parameters.problem());
    std::vector<std::pair<quint64, FileIndex::Element>> path;
    for (quint64 id : file.pathTo(offset, endOf(offset, size))) {
        path.emplace_back(id, FileIndex::Element());
        if (!file.element(id, &path.back().second))
            return readFailed(file);
    }
    return ok(objectBody([&](json::Object &object) {
        json::Array list(object.key("elements"));
        for (const auto &[id, element] : path)
            writeElement(list.next(), file, id, element);
    }));
}
} // namespace

ServeApi::ServeApi(const ServeIndex &index, QByteArray page)
    : index(index)
    , page(std::move(page))
{
}

Answer ServeApi::answer(const QByteArray &method, const QString &path, const QUrlQuery &query) const
{
    if (method != "GET")
        return refused(405, QStringLiteral("only GET is answered, not %1")
                                .arg(QString::fromLatin1(method.left(16))));
    if (path == QLatin1String("/") || path == QLatin1String("/index.html"))
        return {200, QByteArrayLiteral("text/html; charset=utf-8"), page};

    const QString api = QStringLiteral("/api/v1/files");
    if (path != api && !path.startsWith(api + QLatin1Char('/')))
        return refused(
            404, QStringLiteral("no such path: %1 (the API is under %2)").arg(path.left(200), api));
    QStringList parts = path.mid(api.size()).split(QLatin1Char('/'));
    parts.removeFirst(); // before the first slash
    const auto &files = index.files();
    if (parts.isEmpty()) {
        Parameters parameters(query, {});
        if (!parameters.problem().isEmpty())
            return refused(400, parameters.problem());
        return ok(objectBody([&](json::Object &object) {
            object.number("version", 1);
            json::Array list(object.key("files"));
            for (size_t i = 0; i < files.size(); ++i)
                writeFile(list.next(), i, files[i]);
        }));
    }

    bool isNumber = false;
    const quint64 number = parts[0].toULongLong(&isNumber, 10);
    if (!isNumber || number >= files.size())
        return refused(404, QStringLiteral("no file %1: this server serves the files 0 to %2, "
                                           "those it was started with")
                                .arg(parts[0].left(64))
                                .arg(files.size() - 1));
    const ServeIndex::File &file = files[number];
    if (parts.size() == 1) {
        QByteArray out;
        writeFile(out, number, file);
        return ok(out);
    }
    if (!file.index)
        return refused(404, QStringLiteral("%1 has no report: %2").arg(file.fileName, file.error));
    const FileIndex &report = *file.index;
    const QString what = parts[1];
    const QStringList rest = parts.mid(2);
    if (what == QLatin1String("nodes") && !rest.isEmpty())
        return nodeAnswer(report, rest, query);
    if (what == QLatin1String("streams") && !rest.isEmpty())
        return streamAnswer(report, rest, query);
    if (rest.isEmpty() && what == QLatin1String("bytes"))
        return bytesAnswer(report, query);
    if (rest.isEmpty() && what == QLatin1String("search"))
        return searchAnswer(report, query);
    if (rest.isEmpty() && what == QLatin1String("problems"))
        return problemsAnswer(report, query);
    if (rest.isEmpty() && what == QLatin1String("path"))
        return pathAnswer(report, query);
    return refused(404, QStringLiteral("no such path: %1").arg(path.left(200)));
}

#include "ServeApi.h"

#include "Bounds.h"
#include "JsonText.h"

#include <QFile>

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

void key(QByteArray &out, const char *name)
{
    out += '"';
    out += name;
    out += "\":";
}

void textMember(QByteArray &out, const char *name, const QByteArray &escaped)
{
    key(out, name);
    out += '"';
    out += escaped;
    out += '"';
}

void numberMember(QByteArray &out, const char *name, quint64 value)
{
    key(out, name);
    json::appendNumber(out, value);
}

void signedMember(QByteArray &out, const char *name, qint64 value)
{
    key(out, name);
    json::appendSigned(out, value);
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

void writeElement(QByteArray &out, const FileIndex &file, quint64 id,
                  const FileIndex::Element &element)
{
    out += "{\"kind\":\"element\",";
    numberMember(out, "id", id);
    out += ',';
    numberMember(out, "parent", element.parent);
    out += ',';
    textMember(out, "name", file.text(element.name));
    out += ',';
    signedMember(out, "index", element.index);
    out += ',';
    numberMember(out, "offset", element.offset);
    out += ',';
    numberMember(out, "size", element.size);
    out += ',';
    textMember(out, "note", file.text(element.note));
    out += ',';
    textMember(out, "value", file.text(element.value));
    if (const char *state = stateText(element.state)) {
        out += ",\"state\":\"";
        out += state;
        out += '"';
    }
    out += ',';
    numberMember(out, "depth", element.depth);
    out += ',';
    numberMember(out, "position", element.position);
    out += ',';
    numberMember(out, "kidCount", element.kidCount);
    out += ',';
    numberMember(out, "childCount", element.childCount);
    out += '}';
}

void writeChild(QByteArray &out, const FileIndex &file, const FileIndex::Child &child)
{
    if (child.kind == FileIndex::RawChild) {
        out += "{\"kind\":\"raw\",";
        textMember(out, "name", file.text(child.name));
        out += ',';
        numberMember(out, "offset", child.offset);
        out += ',';
        numberMember(out, "size", child.size);
        out += ',';
        textMember(out, "data", file.text(child.value));
        out += ',';
        textMember(out, "comment", file.text(child.comment));
        out += '}';
        return;
    }
    out += "{\"kind\":\"field\",";
    textMember(out, "name", file.text(child.name));
    out += ',';
    numberMember(out, "offset", child.offset);
    out += ',';
    numberMember(out, "size", child.size);
    out += child.bitField ? ",\"bitField\":true," : ",\"bitField\":false,";
    numberMember(out, "bitOffset", child.bitOffset);
    out += ',';
    textMember(out, "value", file.text(child.value));
    out += ',';
    textMember(out, "extra", file.text(child.extra));
    out += ',';
    textMember(out, "comment", file.text(child.comment));
    out += ',';
    signedMember(out, "index", child.index);
    if (const char *payload = payloadText(child.payload)) {
        out += ",\"payload\":\"";
        out += payload;
        out += '"';
    }
    out += '}';
}

void writeStream(QByteArray &out, const FileIndex::Stream &stream)
{
    const StreamInfo &info = stream.info;
    out += '{';
    signedMember(out, "index", stream.index);
    out += ',';
    signedMember(out, "width", info.width);
    out += ',';
    signedMember(out, "height", info.height);
    out += ',';
    signedMember(out, "codecId", info.codecId);
    out += ",\"codecName\":";
    json::appendString(out, info.codecName);
    out += ',';
    numberMember(out, "configOffset", info.configOffset);
    out += ',';
    numberMember(out, "configSize", info.configSize);
    if (const std::optional<TrackFacts> &facts = info.track) {
        out += ',';
        numberMember(out, "trackId", facts->trackId);
        out += ",\"handlerType\":";
        json::appendString(out, info.handlerType);
        out += ",\"timescale\":";
        if (facts->timescale != 0)
            json::appendNumber(out, facts->timescale);
        else
            out += "null";
        out += ',';
        numberMember(out, "duration", facts->duration);
        out += ",\"language\":";
        json::appendString(out, facts->language);
        out += ",\"sampleEntry\":";
        json::appendString(out, facts->sampleEntry);
        if (facts->channelCount != 0) {
            out += ',';
            numberMember(out, "channelCount", facts->channelCount);
            out += ',';
            numberMember(out, "sampleRate", facts->sampleRate);
        }
    }
    out += stream.deep ? ",\"deep\":true," : ",\"deep\":false,";
    numberMember(out, "sampleCount", stream.count);
    out += ',';
    numberMember(out, "keyCount", stream.keys);
    out += ',';
    numberMember(out, "totalSize", stream.totalSize);
    out += ',';
    numberMember(out, "maxSize", stream.maxSize);
    out += stream.byTime ? ",\"byTime\":true," : ",\"byTime\":false,";
    signedMember(out, "xMin", stream.xMin);
    out += ',';
    signedMember(out, "xMax", stream.xMax);
    out += '}';
}

void optionalEntry(QByteArray &out, const char *name, qint64 value)
{
    key(out, name);
    if (value >= 0)
        json::appendSigned(out, value);
    else
        out += "null";
}

void writeSample(QByteArray &out, quint64 index, const FileIndex::SampleRecord &sample)
{
    out += '{';
    numberMember(out, "index", index);
    out += ',';
    numberMember(out, "offset", sample.offset);
    out += ',';
    numberMember(out, "size", sample.size);
    out += ',';
    signedMember(out, "dts", sample.dts);
    out += ',';
    signedMember(out, "pts", sample.pts);
    out += ',';
    numberMember(out, "duration", sample.duration);
    out += (sample.flags & FileIndex::KeyFrame) ? ",\"keyFrame\":1" : ",\"keyFrame\":0";
    if (sample.flags & FileIndex::Deep) {
        out += ",\"presentationTime\":";
        if (sample.flags & FileIndex::Presented)
            json::appendSigned(out, sample.presentationTime);
        else
            out += "null";
        if (sample.flags & FileIndex::FromFragment) {
            static const char *const names[] = {"moof", "moofOffset", "traf", "trun", "trunEntry"};
            for (int i = 0; i < 5; ++i) {
                out += ',';
                numberMember(out, names[i], quint64(sample.origin[i]));
            }
        } else {
            out += ',';
            numberMember(out, "chunk", quint64(sample.origin[0]));
            out += ',';
            optionalEntry(out, "stscEntry", sample.origin[1]);
            out += ',';
            optionalEntry(out, "sttsEntry", sample.origin[2]);
            out += ',';
            optionalEntry(out, "cttsEntry", sample.origin[3]);
        }
    }
    out += '}';
}

// As the report's "coverage": the parts of the file and its map.
void writeCoverage(QByteArray &out, const Coverage &coverage)
{
    out += ",\"coverage\":{";
    numberMember(out, "fileSize", coverage.fileSize);
    char separator = '{';
    out += ",\"parts\":";
    for (const auto &[name, part] : coveragePartNames) {
        out += std::exchange(separator, ',');
        numberMember(out, name, coverage.*part);
    }
    out += "},\"map\":{";
    numberMember(out, "cellSize", coverage.cellSize);
    for (const auto &[name, part] : coveragePartNames) {
        out += ',';
        key(out, name);
        separator = '[';
        for (const CoverageParts &cell : coverage.cells) {
            out += std::exchange(separator, ',');
            json::appendNumber(out, cell.*part);
        }
        if (coverage.cells.empty())
            out += '[';
        out += ']';
    }
    out += "}}";
}

void writeFile(QByteArray &out, size_t number, const ServeIndex::File &file)
{
    out += '{';
    numberMember(out, "number", number);
    out += ",\"file\":";
    json::appendString(out, file.fileName);
    if (!file.index) {
        out += ",\"error\":";
        json::appendString(out, file.error);
        out += '}';
        return;
    }
    const FileIndex &index = *file.index;
    out += ',';
    numberMember(out, "fileSize", index.fileSize());
    out += ",\"container\":";
    json::appendString(out, index.container());
    out += ',';
    numberMember(out, "elementCount", index.elementCount() - 1);
    FileIndex::Element root;
    if (index.element(FileIndex::FileElement, &root)) {
        out += ',';
        numberMember(out, "topCount", root.kidCount);
    }
    out += ",\"streams\":[";
    for (size_t i = 0; i < index.streams().size(); ++i) {
        if (i)
            out += ',';
        writeStream(out, index.streams()[i]);
    }
    out += ']';
    if (index.coverage()) {
        out += ',';
        numberMember(out, "problemCount", index.problems().size());
        out += ',';
        numberMember(out, "errorCount",
                     quint64(std::count_if(index.problems().begin(), index.problems().end(),
                                           [](const Problem &problem) {
                                               return problem.severity == Severity::Error;
                                           })));
        writeCoverage(out, *index.coverage());
    }
    out += '}';
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
    QByteArray out = "{";
    numberMember(out, "from", from);
    out += ',';
    numberMember(out, "total", problems.size());
    out += ",\"problems\":[";
    for (quint64 i = from; i < problems.size() && i - from < count; ++i) {
        const Problem &problem = problems[size_t(i)];
        if (i > from)
            out += ',';
        out += "{\"code\":";
        json::appendString(out, problem.code);
        out += ",\"severity\":\"";
        out += severityName(problem.severity);
        out += "\",";
        numberMember(out, "offset", problem.offset);
        out += ',';
        numberMember(out, "size", problem.size);
        out += ",\"path\":";
        json::appendString(out, problem.path);
        out += ",\"message\":";
        json::appendString(out, problem.message);
        out += '}';
    }
    out += "]}";
    return ok(out);
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
    QByteArray out;
    if (parts.size() == 1) {
        Parameters parameters(query, {});
        if (!parameters.problem().isEmpty())
            return refused(400, parameters.problem());
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
    out = "{";
    numberMember(out, "from", from);
    out += ',';
    numberMember(out, "total", total);
    out += all ? ",\"children\":[" : ",\"elements\":[";
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
    bool first = true;
    auto separate = [&] {
        if (!first)
            out += ',';
        first = false;
    };
    if (all) {
        for (const FileIndex::Child &child : children) {
            separate();
            if (child.kind == FileIndex::ElementChild)
                writeElement(out, file, child.offset, elements[child.offset]);
            else
                writeChild(out, file, child);
        }
    } else {
        for (quint64 kid : ids) {
            separate();
            writeElement(out, file, kid, elements[kid]);
        }
    }
    out += "]}";
    return ok(out);
}

Answer bytesAnswer(const FileIndex &file, const QUrlQuery &query)
{
    Parameters parameters(query, {"offset", "size"});
    const quint64 offset = parameters.unsignedValue("offset", ~quint64(0), std::nullopt);
    const quint64 size = parameters.unsignedValue("size", ServeApi::MaxBytes, std::nullopt);
    if (!parameters.problem().isEmpty())
        return refused(400, parameters.problem());
    QFile input(file.fileName());
    if (!input.open(QIODevice::ReadOnly))
        return refused(
            500, QStringLiteral("%1 cannot be read: %2").arg(file.fileName(), input.errorString()));
    const quint64 fileSize = quint64(input.size());
    if (offset > fileSize)
        return refused(400,
                       QStringLiteral("offset: past the end of the file (%1 bytes)").arg(fileSize));
    const quint64 wanted = std::min(size, fileSize - offset);
    QByteArray data;
    if (wanted > 0 && input.seek(qint64(offset)))
        data = input.read(qint64(wanted));
    QByteArray out = "{";
    numberMember(out, "offset", offset);
    out += ',';
    numberMember(out, "size", quint64(data.size()));
    out += ",\"data\":\"";
    out += data.toBase64();
    out += "\"}";
    return ok(out);
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
    QByteArray out;
    if (parts.size() == 1) {
        Parameters parameters(query, {});
        if (!parameters.problem().isEmpty())
            return refused(400, parameters.problem());
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
        out = "{";
        numberMember(out, "from", from);
        out += ',';
        numberMember(out, "total", stream.count);
        out += ",\"samples\":[";
        for (size_t i = 0; i < samples.size(); ++i) {
            if (i)
                out += ',';
            writeSample(out, from + i, samples[i]);
        }
        out += "]}";
        return ok(out);
    }
    if (parts[1] == QLatin1String("locate")) {
        Parameters parameters(query, {"x"});
        parameters.text("x"); // required
        const qint64 x = parameters.signedValue("x", 0);
        if (!parameters.problem().isEmpty())
            return refused(400, parameters.problem());
        out = "{";
        numberMember(out, "index", file.locate(stream, x));
        out += '}';
        return ok(out);
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
        out = "{";
        signedMember(out, "from", x0);
        out += ',';
        signedMember(out, "to", x1);
        // Column by column, each member a list; a size of a column without such samples
        // is 0.
        auto list = [&](const char *name, auto value) {
            out += ",\"";
            out += name;
            out += "\":[";
            for (size_t i = 0; i < result.size(); ++i) {
                if (i)
                    out += ',';
                json::appendNumber(out, value(result[i]));
            }
            out += ']';
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
        out += '}';
        return ok(out);
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
    QByteArray out = "{";
    numberMember(out, "count", result.count);
    out += ",\"matches\":[";
    for (size_t i = 0; i < result.matches.size(); ++i) {
        if (i)
            out += ',';
        json::appendNumber(out, result.matches[i]);
    }
    out += "],\"elements\":[";
    bool first = true;
    for (const auto &[id, element] : elements) {
        if (!first)
            out += ',';
        first = false;
        writeElement(out, file, id, element);
    }
    out += "]}";
    return ok(out);
}

Answer pathAnswer(const FileIndex &file, const QUrlQuery &query)
{
    Parameters parameters(query, {"offset", "size"});
    const quint64 offset = parameters.unsignedValue("offset", ~quint64(0), std::nullopt);
    const quint64 size = parameters.unsignedValue("size", ~quint64(0), 0);
    if (!parameters.problem().isEmpty())
        return refused(400, parameters.problem());
    QByteArray out = "{\"elements\":[";
    bool first = true;
    for (quint64 id : file.pathTo(offset, endOf(offset, size))) {
        FileIndex::Element element;
        if (!file.element(id, &element))
            return readFailed(file);
        if (!first)
            out += ',';
        first = false;
        writeElement(out, file, id, element);
    }
    out += "]}";
    return ok(out);
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
        QByteArray out = "{\"version\":1,\"files\":[";
        for (size_t i = 0; i < files.size(); ++i) {
            if (i)
                out += ',';
            writeFile(out, i, files[i]);
        }
        out += "]}";
        return ok(out);
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

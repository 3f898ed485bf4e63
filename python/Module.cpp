// import sarvelinth: the report of a file, local or by URL, for Python programs. inspect()
// runs the plugins as the command does and keeps the samples of each stream as rows in C++, which
// become one NumPy array per stream; the element tree and the JSON document are made by parsing
// again when first asked for, so that asking for samples alone costs no memory per field.

#include "SampleArrays.h"

#include "Host.h"
#include "JsonWriter.h"
#include "PluginLoader.h"
#include "ReportTree.h"
#include "UrlSource.h"

#include <QCoreApplication>
#include <QDir>
#include <QFileInfo>

#include <pybind11/numpy.h>
#include <pybind11/pybind11.h>
#include <pybind11/stl.h>

#include <dlfcn.h>

#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <iterator>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace py = pybind11;

namespace {

std::string text(const QString &value)
{
    return value.toStdString();
}

// The plugins, loaded once from lib/ beside the module's folder, as the command loads them
// from lib/ beside its bin/.
const std::vector<PluginLoader::Plugin> &plugins()
{
    static PluginLoader loader;
    static std::once_flag loaded;
    std::call_once(loaded, [] {
        Dl_info info{};
        dladdr(reinterpret_cast<const void *>(&plugins), &info);
        const QString moduleDir = QFileInfo(QString::fromLocal8Bit(info.dli_fname)).path();
        loader.load(QDir::cleanPath(moduleDir + QStringLiteral("/../lib")));
    });
    return loader.plugins();
}

// What inspect() was asked for, kept to parse again for the tree and the JSON document.
struct Request {
    QString path;
    ContainerAbstract::Settings settings;
};

// Reading by URL waits for the network in an event loop, which needs an application object:
// one is made when the first URL comes, if the program has none.
void prepareForUrl(const QString &path)
{
    if (!UrlSource::isUrl(path) || QCoreApplication::instance())
        return;
    static int argc = 1;
    static char name[] = "sarvelinth";
    static char *argv[] = {name, nullptr};
    new QCoreApplication(argc, argv);
}

// Runs the plugins over the file, or the file a URL names, into writer without the
// interpreter's lock; returns the command's exit status for the file. A URL that cannot be
// read sets *urlProblem.
int run(const Request &request, ReportWriter &writer, QString *urlProblem)
{
    prepareForUrl(request.path);
    py::gil_scoped_release unlocked;
    bool errors = false;
    if (!UrlSource::isUrl(request.path))
        return reportFile(request.path, request.path, nullptr, plugins(), request.settings, writer,
                          nullptr, &errors);
    auto url = std::make_shared<UrlSource>(QUrl(request.path));
    int status = ExitFileFailed;
    if (url->open())
        status = reportFile(QUrl(request.path).path(), request.path, url, plugins(),
                            request.settings, writer, nullptr, &errors);
    if (!url->error().isEmpty()) {
        *urlProblem = url->error();
        status = ExitFileFailed;
    }
    return status;
}

// Raises the exception a file without a report calls for, with the tool's message.
[[noreturn]] void raise(int status, const QString &path, const QString &problem)
{
    const std::string message = text(path + QStringLiteral(": ") + problem);
    if (status == ExitNotTaken)
        throw py::value_error(message);
    PyObject *type = PyExc_OSError;
    if (problem == QLatin1String("no such file"))
        type = PyExc_FileNotFoundError;
    else if (problem == QLatin1String("is a directory"))
        type = PyExc_IsADirectoryError;
    PyErr_SetString(type, message.c_str());
    throw py::error_already_set();
}

// The writer behind the elements: the element tree of the report, nothing of its samples.
class TreeWriter : public ReportWriter {
public:
    ReportTree tree;
    QString error;

    void setContainerName(const QString &) override {}
    void reportError(const QString &, const QString &problem) override { error = problem; }
    void flush() override {}
    int writeError() const override { return 0; }
    void beginReport(const QString &fileName, quint64 fileSize) override
    {
        tree.beginReport(fileName, fileSize);
    }
    void endReport() override {}
    void beginElement(quint64 offset, quint64 size, const QString &name, qint64 index) override
    {
        tree.beginElement(offset, size, name, index);
    }
    void setElementOffset(quint64 offset) override { tree.setElementOffset(offset); }
    void setElementSize(quint64 size) override { tree.setElementSize(size); }
    void setElementNote(const QString &note) override { tree.setElementNote(note); }
    void setElementValue(const QString &value) override { tree.setElementValue(value); }
    void endElement() override { tree.endElement(); }
    void addField(bool bitField, quint64 offset, quint8 bitOffset, quint64 size,
                  const QString &name, const QString &value, const QString &extra,
                  const QString &comment, qint64 index) override
    {
        tree.addField(bitField, offset, bitOffset, size, name, value, extra, comment, index);
    }
    void addRawField(quint64 offset, quint64 size, const quint8 *data, const QString &name,
                     const QString &comment) override
    {
        tree.addRawField(offset, size, data, name, comment);
    }
    void beginStream(int, const StreamInfo &) override {}
    void addSample(quint64, const Sample &) override {}
    void addTrackSample(quint64, const TrackSample &) override {}
    void endStream() override {}
};

} // namespace

namespace {

// A field of the element tree, as Python sees it. A raw field's value is its bytes in hex.
struct Field {
    std::string kind; // "field" or "raw"
    std::string name;
    quint64 offset = 0;
    quint64 size = 0;
    std::string value;
    std::string comment;
    std::string extra;
    bool bitField = false;
    int bitOffset = 0;
    qint64 index = -1;
};

// An element of the tree: its fields and its child elements, each in file order.
struct Element {
    std::string name;
    quint64 offset = 0;
    quint64 size = 0;
    std::string note;
    std::string value;
    qint64 index = -1;
    std::vector<std::shared_ptr<Field>> fields;
    std::vector<std::shared_ptr<Element>> children;
};

std::shared_ptr<Element> elementOf(const ReportTree::Node &node)
{
    auto element = std::make_shared<Element>();
    element->name = text(node.name);
    element->offset = node.offset;
    element->size = node.size;
    element->note = text(node.note);
    element->value = text(node.value);
    element->index = node.index;
    for (const auto &child : node.children) {
        if (child->kind == ReportTree::Node::Element) {
            element->children.push_back(elementOf(*child));
            continue;
        }
        auto field = std::make_shared<Field>();
        const bool raw = child->kind == ReportTree::Node::Raw;
        field->kind = raw ? "raw" : "field";
        field->name = text(child->name);
        field->offset = child->offset;
        field->size = child->size;
        field->value = raw ? child->data.toHex().toStdString() : text(child->value);
        field->comment = text(child->comment);
        field->extra = text(child->extra);
        field->bitField = child->bitField;
        field->bitOffset = child->bitOffset;
        field->index = child->index;
        element->fields.push_back(std::move(field));
    }
    return element;
}

// The NumPy dtype of the rows, from their layout in C++.
py::dtype rowType(bool deep)
{
    py::list names, formats, offsets;
    const auto column = [&](const char *name, const char *format, size_t offset) {
        names.append(name);
        formats.append(format);
        offsets.append(offset);
    };
    // A deep row begins with the columns of every sample.
    static_assert(offsetof(TrackSampleRow, sample) == 0);
    column("index", "<u8", offsetof(SampleRow, index));
    column("offset", "<u8", offsetof(SampleRow, offset));
    column("size", "<u8", offsetof(SampleRow, size));
    column("dts", "<i8", offsetof(SampleRow, dts));
    column("pts", "<i8", offsetof(SampleRow, pts));
    column("duration", "<u4", offsetof(SampleRow, duration));
    column("key", "?", offsetof(SampleRow, key));
    if (deep) {
        column("presentation_time", "<i8", offsetof(TrackSampleRow, presentationTime));
        column("presented", "?", offsetof(TrackSampleRow, presented));
        column("chunk", "<u8", offsetof(TrackSampleRow, chunk));
        column("stsc_entry", "<i8", offsetof(TrackSampleRow, stscEntry));
        column("stts_entry", "<i8", offsetof(TrackSampleRow, sttsEntry));
        column("ctts_entry", "<i8", offsetof(TrackSampleRow, cttsEntry));
        column("moof", "<i8", offsetof(TrackSampleRow, moof));
        column("moof_offset", "<i8", offsetof(TrackSampleRow, moofOffset));
        column("traf", "<i8", offsetof(TrackSampleRow, traf));
        column("trun", "<i8", offsetof(TrackSampleRow, trun));
        column("trun_entry", "<i8", offsetof(TrackSampleRow, trunEntry));
    }
    py::dict layout;
    layout["names"] = names;
    layout["formats"] = formats;
    layout["offsets"] = offsets;
    layout["itemsize"] = deep ? sizeof(TrackSampleRow) : sizeof(SampleRow);
    return py::dtype::from_args(layout);
}

py::dict streamFacts(const SampleArrays::Stream &stream)
{
    const StreamInfo &info = stream.info;
    py::dict facts;
    facts["index"] = stream.index;
    facts["width"] = info.width;
    facts["height"] = info.height;
    facts["codec_id"] = info.codecId;
    facts["codec_name"] = text(info.codecName);
    facts["config_offset"] = info.configOffset;
    facts["config_size"] = info.configSize;
    facts["handler_type"] = text(info.handlerType);
    facts["box_path"] = text(info.boxPath);
    facts["samples"] = stream.rows.count();
    if (const std::optional<TrackFacts> &track = info.track) {
        facts["track_id"] = track->trackId;
        facts["timescale"] =
            track->timescale != 0 ? py::object(py::int_(track->timescale)) : py::object(py::none());
        facts["duration"] = track->duration;
        facts["language"] = text(track->language);
        facts["sample_entry"] = text(track->sampleEntry);
        if (track->channelCount != 0) {
            facts["channel_count"] = track->channelCount;
            facts["sample_rate"] = track->sampleRate;
        }
    }
    return facts;
}

py::dict partsOf(const CoverageParts &parts)
{
    // The parts in the order and under the names of the reports, in Python's spelling.
    static const char *const names[] = {
        "structure", "sample_data", "item_data", "unreferenced_media_data",
        "filler",    "unknown",     "trailing"};
    static_assert(std::size(names) == std::size(coveragePartNames));
    py::dict dict;
    for (size_t i = 0; i < std::size(names); ++i)
        dict[names[i]] = parts.*coveragePartNames[i].second;
    return dict;
}

// The report of one file: what inspect() gathered, and the arrays, tree and document made
// from it on first use.
class Report {
public:
    Report(Request request, std::unique_ptr<SampleArrays> gathered)
        : request(std::move(request))
        , data(std::move(gathered))
        , arrays(data->streams.size())
    {
    }

    std::string file() const { return text(data->fileName); }
    quint64 fileSize() const { return data->fileSize; }
    std::string container() const { return text(data->containerName); }

    py::list streams() const
    {
        py::list list;
        for (const SampleArrays::Stream &stream : data->streams)
            list.append(streamFacts(stream));
        return list;
    }

    py::object facts() const
    {
        if (!data->facts)
            return py::none();
        py::dict facts;
        facts["major_brand"] = text(data->facts->majorBrand);
        facts["timescale"] = data->facts->timescale;
        facts["duration"] = data->facts->duration;
        return facts;
    }

    py::array samples(size_t stream)
    {
        if (stream >= arrays.size())
            throw py::index_error(text(QStringLiteral("stream %1: the file has %2 streams")
                                           .arg(stream)
                                           .arg(arrays.size())));
        if (!arrays[stream]) {
            RowBlocks &rows = data->streams[stream].rows;
            py::array array(rowType(data->deep),
                            std::vector<py::ssize_t>{py::ssize_t(rows.count())});
            rows.moveTo(static_cast<char *>(array.mutable_data()));
            // The one array of the stream is handed out each time: nobody may change it.
            array.attr("flags").attr("writeable") = false;
            arrays[stream] = array;
        }
        return py::reinterpret_borrow<py::array>(arrays[stream]);
    }

    py::object problems() const
    {
        if (!request.settings.checkProblems)
            return py::none();
        py::list list;
        for (const Problem &problem : data->problems) {
            py::dict dict;
            dict["code"] = text(problem.code);
            dict["severity"] = severityName(problem.severity);
            dict["offset"] = problem.offset;
            dict["size"] = problem.size;
            dict["path"] = text(problem.path);
            dict["message"] = text(problem.message);
            list.append(dict);
        }
        return list;
    }

    py::object coverage() const
    {
        if (!data->coverage)
            return py::none();
        const Coverage &coverage = *data->coverage;
        py::dict dict = partsOf(coverage);
        dict["file_size"] = coverage.fileSize;
        dict["cell_size"] = coverage.cellSize;
        py::list cells;
        for (const CoverageParts &cell : coverage.cells)
            cells.append(partsOf(cell));
        dict["cells"] = cells;
        return dict;
    }

    std::shared_ptr<Element> elements()
    {
        if (!tree) {
            TreeWriter writer;
            QString urlProblem;
            const int status = run(request, writer, &urlProblem);
            if (status != ExitOk)
                raise(status, request.path, urlProblem.isEmpty() ? writer.error : urlProblem);
            tree = elementOf(writer.tree.root);
        }
        return tree;
    }

    std::string toJson() const
    {
        // The command's document: annotated keys with deep analysis or checks.
        const JsonWriter::Keys keys =
            request.settings.deepAnalysis || request.settings.checkProblems
                ? JsonWriter::Keys::Annotated
                : JsonWriter::Keys::Plain;
        char *buffer = nullptr;
        size_t length = 0;
        FILE *out = open_memstream(&buffer, &length);
        if (!out)
            throw std::bad_alloc();
        int status = ExitOk;
        QString urlProblem;
        {
            JsonWriter writer(out, keys);
            status = run(request, writer, &urlProblem);
            writer.finish();
        }
        std::fclose(out);
        std::string document(buffer, length);
        std::free(buffer);
        if (status != ExitOk)
            raise(status, request.path,
                  urlProblem.isEmpty() ? QStringLiteral("no longer reported as when inspected")
                                       : urlProblem);
        // One document a line: the line's end is no part of it.
        if (!document.empty() && document.back() == '\n')
            document.pop_back();
        return document;
    }

private:
    Request request;
    std::unique_ptr<SampleArrays> data;
    std::vector<py::object> arrays;
    std::shared_ptr<Element> tree;
};

int checkedBase(const char *name, int base)
{
    if (base < 2 || base > 36)
        throw py::value_error(std::string(name) + ": the base must be a number from 2 to 36, not " +
                              std::to_string(base));
    return base;
}

std::unique_ptr<Report> inspect(const py::object &path, bool deep, bool check, bool units,
                                int valueBase, int sizeBase, bool unknownData,
                                quint64 maxUnknownData)
{
    // As on the command line, units come with deep analysis.
    deep = deep || units;
    Request request;
    request.path = QString::fromStdString(py::str(py::module_::import("os").attr("fspath")(path)));
    request.settings.deepAnalysis = deep;
    request.settings.checkProblems = check;
    request.settings.sampleUnits = units;
    request.settings.valueBase = checkedBase("value_base", valueBase);
    request.settings.sizeBase = checkedBase("size_base", sizeBase);
    request.settings.showUnknownData = unknownData;
    request.settings.maxUnknownDataSize = maxUnknownData;
    auto gathered = std::make_unique<SampleArrays>(deep);
    QString urlProblem;
    const int status = run(request, *gathered, &urlProblem);
    if (status != ExitOk)
        raise(status, request.path, urlProblem.isEmpty() ? gathered->error : urlProblem);
    return std::make_unique<Report>(std::move(request), std::move(gathered));
}

} // namespace

PYBIND11_MODULE(sarvelinth, module)
{
    module.doc() = "The byte-exact report of ISO base media files (mp4, mov, fragmented mp4, "
                   "HEIF...): the element tree, the streams with their samples as NumPy arrays, "
                   "and the checks, as the sarvelinth command makes them.";

    py::class_<Field, std::shared_ptr<Field>>(module, "Field",
                                              "A field of an element: where it lies and what it "
                                              "holds.")
        .def_readonly("kind", &Field::kind, "'field', or 'raw' for bytes shown in hex")
        .def_readonly("name", &Field::name)
        .def_readonly("offset", &Field::offset, "offset in the file, in bytes")
        .def_readonly("size", &Field::size, "size in bytes (in bits for a bit field)")
        .def_readonly("value", &Field::value, "the value as the report shows it")
        .def_readonly("comment", &Field::comment)
        .def_readonly("extra", &Field::extra)
        .def_readonly("bit_field", &Field::bitField)
        .def_readonly("bit_offset", &Field::bitOffset)
        .def_readonly("index", &Field::index, "index in a list; -1 outside one")
        .def("__repr__", [](const Field &field) {
            return "<Field " + field.name + " @" + std::to_string(field.offset) + " = " +
                   field.value + ">";
        });

    py::class_<Element, std::shared_ptr<Element>>(
        module, "Element",
        "An element of the file (a box, a list entry) with its fields and its "
        "child elements. The tree's root has no name; its children are the "
        "top-level boxes.")
        .def_readonly("name", &Element::name)
        .def_readonly("offset", &Element::offset)
        .def_readonly("size", &Element::size)
        .def_readonly("note", &Element::note)
        .def_readonly("value", &Element::value)
        .def_readonly("index", &Element::index, "index in a list; -1 outside one")
        .def_readonly("fields", &Element::fields)
        .def_readonly("children", &Element::children)
        .def("__repr__", [](const Element &element) {
            return "<Element " + element.name + " @" + std::to_string(element.offset) + " size " +
                   std::to_string(element.size) + ">";
        });

    py::class_<Report>(module, "Report", "The report of one file, made by inspect().")
        .def_property_readonly("file", &Report::file, "the file's name as given")
        .def_property_readonly("file_size", &Report::fileSize)
        .def_property_readonly("container", &Report::container,
                               "the plugin that read the file, such as 'MP4'")
        .def_property_readonly("facts", &Report::facts,
                               "major_brand, timescale and duration of the file, or None")
        .def_property_readonly("streams", &Report::streams,
                               "the facts of each stream, as dicts, in index order")
        .def("samples", &Report::samples, py::arg("stream"),
             "The samples of a stream as a read-only NumPy structured array: index, offset, "
             "size, dts, pts, duration, key; with deep=True also presentation_time (valid where "
             "presented), chunk, stsc_entry, stts_entry, ctts_entry, moof, moof_offset, traf, "
             "trun and trun_entry (-1 where they do not apply). Without deep, only video "
             "streams list their samples, as in the command's report.")
        .def_property_readonly("problems", &Report::problems,
                               "with check=True the problems found, as dicts (code, severity, "
                               "offset, size, path, message); None without")
        .def_property_readonly("coverage", &Report::coverage,
                               "with check=True where the file's bytes went, as a dict; None "
                               "without")
        .def_property_readonly("elements", &Report::elements,
                               "the root of the element tree; made by parsing the file again "
                               "on first use")
        .def("to_json", &Report::toJson,
             "The command's JSON document of the file (sarvelinth --format json with the same "
             "options), made by parsing the file again.");

    module.def("inspect", &inspect, py::arg("path"), py::kw_only(), py::arg("deep") = false,
               py::arg("check") = false, py::arg("units") = false, py::arg("value_base") = 10,
               py::arg("size_base") = 10, py::arg("unknown_data") = true,
               py::arg("max_unknown_data") = 64,
               "Reads a file, or one an http:// or https:// URL names (with range requests), "
               "and returns its Report. deep, check, units, value_base, size_base, "
               "unknown_data and max_unknown_data are the command's --deep, --check, --units "
               "(the NAL units or OBUs of each sample in to_json(), and the codec checks), "
               "--value-base, --size-base, --no-unknown-data and --max-unknown-data. Parses "
               "without the interpreter's lock, so threads inspect files in parallel. Raises "
               "FileNotFoundError, IsADirectoryError or OSError when the file cannot be read and "
               "ValueError when no plugin takes it, with the command's message.");
}

#include "Support.h"

#include "JsonWriter.h"
#include "PluginLoader.h"
#include "TextWriter.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>
#include <QTemporaryDir>

#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <limits>

namespace {

const QString SourceDir = QStringLiteral(SARVELINTH_SOURCE_DIR);
const QString SampleFile = QStringLiteral("samples/sample.mp4");

// The test binary and the command are built side by side into bin/.
QString binDir()
{
    return QFileInfo(QFileInfo(QStringLiteral("/proc/self/exe")).canonicalFilePath()).path();
}

struct ToolRun {
    int exitCode = -1;
    QByteArray out;
    QByteArray err;
};

// Runs the command in the source directory, so that paths are given as a user would.
ToolRun runTool(const QStringList &arguments)
{
    QProcess process;
    process.setWorkingDirectory(SourceDir);
    process.start(binDir() + QStringLiteral("/sarvelinth"), arguments);
    ToolRun run;
    if (!process.waitForFinished(60000) || process.exitStatus() != QProcess::NormalExit)
        return run;
    run.exitCode = process.exitCode();
    run.out = process.readAllStandardOutput();
    run.err = process.readAllStandardError();
    return run;
}

// A FILE* that writes into memory, for feeding the writers directly.
class MemoryFile {
public:
    MemoryFile()
        : file(open_memstream(&data, &size))
    {
    }
    ~MemoryFile()
    {
        std::fclose(file);
        std::free(data);
    }
    FILE *get() const { return file; }
    std::string text() const
    {
        std::fflush(file);
        return std::string(data, size);
    }

private:
    char *data = nullptr;
    size_t size = 0;
    FILE *file;
};

// One small report that uses every kind of call: nested and list elements whose offset,
// size, note and value arrive late, a bit field, a raw field and a stream with samples.
void writeCraftedReport(ReportWriter &writer)
{
    const quint8 raw[] = {0x00, 0xAB, 0xFF};
    writer.setContainerName("MP4");
    writer.beginReport("in.mp4", 100);
    writer.beginElement(0, 100, "moov", -1);
    writer.addField(false, 0, 0, 4, "size", "100", QString(), "a comment", -1);
    // A list entry: opened without offset and size, which follow.
    writer.beginElement(0, 0, "entry", 3);
    writer.setElementOffset(8);
    writer.setElementSize(12);
    writer.addField(true, 8, 2, 5, "bits", "7", "x", QString(), 0);
    writer.endElement();
    writer.addRawField(20, 3, raw, "raw", "bytes");
    writer.setElementValue("v");
    writer.setElementNote("Unknown element!");
    writer.endElement();
    StreamInfo info;
    info.width = 64;
    info.height = 48;
    info.codecId = 28;
    info.configOffset = 40;
    info.configSize = 9;
    writer.beginStream(0, info);
    Sample sample;
    sample.offset = 48;
    sample.size = 1000;
    sample.dts = 0;
    sample.pts = 512;
    sample.duration = 512;
    sample.keyFrame = 1;
    writer.addSample(0, sample);
    sample.offset = std::numeric_limits<quint64>::max();
    sample.keyFrame = 0;
    writer.addSample(1, sample);
    writer.endStream();
    writer.endReport();
}

} // namespace

TEST(Host, LoaderFindsThePluginByFileNameAndResolvesItsEntryPoints)
{
    PluginLoader loader;
    loader.load(PluginLoader::defaultDirectory());
    EXPECT_TRUE(loader.problems().isEmpty()) << loader.problems().join("\n").toStdString();
    // The base library shares the name prefix but is no plugin.
    ASSERT_EQ(loader.plugins().size(), 1u);
    const PluginLoader::Plugin &plugin = loader.plugins().front();
    EXPECT_TRUE(plugin.path.endsWith("/libsarvelinth-container-mp4.so"));
    EXPECT_EQ(plugin.name, "MP4");
    EXPECT_EQ(plugin.extensions, QStringList({"mp4", "f4v"}));
    ASSERT_NE(plugin.createParser, nullptr);
    std::unique_ptr<ContainerAbstract> parser(plugin.createParser());
    EXPECT_NE(dynamic_cast<ContainerMP4 *>(parser.get()), nullptr);
}

TEST(Host, LoaderListsLibrariesThatDoNotLoad)
{
    QTemporaryDir dir;
    ASSERT_TRUE(dir.isValid());
    QFile broken(dir.filePath("libsarvelinth-container-broken.so"));
    ASSERT_TRUE(broken.open(QIODevice::WriteOnly));
    broken.write("not a shared library");
    broken.close();
    PluginLoader loader;
    loader.load(dir.path());
    EXPECT_TRUE(loader.plugins().empty());
    ASSERT_EQ(loader.problems().size(), 1);
    EXPECT_TRUE(loader.problems().front().startsWith(broken.fileName()));
}

TEST(Host, ExitStatusesAndMessages)
{
    QTemporaryDir dir;
    ASSERT_TRUE(dir.isValid());
    const QString movie = dir.filePath("clip.mov");
    ASSERT_TRUE(QFile::copy(SourceDir + "/" + SampleFile, movie));
    const QString noPlugins = dir.filePath("empty");
    ASSERT_TRUE(QDir().mkdir(noPlugins));

    const struct {
        QStringList arguments;
        int exitCode;
        QByteArray err; // whole stderr, or its start when it ends in "..."
    } cases[] = {
        {{SampleFile}, 0, "Container format:\tMP4\n"},
        {{"--format", "json", "--samples", SampleFile}, 0, "Container format:\tMP4\n"},
        {{"--value-base=16", "--size-base", "2", "--no-unknown-data", "--max-unknown-data", "0",
          SampleFile},
         0,
         "Container format:\tMP4\n"},
        {{"missing.mp4"}, 1, "sarvelinth: missing.mp4: no such file\n"},
        {{"samples"}, 1, "sarvelinth: samples: is a directory\n"},
        {{"missing.mp4", SampleFile},
         1,
         "sarvelinth: missing.mp4: no such file\nContainer format:\tMP4\n"},
        {{}, 2, "sarvelinth: no file given\n..."},
        {{"--bogus", SampleFile}, 2, "sarvelinth: unknown option '--bogus'\n..."},
        {{"-x", SampleFile}, 2, "sarvelinth: unknown option '-x'\n..."},
        {{"--format", "xml", SampleFile}, 2, "sarvelinth: --format: 'text', 'json' or 'html'..."},
        {{"--format"}, 2, "sarvelinth: --format needs a value\n..."},
        {{"--value-base", "1", SampleFile}, 2, "sarvelinth: --value-base: the base must..."},
        {{"--value-base", "37", SampleFile}, 2, "sarvelinth: --value-base: the base must..."},
        {{"--size-base=ten", SampleFile}, 2, "sarvelinth: --size-base: the base must..."},
        {{"--max-unknown-data", "-1", SampleFile}, 2, "sarvelinth: --max-unknown-data:..."},
        {{"--samples=yes", SampleFile}, 2, "sarvelinth: --samples takes no value\n..."},
        {{"--output"}, 2, "sarvelinth: --output needs a value\n..."},
        {{"-o", SampleFile, SampleFile},
         2,
         "sarvelinth: " + SampleFile.toUtf8() + ": is an input file; not overwritten\n"},
        {{"-o", noPlugins + "/missing/report.html", SampleFile},
         1,
         "sarvelinth: " + noPlugins.toUtf8() +
             "/missing/report.html: cannot write: No such file or directory\n"},
        {{movie},
         3,
         "sarvelinth: " + movie.toUtf8() +
             ": not a supported container format (supported: mp4, f4v)\n"},
        {{"--plugin-dir", noPlugins, SampleFile},
         3,
         "sarvelinth: no container plugins found in " + noPlugins.toUtf8() + "\n..."},
        {{movie, "missing.mp4"}, 3, "sarvelinth: ..."},
        {{"--help"}, 0, ""},
        {{"--version"}, 0, ""},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.arguments.join(' ').toStdString());
        const ToolRun run = runTool(c.arguments);
        EXPECT_EQ(run.exitCode, c.exitCode);
        if (c.err.endsWith("..."))
            EXPECT_TRUE(run.err.startsWith(c.err.chopped(3))) << run.err.toStdString();
        else
            EXPECT_EQ(run.err, c.err);
        // stdout carries reports only: nothing on a usage error.
        if (c.exitCode == 2) {
            EXPECT_TRUE(run.out.isEmpty());
        }
    }
}

TEST(Host, HelpAndVersionGoToStdout)
{
    EXPECT_TRUE(runTool({"-h"}).out.startsWith("Usage: sarvelinth [OPTIONS] FILE...\n"));
    EXPECT_TRUE(runTool({"--version"}).out.startsWith("sarvelinth "));
}

TEST(Host, TextReportOfTheSample)
{
    const ToolRun run = runTool({SampleFile});
    ASSERT_EQ(run.exitCode, 0);
    const QList<QByteArray> lines = run.out.split('\n');
    QFile sample(SourceDir + "/" + SampleFile);
    ASSERT_TRUE(sample.open(QIODevice::ReadOnly));
    const ReportTree tree = parseReport(sample.readAll());
    EXPECT_EQ(lines.value(0),
              SampleFile.toUtf8() + ": " + QByteArray::number(sample.size()) + " bytes, MP4");
    EXPECT_EQ(lines.value(1), "ftyp @0 size 32");
    EXPECT_EQ(lines.value(2), "  @0 +4         size = 32");
    // Each top-level element starts a line of its own at the left margin.
    for (const auto &element : tree.root.children) {
        const QString header = QStringLiteral("%1 @%2 size %3")
                                   .arg(element->name)
                                   .arg(element->offset)
                                   .arg(element->size);
        EXPECT_TRUE(lines.contains(header.toUtf8())) << header.toStdString();
    }
}

// Every node of the JSON document against the same file parsed in-process into a tree.
void expectSameNode(const QJsonObject &json, const ReportTree::Node &node)
{
    SCOPED_TRACE(node.name.toStdString());
    EXPECT_EQ(json.value("name").toString(), node.name);
    EXPECT_EQ(json.value("offset").toInteger(-1), qint64(node.offset));
    EXPECT_EQ(json.value("size").toInteger(-1), qint64(node.size));
    switch (node.kind) {
    case ReportTree::Node::Element: {
        EXPECT_EQ(json.size(), 8);
        EXPECT_EQ(json.value("kind").toString(), "element");
        EXPECT_EQ(json.value("index").toInteger(0), node.index);
        EXPECT_EQ(json.value("note").toString("-"), node.note);
        EXPECT_EQ(json.value("value").toString("-"), node.value);
        const QJsonArray children = json.value("children").toArray();
        ASSERT_EQ(size_t(children.size()), node.children.size());
        for (qsizetype i = 0; i < children.size(); ++i)
            expectSameNode(children[i].toObject(), *node.children[size_t(i)]);
        break;
    }
    case ReportTree::Node::Field:
        EXPECT_EQ(json.size(), 10);
        EXPECT_EQ(json.value("kind").toString(), "field");
        EXPECT_EQ(json.value("bitField").toBool(true), node.bitField);
        EXPECT_EQ(json.value("bitOffset").toInteger(-1), node.bitOffset);
        EXPECT_EQ(json.value("value").toString("-"), node.value);
        EXPECT_EQ(json.value("extra").toString("-"), node.extra);
        EXPECT_EQ(json.value("comment").toString("-"), node.comment);
        EXPECT_EQ(json.value("index").toInteger(0), node.index);
        break;
    case ReportTree::Node::Raw:
        EXPECT_EQ(json.size(), 6);
        EXPECT_EQ(json.value("kind").toString(), "raw");
        EXPECT_EQ(json.value("data").toString(), QString::fromLatin1(node.data.toHex()));
        EXPECT_EQ(json.value("comment").toString("-"), node.comment);
        break;
    }
}

TEST(Host, JsonReportIsOneValidDocumentPerFileLine)
{
    const ToolRun run = runTool({"--format", "json", SampleFile, "missing.mp4", "CMakeLists.txt"});
    EXPECT_EQ(run.exitCode, 3);
    ASSERT_TRUE(run.out.endsWith('\n'));
    const QList<QByteArray> lines = run.out.chopped(1).split('\n');
    ASSERT_EQ(lines.size(), 3);
    QJsonDocument documents[3];
    for (int i = 0; i < 3; ++i) {
        QJsonParseError error;
        documents[i] = QJsonDocument::fromJson(lines[i], &error);
        ASSERT_EQ(error.error, QJsonParseError::NoError) << error.errorString().toStdString();
        ASSERT_TRUE(documents[i].isObject());
    }

    const QJsonObject report = documents[0].object();
    EXPECT_EQ(report.keys(), QStringList({"container", "elements", "file", "fileSize", "streams"}));
    EXPECT_EQ(report.value("file").toString(), SampleFile);
    EXPECT_EQ(report.value("fileSize").toInteger(), QFileInfo(SourceDir + "/" + SampleFile).size());
    EXPECT_EQ(report.value("container").toString(), "MP4");
    EXPECT_TRUE(report.value("streams").isArray());

    QFile sample(SourceDir + "/" + SampleFile);
    ASSERT_TRUE(sample.open(QIODevice::ReadOnly));
    const ReportTree tree = parseReport(sample.readAll());
    const QJsonArray elements = report.value("elements").toArray();
    ASSERT_EQ(size_t(elements.size()), tree.root.children.size());
    for (qsizetype i = 0; i < elements.size(); ++i)
        expectSameNode(elements[i].toObject(), *tree.root.children[size_t(i)]);

    EXPECT_EQ(documents[1].object(),
              QJsonObject({{"file", "missing.mp4"}, {"error", "no such file"}}));
    EXPECT_EQ(documents[2].object().keys(), QStringList({"error", "file"}));
    EXPECT_EQ(documents[2].object().value("file").toString(), "CMakeLists.txt");
}

TEST(Host, OutputOptionWritesAnyFormatToTheFile)
{
    QTemporaryDir dir;
    ASSERT_TRUE(dir.isValid());
    const QString output = dir.filePath("report");
    const struct {
        QStringList arguments;
        QByteArray start;
    } cases[] = {
        {{"-o", output}, "samples/sample.mp4: 5932 bytes, MP4\n"},
        {{"--output", output, "--format", "json"}, "{\"file\":\"samples/sample.mp4\","},
        {{"--output=" + output, "--format=html"}, "<!DOCTYPE html>\n"},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.arguments.join(' ').toStdString());
        const ToolRun run = runTool(c.arguments + QStringList{SampleFile});
        EXPECT_EQ(run.exitCode, 0);
        EXPECT_TRUE(run.out.isEmpty());
        QFile report(output);
        ASSERT_TRUE(report.open(QIODevice::ReadOnly));
        EXPECT_TRUE(report.readAll().startsWith(c.start));
    }
}

TEST(Host, JsonWriterWritesTheWholeModelInOrder)
{
    MemoryFile file;
    {
        JsonWriter writer(file.get());
        writeCraftedReport(writer);
        writer.reportError("gone.mp4", "no such file");
    }
    expectGolden("Host/json-writer", QString::fromStdString(file.text()));
}

TEST(Host, JsonWriterKeepsStringsValidUtf8)
{
    const struct {
        QString text;
        std::string json; // as written between the quotes
    } cases[] = {
        {QString::fromLatin1("\x01\x1f\n\t\"\\/\x7f"), "\\u0001\\u001f\\u000a\\u0009\\\"\\\\/\x7f"},
        {QString::fromLatin1("Gr\xf6\xdf\x65 \xa9\xff"), "Gr\xc3\xb6\xc3\x9f\x65 \xc2\xa9\xc3\xbf"},
        {QString::fromUtf16(u"\u20ac \U0001F600"), "\xe2\x82\xac \xf0\x9f\x98\x80"},
        {QString::fromUtf16(u"a") + QChar(0xD800) + "b" + QChar(0xDC00), "a\xef\xbf\xbd"
                                                                         "b\xef\xbf\xbd"},
        {QString::fromLocal8Bit("\xff\xfe"), "\xef\xbf\xbd\xef\xbf\xbd"},
    };
    for (const auto &c : cases) {
        MemoryFile file;
        {
            JsonWriter writer(file.get());
            writer.reportError(c.text, QString());
        }
        EXPECT_EQ(file.text(), "{\"file\":\"" + c.json + "\",\"error\":\"\"}\n");
        const QJsonDocument document =
            QJsonDocument::fromJson(QByteArray::fromStdString(file.text()));
        EXPECT_TRUE(document.isObject()) << c.json;
    }
}

TEST(Host, JsonWriterClosesWhatTheParserLeftOpen)
{
    MemoryFile file;
    {
        JsonWriter writer(file.get());
        writer.setContainerName("MP4");
        writer.beginReport("a.mp4", 0);
        writer.endElement(); // nothing open: ignored
        writer.beginElement(0, 8, "a", -1);
        writer.beginElement(0, 8, "b", -1);
        writer.endReport();
    }
    expectGolden("Host/json-writer-unclosed", QString::fromStdString(file.text()));
}

TEST(Host, TextWriterShowsTheTreeAndStreams)
{
    for (const bool showSamples : {false, true}) {
        MemoryFile file;
        {
            TextWriter writer(file.get(), showSamples);
            writeCraftedReport(writer);
            writer.reportError("gone.mp4", "no such file"); // stderr's business only
        }
        expectGolden(showSamples ? "Host/text-writer-samples" : "Host/text-writer",
                     QString::fromStdString(file.text()));
    }
}

TEST(Host, TextWriterKeepsEachRecordOnOneLineAndSeparatesFiles)
{
    MemoryFile file;
    {
        TextWriter writer(file.get(), false);
        writer.setContainerName("MP4");
        for (const char *name : {"a.mp4", "b.mp4"}) {
            writer.beginReport(name, 8);
            writer.beginElement(0, 8, QString::fromLatin1("x\ny\x7f\xe9"), -1);
            writer.endElement();
            writer.endReport();
        }
    }
    EXPECT_EQ(file.text(), "a.mp4: 8 bytes, MP4\n"
                           "x\\x0ay\\x7f\xc3\xa9 @0 size 8\n"
                           "\n"
                           "b.mp4: 8 bytes, MP4\n"
                           "x\\x0ay\\x7f\xc3\xa9 @0 size 8\n");
}

TEST(Host, OutputBufferCarriesLongRecordsAcrossItsEdge)
{
    MemoryFile file;
    QString longText;
    std::string expected;
    for (int i = 0; i < 100; ++i) {
        longText += QString::fromUtf16(u"\u00e9\U0001F600\u0001");
        expected += "\xc3\xa9\xf0\x9f\x98\x80\\u0001";
    }
    {
        OutputBuffer out(file.get(), 64);
        out.appendText(longText, OutputBuffer::Escaping::Json);
        out.appendLiteral(" ");
        out.appendSigned(std::numeric_limits<qint64>::min());
        out.put(' ');
        out.appendUnsigned(0);
        out.put(' ');
        out.appendUnsignedPadded(42, 5);
        out.append(expected.data(), expected.size());
    }
    EXPECT_EQ(file.text(), expected + " -9223372036854775808 0    42" + expected);
}

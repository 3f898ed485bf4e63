// The command and its plugin loader, run as a user would, and its report writers fed
// directly: JSON, text, and HTML with its choice of the file's bytes, and the output buffer
// they all write through.

#include "Support.h"

#include "HtmlWriter.h"
#include "JsonWriter.h"
#include "OutputBuffer.h"
#include "Render.h"
#include "TextWriter.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>
#include <QProcessEnvironment>
#include <QRegularExpression>
#include <QTemporaryDir>

#include <gtest/gtest.h>

#include <cstdio>
#include <functional>

namespace {

const QString SourceDir = QStringLiteral(SARVELINTH_SOURCE_DIR);
const QString SampleFile = QStringLiteral("samples/sample.mp4");

struct ToolRun {
    int exitCode = -1;
    QByteArray out;
    QByteArray err;
};

// Runs the command built beside the test binary in dir, so that paths are given as a user
// would.
ToolRun runTool(const QStringList &arguments, const QString &dir = SourceDir)
{
    const QString bin =
        QFileInfo(QFileInfo(QStringLiteral("/proc/self/exe")).canonicalFilePath()).path();
    QProcess process;
    process.setWorkingDirectory(dir);
    process.start(bin + QStringLiteral("/sarvelinth"), arguments);
    if (!process.waitForFinished(60000) || process.exitStatus() != QProcess::NormalExit)
        return {};
    return {process.exitCode(), process.readAllStandardOutput(), process.readAllStandardError()};
}

bool writeFile(const QString &path, const QByteArray &content)
{
    QFile file(path);
    return file.open(QIODevice::WriteOnly) && file.write(content) == content.size();
}

// Everything written to a real FILE*.
QByteArray written(const std::function<void(FILE *)> &write)
{
    char *data = nullptr;
    size_t size = 0;
    FILE *file = open_memstream(&data, &size);
    write(file);
    std::fclose(file);
    const QByteArray text(data, qsizetype(size));
    std::free(data);
    return text;
}

// The JSON report of one file, as the command writes it.
QByteArray jsonReportOf(const QString &fileName, JsonWriter::Keys keys = JsonWriter::Keys::Plain)
{
    return written([&](FILE *out) {
        JsonWriter writer(out, keys);
        writer.setContainerName("MP4");
        TestParser().parse(fileName, writer);
        writer.finish();
    });
}

// One small report that uses every kind of call: nested and list elements whose offset,
// size, note and value arrive late, a bit field, a raw field, a comment that needs escaping
// and a stream with samples.
void writeCraftedReport(ReportWriter &&writer)
{
    const quint8 raw[] = {0x00, 0xAB, 0xFF};
    writer.setContainerName("MP4");
    writer.beginReport("in.mp4", 100);
    writer.beginElement(0, 100, "moov", -1);
    writer.addField(false, 0, 0, 4, "size", "100", QString(), "a \"comment\"\n", -1);
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
    info.codecName = "H.264";
    writer.beginStream(0, info);
    writer.addSample(0, Sample{48, 1000, 0, 512, 512, 1});
    writer.addSample(1, Sample{~0ULL, 1000, 0, 512, 512, 0});
    writer.endStream();
    writer.endReport();
    writer.reportError("gone.mp4", "no such file"); // the text writer leaves it to stderr
}

// The report documents of an HTML page, as written between their script tags.
QList<QByteArray> documentsOf(const QByteArray &page)
{
    const QByteArray scriptStart = "<script type=\"application/json\" class=\"report\">";
    QList<QByteArray> documents;
    for (qsizetype at = page.indexOf(scriptStart); at >= 0; at = page.indexOf(scriptStart, at)) {
        at += scriptStart.size();
        documents << page.mid(at, page.indexOf("</script>", at) - at);
    }
    return documents;
}

} // namespace

TEST(Host, ExitStatusesAndMessages)
{
    QTemporaryDir dir;
    const QString movie = dir.filePath("clip.mov");
    ASSERT_TRUE(QFile::copy(SourceDir + "/" + SampleFile, movie));
    const QString none = dir.filePath("empty");
    ASSERT_TRUE(QDir().mkdir(none));
    // A library named like a plugin that does not load is listed, and loading goes on.
    const QString broken = none + "/libsarvelinth-container-broken.so";
    ASSERT_TRUE(writeFile(broken, "not a shared library"));
    const QString ok = "Container format:\tMP4\n";
    const QString report = dir.filePath("report.json");
    // Media data and no movie: a problem of severity error.
    const QString damaged = dir.filePath("damaged.mp4");
    ASSERT_TRUE(writeFile(damaged, QByteArray::fromHex("000000106d6461740000000000000000")));
    const struct {
        QStringList arguments;
        int exitCode;
        QString err; // the whole of stderr; "..." stands for any text
    } cases[] = {
        // clang-format off
        {{"--format=json", "--samples", "--value-base=16", "--size-base", "2", "--no-unknown-data", "--max-unknown-data", "0", SampleFile}, 0, ok},
        {{"--help"}, 0, ""},
        {{"--version"}, 0, ""},
        {{}, 2, "sarvelinth: no file given\n..."},
        {{"--bogus", SampleFile}, 2, "sarvelinth: unknown option '--bogus'\n..."},
        {{"--format", "xml", SampleFile}, 2, "sarvelinth: --format: 'text', 'json', 'html', 'summary' or 'json+summary', not 'xml'\n..."},
        {{"--format"}, 2, "sarvelinth: --format needs a value\n..."},
        {{"--size-base=ten", SampleFile}, 2, "sarvelinth: --size-base: the base must..."},
        {{"--max-unknown-data", "-1", SampleFile}, 2, "sarvelinth: --max-unknown-data:..."},
        {{"--samples=yes", SampleFile}, 2, "sarvelinth: --samples takes no value\n..."},
        {{"--output", report, "--format", "json", SampleFile, "no.mp4"}, 1, ok + "sarvelinth: no.mp4: no such file\n"},
        {{"-o", SampleFile, SampleFile}, 2, "sarvelinth: " + SampleFile + ": is an input file; not overwritten\n"},
        {{"-o", none + "/missing/x", SampleFile}, 1, "sarvelinth: " + none + "/missing/x: cannot write: No such file or directory\n"},
        // A suffix that deep analysis takes: the message says how to read it.
        {{movie}, 3, "sarvelinth: " + movie + ": not a supported container format (supported: mp4, f4v); --deep reads .mov files\n"},
        // The worst problem of several files decides; a report that cannot be written does not
        // stop the files behind it.
        {{"no.mp4", movie, SampleFile}, 3, "sarvelinth: no.mp4: no such file\nsarvelinth: " + movie + ": not a supported...\n" + ok},
        // With --check a problem of severity error gives 4, unless something worse happened.
        {{"--check", SampleFile, damaged}, 4, ok + ok},
        {{"--check", damaged, "no.mp4"}, 1, ok + "sarvelinth: no.mp4: no such file\n"},
        {{"-o", "/dev/full", SampleFile, "no.mp4", SampleFile}, 1, ok + "sarvelinth: no.mp4: no such file\n" + ok + "sarvelinth: /dev/full: cannot write the report: No space left on device\n"},
        {{"--plugin-dir", none, SampleFile}, 3, "sarvelinth: " + broken + ": ...\nsarvelinth: no container plugins found in " + none + "\n..."},
        // clang-format on
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.arguments.join(' ').toStdString());
        const ToolRun run = runTool(c.arguments);
        EXPECT_EQ(run.exitCode, c.exitCode);
        QString pattern;
        for (const QString &part : c.err.split("..."))
            pattern += QRegularExpression::escape(part) + ".*";
        const QRegularExpression err("\\A" + pattern.chopped(2) + "\\z",
                                     QRegularExpression::DotMatchesEverythingOption);
        EXPECT_TRUE(err.match(QString::fromUtf8(run.err)).hasMatch()) << run.err.toStdString();
        // stdout carries reports only: nothing on a usage error.
        EXPECT_TRUE(c.exitCode != 2 || run.out.isEmpty());
    }
    EXPECT_TRUE(runTool({"-h"}).out.startsWith("Usage: sarvelinth [OPTIONS] FILE...\n"));
    EXPECT_TRUE(runTool({"--version"}).out.startsWith("sarvelinth "));
    // The JSON report is the JSON writer's document, on one line for each file, errors too.
    QByteArray json = jsonReportOf(SourceDir + "/" + SampleFile);
    json.replace("{\"file\":\"" + SourceDir.toUtf8() + "/", "{\"file\":\"");
    QFile reportFile(report);
    ASSERT_TRUE(reportFile.open(QIODevice::ReadOnly));
    EXPECT_EQ(reportFile.readAll(), json + "{\"file\":\"no.mp4\",\"error\":\"no such file\"}\n");
}

// "-" reads standard input to a spool that every mode can seek in, and reports it under the
// name "-", or that of --name, whose suffix decides the format; the spool is gone after.
TEST(Host, StandardInputIsReportedLikeTheFile)
{
    QTemporaryDir spoolDir;
    const auto runOnInput = [&](const QStringList &arguments) {
        QProcess process;
        QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
        environment.insert("TMPDIR", spoolDir.path());
        process.setProcessEnvironment(environment);
        process.setWorkingDirectory(SourceDir);
        process.setStandardInputFile(SourceDir + "/" + SampleFile);
        process.start(QFileInfo(QFileInfo("/proc/self/exe").canonicalFilePath()).path() +
                          "/sarvelinth",
                      arguments);
        const bool finished = process.waitForFinished(60000);
        EXPECT_TRUE(finished);
        return ToolRun{process.exitCode(), process.readAllStandardOutput(),
                       process.readAllStandardError()};
    };
    const QByteArray name = SampleFile.toUtf8();
    for (const QStringList &options :
         {QStringList{}, QStringList{"--format", "json"},
          QStringList{"--deep", "--check", "--format", "json"}, QStringList{"--format", "html"}}) {
        SCOPED_TRACE(options.join(' ').toStdString());
        const ToolRun file = runTool(options + QStringList{SampleFile});
        const ToolRun input = runOnInput(options + QStringList{"-"});
        EXPECT_EQ(input.exitCode, 0);
        EXPECT_EQ(input.err, file.err);
        QByteArray expected = file.out;
        expected.replace("\"" + name + "\"", "\"-\"").replace(name + ":", "-:");
        EXPECT_EQ(input.out, expected);
    }
    // --name gives the name shown and the suffix judged: a mov only with --deep.
    EXPECT_EQ(runOnInput({"--name", "clip.mov", "-"}).exitCode, 3);
    const ToolRun deep = runOnInput({"--deep", "--format=json", "--name", "clip.mov", "-"});
    EXPECT_EQ(deep.exitCode, 0);
    EXPECT_TRUE(deep.out.startsWith("{\"file\":\"clip.mov\",\"fileSize\":5932,"));
    EXPECT_TRUE(QDir(spoolDir.path()).isEmpty());
    EXPECT_EQ(runTool({"--name", "x.mp4", SampleFile}).exitCode, 2);
    EXPECT_EQ(runTool({"-", "-"}).exitCode, 2);
}

// Files that are no MP4 at all under an .mp4 name are still reported, as what the box walk
// makes of them; the files that cannot be read are named on stderr and do not stop the
// others.
TEST(Host, FilesThatAreNoMP4AreReportedAsUnknownElements)
{
    QTemporaryDir dir;
    ASSERT_TRUE(QDir(dir.path()).mkdir("folder.mp4"));
    const QStringList names = {"empty.mp4", "zeros.mp4", "notes.mp4", "tiny.mp4"};
    const QByteArray contents[] = {"", QByteArray(1000, '\0'),
                                   "This is a plain text file, not a movie.\n", "abc"};
    for (int i = 0; i < names.size(); ++i)
        ASSERT_TRUE(writeFile(dir.filePath(names[i]), contents[i]));
    const ToolRun run = runTool(QStringList{"missing.mp4", "folder.mp4"} + names, dir.path());
    EXPECT_EQ(run.exitCode, 1);
    EXPECT_EQ(run.err, "sarvelinth: missing.mp4: no such file\n"
                       "sarvelinth: folder.mp4: is a directory\n" +
                           QByteArray("Container format:\tMP4\n").repeated(4));
    expectGolden("Host/files-that-are-no-mp4", QString::fromUtf8(run.out));
}

// The summary of each file tells what its full report does: brand and duration as its boxes
// give them, each stream's handler, codec and samples, and its problems by severity and code.
// With json+summary each file's report line comes first, then its summary line.
TEST(SummaryWriter, SummariesAgreeWithTheReportsTheyFollow)
{
    QStringList files =
        QDir(SourceDir + "/tests/data")
            .entryList({"*.mp4", "*.mov", "*.m4a", "*.m4s"}, QDir::Files, QDir::Name)
            .replaceInStrings(QRegularExpression("^"), "tests/data/");
    files << "no.mp4";
    const QStringList options = {"--check", "--deep"};
    const QList<QByteArray> reports =
        runTool(QStringList{"--format=json"} + options + files).out.split('\n');
    const QList<QByteArray> summaries =
        runTool(QStringList{"--format=summary"} + options + files).out.split('\n');
    const QList<QByteArray> both =
        runTool(QStringList{"--format=json+summary"} + options + files).out.split('\n');
    ASSERT_EQ(reports.size(), files.size() + 1);
    ASSERT_EQ(summaries.size(), files.size() + 1);

    qsizetype line = 0;
    for (qsizetype i = 0; i < files.size(); ++i) {
        SCOPED_TRACE(files[i].toStdString());
        const QJsonObject report = QJsonDocument::fromJson(reports[i]).object();
        const QJsonObject summary = QJsonDocument::fromJson(summaries[i]).object();
        EXPECT_EQ(both.value(line++), reports[i]);
        if (report.contains("error")) {
            EXPECT_EQ(summaries[i], reports[i]);
            continue;
        }
        EXPECT_EQ(both.value(line++), summaries[i]);

        // The first brand and the movie header's times, from the box tree.
        QString brand;
        QJsonValue timescale, duration;
        for (const QJsonValue &box : report["elements"].toArray()) {
            for (const QJsonValue &child : box["children"].toArray()) {
                const QString name = child["name"].toString();
                if (name == "major_brand" && brand.isEmpty())
                    brand = child["value"].toString();
                for (const QJsonValue &field : child["children"].toArray()) {
                    if (child["name"] == "mvhd" && field["name"] == "timescale")
                        timescale = field["value"].toString().toLongLong();
                    if (child["name"] == "mvhd" && field["name"] == "duration")
                        duration = field["value"].toString().toLongLong();
                }
            }
        }
        EXPECT_EQ(summary["majorBrand"], brand.isEmpty() ? QJsonValue() : QJsonValue(brand));
        EXPECT_EQ(summary["timescale"], timescale.isUndefined() ? QJsonValue() : timescale);
        EXPECT_EQ(summary["duration"], duration.isUndefined() ? QJsonValue() : duration);

        const QJsonArray streams = report["streams"].toArray();
        ASSERT_EQ(summary["streams"].toArray().size(), streams.size());
        for (qsizetype s = 0; s < streams.size(); ++s) {
            const QJsonValue stream = summary["streams"][s];
            for (const char *key : {"index", "handlerType", "codecName", "sampleEntry"})
                EXPECT_EQ(stream[key], streams[s][key]) << key;
            EXPECT_EQ(stream["samples"].toInteger(), streams[s]["samples"].toArray().size());
        }
        QJsonObject counts{{"error", 0}, {"warning", 0}, {"info", 0}};
        QJsonArray codes;
        for (const QJsonValue &problem : report["problems"].toArray()) {
            counts[problem["severity"].toString()] =
                counts[problem["severity"].toString()].toInt() + 1;
            if (!codes.contains(problem["code"]))
                codes.append(problem["code"]);
        }
        EXPECT_EQ(summary["problems"], counts);
        EXPECT_EQ(summary["problemCodes"], codes);
    }
    EXPECT_EQ(both.value(line), "");

    // Without checks a summary has no problems; without deep analysis no sample entries, and
    // samples only of video.
    expectGolden("Host/summaries",
                 QString::fromUtf8(runTool(QStringList{"--format=summary"} + files).out));
}

TEST(Host, WritersShowTheWholeModelInOrder)
{
    expectGolden("Host/json-writer",
                 written([](FILE *out) { writeCraftedReport(JsonWriter(out)); }));
    expectGolden("Host/text-writer",
                 written([](FILE *out) { writeCraftedReport(TextWriter(out, false)); }));
    expectGolden("Host/text-writer-samples",
                 written([](FILE *out) { writeCraftedReport(TextWriter(out, true)); }));
}

// One page for all reports; each embeds the JSON writer's document and the file's bytes as
// the byte selection chooses them, under a limit of its own.
// --units: the units of every sample under it in the text report, and the stream facts of
// the parameter sets, for an HEVC and an AV1 file.
TEST(TextWriter, SamplesWithTheirUnits)
{
    const ToolRun run = runTool(
        {"--samples", "--units", "--check", "tests/data/deep-hevc.mp4", "tests/data/deep-av1.mp4"});
    EXPECT_EQ(run.exitCode, 0);
    // The streams with their samples; the boxes are the business of the deep tests.
    QString streams;
    bool inStream = false;
    for (const QString &line : QString::fromUtf8(run.out).split('\n')) {
        inStream = inStream || line.startsWith(QLatin1String("stream "));
        if (inStream)
            streams += line + '\n';
        inStream = inStream && !line.endsWith(QLatin1String(" samples"));
    }
    expectGolden(QStringLiteral("Host/text-writer-units"), streams);
}

TEST(HtmlWriter, OnePageEmbedsEachJsonDocumentWithTheBytesOfItsBoxes)
{
    const QString sample = SourceDir + "/" + SampleFile;
    const QByteArray page = written([&](FILE *out) {
        HtmlWriter writer(out, 1600); // more than one file's selection, less than two
        for (int i = 0; i < 2; ++i) {
            writer.setContainerName("MP4");
            TestParser().parse(sample, writer);
        }
        writer.reportError("gone.mp4", "no such file");
        writer.finish();
    });
    EXPECT_EQ(page.lastIndexOf("<!DOCTYPE html>\n"), 0);
    EXPECT_TRUE(page.endsWith("</html>\n"));
    QFile file(sample);
    ASSERT_TRUE(file.open(QIODevice::ReadOnly));
    const QByteArray bytes = file.readAll();
    // ftyp, the header of free (it has no payload) and of mdat, then the whole moov.
    const QByteArray document =
        jsonReportOf(sample, JsonWriter::Keys::Annotated).chopped(2) +
        ",\"embeddedBytes\":{\"limit\":1600,\"limitReachedAt\":null,\"readError\":\"\","
        "\"ranges\":[{\"offset\":0,\"data\":\"" +
        bytes.left(48).toBase64() + "\"},{\"offset\":4457,\"data\":\"" +
        bytes.mid(4457).toBase64() + "\"}]}}\n";
    EXPECT_EQ(documentsOf(page),
              QList<QByteArray>(
                  {document, document, "{\"file\":\"gone.mp4\",\"error\":\"no such file\"}\n"}));
}

TEST(HtmlWriter, HostileTextsStayInsideTheScriptElement)
{
    // Every opening of markup, quotes, non-ASCII letters, line separators and controls.
    const QString hostile[] = {
        "</script><script>alert(1)</script></SCRIPT ><!--<script>\"quoted\" \\ 'single' & <b>",
        QString::fromLatin1("\xa9too \xff\x80\x00\x01\n", 10) +
            QString::fromUtf16(u"line\u2028paragraph\u2029end")};
    const auto writeHostile = [&](ReportWriter &&writer) {
        writer.setContainerName("MP4");
        writer.beginReport("in.mp4", 100);
        for (const QString &text : hostile) {
            writer.beginElement(0, 8, text, -1);
            writer.addField(false, 0, 0, 4, text, text, text, text, -1);
            writer.setElementNote(text);
            writer.setElementValue(text);
            writer.endElement();
        }
        writer.endReport();
        writer.reportError(hostile[0], hostile[1]);
        writer.finish();
    };
    const QByteArray page = written([&](FILE *out) { writeHostile(HtmlWriter(out)); });
    const QList<QByteArray> json =
        written([&](FILE *out) { writeHostile(JsonWriter(out)); }).split('\n');

    const QList<QByteArray> documents = documentsOf(page);
    ASSERT_EQ(documents.size(), 2);
    // Nothing ends a report's script element early: the page holds exactly its own tags.
    EXPECT_EQ(page.count("</script>"), documents.size() + 1);
    for (int i = 0; i < 2; ++i) {
        for (const char *opening : {"</", "<!", "\xe2\x80\xa8", "\xe2\x80\xa9"})
            EXPECT_FALSE(documents[i].contains(opening)) << opening;
        // Read back, the texts are those of the JSON writer's document.
        QJsonObject report = QJsonDocument::fromJson(documents[i]).object();
        report.remove("embeddedBytes");
        EXPECT_EQ(report, QJsonDocument::fromJson(json[i]).object());
    }
    const QJsonArray elements = QJsonDocument::fromJson(json[0]).object()["elements"].toArray();
    for (qsizetype i = 0; i < elements.size(); ++i)
        EXPECT_EQ(elements[i]["children"][0]["comment"].toString(), hostile[i]);
}

// The bytes a page carries of a file: every box but media data and filler, and of data the
// parser does not read only the head. A file that is gone by the time its bytes are read gives
// its reason instead.
TEST(HtmlWriter, EmbeddedBytesLeaveOutMediaAndKeepTheHeadOfUnreadData)
{
    using namespace bytes;
    QTemporaryDir dir;
    const QString path = dir.filePath("crafted.mp4");
    const QByteArray file = cat({
        box("ftyp", text("isom") + u32(0) + text("isom")), // @0, 20 bytes
        box("free", zeros(100)),                           // @20: payload left out
        box("abcd", zeros(9992)),                          // @128: unknown, head kept
        fullBox("iods", 0, 0, zeros(9988)),                // @10128: data, head kept
        box("mdat", zeros(100)),                           // @20128: payload left out
        u32(1000) + text("moov") + box("udta"),            // @20236: past the end of the file
    });
    ASSERT_TRUE(writeFile(path, file));
    const auto embedded = [](const std::function<void(HtmlWriter &)> &report) {
        const QByteArray page = written([&](FILE *out) {
            HtmlWriter writer(out);
            writer.setContainerName("MP4");
            report(writer);
            writer.finish();
        });
        return QJsonDocument::fromJson(documentsOf(page).value(0))
            .object()["embeddedBytes"]
            .toObject();
    };
    const QJsonObject bytes =
        embedded([&](HtmlWriter &writer) { TestParser().parse(path, writer); });
    QString ranges;
    for (const QJsonValue &range : bytes["ranges"].toArray()) {
        const QByteArray data = QByteArray::fromBase64(range["data"].toString().toLatin1());
        const qint64 offset = range["offset"].toInteger();
        EXPECT_EQ(data, file.mid(offset, data.size()));
        ranges += QStringLiteral("%1+%2 ").arg(offset).arg(data.size());
    }
    EXPECT_EQ(ranges, "0+28 128+4096 10128+4096 20128+8 20236+16 ");
    EXPECT_EQ(bytes["readError"].toString(), "");

    const QJsonObject gone = embedded([&](HtmlWriter &writer) {
        writer.beginReport(dir.filePath("gone.mp4"), 100);
        writer.beginElement(0, 100, "moov", -1);
        writer.endElement();
        writer.endReport();
    });
    EXPECT_EQ(gone["readError"].toString(), "No such file or directory");
    EXPECT_EQ(gone["ranges"].toArray().size(), 0);
}

TEST(NumberText, HasTheDigitsOfQStringNumberInEveryBase)
{
    Render::NumberText number;
    for (int base = 2; base <= 36; ++base) {
        for (quint64 value : {0ULL, 1ULL, quint64(base - 1), quint64(base), 4294967295ULL, ~0ULL})
            EXPECT_EQ(number.render(value, base), QString::number(value, base)) << base;
    }
    // The text is reused, but copies of earlier numbers keep their digits.
    const QString first = number.render(12345, 10);
    number.render(4294967295ULL, 16);
    EXPECT_EQ(first, QStringLiteral("12345"));
}

// The buffer's fast paths against the obvious output: numbers of every digit count, padding,
// escapes and long texts, through a buffer so small that every piece meets its edge.
TEST(OutputBuffer, PiecesCrossingTheBufferEdgeComeOutWhole)
{
    QByteArray expected;
    const QByteArray got = written([&](FILE *file) {
        OutputBuffer out(file, 64); // the smallest buffer there is
        for (quint64 value = 1; value != 0; value *= 10) {
            for (quint64 v : {value - 1, value, ~0ULL / value}) {
                out.appendUnsigned(v);
                out.appendSigned(-qint64(v >> 1));
                out.appendUnsignedPadded(v, 12);
                out.appendText(QStringLiteral("\"</é\n") + QString(QChar(0xD800)),
                               OutputBuffer::Escaping::Script);
                expected += QByteArray::number(v) + QByteArray::number(-qint64(v >> 1)) +
                            QByteArray::number(v).rightJustified(12, ' ') +
                            "\\\"<\\/\xc3\xa9\\u000a\xef\xbf\xbd";
            }
            if (value > ~0ULL / 10)
                break;
        }
        out.appendText(QString(300, 'x'), OutputBuffer::Escaping::Plain);
        expected += QByteArray(300, 'x');
    });
    EXPECT_EQ(got, expected);
}

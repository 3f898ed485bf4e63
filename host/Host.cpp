#include "Host.h"

#include "CommandLine.h"
#include "HtmlWriter.h"
#include "InputDevice.h"
#include "JsonWriter.h"
#include "Manifest.h"
#include "PackageReport.h"
#include "PluginLoader.h"
#include "ServeIndex.h"
#include "Server.h"
#include "SourceBytes.h"
#include "SummaryWriter.h"
#include "TextWriter.h"
#include "UrlSource.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QTemporaryFile>

#include <cerrno>
#include <cstring>
#include <memory>

namespace {

void message(FILE *err, const QString &text)
{
    if (err)
        std::fprintf(err, "sarvelinth: %s\n", text.toUtf8().constData());
}

void fileMessage(FILE *err, const QString &fileName, const QString &problem)
{
    message(err, fileName + QStringLiteral(": ") + problem);
}

QString supportedSuffixes(const std::vector<PluginLoader::Plugin> &plugins)
{
    QStringList suffixes;
    for (const auto &plugin : plugins)
        suffixes << plugin.extensions;
    return suffixes.join(QStringLiteral(", "));
}

} // namespace

int reportFile(const QString &path, const QString &fileName, const std::shared_ptr<UrlSource> &url,
               const std::vector<PluginLoader::Plugin> &plugins,
               const ContainerAbstract::Settings &settings, ReportWriter &writer, FILE *err,
               bool *errors)
{
    // The plugins decide by name alone, so a file that is not there is caught first: it
    // gets the same answer whatever its name.
    QString problem;
    if (!url && !InputDevice().openFile(path, &problem)) {
        fileMessage(err, fileName, problem);
        writer.reportError(fileName, problem);
        return ExitFileFailed;
    }
    for (const auto &plugin : plugins) {
        std::unique_ptr<ContainerAbstract> parser(plugin.createParser());
        if (!parser)
            continue;
        parser->configure(settings);
        writer.setContainerName(plugin.name);
        if (url)
            parser->readFrom(url.get());
        writer.setSource(url ? std::make_shared<SourceBytes>(url)
                             : std::make_shared<SourceBytes>(path));
        switch (parser->parse(path, writer, &problem, fileName)) {
        case ContainerAbstract::RunNotThisFormat:
            continue;
        case ContainerAbstract::RunOpenFailed:
            fileMessage(err, fileName, problem);
            writer.reportError(fileName, problem);
            return ExitFileFailed;
        case ContainerAbstract::RunOk:
            *errors = *errors || parser->problemCounts().errors > 0;
            return ExitOk;
        }
    }

    problem = plugins.empty() ? QStringLiteral("no container plugin is loaded")
                              : QStringLiteral("not a supported container format (supported: %1)")
                                    .arg(supportedSuffixes(plugins));
    // A suffix that only deep analysis takes: the refusal says how to read the file.
    const QString suffix = QFileInfo(fileName).suffix().toLower();
    for (const auto &plugin : plugins) {
        if (!settings.deepAnalysis && !suffix.isEmpty() &&
            plugin.deepExtensions.contains(suffix)) {
            problem += QStringLiteral("; --deep reads .%1 files").arg(suffix);
            break;
        }
    }
    fileMessage(err, fileName, problem);
    writer.reportError(fileName, problem);
    return ExitNotTaken;
}

namespace {

// Reports the files as one presentation with the first plugin that joins them; returns the
// status as reportFile does.
int reportJoined(const QStringList &fileNames, const std::vector<PluginLoader::Plugin> &plugins,
                 const Options &options, ReportWriter &writer, FILE *err, bool *errors)
{
    QString problem;
    for (const QString &fileName : fileNames) {
        if (!InputDevice().openFile(fileName, &problem)) {
            fileMessage(err, fileName, problem);
            writer.reportError(fileName, problem);
            return ExitFileFailed;
        }
    }
    for (const auto &plugin : plugins) {
        std::unique_ptr<ContainerAbstract> parser(plugin.createParser());
        if (!parser)
            continue;
        parser->configure(options.settings);
        writer.setContainerName(plugin.name);
        switch (parser->parseJoined(fileNames, writer, &problem)) {
        case ContainerAbstract::RunNotThisFormat:
            continue;
        case ContainerAbstract::RunOpenFailed:
            message(err, problem);
            writer.reportError(fileNames.first(), problem);
            return ExitFileFailed;
        case ContainerAbstract::RunOk:
            *errors = *errors || parser->problemCounts().errors > 0;
            return ExitOk;
        }
    }
    problem = QStringLiteral("no container plugin joins these files");
    fileMessage(err, fileNames.first(), problem);
    writer.reportError(fileNames.first(), problem);
    return ExitNotTaken;
}

// Reads standard input into a temporary file, removed when it is destroyed, so that every
// mode can seek in it. The spool bears the suffix of the name shown, or mp4 when that has
// none, since the plugins judge a file by its name. Returns null with *error set when it fails.
std::unique_ptr<QTemporaryFile> spoolStandardInput(const QString &shownName, QString *error)
{
    QString suffix = QFileInfo(shownName).suffix();
    // The template's own placeholder stays the only one; suffixes are judged in any case.
    suffix.replace(QLatin1String("XXXXXX"), QLatin1String("xxxxxx"));
    auto spool = std::make_unique<QTemporaryFile>(
        QDir::tempPath() + QStringLiteral("/sarvelinth-stdin-XXXXXX.") +
        (suffix.isEmpty() ? QStringLiteral("mp4") : suffix));
    if (!spool->open()) {
        *error = QStringLiteral("cannot make a temporary file for standard input: %1")
                     .arg(spool->errorString());
        return nullptr;
    }
    QFile input;
    if (!input.open(stdin, QIODevice::ReadOnly)) {
        *error = QStringLiteral("cannot read standard input: %1").arg(input.errorString());
        return nullptr;
    }
    constexpr qint64 BlockSize = 1024 * 1024;
    QByteArray block(BlockSize, Qt::Uninitialized);
    qint64 got = 0;
    while ((got = input.read(block.data(), BlockSize)) > 0) {
        if (spool->write(block.constData(), got) != got)
            break;
    }
    if (got < 0) {
        *error = QStringLiteral("cannot read standard input: %1").arg(input.errorString());
        return nullptr;
    }
    if (got > 0 || !spool->flush()) {
        *error = QStringLiteral("cannot write standard input to %1: %2")
                     .arg(spool->fileName(), spool->errorString());
        return nullptr;
    }
    spool->close();
    return spool;
}

// Reports a file read by URL: its path judges the format. Errors of reading that come up
// during the parse fail the file after its report. With verbose, tells what it cost.
int reportUrl(const QString &name, const Options &options,
              const std::vector<PluginLoader::Plugin> &plugins, ReportWriter &writer, FILE *err,
              bool *errors)
{
    auto url = std::make_shared<UrlSource>(QUrl(name));
    int status = ExitOk;
    if (!url->open()) {
        fileMessage(err, name, url->error());
        writer.reportError(name, url->error());
        status = ExitFileFailed;
    } else {
        status = reportFile(QUrl(name).path(), name, url, plugins, options.settings, writer, err,
                            errors);
        if (status == ExitOk && !url->error().isEmpty()) {
            fileMessage(err, name, url->error());
            status = ExitFileFailed;
        }
    }
    if (options.verbose)
        fileMessage(err, name,
                    QStringLiteral("%1 requests, %2 bytes received")
                        .arg(url->requestCount())
                        .arg(url->bytesReceived()));
    return status;
}

// Opens the file the report goes to. Refuses one of the input files, which opening it
// for writing would destroy before it is read.
FILE *openOutput(const Options &options, FILE *err, int *status)
{
    const QString target = QFileInfo(options.outputFile).canonicalFilePath();
    for (const QString &fileName : options.files) {
        if (!target.isEmpty() && QFileInfo(fileName).canonicalFilePath() == target) {
            fileMessage(err, options.outputFile,
                        QStringLiteral("is an input file; not overwritten"));
            *status = ExitUsage;
            return nullptr;
        }
    }
    FILE *file = std::fopen(QFile::encodeName(options.outputFile).constData(), "wb");
    if (!file) {
        fileMessage(
            err, options.outputFile,
            QStringLiteral("cannot write: %1").arg(QString::fromLocal8Bit(std::strerror(errno))));
        *status = ExitFileFailed;
    }
    return file;
}

} // namespace

int runHost(const QStringList &arguments, FILE *out, FILE *err)
{
    Options options;
    QString error;
    // ./run names the sample file here, so that it is shown when no file is given.
    if (!parseCommandLine(arguments, qEnvironmentVariable("SARVELINTH_DEFAULT_FILE"), &options,
                          &error)) {
        message(err, error);
        std::fprintf(err, "Try 'sarvelinth --help'.\n");
        return ExitUsage;
    }
    if (options.help) {
        std::fputs(usageText().toUtf8().constData(), out);
        return ExitOk;
    }
    if (options.version) {
        std::fprintf(out, "sarvelinth %s\n", SARVELINTH_VERSION);
        return ExitOk;
    }

    FILE *reportOut = out;
    if (!options.outputFile.isEmpty()) {
        int status = ExitOk;
        reportOut = openOutput(options, err, &status);
        if (!reportOut)
            return status;
    }

    PluginLoader loader;
    const QString pluginDir =
        options.pluginDir.isEmpty() ? PluginLoader::defaultDirectory() : options.pluginDir;
    loader.load(pluginDir);
    for (const QString &problem : loader.problems())
        message(err, problem);
    if (loader.plugins().empty())
        message(err, QStringLiteral("no container plugins found in %1").arg(pluginDir));

    // The document of the basic report keeps its keys as they have always been; those of deep
    // analysis and checks are new, and carry the annotations too.
    const JsonWriter::Keys keys = options.settings.deepAnalysis || options.settings.checkProblems
                                      ? JsonWriter::Keys::Annotated
                                      : JsonWriter::Keys::Plain;
    std::unique_ptr<ReportWriter> writer;
    ServeIndex *served = nullptr;
    if (options.serve) {
        auto index = std::make_unique<ServeIndex>();
        served = index.get();
        writer = std::move(index);
    } else if (options.format == Options::Format::Json)
        writer = std::make_unique<JsonWriter>(reportOut, keys);
    else if (options.format == Options::Format::Summary ||
             options.format == Options::Format::JsonAndSummary)
        writer = std::make_unique<SummaryWriter>(reportOut, options.settings.checkProblems,
                                                 options.format == Options::Format::JsonAndSummary
                                                     ? SummaryWriter::Reports::With
                                                     : SummaryWriter::Reports::Without,
                                                 keys);
    else if (options.format == Options::Format::Html)
        writer = std::make_unique<HtmlWriter>(reportOut);
    else
        writer = std::make_unique<TextWriter>(reportOut, options.showSamples);

    int status = ExitOk;
    bool errors = false;
    if (options.join)
        status = reportJoined(options.files, loader.plugins(), options, *writer, err, &errors);
    // Standard input's spool lives as long as the server may read its bytes.
    std::unique_ptr<QTemporaryFile> spool;
    for (const QString &fileName : options.join ? QStringList() : options.files) {
        if (UrlSource::isUrl(fileName)) {
            status =
                qMax(status, reportUrl(fileName, options, loader.plugins(), *writer, err, &errors));
            continue;
        }
        // Deep analysis reads the manifest of a package and the files it names.
        if (options.settings.deepAnalysis && Manifest::isManifestName(fileName)) {
            status = qMax(status, reportManifest(fileName, loader.plugins(), options, *writer, err,
                                                 &errors));
            continue;
        }
        if (fileName != QLatin1String("-")) {
            status = qMax(status, reportFile(fileName, fileName, nullptr, loader.plugins(),
                                             options.settings, *writer, err, &errors));
            continue;
        }
        const QString shown = options.inputName.isEmpty() ? QStringLiteral("-") : options.inputName;
        QString problem;
        spool = spoolStandardInput(shown, &problem);
        if (!spool) {
            fileMessage(err, shown, problem);
            writer->reportError(shown, problem);
            status = qMax(status, int(ExitFileFailed));
            continue;
        }
        status = qMax(status, reportFile(spool->fileName(), shown, nullptr, loader.plugins(),
                                         options.settings, *writer, err, &errors));
    }
    // Problems of the files tell their status only when nothing worse went wrong.
    if (status == ExitOk && errors)
        status = ExitProblems;
    // The server shows the reports, and the problems of the files that have none.
    if (served)
        status = qMax(status, serveReports(*served, options.port, err));

    writer->finish();
    int writeError = writer->writeError();
    writer.reset();
    if (reportOut != out && std::fclose(reportOut) != 0 && writeError == 0)
        writeError = errno;
    if (writeError != 0) {
        const QString target =
            reportOut != out ? options.outputFile : QStringLiteral("standard output");
        fileMessage(err, target,
                    QStringLiteral("cannot write the report: %1")
                        .arg(QString::fromLocal8Bit(std::strerror(writeError))));
        status = qMax(status, int(ExitFileFailed));
    }
    return status;
}

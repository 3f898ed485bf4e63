#include "Host.h"

#include "CommandLine.h"
#include "HtmlWriter.h"
#include "InputDevice.h"
#include "JsonWriter.h"
#include "PluginLoader.h"
#include "ServeIndex.h"
#include "Server.h"
#include "SummaryWriter.h"
#include "TextWriter.h"

#include <QFile>
#include <QFileInfo>

#include <cerrno>
#include <cstring>
#include <memory>

namespace {

void message(FILE *err, const QString &text)
{
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

// Reports one file with the first plugin that takes it; returns the file's exit status, and
// sets *errors when the checks found a problem of severity error.
int reportFile(const QString &fileName, const std::vector<PluginLoader::Plugin> &plugins,
               const Options &options, ReportWriter &writer, FILE *err, bool *errors)
{
    // The plugins decide by name alone, so a file that is not there is caught first: it
    // gets the same answer whatever its name.
    QString problem;
    if (!InputDevice().openFile(fileName, &problem)) {
        fileMessage(err, fileName, problem);
        writer.reportError(fileName, problem);
        return ExitFileFailed;
    }

    for (const auto &plugin : plugins) {
        std::unique_ptr<ContainerAbstract> parser(plugin.createParser());
        if (!parser)
            continue;
        parser->configure(options.settings);
        writer.setContainerName(plugin.name);
        switch (parser->parse(fileName, writer, &problem)) {
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
        if (!options.settings.deepAnalysis && !suffix.isEmpty() &&
            plugin.deepExtensions.contains(suffix)) {
            problem += QStringLiteral("; --deep reads .%1 files").arg(suffix);
            break;
        }
    }
    fileMessage(err, fileName, problem);
    writer.reportError(fileName, problem);
    return ExitNotTaken;
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
    for (const QString &fileName : options.files)
        status =
            qMax(status, reportFile(fileName, loader.plugins(), options, *writer, err, &errors));
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

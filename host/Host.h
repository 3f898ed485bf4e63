#pragma once

#include "ContainerAbstract.h"
#include "PluginLoader.h"

#include <QStringList>

#include <cstdio>
#include <memory>
#include <vector>

class ReportWriter;
class UrlSource;

// Exit statuses of the command.
enum ExitStatus {
    ExitOk = 0,         // every file reported
    ExitFileFailed = 1, // a file could not be opened or read, or the report not written
    ExitUsage = 2,      // unknown option, bad value, no file
    ExitNotTaken = 3,   // no plugin takes a file
    ExitProblems = 4,   // with --check: a file has a problem of severity error; the others win
};

// Runs the command with the arguments that follow the program name: reports go to out,
// messages to err. With several failing files the highest status wins.
int runHost(const QStringList &arguments, FILE *out, FILE *err);

// Reports one file with the first plugin that takes it; returns the file's exit status, and
// sets *errors when the checks found a problem of severity error. The file is read from path
// and shown as fileName, or with url through it, and then path only judges its format. A file
// without a report goes to writer.reportError, and its message to err unless err is null.
int reportFile(const QString &path, const QString &fileName, const std::shared_ptr<UrlSource> &url,
               const std::vector<PluginLoader::Plugin> &plugins,
               const ContainerAbstract::Settings &settings, ReportWriter &writer, FILE *err,
               bool *errors);

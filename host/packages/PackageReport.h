#pragma once

#include "PluginLoader.h"
#include "ReportWriter.h"

#include <QString>

#include <cstdio>
#include <vector>

struct Options;

// Reports a manifest given as a file (.mpd, .m3u8) as one document: the manifest as an
// element of its periods, adaptation sets, representations and segments, the files of every
// representation, and one list of streams, each representation read as joined files in
// manifest order. Segments are files relative to the manifest's folder; nothing is fetched,
// and a path that leaves the folder is not read unless allowOutside. Returns the exit status
// as the report of a file does, and sets *errors when the checks found an error.
int reportManifest(const QString &fileName, const std::vector<PluginLoader::Plugin> &plugins,
                   const Options &options, ReportWriter &writer, FILE *err, bool *errors);

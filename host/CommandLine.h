#pragma once

#include "ContainerAbstract.h"

#include <QString>
#include <QStringList>

// What the command line asks for.
struct Options {
    enum class Format { Text, Json, Html, Summary, JsonAndSummary };

    Format format = Format::Text;
    bool showSamples = false;
    ContainerAbstract::Settings settings;
    QString pluginDir;         // empty: PluginLoader::defaultDirectory()
    QString outputFile;        // empty: standard output
    bool join = false;         // the files as one presentation
    bool allowOutside = false; // manifests: read segments outside the manifest's folder
    bool serve = false;        // serve the interactive page instead of writing a report
    quint16 port = 0;          // of the server; 0: a free one
    QStringList files;
    bool help = false;
    bool version = false;
    // A file of "-" is standard input; this is the name it shows and is judged by (empty: "-",
    // taken as mp4).
    QString inputName;
    // Tell what reading files by URL took.
    bool verbose = false;
};

// Reads the arguments that follow the program name. Options and files may mix; "--" ends
// the options. Values go behind the option as the next argument or after "=". Without a
// file, defaultFile is taken when it is not empty.
// Returns false with a message in *error on a usage error.
bool parseCommandLine(const QStringList &arguments, const QString &defaultFile, Options *options,
                      QString *error);

// The text of --help.
QString usageText();

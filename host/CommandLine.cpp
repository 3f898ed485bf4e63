#include "CommandLine.h"

#include <QCommandLineParser>
#include <QRegularExpression>

namespace {
constexpr int MinBase = 2;
constexpr int MaxBase = 36;
// Where the descriptions of --help begin.
constexpr int DescriptionColumn = 26;

// The options, each declared once: the parser and --help are made from this table.
struct OptionRow {
    QStringList names;
    QString valueName; // empty for an option that takes no value
    QString description;
};

const QList<OptionRow> &optionRows()
{
    static const QList<OptionRow> rows = {
        {{"format"},
         "text|json|html|summary|json+summary",
         "output format (default text); json writes one object\n"
         "per file, each on one line; html writes one page for\n"
         "all files, to open in a browser; summary writes one\n"
         "short line per file: brand, duration, streams and, with\n"
         "--check, problem counts; json+summary writes each file's\n"
         "json line, then its summary line"},
        {{"o", "output"}, "FILE", "write the report to FILE instead of standard output"},
        {{"serve"},
         {},
         "serve the interactive page of the reports at\n"
         "http://127.0.0.1:PORT/ until interrupted, loading\n"
         "what it shows on demand (files of any length)"},
        {{"port"}, "N", "the port of --serve (default: a free one)"},
        {{"samples"}, {}, "list every sample in the text output (json always does)"},
        {{"deep"},
         {},
         "deep analysis: decode the boxes of the wider vocabulary,\n"
         "list the samples of every track with their composition\n"
         "and presentation times, and take the whole family of\n"
         "suffixes (mov, m4a, 3gp, ...) and files by content"},
        {{"join"},
         {},
         "read the files as one presentation, in the order given:\n"
         "an initialization segment (or a whole file with its\n"
         "movie), then media segments; implies --deep"},
        {{"allow-outside"},
         {},
         "manifests (.mpd, .m3u8, read with --deep or --join): read\n"
         "segments whose path leaves the manifest's folder"},
        {{"units"},
         {},
         "list the NAL units or OBUs of every sample of H.264, HEVC\n"
         "and AV1 tracks, and check them with --check (implies --deep)"},
        {{"check"},
         {},
         "check the files: list what is wrong with each, with codes,\n"
         "offsets and severities, and where its bytes went; exit\n"
         "status 4 when a file has an error"},
        {{"value-base"}, "N", "base of field values, 2 to 36 (default 10)"},
        {{"size-base"}, "N", "base of box and entry sizes, 2 to 36 (default 10)"},
        {{"no-unknown-data"}, {}, "do not show the bytes of unknown boxes"},
        {{"max-unknown-data"}, "N", "show at most N bytes of an unknown box (default 64)"},
        {{"plugin-dir"}, "DIR", "load the container plugins from DIR"},
        {{"name"},
         "NAME",
         "with - (standard input, which is read to a temporary\n"
         "file first): the name the report shows and whose\n"
         "suffix decides the format (default: -, taken as mp4)"},
        {{"verbose"},
         {},
         "tell on standard error how many requests and bytes\nreading each file by URL took"},
        {{"h", "help"}, {}, "show this help"},
        {{"version"}, {}, "show the version"},
    };
    return rows;
}

// The option as the user spelled it, for messages: the argument that names it, up to "=".
QString spelled(const QStringList &arguments, const QString &name)
{
    for (const QString &argument : arguments) {
        if (argument == QLatin1String("--"))
            break;
        const QString option = argument.section(QLatin1Char('='), 0, 0);
        if (option.startsWith(QLatin1Char('-')) &&
            option.mid(option.startsWith(QLatin1String("--")) ? 2 : 1) == name)
            return option;
    }
    return name;
}

// Our message for the parser's own: the option as it was spelled and what is wrong with it.
QString usageError(const QCommandLineParser &parser, const QStringList &arguments)
{
    if (!parser.unknownOptionNames().isEmpty())
        return QStringLiteral("unknown option '%1'")
            .arg(spelled(arguments, parser.unknownOptionNames().first()));
    static const QRegularExpression missing(QStringLiteral("^Missing value after '(.*)'\\.$"));
    static const QRegularExpression unexpected(
        QStringLiteral("^Unexpected value after '(.*)'\\.$"));
    if (const auto match = missing.match(parser.errorText()); match.hasMatch())
        return QStringLiteral("%1 needs a value").arg(match.captured(1));
    if (const auto match = unexpected.match(parser.errorText()); match.hasMatch())
        return QStringLiteral("%1 takes no value").arg(match.captured(1));
    return parser.errorText();
}

bool parseBase(const QString &option, const QString &text, int *base, QString *error)
{
    bool ok = false;
    const int value = text.toInt(&ok, 10);
    if (!ok || value < MinBase || value > MaxBase) {
        *error = QStringLiteral("%1: the base must be a number from %2 to %3, not '%4'")
                     .arg(option)
                     .arg(MinBase)
                     .arg(MaxBase)
                     .arg(text);
        return false;
    }
    *base = value;
    return true;
}

bool parseFormat(const QString &text, Options::Format *format, QString *error)
{
    static const QHash<QString, Options::Format> formats = {
        {"text", Options::Format::Text},
        {"json", Options::Format::Json},
        {"html", Options::Format::Html},
        {"summary", Options::Format::Summary},
        {"json+summary", Options::Format::JsonAndSummary},
    };
    if (!formats.contains(text)) {
        *error = QStringLiteral(
                     "--format: 'text', 'json', 'html', 'summary' or 'json+summary', not '%1'")
                     .arg(text);
        return false;
    }
    *format = formats.value(text);
    return true;
}

bool parsePort(const QString &text, quint16 *port, QString *error)
{
    bool ok = false;
    const uint value = text.toUInt(&ok, 10);
    if (!ok || value < 1 || value > 65535 || text.startsWith(QLatin1Char('+'))) {
        *error = QStringLiteral("--port: a port number from 1 to 65535, not '%1'").arg(text);
        return false;
    }
    *port = quint16(value);
    return true;
}

bool parseByteCount(const QString &text, quint64 *count, QString *error)
{
    bool ok = false;
    const quint64 value = text.toULongLong(&ok, 10);
    if (!ok || text.startsWith(QLatin1Char('-')) || text.startsWith(QLatin1Char('+'))) {
        *error = QStringLiteral("--max-unknown-data: a number of bytes, not '%1'").arg(text);
        return false;
    }
    *count = value;
    return true;
}
} // namespace

bool parseCommandLine(const QStringList &arguments, const QString &defaultFile, Options *options,
                      QString *error)
{
    QCommandLineParser parser;
    // Long options may be given with one dash too; "-o" stays the only short one.
    parser.setSingleDashWordOptionMode(QCommandLineParser::ParseAsLongOptions);
    for (const OptionRow &option : optionRows())
        parser.addOption(QCommandLineOption(option.names, option.description, option.valueName));
    // The parser expects the program's name in front.
    if (!parser.parse(QStringList{QStringLiteral("sarvelinth")} + arguments)) {
        *error = usageError(parser, arguments);
        return false;
    }

    options->help = parser.isSet(QStringLiteral("help"));
    options->version = parser.isSet(QStringLiteral("version"));
    options->showSamples = parser.isSet(QStringLiteral("samples"));
    options->settings.sampleUnits = parser.isSet(QStringLiteral("units"));
    options->settings.deepAnalysis =
        parser.isSet(QStringLiteral("deep")) || options->settings.sampleUnits;
    options->settings.checkProblems = parser.isSet(QStringLiteral("check"));
    options->join = parser.isSet(QStringLiteral("join"));
    options->allowOutside = parser.isSet(QStringLiteral("allow-outside"));
    if (options->join)
        options->settings.deepAnalysis = true;
    if (parser.isSet(QStringLiteral("no-unknown-data")))
        options->settings.showUnknownData = false;
    if (parser.isSet(QStringLiteral("format")) &&
        !parseFormat(parser.value(QStringLiteral("format")), &options->format, error))
        return false;
    for (const auto &[name, base] : {std::pair{"value-base", &options->settings.valueBase},
                                     std::pair{"size-base", &options->settings.sizeBase}}) {
        const QString option = QString::fromLatin1(name);
        if (parser.isSet(option) &&
            !parseBase(QStringLiteral("--") + option, parser.value(option), base, error))
            return false;
    }
    if (parser.isSet(QStringLiteral("max-unknown-data")) &&
        !parseByteCount(parser.value(QStringLiteral("max-unknown-data")),
                        &options->settings.maxUnknownDataSize, error))
        return false;
    if (parser.isSet(QStringLiteral("output"))) {
        options->outputFile = parser.value(QStringLiteral("output"));
        if (options->outputFile.isEmpty()) {
            *error = QStringLiteral("%1 needs a file name").arg(spelled(arguments, "output"));
            return false;
        }
    }
    options->pluginDir = parser.value(QStringLiteral("plugin-dir"));
    options->serve = parser.isSet(QStringLiteral("serve"));
    options->verbose = parser.isSet(QStringLiteral("verbose"));
    if (parser.isSet(QStringLiteral("port"))) {
        if (!options->serve) {
            *error = QStringLiteral("--port: only with --serve");
            return false;
        }
        if (!parsePort(parser.value(QStringLiteral("port")), &options->port, error))
            return false;
    }
    if (options->serve &&
        (parser.isSet(QStringLiteral("format")) || parser.isSet(QStringLiteral("output")))) {
        *error = QStringLiteral("--serve writes no report: --format and --output do not apply");
        return false;
    }
    // The page and the server show the bytes of one file per report.
    if (options->join && (options->serve || options->format == Options::Format::Html)) {
        *error = QStringLiteral("--join: not with --serve or --format html");
        return false;
    }

    options->files = parser.positionalArguments();
    const qsizetype standardInputs = options->files.count(QStringLiteral("-"));
    if (standardInputs > 1) {
        *error = QStringLiteral("- (standard input) may be given once");
        return false;
    }
    if (parser.isSet(QStringLiteral("name"))) {
        if (standardInputs == 0) {
            *error = QStringLiteral("--name: only with - (standard input)");
            return false;
        }
        options->inputName = parser.value(QStringLiteral("name"));
        if (options->inputName.isEmpty()) {
            *error = QStringLiteral("--name needs a name");
            return false;
        }
    }
    if (options->files.isEmpty() && !defaultFile.isEmpty())
        options->files << defaultFile;
    if (options->files.isEmpty() && !options->help && !options->version) {
        *error = QStringLiteral("no file given");
        return false;
    }
    return true;
}

QString usageText()
{
    QString text = QStringLiteral(
        "Usage: sarvelinth [OPTIONS] FILE...\n"
        "Shows the structure of ISO base media files (mp4, f4v) byte by byte: every box with\n"
        "its offset, size and fields, and the samples of the video streams. A FILE may be -\n"
        "(standard input) or an http:// or https:// URL, read with range requests.\n"
        "\n"
        "Options:\n");
    for (const OptionRow &option : optionRows()) {
        QStringList names;
        for (const QString &name : option.names)
            names << (name.size() == 1 ? QStringLiteral("-") : QStringLiteral("--")) + name;
        QString head = QStringLiteral("  ") + names.join(QStringLiteral(", "));
        if (!option.valueName.isEmpty())
            head += QLatin1Char(' ') + option.valueName;
        const QStringList lines = option.description.split(QLatin1Char('\n'));
        for (qsizetype i = 0; i < lines.size(); ++i) {
            const QString lead = i == 0 ? head : QString();
            text += lead.leftJustified(DescriptionColumn - 1) + QLatin1Char(' ') + lines[i] +
                    QLatin1Char('\n');
        }
    }
    text += QStringLiteral("\n"
                           "Exit status: 0 every file reported, 1 a file could not be opened or "
                           "read,\n"
                           "2 usage error, 3 no plugin takes a file, 4 (with --check) a file has\n"
                           "a problem of severity error.\n");
    return text;
}

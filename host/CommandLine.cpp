#include "CommandLine.h"

namespace {
constexpr int MinBase = 2;
constexpr int MaxBase = 36;

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
} // namespace

bool parseCommandLine(const QStringList &arguments, const QString &defaultFile, Options *options,
                      QString *error)
{
    bool optionsEnded = false;
    for (qsizetype i = 0; i < arguments.size(); ++i) {
        const QString &argument = arguments[i];
        if (optionsEnded || !argument.startsWith(QLatin1Char('-')) || argument.size() == 1) {
            options->files << argument;
            continue;
        }
        if (argument == QLatin1String("--")) {
            optionsEnded = true;
            continue;
        }

        QString option = argument;
        QString value;
        bool hasValue = false;
        const qsizetype equals = argument.indexOf(QLatin1Char('='));
        if (argument.startsWith(QLatin1String("--")) && equals > 0) {
            option = argument.left(equals);
            value = argument.mid(equals + 1);
            hasValue = true;
        }
        // Takes the option's value from behind "=" or from the next argument.
        const auto takeValue = [&]() {
            if (hasValue)
                return true;
            if (i + 1 >= arguments.size()) {
                *error = QStringLiteral("%1 needs a value").arg(option);
                return false;
            }
            value = arguments[++i];
            return true;
        };
        const auto refuseValue = [&]() {
            if (hasValue)
                *error = QStringLiteral("%1 takes no value").arg(option);
            return !hasValue;
        };

        if (option == QLatin1String("-h") || option == QLatin1String("--help")) {
            if (!refuseValue())
                return false;
            options->help = true;
        } else if (option == QLatin1String("--version")) {
            if (!refuseValue())
                return false;
            options->version = true;
        } else if (option == QLatin1String("--samples")) {
            if (!refuseValue())
                return false;
            options->showSamples = true;
        } else if (option == QLatin1String("--no-unknown-data")) {
            if (!refuseValue())
                return false;
            options->settings.showUnknownData = false;
        } else if (option == QLatin1String("--format")) {
            if (!takeValue())
                return false;
            if (value == QLatin1String("text")) {
                options->format = Options::Format::Text;
            } else if (value == QLatin1String("json")) {
                options->format = Options::Format::Json;
            } else if (value == QLatin1String("html")) {
                options->format = Options::Format::Html;
            } else {
                *error = QStringLiteral("--format: 'text', 'json' or 'html', not '%1'").arg(value);
                return false;
            }
        } else if (option == QLatin1String("--value-base")) {
            if (!takeValue() || !parseBase(option, value, &options->settings.valueBase, error))
                return false;
        } else if (option == QLatin1String("--size-base")) {
            if (!takeValue() || !parseBase(option, value, &options->settings.sizeBase, error))
                return false;
        } else if (option == QLatin1String("--max-unknown-data")) {
            if (!takeValue())
                return false;
            bool ok = false;
            const quint64 size = value.toULongLong(&ok, 10);
            if (!ok || value.startsWith(QLatin1Char('-')) || value.startsWith(QLatin1Char('+'))) {
                *error =
                    QStringLiteral("--max-unknown-data: a number of bytes, not '%1'").arg(value);
                return false;
            }
            options->settings.maxUnknownDataSize = size;
        } else if (option == QLatin1String("-o") || option == QLatin1String("--output")) {
            if (!takeValue())
                return false;
            if (value.isEmpty()) {
                *error = QStringLiteral("%1 needs a file name").arg(option);
                return false;
            }
            options->outputFile = value;
        } else if (option == QLatin1String("--plugin-dir")) {
            if (!takeValue())
                return false;
            options->pluginDir = value;
        } else {
            *error = QStringLiteral("unknown option '%1'").arg(option);
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
    return QStringLiteral(
        "Usage: sarvelinth [OPTIONS] FILE...\n"
        "Shows the structure of ISO base media files (mp4, f4v) byte by byte: every box with\n"
        "its offset, size and fields, and the samples of the video streams.\n"
        "\n"
        "Options:\n"
        "  --format text|json|html output format (default text); json writes one object\n"
        "                          per file, each on one line; html writes one page for\n"
        "                          all files, to open in a browser\n"
        "  -o, --output FILE       write the report to FILE instead of standard output\n"
        "  --samples               list every sample in the text output (json always does)\n"
        "  --value-base N          base of field values, 2 to 36 (default 10)\n"
        "  --size-base N           base of box and entry sizes, 2 to 36 (default 10)\n"
        "  --no-unknown-data       do not show the bytes of unknown boxes\n"
        "  --max-unknown-data N    show at most N bytes of an unknown box (default 64)\n"
        "  --plugin-dir DIR        load the container plugins from DIR\n"
        "  -h, --help              show this help\n"
        "  --version               show the version\n"
        "\n"
        "Exit status: 0 every file reported, 1 a file could not be opened or read,\n"
        "2 usage error, 3 no plugin takes a file.\n");
}

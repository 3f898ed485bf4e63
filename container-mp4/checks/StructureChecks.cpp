#include "Bounds.h"
#include "ContainerMP4.h"

#include <algorithm>

// The problems the walk meets in the boxes themselves: sizes that cannot be, boxes that reach
// past their parent or the file, boxes the parser does not know or cannot reach, boxes a
// parent may hold once given twice, payloads too short for their fields and tracks without
// the boxes every track needs. The checks only report; the walk goes on as it always does.

namespace {

// The boxes every track needs, one bit each; a pair of alternatives shares a bit.
const struct {
    const char *type;
    quint32 bit;
} RequiredInTrack[] = {
    {"tkhd", 1u << 0}, {"mdia", 1u << 1},  {"mdhd", 1u << 2},  {"hdlr", 1u << 3}, {"minf", 1u << 4},
    {"stbl", 1u << 5}, {"stsd", 1u << 6},  {"stts", 1u << 7},  {"stsc", 1u << 8}, {"stsz", 1u << 9},
    {"stz2", 1u << 9}, {"stco", 1u << 10}, {"co64", 1u << 10},
};
constexpr quint32 AllRequired = (1u << 11) - 1;

// The boxes a parent may hold once: a second is a duplicate.
const struct {
    const char *parent;
    const char *type;
} OnceInParent[] = {
    {"", "ftyp"},     {"", "moov"},     {"moov", "mvhd"}, {"moov", "mvex"}, {"trak", "tkhd"},
    {"trak", "mdia"}, {"trak", "edts"}, {"trak", "tref"}, {"edts", "elst"}, {"mdia", "mdhd"},
    {"mdia", "hdlr"}, {"mdia", "minf"}, {"minf", "vmhd"}, {"minf", "smhd"}, {"minf", "dinf"},
    {"minf", "stbl"}, {"stbl", "stsd"}, {"stbl", "stts"}, {"stbl", "ctts"}, {"stbl", "stsc"},
    {"stbl", "stsz"}, {"stbl", "stz2"}, {"stbl", "stco"}, {"stbl", "co64"}, {"stbl", "stss"},
    {"stbl", "sdtp"}, {"mvex", "mehd"}, {"moof", "mfhd"}, {"traf", "tfhd"}, {"traf", "tfdt"},
};

// The bytes of the fixed fields of a box behind its version and flags; 0 for a box of no
// fixed layout.
quint64 fixedFields(const QString &type, quint32 version)
{
    const bool wide = version == 1;
    const struct {
        const char *type;
        quint64 narrow;
        quint64 wideVersion;
    } sizes[] = {
        {"mvhd", 96, 108}, {"tkhd", 80, 92}, {"mdhd", 20, 32}, {"hdlr", 20, 20}, {"vmhd", 8, 8},
        {"smhd", 4, 4},    {"stsd", 4, 4},   {"stts", 4, 4},   {"stss", 4, 4},   {"stsc", 4, 4},
        {"stsz", 8, 8},    {"stco", 4, 4},   {"co64", 4, 4},   {"ctts", 4, 4},   {"elst", 4, 4},
        {"mfhd", 4, 4},    {"tfdt", 4, 8},   {"trex", 20, 20}, {"mehd", 4, 8},   {"ftyp", 8, 8},
        {"styp", 8, 8},
    };
    for (const auto &row : sizes) {
        if (type == QLatin1String(row.type))
            return wide ? row.wideVersion : row.narrow;
    }
    return 0;
}

bool printable(const QString &type)
{
    return type.size() == 4 && std::all_of(type.begin(), type.end(), [](QChar c) {
               return c.unicode() >= 0x20 && c.unicode() <= 0x7E;
           });
}

const char *ordinal(int index)
{
    static const char *const names[] = {"first", "second", "third", "fourth", "fifth"};
    return index < 5 ? names[index] : "further";
}
} // namespace

void ContainerMP4::noteProblem(const char *code, Severity severity, quint64 offset, quint64 size,
                               const QString &message, const QString &path)
{
    noteProblemIn(inflatedSource, code, severity, offset, size, message, path);
}

void ContainerMP4::noteProblemIn(const InputDevice *source, const char *code, Severity severity,
                                 quint64 offset, quint64 size, const QString &message,
                                 const QString &path)
{
    for (const InflatedMovie &movie : inflatedMovies) {
        if (source && movie.bytes.get() == source) {
            reportProblem(
                {QString::fromLatin1(code), severity, movie.boxStart, movie.boxSize, path,
                 QStringLiteral("in the inflated movie at %1: %2").arg(offset).arg(message)});
            return;
        }
    }
    reportProblem({QString::fromLatin1(code), severity, offset, size, path, message});
}

void ContainerMP4::checkBox(const BoxHeader &box)
{
    const QString &type = boxPath.last();
    const QString parent = boxPath.size() > 1 ? boxPath[boxPath.size() - 2] : QString();
    if (openTrakBoxes > 0) {
        if (type == QLatin1String("ctts"))
            trackContexts.back().hasCompositionOffsets = true;
        for (const auto &required : RequiredInTrack) {
            // Only the handler of the media says what the track holds.
            if (type == QLatin1String(required.type) &&
                (type != QLatin1String("hdlr") || parent == QLatin1String("mdia")))
                trackContexts.back().requiredBoxesSeen |= required.bit;
        }
    }
    if (boxPath.size() == 1 && !firstTopLevel.contains(type))
        firstTopLevel.insert(type, box.start);
    if (!checkProblems)
        return;

    const quint64 inputSize = quint64(input.size());
    const quint64 end = endOf(box.start, box.totalSize);
    const QString path = pathText();
    // Bytes at the end of the file that cannot be a box: too few for a header, or no type.
    if (boxPath.size() == 1 && end >= inputSize &&
        (inputSize - box.start < 8 || !printable(type))) {
        noteProblem(
            "trailing-bytes", Severity::Warning, box.start, inputSize - box.start,
            QStringLiteral("the last %1 bytes of the file form no box").arg(inputSize - box.start),
            path);
        return;
    }
    if (box.invalidSize) {
        noteProblem("size-below-header", Severity::Error, box.start, box.totalSize,
                    QStringLiteral("the %1 box declares %2 bytes, fewer than its %3-byte header")
                        .arg(type)
                        .arg(box.declaredSize == 1 ? box.totalSize : box.declaredSize)
                        .arg(box.headerSize),
                    path);
        return;
    }
    if (box.tooDeep) {
        noteProblem("nesting-too-deep", Severity::Warning, box.start, box.totalSize,
                    QStringLiteral("the %1 box lies %2 levels deep, below the %3 levels that are "
                                   "walked; its content is not read")
                        .arg(type)
                        .arg(boxPath.size())
                        .arg(depth - 1),
                    path);
    } else if (!box.known) {
        noteProblem("unknown-box", Severity::Info, box.start, box.totalSize,
                    QStringLiteral("no parser knows the box type '%1'").arg(type), path);
    }
    if (boxPath.size() > 1 && end > box.parentEnd) {
        noteProblem("box-past-parent", Severity::Error, box.start, box.totalSize,
                    QStringLiteral("the %1 box reaches %2 bytes past the end of its %3 box at %4")
                        .arg(type)
                        .arg(end - box.parentEnd)
                        .arg(parent)
                        .arg(box.parentEnd),
                    path);
    } else if (end > inputSize) {
        noteProblem("box-past-eof", Severity::Error, box.start, box.totalSize,
                    QStringLiteral("the %1 box declares %2 bytes and reaches %3 bytes past the end "
                                   "of the file: the file is cut short")
                        .arg(type)
                        .arg(box.totalSize)
                        .arg(end - inputSize),
                    path);
    }
    if (boxIndexes.last() > 0) {
        for (const auto &once : OnceInParent) {
            if (type == QLatin1String(once.type) && parent == QLatin1String(once.parent)) {
                noteProblem("duplicate-box", Severity::Error, box.start, box.totalSize,
                            QStringLiteral("a %1 %2 box in %3, which holds one")
                                .arg(QLatin1String(ordinal(boxIndexes.last())), type,
                                     parent.isEmpty() ? QStringLiteral("the file") : parent),
                            path);
            }
        }
    }
}

void ContainerMP4::checkPayload(int result, quint64 start, quint64 size, quint64 payloadSize)
{
    if (!checkProblems)
        return;
    const QString &type = boxPath.last();
    const quint64 needed = fixedFields(type, boxIsFull ? boxVersion : 0);
    if (result == ParseTruncated || payloadSize < needed) {
        noteProblem("short-payload", Severity::Error, start, size,
                    QStringLiteral("the %1 box holds %2 bytes behind its header, fewer than the "
                                   "%3 of its fields")
                        .arg(type)
                        .arg(payloadSize)
                        .arg(needed),
                    pathText());
    }
}

void ContainerMP4::checkWorkBudget(quint64 start, quint64 size)
{
    noteProblem("work-budget-exhausted", Severity::Error, start, size,
                QStringLiteral("the walk stops here, %1 bytes before the end: its boxes reach past "
                               "their parents so often that walking them again would take more "
                               "than 64 times the file's size")
                    .arg(size),
                pathText());
}

void ContainerMP4::checkTrack(int stream, quint64 start, quint64 size)
{
    const quint32 seen = trackContexts[size_t(stream)].requiredBoxesSeen;
    if (!checkProblems || seen == AllRequired)
        return;
    QStringList missing;
    for (const auto &required : RequiredInTrack) {
        if (!(seen & required.bit) && !missing.contains(QLatin1String(required.type)))
            missing << QString::fromLatin1(required.type);
    }
    // Of a pair of alternatives, both are named.
    missing.replaceInStrings(QStringLiteral("stsz"), QStringLiteral("stsz or stz2"));
    missing.replaceInStrings(QStringLiteral("stco"), QStringLiteral("stco or co64"));
    missing.removeAll(QStringLiteral("stz2"));
    missing.removeAll(QStringLiteral("co64"));
    noteProblem("missing-box", Severity::Error, start, size,
                QStringLiteral("the track has no %1").arg(missing.join(QStringLiteral(", "))),
                pathText());
}

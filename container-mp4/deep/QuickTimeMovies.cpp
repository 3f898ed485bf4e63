#include "DeepAnalysis.h"
#include "DeepRows.h"
#include "PayloadReader.h"

#include <zlib.h>

// QuickTime's movies that are not plain movies: compressed movies, whose movie box is kept
// deflated in a cmov, and reference movies, which name other movies to play in their place.

namespace {

// The bytes a compressed movie may inflate to: a multiple of the file's size, and never more
// than an absolute cap, so that a small file cannot make the parser hold much memory.
constexpr quint64 InflatedPerFileByte = 32;
constexpr quint64 MaxInflated = 16 * 1024 * 1024;

enum class Inflation { Whole, TooLarge, Damaged };

// Inflates zlib data into *out, up to limit bytes.
Inflation inflateMovie(const QByteArray &compressed, quint64 limit, QByteArray *out)
{
    z_stream stream{};
    if (inflateInit(&stream) != Z_OK)
        return Inflation::Damaged;
    stream.next_in = reinterpret_cast<Bytef *>(const_cast<char *>(compressed.constData()));
    stream.avail_in = uInt(compressed.size());
    char piece[64 * 1024];
    int status = Z_OK;
    while (status == Z_OK) {
        stream.next_out = reinterpret_cast<Bytef *>(piece);
        stream.avail_out = sizeof piece;
        status = inflate(&stream, Z_NO_FLUSH);
        const quint64 produced = sizeof piece - stream.avail_out;
        if (quint64(out->size()) + produced > limit) {
            inflateEnd(&stream);
            return Inflation::TooLarge;
        }
        out->append(piece, qsizetype(produced));
        // Out of input before the end of the stream: the data is cut short.
        if (status == Z_BUF_ERROR || (status == Z_OK && stream.avail_in == 0 && produced == 0))
            break;
    }
    inflateEnd(&stream);
    return status == Z_STREAM_END ? Inflation::Whole : Inflation::Damaged;
}

int parseCompressionType(PayloadReader &box)
{
    const QString type = box.fourcc("compression_type");
    if (DeepAnalysis *deep = box.deep())
        deep->movieCompression = type;
    box.rest();
    return ContainerAbstract::ParseOk;
}

// cmvd: the size of the movie inflated and the deflated movie box, which is inflated and
// walked as a child whose positions lie in the inflated bytes.
int parseCompressedMovieData(PayloadReader &box)
{
    const quint32 declared = box.sizeField("uncompressed_size", 4);
    const quint64 width = box.left();
    const QString compression = box.deep() ? box.deep()->movieCompression : QString();
    if (compression != QLatin1String("zlib")) {
        box.rest("compressed_data");
        box.note(QStringLiteral("Compressed with '%1', which is not inflated.").arg(compression));
        return ContainerAbstract::ParseOk;
    }
    if (box.insideInflated()) {
        box.rest("compressed_data");
        box.problem("compressed-movie-nested", Severity::Warning,
                    QStringLiteral("a compressed movie inside a compressed movie is not inflated"));
        return ContainerAbstract::ParseOk;
    }
    // The compressed bytes are read whole, so they too stay below the limit.
    const quint64 limit = qMin(MaxInflated, InflatedPerFileByte * box.inputSize());
    QByteArray compressed;
    if (width <= limit && box.available() >= width) {
        compressed.resize(qsizetype(width));
        // In pieces, as a peek reads a block at most.
        for (quint64 done = 0; done < width; done += 4096)
            box.peek(compressed.data() + done, qMin<quint64>(4096, width - done), done);
    }
    box.rest("compressed_data");
    // A payload cut short by the end of the file is the walker's problem.
    if (compressed.isEmpty() && width <= limit)
        return ContainerAbstract::ParseOk;
    QByteArray inflated;
    switch (compressed.isEmpty() ? Inflation::TooLarge
                                 : inflateMovie(compressed, limit, &inflated)) {
    case Inflation::TooLarge:
        box.problem("compressed-movie-too-large", Severity::Error,
                    QStringLiteral("the compressed movie inflates to more than %1 bytes, %2 times "
                                   "the file's size or 16 MiB; it is not walked")
                        .arg(limit)
                        .arg(InflatedPerFileByte));
        return ContainerAbstract::ParseOk;
    case Inflation::Damaged:
        box.problem("compressed-movie-damaged", Severity::Error,
                    QStringLiteral("the compressed movie does not inflate: its zlib data is "
                                   "damaged or cut short after %1 bytes; it is not walked")
                        .arg(inflated.size()));
        return ContainerAbstract::ParseOk;
    case Inflation::Whole:
        break;
    }
    if (quint64(inflated.size()) != declared) {
        box.problem("compressed-movie-size", Severity::Warning,
                    QStringLiteral("the compressed movie inflates to %1 bytes, not to the %2 "
                                   "its uncompressed_size declares")
                        .arg(inflated.size())
                        .arg(declared));
    }
    return box.walkInflated(inflated);
}

// The flags of the atoms of a reference movie descriptor: a 32-bit word.
quint32 readFlags(PayloadReader &box, const QString &comment = QString())
{
    return box.u32("flags", comment);
}

// rdrf: where the movie is, as a URL or an alias.
int parseReferenceDataReference(PayloadReader &box)
{
    const bool selfContained = box.peekUnsigned(4) & 1;
    readFlags(box, selfContained ? QStringLiteral("self-contained") : QString());
    const QString type = box.fourcc("data_reference_type");
    const quint32 size = box.sizeField("data_reference_size", 4);
    if (type == QLatin1String("url ") && size > 0 && size <= box.left())
        box.utf8("data_reference", size);
    else
        box.data("data_reference", size);
    box.rest();
    return ContainerAbstract::ParseOk;
}

// rmdr: the data rate the movie needs.
int parseReferenceDataRate(PayloadReader &box)
{
    readFlags(box);
    box.u32("data_rate", QStringLiteral("bits per second"));
    box.rest();
    return ContainerAbstract::ParseOk;
}

// rmcs: the speed of processor the movie needs.
int parseReferenceCpuSpeed(PayloadReader &box)
{
    readFlags(box);
    box.u16("cpu_speed");
    box.rest();
    return ContainerAbstract::ParseOk;
}

// rmvc: a version of a piece of software the movie needs, as a Gestalt selector answers it.
int parseReferenceVersionCheck(PayloadReader &box)
{
    readFlags(box);
    box.fourcc("software_package");
    box.u32("version");
    box.u32("mask");
    box.u16("check_type", box.peekUnsigned(2) == 0   ? QStringLiteral("value under mask")
                          : box.peekUnsigned(2) == 1 ? QStringLiteral("bits set under mask")
                                                     : QString());
    box.rest();
    return ContainerAbstract::ParseOk;
}

// rmcd: a component the movie needs.
int parseReferenceComponentDetect(PayloadReader &box)
{
    readFlags(box);
    box.fourcc("component_type");
    box.fourcc("component_subtype");
    box.fourcc("component_manufacturer");
    box.u32("component_flags");
    box.u32("component_flags_mask");
    box.u32("min_version");
    box.rest();
    return ContainerAbstract::ParseOk;
}

// rmqu: the movie's quality among the others of the reference movie.
int parseReferenceQuality(PayloadReader &box)
{
    box.u32("quality");
    box.rest();
    return ContainerAbstract::ParseOk;
}

} // namespace

DeepRows quickTimeMovieRows()
{
    return {
        {"cmov", DeepContainer, 0, nullptr},
        {"dcom", DeepPlain, 0, parseCompressionType},
        {"cmvd", DeepPlain, 0, parseCompressedMovieData},
        {"rmra", DeepContainer, 0, nullptr},
        {"rmda", DeepContainer, 0, nullptr},
        {"rdrf", DeepPlain, 0, parseReferenceDataReference},
        {"rmdr", DeepPlain, 0, parseReferenceDataRate},
        {"rmcs", DeepPlain, 0, parseReferenceCpuSpeed},
        {"rmvc", DeepPlain, 0, parseReferenceVersionCheck},
        {"rmcd", DeepPlain, 0, parseReferenceComponentDetect},
        {"rmqu", DeepPlain, 0, parseReferenceQuality},
    };
}

int ContainerMP4::walkInflated(const QByteArray &bytes, quint64 boxStart, quint64 boxSize)
{
    inflatedMovies.push_back({std::make_unique<InputDevice>(), boxStart, boxSize});
    InputDevice *source = inflatedMovies.back().bytes.get();
    source->openMemory(bytes);
    input.beginOverlay(bytes);
    // The inflated bytes have a walk of their own: a budget in proportion to them, which the
    // walk of the file around them neither spends nor is stopped by.
    const quint64 fileWork = workDone;
    const bool fileStopped = walkStopped;
    workDone = 0;
    walkStopped = false;
    inflatedSource = source;

    beginElement(0, quint64(bytes.size()), QStringLiteral("inflated_movie"), -1);
    setElementState(ElementState::Inflated);
    addElementNote(QStringLiteral("The %1 bytes the movie inflates to: the positions of the "
                                  "boxes inside lie in them, from 0, not in the file.")
                       .arg(bytes.size()));
    const int result = walkChildren(0, quint64(bytes.size()));
    endElement();

    inflatedSource = nullptr;
    workDone = fileWork;
    walkStopped = fileStopped;
    input.endOverlay();
    return result;
}

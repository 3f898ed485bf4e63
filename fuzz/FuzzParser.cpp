// libFuzzer target: the MP4 parser over an input in memory, with the sample walk, basic or
// deep, through a sink that aborts on an unbalanced report or on output out of proportion to
// the input.

#include "CheckingSink.h"
#include "ContainerMP4.h"
#include "Manifest.h"

#include <QByteArray>

#include <cstdint>
#include <cstdio>
#include <cstdlib>

namespace {
// The parser as the host drives it, minus the format line on stderr for every input.
class QuietParser : public ContainerMP4 {
protected:
    int verifyContainerFormat(const QString &) override { return ParseOk; }
};
} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    // No copy: a read past the input's end then runs into the fuzzer's own guard.
    const QByteArray input =
        QByteArray::fromRawData(reinterpret_cast<const char *>(data), qsizetype(size));
    // Manifests of packages: an MPD, or a playlist of HLS. No segment is named more often
    // than the readers allow.
    if (input.startsWith('<') || input.startsWith('#')) {
        const Manifest::Package package = input.startsWith('<')
                                              ? Manifest::readMpd(input)
                                              : Manifest::readPlaylist(input, "fuzz.m3u8");
        size_t segments = 0;
        for (const Manifest::Representation &representation : package.representations)
            segments += representation.segments.size();
        if (segments > Manifest::MaxSegments) {
            std::fprintf(stderr, "%zu segments named\n", segments);
            std::abort();
        }
        return 0;
    }
    // The settings vary with the input's size, so that every base, the unknown-data options,
    // deep analysis, the units of the samples and the checks are exercised without taking
    // bytes away from the file.
    ContainerAbstract::Settings settings;
    settings.deepAnalysis = size % 2 == 0;
    settings.checkProblems = size % 7 < 3;
    settings.sampleUnits = settings.deepAnalysis && size % 4 == 0;
    settings.sizeBase = size % 5 == 0 ? 2 + int(size % 35) : 10;
    settings.valueBase = size % 3 == 0 ? 2 + int(size / 3 % 35) : 10;
    settings.showUnknownData = size % 11 != 0;
    settings.maxUnknownDataSize = size % 13 == 0 ? size : 64;

    CheckingSink sink(CheckingSink::Abort);
    {
        QuietParser parser;
        parser.configure(settings);
        parser.parseBytes(QStringLiteral("fuzz.mp4"), input, sink);
    }
    if (!sink.finished()) {
        std::fprintf(stderr, "report not ended\n");
        std::abort();
    }
    if (sink.nodes() > CheckingSink::nodeBound(size, CheckingSink::WalksOfADamagedFile)) {
        std::fprintf(stderr, "%llu report nodes for %zu bytes of input\n",
                     static_cast<unsigned long long>(sink.nodes()), size);
        std::abort();
    }
    // All streams together report at most one sample per byte of the input.
    if (sink.samples > size) {
        std::fprintf(stderr, "%llu samples for %zu bytes of input\n",
                     static_cast<unsigned long long>(sink.samples), size);
        std::abort();
    }
    return 0;
}

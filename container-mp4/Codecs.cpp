#include "Codecs.h"

namespace {
const struct {
    const char *sampleEntryType;
    Codec codec;
} Codecs[] = {
    {"avc1", {28, "H.264"}},
    {"mp4v", {13, "MPEG-4 Visual"}},
    {"s263", {5, "H.263"}},
};
} // namespace

const Codec *codecOf(const QString &sampleEntryType)
{
    for (const auto &row : Codecs) {
        if (sampleEntryType == QLatin1String(row.sampleEntryType))
            return &row.codec;
    }
    return nullptr;
}

#include "Codecs.h"

namespace {
const struct {
    const char *sampleEntryType;
    Codec codec;
    // Whether only deep analysis names the codec; the basic report names only the others.
    bool deepOnly;
} Codecs[] = {
    {"avc1", {28, "H.264"}, false},
    {"mp4v", {13, "MPEG-4 Visual"}, false},
    {"s263", {5, "H.263"}, false},
    {"avc3", {28, "H.264"}, true},
    {"hvc1", {174, "HEVC"}, true},
    {"hev1", {174, "HEVC"}, true},
    {"av01", {227, "AV1"}, true},
    {"vp09", {168, "VP9"}, true},
    {"vp08", {140, "VP8"}, true},
    {"mjpa", {8, "Motion JPEG"}, true},
    {"mjpb", {8, "Motion JPEG"}, true},
    {"jpeg", {8, "Motion JPEG"}, true},
    {"apch", {148, "ProRes"}, true},
    {"apcn", {148, "ProRes"}, true},
    {"apcs", {148, "ProRes"}, true},
    {"apco", {148, "ProRes"}, true},
    {"ap4h", {148, "ProRes"}, true},
    {"mp4a", {86018, "AAC"}, true},
    {"ac-3", {86019, "AC-3"}, true},
    {"ec-3", {86056, "E-AC-3"}, true},
    {"Opus", {86076, "Opus"}, true},
    {"fLaC", {86028, "FLAC"}, true},
    {"alac", {86032, "ALAC"}, true},
    {"twos", {65537, "PCM signed 16-bit big-endian"}, true},
    {"sowt", {65536, "PCM signed 16-bit little-endian"}, true},
    {"in24", {65549, "PCM signed 24-bit big-endian"}, true},
    {"fl32", {65556, "PCM 32-bit float big-endian"}, true},
    {"ipcm", {0, "PCM"}, true},
    {"fpcm", {0, "PCM"}, true},
    {"lpcm", {0, "PCM"}, true},
    {"tx3g", {94213, "MPEG-4 timed text"}, true},
    {"wvtt", {94226, "WebVTT"}, true},
    {"stpp", {94232, "TTML"}, true},
    {"tmcd", {0, "timecode"}, true},
};

// The objectTypeIndications of MPEG-4 decoder configurations: what each names for people,
// and the codec behind it where the host numbers one (no name where it does not).
const struct {
    quint8 objectTypeIndication;
    const char *name;
    Codec codec;
} ObjectTypes[] = {
    {0x20, "MPEG-4 Visual", {13, "MPEG-4 Visual"}},
    {0x21, "H.264", {28, "H.264"}},
    {0x22, "H.264 parameter sets", {}},
    {0x23, "H.265", {174, "HEVC"}},
    {0x40, "MPEG-4 Audio", {86018, "AAC"}},
    {0x60, "MPEG-2 Visual Simple", {}},
    {0x61, "MPEG-2 Visual Main", {}},
    {0x62, "MPEG-2 Visual SNR", {}},
    {0x63, "MPEG-2 Visual Spatial", {}},
    {0x64, "MPEG-2 Visual High", {}},
    {0x65, "MPEG-2 Visual 4:2:2", {}},
    {0x66, "MPEG-2 AAC Main", {86018, "AAC"}},
    {0x67, "MPEG-2 AAC LC", {86018, "AAC"}},
    {0x68, "MPEG-2 AAC SSR", {86018, "AAC"}},
    {0x69, "MPEG-2 Audio (MP3, MP2)", {86017, "MP3"}},
    {0x6A, "MPEG-1 Visual", {}},
    {0x6B, "MPEG-1 Audio (MP3, MP2)", {86017, "MP3"}},
    {0x6C, "JPEG", {8, "Motion JPEG"}},
    {0x6D, "PNG", {}},
    {0x6E, "JPEG 2000", {}},
    {0xA3, "VC-1", {}},
    {0xA4, "Dirac", {}},
    {0xA5, "AC-3", {86019, "AC-3"}},
    {0xA6, "E-AC-3", {86056, "E-AC-3"}},
    {0xA9, "DTS", {}},
    {0xAA, "DTS-HD High Resolution", {}},
    {0xAB, "DTS-HD Master Audio", {}},
    {0xAC, "DTS Express", {}},
    {0xAD, "Opus", {86076, "Opus"}},
    {0xFF, "no object type specified", {}},
};

const Codec *find(const QString &sampleEntryType, bool deep)
{
    for (const auto &row : Codecs) {
        if ((deep || !row.deepOnly) && sampleEntryType == QLatin1String(row.sampleEntryType))
            return &row.codec;
    }
    return nullptr;
}
} // namespace

const Codec *codecOf(const QString &sampleEntryType)
{
    return find(sampleEntryType, false);
}

const Codec *deepCodecOf(const QString &sampleEntryType)
{
    return find(sampleEntryType, true);
}

const char *objectTypeName(quint8 objectTypeIndication)
{
    for (const auto &row : ObjectTypes) {
        if (row.objectTypeIndication == objectTypeIndication)
            return row.name;
    }
    return nullptr;
}

const Codec *codecOfObjectType(quint8 objectTypeIndication)
{
    for (const auto &row : ObjectTypes) {
        if (row.objectTypeIndication == objectTypeIndication)
            return row.codec.name ? &row.codec : nullptr;
    }
    return nullptr;
}

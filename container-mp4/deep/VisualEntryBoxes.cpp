#include "DeepRows.h"
#include "PayloadReader.h"

#include <QStringList>

#include <iterator>
#include <utility>

// The small boxes that extend visual and audio sample entries: bit rates, colour, pixel
// shape and cropping, fields, mastering display and light levels, and the channel layout,
// sample rate and PCM format of sound, with the wave box QuickTime wraps codec boxes in.

namespace {

using Names = std::initializer_list<std::pair<quint32, const char *>>;

// The name of a code, or nothing for a code not listed.
QString nameOf(quint64 code, Names names)
{
    for (const auto &[value, name] : names) {
        if (code == value)
            return QString::fromLatin1(name);
    }
    return QString();
}

// The codes of colour descriptions (as ITU-T H.273 numbers them), which QuickTime's nclc
// shares.
const Names ColourPrimaries = {
    {1, "BT.709"},
    {2, "unspecified"},
    {4, "BT.470 System M"},
    {5, "BT.470 System B, G"},
    {6, "SMPTE 170M"},
    {7, "SMPTE 240M"},
    {8, "generic film"},
    {9, "BT.2020"},
    {10, "SMPTE ST 428-1"},
    {11, "SMPTE RP 431-2 (DCI-P3)"},
    {12, "SMPTE EG 432-1 (Display P3)"},
    {22, "EBU Tech. 3213-E"},
};
const Names TransferCharacteristics = {
    {1, "BT.709"},
    {2, "unspecified"},
    {4, "gamma 2.2"},
    {5, "gamma 2.8"},
    {6, "SMPTE 170M"},
    {7, "SMPTE 240M"},
    {8, "linear"},
    {9, "logarithmic 100:1"},
    {10, "logarithmic 316:1"},
    {11, "IEC 61966-2-4"},
    {12, "BT.1361"},
    {13, "sRGB"},
    {14, "BT.2020 10-bit"},
    {15, "BT.2020 12-bit"},
    {16, "SMPTE ST 2084 (PQ)"},
    {17, "SMPTE ST 428-1"},
    {18, "ARIB STD-B67 (HLG)"},
};
const Names MatrixCoefficients = {
    {0, "identity (RGB)"},
    {1, "BT.709"},
    {2, "unspecified"},
    {4, "FCC"},
    {5, "BT.470 System B, G"},
    {6, "SMPTE 170M"},
    {7, "SMPTE 240M"},
    {8, "YCgCo"},
    {9, "BT.2020 non-constant luminance"},
    {10, "BT.2020 constant luminance"},
    {11, "SMPTE ST 2085"},
    {12, "chromaticity-derived non-constant luminance"},
    {13, "chromaticity-derived constant luminance"},
    {14, "ICtCp"},
};

// A 16-bit code with its name beside it.
void code16(PayloadReader &box, const char *name, Names names)
{
    box.u16(name, nameOf(box.peekUnsigned(2), names));
}

// btrt: the bit rates of the stream.
int parseBitRate(PayloadReader &box)
{
    box.u32("buffer_size_db", QStringLiteral("bytes"));
    box.u32("max_bitrate", QStringLiteral("bits per second"));
    box.u32("avg_bitrate", QStringLiteral("bits per second"));
    box.rest();
    return ContainerAbstract::ParseOk;
}

// colr: the colour description as codes (nclx; nclc of QuickTime has no range flag) or as
// an ICC profile (rICC restricted, prof unrestricted).
int parseColour(PayloadReader &box)
{
    const QString type = box.fourcc(
        "colour_type", nameOf(box.peekUnsigned(4), {{0x6E636C78, "codes"},
                                                    {0x6E636C63, "codes (QuickTime)"},
                                                    {0x72494343, "restricted ICC profile"},
                                                    {0x70726F66, "ICC profile"}}));
    if (type == QLatin1String("nclx") || type == QLatin1String("nclc")) {
        code16(box, "colour_primaries", ColourPrimaries);
        code16(box, "transfer_characteristics", TransferCharacteristics);
        code16(box, "matrix_coefficients", MatrixCoefficients);
        if (type == QLatin1String("nclx")) {
            PayloadReader::Bits range = box.bits(1);
            range.flag("full_range_flag");
            range.field("reserved", 7);
        }
    } else if (type == QLatin1String("rICC") || type == QLatin1String("prof")) {
        box.data("icc_profile", box.left());
    }
    box.rest();
    return ContainerAbstract::ParseOk;
}

// pasp: the shape of a pixel, as the ratio of its width to its height.
int parsePixelAspectRatio(PayloadReader &box)
{
    box.u32("h_spacing");
    box.u32("v_spacing");
    box.rest();
    return ContainerAbstract::ParseOk;
}

// clap: the clean aperture, its size and its offset from the centre as fractions.
int parseCleanAperture(PayloadReader &box)
{
    for (const char *name :
         {"clean_aperture_width_n", "clean_aperture_width_d", "clean_aperture_height_n",
          "clean_aperture_height_d", "horiz_off_n", "horiz_off_d", "vert_off_n", "vert_off_d"})
        box.u32(name);
    box.rest();
    return ContainerAbstract::ParseOk;
}

// fiel of QuickTime: how many fields a picture has and how they are ordered.
int parseFieldHandling(PayloadReader &box)
{
    box.u8("fields", nameOf(box.peekUnsigned(1), {{1, "progressive"}, {2, "interlaced"}}));
    box.u8("detail");
    box.rest();
    return ContainerAbstract::ParseOk;
}

// mdcv: the display the content was mastered on.
int parseMasteringDisplay(PayloadReader &box)
{
    const QString x = QStringLiteral("display_primaries_x");
    const QString y = QStringLiteral("display_primaries_y");
    for (int c = 0; c < 3; ++c) {
        box.listField(x, 2, c);
        box.listField(y, 2, c);
    }
    box.u16("white_point_x", QStringLiteral("in 0.00002"));
    box.u16("white_point_y", QStringLiteral("in 0.00002"));
    box.u32("max_display_mastering_luminance", QStringLiteral("in 0.0001 cd/m2"));
    box.u32("min_display_mastering_luminance", QStringLiteral("in 0.0001 cd/m2"));
    box.rest();
    return ContainerAbstract::ParseOk;
}

// clli: the light levels of the content.
int parseContentLightLevel(PayloadReader &box)
{
    box.u16("max_content_light_level", QStringLiteral("cd/m2"));
    box.u16("max_pic_average_light_level", QStringLiteral("cd/m2"));
    box.rest();
    return ContainerAbstract::ParseOk;
}

// ccst: what the coded pictures may refer to.
int parseCodingConstraints(PayloadReader &box)
{
    PayloadReader::Bits word = box.bits(4);
    word.flag("all_ref_pics_intra");
    word.flag("intra_pred_used");
    word.field("max_ref_per_pic", 4);
    word.field("reserved", 26);
    box.rest();
    return ContainerAbstract::ParseOk;
}

// The channels a Core Audio channel bitmap holds, one bit each from the lowest.
QString channelBitmapNames(quint64 bitmap)
{
    static const char *const names[] = {"left",
                                        "right",
                                        "center",
                                        "LFE screen",
                                        "left surround",
                                        "right surround",
                                        "left center",
                                        "right center",
                                        "center surround",
                                        "left surround direct",
                                        "right surround direct",
                                        "top center surround",
                                        "vertical height left",
                                        "vertical height center",
                                        "vertical height right",
                                        "top back left",
                                        "top back center",
                                        "top back right"};
    QStringList set;
    for (int bit = 0; bit < int(std::size(names)); ++bit) {
        if (bitmap & (quint64(1) << bit))
            set << QLatin1String(names[bit]);
    }
    return set.join(QLatin1String(", "));
}

// chan of QuickTime: a Core Audio channel layout, big-endian. The tag says the layout, or
// that the bitmap or the descriptions say it; the low half of a layout's tag is its count of
// channels.
int parseChannelLayout(PayloadReader &box)
{
    const quint64 tag = box.peekUnsigned(4);
    QString tagName = nameOf(tag, {{0, "use the descriptions"},
                                   {0x10000, "use the bitmap"},
                                   {0x640001, "mono"},
                                   {0x650002, "stereo"}});
    if (tagName.isEmpty())
        tagName = QStringLiteral("layout %1, %2 channels").arg(tag >> 16).arg(tag & 0xFFFF);
    box.u32("channel_layout_tag", tagName);
    box.u32("channel_bitmap", channelBitmapNames(box.peekUnsigned(4)));
    const quint32 count = box.u32("number_channel_descriptions");
    const QString description = QStringLiteral("channel_description");
    const QString coordinates = QStringLiteral("coordinates");
    for (quint32 i = 0; i < count && box.available() >= 20; ++i) {
        box.beginGroup(description, i, 20);
        box.u32("channel_label");
        box.u32("channel_flags", QStringLiteral("1: rectangular, 2: spherical, 4: meters"));
        for (int c = 0; c < 3; ++c)
            box.floatField(coordinates, 4, c);
        box.endGroup();
    }
    box.rest();
    return ContainerAbstract::ParseOk;
}

// srat: the sample rate of an entry whose own field cannot hold it.
int parseSamplingRate(PayloadReader &box)
{
    box.u32("sampling_rate", QStringLiteral("Hz"));
    box.rest();
    return ContainerAbstract::ParseOk;
}

// pcmC: the byte order and the sample size of PCM.
int parsePcmConfiguration(PayloadReader &box)
{
    box.u8("format_flags", (box.peekUnsigned(1) & 1) != 0 ? QStringLiteral("little-endian")
                                                          : QStringLiteral("big-endian"));
    box.u8("pcm_sample_size", QStringLiteral("bits"));
    box.rest();
    return ContainerAbstract::ParseOk;
}

// enda of QuickTime: the byte order of the samples.
int parseEndianness(PayloadReader &box)
{
    box.u16("little_endian", QStringLiteral("1: little-endian"));
    box.rest();
    return ContainerAbstract::ParseOk;
}

// A box inside wave of no row of its own. QuickTime repeats the sound format there as a box of
// its type holding one word, 0; the closing box of eight zero bytes has no payload at all.
int parseWaveChild(PayloadReader &box)
{
    if (box.left() == 4)
        box.u32("reserved", QStringLiteral("QuickTime format box"));
    box.rest();
    return ContainerAbstract::ParseOk;
}

} // namespace

DeepRows entryBoxRows()
{
    return {
        {"btrt", DeepPlain, 0, parseBitRate},
        {"colr", DeepPlain, 0, parseColour},
        {"pasp", DeepPlain, 0, parsePixelAspectRatio},
        {"clap", DeepPlain, 0, parseCleanAperture},
        {"fiel", DeepPlain, 0, parseFieldHandling},
        {"mdcv", DeepPlain, 0, parseMasteringDisplay},
        {"clli", DeepPlain, 0, parseContentLightLevel},
        {"ccst", DeepPlain, 1, parseCodingConstraints},
        {"chan", DeepPlain, 1, parseChannelLayout},
        {"srat", DeepPlain, 1, parseSamplingRate},
        {"pcmC", DeepPlain, 1, parsePcmConfiguration},
        {"enda", DeepPlain, 0, parseEndianness},
        // wave of QuickTime holds the boxes of the codec behind a sound entry, and closes
        // with a box of eight zero bytes.
        {"wave", DeepContainer, 0, nullptr},
        {"wave/*", DeepPlain, 0, parseWaveChild},
    };
}

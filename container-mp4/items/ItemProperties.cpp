#include "ItemRows.h"
#include "deep/PayloadReader.h"

// The properties of items that only items have: the size of an image, its channels, how it
// is turned, mirrored and placed, which layer it shows, what an auxiliary image is for, the
// operating point and layer sizes of AV1, the colour volume of its content, the header of a
// JPEG and a description for people. Colour, pixel aspect ratio, clean aperture, light levels
// and the decoder configurations are the boxes of visual sample entries (VisualEntryBoxes.cpp,
// CodecConfigurations.cpp).

namespace {

// ispe: the width and height of the image, in pixels.
int parseImageSpatialExtents(PayloadReader &box)
{
    const quint32 width = box.u32("image_width", QStringLiteral("pixels"));
    const quint32 height = box.u32("image_height", QStringLiteral("pixels"));
    if (ItemWalk *items = itemWalk(box); items && box.ok())
        items->propertyFields.emplace(box.path(), std::make_pair(width, height));
    box.rest();
    return ContainerAbstract::ParseOk;
}

// pixi: the bits of each channel of the image.
int parsePixelInformation(PayloadReader &box)
{
    const quint8 channels = box.u8("num_channels");
    const QString bits = QStringLiteral("bits_per_channel");
    for (quint8 i = 0; i < channels && box.available() >= 1; ++i)
        box.listField(bits, 1, i);
    box.rest();
    return ContainerAbstract::ParseOk;
}

// irot: the image is turned anticlockwise by this many quarter turns.
int parseImageRotation(PayloadReader &box)
{
    const quint64 angle = box.peekUnsigned(1) & 3;
    PayloadReader::Bits bits = box.bits(1);
    bits.field("reserved", 6);
    bits.field("angle", 2, QStringLiteral("%1 degrees anticlockwise").arg(angle * 90));
    box.rest();
    return ContainerAbstract::ParseOk;
}

// imir: the image is mirrored about a vertical or a horizontal axis.
int parseImageMirror(PayloadReader &box)
{
    const bool horizontal = box.peekUnsigned(1) & 1;
    PayloadReader::Bits bits = box.bits(1);
    bits.field("reserved", 7);
    bits.field("axis", 1,
               horizontal ? QStringLiteral("horizontal: top and bottom swap")
                          : QStringLiteral("vertical: left and right swap"));
    box.rest();
    return ContainerAbstract::ParseOk;
}

// rloc: where the image lies on the picture of the image that it is a part of.
int parseRelativeLocation(PayloadReader &box)
{
    box.u32("horizontal_offset", QStringLiteral("pixels"));
    box.u32("vertical_offset", QStringLiteral("pixels"));
    box.rest();
    return ContainerAbstract::ParseOk;
}

// lsel: the layer of a layered image to show.
int parseLayerSelector(PayloadReader &box)
{
    box.u16("layer_id");
    box.rest();
    return ContainerAbstract::ParseOk;
}

// auxC: what an auxiliary image is for, as a URN such as that of alpha planes, and what
// its type adds.
int parseAuxiliaryType(PayloadReader &box)
{
    box.nullTerminated("aux_type");
    box.data("aux_subtype", box.left());
    return ContainerAbstract::ParseOk;
}

// a1op: the operating point of an AV1 image to decode.
int parseOperatingPointSelector(PayloadReader &box)
{
    box.u8("op_index");
    box.rest();
    return ContainerAbstract::ParseOk;
}

// a1lx: the sizes of the first three layers of an AV1 image, of 2 bytes or, with large_size,
// of 4; the last layer takes the rest.
int parseLayeredImageIndexing(PayloadReader &box)
{
    const bool large = box.peekUnsigned(1) & 1;
    PayloadReader::Bits bits = box.bits(1);
    bits.field("reserved", 7);
    bits.flag("large_size");
    const QString size = QStringLiteral("layer_size");
    for (int i = 0; i < 3; ++i)
        box.listField(size, large ? 4 : 2, i);
    box.rest();
    return ContainerAbstract::ParseOk;
}

// cclv: the colour volume the content fills: its primaries and its luminance, each part
// present by its flag.
int parseContentColourVolume(PayloadReader &box)
{
    const quint64 flags = box.peekUnsigned(1);
    PayloadReader::Bits bits = box.bits(1);
    bits.field("reserved", 1);
    bits.field("reserved", 1);
    bits.flag("ccv_primaries_present_flag");
    bits.flag("ccv_min_luminance_value_present_flag");
    bits.flag("ccv_max_luminance_value_present_flag");
    bits.flag("ccv_avg_luminance_value_present_flag");
    bits.field("ccv_reserved_zero_2bits", 2);
    if (flags & 0x20) {
        const QString x = QStringLiteral("ccv_primaries_x");
        const QString y = QStringLiteral("ccv_primaries_y");
        for (int c = 0; c < 3; ++c) {
            box.signedField(QStringLiteral("%1[%2]").arg(x).arg(c), 4);
            box.signedField(QStringLiteral("%1[%2]").arg(y).arg(c), 4);
        }
    }
    if (flags & 0x10)
        box.u32("ccv_min_luminance_value");
    if (flags & 0x08)
        box.u32("ccv_max_luminance_value");
    if (flags & 0x04)
        box.u32("ccv_avg_luminance_value");
    box.rest();
    return ContainerAbstract::ParseOk;
}

// jpgC: the header a JPEG image shares with others, to put in front of its data.
int parseJpegConfiguration(PayloadReader &box)
{
    box.data("JPEG_prefix", box.left());
    return ContainerAbstract::ParseOk;
}

// udes: a name, a description and tags for people, in a language.
int parseUserDescription(PayloadReader &box)
{
    box.nullTerminated("lang");
    box.nullTerminated("name");
    box.nullTerminated("description");
    box.nullTerminated("tags");
    box.rest();
    return ContainerAbstract::ParseOk;
}

// The properties read field by field, in their family or another.
const char *const KnownProperties[] = {"ispe", "pixi", "colr", "irot", "imir", "clap", "pasp",
                                       "rloc", "lsel", "auxC", "a1op", "a1lx", "clli", "mdcv",
                                       "cclv", "hvcC", "av1C", "jpgC", "udes"};

} // namespace

bool knownProperty(const QString &type)
{
    for (const char *known : KnownProperties) {
        if (type == QLatin1String(known))
            return true;
    }
    return false;
}

DeepRows itemPropertyRows()
{
    return {
        {"ispe", DeepPlain, 1, parseImageSpatialExtents},
        {"pixi", DeepPlain, 1, parsePixelInformation},
        {"irot", DeepPlain, 0, parseImageRotation},
        {"imir", DeepPlain, 0, parseImageMirror},
        {"rloc", DeepPlain, 1, parseRelativeLocation},
        {"lsel", DeepPlain, 0, parseLayerSelector},
        {"auxC", DeepPlain, 1, parseAuxiliaryType},
        {"a1op", DeepPlain, 0, parseOperatingPointSelector},
        {"a1lx", DeepPlain, 0, parseLayeredImageIndexing},
        {"cclv", DeepPlain, 0, parseContentColourVolume},
        {"jpgC", DeepPlain, 0, parseJpegConfiguration},
        {"udes", DeepPlain, 1, parseUserDescription},
    };
}

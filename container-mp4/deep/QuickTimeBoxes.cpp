#include "DeepRows.h"
#include "PayloadReader.h"

// QuickTime's boxes of how a movie or a track is drawn and loaded: the preload settings of a
// track, its clipping region, its matte, the colour table of a movie, and the Xtra box in which
// Windows keeps tags of its own.

namespace {

// load: which part of the track is read ahead, and how it is played.
int parseLoadSettings(PayloadReader &box)
{
    box.u32("preload_start_time", QStringLiteral("in the movie's time units"));
    const quint32 duration = quint32(box.peekUnsigned(4));
    box.u32("preload_duration", duration == 0xFFFFFFFF
                                    ? QStringLiteral("to the end of the track")
                                    : QStringLiteral("in the movie's time units"));
    const quint32 flags = quint32(box.peekUnsigned(4));
    box.u32("preload_flags", flags == 1   ? QStringLiteral("always")
                             : flags == 2 ? QStringLiteral("only if enabled")
                                          : QString());
    box.u32("default_hints", QStringLiteral("0x20: double buffer, 0x100: high quality"));
    box.rest();
    return ContainerAbstract::ParseOk;
}

// crgn: a region, its bounding box and the data of its shape, as QuickDraw stores one.
int parseClippingRegion(PayloadReader &box)
{
    const quint64 size = box.sizeField("region_size", 2);
    box.beginGroup(QStringLiteral("region_bounding_box"), -1, 8);
    box.i16("top");
    box.i16("left");
    box.i16("bottom");
    box.i16("right");
    box.endGroup();
    // The size covers itself and the bounding box; anything beyond is the shape.
    if (size > 10)
        box.raw("region_data", qMin<quint64>(size - 10, box.left()));
    box.rest();
    return ContainerAbstract::ParseOk;
}

// kmat: the matte of a track, an image description in the form of a sample entry (its size
// and format first) followed by the matte's image.
int parseCompressedMatte(PayloadReader &box)
{
    const quint64 size = box.peekUnsigned(4);
    if (size >= 8 && size <= box.left()) {
        box.beginGroup(QStringLiteral("image_description"), -1, size);
        box.sizeField("size", 4);
        box.fourcc("data_format");
        if (size > 8)
            box.raw("description", size - 8);
        box.endGroup();
    }
    if (box.left() > 0)
        box.raw("matte_data", box.left());
    box.rest();
    return ContainerAbstract::ParseOk;
}

// ctab: the colours a movie prefers on a display of 256 colours.
int parseColourTable(PayloadReader &box)
{
    box.u32("color_table_seed");
    box.u16("color_table_flags");
    const quint16 last = box.u16("color_table_size", QStringLiteral("colours minus one"));
    const QString colour = QStringLiteral("color");
    const QString component = QStringLiteral("rgb");
    for (quint32 i = 0; i <= last && box.available() >= 8; ++i) {
        box.beginGroup(colour, i, 8);
        box.u16("value");
        for (qint64 c = 0; c < 3; ++c)
            box.listField(component, 2, c);
        box.endGroup();
    }
    box.rest();
    return ContainerAbstract::ParseOk;
}

// The little-endian number of width bytes ahead, as Xtra stores its numbers.
quint64 littleEndianAhead(PayloadReader &box, int width, quint64 ahead = 0)
{
    quint64 value = 0;
    for (int i = width - 1; i >= 0; --i)
        value = value << 8 | box.peekUnsigned(1, ahead + quint64(i));
    return value;
}

// The types of Xtra values, numbered as Windows numbers the types of its property values.
QString xtraTypeName(quint16 type)
{
    switch (type) {
    case 8:
        return QStringLiteral("text");
    case 11:
        return QStringLiteral("boolean");
    case 18:
        return QStringLiteral("16-bit number");
    case 19:
        return QStringLiteral("32-bit number");
    case 21:
        return QStringLiteral("64-bit number");
    case 64:
        return QStringLiteral("file time, in 100 ns from 1601");
    default:
        return QString();
    }
}

// One value of an Xtra attribute: its size, which counts its own six bytes, its type, and
// its bytes: UTF-16 text for type 8, a little-endian number where its width is that of one.
void xtraValue(PayloadReader &box, quint32 index, quint64 end)
{
    const quint64 size = box.peekUnsigned(4);
    const quint64 extent = size >= 6 && size <= end - box.at() ? size : end - box.at();
    box.beginGroup(QStringLiteral("value"), index, extent);
    box.sizeField("value_size", 4);
    const quint16 type = box.u16("value_type", xtraTypeName(quint16(box.peekUnsigned(2))));
    const quint64 width = extent >= 6 ? extent - 6 : 0;
    if (type == 8) {
        box.utf16("text", width, QString(), true);
    } else if (width == 2 || width == 4 || width == 8) {
        box.decodedField("number", int(width), littleEndianAhead(box, int(width)),
                         QStringLiteral("little-endian"));
    } else if (width > 0) {
        box.raw("value_data", width);
    }
    box.endGroup();
}

int parseXtra(PayloadReader &box)
{
    const QString attribute = QStringLiteral("attribute");
    for (quint32 i = 0; box.available() >= 12 && box.ok(); ++i) {
        const quint64 size = box.peekUnsigned(4);
        if (size < 12 || size > box.left())
            break;
        const quint64 end = box.at() + size;
        box.beginGroup(attribute, i, size);
        box.sizeField("attribute_size", 4);
        const quint32 nameLength = box.u32("name_length");
        box.utf8("name", qMin<quint64>(nameLength, end - box.at()));
        const quint32 count = box.u32("value_count");
        for (quint32 j = 0; j < count && box.ok() && end - box.at() >= 6; ++j)
            xtraValue(box, j, end);
        if (end > box.at())
            box.raw("padding", end - box.at());
        box.endGroup();
    }
    box.rest();
    return ContainerAbstract::ParseOk;
}

} // namespace

DeepRows quickTimeRows()
{
    return {
        {"load", DeepPlain, 0, parseLoadSettings},
        {"clip", DeepContainer, 0, nullptr},
        {"crgn", DeepPlain, 0, parseClippingRegion},
        {"matt", DeepContainer, 0, nullptr},
        {"kmat", DeepPlain, 1, parseCompressedMatte},
        {"ctab", DeepPlain, 0, parseColourTable},
        {"Xtra", DeepPlain, 0, parseXtra},
    };
}

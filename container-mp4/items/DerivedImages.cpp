#include "ItemRows.h"
#include "deep/PayloadReader.h"

#include <algorithm>
#include <map>

// The layouts of derived images: a grid puts its tiles (the items it references by dimg) in
// rows and columns, an overlay puts its images at offsets on a canvas. Where their bytes lie
// in idat they are decoded there, as a group of the idat's fields, so that each field keeps
// its offset; wherever they lie, the end of the walk reads them into the item's record.

namespace {

// The number of images each item derives from: the IDs of its dimg references.
std::map<quint32, quint64> derivedCounts(const ItemWalk &items)
{
    std::map<quint32, quint64> counts;
    for (const ItemWalk::Reference &reference : items.references) {
        if (reference.type == QLatin1String("dimg"))
            counts[reference.from] += reference.to.size();
    }
    return counts;
}

// The size fields of both layouts: of 4 bytes with flag 1, else of 2.
int sizeWidth(PayloadReader &box)
{
    return (box.peekUnsigned(1, 1) & 1) ? 4 : 2;
}

void decodeGrid(PayloadReader &box)
{
    const int width = sizeWidth(box);
    box.u8("version");
    box.u8("flags", width == 4 ? QStringLiteral("32-bit sizes") : QStringLiteral("16-bit sizes"));
    const quint64 rows = box.peekUnsigned(1) + 1;
    box.u8("rows_minus_one", QStringLiteral("%1 rows").arg(rows));
    const quint64 columns = box.peekUnsigned(1) + 1;
    box.u8("columns_minus_one", QStringLiteral("%1 columns").arg(columns));
    box.unsignedField(QStringLiteral("output_width"), width, QStringLiteral("pixels"));
    box.unsignedField(QStringLiteral("output_height"), width, QStringLiteral("pixels"));
}

void decodeOverlay(PayloadReader &box, quint64 length, quint64 images)
{
    const int width = sizeWidth(box);
    box.u8("version");
    box.u8("flags", width == 4 ? QStringLiteral("32-bit sizes") : QStringLiteral("16-bit sizes"));
    for (const char *channel : {"canvas_fill_value_r", "canvas_fill_value_g", "canvas_fill_value_b",
                                "canvas_fill_value_a"})
        box.u16(channel);
    box.unsignedField(QStringLiteral("output_width"), width, QStringLiteral("pixels"));
    box.unsignedField(QStringLiteral("output_height"), width, QStringLiteral("pixels"));
    const quint64 fixed = 10 + 2 * quint64(width);
    const quint64 offsets = qMin(images, (length - qMin(length, fixed)) / (2 * quint64(width)));
    const QString horizontal = QStringLiteral("horizontal_offset");
    const QString vertical = QStringLiteral("vertical_offset");
    for (quint64 i = 0; i < offsets && box.ok(); ++i) {
        box.signedField(QStringLiteral("%1[%2]").arg(horizontal).arg(i), width);
        box.signedField(QStringLiteral("%1[%2]").arg(vertical).arg(i), width);
    }
}

} // namespace

void decodeDerivedImages(PayloadReader &box, const ItemWalk &items)
{
    // Only the first idat holds the data of items, and only what comes before it is known.
    if (!items.itemData || items.itemData->first != box.at())
        return;
    struct Layout {
        quint64 start = 0;
        quint64 length = 0;
        quint32 id = 0;
        bool grid = true;
    };
    std::map<quint32, const ItemWalk::Location *> locations;
    for (const ItemWalk::Location &location : items.locations)
        locations.emplace(location.id, &location);
    std::vector<Layout> layouts;
    for (const ItemWalk::Info &info : items.infos) {
        const bool grid = info.type == QLatin1String("grid");
        if (!grid && info.type != QLatin1String("iovl"))
            continue;
        const auto found = locations.find(info.id);
        if (found == locations.end())
            continue;
        const ItemWalk::Location *location = found->second;
        if (location->constructionMethod != 1 || location->extents.size() != 1)
            continue;
        const ItemWalk::Location::Extent &extent = location->extents.front();
        const quint64 start = location->baseOffset + extent.offset;
        if (start < location->baseOffset || start >= box.left())
            continue;
        const quint64 length =
            extent.length == 0 ? box.left() - start : qMin(extent.length, box.left() - start);
        layouts.push_back({start, length, info.id, grid});
    }
    std::sort(layouts.begin(), layouts.end(),
              [](const Layout &a, const Layout &b) { return a.start < b.start; });
    const std::map<quint32, quint64> images = derivedCounts(items);
    const quint64 begin = box.at();
    for (const Layout &layout : layouts) {
        const quint64 done = box.at() - begin;
        // A layout whose bytes another one has shown stays data.
        if (layout.start < done || !box.ok())
            continue;
        box.data("data", layout.start - done);
        // The fixed fields, with sizes of 2 bytes or of 4.
        const quint64 width = quint64(sizeWidth(box));
        const quint64 needed = (layout.grid ? 4 : 10) + 2 * width;
        if (layout.length < needed)
            continue;
        box.beginGroup(layout.grid ? QStringLiteral("image_grid") : QStringLiteral("image_overlay"),
                       -1, layout.length);
        const quint64 groupStart = box.at();
        const auto count = images.find(layout.id);
        if (layout.grid)
            decodeGrid(box);
        else
            decodeOverlay(box, layout.length, count == images.end() ? 0 : count->second);
        box.data("data", layout.length - qMin(layout.length, box.at() - groupStart));
        box.endGroup();
    }
}

quint64 layoutBytes(const QString &type, quint64 images)
{
    // With sizes of 4 bytes: 12 for a grid; 18 and 8 per image for an overlay.
    if (type == QLatin1String("grid"))
        return 12;
    if (type == QLatin1String("iovl"))
        return 18 + 8 * images;
    return 0;
}

void decodeLayoutRecord(Item &item, const QByteArray &bytes, quint64 images)
{
    const auto byte = [&](qsizetype at) { return quint8(bytes[at]); };
    if (bytes.size() < 2)
        return;
    const int width = (byte(1) & 1) ? 4 : 2;
    // A big-endian number of width bytes at the cursor, which moves past it.
    qsizetype at = 2;
    const auto number = [&](int size) {
        quint32 value = 0;
        for (int i = 0; i < size; ++i)
            value = value << 8 | byte(at++);
        return value;
    };
    if (item.type == QLatin1String("grid")) {
        if (bytes.size() < 4 + 2 * width)
            return;
        ItemGrid grid;
        grid.rows = number(1) + 1u;
        grid.columns = number(1) + 1u;
        grid.outputWidth = number(width);
        grid.outputHeight = number(width);
        item.grid = grid;
        return;
    }
    if (bytes.size() < 10 + 2 * width)
        return;
    ItemOverlay overlay;
    for (quint16 &channel : overlay.canvasFill)
        channel = quint16(number(2));
    overlay.outputWidth = number(width);
    overlay.outputHeight = number(width);
    // Offsets are signed, of the width of the sizes.
    const auto offset = [&] {
        const quint32 value = number(width);
        return width == 4 ? qint32(value) : qint32(qint16(quint16(value)));
    };
    for (quint64 i = 0; i < images && at + 2 * width <= bytes.size(); ++i) {
        const qint32 x = offset();
        overlay.offsets.push_back({x, offset()});
    }
    item.overlay = std::move(overlay);
}

#pragma once

#include "Support.h"

#include <functional>
#include <vector>

// Builders of files of items, such as HEIF images, for the item tests: the boxes of a meta
// box, and a whole file whose meta box learns where its mdat's payload lies.
namespace items {

using namespace bytes;

// A number of 0, 4 or 8 bytes, as iloc writes its offsets and lengths.
inline QByteArray sized(int width, quint64 value)
{
    return width == 8 ? u64(value) : width == 4 ? u32(quint32(value)) : QByteArray();
}

inline QByteArray handler()
{
    return fullBox("hdlr", 0, 0, cat({u32(0), text("pict"), zeros(12), u8(0)}));
}

inline QByteArray primary(quint32 id)
{
    return fullBox("pitm", 0, 0, u16(quint16(id)));
}

// An infe of version 2 with an empty name.
inline QByteArray entry(quint32 id, const char *type, quint32 flags = 0)
{
    return fullBox("infe", 2, flags, cat({u16(quint16(id)), u16(0), text(type), u8(0)}));
}

inline QByteArray info(const std::vector<QByteArray> &entries)
{
    QByteArray all = u16(quint16(entries.size()));
    for (const QByteArray &one : entries)
        all += one;
    return fullBox("iinf", 0, 0, all);
}

struct Extent {
    quint64 offset = 0;
    quint64 length = 0;
    quint64 index = 0;
};

struct Location {
    quint32 id = 0;
    quint64 baseOffset = 0;
    std::vector<Extent> extents;
    int constructionMethod = 0;
};

struct Sizes {
    int offset = 4;
    int length = 4;
    int baseOffset = 0;
    int index = 0;
};

inline QByteArray location(const std::vector<Location> &locations, int version = 1,
                           Sizes sizes = {})
{
    QByteArray all = cat({u8(quint8(sizes.offset << 4 | sizes.length)),
                          u8(quint8(sizes.baseOffset << 4 | (version >= 1 ? sizes.index : 0)))});
    all += version < 2 ? u16(quint16(locations.size())) : u32(quint32(locations.size()));
    for (const Location &one : locations) {
        all += version < 2 ? u16(quint16(one.id)) : u32(one.id);
        if (version >= 1)
            all += u16(quint16(one.constructionMethod));
        all += u16(0) + sized(sizes.baseOffset, one.baseOffset) + u16(quint16(one.extents.size()));
        for (const Extent &extent : one.extents) {
            if (version >= 1)
                all += sized(sizes.index, extent.index);
            all += sized(sizes.offset, extent.offset) + sized(sizes.length, extent.length);
        }
    }
    return fullBox("iloc", quint8(version), 0, all);
}

inline QByteArray spatialExtents(quint32 width, quint32 height)
{
    return fullBox("ispe", 0, 0, u32(width) + u32(height));
}

// One entry of ipma: an item and its properties, each an index from 1 and its essential bit.
struct Association {
    quint32 item = 0;
    std::vector<std::pair<quint32, bool>> properties;
};

inline QByteArray associations(const std::vector<Association> &entries, int version = 0,
                               quint32 flags = 0)
{
    QByteArray all = u32(quint32(entries.size()));
    for (const Association &one : entries) {
        all += version < 1 ? u16(quint16(one.item)) : u32(one.item);
        all += u8(quint8(one.properties.size()));
        for (const auto &[index, essential] : one.properties)
            all += flags & 1 ? u16(quint16((essential ? 0x8000 : 0) | index))
                             : u8(quint8((essential ? 0x80 : 0) | index));
    }
    return fullBox("ipma", quint8(version), flags, all);
}

inline QByteArray properties(const QByteArray &container, const QByteArray &ipma)
{
    return box("iprp", box("ipco", container) + ipma);
}

// A reference box of iref version 0.
inline QByteArray reference(const char *type, quint32 from, const std::vector<quint32> &to)
{
    QByteArray all = u16(quint16(from)) + u16(quint16(to.size()));
    for (quint32 id : to)
        all += u16(quint16(id));
    return box(type, all);
}

inline QByteArray references(const QByteArray &boxes)
{
    return fullBox("iref", 0, 0, boxes);
}

// A grid layout of 16-bit output sizes.
inline QByteArray gridLayout(quint8 rows, quint8 columns, quint16 width, quint16 height)
{
    return cat(
        {u8(0), u8(0), u8(quint8(rows - 1)), u8(quint8(columns - 1)), u16(width), u16(height)});
}

// ftyp, a meta box made by metaOf from the offset of the mdat's payload, and that mdat.
inline QByteArray imageFile(const std::function<QByteArray(quint64 mediaData)> &metaOf,
                            const QByteArray &mediaData = QByteArray(16, '\x11'))
{
    const QByteArray ftyp = box("ftyp", cat({text("heic"), u32(0), text("mif1"), text("heic")}));
    const auto meta = [&](quint64 at) { return fullBox("meta", 0, 0, handler() + metaOf(at)); };
    const quint64 at = quint64(ftyp.size() + meta(0).size() + 8);
    return cat({ftyp, meta(at), box("mdat", mediaData)});
}

// The simplest image: item 1, primary, of type hvc1 and 64x64, its 16 bytes the mdat's.
inline QByteArray oneImage()
{
    return imageFile([](quint64 at) {
        return cat({primary(1), info({entry(1, "hvc1")}), location({{1, 0, {{at, 16}}}}),
                    properties(spatialExtents(64, 64), associations({{1, {{1, false}}}}))});
    });
}

// Hostile files of items: counts of extents far beyond their box, items built from each
// other in a loop, 65,535 items, and the largest grid a layout can declare.
inline QList<QPair<QString, QByteArray>> hostileItemFiles()
{
    std::vector<QByteArray> entries;
    std::vector<Location> locations;
    for (quint32 id = 1; id <= 65535; ++id) {
        entries.push_back(entry(id, "hvc1"));
        locations.push_back({id, 0, {{0, 1}}, 0});
    }
    const QByteArray many = imageFile([&](quint64) {
        return cat({primary(1), info(entries), location(locations)});
    });
    const QByteArray extentCount = imageFile([](quint64) {
        return cat({info({entry(1, "hvc1")}), fullBox("iloc", 0, 0,
                                                      cat({u8(0x44), u8(0), u16(1), u16(1), u16(0),
                                                           u16(0xFFFF), u32(0), u32(4)}))});
    });
    const QByteArray loop = imageFile([](quint64) {
        return cat({primary(1), info({entry(1, "hvc1"), entry(2, "hvc1")}),
                    references(reference("iloc", 1, {2}) + reference("iloc", 2, {1})),
                    location({{1, 0, {{0, 4, 1}}, 2}, {2, 0, {{0, 4, 1}}, 2}}, 1, {4, 4, 0, 4})});
    });
    const QByteArray largestGrid = imageFile([](quint64) {
        return cat(
            {primary(1), info({entry(1, "grid")}), location({{1, 0, {{0, 12}}, 1}}),
             box("idat", cat({u8(0), u8(1), u8(255), u8(255), u32(0xFFFFFFFF), u32(0xFFFFFFFF)})),
             properties(spatialExtents(0xFFFFFFFF, 0xFFFFFFFF), associations({{1, {{1, true}}}}))});
    });
    return {{"ItemExtentCountBeyondTheBox", extentCount},
            {"ItemsBuiltFromEachOtherInALoop", loop},
            {"SixtyFiveThousandItems", many},
            {"GridOfTheLargestLayout", largestGrid}};
}

} // namespace items

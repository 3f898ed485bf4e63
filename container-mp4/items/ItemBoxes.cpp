#include "ItemRows.h"
#include "deep/DeepAnalysis.h"
#include "deep/PayloadReader.h"

#include <algorithm>

// The boxes that tell the items of a file, such as the images of a HEIF or AVIF file: the
// primary item, the item list, where each item's bytes lie, the data kept in the meta box
// itself, the references between items, and which properties each item has. What they tell
// of the items of the file's top-level meta box is gathered for the end of the walk
// (ItemResolution.cpp).

namespace {

const char *const ConstructionMethods[] = {"file offset", "idat offset", "item offset"};

// pitm: the item the file stands for.
int parsePrimaryItem(PayloadReader &box)
{
    const quint64 at = box.boxOffset();
    const quint32 id =
        quint32(box.unsignedField(QStringLiteral("item_ID"), box.version() == 0 ? 2 : 4));
    if (ItemWalk *items = itemWalk(box); items && box.ok() && !items->primary) {
        items->primary = id;
        items->primaryOffset = at;
        items->primarySize = box.end() - at;
    }
    box.rest();
    return ContainerAbstract::ParseOk;
}

// iinf: the number of items, then an infe box for each.
int parseItemInfo(PayloadReader &box)
{
    box.unsignedField(QStringLiteral("entry_count"), box.version() == 0 ? 2 : 4);
    return box.walkChildren();
}

// infe: one item: its ID, type, name and, of a MIME item, its content type. Versions 0 and 1
// have no type; version 1 may end with an extension. Flag 1 hides the item from those who
// show the file's images.
int parseItemInfoEntry(PayloadReader &box)
{
    ItemWalk::Info info;
    info.offset = box.boxOffset();
    info.path = box.path();
    info.hidden = box.flags() & 1;
    const quint32 version = box.version();
    info.id = quint32(box.unsignedField(QStringLiteral("item_ID"), version == 3 ? 4 : 2));
    box.u16("item_protection_index",
            box.peekUnsigned(2) == 0 ? QStringLiteral("not protected") : QString());
    if (version >= 2) {
        info.type = box.fourcc("item_type");
        info.name = box.nullTerminated("item_name");
        if (info.type == QLatin1String("mime")) {
            info.contentType = box.nullTerminated("content_type");
            if (box.left() > 0)
                box.nullTerminated("content_encoding");
        } else if (info.type == QLatin1String("uri ")) {
            box.nullTerminated("item_uri_type");
        }
    } else {
        info.name = box.nullTerminated("item_name");
        info.contentType = box.nullTerminated("content_type");
        if (box.left() > 0)
            box.nullTerminated("content_encoding");
        if (version == 1 && box.left() >= 4)
            box.fourcc("extension_type");
    }
    box.rest();
    ItemWalk *items = itemWalk(box);
    if (items && box.parentType() == QLatin1String("iinf"))
        items->infos.push_back(info);
    return ContainerAbstract::ParseOk;
}

// A reference box inside iref: from one item to others, all of the box's type. The IDs are
// of 2 bytes in version 0 of iref, of 4 in version 1.
int parseItemReference(PayloadReader &box)
{
    ItemWalk *items = itemWalk(box);
    const int width = items && items->referenceVersion != 0 ? 4 : 2;
    ItemWalk::Reference reference;
    reference.type = box.type();
    reference.offset = box.boxOffset();
    reference.size = box.end() - box.boxOffset();
    reference.path = box.path();
    reference.from = quint32(box.unsignedField(QStringLiteral("from_item_ID"), width));
    const quint16 count = box.u16("reference_count");
    const QString to = QStringLiteral("to_item_ID");
    for (quint16 i = 0; i < count && box.available() >= quint64(width); ++i)
        reference.to.push_back(quint32(box.listField(to, width, i)));
    box.rest();
    if (items)
        items->references.push_back(std::move(reference));
    return ContainerAbstract::ParseOk;
}

// iref: reference boxes, each named by its reference type.
int parseItemReferences(PayloadReader &box)
{
    if (ItemWalk *items = itemWalk(box))
        items->referenceVersion = box.version();
    return box.walkChildren();
}

// iloc: where the bytes of each item lie: in extents of the file, of the idat box or of other
// items (the construction method), each from a base offset. The widths of the numbers are
// given up front, each 0, 4 or 8 bytes.
int parseItemLocation(PayloadReader &box)
{
    // A reference type of iref that has the name of this box.
    if (box.parentType() == QLatin1String("iref"))
        return parseItemReference(box);
    box.versionAndFlags();
    const quint32 version = box.version();
    PayloadReader::Bits sizes = box.bits(2);
    const int offsetSize = int(sizes.field("offset_size", 4, QString()));
    const int lengthSize = int(sizes.field("length_size", 4, QString()));
    const int baseOffsetSize = int(sizes.field("base_offset_size", 4, QString()));
    const int indexSize = version >= 1 ? int(sizes.field("index_size", 4, QString()))
                                       : int(sizes.field("reserved", 4));
    const auto valid = [](int width) { return width == 0 || width == 4 || width == 8; };
    if (!valid(offsetSize) || !valid(lengthSize) || !valid(baseOffsetSize) || !valid(indexSize)) {
        box.problem("item-location-sizes", Severity::Error,
                    QStringLiteral("the iloc box gives its numbers widths of %1, %2, %3 and %4 "
                                   "bytes; only 0, 4 and 8 are read")
                        .arg(offsetSize)
                        .arg(lengthSize)
                        .arg(baseOffsetSize)
                        .arg(indexSize));
        box.rest();
        return ContainerAbstract::ParseOk;
    }
    const int idWidth = version < 2 ? 2 : 4;
    const quint64 count = box.unsignedField(QStringLiteral("item_count"), idWidth);
    ItemWalk *items = itemWalk(box);
    if (items) {
        items->locationOffset = box.boxOffset();
        items->locationSize = box.end() - box.boxOffset();
    }
    const quint64 extentWidth = quint64(offsetSize + lengthSize + (version >= 1 ? indexSize : 0));
    const quint64 itemWidth = quint64(idWidth + (version >= 1 ? 2 : 0) + 2 + baseOffsetSize + 2);
    const QString item = QStringLiteral("item");
    const QString extent = QStringLiteral("extent");
    for (quint64 i = 0; i < count && box.ok() && box.available() >= itemWidth; ++i) {
        const quint64 extents = box.peekUnsigned(2, itemWidth - 2);
        // Extents of no width hold nothing but the whole: one stands for all.
        const quint64 fitting = extentWidth == 0
                                    ? qMin<quint64>(extents, 1)
                                    : qMin(extents, (box.available() - itemWidth) / extentWidth);
        box.beginGroup(item, qint64(i), itemWidth + fitting * extentWidth);
        ItemWalk::Location location;
        location.offset = box.at();
        location.id = quint32(box.unsignedField(QStringLiteral("item_ID"), idWidth));
        if (version >= 1) {
            const quint64 code = box.peekUnsigned(2) & 0xF;
            PayloadReader::Bits method = box.bits(2);
            method.field("reserved", 12);
            location.constructionMethod = quint32(method.field(
                "construction_method", 4,
                code < 3 ? QString::fromLatin1(ConstructionMethods[code]) : QString()));
        }
        location.dataReference =
            box.u16("data_reference_index",
                    box.peekUnsigned(2) == 0 ? QStringLiteral("this file") : QString());
        if (baseOffsetSize > 0)
            location.baseOffset = box.unsignedField(QStringLiteral("base_offset"), baseOffsetSize);
        box.u16("extent_count");
        for (quint64 j = 0; j < fitting && box.ok(); ++j) {
            box.beginGroup(extent, qint64(j), extentWidth);
            ItemWalk::Location::Extent part;
            if (version >= 1 && indexSize > 0)
                part.index = box.unsignedField(QStringLiteral("extent_index"), indexSize);
            if (offsetSize > 0)
                part.offset = box.unsignedField(QStringLiteral("extent_offset"), offsetSize);
            if (lengthSize > 0)
                part.length = box.unsignedField(
                    QStringLiteral("extent_length"), lengthSize,
                    box.peekUnsigned(lengthSize) == 0 ? QStringLiteral("to the end") : QString());
            box.endGroup();
            location.extents.push_back(part);
        }
        box.endGroup();
        if (items && box.ok())
            items->locations.push_back(std::move(location));
    }
    box.rest();
    return ContainerAbstract::ParseOk;
}

// idat: the data of items kept in the meta box itself. Where the items that lie in it are
// known, the layouts of grid and overlay images are decoded in place.
int parseItemData(PayloadReader &box)
{
    ItemWalk *items = itemWalk(box);
    if (items && !items->itemData)
        items->itemData = std::make_pair(box.at(), box.left());
    if (items)
        decodeDerivedImages(box, *items);
    box.rest();
    return ContainerAbstract::ParseOk;
}

// ipco: the properties, which ipma names by their place from 1. Their types and paths are
// noted before they are walked, so that a place stands for a box whatever its type.
int parseItemPropertyContainer(PayloadReader &box)
{
    if (ItemWalk *items = itemWalk(box); items && items->properties.empty()) {
        std::vector<std::pair<QString, int>> counts;
        quint64 ahead = 0;
        while (box.left() > ahead && box.left() - ahead >= 8) {
            quint64 size = box.peekUnsigned(4, ahead);
            char code[4] = {};
            if (!box.peek(code, 4, ahead + 4))
                break;
            if (size == 1)
                size = box.peekUnsigned(8, ahead + 8);
            else if (size == 0)
                size = box.left() - ahead;
            if (size < 8)
                break;
            const QString type = QString::fromLatin1(code, 4);
            int index = 0;
            auto seen = std::find_if(counts.begin(), counts.end(),
                                     [&](const auto &count) { return count.first == type; });
            if (seen == counts.end())
                counts.push_back({type, 1});
            else
                index = seen->second++;
            items->properties.push_back(
                {type, box.path() + QLatin1Char('/') + type +
                           (index > 0 ? QStringLiteral("[%1]").arg(index) : QString())});
            if (size > box.left() - ahead)
                break;
            ahead += size;
        }
    }
    return box.walkChildren();
}

// ipma: the properties of each item, by their place in ipco, each with whether the item
// cannot be used without it. Flag 1 makes the places 15 bits wide instead of 7.
int parseItemPropertyAssociation(PayloadReader &box)
{
    const bool wide = box.flags() & 1;
    const int idWidth = box.version() < 1 ? 2 : 4;
    const quint32 count = box.u32("entry_count");
    ItemWalk *items = itemWalk(box);
    if (items && items->associationPath.isEmpty())
        items->associationPath = box.path();
    const QString entry = QStringLiteral("entry");
    const QString association = QStringLiteral("association");
    const QString essential = QStringLiteral("essential");
    const QString index = QStringLiteral("property_index");
    const quint64 associationWidth = wide ? 2 : 1;
    for (quint32 i = 0; i < count && box.ok() && box.available() >= quint64(idWidth) + 1; ++i) {
        const quint64 associations = box.peekUnsigned(1, quint64(idWidth));
        const quint64 fitting =
            qMin(associations, (box.available() - quint64(idWidth) - 1) / associationWidth);
        ItemWalk::Association entryRecord;
        entryRecord.offset = box.at();
        entryRecord.size = quint64(idWidth) + 1 + fitting * associationWidth;
        box.beginGroup(entry, i, entryRecord.size);
        entryRecord.item = quint32(box.unsignedField(QStringLiteral("item_ID"), idWidth));
        box.u8("association_count");
        for (quint64 j = 0; j < fitting && box.ok(); ++j) {
            PayloadReader::Bits bits = box.bits(int(associationWidth));
            const bool isEssential = bits.listField(essential, 1, qint64(j));
            const quint32 place = quint32(bits.listField(index, wide ? 15 : 7, qint64(j)));
            entryRecord.properties.push_back({place, isEssential});
        }
        box.endGroup();
        if (items && box.ok())
            items->associations.push_back(std::move(entryRecord));
    }
    box.rest();
    return ContainerAbstract::ParseOk;
}

// A box of grpl: a group of items and tracks (entities) of the box's type, such as altr for
// alternatives of each other.
int parseEntityGroup(PayloadReader &box)
{
    box.versionAndFlags();
    box.u32("group_id");
    const quint32 count = box.u32("num_entities_in_group");
    const QString entity = QStringLiteral("entity_id");
    for (quint32 i = 0; i < count && box.available() >= 4; ++i)
        box.listField(entity, 4, i);
    box.rest();
    return ContainerAbstract::ParseOk;
}

} // namespace

ItemWalk *itemWalk(PayloadReader &box)
{
    DeepAnalysis *deep = box.deep();
    return deep && box.path().startsWith(QLatin1String("meta/")) ? &deep->items : nullptr;
}

DeepRows itemRows()
{
    return {
        {"pitm", DeepPlain, 1, parsePrimaryItem},
        {"iinf", DeepPlain, 1, parseItemInfo},
        {"infe", DeepPlain, 1, parseItemInfoEntry},
        {"iloc", DeepPlain, 0, parseItemLocation},
        {"idat", DeepPlain, 0, parseItemData},
        {"iref", DeepPlain, 1, parseItemReferences},
        {"iref/*", DeepPlain, 0, parseItemReference},
        {"iprp", DeepContainer, 0, nullptr},
        {"ipco", DeepPlain, 0, parseItemPropertyContainer},
        {"ipma", DeepPlain, 1, parseItemPropertyAssociation},
        {"grpl", DeepContainer, 0, nullptr},
        {"grpl/*", DeepPlain, 0, parseEntityGroup},
    };
}

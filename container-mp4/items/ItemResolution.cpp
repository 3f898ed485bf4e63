#include "Bounds.h"
#include "ContainerMP4.h"
#include "ItemRows.h"
#include "deep/DeepAnalysis.h"

#include <algorithm>
#include <map>

// The end of the walk for the items of the file's top-level meta box: where each item's bytes
// lie in the file, through its construction method and base offset, its properties and its
// references both ways, the layout of a grid or an overlay; then the checks of what the item boxes
// say of each other, and each item to the report in the order of iinf.

namespace {

// Construction method 2 builds an item from items that may be built so in turn: this deep at
// most.
constexpr int MaxItemNesting = 4;
// Steps of resolution, each an extent or a piece of an item an extent is taken from, per
// extent of iloc.
constexpr quint64 WorkPerExtent = 16;

struct Resolved {
    std::optional<std::vector<ItemExtent>> extents;
    QString reason;
};

// Resolves the locations of items, with a budget of steps in proportion to the extents of
// iloc, shared by all items, so that items built from items cannot multiply the work.
class ExtentResolver {
public:
    ExtentResolver(const ItemWalk &items, quint64 fileSize)
        : items(items)
        , fileSize(fileSize)
    {
        for (const ItemWalk::Location &location : items.locations) {
            locations.emplace(location.id, &location);
            work += location.extents.size();
        }
        work = (work + 1) * WorkPerExtent;
    }

    const ItemWalk::Location *location(quint32 id) const
    {
        const auto found = locations.find(id);
        return found == locations.end() ? nullptr : found->second;
    }

    Resolved resolve(quint32 id, int nesting = 0)
    {
        const ItemWalk::Location *entry = location(id);
        if (!entry)
            return {std::nullopt, QStringLiteral("the item has no entry in iloc")};
        if (entry->extents.empty())
            return {std::nullopt, QStringLiteral("the item's iloc entry has no extent")};
        if (entry->dataReference != 0)
            return {std::nullopt, QStringLiteral("the item's bytes lie in another file (data "
                                                 "reference %1)")
                                      .arg(entry->dataReference)};
        std::vector<ItemExtent> extents;
        for (const ItemWalk::Location::Extent &extent : entry->extents) {
            if (!spend())
                return exhausted();
            const quint64 offset = entry->baseOffset + extent.offset;
            if (offset < entry->baseOffset)
                return {std::nullopt, QStringLiteral("the base offset and the extent offset "
                                                     "reach past 2^64")};
            switch (entry->constructionMethod) {
            case 0:
                extents.push_back({offset, extent.length != 0 ? extent.length
                                                              : fileSize - qMin(offset, fileSize)});
                break;
            case 1: {
                if (!items.itemData)
                    return {std::nullopt, QStringLiteral("the item lies in idat, and the meta box "
                                                         "has no idat")};
                const auto [begin, size] = *items.itemData;
                const quint64 length =
                    extent.length != 0 ? extent.length : size - qMin(offset, size);
                extents.push_back({begin + offset, length});
                break;
            }
            case 2: {
                Resolved source = fromItem(*entry, extent, nesting);
                if (!source.extents)
                    return source;
                extents.insert(extents.end(), source.extents->begin(), source.extents->end());
                break;
            }
            default:
                return {std::nullopt, QStringLiteral("construction method %1 is not known")
                                          .arg(entry->constructionMethod)};
            }
        }
        return {std::move(extents), QString()};
    }

private:
    // An extent of construction method 2: bytes of the item that the item's iloc reference
    // of the extent's index names, counted from 1.
    Resolved fromItem(const ItemWalk::Location &entry, const ItemWalk::Location::Extent &extent,
                      int nesting)
    {
        if (nesting >= MaxItemNesting)
            return {std::nullopt, QStringLiteral("the item is built from items more than %1 deep")
                                      .arg(MaxItemNesting)};
        const quint64 index = std::max<quint64>(extent.index, 1);
        std::optional<quint32> source;
        quint64 seen = 0;
        for (const ItemWalk::Reference &reference : items.references) {
            if (reference.from != entry.id || reference.type != QLatin1String("iloc"))
                continue;
            if (index - seen <= reference.to.size()) {
                source = reference.to[size_t(index - seen - 1)];
                break;
            }
            seen += reference.to.size();
        }
        if (!source)
            return {std::nullopt,
                    QStringLiteral("the item's iloc references name no item %1").arg(index)};
        Resolved whole = resolve(*source, nesting + 1);
        if (!whole.extents)
            return {std::nullopt, QStringLiteral("item %1, which it is built from: %2")
                                      .arg(*source)
                                      .arg(whole.reason)};
        // The bytes from offset of the source's bytes, its extents one behind the other.
        quint64 skip = entry.baseOffset + extent.offset;
        quint64 wanted = extent.length != 0 ? extent.length : ~quint64(0);
        std::vector<ItemExtent> part;
        for (const ItemExtent &piece : *whole.extents) {
            if (wanted == 0)
                break;
            if (!spend())
                return exhausted();
            if (skip >= piece.length) {
                skip -= piece.length;
                continue;
            }
            const quint64 length = qMin(piece.length - skip, wanted);
            part.push_back({piece.offset + skip, length});
            wanted -= extent.length != 0 ? length : 0;
            skip = 0;
        }
        if (extent.length != 0 && wanted > 0)
            return {std::nullopt,
                    QStringLiteral("the extent reaches past the end of item %1").arg(*source)};
        return {std::move(part), QString()};
    }

    bool spend() { return work > 0 && work-- > 0; }
    static Resolved exhausted()
    {
        return {std::nullopt, QStringLiteral("its items are built from items so often that "
                                             "resolving them would take more than %1 steps "
                                             "per extent of iloc")
                                  .arg(WorkPerExtent)};
    }

    const ItemWalk &items;
    quint64 fileSize;
    std::map<quint32, const ItemWalk::Location *> locations;
    quint64 work = 0; // steps left
};

// Up to limit bytes of an item's data, its extents one behind the other, read through the
// input; fewer where the extents or the input end first.
QByteArray readItemData(InputDevice &input, const std::vector<ItemExtent> &extents, quint64 limit)
{
    QByteArray bytes;
    for (const ItemExtent &extent : extents) {
        const quint64 wanted = limit - quint64(bytes.size());
        if (wanted == 0)
            break;
        const quint64 count = qMin(qMin(extent.length, wanted), input.bytesFrom(extent.offset));
        const qsizetype at = bytes.size();
        bytes.resize(at + qsizetype(count));
        const qint64 got = input.seek(qint64(extent.offset))
                               ? input.readBytes(bytes.data() + at, qint64(count))
                               : 0;
        bytes.resize(at + qsizetype(qMax<qint64>(got, 0)));
        if (quint64(qMax<qint64>(got, 0)) < extent.length)
            break;
    }
    return bytes;
}

QString plural(quint64 count, const char *one, const char *many)
{
    return QStringLiteral("%1 %2").arg(count).arg(QLatin1String(count == 1 ? one : many));
}

} // namespace

void ContainerMP4::reportItems()
{
    const ItemWalk &items = deep->items;
    if (items.infos.empty() && !items.primary)
        return;
    const quint64 fileSize = quint64(input.size());
    std::map<quint32, size_t> byId;
    for (size_t i = 0; i < items.infos.size(); ++i)
        byId.emplace(items.infos[i].id, i);
    const auto exists = [&](quint32 id) { return byId.count(id) > 0; };

    if (items.primary && !exists(*items.primary))
        noteProblem(
            "primary-item-missing", Severity::Error, items.primaryOffset, items.primarySize,
            QStringLiteral("pitm names item %1, which iinf does not list").arg(*items.primary),
            QStringLiteral("meta/pitm"));

    // References both ways, by item; a reference to or from an item that is not there is
    // a problem of its box.
    std::map<quint32, std::vector<std::pair<const ItemWalk::Reference *, quint32>>> incoming;
    std::map<quint32, std::vector<const ItemWalk::Reference *>> outgoing;
    for (const ItemWalk::Reference &reference : items.references) {
        outgoing[reference.from].push_back(&reference);
        std::optional<quint32> missing;
        if (!exists(reference.from))
            missing = reference.from;
        for (const quint32 to : reference.to) {
            if (!exists(to) && !missing)
                missing = to;
            incoming[to].push_back({&reference, reference.from});
        }
        if (missing)
            noteProblem("item-reference-missing", Severity::Error, reference.offset, reference.size,
                        QStringLiteral("the %1 reference from item %2 names item %3, which iinf "
                                       "does not list")
                            .arg(reference.type)
                            .arg(reference.from)
                            .arg(*missing),
                        reference.path);
    }

    // Properties by item, with their checks.
    std::map<quint32, std::vector<ItemProperty>> properties;
    for (const ItemWalk::Association &association : items.associations) {
        std::vector<ItemProperty> &list = properties[association.item];
        for (const auto &[place, essential] : association.properties) {
            if (place == 0)
                continue;
            ItemProperty property{place, QString(), essential, QString()};
            if (place > items.properties.size()) {
                noteProblem("property-index-invalid", Severity::Error, association.offset,
                            association.size,
                            QStringLiteral("item %1 names property %2, past the %3 of ipco")
                                .arg(association.item)
                                .arg(place)
                                .arg(plural(items.properties.size(), "property", "properties")),
                            items.associationPath);
            } else {
                property.type = items.properties[place - 1].type;
                property.path = items.properties[place - 1].path;
                if (essential && !knownProperty(property.type))
                    noteProblem("essential-property-unknown", Severity::Info, association.offset,
                                association.size,
                                QStringLiteral("item %1 cannot be shown without its property "
                                               "%2 (%3), which is not read")
                                    .arg(association.item)
                                    .arg(place)
                                    .arg(property.type),
                                items.associationPath);
            }
            list.push_back(property);
        }
    }
    ExtentResolver resolver(items, fileSize);
    // Every byte the items reference, for the bytes items share.
    struct Placed {
        quint64 begin;
        quint64 end;
        quint32 item;
    };
    std::vector<Placed> placed;
    std::vector<Item> records;
    records.reserve(items.infos.size());
    for (const ItemWalk::Info &info : items.infos) {
        Item item;
        item.id = info.id;
        item.type = info.type;
        item.name = info.name;
        item.contentType = info.contentType;
        item.primary = items.primary && *items.primary == info.id;
        item.hidden = info.hidden;
        Resolved resolved = resolver.resolve(info.id);
        item.extents = std::move(resolved.extents);
        item.extentsReason = resolved.reason;
        const ItemWalk::Location *location = resolver.location(info.id);
        if (!location || location->extents.empty()) {
            noteProblem("item-without-location", Severity::Error, info.offset, 0,
                        QStringLiteral("item %1 (%2) has %3")
                            .arg(info.id)
                            .arg(info.type)
                            .arg(location ? QStringLiteral("no extent in iloc")
                                          : QStringLiteral("no entry in iloc")),
                        info.path);
        }
        if (item.extents) {
            quint64 outside = 0;
            for (const ItemExtent &extent : *item.extents) {
                const quint64 end = endOf(extent.offset, extent.length);
                // An item built from other items shares their bytes by design.
                if (location->constructionMethod != 2)
                    placed.push_back({extent.offset, end, info.id});
                if (end > fileSize) {
                    noteProblem("item-extent-past-eof", Severity::Error, extent.offset,
                                extent.length,
                                QStringLiteral("an extent of item %1 reaches %2 bytes past the "
                                               "end of the file")
                                    .arg(info.id)
                                    .arg(end - fileSize),
                                QStringLiteral("meta/iloc"));
                }
                if (location && location->constructionMethod == 1 && items.itemData) {
                    const quint64 dataEnd = endOf(items.itemData->first, items.itemData->second);
                    if (end > dataEnd)
                        outside = std::max(outside, end - dataEnd);
                }
            }
            if (outside > 0)
                noteProblem("item-extent-outside-idat", Severity::Error, location->offset, 0,
                            QStringLiteral("an extent of item %1 reaches %2 bytes past the end "
                                           "of idat")
                                .arg(info.id)
                                .arg(outside),
                            QStringLiteral("meta/iloc"));
        }
        if (const auto found = properties.find(info.id); found != properties.end())
            item.properties = found->second;
        if (const auto found = outgoing.find(info.id); found != outgoing.end()) {
            for (const ItemWalk::Reference *reference : found->second)
                item.references.push_back({reference->type, true, reference->to});
        }
        if (const auto found = incoming.find(info.id); found != incoming.end()) {
            for (const auto &[reference, from] : found->second) {
                auto same = std::find_if(item.references.begin(), item.references.end(),
                                         [&, type = &reference->type](const ItemReference &r) {
                                             return !r.outgoing && r.type == *type;
                                         });
                if (same == item.references.end())
                    item.references.push_back({reference->type, false, {from}});
                else
                    same->items.push_back(from);
            }
        }
        records.push_back(std::move(item));
    }

    // Sizes from ispe, grids and overlays from their data, and the checks that need both.
    for (Item &item : records) {
        for (const ItemProperty &property : item.properties) {
            if (property.type != QLatin1String("ispe"))
                continue;
            const auto found = items.propertyFields.find(property.path);
            if (found != items.propertyFields.end()) {
                item.width = found->second.first;
                item.height = found->second.second;
            }
            break;
        }
    }
    for (Item &item : records) {
        if (item.primary && item.width == 0 && item.height == 0 &&
            std::none_of(item.properties.begin(), item.properties.end(),
                         [](const ItemProperty &p) { return p.type == QLatin1String("ispe"); })) {
            const ItemWalk::Info &info = items.infos[byId[item.id]];
            noteProblem("primary-without-ispe", Severity::Error, info.offset, 0,
                        QStringLiteral("the primary item %1 (%2) has no ispe property to give "
                                       "its size")
                            .arg(item.id)
                            .arg(item.type),
                        info.path);
        }
        if (!item.extents)
            continue;
        std::vector<quint32> derived;
        for (const ItemReference &reference : item.references) {
            if (reference.outgoing && reference.type == QLatin1String("dimg"))
                derived.insert(derived.end(), reference.items.begin(), reference.items.end());
        }
        const quint64 limit = layoutBytes(item.type, derived.size());
        if (limit == 0)
            continue;
        decodeLayoutRecord(item, readItemData(input, *item.extents, limit), derived.size());
        if (!item.grid)
            continue;
        const ItemGrid &grid = *item.grid;
        const ItemWalk::Info &info = items.infos[byId[item.id]];
        const quint64 cells = quint64(grid.rows) * grid.columns;
        if (derived.size() != cells) {
            noteProblem("grid-tile-count", Severity::Error, info.offset, 0,
                        QStringLiteral("grid item %1 has %2 rows of %3 columns, %4 cells, and "
                                       "references %5")
                            .arg(item.id)
                            .arg(grid.rows)
                            .arg(grid.columns)
                            .arg(cells)
                            .arg(plural(derived.size(), "tile", "tiles")),
                        info.path);
        } else if (!derived.empty()) {
            const auto tile = byId.find(derived.front());
            if (tile == byId.end())
                continue;
            const Item &first = records[tile->second];
            if (first.width == 0 || first.height == 0)
                continue;
            const quint64 width = quint64(first.width) * grid.columns;
            const quint64 height = quint64(first.height) * grid.rows;
            if (grid.outputWidth > width || grid.outputHeight > height)
                noteProblem("grid-output-size", Severity::Error, info.offset, 0,
                            QStringLiteral("grid item %1 makes a picture of %2x%3 from tiles "
                                           "that cover %4x%5")
                                .arg(item.id)
                                .arg(grid.outputWidth)
                                .arg(grid.outputHeight)
                                .arg(width)
                                .arg(height),
                            info.path);
        }
    }

    // Bytes that two items share.
    std::sort(placed.begin(), placed.end(),
              [](const Placed &a, const Placed &b) { return a.begin < b.begin; });
    quint64 shared = 0;
    const Placed *firstShared = nullptr;
    const Placed *sharedWith = nullptr;
    const Placed *reachest = nullptr;
    for (const Placed &range : placed) {
        if (range.end == range.begin)
            continue;
        if (reachest && range.begin < reachest->end && range.item != reachest->item) {
            if (shared++ == 0) {
                firstShared = &range;
                sharedWith = reachest;
            }
        }
        if (!reachest || range.end > reachest->end)
            reachest = &range;
    }
    if (shared > 0)
        noteProblem("items-share-bytes", Severity::Warning, firstShared->begin,
                    firstShared->end - firstShared->begin,
                    QStringLiteral("%1 bytes with another item; the first, of item %2 at offset "
                                   "%3, shares bytes with item %4 at offset %5")
                        .arg(plural(shared, "extent shares", "extents share"))
                        .arg(firstShared->item)
                        .arg(firstShared->begin)
                        .arg(sharedWith->item)
                        .arg(sharedWith->begin),
                    QStringLiteral("meta/iloc"));

    for (const Item &item : records)
        reportItem(item);
}

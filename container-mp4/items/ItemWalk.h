#pragma once

#include <QString>
#include <QtGlobal>

#include <map>
#include <optional>
#include <utility>
#include <vector>

// What deep analysis gathers of the items of a file while the boxes of its top-level meta box
// are walked, to resolve them at the end of the walk. Every entry stands for bytes of the box
// it was read from, so the memory stays in proportion to those boxes.
struct ItemWalk {
    // An entry of iinf.
    struct Info {
        quint32 id = 0;
        QString type;
        QString name;
        QString contentType;
        bool hidden = false;
        quint64 offset = 0; // of its infe box
        QString path;
    };
    // An entry of iloc: where the item's bytes are, before the construction method and the
    // base offset are applied.
    struct Location {
        quint32 id = 0;
        quint32 constructionMethod = 0; // 0 the file, 1 idat, 2 other items
        quint32 dataReference = 0;
        quint64 baseOffset = 0;
        struct Extent {
            quint64 index = 0; // of construction method 2: the item referenced, from 1
            quint64 offset = 0;
            quint64 length = 0; // 0: to the end of where the bytes are
        };
        std::vector<Extent> extents;
        quint64 offset = 0; // of the entry, for the problems
    };
    // A box of iref: references of one type from one item.
    struct Reference {
        QString type;
        quint32 from = 0;
        std::vector<quint32> to;
        quint64 offset = 0;
        quint64 size = 0;
        QString path;
    };
    // A child of ipco, the property its place stands for.
    struct Property {
        QString type;
        QString path;
    };
    // An entry of ipma: the properties of an item, each an index from 1 and its essential bit.
    struct Association {
        quint32 item = 0;
        std::vector<std::pair<quint32, bool>> properties;
        quint64 offset = 0;
        quint64 size = 0;
    };

    // Whether the file's top-level meta box has been entered: only its items are gathered.
    bool seen = false;
    std::optional<quint32> primary;
    quint64 primaryOffset = 0;
    quint64 primarySize = 0;
    std::vector<Info> infos;
    std::vector<Location> locations;
    quint64 locationOffset = 0; // of iloc
    quint64 locationSize = 0;
    quint32 referenceVersion = 0; // of the iref being walked
    std::vector<Reference> references;
    std::vector<Property> properties;
    // The width and height of each ispe, by its path.
    std::map<QString, std::pair<quint32, quint32>> propertyFields;
    std::vector<Association> associations;
    QString associationPath; // of the first ipma
    // The payload of the first idat.
    std::optional<std::pair<quint64, quint64>> itemData;
};

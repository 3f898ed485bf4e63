#pragma once

#include "ItemWalk.h"
#include "Records.h"
#include "deep/DeepRows.h"

// The items of a file (items/): the boxes that tell them, their properties, and what is
// gathered of them for the end of the walk.

class PayloadReader;

DeepRows itemRows();         // pitm, iinf, infe, iloc, idat, iref, iprp, ipco, ipma, grpl
DeepRows itemPropertyRows(); // the properties of items that the other families lack

// What is gathered of the items of the box being read: those of the file's top-level meta
// box only; null for every other box, and without deep analysis.
ItemWalk *itemWalk(PayloadReader &box);

// Whether a property of this type is read field by field, for an essential one that is not.
bool knownProperty(const QString &type);

// Decodes the grid and overlay layouts of the items that lie in the idat being read, in the
// order of their offsets; shows the other bytes as data.
void decodeDerivedImages(PayloadReader &box, const ItemWalk &items);

// The most bytes of an item's data its layout takes, for a grid or an overlay of the given
// number of images; 0 for an item of another type.
quint64 layoutBytes(const QString &type, quint64 images);
// The layout of a grid or overlay item into its record, from the first bytes of its data;
// nothing where they are too few.
void decodeLayoutRecord(Item &item, const QByteArray &bytes, quint64 images);

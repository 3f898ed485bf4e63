#pragma once

#include "ContainerMP4.h"

#include <vector>

// One row of the deep vocabulary: as a row of the basic box table, with a deep parser for
// its payload or none (a container, or a box shown as data).
struct DeepRow {
    const char *type;
    int elementType; // ContainerMP4's ElementType values
    int fullBox;
    DeepParser parser;
};
using DeepRows = std::vector<DeepRow>;

// Element types, as the basic table names them.
constexpr int DeepContainer = 7;
constexpr int DeepPlain = 8;

// The families of the deep vocabulary, one file each.
DeepRows handlerRows();            // hdlr, with QuickTime's component types
DeepRows sampleTableRows();        // ctts and the other tables beside the basic ones
DeepRows fragmentRows();           // movie fragments: mvex, moof and what they hold
DeepRows codecConfigurationRows(); // decoder configurations, the descriptors of esds and iods
DeepRows sampleEntryRows();        // stsd, its sample entries, the boxes of text and hint entries
DeepRows entryBoxRows();           // the small boxes that extend visual and audio entries
DeepRows protectionRows();         // common encryption: sinf, tenc, pssh, senc
DeepRows segmentRows();            // segment indexes, events, random access and other extras
DeepRows trackBoxRows();           // track and data references, media headers, QuickTime boxes
DeepRows userDataRows();           // udta, meta, keys, ilst items and QuickTime text atoms
DeepRows quickTimeMovieRows();     // QuickTime's compressed movies and reference movies
DeepRows quickTimeRows();          // QuickTime's preload, clipping, matte, colour table, Xtra
DeepRows sphericalVideoRows();     // spatial audio, stereoscopic and spherical video
DeepRows userTypeRows();           // uuid boxes known by their usertype: XMP, Smooth Streaming

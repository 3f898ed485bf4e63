#pragma once

#include <QString>

// What a sample entry type says of the codec: the number of the codec in the host's
// numbering and its name for people. Its tables, of sample entry types and of the object
// types of MPEG-4 decoder configurations, are the one place that names codecs; the name
// travels with the stream record to every writer.
struct Codec {
    int id;
    const char *name;
};

// The codec of a visual sample entry type, or null when the type names none that is known.
const Codec *codecOf(const QString &sampleEntryType);
// The same for deep analysis, which knows the codecs of every kind of sample entry.
const Codec *deepCodecOf(const QString &sampleEntryType);
// The codec of an objectTypeIndication of an MPEG-4 decoder configuration, which tells the
// codec behind an mp4a or mp4v entry more exactly; null for one not known or not numbered.
const Codec *codecOfObjectType(quint8 objectTypeIndication);
// What an objectTypeIndication names for people, from the same table; null for one not known.
const char *objectTypeName(quint8 objectTypeIndication);

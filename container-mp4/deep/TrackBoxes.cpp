#include "DeepRows.h"
#include "PayloadReader.h"

// The boxes of a track and its media beside those that lead to the samples: references to
// other tracks, where the media data lies, the media headers of the kinds of media without
// their own, and the QuickTime boxes of base media, time codes and clean apertures.

namespace {

// Every child of tref is a list of the tracks referred to in the way its type names (hint,
// cdsc, chap, font, ...), and so is tmcd there.
int parseTrackReference(PayloadReader &box)
{
    const QString name = QStringLiteral("track_ids");
    for (qint64 i = 0; box.left() >= 4 && box.ok(); ++i)
        box.listField(name, 4, i);
    box.rest();
    return ContainerAbstract::ParseOk;
}

int parseDataReferences(PayloadReader &box)
{
    box.u32("entry_count");
    return box.walkChildren();
}

// The flags of a data entry: 1 says that the media is in this file and that nothing follows.
bool readEntryFlags(PayloadReader &box)
{
    const bool selfContained = box.peekUnsigned(3, 1) & 1;
    box.versionAndFlags(selfContained ? QStringLiteral("self-contained") : QString());
    return selfContained;
}

int parseDataEntryUrl(PayloadReader &box)
{
    if (!readEntryFlags(box) && box.left() > 0)
        box.nullTerminated("location");
    box.rest();
    return ContainerAbstract::ParseOk;
}

int parseDataEntryUrn(PayloadReader &box)
{
    readEntryFlags(box);
    if (box.left() > 0)
        box.nullTerminated("name");
    if (box.left() > 0)
        box.nullTerminated("location");
    box.rest();
    return ContainerAbstract::ParseOk;
}

// The tagged items behind an alias record's fixed fields, up to end (a position in the file):
// a tag, a length and the value, padded to an even length; tag -1 ends them.
void aliasItems(PayloadReader &box, quint64 end)
{
    const QString item = QStringLiteral("extra");
    for (quint32 i = 0; end - box.at() >= 4 && box.ok(); ++i) {
        const qint64 tag = qint16(box.peekUnsigned(2));
        const quint64 length = box.peekUnsigned(2, 2);
        const quint64 padded = qMin(length + (length & 1), end - box.at() - 4);
        box.beginGroup(item, i, 4 + padded);
        box.i16("tag", tag == -1 ? QStringLiteral("end") : QString());
        box.u16("length", QStringLiteral("bytes"));
        if (padded > 0)
            box.raw("value", padded);
        box.endGroup();
        if (tag == -1)
            break;
    }
}

// A Macintosh alias record of version 2: the volume and the file it points to, by name and
// by number, then its tagged items. Other versions are shown by position.
void aliasRecord(PayloadReader &box)
{
    const quint64 start = box.at();
    box.fourcc("user_type");
    const quint64 size = box.sizeField("record_size", 2);
    const quint16 version = box.u16("record_version");
    const quint64 end = start + qMin(qMax<quint64>(size, 8), box.left() + (box.at() - start));
    if (version != 2 || size < 150 || box.left() < 142) {
        box.rest("alias_record");
        return;
    }
    box.u16("alias_kind", QStringLiteral("0: file, 1: folder"));
    box.countedText("volume_name", 28);
    box.u32("volume_created", QStringLiteral("seconds since 1904"));
    box.fixedText("file_system_type", 2);
    box.u16("disk_type",
            QStringLiteral("0: fixed, 1: network, 2: 400 KB, 3: 800 KB, 4: 1.44 MB, 5: ejectable"));
    box.u32("parent_directory_id");
    box.countedText("target_name", 64);
    box.u32("target_id");
    box.u32("target_created", QStringLiteral("seconds since 1904"));
    box.fourcc("target_creator");
    box.fourcc("target_type");
    box.i16("levels_from_alias_to_root");
    box.i16("levels_from_root_to_target");
    box.u32("volume_attributes");
    box.u16("volume_file_system_id");
    box.raw("reserved", 10);
    aliasItems(box, end);
}

// QuickTime's alis and rsrc: where the media lies as a Macintosh alias; nothing follows the
// flags of one that says the media is in this file.
int parseDataEntryAlias(PayloadReader &box)
{
    if (!readEntryFlags(box) && box.left() >= 8)
        aliasRecord(box);
    box.rest();
    return ContainerAbstract::ParseOk;
}

// A full box whose version and flags are all it holds: nmhd, sthd.
int parseNothingMore(PayloadReader &box)
{
    box.rest();
    return ContainerAbstract::ParseOk;
}

int parseExtendedLanguage(PayloadReader &box)
{
    box.nullTerminated("extended_language");
    box.rest();
    return ContainerAbstract::ParseOk;
}

int parseHintMediaHeader(PayloadReader &box)
{
    box.u16("max_pdu_size", QStringLiteral("bytes"));
    box.u16("avg_pdu_size", QStringLiteral("bytes"));
    box.u32("maxbitrate", QStringLiteral("bits per second"));
    box.u32("avgbitrate", QStringLiteral("bits per second"));
    box.u32("reserved");
    box.rest();
    return ContainerAbstract::ParseOk;
}

// The QuickTime transfer modes by which an image is drawn over what lies beneath it.
QString graphicsModeName(quint16 mode)
{
    switch (mode) {
    case 0x0:
        return QStringLiteral("copy");
    case 0x20:
        return QStringLiteral("blend");
    case 0x24:
        return QStringLiteral("transparent");
    case 0x40:
        return QStringLiteral("dither copy");
    case 0x100:
        return QStringLiteral("straight alpha");
    case 0x101:
        return QStringLiteral("premul white alpha");
    case 0x102:
        return QStringLiteral("premul black alpha");
    case 0x104:
        return QStringLiteral("straight alpha blend");
    default:
        return QString();
    }
}

// Three 16-bit colour components: red, green and blue.
void readColor(PayloadReader &box, const QString &name)
{
    for (qint64 i = 0; i < 3; ++i)
        box.listField(name, 2, i);
}

int parseBaseMediaInfo(PayloadReader &box)
{
    box.u16("graphicsmode", graphicsModeName(quint16(box.peekUnsigned(2))));
    readColor(box, QStringLiteral("opcolor"));
    box.fixed8("balance", true);
    box.u16("reserved");
    box.rest();
    return ContainerAbstract::ParseOk;
}

// QuickTime's text media information: a matrix of 3 by 3 words, as the track header's.
int parseTextMediaInfo(PayloadReader &box)
{
    const QString name = QStringLiteral("matrix");
    for (qint64 i = 0; i < 9; ++i)
        box.listField(name, 4, i);
    box.rest();
    return ContainerAbstract::ParseOk;
}

// tmcd is a track reference in tref and, in QuickTime's base media header, the box around
// the time code media information.
int parseTimecode(PayloadReader &box)
{
    if (box.parentType() == QLatin1String("tref"))
        return parseTrackReference(box);
    return box.walkChildren();
}

QString textFaceNames(quint16 face)
{
    static const char *const names[] = {"bold",   "italic",   "underline", "outline",
                                        "shadow", "condense", "extend"};
    QStringList set;
    for (int bit = 0; bit < 7; ++bit) {
        if (face & (1u << bit))
            set << QString::fromLatin1(names[bit]);
    }
    return face == 0 ? QStringLiteral("plain") : set.join(QStringLiteral(", "));
}

int parseTimecodeMediaInfo(PayloadReader &box)
{
    box.u16("text_font", box.peekUnsigned(2) == 0 ? QStringLiteral("system font") : QString());
    box.u16("text_face", textFaceNames(quint16(box.peekUnsigned(2))));
    box.u16("text_size", QStringLiteral("points"));
    box.u16("reserved");
    readColor(box, QStringLiteral("text_color"));
    readColor(box, QStringLiteral("background_color"));
    // A counted string.
    const quint64 length = box.peekUnsigned(1);
    if (box.left() > 0) {
        box.u8("font_name_length");
        box.utf8("font_name", length);
    }
    box.rest();
    return ContainerAbstract::ParseOk;
}

// clef, prof and enof: the clean, production and encoded aperture dimensions.
int parseApertureDimensions(PayloadReader &box)
{
    box.fixed16("width");
    box.fixed16("height");
    box.rest();
    return ContainerAbstract::ParseOk;
}

// QuickTime's wide: room kept for an 8-byte size of the box behind it.
int parseWide(PayloadReader &box)
{
    box.data("data", box.left(), Payload::Filler);
    return ContainerAbstract::ParseOk;
}

int parseKind(PayloadReader &box)
{
    if (box.left() > 0)
        box.nullTerminated("scheme_uri");
    if (box.left() > 0)
        box.nullTerminated("value");
    box.rest();
    return ContainerAbstract::ParseOk;
}

} // namespace

DeepRows trackBoxRows()
{
    return {
        {"tref", DeepContainer, 0, nullptr},
        {"tref/*", DeepPlain, 0, parseTrackReference},
        {"dref", DeepPlain, 1, parseDataReferences},
        // Full boxes whose parsers read the flags, to tell what they say.
        {"url ", DeepPlain, 0, parseDataEntryUrl},
        {"urn ", DeepPlain, 0, parseDataEntryUrn},
        {"alis", DeepPlain, 0, parseDataEntryAlias},
        {"rsrc", DeepPlain, 0, parseDataEntryAlias},
        {"elng", DeepPlain, 1, parseExtendedLanguage},
        {"nmhd", DeepPlain, 1, parseNothingMore},
        {"sthd", DeepPlain, 1, parseNothingMore},
        {"hmhd", DeepPlain, 1, parseHintMediaHeader},
        {"gmhd", DeepContainer, 0, nullptr},
        {"gmin", DeepPlain, 1, parseBaseMediaInfo},
        {"text", DeepPlain, 0, parseTextMediaInfo},
        {"tmcd", DeepPlain, 0, parseTimecode},
        {"tcmi", DeepPlain, 1, parseTimecodeMediaInfo},
        {"tapt", DeepContainer, 0, nullptr},
        {"clef", DeepPlain, 1, parseApertureDimensions},
        {"prof", DeepPlain, 1, parseApertureDimensions},
        {"enof", DeepPlain, 1, parseApertureDimensions},
        {"wide", DeepPlain, 0, parseWide},
        {"kind", DeepPlain, 1, parseKind},
    };
}

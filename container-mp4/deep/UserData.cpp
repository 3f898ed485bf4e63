#include "DeepAnalysis.h"
#include "DeepRows.h"
#include "PayloadReader.h"
#include "boxes/HeaderFields.h"

#include <iterator>

// What a file says about itself: the boxes of udta (copyright, chapters, QuickTime text
// atoms) and of meta (keys and the items of ilst, as iTunes and QuickTime write them).

namespace {

// The Macintosh language codes that QuickTime text carries below 0x400, from 0 up.
const char *const MacintoshLanguages[] = {"English",    "French",
                                          "German",     "Italian",
                                          "Dutch",      "Swedish",
                                          "Spanish",    "Danish",
                                          "Portuguese", "Norwegian",
                                          "Hebrew",     "Japanese",
                                          "Arabic",     "Finnish",
                                          "Greek",      "Icelandic",
                                          "Maltese",    "Turkish",
                                          "Croatian",   "Traditional Chinese",
                                          "Urdu",       "Hindi",
                                          "Thai",       "Korean",
                                          "Lithuanian", "Polish",
                                          "Hungarian",  "Estonian",
                                          "Latvian",    "Sami",
                                          "Faroese",    "Farsi",
                                          "Russian",    "Simplified Chinese"};

// A QuickTime language word: a Macintosh language code below 0x400 and 0x7FFF, which says
// none, else a packed ISO 639-2 code.
QString languageComment(quint16 word)
{
    if (word == 0x7FFF)
        return QStringLiteral("unspecified");
    if (word >= 0x400)
        return HeaderFields::language(word);
    if (word < std::size(MacintoshLanguages))
        return QString::fromLatin1(MacintoshLanguages[word]) + QStringLiteral(" (Macintosh)");
    return QStringLiteral("Macintosh language code");
}

// A pad bit and a packed ISO 639-2 code in 15 bits, as in the media header.
void readPackedLanguage(PayloadReader &box)
{
    PayloadReader::Bits word = box.bits(2);
    word.field("pad", 1);
    word.language("language");
}

// A text that is UTF-8 up to a zero byte, or UTF-16 behind a byte-order mark up to a zero
// character.
void readText(PayloadReader &box, const char *name)
{
    const quint64 mark = box.peekUnsigned(2);
    if (mark != 0xFEFF && mark != 0xFFFE) {
        if (box.left() > 0)
            box.nullTerminated(name);
        return;
    }
    quint64 width = 2;
    while (width + 2 <= box.left()) {
        const bool terminator = box.peekUnsigned(2, width) == 0;
        width += 2;
        if (terminator)
            break;
    }
    box.utf16(name, width);
}

// Whether the payload begins with a box rather than with a version and flags word: a size
// that the payload holds and a type of four printable characters.
bool beginsWithBox(PayloadReader &box)
{
    const quint64 size = box.peekUnsigned(4);
    unsigned char type[4];
    if (size < 8 || size > box.left() || !box.peek(type, 4, 4))
        return false;
    for (const unsigned char letter : type) {
        if (letter < 0x20 || letter > 0x7E)
            return false;
    }
    return true;
}

// meta: a full box in ISO files; QuickTime movies write it as a plain box whose handler
// follows its header directly.
int parseMeta(PayloadReader &box)
{
    if (DeepAnalysis *deep = box.deep())
        deep->metadataKeys.clear();
    if (!beginsWithBox(box))
        box.versionAndFlags();
    return box.walkChildren();
}

// keys: the keys that the items of ilst beside it stand for by their index.
int parseKeys(PayloadReader &box)
{
    QStringList keys;
    const quint32 count = box.u32("entry_count");
    const QString group = QStringLiteral("key");
    for (quint32 i = 0; i < count && box.left() >= 8 && box.ok(); ++i) {
        const quint64 size = box.peekUnsigned(4);
        box.beginGroup(group, i, qBound<quint64>(8, size, box.left()));
        box.u32("key_size");
        box.fourcc("key_namespace");
        keys << (size > 8 ? box.utf8("key_value", size - 8) : QString());
        box.endGroup();
        // A size below its own fields leaves no place for the next key.
        if (size < 8)
            break;
    }
    box.rest();
    if (DeepAnalysis *deep = box.deep())
        deep->metadataKeys = keys;
    return ContainerAbstract::ParseOk;
}

// An item of ilst, whose type names it: a four-character code such as ©nam or trkn, or
// beside a keys box the index of its key. Its value is in its children.
int parseItem(PayloadReader &box)
{
    const quint32 code = box.typeCode();
    if (code >> 24 == 0) {
        QString key = QStringLiteral("key %1").arg(code);
        const DeepAnalysis *deep = box.deep();
        if (deep && code >= 1 && code <= quint32(deep->metadataKeys.size()))
            key += QStringLiteral(": ") + deep->metadataKeys[qsizetype(code - 1)];
        box.note(key);
    }
    return box.walkChildren();
}

QString wellKnownTypeName(quint32 type)
{
    switch (type) {
    case 0:
        return QStringLiteral("implicit");
    case 1:
        return QStringLiteral("UTF-8");
    case 2:
        return QStringLiteral("UTF-16");
    case 3:
        return QStringLiteral("Shift JIS");
    case 4:
        return QStringLiteral("UTF-8 for sorting");
    case 5:
        return QStringLiteral("UTF-16 for sorting");
    case 12:
        return QStringLiteral("GIF");
    case 13:
        return QStringLiteral("JPEG");
    case 14:
        return QStringLiteral("PNG");
    case 21:
        return QStringLiteral("signed integer");
    case 22:
        return QStringLiteral("unsigned integer");
    case 23:
        return QStringLiteral("float32");
    case 24:
        return QStringLiteral("float64");
    case 27:
        return QStringLiteral("BMP");
    case 28:
        return QStringLiteral("QuickTime metadata atom");
    case 65:
        return QStringLiteral("8-bit signed integer");
    case 66:
        return QStringLiteral("16-bit signed integer");
    case 67:
        return QStringLiteral("32-bit signed integer");
    case 70:
        return QStringLiteral("point of 2 float32");
    case 71:
        return QStringLiteral("dimensions of 2 float32");
    case 72:
        return QStringLiteral("rectangle of 4 float32");
    case 74:
        return QStringLiteral("64-bit signed integer");
    case 75:
        return QStringLiteral("8-bit unsigned integer");
    case 76:
        return QStringLiteral("16-bit unsigned integer");
    case 77:
        return QStringLiteral("32-bit unsigned integer");
    case 78:
        return QStringLiteral("64-bit unsigned integer");
    case 79:
        return QStringLiteral("affine transform of 9 float64");
    default:
        return QString();
    }
}

// The width of an integer value of a well-known type, or 0 where the type is no integer or
// the value has a width that the type does not allow.
int integerWidth(quint32 type, quint64 length)
{
    switch (type) {
    case 21:
    case 22:
        return length == 1 || length == 2 || length == 3 || length == 4 || length == 8 ? int(length)
                                                                                       : 0;
    case 65:
    case 75:
        return length == 1 ? 1 : 0;
    case 66:
    case 76:
        return length == 2 ? 2 : 0;
    case 67:
    case 77:
        return length == 4 ? 4 : 0;
    case 74:
    case 78:
        return length == 8 ? 8 : 0;
    default:
        return 0;
    }
}

bool isSignedInteger(quint32 type)
{
    return type == 21 || type == 65 || type == 66 || type == 67 || type == 74;
}

// The value of an item whose type says nothing (0): for trkn and disk a number out of a
// total, for gnre an ID3v1 genre.
void readImplicitValue(PayloadReader &box, const QString &item)
{
    if ((item == QLatin1String("trkn") || item == QLatin1String("disk")) && box.left() >= 6) {
        box.u16("reserved");
        box.u16("number");
        box.u16("total");
        if (box.left() == 2)
            box.u16("reserved");
    } else if (item == QLatin1String("gnre") && box.left() == 2) {
        box.u16("genre", QStringLiteral("ID3v1 genre + 1"));
    }
}

// data: the value of an item, of the type its type indicator gives.
int parseItemData(PayloadReader &box)
{
    const quint32 indicator = quint32(box.peekUnsigned(4));
    // Only a first byte of 0 draws the type from the well-known set.
    const bool wellKnown = indicator >> 24 == 0;
    box.u32("type_indicator", wellKnown ? wellKnownTypeName(indicator) : QString());
    box.u32("locale");
    const quint32 type = wellKnown ? indicator : ~quint32(0);
    if (type == 1 || type == 4) {
        if (box.left() > 0)
            box.utf8("value", box.left());
    } else if (type == 2 || type == 5) {
        if (box.left() > 0)
            box.utf16("value", box.left());
    } else if (const int width = integerWidth(type, box.left()); width != 0) {
        if (isSignedInteger(type))
            box.signedField(QStringLiteral("value"), width);
        else
            box.unsignedField(QStringLiteral("value"), width);
    } else if (type == 0) {
        readImplicitValue(box, box.parentType());
    }
    box.rest("value");
    return ContainerAbstract::ParseOk;
}

int parseMeaning(PayloadReader &box)
{
    if (box.left() > 0)
        box.utf8("meaning", box.left());
    return ContainerAbstract::ParseOk;
}

// name: in a "----" item a full box with the item's name; in QuickTime's udta the name of
// the movie or track, as text without a terminator.
int parseName(PayloadReader &box)
{
    if (box.parentType() == QLatin1String("----"))
        box.versionAndFlags();
    if (box.left() > 0)
        box.utf8("name", box.left());
    return ContainerAbstract::ParseOk;
}

// cprt: the copyright item in ilst, the copyright notice elsewhere.
int parseCopyright(PayloadReader &box)
{
    if (box.parentType() == QLatin1String("ilst"))
        return parseItem(box);
    box.versionAndFlags();
    readPackedLanguage(box);
    readText(box, "notice");
    box.rest();
    return ContainerAbstract::ParseOk;
}

// A QuickTime text atom: texts each with its size and language, one after the other.
int parseTextAtom(PayloadReader &box)
{
    const QString group = QStringLiteral("text_string");
    for (qint64 i = 0; box.left() >= 4 && box.ok(); ++i) {
        const quint64 size = box.peekUnsigned(2);
        box.beginGroup(group, i, qMin(4 + size, box.left()));
        box.u16("text_size");
        box.u16("language", languageComment(quint16(box.peekUnsigned(2))));
        if (size > 0)
            box.utf8("text", size);
        box.endGroup();
    }
    box.rest();
    return ContainerAbstract::ParseOk;
}

// The © types: items in ilst, QuickTime text atoms elsewhere.
int parseTextAtomOrItem(PayloadReader &box)
{
    if (box.parentType() == QLatin1String("ilst"))
        return parseItem(box);
    return parseTextAtom(box);
}

// chpl: the chapters as Nero writes them, each with its start and title.
int parseChapterList(PayloadReader &box)
{
    if (box.version() == 1)
        box.u32("reserved");
    const quint8 count = box.u8("chapter_count");
    const QString group = QStringLiteral("chapter");
    for (quint32 i = 0; i < count && box.left() >= 9 && box.ok(); ++i) {
        box.beginGroup(group, i, qMin(9 + box.peekUnsigned(1, 8), box.left()));
        box.u64("start_time", QStringLiteral("in 100 ns"));
        const quint8 length = box.u8("title_length");
        if (length > 0)
            box.utf8("title", length);
        box.endGroup();
    }
    box.rest();
    return ContainerAbstract::ParseOk;
}

int parseId3(PayloadReader &box)
{
    readPackedLanguage(box);
    box.rest("id3v2_data");
    return ContainerAbstract::ParseOk;
}

int parseXml(PayloadReader &box)
{
    readText(box, "xml");
    box.rest();
    return ContainerAbstract::ParseOk;
}

// The © types of QuickTime text atoms and iTunes items that files commonly carry; others
// are known in ilst as its children.
const char *const CopyrightSignTypes[] = {
    "©nam", "©ART", "©alb", "©day", "©too", "©cmt", "©gen", "©wrt", "©des", "©xyz",
    "©swr", "©enc", "©mak", "©mod", "©inf", "©req", "©fmt", "©cpy", "©dir", "©prd",
    "©prf", "©src", "©grp", "©lyr", "©com", "©key", "©aut", "©ed1", "©ed2", "©ed3",
    "©ed4", "©ed5", "©ed6", "©ed7", "©ed8", "©ed9", "©url", "©hst", "©dis", "©wrn",
    "©PRD", "©st3", "©wrk", "©mvn", "©mvi", "©mvc", "©chp", "©arg", "©lab", "©pub"};

// The other item types of ilst, but for gnre and rtng, which are user data boxes of 3GPP
// files too, and cprt, which has its own row.
const char *const ItemTypes[] = {
    "aART", "trkn", "disk", "covr", "cpil", "tmpo", "desc", "ldes", "sonm", "soar", "soal", "soaa",
    "soco", "sosn", "tvsh", "tven", "tvsn", "tves", "tvnn", "stik", "pgap", "apID", "cnID", "atID",
    "plID", "geID", "sfID", "purd", "purl", "egid", "catg", "keyw", "hdvd", "----"};

} // namespace

DeepRows userDataRows()
{
    DeepRows rows = {
        {"meta", DeepPlain, 0, parseMeta},      {"keys", DeepPlain, 1, parseKeys},
        {"ilst/*", DeepPlain, 0, parseItem},    {"data", DeepPlain, 0, parseItemData},
        {"mean", DeepPlain, 1, parseMeaning},   {"name", DeepPlain, 0, parseName},
        {"cprt", DeepPlain, 0, parseCopyright}, {"chpl", DeepPlain, 1, parseChapterList},
        {"id32", DeepPlain, 1, parseId3},       {"xml ", DeepPlain, 1, parseXml},
        {"bxml", DeepPlain, 1, nullptr},
    };
    for (const char *type : CopyrightSignTypes)
        rows.push_back({type, DeepPlain, 0, parseTextAtomOrItem});
    for (const char *type : ItemTypes)
        rows.push_back({type, DeepPlain, 0, parseItem});
    return rows;
}

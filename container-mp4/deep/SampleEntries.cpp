#include "Codecs.h"
#include "DeepRows.h"
#include "PayloadReader.h"

#include <QStringList>

#include <algorithm>
#include <cmath>
#include <cstring>

// stsd and its sample entries: the fields every entry begins with, the fields of its kind
// (visual, audio, text, metadata, hint, timecode), then its child boxes. The first entry
// gives the stream its facts: the entry type, the codec, the picture size or the channels
// and the sample rate. Also the small boxes of text and hint entries.

namespace {

// Whether the bytes at the current position begin a box that fits in what is left.
bool beginsBox(PayloadReader &entry)
{
    const quint64 size = entry.peekUnsigned(4);
    char type[4];
    if (size < 8 || size > entry.left() || !entry.peek(type, 4, 4))
        return false;
    return std::all_of(type, type + 4, [](char c) { return c >= 0x20 && c <= 0x7E; });
}

// Among the boxes from ahead bytes behind the current position up to end bytes behind it,
// the first of the given type: on success ahead and end then bound its payload.
bool findChild(PayloadReader &entry, const char *type, quint64 &ahead, quint64 &end)
{
    quint64 at = ahead;
    while (end - at >= 8) {
        const quint64 size = entry.peekUnsigned(4, at);
        char found[4];
        if (size < 8 || size > end - at || !entry.peek(found, 4, at + 4))
            return false;
        if (std::memcmp(found, type, 4) == 0) {
            ahead = at + 8;
            end = at + size;
            return true;
        }
        at += size;
    }
    return false;
}

// The format an encrypted entry stands for, from the frma box of its sinf; empty when the
// child boxes ahead hold none.
QString originalFormat(PayloadReader &entry)
{
    quint64 ahead = 0;
    quint64 end = entry.left();
    char format[4];
    if (!findChild(entry, "sinf", ahead, end) || !findChild(entry, "frma", ahead, end) ||
        end - ahead < 4 || !entry.peek(format, 4, ahead))
        return QString();
    return QString::fromLatin1(format, 4);
}

// A text that may be left out: read unless the bytes ahead begin a box instead.
void optionalText(PayloadReader &entry, const char *name)
{
    if (entry.left() > 0 && !beginsBox(entry))
        entry.nullTerminated(name);
}

void parseVisualFields(PayloadReader &entry, bool first)
{
    entry.u16("pre_defined", QStringLiteral("QuickTime: version"));
    entry.u16("reserved", QStringLiteral("QuickTime: revision level"));
    entry.raw("pre_defined", 12, QStringLiteral("QuickTime: vendor, temporal and spatial quality"));
    const quint16 width = entry.u16("width", QStringLiteral("pixels"));
    const quint16 height = entry.u16("height", QStringLiteral("pixels"));
    if (StreamInfo *stream = entry.stream(); stream && first && entry.ok()) {
        stream->width = width;
        stream->height = height;
    }
    entry.fixed16("horizresolution", false, QStringLiteral("pixels per inch"));
    entry.fixed16("vertresolution", false, QStringLiteral("pixels per inch"));
    entry.u32("reserved");
    entry.u16("frame_count", QStringLiteral("frames per sample"));
    entry.countedText("compressorname", 32);
    entry.u16("depth", QStringLiteral("bits per pixel"));
    entry.i16("pre_defined");
}

// The sound description as QuickTime extends it: version 1 adds four words of packet and
// frame sizes, version 2 replaces them with a rate of 64 bits and a count of channels.
// An ISO entry of version 1 carries no such words: boxes follow its sample rate.
void parseAudioFields(PayloadReader &entry, bool first)
{
    const quint16 version = entry.u16("entry_version", QStringLiteral("QuickTime: version"));
    entry.u16("reserved", QStringLiteral("QuickTime: revision level"));
    entry.u32("reserved", QStringLiteral("QuickTime: vendor"));
    quint32 channels = entry.u16("channelcount");
    entry.u16("samplesize", QStringLiteral("bits"));
    entry.i16("pre_defined", QStringLiteral("QuickTime: compression ID"));
    entry.u16("reserved", QStringLiteral("QuickTime: packet size"));
    quint32 rate = entry.fixed16("samplerate", false, QStringLiteral("Hz")) >> 16;
    if (version == 1 && entry.left() >= 16 && !beginsBox(entry)) {
        entry.u32("samples_per_packet");
        entry.u32("bytes_per_packet");
        entry.u32("bytes_per_frame");
        entry.u32("bytes_per_sample");
    } else if (version == 2) {
        entry.u32("size_of_struct_only", QStringLiteral("bytes"));
        const double exactRate = entry.floatField(QStringLiteral("audio_sample_rate"), 8);
        channels = entry.u32("num_audio_channels");
        entry.u32("always_7F000000");
        entry.u32("const_bits_per_channel");
        entry.u32("format_specific_flags");
        entry.u32("const_bytes_per_audio_packet");
        entry.u32("const_lpcm_frames_per_audio_packet");
        rate = std::isfinite(exactRate) && exactRate >= 0 && exactRate < 4294967295.0
                   ? quint32(std::llround(exactRate))
                   : 0;
    } else {
        // The rate of an ISO entry of version 1 is that of its srat box.
        quint64 ahead = 0;
        quint64 end = entry.left();
        if (findChild(entry, "srat", ahead, end) && end - ahead >= 8)
            rate = quint32(entry.peekUnsigned(4, ahead + 4));
    }
    if (TrackFacts *facts = entry.facts(); facts && first && entry.ok()) {
        facts->channelCount = channels;
        facts->sampleRate = rate;
    }
}

// The box of a text entry where its text is shown: edges in pixels.
void textBox(PayloadReader &entry)
{
    entry.beginGroup(QStringLiteral("default_text_box"), -1, 8);
    entry.i16("top");
    entry.i16("left");
    entry.i16("bottom");
    entry.i16("right");
    entry.endGroup();
}

void parseTimedTextFields(PayloadReader &entry, bool)
{
    entry.u32("display_flags");
    entry.signedField(QStringLiteral("horizontal_justification"), 1,
                      QStringLiteral("0: left, 1: centre, -1: right"));
    entry.signedField(QStringLiteral("vertical_justification"), 1,
                      QStringLiteral("0: top, 1: centre, -1: bottom"));
    entry.raw("background_color_rgba", 4);
    textBox(entry);
    entry.beginGroup(QStringLiteral("default_style"), -1, 12);
    entry.u16("start_char");
    entry.u16("end_char");
    entry.u16("font_id");
    entry.u8("face_style_flags", QStringLiteral("1: bold, 2: italic, 4: underline"));
    entry.u8("font_size", QStringLiteral("pixels"));
    entry.raw("text_color_rgba", 4);
    entry.endGroup();
}

// The text description of QuickTime: colours of three 16-bit components and a counted name.
// Some writers end it behind the reserved bytes, with boxes such as ftab in place of the font
// fields.
void parseQuickTimeTextFields(PayloadReader &entry, bool)
{
    entry.u32("display_flags");
    entry.i32("text_justification", QStringLiteral("0: left, 1: centre, -1: right"));
    entry.raw("background_color", 6, QStringLiteral("RGB"));
    textBox(entry);
    entry.raw("reserved", 8);
    if (beginsBox(entry))
        return;
    entry.u16("font_number");
    entry.u16("font_face", QStringLiteral("1: bold, 2: italic, 4: underline"));
    entry.u8("reserved");
    entry.u16("reserved");
    entry.raw("foreground_color", 6, QStringLiteral("RGB"));
    if (entry.left() > 0) {
        const quint8 length = entry.u8("text_name_length");
        entry.utf8("text_name", length);
    }
}

void parseXmlSubtitleFields(PayloadReader &entry, bool)
{
    entry.nullTerminated("namespace");
    optionalText(entry, "schema_location");
    optionalText(entry, "auxiliary_mime_types");
}

void parseTextMetadataFields(PayloadReader &entry, bool)
{
    entry.nullTerminated("content_encoding");
    entry.nullTerminated("mime_format");
}

void parseXmlMetadataFields(PayloadReader &entry, bool)
{
    entry.nullTerminated("content_encoding");
    entry.nullTerminated("namespace");
    optionalText(entry, "schema_location");
}

void parseHintFields(PayloadReader &entry, bool)
{
    entry.u16("hinttrackversion");
    entry.u16("highestcompatibleversion");
    entry.u32("maxpacketsize", QStringLiteral("bytes"));
}

QString timecodeFlags(quint32 flags)
{
    static const char *const names[] = {"drop_frame", "24_hour_max", "negative_times_ok",
                                        "counter"};
    QStringList set;
    for (int bit = 0; bit < 4; ++bit) {
        if (flags & (1u << bit))
            set << QLatin1String(names[bit]);
    }
    return set.join(QLatin1String(", "));
}

void parseTimecodeFields(PayloadReader &entry, bool)
{
    entry.u32("reserved");
    entry.u32("flags", timecodeFlags(quint32(entry.peekUnsigned(4))));
    entry.u32("timescale", QStringLiteral("units per second"));
    entry.u32("frame_duration", QStringLiteral("in time units"));
    entry.u8("number_of_frames", QStringLiteral("per second, or per tick of a counter"));
    entry.u8("reserved");
}

// What an entry holds behind the fields every entry begins with.
struct Kind {
    void (*fields)(PayloadReader &entry, bool first); // null: no fields of its own
    bool boxes;                                       // whether child boxes follow
};
const Kind Visual{parseVisualFields, true};
const Kind Audio{parseAudioFields, true};
const Kind TimedText{parseTimedTextFields, true};
const Kind QuickTimeText{parseQuickTimeTextFields, true};
const Kind XmlSubtitle{parseXmlSubtitleFields, true};
const Kind TextMetadata{parseTextMetadataFields, true};
const Kind XmlMetadata{parseXmlMetadataFields, true};
const Kind Hint{parseHintFields, true};
const Kind Timecode{parseTimecodeFields, true};
const Kind BoxesOnly{nullptr, true};
const Kind Other{nullptr, false};

const struct {
    const char *type;
    const Kind *kind;
} KindsByType[] = {
    {"avc1", &Visual},      {"avc3", &Visual},    {"hvc1", &Visual},        {"hev1", &Visual},
    {"av01", &Visual},      {"vp08", &Visual},    {"vp09", &Visual},        {"mp4v", &Visual},
    {"s263", &Visual},      {"mjpa", &Visual},    {"mjpb", &Visual},        {"jpeg", &Visual},
    {"apch", &Visual},      {"apcn", &Visual},    {"apcs", &Visual},        {"apco", &Visual},
    {"ap4h", &Visual},      {"encv", &Visual},    {"mp4a", &Audio},         {"ac-3", &Audio},
    {"ec-3", &Audio},       {"Opus", &Audio},     {"fLaC", &Audio},         {"alac", &Audio},
    {"ipcm", &Audio},       {"fpcm", &Audio},     {"sowt", &Audio},         {"twos", &Audio},
    {"lpcm", &Audio},       {"in24", &Audio},     {"fl32", &Audio},         {"raw ", &Audio},
    {"enca", &Audio},       {"tx3g", &TimedText}, {"text", &QuickTimeText}, {"wvtt", &BoxesOnly},
    {"stpp", &XmlSubtitle}, {"c608", &BoxesOnly}, {"mett", &TextMetadata},  {"metx", &XmlMetadata},
    {"rtp ", &Hint},        {"srtp", &Hint},      {"tmcd", &Timecode},      {"h263", &Visual},
    {"samr", &Audio},       {"sawb", &Audio},
};

// Entries of a type not known above, by the handler of their track.
const struct {
    const char *handler;
    const Kind *kind;
} KindsByHandler[] = {
    {"vide", &Visual},
    {"soun", &Audio},
    {"meta", &BoxesOnly},
    {"hint", &Hint},
};

const Kind &kindOf(const QString &type, const QString &handler)
{
    for (const auto &row : KindsByType) {
        if (type == QLatin1String(row.type))
            return *row.kind;
    }
    for (const auto &row : KindsByHandler) {
        if (handler == QLatin1String(row.handler))
            return *row.kind;
    }
    return Other;
}

// One sample entry, read through a reader bound to its extent. valid: whether its size
// covers its own header; an entry whose size does not has the rest shown as data.
int parseSampleEntry(PayloadReader &entry, const QString &handler, bool first, bool valid,
                     const QString &sizeComment)
{
    entry.sizeField("size", 4, sizeComment);
    const QString type = entry.fourcc("type");
    if (!valid) {
        entry.rest();
        return ContainerAbstract::ParseOk;
    }
    entry.raw("reserved", 6);
    entry.u16("data_reference_index");
    TrackFacts *facts = first && entry.ok() ? entry.facts() : nullptr;
    if (facts)
        facts->sampleEntry = type;

    const Kind &kind = kindOf(type, handler);
    if (kind.fields)
        kind.fields(entry, first);

    if (StreamInfo *stream = entry.stream(); stream && facts) {
        const bool encrypted = type == QLatin1String("encv") || type == QLatin1String("enca");
        if (const Codec *codec = deepCodecOf(encrypted ? originalFormat(entry) : type)) {
            stream->codecId = codec->id;
            stream->codecName = QString::fromLatin1(codec->name);
        }
    }
    // Behind the fields of a known kind, a tail too short for a box is padding, shown as its
    // bytes.
    if (kind.fields && entry.left() > 0 && entry.left() < 8 && entry.available() == entry.left())
        entry.raw("padding", entry.left());
    if (!kind.boxes || entry.left() < 8) {
        entry.rest();
        return ContainerAbstract::ParseOk;
    }
    return entry.walkChildrenOf(type);
}

// stsd: each entry is read within its size and the box. An entry of size 0, or of a size
// smaller than its header, reaches to the end of the box; so does one whose size runs past
// it. Every entry covers at least its header, so the walk always moves on.
int parseSampleDescription(PayloadReader &box)
{
    const quint32 count = box.u32("entry_count");
    const QString handler = box.stream() ? box.stream()->handlerType : QString();
    const QString name = QStringLiteral("sample_entry");
    int result = ContainerAbstract::ParseOk;
    // The entries are siblings: a second entry of a type is named with its place.
    box.beginSiblings();
    for (quint32 i = 0; i < count && box.available() >= 8; ++i) {
        const quint64 declared = box.peekUnsigned(4);
        const quint64 left = box.left();
        const bool valid = declared == 0 || declared >= 8;
        const quint64 extent = declared >= 8 ? qMin(declared, left) : left;
        QString sizeComment;
        if (declared == 0)
            sizeComment = QStringLiteral("the entry reaches to the end of the box");
        else if (!valid)
            sizeComment = QStringLiteral("smaller than the entry's header");
        else if (declared > left)
            sizeComment = QStringLiteral("runs past the end of the box");
        box.beginGroup(name, i, extent);
        PayloadReader entry(box.parser, box.at(), extent);
        result = parseSampleEntry(entry, handler, i == 0, valid, sizeComment);
        box.endGroup();
        box.skip(extent);
    }
    box.rest();
    return result;
}

// ftab of a timed-text entry: the fonts its styles name.
int parseFontTable(PayloadReader &box)
{
    const quint16 count = box.u16("entry_count");
    const QString font = QStringLiteral("font");
    for (quint16 i = 0; i < count && box.available() >= 3; ++i) {
        box.beginGroup(font, i, 3 + box.peekUnsigned(1, 2));
        box.u16("font_id");
        const quint8 length = box.u8("font_name_length");
        box.utf8("font_name", length);
        box.endGroup();
    }
    box.rest();
    return ContainerAbstract::ParseOk;
}

// A box whose payload is one text, as far as the input holds it.
int parseWholeText(PayloadReader &box, const char *name)
{
    if (box.available() > 0)
        box.utf8(name, box.available());
    box.rest();
    return ContainerAbstract::ParseOk;
}

// vttC and vlab of a WebVTT entry: the text before the first cue, and the source's label.
int parseWebVttConfig(PayloadReader &box)
{
    return parseWholeText(box, "config");
}

int parseWebVttLabel(PayloadReader &box)
{
    return parseWholeText(box, "source_label");
}

int parseHintTimescale(PayloadReader &box)
{
    box.u32("timescale", QStringLiteral("units per second"));
    box.rest();
    return ContainerAbstract::ParseOk;
}

// tsro and snro: the random offsets of an RTP hint track.
int parseHintOffset(PayloadReader &box)
{
    box.i32("offset");
    box.rest();
    return ContainerAbstract::ParseOk;
}

// sdp  of a hint track's hnti: the SDP lines of the track.
int parseTrackSdp(PayloadReader &box)
{
    return parseWholeText(box, "sdp_text");
}

// rtp  of the movie's hnti: the SDP lines of the whole presentation, in the format its
// description_format names.
int parseMovieSdp(PayloadReader &box)
{
    box.fourcc("description_format");
    return parseWholeText(box, "sdp_text");
}

} // namespace

DeepRows sampleEntryRows()
{
    return {
        {"stsd", DeepPlain, 1, parseSampleDescription}, {"ftab", DeepPlain, 0, parseFontTable},
        {"vttC", DeepPlain, 0, parseWebVttConfig},      {"vlab", DeepPlain, 0, parseWebVttLabel},
        {"tims", DeepPlain, 0, parseHintTimescale},     {"tsro", DeepPlain, 0, parseHintOffset},
        {"snro", DeepPlain, 0, parseHintOffset},        {"hnti", DeepContainer, 0, nullptr},
        {"sdp ", DeepPlain, 0, parseTrackSdp},          {"rtp ", DeepPlain, 0, parseMovieSdp},
    };
}

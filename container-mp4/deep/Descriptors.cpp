#include "Descriptors.h"

#include "Codecs.h"

#include <vector>

namespace {

// Descriptors nested deeper than this are shown as data: a hostile box could otherwise nest
// one in every two of its bytes, and each level costs a call.
constexpr int DeepestDescriptor = 8;

// What a descriptor's body needs to know of the descriptors around it.
struct Context {
    int depth = 0;
    // The objectTypeIndication of the enclosing DecoderConfigDescriptor; 0 outside one.
    quint64 objectType = 0;
};

constexpr CodeName DescriptorNames[] = {
    {0x01, "ObjectDescriptor"},
    {0x02, "InitialObjectDescriptor"},
    {0x03, "ES_Descriptor"},
    {0x04, "DecoderConfigDescriptor"},
    {0x05, "DecoderSpecificInfo"},
    {0x06, "SLConfigDescriptor"},
    {0x0E, "ES_ID_Inc"},
    {0x0F, "ES_ID_Ref"},
    {0x10, "MP4_IOD"},
    {0x11, "MP4_OD"},
};

constexpr CodeName StreamTypes[] = {
    {0x01, "object descriptor"},
    {0x02, "clock reference"},
    {0x03, "scene description"},
    {0x04, "visual"},
    {0x05, "audio"},
    {0x06, "MPEG-7"},
    {0x07, "IPMP"},
    {0x08, "object content information"},
    {0x09, "MPEG-J"},
    {0x0A, "interaction"},
    {0x0B, "IPMP tool"},
};

constexpr CodeName ProfileLevels[] = {
    {0xFE, "no profile specified"},
    {0xFF, "no capability required"},
};

constexpr CodeName SlPredefined[] = {
    {0x00, "custom"},
    {0x01, "null packet header"},
    {0x02, "as used in MP4 files"},
};

constexpr CodeName AudioObjectTypes[] = {
    {1, "AAC Main"},
    {2, "AAC LC"},
    {3, "AAC SSR"},
    {4, "AAC LTP"},
    {5, "SBR (HE-AAC)"},
    {6, "AAC Scalable"},
    {7, "TwinVQ"},
    {8, "CELP"},
    {9, "HVXC"},
    {12, "TTSI"},
    {13, "Main synthetic"},
    {14, "Wavetable synthesis"},
    {15, "General MIDI"},
    {16, "Algorithmic synthesis and audio effects"},
    {17, "ER AAC LC"},
    {19, "ER AAC LTP"},
    {20, "ER AAC Scalable"},
    {21, "ER TwinVQ"},
    {22, "ER BSAC"},
    {23, "ER AAC LD"},
    {24, "ER CELP"},
    {25, "ER HVXC"},
    {26, "ER HILN"},
    {27, "ER Parametric"},
    {28, "SSC"},
    {29, "PS (HE-AAC v2)"},
    {30, "MPEG Surround"},
    {31, "escape: 32 + audio_object_type_ext"},
    {32, "Layer-1"},
    {33, "Layer-2"},
    {34, "Layer-3"},
    {35, "DST"},
    {36, "ALS"},
    {37, "SLS"},
    {38, "SLS non-core"},
    {39, "ER AAC ELD"},
    {40, "SMR Simple"},
    {41, "SMR Main"},
    {42, "USAC"},
    {43, "SAOC"},
    {44, "LD MPEG Surround"},
};

constexpr CodeName SamplingFrequencies[] = {
    {0, "96000 Hz"},  {1, "88200 Hz"},
    {2, "64000 Hz"},  {3, "48000 Hz"},
    {4, "44100 Hz"},  {5, "32000 Hz"},
    {6, "24000 Hz"},  {7, "22050 Hz"},
    {8, "16000 Hz"},  {9, "12000 Hz"},
    {10, "11025 Hz"}, {11, "8000 Hz"},
    {12, "7350 Hz"},  {15, "escape: the frequency follows"},
};

constexpr CodeName ChannelConfigurations[] = {
    {0, "given by the object type's own configuration"},
    {1, "mono"},
    {2, "stereo"},
    {3, "3.0"},
    {4, "4.0"},
    {5, "5.0"},
    {6, "5.1"},
    {7, "7.1"},
    {11, "6.1"},
    {12, "7.1"},
    {13, "22.2"},
    {14, "7.1 with front heights"},
};

constexpr CodeName SyncExtensionTypes[] = {
    {0x2B7, "SBR signalled behind the core"},
    {0x548, "PS signalled behind the SBR"},
};

// A field of an AudioSpecificConfig, planned before it is reported: its fields run across
// byte boundaries and their widths depend on values read before them.
struct BitPiece {
    const char *name;
    int width;
    QString comment;
};

// Takes the fields of an AudioSpecificConfig from its first bytes, as far as they go.
class BitPlan {
public:
    BitPlan(const unsigned char *bytes, int count, quint64 totalBits)
        : bytes(bytes)
        , count(count)
        , totalBits(totalBits)
    {
    }

    // The next width bits as the field name; false, with nothing taken, when they are not
    // all among the bytes given.
    bool take(const char *name, int width, quint64 *value = nullptr)
    {
        if (used + width > 8 * count)
            return false;
        quint64 bits = 0;
        for (int i = 0; i < width; ++i, ++used)
            bits = bits << 1 | ((bytes[used / 8] >> (7 - used % 8)) & 1);
        if (value)
            *value = bits;
        pieces.push_back({name, width, QString()});
        return true;
    }
    void comment(const QString &text) { pieces.back().comment = text; }
    // The bits of the whole configuration behind those taken, as its syntax tests them.
    quint64 bitsLeft() const { return totalBits - quint64(used); }

    std::vector<BitPiece> pieces;
    int used = 0;

private:
    const unsigned char *bytes;
    int count;
    quint64 totalBits;
};

// An audio object type of 5 bits, or 31 and 6 more bits for the types from 32 on.
bool audioObjectType(BitPlan &plan, const char *name, quint64 *type)
{
    if (!plan.take(name, 5, type))
        return false;
    plan.comment(nameOf(AudioObjectTypes, *type));
    if (*type != 31)
        return true;
    quint64 extension = 0;
    if (!plan.take("audio_object_type_ext", 6, &extension))
        return false;
    *type = 32 + extension;
    plan.comment(nameOf(AudioObjectTypes, *type));
    return true;
}

// A sampling frequency index of 4 bits, with the frequency in 24 bits behind index 15.
bool samplingFrequency(BitPlan &plan, const char *indexName, const char *frequencyName)
{
    quint64 index = 0;
    if (!plan.take(indexName, 4, &index))
        return false;
    plan.comment(nameOf(SamplingFrequencies, index));
    if (index != 15)
        return true;
    if (!plan.take(frequencyName, 24))
        return false;
    plan.comment(QStringLiteral("Hz"));
    return true;
}

bool isErrorResilient(quint64 type)
{
    return (type >= 17 && type <= 27) || type == 39;
}

// The configuration of the AAC family and its relatives. A program_config_element, which
// tells the channels where channel_configuration is 0, is not decoded: the planning ends there.
bool generalAudioConfig(BitPlan &plan, quint64 type, quint64 channels)
{
    quint64 frameLength = 0;
    if (!plan.take("frame_length_flag", 1, &frameLength))
        return false;
    if (type == 23)
        plan.comment(frameLength ? QStringLiteral("480 samples per frame")
                                 : QStringLiteral("512 samples per frame"));
    else
        plan.comment(frameLength ? QStringLiteral("960 samples per frame")
                                 : QStringLiteral("1024 samples per frame"));
    quint64 core = 0;
    quint64 extension = 0;
    if (!plan.take("depends_on_core_coder", 1, &core) ||
        (core && !plan.take("core_coder_delay", 14)) ||
        !plan.take("extension_flag", 1, &extension) || channels == 0)
        return false;
    if ((type == 6 || type == 20) && !plan.take("layer_nr", 3))
        return false;
    if (!extension)
        return true;
    if (type == 22 && !(plan.take("num_of_sub_frame", 5) && plan.take("layer_length", 11)))
        return false;
    if ((type == 17 || type == 19 || type == 20 || type == 23) &&
        !(plan.take("aac_section_data_resilience_flag", 1) &&
          plan.take("aac_scalefactor_data_resilience_flag", 1) &&
          plan.take("aac_spectral_data_resilience_flag", 1)))
        return false;
    return plan.take("extension_flag3", 1);
}

// SBR and PS signalled behind a configuration that does not name them in front: found by
// their sync words where enough bits are left for them.
bool backwardCompatibleExtension(BitPlan &plan)
{
    quint64 sync = 0;
    if (plan.bitsLeft() < 16)
        return true;
    if (!plan.take("sync_extension_type", 11, &sync))
        return false;
    plan.comment(nameOf(SyncExtensionTypes, sync));
    if (sync != 0x2B7)
        return true;
    quint64 type = 0;
    quint64 sbr = 0;
    if (!audioObjectType(plan, "extension_audio_object_type", &type))
        return false;
    if (type == 5) {
        if (!plan.take("sbr_present_flag", 1, &sbr))
            return false;
        if (!sbr)
            return true;
        if (!samplingFrequency(plan, "extension_sampling_frequency_index",
                               "extension_sampling_frequency"))
            return false;
        if (plan.bitsLeft() < 12)
            return true;
        if (!plan.take("sync_extension_type", 11, &sync))
            return false;
        plan.comment(nameOf(SyncExtensionTypes, sync));
        return sync != 0x548 || plan.take("ps_present_flag", 1);
    }
    if (type == 22) {
        if (!plan.take("sbr_present_flag", 1, &sbr) ||
            (sbr && !samplingFrequency(plan, "extension_sampling_frequency_index",
                                       "extension_sampling_frequency")))
            return false;
        quint64 channels = 0;
        if (!plan.take("extension_channel_configuration", 4, &channels))
            return false;
        plan.comment(nameOf(ChannelConfigurations, channels));
    }
    return true;
}

// Plans the AudioSpecificConfig; true when its whole syntax was planned, false when the
// planning ended early: at the end of the bytes given, or at a part it does not decode.
bool planAudioSpecificConfig(BitPlan &plan)
{
    quint64 type = 0;
    quint64 channels = 0;
    if (!audioObjectType(plan, "audio_object_type", &type) ||
        !samplingFrequency(plan, "sampling_frequency_index", "sampling_frequency") ||
        !plan.take("channel_configuration", 4, &channels))
        return false;
    plan.comment(nameOf(ChannelConfigurations, channels));
    // SBR and PS named in front: the extension's frequency, then the core's object type.
    const bool extensionInFront = type == 5 || type == 29;
    if (extensionInFront) {
        if (!samplingFrequency(plan, "extension_sampling_frequency_index",
                               "extension_sampling_frequency") ||
            !audioObjectType(plan, "audio_object_type", &type))
            return false;
        quint64 extensionChannels = 0;
        if (type == 22) {
            if (!plan.take("extension_channel_configuration", 4, &extensionChannels))
                return false;
            plan.comment(nameOf(ChannelConfigurations, extensionChannels));
        }
    }
    switch (type) {
    case 1:
    case 2:
    case 3:
    case 4:
    case 6:
    case 7:
    case 17:
    case 19:
    case 20:
    case 21:
    case 22:
    case 23:
        if (!generalAudioConfig(plan, type, channels))
            return false;
        break;
    default:
        return false;
    }
    if (isErrorResilient(type)) {
        quint64 epConfig = 0;
        // Error protection configurations of 2 and 3 follow; they are not decoded.
        if (!plan.take("ep_config", 2, &epConfig) || epConfig >= 2)
            return false;
    }
    return extensionInFront || backwardCompatibleExtension(plan);
}

// The AudioSpecificConfig of MPEG-4 Audio, from its first 8 bytes at most: what lies
// behind them, or behind a part not decoded, is left to the caller.
void audioSpecificConfig(PayloadReader &box, quint64 end)
{
    unsigned char bytes[8];
    const int count =
        int(qMin<quint64>(qMin<quint64>(sizeof bytes, leftBefore(box, end)), box.available()));
    if (count == 0 || !box.peek(bytes, quint64(count)))
        return;
    BitPlan plan(bytes, count, 8 * leftBefore(box, end));
    const bool complete = planAudioSpecificConfig(plan);
    const int width = (plan.used + 7) / 8;
    if (width == 0)
        return;
    PayloadReader::Bits word = box.bits(width);
    for (const BitPiece &piece : plan.pieces) {
        if (piece.width == 1 && piece.comment.isEmpty())
            word.flag(piece.name);
        else
            word.field(piece.name, piece.width, piece.comment);
    }
    if (plan.used < 8 * width)
        word.field("remaining_bits", 8 * width - plan.used,
                   complete ? QStringLiteral("byte alignment") : QStringLiteral("not decoded"));
}

void readList(PayloadReader &box, quint64 end, const Context &context);

// A URL of a counted length, where a flag says one stands; false when it does not fit.
bool url(PayloadReader &box, quint64 end)
{
    if (leftBefore(box, end) < 1)
        return false;
    const quint8 length = box.u8("url_length");
    if (leftBefore(box, end) < length)
        return false;
    box.utf8("url_string", length);
    return true;
}

// ObjectDescriptor and InitialObjectDescriptor, and their MP4 forms: an id and flags, then a
// URL or, for an initial one, the profiles and levels, then the descriptors they hold.
void objectDescriptor(PayloadReader &box, quint64 end, bool initial, const Context &context)
{
    if (leftBefore(box, end) < 2)
        return;
    PayloadReader::Bits word = box.bits(2);
    word.field("object_descriptor_id", 10);
    const bool hasUrl = word.flag("url_flag");
    if (initial) {
        word.flag("include_inline_profile_level_flag");
        word.field("reserved", 4);
    } else {
        word.field("reserved", 5);
    }
    if (hasUrl) {
        if (!url(box, end))
            return;
    } else if (initial) {
        if (leftBefore(box, end) < 5)
            return;
        for (const char *name :
             {"od_profile_level_indication", "scene_profile_level_indication",
              "audio_profile_level_indication", "visual_profile_level_indication",
              "graphics_profile_level_indication"})
            box.u8(name, nameOf(ProfileLevels, box.peekUnsigned(1)));
    }
    readList(box, end, context);
}

void esDescriptor(PayloadReader &box, quint64 end, const Context &context)
{
    if (leftBefore(box, end) < 3)
        return;
    box.u16("es_id");
    PayloadReader::Bits word = box.bits(1);
    const bool dependent = word.flag("stream_dependence_flag");
    const bool hasUrl = word.flag("url_flag");
    const bool ocr = word.flag("ocr_stream_flag");
    word.field("stream_priority", 5);
    if (dependent) {
        if (leftBefore(box, end) < 2)
            return;
        box.u16("depends_on_es_id");
    }
    if (hasUrl && !url(box, end))
        return;
    if (ocr) {
        if (leftBefore(box, end) < 2)
            return;
        box.u16("ocr_es_id");
    }
    readList(box, end, context);
}

void decoderConfigDescriptor(PayloadReader &box, quint64 end, Context context)
{
    if (leftBefore(box, end) < 13)
        return;
    context.objectType = box.peekUnsigned(1);
    box.u8("object_type_indication",
           QString::fromLatin1(objectTypeName(quint8(context.objectType))));
    // The object type tells the codec of an MPEG-4 entry more exactly than its type does.
    const Codec *codec = codecOfObjectType(quint8(context.objectType));
    if (StreamInfo *stream = box.stream(); stream && codec && box.ok()) {
        stream->codecId = codec->id;
        stream->codecName = QString::fromLatin1(codec->name);
    }
    const quint64 streamType = box.peekUnsigned(1) >> 2;
    PayloadReader::Bits word = box.bits(1);
    word.field("stream_type", 6, nameOf(StreamTypes, streamType));
    word.flag("up_stream");
    word.field("reserved", 1);
    box.u24("buffer_size_db", QStringLiteral("bytes"));
    box.u32("max_bitrate", QStringLiteral("bit/s"));
    box.u32("avg_bitrate", QStringLiteral("bit/s"));
    readList(box, end, context);
}

void decoderSpecificInfo(PayloadReader &box, quint64 end, const Context &context)
{
    // MPEG-4 Audio and the AAC of MPEG-2 carry an AudioSpecificConfig.
    if (context.objectType == 0x40 || (context.objectType >= 0x66 && context.objectType <= 0x68))
        audioSpecificConfig(box, end);
}

// One descriptor: its header, its body as far as it is decoded and the rest of its body as
// data. A header that does not fit before end is shown as data.
void readDescriptor(PayloadReader &box, quint64 end, const Context &context)
{
    const quint64 left = leftBefore(box, end);
    const quint64 tag = box.peekUnsigned(1);
    quint64 size = 0;
    int sizeBytes = 0;
    bool more = true;
    while (more && sizeBytes < 4 && quint64(1 + sizeBytes) < left) {
        const quint64 byte = box.peekUnsigned(1, quint64(1 + sizeBytes));
        size = size << 7 | (byte & 0x7F);
        more = (byte & 0x80) != 0;
        ++sizeBytes;
    }
    if (sizeBytes == 0 || (more && sizeBytes < 4)) {
        box.data("data", left);
        return;
    }
    const quint64 bodyLeft = left - 1 - quint64(sizeBytes);
    const QString name = nameOf(DescriptorNames, tag);
    box.beginGroup(name.isEmpty() ? QStringLiteral("descriptor") : name, -1,
                   left - bodyLeft + qMin(size, bodyLeft));
    box.u8("tag");
    box.decodedField("size", sizeBytes, size,
                     size > bodyLeft ? QStringLiteral("beyond its parent: held to it") : QString());
    const quint64 bodyEnd = box.at() + qMin(size, bodyLeft);
    Context inner = context;
    ++inner.depth;
    switch (tag) {
    case 0x01:
    case 0x11:
        objectDescriptor(box, bodyEnd, false, inner);
        break;
    case 0x02:
    case 0x10:
        objectDescriptor(box, bodyEnd, true, inner);
        break;
    case 0x03:
        esDescriptor(box, bodyEnd, inner);
        break;
    case 0x04:
        decoderConfigDescriptor(box, bodyEnd, inner);
        break;
    case 0x05:
        decoderSpecificInfo(box, bodyEnd, inner);
        break;
    case 0x06:
        if (bodyEnd > box.at())
            box.u8("predefined", nameOf(SlPredefined, box.peekUnsigned(1)));
        break;
    case 0x0E:
        if (leftBefore(box, bodyEnd) >= 4)
            box.u32("track_id");
        break;
    case 0x0F:
        if (leftBefore(box, bodyEnd) >= 2)
            box.u16("ref_index");
        break;
    default:
        break;
    }
    box.data("data", leftBefore(box, bodyEnd));
    box.endGroup();
}

void readList(PayloadReader &box, quint64 end, const Context &context)
{
    if (context.depth >= DeepestDescriptor) {
        box.data("data", leftBefore(box, end));
        return;
    }
    while (box.ok() && leftBefore(box, end) > 0)
        readDescriptor(box, end, context);
}

} // namespace

void readDescriptors(PayloadReader &box, quint64 end)
{
    readList(box, end, Context());
}

QString levelText(quint64 whole, quint64 tenths)
{
    return tenths == 0 ? QStringLiteral("level %1").arg(whole)
                       : QStringLiteral("level %1.%2").arg(whole).arg(tenths);
}

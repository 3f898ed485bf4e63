#include "DeepRows.h"
#include "Descriptors.h"
#include "ParameterSets.h"

// The decoder configurations that sample entries carry, decoded field by field. Each notes
// in the stream record where its configuration record lies, so that a reader of the record
// can fetch it from the file.

namespace {

constexpr CodeName AvcProfiles[] = {
    {44, "CAVLC 4:4:4 Intra"},
    {66, "Baseline"},
    {77, "Main"},
    {88, "Extended"},
    {100, "High"},
    {110, "High 10"},
    {122, "High 4:2:2"},
    {244, "High 4:4:4 Predictive"},
};

constexpr CodeName AvcNalUnitTypes[] = {
    {7, "sequence parameter set"},
    {8, "picture parameter set"},
    {13, "sequence parameter set extension"},
};

constexpr CodeName HevcProfiles[] = {
    {1, "Main"},
    {2, "Main 10"},
    {3, "Main Still Picture"},
    {4, "Format Range Extensions"},
    {5, "High Throughput"},
    {9, "Screen Content Coding"},
};

constexpr CodeName HevcNalUnitTypes[] = {
    {32, "VPS"}, {33, "SPS"}, {34, "PPS"}, {39, "prefix SEI"}, {40, "suffix SEI"},
};

constexpr CodeName Tiers[] = {{0, "Main tier"}, {1, "High tier"}};

constexpr CodeName ChromaFormats[] = {{0, "monochrome"}, {1, "4:2:0"}, {2, "4:2:2"}, {3, "4:4:4"}};

constexpr CodeName ParallelismTypes[] = {
    {0, "mixed or not known"}, {1, "slices"}, {2, "tiles"}, {3, "wavefronts"}};

constexpr CodeName ConstantFrameRates[] = {
    {0, "not known"}, {1, "constant"}, {2, "constant in each temporal layer"}};

constexpr CodeName Av1Profiles[] = {{0, "Main"}, {1, "High"}, {2, "Professional"}};

constexpr CodeName Av1ChromaSamplePositions[] = {{0, "unknown"}, {1, "vertical"}, {2, "colocated"}};

constexpr CodeName VpProfiles[] = {
    {0, "8 bit 4:2:0"},
    {1, "8 bit 4:2:2, 4:4:0 or 4:4:4"},
    {2, "10 or 12 bit 4:2:0"},
    {3, "10 or 12 bit 4:2:2, 4:4:0 or 4:4:4"},
};

constexpr CodeName VpChromaSubsamplings[] = {
    {0, "4:2:0 vertical"}, {1, "4:2:0 colocated with luma"}, {2, "4:2:2"}, {3, "4:4:4"}};

// The colour codes of version 0 of vpcC.
constexpr CodeName VpColorSpaces[] = {
    {0, "unspecified"},
    {1, "BT.601"},
    {2, "BT.709"},
    {3, "SMPTE 170"},
    {4, "SMPTE 240"},
    {5, "BT.2020 non-constant luminance"},
    {6, "BT.2020 constant luminance"},
    {7, "sRGB"},
};

constexpr CodeName VpTransferFunctions[] = {
    {0, "BT.709, BT.601 or BT.2020"}, {1, "SMPTE ST 2084"}, {2, "HLG"}};

// The colour codes of version 1, shared with video colour descriptions elsewhere.
constexpr CodeName ColourPrimaries[] = {
    {1, "BT.709"},          {2, "unspecified"}, {4, "BT.470 M"},     {5, "BT.601 625"},
    {6, "BT.601 525"},      {7, "SMPTE 240M"},  {8, "generic film"}, {9, "BT.2020"},
    {10, "SMPTE ST 428-1"}, {11, "DCI-P3"},     {12, "Display P3"},  {22, "EBU Tech 3213-E"},
};

constexpr CodeName TransferCharacteristics[] = {
    {1, "BT.709"},
    {2, "unspecified"},
    {4, "gamma 2.2"},
    {5, "gamma 2.8"},
    {6, "BT.601"},
    {7, "SMPTE 240M"},
    {8, "linear"},
    {9, "logarithmic 100:1"},
    {10, "logarithmic 316:1"},
    {11, "IEC 61966-2-4"},
    {12, "BT.1361"},
    {13, "sRGB"},
    {14, "BT.2020 10 bit"},
    {15, "BT.2020 12 bit"},
    {16, "PQ (SMPTE ST 2084)"},
    {17, "SMPTE ST 428-1"},
    {18, "HLG"},
};

constexpr CodeName MatrixCoefficients[] = {
    {0, "identity (RGB)"},
    {1, "BT.709"},
    {2, "unspecified"},
    {4, "FCC"},
    {5, "BT.601 625"},
    {6, "BT.601 525"},
    {7, "SMPTE 240M"},
    {8, "YCgCo"},
    {9, "BT.2020 non-constant luminance"},
    {10, "BT.2020 constant luminance"},
    {11, "SMPTE ST 2085"},
    {12, "chromaticity-derived non-constant luminance"},
    {13, "chromaticity-derived constant luminance"},
    {14, "ICtCp"},
};

constexpr CodeName OpusMappingFamilies[] = {
    {0, "mono or stereo, no mapping table"},
    {1, "Vorbis channel order"},
    {255, "no defined channel meaning"},
};

constexpr CodeName Ac3SampleRates[] = {{0, "48000 Hz"}, {1, "44100 Hz"}, {2, "32000 Hz"}};

constexpr CodeName Ac3ServiceModes[] = {
    {0, "main audio: complete main"},     {1, "main audio: music and effects"},
    {2, "associated: visually impaired"}, {3, "associated: hearing impaired"},
    {4, "associated: dialogue"},          {5, "associated: commentary"},
    {6, "associated: emergency"},         {7, "associated: voice over or karaoke"},
};

constexpr CodeName Ac3ChannelModes[] = {
    {0, "1+1: Ch1, Ch2"},     {1, "1/0: C"},
    {2, "2/0: L, R"},         {3, "3/0: L, C, R"},
    {4, "2/1: L, R, S"},      {5, "3/1: L, C, R, S"},
    {6, "2/2: L, R, SL, SR"}, {7, "3/2: L, C, R, SL, SR"},
};

constexpr CodeName Ac3BitRates[] = {
    {0, "32 kbit/s"},   {1, "40 kbit/s"},   {2, "48 kbit/s"},   {3, "56 kbit/s"},
    {4, "64 kbit/s"},   {5, "80 kbit/s"},   {6, "96 kbit/s"},   {7, "112 kbit/s"},
    {8, "128 kbit/s"},  {9, "160 kbit/s"},  {10, "192 kbit/s"}, {11, "224 kbit/s"},
    {12, "256 kbit/s"}, {13, "320 kbit/s"}, {14, "384 kbit/s"}, {15, "448 kbit/s"},
    {16, "512 kbit/s"}, {17, "576 kbit/s"}, {18, "640 kbit/s"},
};

constexpr CodeName FlacBlockTypes[] = {
    {0, "STREAMINFO"},     {1, "PADDING"},  {2, "APPLICATION"}, {3, "SEEKTABLE"},
    {4, "VORBIS_COMMENT"}, {5, "CUESHEET"}, {6, "PICTURE"},
};

// Notes where the configuration record lies: the payload, behind the version and flags of
// a full box.
void noteConfiguration(PayloadReader &box)
{
    if (StreamInfo *stream = box.stream()) {
        stream->configOffset = box.at();
        stream->configSize = box.left();
    }
}

// The bits of a word in the opposite order.
quint32 reversedBits(quint32 word)
{
    quint32 reversed = 0;
    for (int i = 0; i < 32; ++i, word >>= 1)
        reversed = reversed << 1 | (word & 1);
    return reversed;
}

// The parameters of an HEVC codecs string from the 12 bytes of hvcC behind its version:
// the profile space as a letter and the profile, the compatibility flags from the lowest
// profile up in hex, the tier and level, then the constraint bytes up to the last one not 0.
QString hevcCodecs(const unsigned char *bytes)
{
    QString text = QStringLiteral(".");
    if (const int space = bytes[0] >> 6)
        text += QChar(u'A' + space - 1);
    text += QString::number(bytes[0] & 0x1F);
    const quint32 flags =
        quint32(bytes[1]) << 24 | quint32(bytes[2]) << 16 | quint32(bytes[3]) << 8 | bytes[4];
    text += '.' + QString::number(reversedBits(flags), 16).toUpper();
    text += (bytes[0] & 0x20) ? QStringLiteral(".H") : QStringLiteral(".L");
    text += QString::number(bytes[11]);
    int constraints = 6;
    while (constraints > 0 && bytes[4 + constraints] == 0)
        --constraints;
    for (int i = 0; i < constraints; ++i)
        text += QString::asprintf(".%02X", bytes[5 + i]);
    return text;
}

// The bytes of a NAL unit behind its length of 2 bytes, the length with them: as far as
// the payload holds them.
quint64 unitSize(PayloadReader &box)
{
    return 2 + qMin(box.peekUnsigned(2), box.left() - 2);
}

// An AVC level in tenths; 9 stands for level 1b.
QString avcLevel(quint64 level)
{
    return level == 9 ? QStringLiteral("level 1b") : levelText(level / 10, level % 10);
}

// The chroma format and the bit depths of luma and chroma, as avcC and hvcC both carry them:
// three bytes, each behind reserved bits.
void chromaAndBitDepths(PayloadReader &box, const char *chromaName)
{
    const quint64 chromaFormat = box.peekUnsigned(1) & 3;
    PayloadReader::Bits chroma = box.bits(1);
    chroma.field("reserved", 6);
    chroma.field(chromaName, 2, nameOf(ChromaFormats, chromaFormat));
    PayloadReader::Bits luma = box.bits(1);
    luma.field("reserved", 5);
    luma.field("bit_depth_luma_minus8", 3);
    PayloadReader::Bits chromaDepth = box.bits(1);
    chromaDepth.field("reserved", 5);
    chromaDepth.field("bit_depth_chroma_minus8", 3);
}

// A parameter set of avcC: its length, then its NAL unit, whose header is decoded and, for
// a sequence parameter set, the profile, constraint flags and level in front of its body.
void avcParameterSet(PayloadReader &box, const QString &group, quint32 index,
                     const char *lengthName)
{
    box.beginGroup(group, index, unitSize(box));
    const quint16 length = box.u16(lengthName);
    const quint64 end = box.at() + qMin<quint64>(length, box.left());
    const quint64 type = box.peekUnsigned(1) & 0x1F;
    const quint64 unit = leftBefore(box, end);
    if (unit >= 1) {
        PayloadReader::Bits header = box.bits(1);
        header.field("forbidden_zero_bit", 1);
        header.field("nal_ref_idc", 2);
        header.field("nal_unit_type", 5, nameOf(AvcNalUnitTypes, type));
    }
    if (type == 7 && unit >= 4) {
        const quint8 profile = box.u8("profile_idc", nameOf(AvcProfiles, box.peekUnsigned(1)));
        PayloadReader::Bits constraints = box.bits(1);
        for (const char *name :
             {"constraint_set0_flag", "constraint_set1_flag", "constraint_set2_flag",
              "constraint_set3_flag", "constraint_set4_flag", "constraint_set5_flag"})
            constraints.flag(name);
        constraints.field("reserved_zero_2bits", 2);
        box.u8("level_idc", avcLevel(box.peekUnsigned(1)));
        readParameterSet(box, end, ParameterSet::AvcSequence, profile);
    } else if (type == 8 && unit >= 1) {
        readParameterSet(box, end, ParameterSet::AvcPicture);
    } else if (type == 13 && unit >= 1) {
        readParameterSet(box, end, ParameterSet::AvcSequenceExtension);
    }
    box.data("data", leftBefore(box, end));
    box.endGroup();
}

// avcC: the AVC decoder configuration record.
int parseAvcConfiguration(PayloadReader &box)
{
    noteConfiguration(box);
    if (box.available() >= 4)
        box.setCodecs(QString::asprintf(".%06llX", box.peekUnsigned(3, 1)));
    box.u8("configuration_version");
    const quint8 profile =
        box.u8("avc_profile_indication", nameOf(AvcProfiles, box.peekUnsigned(1)));
    box.u8("profile_compatibility");
    box.u8("avc_level_indication", avcLevel(box.peekUnsigned(1)));
    PayloadReader::Bits lengthSize = box.bits(1);
    lengthSize.field("reserved", 6);
    lengthSize.field("length_size_minus_one", 2);
    PayloadReader::Bits sequenceSets = box.bits(1);
    sequenceSets.field("reserved", 3);
    const quint64 sequenceCount = sequenceSets.field("num_of_sequence_parameter_sets", 5);
    const QString sequenceSet = QStringLiteral("sequence_parameter_set");
    for (quint32 i = 0; i < sequenceCount && box.ok() && box.available() >= 2; ++i)
        avcParameterSet(box, sequenceSet, i, "sequence_parameter_set_length");
    const quint8 pictureCount = box.u8("num_of_picture_parameter_sets");
    const QString pictureSet = QStringLiteral("picture_parameter_set");
    for (quint32 i = 0; i < pictureCount && box.ok() && box.available() >= 2; ++i)
        avcParameterSet(box, pictureSet, i, "picture_parameter_set_length");
    // The high profiles add the chroma format, the bit depths and the extensions of the
    // sequence parameter sets; older writers leave them out.
    const bool high = profile == 100 || profile == 110 || profile == 122 || profile == 144;
    if (high && box.left() > 0) {
        chromaAndBitDepths(box, "chroma_format");
        const quint8 extensionCount = box.u8("num_of_sequence_parameter_set_ext");
        const QString extension = QStringLiteral("sequence_parameter_set_ext");
        for (quint32 i = 0; i < extensionCount && box.ok() && box.available() >= 2; ++i)
            avcParameterSet(box, extension, i, "sequence_parameter_set_ext_length");
    }
    box.rest();
    return ContainerAbstract::ParseOk;
}

// hvcC: the HEVC decoder configuration record, its NAL units in arrays of one type each.
int parseHevcConfiguration(PayloadReader &box)
{
    noteConfiguration(box);
    unsigned char profile[12];
    if (box.peek(profile, sizeof profile, 1))
        box.setCodecs(hevcCodecs(profile));
    box.u8("configuration_version");
    const quint64 first = box.peekUnsigned(1);
    PayloadReader::Bits general = box.bits(1);
    general.field("general_profile_space", 2);
    general.field("general_tier_flag", 1, nameOf(Tiers, (first >> 5) & 1));
    general.field("general_profile_idc", 5, nameOf(HevcProfiles, first & 0x1F));
    box.u32("general_profile_compatibility_flags");
    box.unsignedField(QStringLiteral("general_constraint_indicator_flags"), 6);
    const quint64 level = box.peekUnsigned(1);
    box.u8("general_level_idc", levelText(level / 30, level % 30 / 3));
    PayloadReader::Bits segmentation = box.bits(2);
    segmentation.field("reserved", 4);
    segmentation.field("min_spatial_segmentation_idc", 12);
    const QString parallelismType = nameOf(ParallelismTypes, box.peekUnsigned(1) & 3);
    PayloadReader::Bits parallelism = box.bits(1);
    parallelism.field("reserved", 6);
    parallelism.field("parallelism_type", 2, parallelismType);
    chromaAndBitDepths(box, "chroma_format_idc");
    box.u16("avg_frame_rate", QStringLiteral("frames in 256 s; 0: not given"));
    const quint64 rates = box.peekUnsigned(1);
    PayloadReader::Bits layers = box.bits(1);
    layers.field("constant_frame_rate", 2, nameOf(ConstantFrameRates, rates >> 6));
    layers.field("num_temporal_layers", 3);
    layers.flag("temporal_id_nested");
    layers.field("length_size_minus_one", 2);
    const quint8 arrayCount = box.u8("num_of_arrays");
    const QString array = QStringLiteral("array");
    const QString nalUnit = QStringLiteral("nal_unit");
    for (quint32 j = 0; j < arrayCount && box.ok() && box.available() >= 3; ++j) {
        // The array's size: its header, then its NAL units one behind the other.
        quint64 size = 3;
        for (quint64 i = 0, count = box.peekUnsigned(2, 1); i < count && size + 2 <= box.left();
             ++i)
            size += 2 + qMin(box.peekUnsigned(2, size), box.left() - size - 2);
        box.beginGroup(array, j, qMin(size, box.left()));
        const QString type = nameOf(HevcNalUnitTypes, box.peekUnsigned(1) & 0x3F);
        PayloadReader::Bits header = box.bits(1);
        header.flag("array_completeness");
        header.field("reserved", 1);
        header.field("nal_unit_type", 6, type);
        const quint16 count = box.u16("num_nalus");
        for (quint32 i = 0; i < count && box.ok() && box.available() >= 2; ++i) {
            box.beginGroup(nalUnit, i, unitSize(box));
            const quint16 length = box.u16("nal_unit_length");
            const quint64 end = box.at() + qMin<quint64>(length, box.left());
            if (leftBefore(box, end) >= 2) {
                const quint64 typeCode = box.peekUnsigned(1) >> 1 & 0x3F;
                const QString unitType = nameOf(HevcNalUnitTypes, typeCode);
                PayloadReader::Bits unitHeader = box.bits(2);
                unitHeader.field("forbidden_zero_bit", 1);
                unitHeader.field("nal_unit_type", 6, unitType);
                unitHeader.field("nuh_layer_id", 6);
                unitHeader.field("nuh_temporal_id_plus1", 3);
                if (typeCode >= 32 && typeCode <= 34)
                    readParameterSet(
                        box, end, ParameterSet(int(ParameterSet::HevcVideo) + int(typeCode - 32)));
            }
            box.data("data", leftBefore(box, end));
            box.endGroup();
        }
        box.endGroup();
    }
    box.rest();
    return ContainerAbstract::ParseOk;
}

// av1C: the AV1 codec configuration record, then the configuration OBUs.
int parseAv1Configuration(PayloadReader &box)
{
    noteConfiguration(box);
    PayloadReader::Bits marker = box.bits(1);
    marker.field("marker", 1);
    marker.field("version", 7);
    const quint64 profile = box.peekUnsigned(1);
    const quint64 level = profile & 0x1F;
    PayloadReader::Bits sequence = box.bits(1);
    sequence.field("seq_profile", 3, nameOf(Av1Profiles, profile >> 5));
    sequence.field("seq_level_idx_0", 5,
                   level == 31 ? QStringLiteral("maximum parameters")
                               : levelText(2 + level / 4, level % 4));
    const quint64 format = box.peekUnsigned(1);
    // Profile, level with the tier, and bit depth.
    if (box.available() >= 1) {
        const int depth = !(format & 0x40) ? 8 : (format & 0x20) ? 12 : 10;
        box.setCodecs(QString::asprintf(".%llu.%02llu%c.%02d", profile >> 5, level,
                                        (format & 0x80) ? 'H' : 'M', depth));
    }
    PayloadReader::Bits color = box.bits(1);
    color.field("seq_tier_0", 1, nameOf(Tiers, format >> 7));
    color.flag("high_bitdepth");
    color.flag("twelve_bit");
    color.flag("monochrome");
    color.field("chroma_subsampling_x", 1);
    color.field("chroma_subsampling_y", 1);
    color.field("chroma_sample_position", 2, nameOf(Av1ChromaSamplePositions, format & 3));
    PayloadReader::Bits delay = box.bits(1);
    delay.field("reserved", 3);
    const bool present = delay.flag("initial_presentation_delay_present");
    delay.field(present ? "initial_presentation_delay_minus_one" : "reserved", 4);
    readConfigurationObus(box);
    return ContainerAbstract::ParseOk;
}

// vpcC: the VP codec configuration record. Version 0, of an earlier draft some writers
// still use, codes the colours in fields of its own.
int parseVpConfiguration(PayloadReader &box)
{
    noteConfiguration(box);
    if (box.version() > 1) {
        box.rest();
        return ContainerAbstract::ParseOk;
    }
    // Profile, level and bit depth.
    if (box.available() >= 3)
        box.setCodecs(QString::asprintf(".%02llu.%02llu.%02llu", box.peekUnsigned(1),
                                        box.peekUnsigned(1, 1), box.peekUnsigned(1, 2) >> 4));
    box.u8("profile", nameOf(VpProfiles, box.peekUnsigned(1)));
    const quint64 level = box.peekUnsigned(1);
    box.u8("level", level == 0 ? QStringLiteral("not given") : levelText(level / 10, level % 10));
    const quint64 depth = box.peekUnsigned(1);
    PayloadReader::Bits first = box.bits(1);
    first.field("bit_depth", 4);
    if (box.version() == 1) {
        first.field("chroma_subsampling", 3, nameOf(VpChromaSubsamplings, depth >> 1 & 7));
        first.flag("video_full_range_flag");
        box.u8("colour_primaries", nameOf(ColourPrimaries, box.peekUnsigned(1)));
        box.u8("transfer_characteristics", nameOf(TransferCharacteristics, box.peekUnsigned(1)));
        box.u8("matrix_coefficients", nameOf(MatrixCoefficients, box.peekUnsigned(1)));
    } else {
        first.field("color_space", 4, nameOf(VpColorSpaces, depth & 0xF));
        const quint64 second = box.peekUnsigned(1);
        PayloadReader::Bits chroma = box.bits(1);
        chroma.field("chroma_subsampling", 4, nameOf(VpChromaSubsamplings, second >> 4));
        chroma.field("transfer_function", 3, nameOf(VpTransferFunctions, second >> 1 & 7));
        chroma.flag("video_full_range_flag");
    }
    const quint16 size = box.u16("codec_initialization_data_size");
    box.data("codec_initialization_data", size);
    box.rest();
    return ContainerAbstract::ParseOk;
}

// esds: the ES_Descriptor of an MPEG-4 stream, with its decoder configuration.
int parseEsDescriptorBox(PayloadReader &box)
{
    noteConfiguration(box);
    readDescriptors(box, box.end());
    box.rest();
    return ContainerAbstract::ParseOk;
}

// iods: the initial object descriptor of the movie. It configures no one stream.
int parseObjectDescriptorBox(PayloadReader &box)
{
    readDescriptors(box, box.end());
    box.rest();
    return ContainerAbstract::ParseOk;
}

// dOps: the Opus header in its ISO form, with the channel mapping table of the mapping
// families other than 0.
int parseOpusConfiguration(PayloadReader &box)
{
    noteConfiguration(box);
    box.u8("version");
    const quint8 channels = box.u8("output_channel_count");
    box.u16("pre_skip", QStringLiteral("samples at 48 kHz"));
    box.u32("input_sample_rate", QStringLiteral("Hz"));
    box.fixed8("output_gain", true, QStringLiteral("dB"));
    const quint8 family =
        box.u8("channel_mapping_family", nameOf(OpusMappingFamilies, box.peekUnsigned(1)));
    if (family != 0) {
        box.u8("stream_count");
        box.u8("coupled_count");
        const QString mapping = QStringLiteral("channel_mapping");
        for (quint32 i = 0; i < channels && box.available() >= 1; ++i)
            box.listField(mapping, 1, i);
    }
    box.rest();
    return ContainerAbstract::ParseOk;
}

// dac3: the AC-3 stream's parameters, in 3 bytes of bit fields.
int parseAc3Configuration(PayloadReader &box)
{
    noteConfiguration(box);
    const quint64 word = box.peekUnsigned(3);
    PayloadReader::Bits fields = box.bits(3);
    fields.field("fscod", 2, nameOf(Ac3SampleRates, word >> 22));
    fields.field("bsid", 5);
    fields.field("bsmod", 3, nameOf(Ac3ServiceModes, word >> 14 & 7));
    fields.field("acmod", 3, nameOf(Ac3ChannelModes, word >> 11 & 7));
    fields.flag("lfeon");
    fields.field("bit_rate_code", 5, nameOf(Ac3BitRates, word >> 5 & 0x1F));
    fields.field("reserved", 5);
    box.rest();
    return ContainerAbstract::ParseOk;
}

// dec3: the E-AC-3 stream's data rate and its independent substreams, each 3 bytes, or 4
// where it has dependent substreams and their channel locations.
int parseEac3Configuration(PayloadReader &box)
{
    noteConfiguration(box);
    PayloadReader::Bits header = box.bits(2);
    header.field("data_rate", 13, QStringLiteral("kbit/s"));
    const quint64 count = header.field("num_ind_sub", 3) + 1;
    const QString substream = QStringLiteral("independent_substream");
    for (quint32 i = 0; i < count && box.ok() && box.available() >= 3; ++i) {
        const quint64 word = box.peekUnsigned(3);
        const bool dependents = (word >> 1 & 0xF) != 0;
        box.beginGroup(substream, i, dependents ? 4 : 3);
        PayloadReader::Bits fields = box.bits(dependents ? 4 : 3);
        fields.field("fscod", 2, nameOf(Ac3SampleRates, word >> 22));
        fields.field("bsid", 5);
        fields.field("reserved", 1);
        fields.flag("asvc");
        fields.field("bsmod", 3, nameOf(Ac3ServiceModes, word >> 12 & 7));
        fields.field("acmod", 3, nameOf(Ac3ChannelModes, word >> 9 & 7));
        fields.flag("lfeon");
        fields.field("reserved", 3);
        fields.field("num_dep_sub", 4);
        if (dependents)
            fields.field("chan_loc", 9);
        else
            fields.field("reserved", 1);
        box.endGroup();
    }
    box.rest();
    return ContainerAbstract::ParseOk;
}

// dfLa: the FLAC metadata blocks up to the last one, STREAMINFO decoded.
int parseFlacConfiguration(PayloadReader &box)
{
    noteConfiguration(box);
    const QString block = QStringLiteral("metadata_block");
    bool last = false;
    for (quint32 i = 0; !last && box.ok() && box.available() >= 4; ++i) {
        box.beginGroup(block, i, 4 + qMin(box.peekUnsigned(3, 1), box.left() - 4));
        const quint64 type = box.peekUnsigned(1) & 0x7F;
        PayloadReader::Bits header = box.bits(1);
        last = header.flag("last_metadata_block_flag");
        header.field("block_type", 7, nameOf(FlacBlockTypes, type));
        const quint32 length = box.u24("length");
        const quint64 end = box.at() + qMin<quint64>(length, box.left());
        if (type == 0 && length >= 34) {
            box.u16("min_block_size", QStringLiteral("samples"));
            box.u16("max_block_size", QStringLiteral("samples"));
            box.u24("min_frame_size", QStringLiteral("bytes"));
            box.u24("max_frame_size", QStringLiteral("bytes"));
            PayloadReader::Bits format = box.bits(8);
            format.field("sample_rate", 20, QStringLiteral("Hz"));
            format.field("channels_minus_one", 3);
            format.field("bits_per_sample_minus_one", 5);
            format.field("total_samples", 36);
            box.raw("md5_signature", 16);
        }
        box.data("data", leftBefore(box, end));
        box.endGroup();
    }
    box.rest();
    return ContainerAbstract::ParseOk;
}

// alac: the ALAC decoder's magic cookie, inside the sample entry of the same type.
int parseAlacConfiguration(PayloadReader &box)
{
    noteConfiguration(box);
    box.u32("frame_length", QStringLiteral("samples per frame"));
    box.u8("compatible_version");
    box.u8("bit_depth");
    box.u8("pb", QStringLiteral("Rice history multiplier"));
    box.u8("mb", QStringLiteral("Rice initial history"));
    box.u8("kb", QStringLiteral("Rice parameter limit"));
    box.u8("num_channels");
    box.u16("max_run");
    box.u32("max_frame_bytes", QStringLiteral("0: not known"));
    box.u32("avg_bit_rate", QStringLiteral("bit/s"));
    box.u32("sample_rate", QStringLiteral("Hz"));
    box.rest();
    return ContainerAbstract::ParseOk;
}

// d263: the H.263 decoder of 3GPP files: who wrote the stream, its level and profile, then
// child boxes such as bitr.
int parseH263Configuration(PayloadReader &box)
{
    box.fourcc("vendor");
    box.u8("decoder_version");
    box.u8("h263_level");
    box.u8("h263_profile");
    return box.walkChildren();
}

// bitr of an H.263 entry: its average and highest bit rate.
int parseH263BitRate(PayloadReader &box)
{
    box.u32("avg_bitrate", QStringLiteral("bits per second"));
    box.u32("max_bitrate", QStringLiteral("bits per second"));
    box.rest();
    return ContainerAbstract::ParseOk;
}

// damr: the AMR decoder: the modes the stream may use, one bit each, and the frames in each
// sample.
int parseAmrConfiguration(PayloadReader &box)
{
    box.fourcc("vendor");
    box.u8("decoder_version");
    box.u16("mode_set", QStringLiteral("bit n: mode n used"));
    box.u8("mode_change_period", QStringLiteral("in frames; 0: not restricted"));
    box.u8("frames_per_sample");
    box.rest();
    return ContainerAbstract::ParseOk;
}

} // namespace

DeepRows codecConfigurationRows()
{
    return {
        {"avcC", DeepPlain, 0, parseAvcConfiguration},
        {"hvcC", DeepPlain, 0, parseHevcConfiguration},
        {"av1C", DeepPlain, 0, parseAv1Configuration},
        {"vpcC", DeepPlain, 1, parseVpConfiguration},
        {"esds", DeepPlain, 1, parseEsDescriptorBox},
        {"iods", DeepPlain, 1, parseObjectDescriptorBox},
        {"dOps", DeepPlain, 0, parseOpusConfiguration},
        {"dac3", DeepPlain, 0, parseAc3Configuration},
        {"dec3", DeepPlain, 0, parseEac3Configuration},
        {"dfLa", DeepPlain, 1, parseFlacConfiguration},
        {"alac", DeepPlain, 1, parseAlacConfiguration},
        {"d263", DeepPlain, 0, parseH263Configuration},
        {"bitr", DeepPlain, 0, parseH263BitRate},
        {"damr", DeepPlain, 0, parseAmrConfiguration},
    };
}

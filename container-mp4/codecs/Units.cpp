#include "Units.h"

#include "BitReader.h"

#include <QUuid>

namespace Units {

namespace {

const char *h264TypeName(int type)
{
    switch (type) {
    case 1:
        return "non-IDR slice";
    case 2:
        return "slice data partition A";
    case 3:
        return "slice data partition B";
    case 4:
        return "slice data partition C";
    case 5:
        return "IDR slice";
    case 6:
        return "SEI";
    case 7:
        return "SPS";
    case 8:
        return "PPS";
    case 9:
        return "access unit delimiter";
    case 10:
        return "end of sequence";
    case 11:
        return "end of stream";
    case 12:
        return "filler data";
    case 13:
        return "SPS extension";
    case 14:
        return "prefix NAL unit";
    case 15:
        return "subset SPS";
    case 19:
        return "auxiliary slice";
    case 20:
        return "slice extension";
    default:
        return "";
    }
}

const char *hevcTypeName(int type)
{
    static const char *const names[] = {"TRAIL_N",
                                        "TRAIL_R",
                                        "TSA_N",
                                        "TSA_R",
                                        "STSA_N",
                                        "STSA_R",
                                        "RADL_N",
                                        "RADL_R",
                                        "RASL_N",
                                        "RASL_R",
                                        "",
                                        "",
                                        "",
                                        "",
                                        "",
                                        "",
                                        "BLA_W_LP",
                                        "BLA_W_RADL",
                                        "BLA_N_LP",
                                        "IDR_W_RADL",
                                        "IDR_N_LP",
                                        "CRA_NUT",
                                        "",
                                        "",
                                        "",
                                        "",
                                        "",
                                        "",
                                        "",
                                        "",
                                        "",
                                        "",
                                        "VPS",
                                        "SPS",
                                        "PPS",
                                        "access unit delimiter",
                                        "end of sequence",
                                        "end of bitstream",
                                        "filler data",
                                        "prefix SEI",
                                        "suffix SEI"};
    return type >= 0 && type < int(std::size(names)) ? names[type] : "";
}

const char *obuTypeName(int type)
{
    switch (type) {
    case 1:
        return "sequence header";
    case 2:
        return "temporal delimiter";
    case 3:
        return "frame header";
    case 4:
        return "tile group";
    case 5:
        return "metadata";
    case 6:
        return "frame";
    case 7:
        return "redundant frame header";
    case 8:
        return "tile list";
    case 15:
        return "padding";
    default:
        return "";
    }
}

const char *seiName(quint32 type)
{
    switch (type) {
    case 0:
        return "buffering period";
    case 1:
        return "picture timing";
    case 4:
        return "user data registered ITU-T T.35";
    case 5:
        return "user data unregistered";
    case 6:
        return "recovery point";
    case 129:
        return "active parameter sets";
    case 137:
        return "mastering display colour volume";
    case 144:
        return "content light level information";
    case 147:
        return "alternative transfer characteristics";
    default:
        return "";
    }
}

void skip(BitReader &bits, int count)
{
    for (; count > 0; count -= 32)
        bits.u(qMin(count, 32));
}

// A number of a SEI message's header: bytes of 0xFF each adding 255, then the last.
quint64 seiNumber(BitReader &bits)
{
    quint64 value = 0;
    quint64 byte = 0;
    while (bits.ok() && (byte = bits.u(8)) == 0xFF)
        value += 255;
    return value + byte;
}

// The messages of a SEI unit's payload.
void seiMessages(BitReader &bits, SampleUnit &unit, UnitFacts &facts)
{
    while (bits.ok() && bits.moreData()) {
        SeiPayload payload;
        payload.type = quint32(qMin<quint64>(seiNumber(bits), 0xFFFFFFFF));
        payload.size = seiNumber(bits);
        if (!bits.ok())
            break;
        payload.name = seiName(payload.type);
        const quint64 start = bits.position();
        const quint64 size = qMin(payload.size, bits.left() / 8);
        if (payload.type == 6) {
            facts.recoveryPoint = true;
        } else if (payload.type == 4 && size >= 10) {
            // ATSC A/53 captions: country, provider, "GA94", type 3, then the count.
            const quint64 country = bits.u(8);
            const quint64 provider = bits.u(16);
            const quint64 user = bits.u(32);
            const quint64 dataType = bits.u(8);
            const quint64 flags = bits.u(8);
            if (country == 0xB5 && provider == 0x31 && user == 0x47413934 && dataType == 3)
                payload.captions = int(flags & 0x1F);
        } else if (payload.type == 5 && size >= 16) {
            QByteArray uuid(16, '\0');
            for (int i = 0; i < 16; ++i)
                uuid[i] = char(bits.u(8));
            payload.uuid = QUuid::fromRfc4122(uuid).toString(QUuid::WithoutBraces);
        }
        unit.sei.push_back(payload);
        if (payload.size > (bits.left() + (bits.position() - start)) / 8)
            break; // cut short: the SEI holds no more
        bits.seek(start + 8 * payload.size, true);
        // A unit can hold no more messages than bytes.
        if (unit.sei.size() >= 4096)
            break;
    }
}

void h264(BitReader &bits, const uchar *bytes, StreamState &state, SampleUnit &unit,
          UnitFacts &facts)
{
    unit.nalRefIdc = bytes[0] >> 5 & 3;
    unit.type = bytes[0] & 0x1F;
    unit.typeName = h264TypeName(unit.type);
    bits.u(8);
    if (unit.type == 1 || unit.type == 5) {
        unit.firstMbInSlice = qint64(bits.ue());
        unit.sliceType = int(qMin<quint64>(bits.ue(), 0xFFFF));
        facts.pictureParameterSet = int(qMin<quint64>(bits.ue(), 0xFFFF));
        if (!bits.ok()) {
            unit.firstMbInSlice = -1;
            unit.sliceType = -1;
            facts.pictureParameterSet = -1;
        }
        facts.picture = true;
        facts.randomAccess = unit.type == 5;
        facts.intra = unit.sliceType % 5 == 2 || unit.sliceType % 5 == 4;
    } else if (unit.type == 6) {
        seiMessages(bits, unit, facts);
    } else if (unit.type == 7) {
        bits.u(24);
        const quint64 id = bits.ue();
        if (bits.ok())
            set(state.sequenceSets, id);
    } else if (unit.type == 8) {
        const quint64 id = bits.ue();
        bits.ue();
        if (bits.ok())
            set(state.pictureSets, id);
    }
}

void hevc(BitReader &bits, const uchar *bytes, StreamState &state, SampleUnit &unit,
          UnitFacts &facts)
{
    unit.type = bytes[0] >> 1 & 0x3F;
    unit.typeName = hevcTypeName(unit.type);
    unit.layerId = (bytes[0] & 1) << 5 | bytes[1] >> 3;
    unit.temporalId = bytes[1] & 7;
    bits.u(16);
    if (unit.type <= 21 && (unit.type <= 9 || unit.type >= 16)) {
        facts.picture = true;
        facts.randomAccess = unit.type >= 16;
        const bool first = bits.u(1) != 0;
        if (unit.type >= 16)
            bits.u(1); // no_output_of_prior_pics_flag
        const quint64 pps = bits.ue();
        if (!bits.ok())
            return;
        unit.firstSliceSegmentInPicFlag = first;
        facts.pictureParameterSet = int(qMin<quint64>(pps, 0xFFFF));
        if (first && pps < 64) {
            bits.u(state.extraSliceHeaderBits[pps]);
            const quint64 type = bits.ue();
            if (bits.ok()) {
                unit.sliceType = int(qMin<quint64>(type, 0xFFFF));
                facts.intra = type == 2;
            }
        }
    } else if (unit.type == 39 || unit.type == 40) {
        seiMessages(bits, unit, facts);
    } else if (unit.type == 33) {
        // The sequence parameter set's ID stands behind profile_tier_level.
        bits.u(4);
        const int subLayers = int(bits.u(3));
        bits.u(1);
        skip(bits, 88 + 8);
        bool profiles[8] = {};
        bool levels[8] = {};
        for (int i = 0; i < subLayers; ++i) {
            profiles[i] = bits.u(1);
            levels[i] = bits.u(1);
        }
        if (subLayers > 0)
            bits.u(2 * (8 - subLayers));
        for (int i = 0; i < subLayers; ++i)
            skip(bits, (profiles[i] ? 88 : 0) + (levels[i] ? 8 : 0));
        const quint64 id = bits.ue();
        if (bits.ok())
            set(state.sequenceSets, id);
    } else if (unit.type == 34) {
        const quint64 id = bits.ue();
        bits.ue();
        bits.u(2);
        const quint64 extra = bits.u(3);
        if (bits.ok()) {
            set(state.pictureSets, id);
            if (id < 64)
                state.extraSliceHeaderBits[id] = quint8(extra);
        }
    }
}

void av1(BitReader &bits, StreamState &state, SampleUnit &unit, UnitFacts &facts)
{
    bits.u(1);
    unit.type = int(bits.u(4));
    unit.typeName = obuTypeName(unit.type);
    const bool extension = bits.u(1);
    const bool hasSize = bits.u(1);
    bits.u(1);
    if (extension) {
        unit.temporalId = int(bits.u(3));
        unit.layerId = int(bits.u(2));
        bits.u(3);
    }
    if (hasSize) {
        for (int i = 0; i < 8 && bits.ok() && (bits.u(8) & 0x80); ++i) {
        }
    }
    if (unit.type == 1) {
        bits.u(4);
        state.reducedStillPicture = bits.u(1);
    } else if (unit.type == 3 || unit.type == 6) {
        facts.picture = true;
        if (state.reducedStillPicture) {
            facts.randomAccess = true;
            unit.sliceType = 0;
        } else if (bits.u(1) == 0) { // show_existing_frame
            unit.sliceType = int(bits.u(2));
            facts.randomAccess = bits.ok() && unit.sliceType == 0;
        }
        facts.intra = unit.sliceType == 0 || unit.sliceType == 2;
    }
}

} // namespace

quint64 wanted(Codec codec, const uchar *bytes, quint64 available)
{
    if (available == 0)
        return 0;
    const int type = codec == Codec::H264 ? bytes[0] & 0x1F : bytes[0] >> 1 & 0x3F;
    const bool sei =
        codec == Codec::H264 ? type == 6 : codec == Codec::Hevc && type >= 39 && type <= 40;
    return sei ? 4096 : 256;
}

void read(Codec codec, const uchar *bytes, quint64 available, StreamState &state, SampleUnit &unit,
          UnitFacts &facts)
{
    const quint64 header = codec == Codec::Hevc ? 2 : 1;
    if (available < header)
        return;
    BitReader bits(bytes, available, 0, codec != Codec::Av1);
    switch (codec) {
    case Codec::H264:
        h264(bits, bytes, state, unit, facts);
        break;
    case Codec::Hevc:
        hevc(bits, bytes, state, unit, facts);
        break;
    case Codec::Av1:
        av1(bits, state, unit, facts);
        break;
    }
}

} // namespace Units

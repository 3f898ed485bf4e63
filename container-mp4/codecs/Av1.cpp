#include "Av1.h"

namespace Av1 {

namespace {

void colorConfig(SyntaxReader &r, int profile, VideoFacts &facts)
{
    r.group("color_config", -1, [&] {
        const bool high = r.flag("high_bitdepth");
        int depth = high ? 10 : 8;
        if (profile == 2 && high)
            depth = r.flag("twelve_bit") ? 12 : 10;
        const bool mono = profile != 1 && r.flag("mono_chrome");
        quint64 primaries = 2;
        quint64 transfer = 2;
        quint64 matrix = 2;
        if (r.flag("color_description_present_flag")) {
            primaries = r.u("color_primaries", 8);
            transfer = r.u("transfer_characteristics", 8);
            matrix = r.u("matrix_coefficients", 8);
            facts.colourPrimaries = int(primaries);
            facts.transferCharacteristics = int(transfer);
            facts.matrixCoefficients = int(matrix);
        }
        facts.bitDepthLuma = depth;
        facts.bitDepthChroma = depth;
        if (mono) {
            r.flag("color_range");
            facts.chromaFormat = 0;
            return;
        }
        bool x = true;
        bool y = true;
        // sRGB: 4:4:4 at full range, nothing more coded.
        if (primaries == 1 && transfer == 13 && matrix == 0) {
            x = y = false;
        } else {
            r.flag("color_range");
            if (profile == 1) {
                x = y = false;
            } else if (profile == 2) {
                if (depth == 12) {
                    x = r.flag("subsampling_x");
                    y = x && r.flag("subsampling_y");
                } else {
                    y = false;
                }
            }
            if (x && y)
                r.u("chroma_sample_position", 2);
        }
        facts.chromaFormat = x && y ? 1 : (x ? 2 : 3);
        r.flag("separate_uv_delta_q");
    });
}

} // namespace

quint64 leb128(SyntaxReader &r, const char *name)
{
    BitReader &bits = r.bits;
    const quint64 from = bits.position();
    quint64 value = 0;
    for (int i = 0; i < 8 && bits.ok(); ++i) {
        const quint64 byte = bits.u(8);
        value |= (byte & 0x7F) << (7 * i);
        if (!(byte & 0x80))
            break;
    }
    r.report(from, name, value);
    return value;
}

ObuHeader obuHeader(SyntaxReader &r)
{
    ObuHeader header;
    r.group("obu_header", -1, [&] {
        r.u("obu_forbidden_bit", 1);
        header.type = int(r.u("obu_type", 4));
        const bool extension = r.flag("obu_extension_flag");
        header.hasSize = r.flag("obu_has_size_field");
        r.u("obu_reserved_1bit", 1);
        if (extension) {
            r.u("temporal_id", 3);
            r.u("spatial_id", 2);
            r.u("extension_header_reserved_3bits", 3);
        }
    });
    if (header.hasSize)
        header.payloadSize = leb128(r, "obu_size");
    return header;
}

void sequenceHeader(SyntaxReader &r, VideoFacts &facts)
{
    const int profile = int(r.u("seq_profile", 3));
    r.flag("still_picture");
    const bool reduced = r.flag("reduced_still_picture_header");
    if (reduced) {
        r.u("seq_level_idx", 5, QString(), 0);
    } else {
        bool decoderModel = false;
        quint64 delayLength = 0;
        if (r.flag("timing_info_present_flag")) {
            r.group("timing_info", -1, [&] {
                const quint64 tick = r.u("num_units_in_display_tick", 32);
                const quint64 scale = r.u("time_scale", 32);
                quint64 ticks = 1;
                if (r.flag("equal_picture_interval"))
                    ticks = r.ue("num_ticks_per_picture_minus_1") + 1;
                if (r.ok() && tick != 0 && tick * ticks <= 0xFFFFFFFF) {
                    facts.timeScale = quint32(scale);
                    facts.frameDuration = quint32(tick * ticks);
                }
            });
            decoderModel = r.flag("decoder_model_info_present_flag");
            if (decoderModel) {
                r.group("decoder_model_info", -1, [&] {
                    delayLength = r.u("buffer_delay_length_minus_1", 5) + 1;
                    r.u("num_units_in_decoding_tick", 32);
                    r.u("buffer_removal_time_length_minus_1", 5);
                    r.u("frame_presentation_time_length_minus_1", 5);
                });
            }
        }
        const bool displayDelay = r.flag("initial_display_delay_present_flag");
        const quint64 points = r.u("operating_points_cnt_minus_1", 5) + 1;
        for (quint64 i = 0; i < points && r.ok(); ++i) {
            const qint64 index = qint64(i);
            r.u("operating_point_idc", 12, QString(), index);
            if (r.u("seq_level_idx", 5, QString(), index) > 7)
                r.u("seq_tier", 1, QString(), index);
            if (decoderModel && r.flag("decoder_model_present_for_this_op", index)) {
                r.u("decoder_buffer_delay", int(delayLength), QString(), index);
                r.u("encoder_buffer_delay", int(delayLength), QString(), index);
                r.flag("low_delay_mode_flag", index);
            }
            if (displayDelay && r.flag("initial_display_delay_present_for_this_op", index))
                r.u("initial_display_delay_minus_1", 4, QString(), index);
        }
    }
    const int widthBits = int(r.u("frame_width_bits_minus_1", 4)) + 1;
    const int heightBits = int(r.u("frame_height_bits_minus_1", 4)) + 1;
    const quint64 width = r.u("max_frame_width_minus_1", widthBits) + 1;
    const quint64 height = r.u("max_frame_height_minus_1", heightBits) + 1;
    if (r.ok()) {
        facts.codedWidth = facts.width = int(width);
        facts.codedHeight = facts.height = int(height);
    }
    if (!reduced && r.flag("frame_id_numbers_present_flag")) {
        r.u("delta_frame_id_length_minus_2", 4);
        r.u("additional_frame_id_length_minus_1", 3);
    }
    r.flag("use_128x128_superblock");
    r.flag("enable_filter_intra");
    r.flag("enable_intra_edge_filter");
    if (!reduced) {
        r.flag("enable_interintra_compound");
        r.flag("enable_masked_compound");
        r.flag("enable_warped_motion");
        r.flag("enable_dual_filter");
        const bool orderHint = r.flag("enable_order_hint");
        if (orderHint) {
            r.flag("enable_jnt_comp");
            r.flag("enable_ref_frame_mvs");
        }
        bool screenContent = true;
        if (!r.flag("seq_choose_screen_content_tools"))
            screenContent = r.flag("seq_force_screen_content_tools");
        if (screenContent && !r.flag("seq_choose_integer_mv"))
            r.flag("seq_force_integer_mv");
        if (orderHint)
            r.u("order_hint_bits_minus_1", 3);
    }
    r.flag("enable_superres");
    r.flag("enable_cdef");
    r.flag("enable_restoration");
    colorConfig(r, profile, facts);
    r.flag("film_grain_params_present");
    r.trailingBits(true);
}

void metadata(SyntaxReader &r)
{
    const quint64 type = leb128(r, "metadata_type");
    if (type == 1) {
        r.u("max_cll", 16);
        r.u("max_fall", 16);
    } else if (type == 2) {
        for (int i = 0; i < 3 && r.ok(); ++i) {
            r.u("primary_chromaticity_x", 16, QString(), i);
            r.u("primary_chromaticity_y", 16, QString(), i);
        }
        r.u("white_point_chromaticity_x", 16);
        r.u("white_point_chromaticity_y", 16);
        r.u("luminance_max", 32);
        r.u("luminance_min", 32);
    }
}

} // namespace Av1

#include "H264.h"

#include "VideoUsability.h"

namespace H264 {

namespace {

// The profiles whose sequence parameter sets carry the chroma format, the bit depths and
// the scaling matrices.
bool highProfile(int profileIdc)
{
    for (int profile : {100, 110, 122, 244, 44, 83, 86, 118, 128, 138, 139, 134, 135})
        if (profileIdc == profile)
            return true;
    return false;
}

// One scaling list of 16 or 64 entries, its deltas up to the first that ends it.
void scalingList(SyntaxReader &r, const char *name, qint64 index, int size)
{
    r.group(name, index, [&] {
        int lastScale = 8;
        int nextScale = 8;
        for (int j = 0; j < size && r.ok(); ++j) {
            if (nextScale != 0) {
                const qint64 delta = r.se("delta_scale", j);
                nextScale = int((lastScale + delta + 256) % 256);
            }
            lastScale = nextScale == 0 ? lastScale : nextScale;
        }
    });
}

void hrdParameters(SyntaxReader &r, const char *name)
{
    r.group(name, -1, [&] {
        const quint64 count = r.ue("cpb_cnt_minus1");
        if (count > 31)
            r.bits.fail(); // more than a decoder may hold
        r.u("bit_rate_scale", 4);
        r.u("cpb_size_scale", 4);
        for (quint64 i = 0; i <= count && r.ok(); ++i) {
            r.ue("bit_rate_value_minus1", QString(), qint64(i));
            r.ue("cpb_size_value_minus1", QString(), qint64(i));
            r.flag("cbr_flag", qint64(i));
        }
        r.u("initial_cpb_removal_delay_length_minus1", 5);
        r.u("cpb_removal_delay_length_minus1", 5);
        r.u("dpb_output_delay_length_minus1", 5);
        r.u("time_offset_length", 5);
    });
}

void vuiParameters(SyntaxReader &r, VideoFacts &facts)
{
    r.group("vui_parameters", -1, [&] {
        videoUsabilityHead(r, facts, "matrix_coefficients");
        if (r.flag("timing_info_present_flag")) {
            const quint64 tick = r.u("num_units_in_tick", 32);
            const quint64 scale = r.u("time_scale", 32);
            r.flag("fixed_frame_rate_flag");
            // A tick is a field: a frame lasts two.
            if (r.ok() && tick != 0 && tick <= 0x7FFFFFFF) {
                facts.timeScale = quint32(scale);
                facts.frameDuration = quint32(2 * tick);
            }
        }
        const bool nal = r.flag("nal_hrd_parameters_present_flag");
        if (nal)
            hrdParameters(r, "nal_hrd_parameters");
        const bool vcl = r.flag("vcl_hrd_parameters_present_flag");
        if (vcl)
            hrdParameters(r, "vcl_hrd_parameters");
        if (nal || vcl)
            r.flag("low_delay_hrd_flag");
        r.flag("pic_struct_present_flag");
        if (r.flag("bitstream_restriction_flag")) {
            r.flag("motion_vectors_over_pic_boundaries_flag");
            r.ue("max_bytes_per_pic_denom");
            r.ue("max_bits_per_mb_denom");
            r.ue("log2_max_mv_length_horizontal");
            r.ue("log2_max_mv_length_vertical");
            r.ue("max_num_reorder_frames");
            r.ue("max_dec_frame_buffering");
        }
    });
}

} // namespace

void sequenceParameterSet(SyntaxReader &r, int profileIdc, VideoFacts &facts)
{
    r.ue("seq_parameter_set_id");
    quint64 chromaFormat = 1;
    bool separatePlanes = false;
    quint64 depthLuma = 0;
    quint64 depthChroma = 0;
    if (highProfile(profileIdc)) {
        chromaFormat = r.ue("chroma_format_idc");
        if (chromaFormat == 3)
            separatePlanes = r.flag("separate_colour_plane_flag");
        depthLuma = r.ue("bit_depth_luma_minus8");
        depthChroma = r.ue("bit_depth_chroma_minus8");
        r.flag("qpprime_y_zero_transform_bypass_flag");
        if (r.flag("seq_scaling_matrix_present_flag")) {
            const int lists = chromaFormat != 3 ? 8 : 12;
            for (int i = 0; i < lists && r.ok(); ++i) {
                if (r.flag("seq_scaling_list_present_flag", i))
                    scalingList(r, i < 6 ? "scaling_list_4x4" : "scaling_list_8x8", i,
                                i < 6 ? 16 : 64);
            }
        }
    }
    r.ue("log2_max_frame_num_minus4");
    const quint64 orderType = r.ue("pic_order_cnt_type");
    if (orderType == 0) {
        r.ue("log2_max_pic_order_cnt_lsb_minus4");
    } else if (orderType == 1) {
        r.flag("delta_pic_order_always_zero_flag");
        r.se("offset_for_non_ref_pic");
        r.se("offset_for_top_to_bottom_field");
        const quint64 cycle = r.ue("num_ref_frames_in_pic_order_cnt_cycle");
        if (cycle > 255)
            r.bits.fail();
        for (quint64 i = 0; i < cycle && r.ok(); ++i)
            r.se("offset_for_ref_frame", qint64(i));
    }
    r.ue("max_num_ref_frames");
    r.flag("gaps_in_frame_num_value_allowed_flag");
    const quint64 widthInMbs = r.ue("pic_width_in_mbs_minus1") + 1;
    const quint64 heightInMapUnits = r.ue("pic_height_in_map_units_minus1") + 1;
    const bool frameMbsOnly = r.flag("frame_mbs_only_flag");
    if (!frameMbsOnly)
        r.flag("mb_adaptive_frame_field_flag");
    r.flag("direct_8x8_inference_flag");
    quint64 crop[4] = {};
    if (r.flag("frame_cropping_flag")) {
        crop[0] = r.ue("frame_crop_left_offset");
        crop[1] = r.ue("frame_crop_right_offset");
        crop[2] = r.ue("frame_crop_top_offset");
        crop[3] = r.ue("frame_crop_bottom_offset");
    }
    if (!r.ok())
        return;
    // Coded sizes above 2^16 macroblocks are no picture any level allows; left unknown.
    if (widthInMbs <= 0xFFFF && heightInMapUnits <= 0xFFFF) {
        const quint64 width = 16 * widthInMbs;
        const quint64 height = 16 * heightInMapUnits * (frameMbsOnly ? 1 : 2);
        const bool planes = chromaFormat == 0 || separatePlanes;
        const quint64 unitX = planes ? 1 : (chromaFormat == 3 ? 1 : 2);
        const quint64 unitY = (planes ? 1 : (chromaFormat == 1 ? 2 : 1)) * (frameMbsOnly ? 1 : 2);
        const quint64 cropX = unitX * (crop[0] + crop[1]);
        const quint64 cropY = unitY * (crop[2] + crop[3]);
        facts.codedWidth = int(width);
        facts.codedHeight = int(height);
        facts.width = cropX < width ? int(width - cropX) : 0;
        facts.height = cropY < height ? int(height - cropY) : 0;
    }
    facts.chromaFormat = chromaFormat <= 3 ? int(chromaFormat) : -1;
    facts.bitDepthLuma = depthLuma <= 6 ? int(depthLuma + 8) : 0;
    facts.bitDepthChroma = depthChroma <= 6 ? int(depthChroma + 8) : 0;
    if (r.flag("vui_parameters_present_flag"))
        vuiParameters(r, facts);
    r.trailingBits();
}

void pictureParameterSet(SyntaxReader &r, int chromaFormatIdc)
{
    r.ue("pic_parameter_set_id");
    r.ue("seq_parameter_set_id");
    r.flag("entropy_coding_mode_flag");
    r.flag("bottom_field_pic_order_in_frame_present_flag");
    const quint64 groups = r.ue("num_slice_groups_minus1");
    if (groups > 7)
        r.bits.fail();
    if (groups > 0) {
        const quint64 mapType = r.ue("slice_group_map_type");
        if (mapType == 0) {
            for (quint64 i = 0; i <= groups && r.ok(); ++i)
                r.ue("run_length_minus1", QString(), qint64(i));
        } else if (mapType == 2) {
            for (quint64 i = 0; i < groups && r.ok(); ++i) {
                r.ue("top_left", QString(), qint64(i));
                r.ue("bottom_right", QString(), qint64(i));
            }
        } else if (mapType >= 3 && mapType <= 5) {
            r.flag("slice_group_change_direction_flag");
            r.ue("slice_group_change_rate_minus1");
        } else if (mapType == 6) {
            const quint64 units = r.ue("pic_size_in_map_units_minus1") + 1;
            int width = 0;
            while ((quint64(1) << width) < groups + 1)
                ++width;
            for (quint64 i = 0; i < units && r.ok(); ++i)
                r.u("slice_group_id", width, QString(), qint64(i));
        }
    }
    r.ue("num_ref_idx_l0_default_active_minus1");
    r.ue("num_ref_idx_l1_default_active_minus1");
    r.flag("weighted_pred_flag");
    r.u("weighted_bipred_idc", 2);
    r.se("pic_init_qp_minus26");
    r.se("pic_init_qs_minus26");
    r.se("chroma_qp_index_offset");
    r.flag("deblocking_filter_control_present_flag");
    r.flag("constrained_intra_pred_flag");
    r.flag("redundant_pic_cnt_present_flag");
    if (!r.bits.moreData()) {
        r.trailingBits();
        return;
    }
    const bool transform8x8 = r.flag("transform_8x8_mode_flag");
    if (r.flag("pic_scaling_matrix_present_flag")) {
        const int lists = 6 + (transform8x8 ? (chromaFormatIdc != 3 ? 2 : 6) : 0);
        for (int i = 0; i < lists && r.ok(); ++i) {
            if (r.flag("pic_scaling_list_present_flag", i))
                scalingList(r, i < 6 ? "scaling_list_4x4" : "scaling_list_8x8", i, i < 6 ? 16 : 64);
        }
    }
    r.se("second_chroma_qp_index_offset");
    r.trailingBits();
}

void sequenceParameterSetExtension(SyntaxReader &r)
{
    r.ue("seq_parameter_set_id");
    if (r.ue("aux_format_idc") != 0) {
        const quint64 depth = r.ue("bit_depth_aux_minus8");
        if (depth > 4)
            r.bits.fail();
        r.flag("alpha_incr_flag");
        r.u("alpha_opaque_value", int(depth) + 9);
        r.u("alpha_transparent_value", int(depth) + 9);
    }
    r.flag("additional_extension_flag");
    r.trailingBits();
}

} // namespace H264

#include "Hevc.h"

#include "VideoUsability.h"

namespace Hevc {

namespace {

// The names of the profile fields of profile_tier_level, once for the general profile and
// once for a sub-layer's.
struct ProfileNames {
    const char *space, *tier, *idc, *compatibility, *progressive, *interlaced, *nonPacked,
        *frameOnly, *max12bit, *max10bit, *max8bit, *max422, *max420, *monochrome, *intra,
        *onePicture, *lowerBitRate, *max14bit, *reserved33, *reserved34, *reserved7, *reserved35,
        *reserved43, *inbld, *reservedBit;
};

constexpr ProfileNames General = {
    "general_profile_space",
    "general_tier_flag",
    "general_profile_idc",
    "general_profile_compatibility_flag",
    "general_progressive_source_flag",
    "general_interlaced_source_flag",
    "general_non_packed_constraint_flag",
    "general_frame_only_constraint_flag",
    "general_max_12bit_constraint_flag",
    "general_max_10bit_constraint_flag",
    "general_max_8bit_constraint_flag",
    "general_max_422chroma_constraint_flag",
    "general_max_420chroma_constraint_flag",
    "general_max_monochrome_constraint_flag",
    "general_intra_constraint_flag",
    "general_one_picture_only_constraint_flag",
    "general_lower_bit_rate_constraint_flag",
    "general_max_14bit_constraint_flag",
    "general_reserved_zero_33bits",
    "general_reserved_zero_34bits",
    "general_reserved_zero_7bits",
    "general_reserved_zero_35bits",
    "general_reserved_zero_43bits",
    "general_inbld_flag",
    "general_reserved_zero_bit",
};

constexpr ProfileNames SubLayer = {
    "sub_layer_profile_space",
    "sub_layer_tier_flag",
    "sub_layer_profile_idc",
    "sub_layer_profile_compatibility_flag",
    "sub_layer_progressive_source_flag",
    "sub_layer_interlaced_source_flag",
    "sub_layer_non_packed_constraint_flag",
    "sub_layer_frame_only_constraint_flag",
    "sub_layer_max_12bit_constraint_flag",
    "sub_layer_max_10bit_constraint_flag",
    "sub_layer_max_8bit_constraint_flag",
    "sub_layer_max_422chroma_constraint_flag",
    "sub_layer_max_420chroma_constraint_flag",
    "sub_layer_max_monochrome_constraint_flag",
    "sub_layer_intra_constraint_flag",
    "sub_layer_one_picture_only_constraint_flag",
    "sub_layer_lower_bit_rate_constraint_flag",
    "sub_layer_max_14bit_constraint_flag",
    "sub_layer_reserved_zero_33bits",
    "sub_layer_reserved_zero_34bits",
    "sub_layer_reserved_zero_7bits",
    "sub_layer_reserved_zero_35bits",
    "sub_layer_reserved_zero_43bits",
    "sub_layer_inbld_flag",
    "sub_layer_reserved_zero_bit",
};

// Whether a profile is the one given or declares compatibility with it.
bool hasProfile(quint64 idc, quint32 compatibility, std::initializer_list<int> profiles)
{
    for (int profile : profiles)
        if (idc == quint64(profile) || (compatibility >> (31 - profile) & 1))
            return true;
    return false;
}

// The profile of the general layer or of a sub-layer: its 88 bits.
void profile(SyntaxReader &r, const ProfileNames &n, qint64 index)
{
    r.u(n.space, 2, QString(), index);
    r.flag(n.tier, index);
    const quint64 idc = r.u(n.idc, 5, QString(), index);
    quint32 compatibility = 0;
    for (int j = 0; j < 32 && r.ok(); ++j)
        compatibility = compatibility << 1 | quint32(r.flag(n.compatibility, j));
    r.flag(n.progressive, index);
    r.flag(n.interlaced, index);
    r.flag(n.nonPacked, index);
    r.flag(n.frameOnly, index);
    if (hasProfile(idc, compatibility, {4, 5, 6, 7, 8, 9, 10, 11})) {
        for (const char *name : {n.max12bit, n.max10bit, n.max8bit, n.max422, n.max420,
                                 n.monochrome, n.intra, n.onePicture, n.lowerBitRate})
            r.flag(name, index);
        if (hasProfile(idc, compatibility, {5, 9, 10, 11})) {
            r.flag(n.max14bit, index);
            r.u(n.reserved33, 33, QString(), index);
        } else {
            r.u(n.reserved34, 34, QString(), index);
        }
    } else if (hasProfile(idc, compatibility, {2})) {
        r.u(n.reserved7, 7, QString(), index);
        r.flag(n.onePicture, index);
        r.u(n.reserved35, 35, QString(), index);
    } else {
        r.u(n.reserved43, 43, QString(), index);
    }
    if (hasProfile(idc, compatibility, {1, 2, 3, 4, 5, 9, 11}))
        r.flag(n.inbld, index);
    else
        r.u(n.reservedBit, 1, QString(), index);
}

void profileTierLevel(SyntaxReader &r, int maxSubLayersMinus1)
{
    r.group("profile_tier_level", -1, [&] {
        profile(r, General, -1);
        r.u("general_level_idc", 8);
        bool profilePresent[8] = {};
        bool levelPresent[8] = {};
        for (int i = 0; i < maxSubLayersMinus1; ++i) {
            profilePresent[i] = r.flag("sub_layer_profile_present_flag", i);
            levelPresent[i] = r.flag("sub_layer_level_present_flag", i);
        }
        if (maxSubLayersMinus1 > 0)
            for (int i = maxSubLayersMinus1; i < 8; ++i)
                r.u("reserved_zero_2bits", 2, QString(), i);
        for (int i = 0; i < maxSubLayersMinus1 && r.ok(); ++i) {
            if (profilePresent[i])
                profile(r, SubLayer, i);
            if (levelPresent[i])
                r.u("sub_layer_level_idc", 8, QString(), i);
        }
    });
}

void subLayerHrdParameters(SyntaxReader &r, const char *name, int subLayer, quint64 cpbCount,
                           bool subPicture)
{
    r.group(name, subLayer, [&] {
        for (quint64 k = 0; k < cpbCount && r.ok(); ++k) {
            r.ue("bit_rate_value_minus1", QString(), qint64(k));
            r.ue("cpb_size_value_minus1", QString(), qint64(k));
            if (subPicture) {
                r.ue("cpb_size_du_value_minus1", QString(), qint64(k));
                r.ue("bit_rate_du_value_minus1", QString(), qint64(k));
            }
            r.flag("cbr_flag", qint64(k));
        }
    });
}

void hrdParameters(SyntaxReader &r, bool common, int maxSubLayersMinus1)
{
    r.group("hrd_parameters", -1, [&] {
        bool nal = false;
        bool vcl = false;
        bool subPicture = false;
        if (common) {
            nal = r.flag("nal_hrd_parameters_present_flag");
            vcl = r.flag("vcl_hrd_parameters_present_flag");
            if (nal || vcl) {
                subPicture = r.flag("sub_pic_hrd_params_present_flag");
                if (subPicture) {
                    r.u("tick_divisor_minus2", 8);
                    r.u("du_cpb_removal_delay_increment_length_minus1", 5);
                    r.flag("sub_pic_cpb_params_in_pic_timing_sei_flag");
                    r.u("dpb_output_delay_du_length_minus1", 5);
                }
                r.u("bit_rate_scale", 4);
                r.u("cpb_size_scale", 4);
                if (subPicture)
                    r.u("cpb_size_du_scale", 4);
                r.u("initial_cpb_removal_delay_length_minus1", 5);
                r.u("au_cpb_removal_delay_length_minus1", 5);
                r.u("dpb_output_delay_length_minus1", 5);
            }
        }
        for (int i = 0; i <= maxSubLayersMinus1 && r.ok(); ++i) {
            bool withinSequence = true;
            if (!r.flag("fixed_pic_rate_general_flag", i))
                withinSequence = r.flag("fixed_pic_rate_within_cvs_flag", i);
            bool lowDelay = false;
            if (withinSequence)
                r.ue("elemental_duration_in_tc_minus1", QString(), i);
            else
                lowDelay = r.flag("low_delay_hrd_flag", i);
            quint64 cpbCount = 1;
            if (!lowDelay)
                cpbCount = r.ue("cpb_cnt_minus1", QString(), i) + 1;
            if (cpbCount > 32)
                r.bits.fail();
            if (nal)
                subLayerHrdParameters(r, "nal_sub_layer_hrd_parameters", i, cpbCount, subPicture);
            if (vcl)
                subLayerHrdParameters(r, "vcl_sub_layer_hrd_parameters", i, cpbCount, subPicture);
        }
    });
}

void scalingListData(SyntaxReader &r)
{
    r.group("scaling_list_data", -1, [&] {
        for (int size = 0; size < 4 && r.ok(); ++size) {
            for (int matrix = 0; matrix < 6 && r.ok(); matrix += size == 3 ? 3 : 1) {
                const qint64 index = 6 * size + matrix;
                if (!r.flag("scaling_list_pred_mode_flag", index)) {
                    r.ue("scaling_list_pred_matrix_id_delta", QString(), index);
                    continue;
                }
                r.group("scaling_list", index, [&] {
                    const int coefficients = size == 0 ? 16 : 64;
                    if (size > 1)
                        r.se("scaling_list_dc_coef_minus8");
                    for (int i = 0; i < coefficients && r.ok(); ++i)
                        r.se("scaling_list_delta_coef", i);
                });
            }
        }
    });
}

// One short-term reference picture set of a sequence parameter set; deltaPocs holds the
// number of pictures of each set before it, and gets this one's.
void shortTermRefPicSet(SyntaxReader &r, int index, int *deltaPocs)
{
    r.group("st_ref_pic_set", index, [&] {
        if (index != 0 && r.flag("inter_ref_pic_set_prediction_flag")) {
            r.u("delta_rps_sign", 1);
            r.ue("abs_delta_rps_minus1");
            const int reference = deltaPocs[index - 1];
            int count = 0;
            for (int j = 0; j <= reference && r.ok(); ++j) {
                bool used = r.flag("used_by_curr_pic_flag", j);
                if (!used)
                    used = r.flag("use_delta_flag", j);
                count += used ? 1 : 0;
            }
            deltaPocs[index] = count;
            return;
        }
        const quint64 negative = r.ue("num_negative_pics");
        const quint64 positive = r.ue("num_positive_pics");
        if (negative > 16 || positive > 16 - negative) {
            r.bits.fail();
            return;
        }
        for (quint64 i = 0; i < negative && r.ok(); ++i) {
            r.ue("delta_poc_s0_minus1", QString(), qint64(i));
            r.flag("used_by_curr_pic_s0_flag", qint64(i));
        }
        for (quint64 i = 0; i < positive && r.ok(); ++i) {
            r.ue("delta_poc_s1_minus1", QString(), qint64(i));
            r.flag("used_by_curr_pic_s1_flag", qint64(i));
        }
        deltaPocs[index] = int(negative + positive);
    });
}

void vuiParameters(SyntaxReader &r, int maxSubLayersMinus1, VideoFacts &facts)
{
    r.group("vui_parameters", -1, [&] {
        videoUsabilityHead(r, facts, "matrix_coeffs");
        r.flag("neutral_chroma_indication_flag");
        r.flag("field_seq_flag");
        r.flag("frame_field_info_present_flag");
        if (r.flag("default_display_window_flag")) {
            r.ue("def_disp_win_left_offset");
            r.ue("def_disp_win_right_offset");
            r.ue("def_disp_win_top_offset");
            r.ue("def_disp_win_bottom_offset");
        }
        if (r.flag("vui_timing_info_present_flag")) {
            const quint64 tick = r.u("vui_num_units_in_tick", 32);
            const quint64 scale = r.u("vui_time_scale", 32);
            if (r.ok() && tick != 0) {
                facts.timeScale = quint32(scale);
                facts.frameDuration = quint32(tick);
            }
            if (r.flag("vui_poc_proportional_to_timing_flag"))
                r.ue("vui_num_ticks_poc_diff_one_minus1");
            if (r.flag("vui_hrd_parameters_present_flag"))
                hrdParameters(r, true, maxSubLayersMinus1);
        }
        if (r.flag("bitstream_restriction_flag")) {
            r.flag("tiles_fixed_structure_flag");
            r.flag("motion_vectors_over_pic_boundaries_flag");
            r.flag("restricted_ref_pic_lists_flag");
            r.ue("min_spatial_segmentation_idc");
            r.ue("max_bytes_per_pic_denom");
            r.ue("max_bits_per_min_cu_denom");
            r.ue("log2_max_mv_length_horizontal");
            r.ue("log2_max_mv_length_vertical");
        }
    });
}

// The sizes of the decoded picture buffer and reordering, for each sub-layer or for the
// highest only.
void subLayerOrdering(SyntaxReader &r, const char *presentName, const char *buffering,
                      const char *reorder, const char *latency, int maxSubLayersMinus1)
{
    const bool each = r.flag(presentName);
    for (int i = each ? 0 : maxSubLayersMinus1; i <= maxSubLayersMinus1 && r.ok(); ++i) {
        r.ue(buffering, QString(), i);
        r.ue(reorder, QString(), i);
        r.ue(latency, QString(), i);
    }
}

// The count of sub-layers less one: 7 is no count a stream may give.
int subLayers(SyntaxReader &r, const char *name)
{
    const int count = int(r.u(name, 3));
    if (count > 6)
        r.bits.fail();
    return count;
}

} // namespace

void videoParameterSet(SyntaxReader &r)
{
    r.u("vps_video_parameter_set_id", 4);
    r.flag("vps_base_layer_internal_flag");
    r.flag("vps_base_layer_available_flag");
    r.u("vps_max_layers_minus1", 6);
    const int maxSubLayers = subLayers(r, "vps_max_sub_layers_minus1");
    r.flag("vps_temporal_id_nesting_flag");
    r.u("vps_reserved_0xffff_16bits", 16);
    profileTierLevel(r, maxSubLayers);
    subLayerOrdering(r, "vps_sub_layer_ordering_info_present_flag",
                     "vps_max_dec_pic_buffering_minus1", "vps_max_num_reorder_pics",
                     "vps_max_latency_increase_plus1", maxSubLayers);
    const quint64 maxLayerId = r.u("vps_max_layer_id", 6);
    const quint64 layerSets = r.ue("vps_num_layer_sets_minus1") + 1;
    if (layerSets > 1024)
        r.bits.fail();
    for (quint64 i = 1; i < layerSets && r.ok(); ++i)
        for (quint64 j = 0; j <= maxLayerId && r.ok(); ++j)
            r.flag("layer_id_included_flag", qint64(i * 64 + j));
    if (r.flag("vps_timing_info_present_flag")) {
        r.u("vps_num_units_in_tick", 32);
        r.u("vps_time_scale", 32);
        if (r.flag("vps_poc_proportional_to_timing_flag"))
            r.ue("vps_num_ticks_poc_diff_one_minus1");
        const quint64 hrdCount = r.ue("vps_num_hrd_parameters");
        if (hrdCount > layerSets)
            r.bits.fail();
        for (quint64 i = 0; i < hrdCount && r.ok(); ++i) {
            r.ue("hrd_layer_set_idx", QString(), qint64(i));
            const bool common = i == 0 || r.flag("cprms_present_flag", qint64(i));
            hrdParameters(r, common, maxSubLayers);
        }
    }
    if (!r.flag("vps_extension_flag"))
        r.trailingBits();
}

void sequenceParameterSet(SyntaxReader &r, VideoFacts &facts)
{
    r.u("sps_video_parameter_set_id", 4);
    const int maxSubLayers = subLayers(r, "sps_max_sub_layers_minus1");
    r.flag("sps_temporal_id_nesting_flag");
    profileTierLevel(r, maxSubLayers);
    r.ue("sps_seq_parameter_set_id");
    const quint64 chromaFormat = r.ue("chroma_format_idc");
    bool separatePlanes = false;
    if (chromaFormat == 3)
        separatePlanes = r.flag("separate_colour_plane_flag");
    const quint64 width = r.ue("pic_width_in_luma_samples");
    const quint64 height = r.ue("pic_height_in_luma_samples");
    quint64 window[4] = {};
    if (r.flag("conformance_window_flag")) {
        window[0] = r.ue("conf_win_left_offset");
        window[1] = r.ue("conf_win_right_offset");
        window[2] = r.ue("conf_win_top_offset");
        window[3] = r.ue("conf_win_bottom_offset");
    }
    const quint64 depthLuma = r.ue("bit_depth_luma_minus8");
    const quint64 depthChroma = r.ue("bit_depth_chroma_minus8");
    if (r.ok() && chromaFormat <= 3) {
        const bool planes = chromaFormat == 0 || separatePlanes;
        const quint64 unitX = planes || chromaFormat == 3 ? 1 : 2;
        const quint64 unitY = planes || chromaFormat != 1 ? 1 : 2;
        const quint64 cropX = unitX * (window[0] + window[1]);
        const quint64 cropY = unitY * (window[2] + window[3]);
        if (width <= 0xFFFFF && height <= 0xFFFFF) {
            facts.codedWidth = int(width);
            facts.codedHeight = int(height);
            facts.width = cropX < width ? int(width - cropX) : 0;
            facts.height = cropY < height ? int(height - cropY) : 0;
        }
        facts.chromaFormat = int(chromaFormat);
        facts.bitDepthLuma = depthLuma <= 8 ? int(depthLuma + 8) : 0;
        facts.bitDepthChroma = depthChroma <= 8 ? int(depthChroma + 8) : 0;
    }
    const quint64 orderBits = r.ue("log2_max_pic_order_cnt_lsb_minus4") + 4;
    if (orderBits > 16)
        r.bits.fail();
    subLayerOrdering(r, "sps_sub_layer_ordering_info_present_flag",
                     "sps_max_dec_pic_buffering_minus1", "sps_max_num_reorder_pics",
                     "sps_max_latency_increase_plus1", maxSubLayers);
    r.ue("log2_min_luma_coding_block_size_minus3");
    r.ue("log2_diff_max_min_luma_coding_block_size");
    r.ue("log2_min_luma_transform_block_size_minus2");
    r.ue("log2_diff_max_min_luma_transform_block_size");
    r.ue("max_transform_hierarchy_depth_inter");
    r.ue("max_transform_hierarchy_depth_intra");
    if (r.flag("scaling_list_enabled_flag")) {
        if (r.flag("sps_scaling_list_data_present_flag"))
            scalingListData(r);
    }
    r.flag("amp_enabled_flag");
    r.flag("sample_adaptive_offset_enabled_flag");
    if (r.flag("pcm_enabled_flag")) {
        r.u("pcm_sample_bit_depth_luma_minus1", 4);
        r.u("pcm_sample_bit_depth_chroma_minus1", 4);
        r.ue("log2_min_pcm_luma_coding_block_size_minus3");
        r.ue("log2_diff_max_min_pcm_luma_coding_block_size");
        r.flag("pcm_loop_filter_disabled_flag");
    }
    const quint64 sets = r.ue("num_short_term_ref_pic_sets");
    if (sets > 64)
        r.bits.fail();
    int deltaPocs[64] = {};
    for (quint64 i = 0; i < sets && r.ok(); ++i)
        shortTermRefPicSet(r, int(i), deltaPocs);
    if (r.flag("long_term_ref_pics_present_flag")) {
        const quint64 count = r.ue("num_long_term_ref_pics_sps");
        if (count > 32)
            r.bits.fail();
        for (quint64 i = 0; i < count && r.ok(); ++i) {
            r.u("lt_ref_pic_poc_lsb_sps", int(orderBits), QString(), qint64(i));
            r.flag("used_by_curr_pic_lt_sps_flag", qint64(i));
        }
    }
    r.flag("sps_temporal_mvp_enabled_flag");
    r.flag("strong_intra_smoothing_enabled_flag");
    if (r.flag("vui_parameters_present_flag"))
        vuiParameters(r, maxSubLayers, facts);
    bool range = false;
    bool others = false;
    if (r.flag("sps_extension_present_flag")) {
        range = r.flag("sps_range_extension_flag");
        others = r.flag("sps_multilayer_extension_flag");
        others = r.flag("sps_3d_extension_flag") || others;
        others = r.flag("sps_scc_extension_flag") || others;
        others = r.u("sps_extension_4bits", 4) != 0 || others;
    }
    if (range) {
        r.group("sps_range_extension", -1, [&] {
            for (const char *name :
                 {"transform_skip_rotation_enabled_flag", "transform_skip_context_enabled_flag",
                  "implicit_rdpcm_enabled_flag", "explicit_rdpcm_enabled_flag",
                  "extended_precision_processing_flag", "intra_smoothing_disabled_flag",
                  "high_precision_offsets_enabled_flag", "persistent_rice_adaptation_enabled_flag",
                  "cabac_bypass_alignment_enabled_flag"})
                r.flag(name);
        });
    }
    // The other extensions are not read: the rest of the unit is left as data.
    if (!others)
        r.trailingBits();
}

void pictureParameterSet(SyntaxReader &r)
{
    r.ue("pps_pic_parameter_set_id");
    r.ue("pps_seq_parameter_set_id");
    r.flag("dependent_slice_segments_enabled_flag");
    r.flag("output_flag_present_flag");
    r.u("num_extra_slice_header_bits", 3);
    r.flag("sign_data_hiding_enabled_flag");
    r.flag("cabac_init_present_flag");
    r.ue("num_ref_idx_l0_default_active_minus1");
    r.ue("num_ref_idx_l1_default_active_minus1");
    r.se("init_qp_minus26");
    r.flag("constrained_intra_pred_flag");
    const bool transformSkip = r.flag("transform_skip_enabled_flag");
    if (r.flag("cu_qp_delta_enabled_flag"))
        r.ue("diff_cu_qp_delta_depth");
    r.se("pps_cb_qp_offset");
    r.se("pps_cr_qp_offset");
    r.flag("pps_slice_chroma_qp_offsets_present_flag");
    r.flag("weighted_pred_flag");
    r.flag("weighted_bipred_flag");
    r.flag("transquant_bypass_enabled_flag");
    const bool tiles = r.flag("tiles_enabled_flag");
    r.flag("entropy_coding_sync_enabled_flag");
    if (tiles) {
        const quint64 columns = r.ue("num_tile_columns_minus1");
        const quint64 rows = r.ue("num_tile_rows_minus1");
        if (columns > 1024 || rows > 1024)
            r.bits.fail();
        if (!r.flag("uniform_spacing_flag")) {
            for (quint64 i = 0; i < columns && r.ok(); ++i)
                r.ue("column_width_minus1", QString(), qint64(i));
            for (quint64 i = 0; i < rows && r.ok(); ++i)
                r.ue("row_height_minus1", QString(), qint64(i));
        }
        r.flag("loop_filter_across_tiles_enabled_flag");
    }
    r.flag("pps_loop_filter_across_slices_enabled_flag");
    if (r.flag("deblocking_filter_control_present_flag")) {
        r.flag("deblocking_filter_override_enabled_flag");
        if (!r.flag("pps_deblocking_filter_disabled_flag")) {
            r.se("pps_beta_offset_div2");
            r.se("pps_tc_offset_div2");
        }
    }
    if (r.flag("pps_scaling_list_data_present_flag"))
        scalingListData(r);
    r.flag("lists_modification_present_flag");
    r.ue("log2_parallel_merge_level_minus2");
    r.flag("slice_segment_header_extension_present_flag");
    bool range = false;
    bool others = false;
    if (r.flag("pps_extension_present_flag")) {
        range = r.flag("pps_range_extension_flag");
        others = r.flag("pps_multilayer_extension_flag");
        others = r.flag("pps_3d_extension_flag") || others;
        others = r.flag("pps_scc_extension_flag") || others;
        others = r.u("pps_extension_4bits", 4) != 0 || others;
    }
    if (range) {
        r.group("pps_range_extension", -1, [&] {
            if (transformSkip)
                r.ue("log2_max_transform_skip_block_size_minus2");
            r.flag("cross_component_prediction_enabled_flag");
            if (r.flag("chroma_qp_offset_list_enabled_flag")) {
                r.ue("diff_cu_chroma_qp_offset_depth");
                const quint64 length = r.ue("chroma_qp_offset_list_len_minus1") + 1;
                if (length > 6)
                    r.bits.fail();
                for (quint64 i = 0; i < length && r.ok(); ++i) {
                    r.se("cb_qp_offset_list", qint64(i));
                    r.se("cr_qp_offset_list", qint64(i));
                }
            }
            r.ue("log2_sao_offset_scale_luma");
            r.ue("log2_sao_offset_scale_chroma");
        });
    }
    if (!others)
        r.trailingBits();
}

} // namespace Hevc

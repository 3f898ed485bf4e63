#include "VideoUsability.h"

void videoUsabilityHead(SyntaxReader &r, VideoFacts &facts, const char *matrixName)
{
    // Extended_SAR: the ratio follows as two numbers.
    constexpr quint64 ExtendedSar = 255;
    if (r.flag("aspect_ratio_info_present_flag")) {
        if (r.u("aspect_ratio_idc", 8) == ExtendedSar) {
            r.u("sar_width", 16);
            r.u("sar_height", 16);
        }
    }
    if (r.flag("overscan_info_present_flag"))
        r.flag("overscan_appropriate_flag");
    if (r.flag("video_signal_type_present_flag")) {
        r.u("video_format", 3);
        r.flag("video_full_range_flag");
        if (r.flag("colour_description_present_flag")) {
            facts.colourPrimaries = int(r.u("colour_primaries", 8));
            facts.transferCharacteristics = int(r.u("transfer_characteristics", 8));
            facts.matrixCoefficients = int(r.u(matrixName, 8));
        }
    }
    if (r.flag("chroma_loc_info_present_flag")) {
        r.ue("chroma_sample_loc_type_top_field");
        r.ue("chroma_sample_loc_type_bottom_field");
    }
}

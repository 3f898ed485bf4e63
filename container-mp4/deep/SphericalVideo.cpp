#include "DeepRows.h"
#include "PayloadReader.h"

// The boxes of 360-degree media in sample entries: the sound field of ambisonic audio (SA3D),
// the frame layout of stereoscopic video (st3d) and the projection of spherical video (sv3d).

namespace {

QString stereoModeName(quint64 mode)
{
    switch (mode) {
    case 0:
        return QStringLiteral("monoscopic");
    case 1:
        return QStringLiteral("top-bottom");
    case 2:
        return QStringLiteral("left-right");
    case 3:
        return QStringLiteral("stereo-custom");
    case 4:
        return QStringLiteral("right-left");
    default:
        return QString();
    }
}

// SA3D: the order and the channel layout of ambisonic sound, and which channel of the
// track carries each ambisonic component.
int parseSpatialAudio(PayloadReader &box)
{
    box.u8("version");
    box.u8("ambisonic_type", box.peekUnsigned(1) == 0 ? QStringLiteral("periphonic") : QString());
    box.u32("ambisonic_order");
    box.u8("ambisonic_channel_ordering",
           box.peekUnsigned(1) == 0 ? QStringLiteral("ACN") : QString());
    box.u8("ambisonic_normalization",
           box.peekUnsigned(1) == 0 ? QStringLiteral("SN3D") : QString());
    const quint32 count = box.u32("num_channels");
    const QString name = QStringLiteral("channel_map");
    for (quint32 i = 0; i < count && box.available() >= 4; ++i)
        box.listField(name, 4, i);
    box.rest();
    return ContainerAbstract::ParseOk;
}

int parseStereoscopic(PayloadReader &box)
{
    box.u8("stereo_mode", stereoModeName(box.peekUnsigned(1)));
    box.rest();
    return ContainerAbstract::ParseOk;
}

int parseSphericalHeader(PayloadReader &box)
{
    box.nullTerminated("metadata_source");
    box.rest();
    return ContainerAbstract::ParseOk;
}

// prhd: the pose of the sphere, in degrees of 16.16 fixed point.
int parseProjectionHeader(PayloadReader &box)
{
    box.fixed16("pose_yaw_degrees", true);
    box.fixed16("pose_pitch_degrees", true);
    box.fixed16("pose_roll_degrees", true);
    box.rest();
    return ContainerAbstract::ParseOk;
}

int parseCubemapProjection(PayloadReader &box)
{
    box.u32("layout", box.peekUnsigned(4) == 0 ? QStringLiteral("3 by 2 faces") : QString());
    box.u32("padding", QStringLiteral("pixels"));
    box.rest();
    return ContainerAbstract::ParseOk;
}

// equi: how much of the sphere the frame leaves out at each edge, in 0.32 fixed point.
int parseEquirectangularProjection(PayloadReader &box)
{
    const QString unit = QStringLiteral("in 1/2^32");
    box.u32("projection_bounds_top", unit);
    box.u32("projection_bounds_bottom", unit);
    box.u32("projection_bounds_left", unit);
    box.u32("projection_bounds_right", unit);
    box.rest();
    return ContainerAbstract::ParseOk;
}

} // namespace

DeepRows sphericalVideoRows()
{
    return {
        {"SA3D", DeepPlain, 0, parseSpatialAudio},
        {"st3d", DeepPlain, 1, parseStereoscopic},
        {"sv3d", DeepContainer, 0, nullptr},
        {"svhd", DeepPlain, 1, parseSphericalHeader},
        {"proj", DeepContainer, 0, nullptr},
        {"prhd", DeepPlain, 1, parseProjectionHeader},
        {"cbmp", DeepPlain, 1, parseCubemapProjection},
        {"equi", DeepPlain, 1, parseEquirectangularProjection},
    };
}

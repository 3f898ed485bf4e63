#include "DeepRows.h"
#include "PayloadReader.h"

// uuid boxes that real files carry, each known by its usertype: XMP metadata and the times
// of Smooth Streaming fragments. The usertypes of PIFF's protection boxes are with common
// encryption; a uuid box of any other usertype stays an unknown element.

namespace {

// XMP: one XML document in UTF-8.
int parseXmp(PayloadReader &box)
{
    if (box.available() > 0)
        box.utf8("xmp", box.available());
    box.rest();
    return ContainerAbstract::ParseOk;
}

// tfxd: the time and duration of the fragment it stands in, 64 bits each from version 1.
int parseFragmentTime(PayloadReader &box)
{
    const bool wide = box.version() == 1;
    box.versioned("fragment_absolute_time", wide, QStringLiteral("in the track's time units"));
    box.versioned("fragment_duration", wide, QStringLiteral("in the track's time units"));
    box.rest();
    return ContainerAbstract::ParseOk;
}

// tfrf: the times and durations of the fragments that follow, for a live presentation.
int parseFollowingFragments(PayloadReader &box)
{
    const bool wide = box.version() == 1;
    const quint8 count = box.u8("fragment_count");
    const quint64 entrySize = wide ? 16 : 8;
    const QString fragment = QStringLiteral("fragment");
    for (quint32 i = 0; i < count && box.available() >= entrySize; ++i) {
        box.beginGroup(fragment, i, entrySize);
        box.versioned("fragment_absolute_time", wide);
        box.versioned("fragment_duration", wide);
        box.endGroup();
    }
    box.rest();
    return ContainerAbstract::ParseOk;
}

} // namespace

DeepRows userTypeRows()
{
    return {
        {"uuid{be7acfcb-97a9-42e8-9c71-999491e3afac}", DeepPlain, 0, parseXmp},
        {"uuid{6d1d9b05-42d5-44e6-80e2-141daff757b2}", DeepPlain, 1, parseFragmentTime},
        {"uuid{d4807ef2-ca39-4695-8e54-26cb9e46a79f}", DeepPlain, 1, parseFollowingFragments},
    };
}

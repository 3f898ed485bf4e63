#include "DeepRows.h"
#include "PayloadReader.h"

#include <QDateTime>
#include <QTimeZone>

// The boxes of segmented and streamed files beside the fragments themselves: the indexes of
// segments and of the fragments of a file, the producer's clock, in-band events, download
// hints, levels and the groups a track belongs to.

namespace {

// An NTP time, seconds since 1900 in the high 32 bits and their fraction in the low, as the
// UTC date it stands for.
QString ntpDate(quint64 ntp)
{
    constexpr qint64 SecondsFrom1900To1970 = 2208988800;
    const qint64 seconds = qint64(ntp >> 32) - SecondsFrom1900To1970;
    const qint64 milliseconds = qint64(((ntp & 0xFFFFFFFF) * 1000) >> 32);
    return QDateTime::fromMSecsSinceEpoch(seconds * 1000 + milliseconds, QTimeZone::utc())
               .toString(QStringLiteral("dd-MM-yyyy hh:mm:ss.zzz")) +
           QStringLiteral(" UTC");
}

QString byteCount(int bytes)
{
    return bytes == 1 ? QStringLiteral("1 byte") : QStringLiteral("%1 bytes").arg(bytes);
}

// sidx: the subsegments of a segment, each a run of media or a further index, with its size,
// duration and where its first stream access point lies.
int parseSegmentIndex(PayloadReader &box)
{
    const bool wide = box.version() != 0;
    box.u32("reference_id");
    box.u32("timescale", QStringLiteral("units per second"));
    box.versioned("earliest_presentation_time", wide);
    box.versioned("first_offset", wide, QStringLiteral("bytes from the end of this box"));
    box.u16("reserved");
    const quint16 count = box.u16("reference_count");
    const QString reference = QStringLiteral("reference");
    const QString media = QStringLiteral("media");
    const QString index = QStringLiteral("index");
    for (quint16 i = 0; i < count && box.available() >= 12; ++i) {
        box.beginGroup(reference, i, 12);
        const bool isIndex = box.peekUnsigned(1) >> 7;
        PayloadReader::Bits size = box.bits(4);
        size.field("reference_type", 1, isIndex ? index : media);
        size.field("referenced_size", 31, QStringLiteral("bytes"));
        box.u32("subsegment_duration");
        PayloadReader::Bits access = box.bits(4);
        access.flag("starts_with_sap");
        access.field("sap_type", 3);
        access.field("sap_delta_time", 28);
        box.endGroup();
    }
    box.rest();
    return ContainerAbstract::ParseOk;
}

// ssix: the byte ranges of each subsegment and the level each holds.
int parseSubsegmentIndex(PayloadReader &box)
{
    const quint32 count = box.u32("subsegment_count");
    const QString subsegment = QStringLiteral("subsegment");
    const QString range = QStringLiteral("range");
    const QString level = QStringLiteral("level");
    const QString rangeSize = QStringLiteral("range_size");
    for (quint32 i = 0; i < count && box.available() >= 4; ++i) {
        const quint64 ranges = box.peekUnsigned(4);
        box.beginGroup(subsegment, i, 4 + 4 * ranges);
        box.u32("range_count");
        for (quint64 j = 0; j < ranges && box.available() >= 4; ++j) {
            box.beginGroup(range, qint64(j), 4);
            box.unsignedField(level, 1);
            box.unsignedField(rangeSize, 3);
            box.endGroup();
        }
        box.endGroup();
    }
    box.rest();
    return ContainerAbstract::ParseOk;
}

// prft: the wall-clock time at which the producer handled a media time of a track.
int parseProducerReferenceTime(PayloadReader &box)
{
    box.u32("reference_track_id");
    box.u64("ntp_timestamp", ntpDate(box.peekUnsigned(8)));
    box.versioned("media_time", box.version() != 0);
    box.rest();
    return ContainerAbstract::ParseOk;
}

// All ones stand for a duration not known yet.
void eventDuration(PayloadReader &box)
{
    box.u32("event_duration",
            box.peekUnsigned(4) == 0xFFFFFFFF ? QStringLiteral("unknown") : QString());
}

// emsg: an event for the application, with the scheme that says how to read its message;
// its time is relative to the segment in version 0 and absolute from version 1 on.
int parseEventMessage(PayloadReader &box)
{
    if (box.version() == 0) {
        box.nullTerminated("scheme_id_uri");
        box.nullTerminated("value");
        box.u32("timescale", QStringLiteral("units per second"));
        box.u32("presentation_time_delta");
        eventDuration(box);
        box.u32("id");
    } else if (box.version() == 1) {
        box.u32("timescale", QStringLiteral("units per second"));
        box.u64("presentation_time");
        eventDuration(box);
        box.u32("id");
        box.nullTerminated("scheme_id_uri");
        box.nullTerminated("value");
    }
    box.rest(box.version() <= 1 ? "message_data" : "data");
    return ContainerAbstract::ParseOk;
}

// tfra: random access points of a track: the time of each, the fragment that holds it and
// its place there, the three numbers in fields of 1 to 4 bytes.
int parseTrackFragmentRandomAccess(PayloadReader &box)
{
    box.u32("track_id");
    // Each length is one less than the bytes of its number.
    const quint64 lengths = box.peekUnsigned(4);
    const int trafWidth = int(lengths >> 4 & 3) + 1;
    const int trunWidth = int(lengths >> 2 & 3) + 1;
    const int sampleWidth = int(lengths & 3) + 1;
    PayloadReader::Bits sizes = box.bits(4);
    sizes.field("reserved", 26);
    sizes.field("length_size_of_traf_num", 2, byteCount(trafWidth));
    sizes.field("length_size_of_trun_num", 2, byteCount(trunWidth));
    sizes.field("length_size_of_sample_num", 2, byteCount(sampleWidth));
    const quint32 count = box.u32("number_of_entry");
    const bool wide = box.version() == 1;
    const QString entry = QStringLiteral("entry");
    const QString time = QStringLiteral("time");
    const QString moofOffset = QStringLiteral("moof_offset");
    const QString trafNumber = QStringLiteral("traf_number");
    const QString trunNumber = QStringLiteral("trun_number");
    const QString sampleNumber = QStringLiteral("sample_number");
    const int timeWidth = wide ? 8 : 4;
    const quint64 entrySize = quint64(2 * timeWidth + trafWidth + trunWidth + sampleWidth);
    for (quint32 i = 0; i < count && box.available() >= entrySize; ++i) {
        box.beginGroup(entry, i, entrySize);
        box.unsignedField(time, timeWidth);
        box.unsignedField(moofOffset, timeWidth);
        box.unsignedField(trafNumber, trafWidth);
        box.unsignedField(trunNumber, trunWidth);
        box.unsignedField(sampleNumber, sampleWidth);
        box.endGroup();
    }
    box.rest();
    return ContainerAbstract::ParseOk;
}

// mfro: the size of the mfra it closes, for a reader that starts from the end of the file.
int parseMovieFragmentRandomAccessOffset(PayloadReader &box)
{
    box.u32("size", QStringLiteral("bytes of the enclosing mfra"));
    box.rest();
    return ContainerAbstract::ParseOk;
}

// pdin: pairs of a download rate and the delay before playing at that rate without stalls.
int parseProgressiveDownloadInfo(PayloadReader &box)
{
    const QString entry = QStringLiteral("entry");
    const QString rate = QStringLiteral("rate");
    const QString delay = QStringLiteral("initial_delay");
    const QString bytesPerSecond = QStringLiteral("bytes per second");
    const QString milliseconds = QStringLiteral("ms");
    for (qint64 i = 0; box.available() >= 8; ++i) {
        box.beginGroup(entry, i, 8);
        box.unsignedField(rate, 4, bytesPerSecond);
        box.unsignedField(delay, 4, milliseconds);
        box.endGroup();
    }
    box.rest();
    return ContainerAbstract::ParseOk;
}

QString assignmentName(quint64 type)
{
    switch (type) {
    case 0:
        return QStringLiteral("by sample group");
    case 1:
        return QStringLiteral("by sample group and parameter");
    case 2:
    case 3:
        return QStringLiteral("by track");
    case 4:
        return QStringLiteral("by sub-track");
    default:
        return QString();
    }
}

// leva: the levels of the subsegments of a segment and how samples are assigned to each.
int parseLevelAssignment(PayloadReader &box)
{
    const quint8 count = box.u8("level_count");
    const QString level = QStringLiteral("level");
    for (quint8 i = 0; i < count && box.available() >= 5; ++i) {
        const quint64 type = box.peekUnsigned(1, 4) & 0x7F;
        box.beginGroup(level, i, 5 + (type == 1 ? 8 : type == 0 || type == 4 ? 4 : 0));
        box.u32("track_id");
        PayloadReader::Bits assignment = box.bits(1);
        assignment.flag("padding_flag");
        assignment.field("assignment_type", 7, assignmentName(type));
        if (type == 0 || type == 1)
            box.fourcc("grouping_type");
        if (type == 1)
            box.u32("grouping_type_parameter");
        if (type == 4)
            box.u32("sub_track_id");
        box.endGroup();
    }
    box.rest();
    return ContainerAbstract::ParseOk;
}

// A box of trgr: the group of tracks of its type this track belongs to.
int parseTrackGroupType(PayloadReader &box)
{
    box.u32("track_group_id");
    box.rest();
    return ContainerAbstract::ParseOk;
}

} // namespace

DeepRows segmentRows()
{
    return {
        {"sidx", DeepPlain, 1, parseSegmentIndex},
        {"ssix", DeepPlain, 1, parseSubsegmentIndex},
        {"prft", DeepPlain, 1, parseProducerReferenceTime},
        {"emsg", DeepPlain, 1, parseEventMessage},
        {"tfra", DeepPlain, 1, parseTrackFragmentRandomAccess},
        {"mfro", DeepPlain, 1, parseMovieFragmentRandomAccessOffset},
        {"pdin", DeepPlain, 1, parseProgressiveDownloadInfo},
        {"leva", DeepPlain, 1, parseLevelAssignment},
        // Not a full box: the basic table's version word is the first group's header.
        {"trgr", DeepContainer, 0, nullptr},
        {"trgr/*", DeepPlain, 1, parseTrackGroupType},
    };
}

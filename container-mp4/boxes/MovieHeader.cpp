#include "ContainerMP4.h"
#include "HeaderFields.h"
#include "Render.h"

#include <QDateTime>

namespace {
// Seconds from the start of 1904, where the file's times count from, to the start of 1970.
constexpr quint64 SecondsFrom1904To1970 = 2082844800;

// A time above the start of 1970 is taken as counted from 1904 and moved to 1970; a
// smaller one is shown as stored.
quint64 movieTime(quint64 stored)
{
    return stored > SecondsFrom1904To1970 ? stored - SecondsFrom1904To1970 : stored;
}

// Local date of the low 32 bits of a time in seconds since 1970.
QString dateText(quint64 time)
{
    return QDateTime::fromSecsSinceEpoch(qint64(quint32(time)))
        .toString(QStringLiteral("dd-MM-yyyy hh:mm:ss"));
}
} // namespace

// mvhd: times, time scale and duration of the whole movie, its rate, volume, matrix and
// the next free track number.
int ContainerMP4::parseBoxMVHD(quint64 offset, quint64 /*size*/)
{
    // Room for version 1; the block is read whole whatever the version, and bytes behind
    // the fields of version 0 are never looked at.
    unsigned char block[108] = {};
    const quint64 count = quint64(input.readBytes(reinterpret_cast<char *>(block), sizeof block));
    const quint64 w = HeaderFields::wideWidth(boxVersion);
    if (count < 3 * w + 84)
        return ParseTruncated;

    FieldBlock fields(*this, block);
    auto renderUnsigned = [this](quint32 word) { return Render::u32(word, valueBase); };
    auto renderSigned = [this](quint32 word) { return Render::i32(qint32(word), valueBase); };

    const quint64 creation = movieTime(fields.wide(0, w));
    reportField(offset, w, "creation_time", Render::u64(creation, valueBase), dateText(creation));
    const quint64 modification = movieTime(fields.wide(w, w));
    reportField(offset + w, w, "modification_time", Render::u64(modification, valueBase),
                dateText(modification));
    const quint32 timescale = fields.u32(2 * w);
    reportField(offset + 2 * w, 4, "timescale", Render::u32(timescale, valueBase),
                QStringLiteral("in 1/%1 s").arg(qulonglong(timescale)));
    reportField(offset + 2 * w + 4, w, "duration",
                Render::u64(fields.wide(2 * w + 4, w), valueBase));

    const quint32 rate = fields.u32(3 * w + 4);
    reportField(offset + 3 * w + 4, 4, "rate",
                Render::fixedPoint(qint16(rate >> 16), qint16(rate), valueBase));
    reportField(offset + 3 * w + 8, 2, "volume",
                HeaderFields::volume(fields.u16(3 * w + 8), valueBase));
    reportField(offset + 3 * w + 10, 2, "reserved", Render::i32(fields.u16(3 * w + 10), valueBase));
    reportField(offset + 3 * w + 12, 8, "reserved", fields.words(3 * w + 12, 2, renderUnsigned));
    reportField(offset + 3 * w + 20, 36, "transformation_matrix",
                fields.words(3 * w + 20, 9, renderUnsigned), QStringLiteral("(u, v, w)"));
    reportField(offset + 3 * w + 56, 24, "pre_defined", fields.words(3 * w + 56, 6, renderSigned));
    reportField(offset + 3 * w + 80, 4, "next_track_ID",
                Render::u32(fields.u32(3 * w + 80), valueBase));
    return ParseOk;
}

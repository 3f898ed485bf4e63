#include "SampleUnits.h"

#include "TableReading.h"

#include <algorithm>
#include <cstring>
#include <memory>

namespace {

// Units listed of one sample at most; a sample of more (of zero-size units, say) is read up
// to there.
constexpr size_t MaxUnits = 65536;

// The longest parameter set compared with the configuration's.
constexpr quint64 MaxParameterSet = 4096;

bool parameterSet(Units::Codec codec, int type)
{
    return codec == Units::Codec::H264 ? type == 7 || type == 8
                                       : codec == Units::Codec::Hevc && type >= 32 && type <= 34;
}

// The size field of an OBU behind its header of 1 or 2 bytes; false without one.
bool obuSize(const uchar *bytes, quint64 available, quint64 *header, quint64 *size)
{
    if (available == 0 || !(bytes[0] & 2))
        return false;
    quint64 at = bytes[0] & 4 ? 2 : 1;
    quint64 value = 0;
    for (int i = 0; i < 8 && at < available; ++i) {
        const uchar byte = bytes[at++];
        value |= quint64(byte & 0x7F) << (7 * i);
        if (!(byte & 0x80)) {
            *header = at;
            *size = value;
            return true;
        }
    }
    return false;
}

} // namespace

SampleUnitWalk::SampleUnitWalk(InputDevice &input, const StreamInfo &info, Problem problem)
    : input(input)
    , report(std::move(problem))
{
    if (info.codecId == 28)
        codec = Units::Codec::H264;
    else if (info.codecId == 174)
        codec = Units::Codec::Hevc;
    else if (info.codecId == 227)
        codec = Units::Codec::Av1;
    else
        return;
    known = true;
    const QString entry = info.track ? info.track->sampleEntry : QString();
    compareInBand = entry == QLatin1String("avc1") || entry == QLatin1String("hvc1");
    encrypted = entry == QLatin1String("encv");
    readConfiguration(info);
    if (info.track && info.track->video && info.width > 0 && info.height > 0) {
        const VideoFacts &video = *info.track->video;
        if (video.width > 0 && (video.width != info.width || video.height != info.height))
            found("picture-size-mismatch", Severity::Warning, info.configOffset, info.configSize,
                  QStringLiteral("the stream's pictures are shown at %1x%2, the sample "
                                 "entry says %3x%4")
                      .arg(video.width)
                      .arg(video.height)
                      .arg(info.width)
                      .arg(info.height));
    }
}

void SampleUnitWalk::found(const char *code, Severity severity, quint64 offset, quint64 size,
                           const QString &message)
{
    for (Found &known : problems) {
        if (std::strcmp(known.code, code) == 0) {
            ++known.count;
            return;
        }
    }
    problems.push_back({code, severity, offset, size, message, 1});
}

void SampleUnitWalk::finish()
{
    for (const Found &first : problems)
        report(first.code, first.severity, first.offset, first.size,
               first.count == 1
                   ? first.message
                   : QStringLiteral("%1 times; the first: %2").arg(first.count).arg(first.message));
}

void SampleUnitWalk::configurationUnit(const QByteArray &bytes)
{
    SampleUnit unit;
    Units::UnitFacts facts;
    const auto *data = reinterpret_cast<const uchar *>(bytes.constData());
    Units::read(codec, data, quint64(bytes.size()), state, unit, facts);
    if (parameterSet(codec, unit.type))
        configured.push_back(bytes);
}

void SampleUnitWalk::readConfiguration(const StreamInfo &info)
{
    const quint64 size = qMin<quint64>(info.configSize, 1 << 16);
    if (size == 0)
        return;
    QByteArray config(qsizetype(size), '\0');
    TableReader reader(input, info.configOffset, size);
    if (!reader.read(0, config.data(), size))
        return;
    const auto *bytes = reinterpret_cast<const uchar *>(config.constData());
    quint64 at = 0;
    // A unit behind a length of 2 bytes at at.
    const auto lengthPrefixed = [&]() {
        if (at + 2 > size)
            return false;
        const quint64 length = quint64(bytes[at]) << 8 | bytes[at + 1];
        if (at + 2 + length > size)
            return false;
        configurationUnit(config.mid(qsizetype(at + 2), qsizetype(length)));
        at += 2 + length;
        return true;
    };
    if (codec == Units::Codec::H264 && size >= 6) {
        lengthSize = (bytes[4] & 3) + 1;
        const int sequenceSets = bytes[5] & 0x1F;
        at = 6;
        for (int i = 0; i < sequenceSets && lengthPrefixed(); ++i) {
        }
        if (at < size) {
            const int pictureSets = bytes[at++];
            for (int i = 0; i < pictureSets && lengthPrefixed(); ++i) {
            }
        }
    } else if (codec == Units::Codec::Hevc && size >= 23) {
        lengthSize = (bytes[21] & 3) + 1;
        const int arrays = bytes[22];
        at = 23;
        for (int j = 0; j < arrays && at + 3 <= size; ++j) {
            const int count = bytes[at + 1] << 8 | bytes[at + 2];
            at += 3;
            for (int i = 0; i < count && lengthPrefixed(); ++i) {
            }
        }
    } else if (codec == Units::Codec::Av1 && size > 4) {
        at = 4;
        quint64 header = 0;
        quint64 obu = 0;
        while (at < size && obuSize(bytes + at, size - at, &header, &obu) &&
               obu <= size - at - header) {
            configurationUnit(config.mid(qsizetype(at), qsizetype(header + obu)));
            at += header + obu;
        }
    }
}

bool SampleUnitWalk::tiles(const TrackSample &sample, int size)
{
    TableReader reader(input, sample.offset, sample.size);
    quint64 at = 0;
    uchar field[4];
    for (size_t count = 0; at < sample.size && count < MaxUnits; ++count) {
        if (!reader.read(at, field, quint64(size)))
            return false;
        quint64 length = 0;
        for (int i = 0; i < size; ++i)
            length = length << 8 | field[i];
        if (length > sample.size - at - quint64(size))
            return false;
        at += quint64(size) + length;
    }
    return at == sample.size;
}

void SampleUnitWalk::checkSync(const TrackSample &sample, const Units::UnitFacts &first, bool seen,
                               bool recoveryPoint)
{
    if (!seen)
        return;
    // An I picture behind a recovery point is where an open group of pictures begins.
    const bool randomAccess =
        first.randomAccess || (codec == Units::Codec::H264 && first.intra && recoveryPoint);
    if (sample.keyFrame && !randomAccess)
        found("sync-sample-not-random-access", Severity::Error, sample.offset, sample.size,
              QStringLiteral("the sample is marked sync, but its first picture is no IDR, "
                             "IRAP or key frame picture"));
    else if (!sample.keyFrame && first.randomAccess)
        found("random-access-not-sync", Severity::Warning, sample.offset, sample.size,
              QStringLiteral("the sample begins with a picture decoding can start at, but is "
                             "not marked sync"));
}

void SampleUnitWalk::read(const TrackSample &sample, std::vector<SampleUnit> &units)
{
    units.clear();
    TableReader reader(input, sample.offset, sample.size);
    const bool av1 = codec == Units::Codec::Av1;
    const int prefix = av1 ? 0 : lengthSize;
    std::vector<uchar> head;
    Units::UnitFacts firstPicture;
    bool pictureSeen = false;
    bool recoveryPoint = false;
    bool zeroReported = false;
    quint64 at = 0;
    while (at < sample.size && units.size() < MaxUnits) {
        const quint64 left = sample.size - at;
        quint64 length = 0;
        quint64 header = 0;
        if (!av1) {
            uchar field[4] = {};
            if (lengthSize == 3 || !reader.read(at, field, quint64(prefix))) {
                found("unit-length-overrun", Severity::Error, sample.offset + at, left,
                      QStringLiteral("%1 bytes are left of the sample, too few for a length "
                                     "field of %2")
                          .arg(left)
                          .arg(prefix));
                break;
            }
            for (int i = 0; i < prefix; ++i)
                length = length << 8 | field[i];
            const bool overrun = length > left - quint64(prefix);
            // A length size that does not fit the data, which lengths of 4 bytes tile: the
            // wrong size reads zero-size units or runs past the sample.
            if ((overrun || length == 0) && lengthSize != 4 && tiles(sample, 4)) {
                found("unit-length-size", Severity::Error, sample.offset, sample.size,
                      QStringLiteral("the configuration gives lengths of %1 bytes, but the "
                                     "samples have lengths of 4 bytes")
                          .arg(lengthSize));
                break;
            }
            if (overrun) {
                found("unit-length-overrun", Severity::Error, sample.offset + at, prefix,
                      QStringLiteral("a unit of %1 bytes is longer than the %2 bytes left of "
                                     "its sample")
                          .arg(length)
                          .arg(left - quint64(prefix)));
                break;
            }
        } else {
            uchar obu[10] = {};
            const quint64 peek = qMin<quint64>(left, sizeof obu);
            reader.read(at, obu, peek);
            if (!obuSize(obu, peek, &header, &length)) {
                // The last OBU of a sample may go without a size: it runs to the end.
                header = 0;
                length = left;
            } else if (length > left - header) {
                found("unit-length-overrun", Severity::Error, sample.offset + at, header,
                      QStringLiteral("an OBU of %1 bytes is longer than the %2 bytes left of "
                                     "its sample")
                          .arg(length)
                          .arg(left - header));
                break;
            }
        }
        SampleUnit unit;
        unit.offset = sample.offset + at;
        unit.size = quint64(prefix) + header + length;
        const quint64 body = at + quint64(prefix);
        const quint64 bodySize = header + length;
        if (bodySize == 0) {
            if (!zeroReported)
                found("zero-size-unit", Severity::Warning, unit.offset, unit.size,
                      QStringLiteral("a unit of 0 bytes"));
            zeroReported = true;
        } else {
            uchar first[2] = {};
            reader.read(body, first, qMin<quint64>(bodySize, 2));
            // Of an encrypted sample only the unit's header is known to be clear.
            const quint64 clear = codec == Units::Codec::Hevc ? 2 : 1;
            const quint64 want =
                qMin(bodySize, encrypted ? clear : Units::wanted(codec, first, bodySize));
            head.resize(want);
            if (reader.read(body, head.data(), want)) {
                Units::UnitFacts facts;
                Units::read(codec, head.data(), want, state, unit, facts);
                recoveryPoint = recoveryPoint || facts.recoveryPoint;
                if (facts.picture && !pictureSeen) {
                    firstPicture = facts;
                    pictureSeen = true;
                }
                if (facts.picture && facts.pictureParameterSet >= 0 && !av1 &&
                    !Units::has(state.pictureSets, quint64(facts.pictureParameterSet)))
                    found("missing-parameter-set", Severity::Error, unit.offset, unit.size,
                          QStringLiteral("the slice refers to picture parameter set %1, "
                                         "which neither the configuration nor the stream "
                                         "holds")
                              .arg(facts.pictureParameterSet));
                if (compareInBand && parameterSet(codec, unit.type) &&
                    bodySize <= MaxParameterSet) {
                    QByteArray bytes(qsizetype(bodySize), '\0');
                    if (reader.read(body, bytes.data(), bodySize) &&
                        std::find(configured.begin(), configured.end(), bytes) == configured.end())
                        found("parameter-set-mismatch", Severity::Warning, unit.offset, unit.size,
                              QStringLiteral("an in-band %1 differs from those of the "
                                             "configuration record")
                                  .arg(QLatin1String(unit.typeName)));
                }
            }
        }
        units.push_back(std::move(unit));
        at += quint64(prefix) + header + length;
    }
    if (!encrypted)
        checkSync(sample, firstPicture, pictureSeen, recoveryPoint);
}

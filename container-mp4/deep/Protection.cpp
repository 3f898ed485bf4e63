#include "DeepAnalysis.h"
#include "DeepRows.h"
#include "PayloadReader.h"

#include <QUuid>

// Common encryption: how a protected track says its scheme and key, the license data of the
// systems that hold the keys, and the initialization vectors and clear ranges of each sample.

namespace {

// The 16 bytes at the reader's position as a UUID text; empty when they are not there.
QString uuidAhead(PayloadReader &box)
{
    char bytes[16];
    if (!box.peek(bytes, sizeof bytes))
        return QString();
    return QUuid::fromRfc4122(QByteArray::fromRawData(bytes, sizeof bytes))
        .toString(QUuid::WithoutBraces);
}

// The systems whose license data pssh boxes of real files carry, by system ID.
QString systemName(const QString &systemId)
{
    static const struct {
        const char *id;
        const char *name;
    } systems[] = {
        {"edef8ba9-79d6-4ace-a3c8-27dcd51d21ed", "Widevine"},
        {"9a04f079-9840-4286-ab92-e65be0885f95", "PlayReady"},
        {"94ce86fb-07ff-4f43-adb8-93d2fa968ca2", "FairPlay"},
        {"1077efec-c0b2-4d02-ace3-3c1e52e2fb4b", "ClearKey"},
        {"e2719d58-a985-b3c9-781a-b030af78d30e", "ClearKey"},
        {"3ea8778f-7742-4bf9-b18b-e834b2acbd47", "ClearKey DASH-IF"},
    };
    for (const auto &system : systems) {
        if (systemId == QLatin1String(system.id))
            return QString::fromLatin1(system.name);
    }
    return QString();
}

// A key ID: its bytes, with the UUID they spell beside them.
void keyId(PayloadReader &box, const char *name)
{
    box.raw(name, 16, uuidAhead(box));
}

QString schemeName(const QString &scheme)
{
    if (scheme == QLatin1String("cenc"))
        return QStringLiteral("AES-CTR");
    if (scheme == QLatin1String("cbc1"))
        return QStringLiteral("AES-CBC");
    if (scheme == QLatin1String("cens"))
        return QStringLiteral("AES-CTR with a pattern");
    if (scheme == QLatin1String("cbcs"))
        return QStringLiteral("AES-CBC with a pattern");
    return QString();
}

// frma: the sample entry type the protected entry stands for.
int parseOriginalFormat(PayloadReader &box)
{
    box.fourcc("data_format");
    box.rest();
    return ContainerAbstract::ParseOk;
}

// schm: the protection scheme and its version, the major number in the high half.
int parseSchemeType(PayloadReader &box)
{
    char letters[4] = {};
    box.peek(letters, sizeof letters);
    box.fourcc("scheme_type", schemeName(QString::fromLatin1(letters, sizeof letters)));
    const quint32 version = quint32(box.peekUnsigned(4));
    box.u32("scheme_version",
            QStringLiteral("%1.%2").arg(version >> 16, 0, 16).arg(version & 0xFFFF, 0, 16));
    if (box.flags() & 1)
        box.nullTerminated("scheme_uri");
    box.rest();
    return ContainerAbstract::ParseOk;
}

// tenc: the defaults of a protected track. Its per-sample IV size is kept for the track's
// senc, whose entries do not say their own.
int parseTrackEncryption(PayloadReader &box)
{
    box.u8("reserved");
    if (box.version() == 0) {
        box.u8("reserved");
    } else {
        PayloadReader::Bits pattern = box.bits(1);
        pattern.field("default_crypt_byte_block", 4,
                      QStringLiteral("encrypted blocks of 16 bytes"));
        pattern.field("default_skip_byte_block", 4, QStringLiteral("clear blocks of 16 bytes"));
    }
    const quint64 protection = box.peekUnsigned(1);
    const quint8 isProtected =
        box.u8("default_is_protected", protection == 1   ? QStringLiteral("protected")
                                       : protection == 0 ? QStringLiteral("not protected")
                                                         : QString());
    const quint8 ivSize = box.u8("default_per_sample_iv_size", QStringLiteral("bytes"));
    if (box.ok()) {
        if (TrackContext *track = box.track())
            track->perSampleIvSize = ivSize;
    }
    keyId(box, "default_kid");
    if (isProtected == 1 && ivSize == 0) {
        const quint8 constantSize = box.u8("default_constant_iv_size", QStringLiteral("bytes"));
        box.raw("default_constant_iv", constantSize);
    }
    box.rest();
    return ContainerAbstract::ParseOk;
}

// pssh: license data for one system; from version 1 on with the key IDs it serves.
int parseProtectionSystem(PayloadReader &box)
{
    const QString systemId = uuidAhead(box);
    const QString name = systemName(systemId);
    box.raw("system_id", 16, name.isEmpty() ? systemId : systemId + QStringLiteral(" ") + name);
    if (box.version() > 0) {
        const quint32 count = box.u32("kid_count");
        for (quint32 i = 0; i < count && box.available() >= 16; ++i)
            keyId(box, "kid");
    }
    const quint32 size = box.u32("data_size");
    box.data("data", size);
    box.rest();
    return ContainerAbstract::ParseOk;
}

// Whether entries of IVs of ivSize bytes, each with its list of subsamples, fill the
// payload left exactly.
bool subsamplesFit(PayloadReader &box, quint32 count, quint64 ivSize)
{
    const quint64 left = box.left();
    quint64 at = 0;
    for (quint32 i = 0; i < count; ++i) {
        at += ivSize + 2;
        if (at > left)
            return false;
        at += 6 * box.peekUnsigned(2, at - 2);
    }
    return at == left;
}

// The per-sample IV size of a senc whose track did not say it: the one size of 0, 8 or 16
// bytes its entries fit the box with; -1 when none or more than one does, or the box is cut
// off.
int inferredIvSize(PayloadReader &box, quint32 count, bool subsamples)
{
    const quint64 left = box.left();
    if (count == 0 || box.available() < left)
        return -1;
    if (!subsamples) {
        const quint64 size = left / count;
        return left % count == 0 && (size == 8 || size == 16) ? int(size) : -1;
    }
    int found = -1;
    for (const int size : {0, 8, 16}) {
        if (subsamplesFit(box, count, quint64(size))) {
            if (found >= 0)
                return -1;
            found = size;
        }
    }
    return found;
}

// The samples of senc and of PIFF's sample encryption box: each sample's IV and, with flag 2,
// the clear and protected byte ranges of its subsamples. The IV size is the one the track or
// the box said (knownIvSize, -1 when none did), or else what fits the box; where neither tells
// it, the entries are shown as data.
int readEncryptedSamples(PayloadReader &box, int knownIvSize)
{
    const bool subsamples = box.flags() & 2;
    const quint32 count = box.u32("sample_count");
    const int ivSize = knownIvSize >= 0 ? knownIvSize : inferredIvSize(box, count, subsamples);
    if (ivSize < 0 || (ivSize == 0 && !subsamples)) {
        box.rest("entries");
        return ContainerAbstract::ParseOk;
    }
    const QString sample = QStringLiteral("sample");
    const QString subsample = QStringLiteral("subsample");
    const QString clearBytes = QStringLiteral("bytes_of_clear_data");
    const QString protectedBytes = QStringLiteral("bytes_of_protected_data");
    const quint64 entrySize = quint64(ivSize) + (subsamples ? 2 : 0);
    for (quint32 i = 0; i < count && box.available() >= entrySize; ++i) {
        const quint64 ranges = subsamples ? box.peekUnsigned(2, quint64(ivSize)) : 0;
        box.beginGroup(sample, i, entrySize + 6 * ranges);
        if (ivSize > 0)
            box.raw("initialization_vector", quint64(ivSize));
        if (subsamples) {
            box.u16("subsample_count");
            for (quint64 j = 0; j < ranges && box.available() >= 6; ++j) {
                box.beginGroup(subsample, qint64(j), 6);
                box.unsignedField(clearBytes, 2);
                box.unsignedField(protectedBytes, 4);
                box.endGroup();
            }
        }
        box.endGroup();
    }
    box.rest();
    return ContainerAbstract::ParseOk;
}

// senc: its IV size comes from the track (tenc).
int parseSampleEncryption(PayloadReader &box)
{
    const TrackContext *track = box.track();
    return readEncryptedSamples(box, track ? track->perSampleIvSize : -1);
}

QString algorithmName(quint64 id)
{
    return id == 0   ? QStringLiteral("not encrypted")
           : id == 1 ? QStringLiteral("AES-CTR")
           : id == 2 ? QStringLiteral("AES-CBC")
                     : QString();
}

// PIFF's track encryption box: the algorithm, IV size and key ID of the samples of a track.
int parsePiffTrackEncryption(PayloadReader &box)
{
    box.u24("default_algorithm_id", algorithmName(box.peekUnsigned(3)));
    const quint8 ivSize = box.u8("default_iv_size", QStringLiteral("bytes"));
    if (box.ok()) {
        if (TrackContext *track = box.track())
            track->perSampleIvSize = ivSize;
    }
    keyId(box, "default_kid");
    box.rest();
    return ContainerAbstract::ParseOk;
}

// PIFF's sample encryption box: as senc, with flag 1 overriding the track's algorithm, IV
// size and key ID for its samples.
int parsePiffSampleEncryption(PayloadReader &box)
{
    const TrackContext *track = box.track();
    int ivSize = track ? track->perSampleIvSize : -1;
    if (box.flags() & 1) {
        box.u24("algorithm_id", algorithmName(box.peekUnsigned(3)));
        ivSize = box.u8("iv_size", QStringLiteral("bytes"));
        keyId(box, "kid");
    }
    return readEncryptedSamples(box, ivSize);
}

} // namespace

DeepRows protectionRows()
{
    return {
        {"sinf", DeepContainer, 0, nullptr},
        {"frma", DeepPlain, 0, parseOriginalFormat},
        {"schm", DeepPlain, 1, parseSchemeType},
        {"schi", DeepContainer, 0, nullptr},
        {"tenc", DeepPlain, 1, parseTrackEncryption},
        {"pssh", DeepPlain, 1, parseProtectionSystem},
        {"senc", DeepPlain, 1, parseSampleEncryption},
        {"uuid{8974dbce-7be7-4c51-84f9-7148f9882554}", DeepPlain, 1, parsePiffTrackEncryption},
        {"uuid{a2394f52-5a9b-4f14-a244-6c427c648df4}", DeepPlain, 1, parsePiffSampleEncryption},
    };
}

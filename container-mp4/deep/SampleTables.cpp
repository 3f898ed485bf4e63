#include "DeepAnalysis.h"
#include "DeepRows.h"
#include "PayloadReader.h"

// The sample tables beside the basic ones. Lists of many entries are read and reported a
// block at a time, so a table of a million entries costs no more memory than one of ten.

namespace {

// ctts: runs of samples with the same offset from decoding to composition time; unsigned in
// version 0, signed from version 1 on.
int parseCompositionOffsets(PayloadReader &box)
{
    if (TrackContext *track = box.track())
        track->compositionOffsets =
            TableBox{box.at(), box.left(), box.version(), true, box.path(), box.source()};
    const quint32 count = box.u32("entry_count");
    const QString entry = QStringLiteral("entry");
    const QString sampleCount = QStringLiteral("sample_count");
    const QString sampleOffset = QStringLiteral("sample_offset");
    const bool signedOffsets = box.version() >= 1;
    for (quint32 i = 0; i < count && box.available() >= 8; ++i) {
        box.beginGroup(entry, i, 8);
        box.unsignedField(sampleCount, 4);
        if (signedOffsets)
            box.signedField(sampleOffset, 4);
        else
            box.unsignedField(sampleOffset, 4);
        box.endGroup();
    }
    return ContainerAbstract::ParseOk;
}

// stz2: the sample sizes in fields of 4, 8 or 16 bits.
int parseCompactSampleSizes(PayloadReader &box)
{
    const TableBox table{box.at(), box.left(), box.version(), true, box.path(), box.source()};
    box.u24("reserved");
    const quint8 fieldSize = box.u8("field_size", QStringLiteral("bits per entry: 4, 8 or 16"));
    const quint32 count = box.u32("sample_count");
    if (TrackContext *track = box.track()) {
        track->sampleSizes = table;
        track->compactSampleSizes = true;
    }
    const QString entrySize = QStringLiteral("entry_size");
    if (fieldSize == 4) {
        for (quint32 i = 0; i < count && box.available() >= 1; i += 2) {
            PayloadReader::Bits pair = box.bits(1);
            pair.listField(entrySize, 4, i);
            if (i + 1 < count)
                pair.listField(entrySize, 4, i + 1);
        }
    } else if (fieldSize == 8 || fieldSize == 16) {
        const int width = fieldSize / 8;
        for (quint32 i = 0; i < count && box.available() >= quint64(width); ++i)
            box.listField(entrySize, width, i);
    }
    box.rest();
    return ContainerAbstract::ParseOk;
}

// cslg: the bounds of the composition times and offsets, to shift composition times to
// at or after the decoding times; 32 bits in version 0, 64 in version 1.
int parseCompositionShift(PayloadReader &box)
{
    if (box.version() > 1) {
        box.rest();
        return ContainerAbstract::ParseOk;
    }
    const int width = box.version() == 1 ? 8 : 4;
    box.signedField(QStringLiteral("composition_to_dts_shift"), width,
                    QStringLiteral("added to composition times"));
    box.signedField(QStringLiteral("least_decode_to_display_delta"), width,
                    QStringLiteral("smallest composition offset"));
    box.signedField(QStringLiteral("greatest_decode_to_display_delta"), width,
                    QStringLiteral("largest composition offset"));
    box.signedField(QStringLiteral("composition_start_time"), width,
                    QStringLiteral("earliest composition time"));
    box.signedField(QStringLiteral("composition_end_time"), width,
                    QStringLiteral("latest composition time plus its sample's duration"));
    box.rest();
    return ContainerAbstract::ParseOk;
}

// sdtp: one byte of dependencies for each sample, up to the end of the box.
int parseSampleDependencies(PayloadReader &box)
{
    const QString sample = QStringLiteral("sample");
    const QString isLeading = QStringLiteral("is_leading");
    const QString dependsOn = QStringLiteral("sample_depends_on");
    const QString isDependedOn = QStringLiteral("sample_is_depended_on");
    const QString hasRedundancy = QStringLiteral("sample_has_redundancy");
    const QString unknown = QStringLiteral("unknown");
    const QString reserved = QStringLiteral("reserved");
    const QString leading[] = {unknown, QStringLiteral("leading, not decodable"),
                               QStringLiteral("not leading"), QStringLiteral("leading, decodable")};
    const QString depends[] = {unknown, QStringLiteral("depends on others"),
                               QStringLiteral("depends on no other (I picture)"), reserved};
    const QString dependedOn[] = {unknown, QStringLiteral("others may depend on it"),
                                  QStringLiteral("disposable"), reserved};
    const QString redundancy[] = {unknown, QStringLiteral("redundant coding"),
                                  QStringLiteral("no redundant coding"), reserved};
    for (qint64 i = 0; box.available() > 0; ++i) {
        const quint64 byte = box.peekUnsigned(1);
        box.beginGroup(sample, i, 1);
        PayloadReader::Bits flags = box.bits(1);
        flags.field(isLeading, 2, leading[byte >> 6]);
        flags.field(dependsOn, 2, depends[(byte >> 4) & 3]);
        flags.field(isDependedOn, 2, dependedOn[(byte >> 2) & 3]);
        flags.field(hasRedundancy, 2, redundancy[byte & 3]);
        box.endGroup();
    }
    return ContainerAbstract::ParseOk;
}

// stsh: the sync samples that may stand in for other samples, such as on seeking.
int parseShadowSyncSamples(PayloadReader &box)
{
    const quint32 count = box.u32("entry_count");
    const QString entry = QStringLiteral("entry");
    const QString shadowed = QStringLiteral("shadowed_sample_number");
    const QString sync = QStringLiteral("sync_sample_number");
    for (quint32 i = 0; i < count && box.available() >= 8; ++i) {
        box.beginGroup(entry, i, 8);
        box.unsignedField(shadowed, 4);
        box.unsignedField(sync, 4);
        box.endGroup();
    }
    box.rest();
    return ContainerAbstract::ParseOk;
}

// sbgp: runs of samples and the entry of the sgpd of the same grouping type they belong to.
int parseSampleToGroup(PayloadReader &box)
{
    box.fourcc("grouping_type");
    if (box.version() == 1)
        box.u32("grouping_type_parameter");
    const quint32 count = box.u32("entry_count");
    const QString entry = QStringLiteral("entry");
    const QString sampleCount = QStringLiteral("sample_count");
    const QString index = QStringLiteral("group_description_index");
    const QString inNoGroup = QStringLiteral("in no group of this type");
    // Above 0x10000 the index counts the entries of the sgpd of the same movie fragment.
    const QString ofFragment = QStringLiteral("entry of this fragment's sgpd, plus 0x10000");
    for (quint32 i = 0; i < count && box.available() >= 8; ++i) {
        box.beginGroup(entry, i, 8);
        box.unsignedField(sampleCount, 4);
        const quint64 value = box.peekUnsigned(4);
        box.unsignedField(index, 4,
                          value == 0        ? inNoGroup
                          : value > 0x10000 ? ofFragment
                                            : QString());
        box.endGroup();
    }
    box.rest();
    return ContainerAbstract::ParseOk;
}

// The bytes an entry of sgpd of the grouping types decoded here takes, when it starts ahead
// bytes behind the current position; 0 for every other type.
quint64 groupEntrySize(PayloadReader &box, const QString &groupingType, quint64 ahead)
{
    if (groupingType == QLatin1String("roll") || groupingType == QLatin1String("prol"))
        return 2;
    if (groupingType == QLatin1String("sync") || groupingType == QLatin1String("rap "))
        return 1;
    if (groupingType == QLatin1String("seig")) {
        // A constant IV follows when the samples are protected and carry no IV of their own.
        const bool constantIv =
            box.peekUnsigned(1, ahead + 2) == 1 && box.peekUnsigned(1, ahead + 3) == 0;
        return constantIv ? 21 + box.peekUnsigned(1, ahead + 20) : 20;
    }
    return 0;
}

// One entry of sgpd of a grouping type groupEntrySize() knows, which sizes it.
void parseGroupEntry(PayloadReader &box, const QString &groupingType)
{
    if (groupingType == QLatin1String("roll") || groupingType == QLatin1String("prol")) {
        box.i16("roll_distance", QStringLiteral("in samples"));
    } else if (groupingType == QLatin1String("sync")) {
        PayloadReader::Bits bits = box.bits(1);
        bits.field("reserved", 2);
        bits.field("nal_unit_type", 6);
    } else if (groupingType == QLatin1String("rap ")) {
        PayloadReader::Bits bits = box.bits(1);
        bits.flag("num_leading_samples_known");
        bits.field("num_leading_samples", 7);
    } else {
        // seig: the encryption of the samples of the group.
        box.u8("reserved");
        PayloadReader::Bits pattern = box.bits(1);
        pattern.field("crypt_byte_block", 4, QStringLiteral("encrypted blocks of the pattern"));
        pattern.field("skip_byte_block", 4, QStringLiteral("clear blocks of the pattern"));
        const quint8 isProtected = box.u8("is_protected");
        const quint8 ivSize =
            box.u8("per_sample_iv_size", QStringLiteral("bytes; 0: one constant IV"));
        box.raw("kid", 16);
        if (isProtected == 1 && ivSize == 0) {
            const quint8 constantSize = box.u8("constant_iv_size");
            if (constantSize > 0)
                box.raw("constant_iv", constantSize);
        }
    }
}

// sgpd: the descriptions of the groups of one grouping type. Entries of a type decoded here
// are shown field by field, every other entry as bytes: of its length in version 1, else of
// the rest of the box, whose entries have no length to tell them apart.
int parseSampleGroupDescription(PayloadReader &box)
{
    const QString groupingType = box.fourcc("grouping_type");
    const bool lengths = box.version() == 1;
    quint32 defaultLength = 0;
    if (lengths)
        defaultLength = box.u32("default_length", QStringLiteral("bytes; 0: each entry says"));
    if (box.version() >= 2)
        box.u32("default_group_description_index",
                QStringLiteral("the entry of samples no sbgp maps"));
    const quint32 count = box.u32("entry_count");
    const QString entry = QStringLiteral("entry");
    const QString descriptionLength = QStringLiteral("description_length");
    const quint64 lengthWidth = lengths && defaultLength == 0 ? 4 : 0;
    for (quint32 i = 0; i < count && box.ok() && box.available() > 0; ++i) {
        // Sized up front, as the report shows an entry's size before its fields.
        const quint64 length = lengthWidth != 0 ? box.peekUnsigned(4) : defaultLength;
        const quint64 fieldsSize = groupEntrySize(box, groupingType, lengthWidth);
        const bool decoded = fieldsSize != 0 && (!lengths || fieldsSize <= length);
        const quint64 size = lengths ? lengthWidth + length : decoded ? fieldsSize : box.left();
        box.beginGroup(entry, i, qMin(size, box.available()));
        if (lengthWidth != 0)
            box.unsignedField(descriptionLength, 4);
        if (decoded) {
            parseGroupEntry(box, groupingType);
            if (lengths && fieldsSize < length)
                box.data("data", length - fieldsSize);
        } else {
            box.data("data", lengths ? length : box.left());
        }
        box.endGroup();
    }
    box.rest();
    return ContainerAbstract::ParseOk;
}

// subs: the parts of samples, such as the NAL units of a video sample; an entry's sample
// is sample_delta samples behind the previous entry's.
int parseSubSamples(PayloadReader &box)
{
    const quint32 count = box.u32("entry_count");
    const int sizeWidth = box.version() == 1 ? 4 : 2;
    const quint64 subsampleBytes = quint64(sizeWidth) + 6;
    const QString entry = QStringLiteral("entry");
    const QString sampleDelta = QStringLiteral("sample_delta");
    const QString subsampleCount = QStringLiteral("subsample_count");
    const QString subsample = QStringLiteral("subsample");
    const QString subsampleSize = QStringLiteral("subsample_size");
    const QString priority = QStringLiteral("subsample_priority");
    const QString discardable = QStringLiteral("discardable");
    const QString notNeeded = QStringLiteral("not needed to decode the sample");
    const QString parameters = QStringLiteral("codec_specific_parameters");
    for (quint32 i = 0; i < count && box.available() >= 6; ++i) {
        const quint64 size = 6 + box.peekUnsigned(2, 4) * subsampleBytes;
        box.beginGroup(entry, i, qMin(size, box.available()));
        box.unsignedField(sampleDelta, 4);
        const quint64 subsamples = box.unsignedField(subsampleCount, 2);
        for (quint64 j = 0; j < subsamples && box.available() >= subsampleBytes; ++j) {
            box.beginGroup(subsample, qint64(j), subsampleBytes);
            box.unsignedField(subsampleSize, sizeWidth);
            box.unsignedField(priority, 1);
            box.unsignedField(discardable, 1, box.peekUnsigned(1) == 1 ? notNeeded : QString());
            box.unsignedField(parameters, 4);
            box.endGroup();
        }
        box.endGroup();
    }
    box.rest();
    return ContainerAbstract::ParseOk;
}

// The type of the auxiliary information of saiz and saio, when flag 1 says it is there.
void parseAuxInfoType(PayloadReader &box)
{
    if (box.flags() & 1) {
        box.fourcc("aux_info_type");
        box.u32("aux_info_type_parameter");
    }
}

// saiz: the sizes of each sample's auxiliary information, such as its IV and subsamples.
int parseAuxInfoSizes(PayloadReader &box)
{
    parseAuxInfoType(box);
    const quint8 defaultSize =
        box.u8("default_sample_info_size", QStringLiteral("bytes; 0: each sample says"));
    const quint32 count = box.u32("sample_count");
    if (defaultSize == 0) {
        const QString infoSize = QStringLiteral("sample_info_size");
        for (quint32 i = 0; i < count && box.available() >= 1; ++i)
            box.listField(infoSize, 1, i);
    }
    box.rest();
    return ContainerAbstract::ParseOk;
}

// saio: where the auxiliary information lies; 32-bit offsets in version 0, 64-bit in 1.
int parseAuxInfoOffsets(PayloadReader &box)
{
    if (box.version() > 1) {
        box.rest();
        return ContainerAbstract::ParseOk;
    }
    parseAuxInfoType(box);
    const quint32 count = box.u32("entry_count");
    const int width = box.version() == 1 ? 8 : 4;
    const QString offset = QStringLiteral("offset");
    for (quint32 i = 0; i < count && box.available() >= quint64(width); ++i)
        box.listField(offset, width, i);
    box.rest();
    return ContainerAbstract::ParseOk;
}

// padb: the padding bits at the end of each sample, two samples to a byte.
int parsePaddingBits(PayloadReader &box)
{
    const quint32 count = box.u32("sample_count");
    const QString entry = QStringLiteral("entry");
    const QString reserved = QStringLiteral("reserved");
    const QString pad1 = QStringLiteral("pad1");
    const QString pad2 = QStringLiteral("pad2");
    for (quint64 i = 0; i < (quint64(count) + 1) / 2 && box.available() >= 1; ++i) {
        box.beginGroup(entry, qint64(i), 1);
        PayloadReader::Bits pair = box.bits(1);
        pair.field(reserved, 1);
        pair.field(pad1, 3);
        pair.field(reserved, 1);
        pair.field(pad2, 3);
        box.endGroup();
    }
    box.rest();
    return ContainerAbstract::ParseOk;
}

} // namespace

DeepRows sampleTableRows()
{
    return {
        {"ctts", DeepPlain, 1, parseCompositionOffsets},
        {"stz2", DeepPlain, 1, parseCompactSampleSizes},
        {"cslg", DeepPlain, 1, parseCompositionShift},
        {"sdtp", DeepPlain, 1, parseSampleDependencies},
        {"stsh", DeepPlain, 1, parseShadowSyncSamples},
        {"sbgp", DeepPlain, 1, parseSampleToGroup},
        {"sgpd", DeepPlain, 1, parseSampleGroupDescription},
        {"subs", DeepPlain, 1, parseSubSamples},
        {"saiz", DeepPlain, 1, parseAuxInfoSizes},
        {"saio", DeepPlain, 1, parseAuxInfoOffsets},
        {"padb", DeepPlain, 1, parsePaddingBits},
    };
}

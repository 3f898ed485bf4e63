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
        track->compositionOffsets = TableBox{box.at(), box.left(), box.version(), true};
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
    const TableBox table{box.at(), box.left(), box.version(), true};
    box.u24("reserved");
    const quint8 fieldSize = box.u8("field_size", QStringLiteral("bits per entry: 4, 8 or 16"));
    const quint32 count = box.u32("sample_count");
    if (TrackContext *track = box.track()) {
        track->sampleSizes = table;
        track->compactFieldSize = fieldSize;
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

} // namespace

DeepRows sampleTableRows()
{
    return {
        {"ctts", DeepPlain, 1, parseCompositionOffsets},
        {"stz2", DeepPlain, 1, parseCompactSampleSizes},
    };
}

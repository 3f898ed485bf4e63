#include "DeepAnalysis.h"
#include "DeepRows.h"
#include "PayloadReader.h"
#include "boxes/HeaderFields.h"

// The boxes that lead to a track's samples. Most are reported as without deep analysis,
// by their basic parser; deep analysis takes note of the facts of the track they hold and
// of where its sample tables lie, for the walk of its samples at the end.

namespace {

// The width of the times of a header: 8 bytes in version 1 and 4 in every other.
quint64 timeWidth(const PayloadReader &box)
{
    return HeaderFields::wideWidth(box.version());
}

// The ISO 639-2 code of a language word; empty where the word holds none, such as the
// Macintosh language codes below 0x400 that QuickTime files carry.
QString languageCode(quint16 word)
{
    const QString code = HeaderFields::language(word);
    for (const QChar letter : code) {
        if (letter < QLatin1Char('a') || letter > QLatin1Char('z'))
            return QString();
    }
    return code;
}

int parseMovieHeader(PayloadReader &box)
{
    if (DeepAnalysis *deep = box.deep())
        deep->movieTimescale = quint32(box.peekUnsigned(4, 2 * timeWidth(box)));
    return box.parseBasic();
}

int parseTrackHeader(PayloadReader &box)
{
    if (TrackFacts *facts = box.facts())
        facts->trackId = quint32(box.peekUnsigned(4, 2 * timeWidth(box)));
    return box.parseBasic();
}

int parseMediaHeader(PayloadReader &box)
{
    const quint64 w = timeWidth(box);
    if (TrackFacts *facts = box.facts()) {
        facts->timescale = quint32(box.peekUnsigned(4, 2 * w));
        facts->duration = box.peekUnsigned(int(w), 2 * w + 4);
        facts->language = languageCode(quint16(box.peekUnsigned(2, 3 * w + 4)));
    }
    return box.parseBasic();
}

// hdlr, as QuickTime writes it too: there the pre_defined word is the component type
// ("mhlr" for a media handler, "dhlr" for a data handler), the handler type its subtype, the
// reserved words the manufacturer and flags, and the name a counted string. Only the handler
// of a track's media tells what the track holds; a data handler inside minf does not.
int parseHandler(PayloadReader &box)
{
    const bool quickTime = box.peekUnsigned(4) != 0;
    if (quickTime)
        box.fourcc("pre_defined", QStringLiteral("QuickTime component type"));
    else
        box.u32("pre_defined");
    const QString handlerType = box.fourcc(
        "handler_type", quickTime ? QStringLiteral("QuickTime component subtype") : QString());
    box.u32("reserved", quickTime ? QStringLiteral("QuickTime component manufacturer") : QString());
    box.u32("reserved", quickTime ? QStringLiteral("QuickTime component flags") : QString());
    box.u32("reserved", quickTime ? QStringLiteral("QuickTime component flags mask") : QString());
    const quint64 length = box.peekUnsigned(1);
    if (quickTime && length > 0 && length < box.left()) {
        box.u8("name_length");
        box.utf8("name", length);
    } else if (box.left() > 0) {
        box.nullTerminated("name");
    }
    box.rest("padding");
    if (box.parentType() == QLatin1String("mdia") && box.ok()) {
        if (TrackFacts *facts = box.facts())
            facts->handlerType = handlerType;
    }
    return ContainerAbstract::ParseOk;
}

// elst: reported as without deep analysis; its edits are kept for the presentation times.
int parseEditList(PayloadReader &box)
{
    const quint64 w = box.version() == 1 ? 8 : box.version() == 0 ? 4 : 0;
    if (TrackContext *track = box.track(); track && w != 0) {
        track->hasEditList = true;
        track->edits.clear();
        const quint64 count = box.peekUnsigned(4);
        const quint64 entrySize = 2 * w + 4;
        for (quint64 i = 0; i < count; ++i) {
            const quint64 at = 4 + i * entrySize;
            unsigned char entry[20];
            if (!box.peek(entry, entrySize, at))
                break;
            Edit edit;
            edit.segmentDuration = box.peekUnsigned(int(w), at);
            const quint64 mediaTime = box.peekUnsigned(int(w), at + w);
            edit.mediaTime = w == 8 ? qint64(mediaTime) : qint64(qint32(quint32(mediaTime)));
            edit.rate = qint16(box.peekUnsigned(2, at + 2 * w));
            track->edits.push_back(edit);
        }
    }
    return box.parseBasic();
}

// The sample tables with a basic parser: reported as without deep analysis, and noted.
template <TableBox TrackContext::*table> int parseNotedTable(PayloadReader &box)
{
    if (TrackContext *track = box.track())
        track->*table = TableBox{box.at(), box.left(), box.version(), true};
    return box.parseBasic();
}

template <quint32 width> int parseChunkOffsets(PayloadReader &box)
{
    if (TrackContext *track = box.track())
        track->chunkOffsetWidth = width;
    return parseNotedTable<&TrackContext::chunkOffsets>(box);
}

int parseSampleSizes(PayloadReader &box)
{
    if (TrackContext *track = box.track())
        track->compactFieldSize = 0;
    return parseNotedTable<&TrackContext::sampleSizes>(box);
}

} // namespace

DeepRows trackStructureRows()
{
    return {
        {"mvhd", DeepPlain, 1, parseMovieHeader},
        {"tkhd", DeepPlain, 1, parseTrackHeader},
        {"mdhd", DeepPlain, 1, parseMediaHeader},
        {"hdlr", DeepPlain, 1, parseHandler},
        {"elst", DeepPlain, 1, parseEditList},
        {"stts", DeepPlain, 1, parseNotedTable<&TrackContext::timeToSample>},
        {"stsc", DeepPlain, 1, parseNotedTable<&TrackContext::sampleToChunk>},
        {"stss", DeepPlain, 1, parseNotedTable<&TrackContext::syncSamples>},
        {"stsz", DeepPlain, 1, parseSampleSizes},
        {"stco", DeepPlain, 1, parseChunkOffsets<4>},
        {"co64", DeepPlain, 1, parseChunkOffsets<8>},
    };
}

#include "DeepRows.h"
#include "PayloadReader.h"

// The handler of a track's media, which tells what the track holds. The other boxes that lead
// to a track's samples are reported by their basic parsers; the walk notes where they lie, and
// deep analysis reads them again at the end.

namespace {

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
        if (StreamInfo *stream = box.stream())
            stream->handlerType = handlerType;
    }
    return ContainerAbstract::ParseOk;
}

} // namespace

DeepRows handlerRows()
{
    return {
        {"hdlr", DeepPlain, 1, parseHandler},
    };
}

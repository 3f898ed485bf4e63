#include "ContainerMP4.h"
#include "Render.h"

#include <memory>
#include <new>

// hdlr: the kind of media a track holds, and a name for people. Every hdlr read, wherever
// it stands, decides whether what follows belongs to a video track.
int ContainerMP4::parseBoxHDLR(quint64 offset, quint64 size)
{
    quint32 preDefined = 0;
    input.readBytes(reinterpret_cast<char *>(&preDefined), 4);
    swapBytes(&preDefined, 4);
    reportField(offset, 4, "pre_defined", Render::u32(preDefined, valueBase));

    input.seek(qint64(offset + 4));
    char handlerBytes[4] = {};
    input.readBytes(handlerBytes, 4);
    const QString handlerType = Render::latin1Text(handlerBytes, 4);
    currentTrackType = handlerType == QLatin1String("vide") ? VideoTrack : OtherTrack;
    reportField(offset + 4, 4, "handler_type", handlerType);
    // The handler of a track's media tells what its stream holds; a data handler inside minf
    // does not.
    if (openTrakBoxes > 0 && boxPath.size() >= 2 &&
        boxPath[boxPath.size() - 2] == QLatin1String("mdia"))
        currentStream()->handlerType = handlerType;

    input.seek(qint64(offset + 8));
    quint32 reserved[3] = {};
    input.readBytes(reinterpret_cast<char *>(reserved), sizeof reserved);
    for (int i = 0; i < 3; ++i) {
        swapBytes(&reserved[i], 4);
        reportField(offset + 8 + 4 * quint64(i), 4, "reserved",
                    Render::u32(reserved[i], valueBase));
    }

    // The name fills the rest of the box. Only the bytes the input holds are read, so a
    // size larger than the file costs no memory; a payload too short for the fixed fields
    // leaves an empty name.
    const quint64 nameSize = size > 20 ? size - 20 : 0;
    const quint64 nameStart = offset + 20;
    const quint64 wanted = qMin(nameSize, input.bytesFrom(nameStart));
    std::unique_ptr<char[]> name(new (std::nothrow) char[wanted + 1]());
    if (!name)
        return ParseOutOfMemory;
    input.seek(qint64(nameStart));
    const qint64 delivered = input.readBytes(name.get(), qint64(wanted));
    reportField(offset + 20, nameSize, "name",
                Render::latin1Text(name.get(), qsizetype(delivered)));

    input.seek(qint64(offset));
    return ParseOk;
}

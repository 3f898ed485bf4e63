#include "ContainerMP4.h"
#include "Render.h"
#include "TableReading.h"

// stco and co64: the file offset of each chunk, 32 or 64 bits wide. Both record 8-byte
// offsets into the same buffer, so a track may mix them, in the order of the boxes.
int ContainerMP4::parseBoxSTCO(quint64 offset, quint64 size)
{
    return parseChunkOffsets(offset, size, 4);
}

int ContainerMP4::parseBoxCO64(quint64 offset, quint64 size)
{
    return parseChunkOffsets(offset, size, 8);
}

int ContainerMP4::parseChunkOffsets(quint64 offset, quint64 size, quint64 width)
{
    TableReader reader(input, offset, size);
    quint32 entryCount = 0;
    if (reportTableWord(reader, offset, 0, "entry_count", &entryCount)) {

        TableRecorder recorder(
            recordingDevice(&ContainerMP4::chunkOffsetTables, entryCount, int(width), size, 8));
        const QString name = QStringLiteral("chunk_offset");
        Render::NumberText number;
        for (quint32 i = 0; i < entryCount; ++i) {
            const quint64 position = 4 + width * quint64(i);
            quint64 chunkOffset = 0;
            if (width == 4) {
                quint32 narrow = 0;
                if (!reader.read(position, &narrow, 4))
                    break;
                swapBytes(&narrow, 4);
                chunkOffset = narrow;
            } else {
                if (!reader.read(position, &chunkOffset, 8))
                    break;
                swapBytes(&chunkOffset, 8);
            }
            if (treeWanted)
                reportListField(offset + position, width, name,
                                number.render(chunkOffset, valueBase), i);
            recorder.record(&chunkOffset, 8);
        }
    }
    input.seek(qint64(offset));
    return ParseOk;
}

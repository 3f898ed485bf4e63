#include "ContainerMP4.h"
#include "Render.h"
#include "TableReading.h"

// stsz: the size of each sample, or one size for all. A video track records a leading word,
// 1 for a constant size and the sample count otherwise, then the size words, and sets the
// stream's sample count. A second stsz in one track starts the buffer over.
int ContainerMP4::parseBoxSTSZ(quint64 offset, quint64 size)
{
    TableReader reader(input, offset, size);
    quint32 sampleSize = 0;
    if (!reportTableWord(reader, offset, 0, "sample_size", &sampleSize) ||
        !reportTableWord(reader, offset, 4, "sample_count", &sampleCount)) {
        input.seek(qint64(offset));
        return ParseOk;
    }

    QIODevice *device = recordingDevice(&ContainerMP4::sampleSizeTables,
                                        sampleSize != 0 ? 1 : sampleCount, 4, size, 4);
    if (device) {
        const quint32 leadingWord = sampleSize != 0 ? 1 : sampleCount;
        device->seek(0);
        device->write(reinterpret_cast<const char *>(&leadingWord), 4);
        device->seek(4);
        sampleCounts.last() = sampleCount;
    }

    TableRecorder recorder(device);
    if (sampleSize != 0) {
        recorder.record(&sampleSize, 4);
    } else {
        quint32 entrySize = 0;
        const QString name = QStringLiteral("entry_size");
        Render::NumberText number;
        for (quint32 i = 0; i < sampleCount && reader.read(8 + 4 * quint64(i), &entrySize, 4);
             ++i) {
            swapBytes(&entrySize, 4);
            if (treeWanted)
                reportListField(offset + 8 + 4 * quint64(i), 4, name,
                                number.render(entrySize, valueBase), i);
            recorder.record(&entrySize, 4);
        }
    }
    input.seek(qint64(offset));
    return ParseOk;
}

#include "ContainerMP4.h"
#include "Render.h"
#include "TableReading.h"

// stss: the 1-based numbers of the sync samples. A video track records them unchanged and
// notes that it has the table: a track without one has every sample a key frame, a track
// whose table is empty has none.
int ContainerMP4::parseBoxSTSS(quint64 offset, quint64 size)
{
    TableReader reader(input, offset, size);
    quint32 entryCount = 0;
    if (reportTableWord(reader, offset, 0, "entry_count", &entryCount)) {

        QIODevice *device =
            recordingDevice(&ContainerMP4::syncSampleTables, entryCount, 4, size, 4);
        if (device)
            syncTableSeen.last() = true;
        TableRecorder recorder(device);
        quint32 sampleNumber = 0;
        const QString name = QStringLiteral("sample_number");
        Render::NumberText number;
        for (quint32 i = 0; i < entryCount && reader.read(4 + 4 * quint64(i), &sampleNumber, 4);
             ++i) {
            swapBytes(&sampleNumber, 4);
            if (treeWanted)
                reportListField(offset + 4 + 4 * quint64(i), 4, name,
                                number.render(sampleNumber, valueBase), i);
            recorder.record(&sampleNumber, 4);
        }
    }
    input.seek(qint64(offset));
    return ParseOk;
}

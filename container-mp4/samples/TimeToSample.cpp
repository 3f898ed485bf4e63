#include "ContainerMP4.h"
#include "Render.h"
#include "TableReading.h"

// stts: runs of samples of equal duration. A video track records one delta word per sample,
// so that the sample walk reads each sample's duration without run logic. All tracks
// together record at most one word per input byte; a run beyond that is cut, and the walk
// then keeps the last delta it read.
int ContainerMP4::parseBoxSTTS(quint64 offset, quint64 size)
{
    TableReader reader(input, offset, size);
    quint32 entryCount = 0;
    if (reportTableWord(reader, offset, 0, "entry_count", &entryCount)) {

        QIODevice *device = recordingDevice(&ContainerMP4::timeToSampleTables);
        TableRecorder recorder(device);
        const quint64 wordLimit = quint64(input.size());
        const QString countName = QStringLiteral("sample_count");
        const QString deltaName = QStringLiteral("sample_delta");
        quint32 entry[2];
        Render::NumberText number;
        for (quint32 i = 0; i < entryCount && reader.read(4 + 8 * quint64(i), entry, 8); ++i) {
            swapBytes(&entry[0], 4);
            swapBytes(&entry[1], 4);
            if (treeWanted) {
                const quint64 position = offset + 4 + 8 * quint64(i);
                beginElement(position, 8, QStringLiteral("entry"), i);
                reportField(position, 4, countName, number.render(entry[0], valueBase));
                reportField(position + 4, 4, deltaName, number.render(entry[1], valueBase));
                endElement();
            }

            if (!device)
                continue;
            const quint64 allowed =
                timeToSampleWords < wordLimit ? wordLimit - timeToSampleWords : 0;
            const quint64 words = qMin<quint64>(entry[0], allowed);
            timeToSampleWords += words;
            recorder.recordWords(entry[1], words);
        }
    }
    input.seek(qint64(offset));
    return ParseOk;
}

#include "ContainerMP4.h"
#include "Render.h"
#include "TableReading.h"

// stsc: from which chunk on how many samples a chunk holds. A video track records the entry
// count as a leading word and then each entry as a 12-byte record; a second stsc in one
// track starts the buffer over.
int ContainerMP4::parseBoxSTSC(quint64 offset, quint64 size)
{
    TableReader reader(input, offset, size);
    quint32 entryCount = 0;
    if (reportTableWord(reader, offset, 0, "entry_count", &entryCount)) {

        QIODevice *device =
            recordingDevice(&ContainerMP4::sampleToChunkTables, entryCount, 12, size, 12);
        if (device) {
            device->seek(0);
            device->write(reinterpret_cast<const char *>(&entryCount), 4);
            device->seek(4);
        }
        TableRecorder recorder(device);
        const QString names[3] = {QStringLiteral("first_chunk"),
                                  QStringLiteral("samples_per_chunk"),
                                  QStringLiteral("sample_description_index")};
        Render::NumberText number;
        quint32 entry[3];
        for (quint32 i = 0; i < entryCount && reader.read(4 + 12 * quint64(i), entry, 12); ++i) {
            for (quint32 &word : entry)
                swapBytes(&word, 4);
            if (treeWanted) {
                const quint64 position = offset + 4 + 12 * quint64(i);
                beginElement(position, 12, QStringLiteral("entry"), i);
                for (int word = 0; word < 3; ++word)
                    reportField(position + 4 * quint64(word), 4, names[word],
                                number.render(entry[word], valueBase));
                endElement();
            }
            recorder.record(entry, 12);
        }
    }
    input.seek(qint64(offset));
    return ParseOk;
}

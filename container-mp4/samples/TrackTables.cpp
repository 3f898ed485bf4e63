#include "ContainerMP4.h"
#include "Render.h"
#include "TableReading.h"

#include <QBuffer>

// Each trak box opens a stream: a record, a sample count, a sample output (none until the
// track proves to be video) and a place in each of the five table lists. The table buffers
// themselves are made when a video track first records into them, so that tracks which
// record nothing, however many a file holds, cost no device each.
int ContainerMP4::beginTrack()
{
    const int stream = openStream();
    for (TableList list : TableLists)
        (this->*list).append(nullptr);
    syncTableSeen.append(false);
    currentTrackType = OtherTrack;
    return stream;
}

void ContainerMP4::endTrack(int stream)
{
    if (currentTrackType == VideoTrack)
        enableSampleOutput(stream);
}

QIODevice *ContainerMP4::recordingDevice(TableList list)
{
    QVector<QIODevice *> &tables = this->*list;
    if (currentTrackType != VideoTrack || tables.isEmpty())
        return nullptr;
    if (!tables.last()) {
        auto *buffer = new QBuffer();
        buffer->open(QIODevice::ReadWrite);
        tables.last() = buffer;
    }
    return tables.last();
}

bool ContainerMP4::reportTableWord(TableReader &reader, quint64 offset, quint64 position,
                                   const char *name, quint32 *word)
{
    if (!reader.read(position, word, 4))
        return false;
    swapBytes(word, 4);
    reportField(offset + position, 4, name, Render::u32(*word, valueBase));
    return true;
}

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
    trackContexts.emplace_back();
    streams[stream]->boxPath = pathText();
    currentTrackType = OtherTrack;
    return stream;
}

void ContainerMP4::endTrack(int stream)
{
    if (currentTrackType == VideoTrack)
        enableSampleOutput(stream);
}

void ContainerMP4::noteBox(NotedBox kind, quint64 payload, quint64 size)
{
    if (kind == NotedBox::None)
        return;
    if (kind == NotedBox::FileType) {
        if (!fileType.present && boxPath.size() == 1)
            fileType = TableBox{payload, size, 0, true, QString()};
        return;
    }
    const TableBox box{payload, size, boxVersion, true, pathText(), inflatedSource, currentFile};
    if (kind == NotedBox::MovieHeader)
        movieHeader = box;
    if (kind == NotedBox::MediaData)
        mediaDataBoxes.push_back(box);
    if (kind == NotedBox::MovieHeader || kind == NotedBox::MediaData || openTrakBoxes == 0)
        return;
    TrackContext &track = trackContexts.back();
    switch (kind) {
    case NotedBox::TrackHeader:
        track.trackHeader = box;
        break;
    case NotedBox::MediaHeader:
        track.mediaHeader = box;
        break;
    case NotedBox::EditList:
        track.editList = box;
        break;
    case NotedBox::TimeToSample:
        track.timeToSample = box;
        break;
    case NotedBox::SampleToChunk:
        track.sampleToChunk = box;
        break;
    case NotedBox::SampleSizes:
        track.sampleSizes = box;
        track.compactSampleSizes = false;
        break;
    case NotedBox::ChunkOffsets:
    case NotedBox::ChunkOffsets64:
        track.chunkOffsets = box;
        track.chunkOffsetWidth = kind == NotedBox::ChunkOffsets ? 4 : 8;
        break;
    case NotedBox::SyncSamples:
        track.syncSamples = box;
        break;
    case NotedBox::None:
    case NotedBox::FileType:
    case NotedBox::MovieHeader:
    case NotedBox::MediaData:
        break;
    }
}

QIODevice *ContainerMP4::recordingDevice(TableList list, quint64 entries, int entryWidth,
                                         quint64 boxSize, int recordWidth)
{
    QVector<QIODevice *> &tables = this->*list;
    if (currentTrackType != VideoTrack || tables.isEmpty())
        return nullptr;
    auto *buffer = static_cast<QBuffer *>(tables.last());
    if (!buffer) {
        buffer = new QBuffer();
        buffer->open(QIODevice::ReadWrite);
        tables.last() = buffer;
    }
    // Room for the records of the entries the box holds (and a leading word), at once: a
    // buffer that grows as they come is copied over and over. A count the box does not back
    // reserves nothing beyond it, nor does a box that claims more bytes than the input has.
    if (entryWidth > 0) {
        const quint64 bytes = qMin(boxSize, quint64(qMax<qint64>(input.size(), 0)));
        const quint64 held = qMin(entries, bytes / quint64(entryWidth));
        buffer->buffer().reserve(qsizetype(buffer->pos() + 8 + held * quint64(recordWidth)));
    }
    return buffer;
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

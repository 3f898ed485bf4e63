#include "ContainerMP4.h"

namespace {
// Reads one table buffer of a stream record by record, from a position of its own. A read
// that finds the end of the buffer delivers nothing and leaves its target alone; the
// position moves on all the same. A table the track never recorded reads as empty.
class TableCursor {
public:
    TableCursor(QIODevice *device, qint64 position)
        : device(device)
        , position(position)
    {
    }

    // Reads the record at the position and moves behind it.
    bool read(void *record, qint64 width)
    {
        const bool whole = peek(record, width);
        position += width;
        return whole;
    }

    // Reads the record at the position and stays there.
    bool peek(void *record, qint64 width)
    {
        if (!device || position + width > device->size())
            return false;
        device->seek(position);
        return device->read(static_cast<char *>(record), width) == width;
    }

    void skip(qint64 width) { position += width; }

private:
    QIODevice *device;
    qint64 position;
};
} // namespace

// The samples of each video stream, from the tables its track recorded: chunk after chunk,
// and inside a chunk one sample after the other. All streams together report at most one
// sample per input byte; once that is spent, no stream reports more. Deep analysis walks the
// samples of every track in a way of its own (deep/TrackSampleWalk.cpp).
void ContainerMP4::finalizeParsing()
{
    reportFileFacts({TrackBoxes::majorBrand(input, fileType),
                     TrackBoxes::timescale(input, movieHeader),
                     TrackBoxes::duration(input, movieHeader)});
    checkTracks();
    if (deep) {
        checkSegmentsAtEnd();
        walkTrackSamples();
        reportItems();
        return;
    }
    quint64 samplesLeft = quint64(qMax<qint64>(input.size(), 0));
    for (int stream = 0; stream < sampleOutputs.size() && samplesLeft > 0; ++stream) {
        if (sampleOutputs[stream])
            walkStream(stream, samplesLeft);
    }
}

void ContainerMP4::walkStream(int stream, quint64 &samplesLeft)
{
    // Sample-to-chunk: leading entry count, then 12-byte records. Sample size: leading word,
    // then size words. Chunk offsets: 8-byte records. Deltas and sync numbers: 4-byte words.
    TableCursor records(sampleToChunkTables[stream], 0);
    TableCursor sizes(sampleSizeTables[stream], 0);
    TableCursor chunkOffsets(chunkOffsetTables[stream], 0);
    TableCursor deltas(timeToSampleTables[stream], 0);
    TableCursor syncNumbers(syncSampleTables[stream], 0);
    const quint64 sampleTotal = sampleCounts[stream];

    // Without the first record of the sample-to-chunk, sample size or chunk offset table no
    // sample can be placed. The first record of sample-to-chunk holds from chunk 1 on,
    // whatever its first_chunk says.
    quint32 recordCount = 0;
    quint32 leadingWord = 0;
    quint32 sampleSize = 0;
    quint64 chunkOffset = 0;
    quint32 chunkRecord[3] = {}; // first_chunk, samples_per_chunk, sample_description_index
    if (!records.read(&recordCount, 4) || !sizes.read(&leadingWord, 4) ||
        !sizes.peek(&sampleSize, 4) || !chunkOffsets.read(&chunkOffset, 8) ||
        !records.read(chunkRecord, 12))
        return;
    // A leading word of 1 means one size word stands for every sample.
    const bool constantSize = leadingWord == 1;

    // An empty time-to-sample table leaves every duration and time at 0.
    quint32 sampleDelta = 0;
    deltas.read(&sampleDelta, 4);
    // The 0-based index of the next key frame; read as signed, so that an index the count
    // of samples can never reach, such as -1 from a sync number 0 or from an empty table,
    // flags nothing. A track without a sync table has every sample a key frame.
    const bool everySampleKey = !syncTableSeen[stream];
    quint32 nextKey = 0;
    syncNumbers.read(&nextKey, 4);
    nextKey -= 1;

    quint32 recordsLeft = recordCount - 1;
    quint32 samplesPerChunk = chunkRecord[1];
    quint32 chunkNumber = 1;
    quint64 sampleIndex = 0;
    currentSample.offset = chunkOffset;
    currentSample.size = 0;
    currentSample.dts = 0;
    currentSample.pts = 0;
    currentSample.duration = sampleDelta;
    currentSample.keyFrame = 0;

    for (;;) {
        // A chunk that would pass the stream's sample count is cut at it.
        for (quint32 inChunk = 0; inChunk < samplesPerChunk; ++inChunk) {
            if (sampleIndex == sampleTotal || samplesLeft == 0)
                return;
            --samplesLeft;
            if (!constantSize)
                sizes.read(&sampleSize, 4);
            currentSample.size = sampleSize;
            const bool isNextKey = sampleIndex == quint64(qint64(qint32(nextKey)));
            if (isNextKey) {
                syncNumbers.read(&nextKey, 4);
                nextKey -= 1;
            }
            currentSample.keyFrame = everySampleKey || isNextKey ? 1 : 0;
            reportSample(uint(stream), sampleIndex);

            // The times of a sample are those at its start; the next one starts behind it.
            currentSample.offset += sampleSize;
            currentSample.dts += sampleDelta;
            currentSample.pts += sampleDelta;
            deltas.read(&sampleDelta, 4);
            ++sampleIndex;
            currentSample.duration = sampleDelta;
        }

        // The stream ends with its last sample, with its last chunk offset, or where no
        // later record can give a chunk any sample.
        if (sampleIndex == sampleTotal || (samplesPerChunk == 0 && recordsLeft == 0) ||
            !chunkOffsets.read(&chunkOffset, 8))
            return;
        ++chunkNumber;
        currentSample.offset = chunkOffset;

        // The next record is taken up at the chunk its first_chunk names, and only there.
        if (recordsLeft == 0)
            continue;
        records.peek(chunkRecord, 12);
        if (chunkRecord[0] != chunkNumber)
            continue;
        records.skip(12);
        --recordsLeft;
        samplesPerChunk = chunkRecord[1];
    }
}

#include "SampleArrays.h"

#include <cstring>
#include <new>

void *RowBlocks::append()
{
    const size_t inBlock = size_t(rows % RowsPerBlock);
    if (inBlock == 0)
        blocks.push_back(std::make_unique<char[]>(RowsPerBlock * rowSize));
    ++rows;
    return blocks.back().get() + inBlock * rowSize;
}

void RowBlocks::moveTo(char *target)
{
    quint64 left = rows;
    for (std::unique_ptr<char[]> &block : blocks) {
        const size_t count = size_t(qMin<quint64>(left, RowsPerBlock));
        std::memcpy(target, block.get(), count * rowSize);
        target += count * rowSize;
        left -= count;
        block.reset();
    }
    blocks.clear();
    rows = 0;
}

void SampleArrays::reportError(const QString &, const QString &problem)
{
    error = problem;
}

void SampleArrays::beginReport(const QString &name, quint64 size)
{
    fileName = name;
    fileSize = size;
}

void SampleArrays::beginStream(int index, const StreamInfo &info)
{
    streams.push_back({index, info, RowBlocks(deep ? sizeof(TrackSampleRow) : sizeof(SampleRow))});
}

void SampleArrays::addSample(quint64 sampleIndex, const Sample &sample)
{
    if (streams.empty())
        return;
    // In deep analysis every row has the deep columns; those a plain sample lacks stay unset.
    void *place = streams.back().rows.append();
    SampleRow *row = deep ? &(new (place) TrackSampleRow)->sample : new (place) SampleRow;
    row->index = sampleIndex;
    row->offset = sample.offset;
    row->size = sample.size;
    row->dts = sample.dts;
    row->pts = sample.pts;
    row->duration = sample.duration;
    row->key = sample.keyFrame != 0;
}

void SampleArrays::addTrackSample(quint64 sampleIndex, const TrackSample &sample)
{
    if (streams.empty())
        return;
    if (!deep) {
        ReportSink::addTrackSample(sampleIndex, sample);
        return;
    }
    auto *row = new (streams.back().rows.append()) TrackSampleRow;
    row->sample.index = sampleIndex;
    row->sample.offset = sample.offset;
    row->sample.size = sample.size;
    row->sample.dts = sample.dts;
    row->sample.pts = sample.pts;
    row->sample.duration = sample.duration;
    row->sample.key = sample.keyFrame;
    row->presented = sample.presentationTime.has_value();
    row->presentationTime = sample.presentationTime.value_or(0);
    if (const std::optional<FragmentOrigin> &origin = sample.fragment) {
        row->moof = qint64(origin->moof);
        row->moofOffset = qint64(origin->moofOffset);
        row->traf = qint64(origin->traf);
        row->trun = qint64(origin->trun);
        row->trunEntry = qint64(origin->trunEntry);
    } else {
        row->chunk = sample.chunk;
        row->stscEntry = sample.sampleToChunkEntry;
        row->sttsEntry = sample.timeToSampleEntry;
        row->cttsEntry = sample.compositionEntry;
    }
}

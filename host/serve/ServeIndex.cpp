#include "ServeIndex.h"

void ServeIndex::reportError(const QString &fileName, const QString &problem)
{
    fileList.push_back({fileName, problem, nullptr});
}

void ServeIndex::beginReport(const QString &fileName, quint64 fileSize)
{
    auto index = std::make_unique<FileIndex>(fileName, containerName);
    current = index.get();
    fileList.push_back({fileName, QString(), std::move(index)});
    current->beginReport(fileName, fileSize);
}

void ServeIndex::endReport()
{
    if (!current)
        return;
    current->endReport();
    File &file = fileList.back();
    const QString problem = current->problem();
    if (!problem.isEmpty()) {
        file.error =
            QStringLiteral("the index of the report could not be written: %1").arg(problem);
        file.index.reset();
    }
    current = nullptr;
}

void ServeIndex::beginElement(quint64 offset, quint64 size, const QString &name, qint64 index)
{
    if (current)
        current->beginElement(offset, size, name, index);
}

void ServeIndex::setElementOffset(quint64 offset)
{
    if (current)
        current->setElementOffset(offset);
}

void ServeIndex::setElementSize(quint64 size)
{
    if (current)
        current->setElementSize(size);
}

void ServeIndex::setElementNote(const QString &text)
{
    if (current)
        current->setElementNote(text);
}

void ServeIndex::setElementValue(const QString &text)
{
    if (current)
        current->setElementValue(text);
}

void ServeIndex::setElementState(ElementState state)
{
    if (current)
        current->setElementState(state);
}

void ServeIndex::endElement()
{
    if (current)
        current->endElement();
}

void ServeIndex::addField(bool bitField, quint64 offset, quint8 bitOffset, quint64 size,
                          const QString &name, const QString &value, const QString &extra,
                          const QString &comment, qint64 index)
{
    if (current)
        current->addField(bitField, offset, bitOffset, size, name, value, extra, comment, index);
}

void ServeIndex::addPayloadField(quint64 offset, quint64 size, const QString &name, Payload payload)
{
    if (current)
        current->addPayloadField(offset, size, name, payload);
}

void ServeIndex::addRawField(quint64 offset, quint64 size, const quint8 *data, const QString &name,
                             const QString &comment)
{
    if (current)
        current->addRawField(offset, size, data, name, comment);
}

void ServeIndex::beginStream(int index, const StreamInfo &info)
{
    if (current)
        current->beginStream(index, info);
}

void ServeIndex::addSample(quint64 sampleIndex, const Sample &sample)
{
    if (current)
        current->addSample(sampleIndex, sample);
}

void ServeIndex::addTrackSample(quint64 sampleIndex, const TrackSample &sample)
{
    if (current)
        current->addTrackSample(sampleIndex, sample);
}

void ServeIndex::endStream()
{
    if (current)
        current->endStream();
}

void ServeIndex::addProblem(const Problem &problem)
{
    if (current)
        current->addProblem(problem);
}

void ServeIndex::setCoverage(const Coverage &coverage)
{
    if (current)
        current->setCoverage(coverage);
}

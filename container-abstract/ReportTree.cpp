#include "ReportTree.h"

void ReportTree::beginReport(const QString &name, quint64 size)
{
    fileName = name;
    fileSize = size;
}

void ReportTree::endReport() {}

ReportTree::Node &ReportTree::append(Node::Kind kind)
{
    current()->children.push_back(std::make_unique<Node>());
    Node &node = *current()->children.back();
    node.kind = kind;
    return node;
}

void ReportTree::beginElement(quint64 offset, quint64 size, const QString &name, qint64 index)
{
    Node &node = append(Node::Element);
    node.offset = offset;
    node.size = size;
    node.name = name;
    node.index = index;
    open.push_back(&node);
}

void ReportTree::setElementOffset(quint64 offset)
{
    current()->offset = offset;
}

void ReportTree::setElementSize(quint64 size)
{
    current()->size = size;
}

void ReportTree::setElementNote(const QString &text)
{
    current()->note = text;
}

void ReportTree::setElementValue(const QString &text)
{
    current()->value = text;
}

void ReportTree::endElement()
{
    if (open.size() > 1)
        open.pop_back();
}

void ReportTree::addField(bool bitField, quint64 offset, quint8 bitOffset, quint64 size,
                          const QString &name, const QString &value, const QString &extra,
                          const QString &comment, qint64 index)
{
    Node &node = append(Node::Field);
    node.bitField = bitField;
    node.offset = offset;
    node.bitOffset = bitOffset;
    node.size = size;
    node.name = name;
    node.value = value;
    node.extra = extra;
    node.comment = comment;
    node.index = index;
}

void ReportTree::addRawField(quint64 offset, quint64 size, const quint8 *data, const QString &name,
                             const QString &comment)
{
    Node &node = append(Node::Raw);
    node.offset = offset;
    node.size = size;
    node.data = QByteArray(reinterpret_cast<const char *>(data), qsizetype(size));
    node.name = name;
    node.comment = comment;
}

void ReportTree::beginStream(int index, const StreamInfo &info)
{
    Stream stream;
    stream.index = index;
    stream.info = info;
    streams.append(stream);
}

void ReportTree::addSample(quint64 sampleIndex, const Sample &sample)
{
    streams.last().samples.append(sample);
    streams.last().sampleIndexes.append(sampleIndex);
}

void ReportTree::addTrackSample(quint64 sampleIndex, const TrackSample &sample)
{
    streams.last().trackSamples.append(sample);
    streams.last().trackSamples.last().units = nullptr;
    if (sample.units)
        streams.last().trackSampleUnits.append(*sample.units);
    streams.last().sampleIndexes.append(sampleIndex);
}

void ReportTree::endStream() {}

void ReportTree::addProblem(const Problem &problem)
{
    problems.append(problem);
}

void ReportTree::addItem(const Item &item)
{
    items.append(item);
}

void ReportTree::setCoverage(const Coverage &value)
{
    coverage = value;
}

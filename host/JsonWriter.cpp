#include "JsonWriter.h"

#include "CodecJson.h"

#include <utility>

JsonWriter::JsonWriter(FILE *out, Keys keys)
    : ownBuffer(std::make_unique<OutputBuffer>(out))
    , out(*ownBuffer)
    , escaping(OutputBuffer::Escaping::Json)
    , annotated(keys == Keys::Annotated)
{
}

JsonWriter::JsonWriter(OutputBuffer &out, OutputBuffer::Escaping escaping, Keys keys)
    : out(out)
    , escaping(escaping)
    , annotated(keys == Keys::Annotated)
{
}

void JsonWriter::setContainerName(const QString &name)
{
    containerName = name;
}

void JsonWriter::reportError(const QString &fileName, const QString &problem)
{
    out.appendLiteral("{\"file\":");
    string(fileName);
    out.appendLiteral(",\"error\":");
    string(problem);
    out.appendLiteral("}\n");
    out.flush();
}

void JsonWriter::flush()
{
    out.flush();
}

int JsonWriter::writeError() const
{
    return out.writeError();
}

void JsonWriter::string(const QString &text)
{
    out.appendString(text, escaping);
}

void JsonWriter::beginReportObject(OutputBuffer &out, OutputBuffer::Escaping escaping,
                                   const QString &fileName, quint64 fileSize,
                                   const QString &containerName)
{
    out.appendLiteral("{\"file\":");
    out.appendString(fileName, escaping);
    out.appendLiteral(",\"fileSize\":");
    out.appendUnsigned(fileSize);
    out.appendLiteral(",\"container\":");
    out.appendString(containerName, escaping);
}

void JsonWriter::beginReport(const QString &fileName, quint64 fileSize)
{
    beginReportObject(out, escaping, fileName, fileSize, containerName);
    out.appendLiteral(",\"elements\":[");
    depth = 0;
    topHasElements = false;
    inElements = true;
    inReport = true;
    hasStreams = false;
    inStream = false;
    inItems = false;
    inProblems = false;
    hasProblems = false;
    listsClosed = false;
}

void JsonWriter::endReport()
{
    if (!inReport)
        return;
    closeLists();
    if (trailer)
        trailer();
    out.appendLiteral("}\n");
    inReport = false;
    out.flush();
}

void JsonWriter::beginNode()
{
    bool &hasChildren = depth == 0 ? topHasElements : open[depth - 1].hasChildren;
    if (hasChildren)
        out.put(',');
    hasChildren = true;
}

void JsonWriter::beginElement(quint64 offset, quint64 size, const QString &name, qint64 index)
{
    if (!inElements)
        return;
    beginNode();
    out.appendLiteral("{\"kind\":\"element\",\"name\":");
    string(name);
    out.appendLiteral(",\"index\":");
    out.appendSigned(index);
    out.appendLiteral(",\"children\":[");
    if (depth == open.size())
        open.emplace_back();
    OpenElement &element = open[depth++];
    element.offset = offset;
    element.size = size;
    element.note.clear();
    element.value.clear();
    element.state = nullptr;
    element.hasChildren = false;
}

void JsonWriter::setElementOffset(quint64 offset)
{
    if (depth > 0)
        open[depth - 1].offset = offset;
}

void JsonWriter::setElementSize(quint64 size)
{
    if (depth > 0)
        open[depth - 1].size = size;
}

void JsonWriter::setElementNote(const QString &text)
{
    if (depth > 0)
        open[depth - 1].note = text;
}

void JsonWriter::setElementValue(const QString &text)
{
    if (depth > 0)
        open[depth - 1].value = text;
}

void JsonWriter::setElementState(ElementState state)
{
    if (depth > 0 && annotated)
        open[depth - 1].state = elementStateName(state);
}

void JsonWriter::endElement()
{
    if (depth == 0)
        return;
    OpenElement &element = open[--depth];
    out.appendLiteral("],\"offset\":");
    out.appendUnsigned(element.offset);
    out.appendLiteral(",\"size\":");
    out.appendUnsigned(element.size);
    out.appendLiteral(",\"note\":");
    string(element.note);
    out.appendLiteral(",\"value\":");
    string(element.value);
    if (element.state) {
        out.appendLiteral(",\"state\":\"");
        out.appendCString(element.state);
        out.put('"');
    }
    out.put('}');
}

void JsonWriter::addField(bool bitField, quint64 offset, quint8 bitOffset, quint64 size,
                          const QString &name, const QString &value, const QString &extra,
                          const QString &comment, qint64 index)
{
    if (!inElements)
        return;
    writeField(bitField, offset, bitOffset, size, name, value, extra, comment, index);
    out.put('}');
}

void JsonWriter::addPayloadField(quint64 offset, quint64 size, const QString &name, Payload payload)
{
    if (!inElements)
        return;
    writeField(false, offset, 0, size, name, QString(), QString(), QString(), -1);
    if (annotated) {
        out.appendLiteral(",\"payload\":\"");
        out.appendCString(payloadName(payload));
        out.put('"');
    }
    out.put('}');
}

void JsonWriter::writeField(bool bitField, quint64 offset, quint8 bitOffset, quint64 size,
                            const QString &name, const QString &value, const QString &extra,
                            const QString &comment, qint64 index)
{
    beginNode();
    out.appendLiteral("{\"kind\":\"field\",\"name\":");
    string(name);
    out.appendLiteral(",\"offset\":");
    out.appendUnsigned(offset);
    out.appendLiteral(",\"size\":");
    out.appendUnsigned(size);
    if (bitField)
        out.appendLiteral(",\"bitField\":true,\"bitOffset\":");
    else
        out.appendLiteral(",\"bitField\":false,\"bitOffset\":");
    out.appendUnsigned(bitOffset);
    out.appendLiteral(",\"value\":");
    string(value);
    out.appendLiteral(",\"extra\":");
    string(extra);
    out.appendLiteral(",\"comment\":");
    string(comment);
    out.appendLiteral(",\"index\":");
    out.appendSigned(index);
}

void JsonWriter::addRawField(quint64 offset, quint64 size, const quint8 *data, const QString &name,
                             const QString &comment)
{
    if (!inElements)
        return;
    beginNode();
    out.appendLiteral("{\"kind\":\"raw\",\"name\":");
    string(name);
    out.appendLiteral(",\"offset\":");
    out.appendUnsigned(offset);
    out.appendLiteral(",\"size\":");
    out.appendUnsigned(size);
    out.appendLiteral(",\"data\":\"");
    if (data)
        out.appendHex(data, size, false);
    out.appendLiteral("\",\"comment\":");
    string(comment);
    out.put('}');
}

void JsonWriter::closeLists()
{
    if (listsClosed)
        return;
    if (inStream)
        endStream();
    leaveElements();
    out.put(']');
    listsClosed = true;
}

void JsonWriter::addProblem(const Problem &problem)
{
    if (!inReport || listsClosed)
        return;
    if (!inProblems)
        addProblemsList();
    if (hasProblems)
        out.put(',');
    hasProblems = true;
    out.appendLiteral("{\"code\":");
    string(problem.code);
    out.appendLiteral(",\"severity\":\"");
    out.appendCString(severityName(problem.severity));
    out.appendLiteral("\",\"offset\":");
    out.appendUnsigned(problem.offset);
    out.appendLiteral(",\"size\":");
    out.appendUnsigned(problem.size);
    out.appendLiteral(",\"path\":");
    string(problem.path);
    out.appendLiteral(",\"message\":");
    string(problem.message);
    out.put('}');
}

void JsonWriter::endProblems()
{
    // A report without problems still has their list.
    if (inReport && !listsClosed && !inProblems)
        addProblemsList();
}

void JsonWriter::setCoverage(const Coverage &coverage)
{
    if (!inReport || listsClosed)
        return;
    endProblems();
    closeLists();
    out.appendLiteral(",\"coverage\":{\"fileSize\":");
    out.appendUnsigned(coverage.fileSize);
    char separator = '{';
    out.appendLiteral(",\"parts\":");
    for (const auto &[key, part] : coveragePartNames) {
        out.put(std::exchange(separator, ','));
        out.put('"');
        out.appendCString(key);
        out.appendLiteral("\":");
        out.appendUnsigned(coverage.*part);
    }
    out.appendLiteral("},\"map\":{\"cellSize\":");
    out.appendUnsigned(coverage.cellSize);
    for (const auto &[key, part] : coveragePartNames) {
        out.put(',');
        out.put('"');
        out.appendCString(key);
        out.appendLiteral("\":");
        separator = '[';
        for (const CoverageParts &cell : coverage.cells) {
            out.put(std::exchange(separator, ','));
            out.appendUnsigned(cell.*part);
        }
        if (coverage.cells.empty())
            out.put('[');
        out.put(']');
    }
    out.appendLiteral("}}");
}

void JsonWriter::addProblemsList()
{
    if (inStream)
        endStream();
    leaveElements();
    out.appendLiteral("],\"problems\":[");
    inProblems = true;
}

void JsonWriter::leaveElements()
{
    if (!inElements)
        return;
    while (depth > 0)
        endElement();
    out.put(']');
    if (!joinedFiles.empty()) {
        out.appendLiteral(",\"files\":[");
        for (const auto &[fileName, fileSize] : joinedFiles) {
            if (&fileName != &joinedFiles.front().first)
                out.put(',');
            out.appendLiteral("{\"file\":");
            string(fileName);
            out.appendLiteral(",\"fileSize\":");
            out.appendUnsigned(fileSize);
            out.put('}');
        }
        out.put(']');
        joinedFiles.clear();
    }
    out.appendLiteral(",\"streams\":[");
    inElements = false;
}

void JsonWriter::addJoinedFile(const QString &fileName, quint64 fileSize)
{
    if (inElements)
        joinedFiles.emplace_back(fileName, fileSize);
}

void JsonWriter::beginStream(int index, const StreamInfo &info)
{
    if (!inReport)
        return;
    if (inStream)
        endStream();
    leaveElements();
    if (hasStreams)
        out.put(',');
    hasStreams = true;
    out.appendLiteral("{\"index\":");
    out.appendSigned(index);
    out.appendLiteral(",\"width\":");
    out.appendSigned(info.width);
    out.appendLiteral(",\"height\":");
    out.appendSigned(info.height);
    out.appendLiteral(",\"codecId\":");
    out.appendSigned(info.codecId);
    if (annotated) {
        out.appendLiteral(",\"codecName\":");
        string(info.codecName);
        // Deep analysis writes it with the track's facts.
        if (!info.track) {
            out.appendLiteral(",\"handlerType\":");
            string(info.handlerType);
        }
    }
    out.appendLiteral(",\"configOffset\":");
    out.appendUnsigned(info.configOffset);
    out.appendLiteral(",\"configSize\":");
    out.appendUnsigned(info.configSize);
    if (info.track)
        writeTrackFacts(info);
    out.appendLiteral(",\"samples\":[");
    inStream = true;
    streamHasSamples = false;
}

void JsonWriter::addSample(quint64 sampleIndex, const Sample &sample)
{
    if (!inStream)
        return;
    if (streamHasSamples)
        out.put(',');
    streamHasSamples = true;
    out.appendLiteral("{\"index\":");
    out.appendUnsigned(sampleIndex);
    out.appendLiteral(",\"offset\":");
    out.appendUnsigned(sample.offset);
    out.appendLiteral(",\"size\":");
    out.appendUnsigned(sample.size);
    out.appendLiteral(",\"dts\":");
    out.appendUnsigned(sample.dts);
    out.appendLiteral(",\"pts\":");
    out.appendUnsigned(sample.pts);
    out.appendLiteral(",\"duration\":");
    out.appendUnsigned(sample.duration);
    out.appendLiteral(",\"keyFrame\":");
    out.appendUnsigned(sample.keyFrame);
    out.put('}');
}

void JsonWriter::writeTrackFacts(const StreamInfo &info)
{
    const TrackFacts &facts = *info.track;
    out.appendLiteral(",\"trackId\":");
    out.appendUnsigned(facts.trackId);
    out.appendLiteral(",\"handlerType\":");
    string(info.handlerType);
    out.appendLiteral(",\"timescale\":");
    if (facts.timescale != 0)
        out.appendUnsigned(facts.timescale);
    else
        out.appendLiteral("null");
    out.appendLiteral(",\"duration\":");
    out.appendUnsigned(facts.duration);
    out.appendLiteral(",\"language\":");
    string(facts.language);
    out.appendLiteral(",\"sampleEntry\":");
    string(facts.sampleEntry);
    out.appendLiteral(",\"codecs\":");
    string(facts.codecs);
    if (!facts.representation.isEmpty()) {
        out.appendLiteral(",\"representation\":");
        string(facts.representation);
    }
    if (facts.channelCount != 0) {
        out.appendLiteral(",\"channelCount\":");
        out.appendUnsigned(facts.channelCount);
        out.appendLiteral(",\"sampleRate\":");
        out.appendUnsigned(facts.sampleRate);
    }
    if (facts.video) {
        out.appendLiteral(",\"video\":");
        writeVideoFactsJson(out, *facts.video);
    }
}

void JsonWriter::addTrackSample(quint64 sampleIndex, const TrackSample &sample)
{
    if (!inStream)
        return;
    if (streamHasSamples)
        out.put(',');
    streamHasSamples = true;
    out.appendLiteral("{\"index\":");
    out.appendUnsigned(sampleIndex);
    out.appendLiteral(",\"offset\":");
    out.appendUnsigned(sample.offset);
    out.appendLiteral(",\"size\":");
    out.appendUnsigned(sample.size);
    out.appendLiteral(",\"dts\":");
    out.appendSigned(sample.dts);
    out.appendLiteral(",\"pts\":");
    out.appendSigned(sample.pts);
    out.appendLiteral(",\"duration\":");
    out.appendUnsigned(sample.duration);
    out.appendLiteral(sample.keyFrame ? ",\"keyFrame\":1" : ",\"keyFrame\":0");
    out.appendLiteral(",\"presentationTime\":");
    optionalNumber(sample.presentationTime);
    if (sample.file >= 0) {
        out.appendLiteral(",\"file\":");
        out.appendSigned(sample.file);
    }
    if (const std::optional<FragmentOrigin> &origin = sample.fragment) {
        out.appendLiteral(",\"moof\":");
        out.appendUnsigned(origin->moof);
        out.appendLiteral(",\"moofOffset\":");
        out.appendUnsigned(origin->moofOffset);
        out.appendLiteral(",\"traf\":");
        out.appendUnsigned(origin->traf);
        out.appendLiteral(",\"trun\":");
        out.appendUnsigned(origin->trun);
        out.appendLiteral(",\"trunEntry\":");
        out.appendUnsigned(origin->trunEntry);
    } else {
        out.appendLiteral(",\"chunk\":");
        out.appendUnsigned(sample.chunk);
        out.appendLiteral(",\"stscEntry\":");
        optionalNumber(entryIndex(sample.sampleToChunkEntry));
        out.appendLiteral(",\"sttsEntry\":");
        optionalNumber(entryIndex(sample.timeToSampleEntry));
        out.appendLiteral(",\"cttsEntry\":");
        optionalNumber(entryIndex(sample.compositionEntry));
    }
    if (sample.units) {
        out.appendLiteral(",\"units\":");
        writeUnitsJson(out, *sample.units);
    }
    out.put('}');
}

void JsonWriter::addItem(const Item &item)
{
    if (!inReport || listsClosed || inProblems)
        return;
    if (inStream)
        endStream();
    leaveElements();
    // The item list follows the stream list, which it closes.
    out.appendCString(inItems ? "," : "],\"items\":[");
    inItems = true;
    out.appendLiteral("{\"id\":");
    out.appendUnsigned(item.id);
    out.appendLiteral(",\"type\":");
    string(item.type);
    out.appendLiteral(",\"name\":");
    string(item.name);
    out.appendLiteral(",\"contentType\":");
    string(item.contentType);
    out.appendCString(item.primary ? ",\"primary\":true" : ",\"primary\":false");
    out.appendCString(item.hidden ? ",\"hidden\":true" : ",\"hidden\":false");
    out.appendLiteral(",\"extents\":");
    if (item.extents) {
        char separator = '[';
        for (const ItemExtent &extent : *item.extents) {
            out.put(std::exchange(separator, ','));
            out.appendLiteral("{\"offset\":");
            out.appendUnsigned(extent.offset);
            out.appendLiteral(",\"length\":");
            out.appendUnsigned(extent.length);
            out.put('}');
        }
        if (item.extents->empty())
            out.put('[');
        out.put(']');
    } else {
        out.appendLiteral("null,\"extentsReason\":");
        string(item.extentsReason);
    }
    out.appendLiteral(",\"properties\":[");
    bool first = true;
    for (const ItemProperty &property : item.properties) {
        if (!std::exchange(first, false))
            out.put(',');
        out.appendLiteral("{\"index\":");
        out.appendUnsigned(property.index);
        out.appendLiteral(",\"type\":");
        if (property.path.isEmpty())
            out.appendLiteral("null");
        else
            string(property.type);
        out.appendCString(property.essential ? ",\"essential\":true" : ",\"essential\":false");
        out.appendLiteral(",\"path\":");
        if (property.path.isEmpty())
            out.appendLiteral("null");
        else
            string(property.path);
        out.put('}');
    }
    out.appendLiteral("],\"references\":[");
    first = true;
    for (const ItemReference &reference : item.references) {
        if (!std::exchange(first, false))
            out.put(',');
        out.appendLiteral("{\"type\":");
        string(reference.type);
        out.appendCString(reference.outgoing ? ",\"direction\":\"to\"" : ",\"direction\":\"from\"");
        out.appendLiteral(",\"items\":[");
        bool firstId = true;
        for (const quint32 id : reference.items) {
            if (!std::exchange(firstId, false))
                out.put(',');
            out.appendUnsigned(id);
        }
        out.appendLiteral("]}");
    }
    out.appendLiteral("],\"width\":");
    out.appendUnsigned(item.width);
    out.appendLiteral(",\"height\":");
    out.appendUnsigned(item.height);
    if (const std::optional<ItemGrid> &grid = item.grid) {
        out.appendLiteral(",\"grid\":{\"rows\":");
        out.appendUnsigned(grid->rows);
        out.appendLiteral(",\"columns\":");
        out.appendUnsigned(grid->columns);
        out.appendLiteral(",\"outputWidth\":");
        out.appendUnsigned(grid->outputWidth);
        out.appendLiteral(",\"outputHeight\":");
        out.appendUnsigned(grid->outputHeight);
        out.put('}');
    }
    if (const std::optional<ItemOverlay> &overlay = item.overlay) {
        out.appendLiteral(",\"overlay\":{\"canvasFill\":[");
        for (size_t i = 0; i < 4; ++i) {
            if (i > 0)
                out.put(',');
            out.appendUnsigned(overlay->canvasFill[i]);
        }
        out.appendLiteral("],\"outputWidth\":");
        out.appendUnsigned(overlay->outputWidth);
        out.appendLiteral(",\"outputHeight\":");
        out.appendUnsigned(overlay->outputHeight);
        out.appendLiteral(",\"offsets\":[");
        bool first = true;
        for (const ItemOverlay::Offset &offset : overlay->offsets) {
            if (!std::exchange(first, false))
                out.put(',');
            out.appendLiteral("{\"x\":");
            out.appendSigned(offset.x);
            out.appendLiteral(",\"y\":");
            out.appendSigned(offset.y);
            out.put('}');
        }
        out.appendLiteral("]}");
    }
    out.put('}');
}

void JsonWriter::optionalNumber(std::optional<qint64> value)
{
    if (value)
        out.appendSigned(*value);
    else
        out.appendLiteral("null");
}

void JsonWriter::endStream()
{
    if (!inStream)
        return;
    out.appendLiteral("]}");
    inStream = false;
}

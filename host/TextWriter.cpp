#include "TextWriter.h"

namespace {
// Widths of the sample table's columns, each with the space in front of it.
constexpr int IndexWidth = 8;
constexpr int OffsetWidth = 12;
constexpr int SizeWidth = 9;
constexpr int TimeWidth = 11;
constexpr int KeyWidth = 4;
constexpr int PresentationWidth = 13;
constexpr int OriginWidth = 14;

// Field lines start with the field's place, padded to this width so that names line up.
constexpr int PlaceWidth = 14;
} // namespace

TextWriter::TextWriter(FILE *out, bool showSamples)
    : out(out)
    , showSamples(showSamples)
{
}

void TextWriter::setContainerName(const QString &name)
{
    containerName = name;
}

void TextWriter::reportError(const QString &, const QString &)
{
    // The problem goes to the error stream; the report has nothing to show.
}

void TextWriter::flush()
{
    out.flush();
}

int TextWriter::writeError() const
{
    return out.writeError();
}

void TextWriter::text(const QString &value)
{
    out.appendText(value, OutputBuffer::Escaping::Plain);
}

void TextWriter::indent(size_t level)
{
    out.appendSpaces(int(2 * level));
}

void TextWriter::beginReport(const QString &fileName, quint64 fileSize)
{
    if (anyReport)
        out.put('\n');
    anyReport = true;
    inReport = true;
    inStream = false;
    problemsBegun = false;
    depth = 0;
    text(fileName);
    out.appendLiteral(": ");
    out.appendUnsigned(fileSize);
    out.appendLiteral(" bytes, ");
    text(containerName);
    out.put('\n');
}

void TextWriter::endReport()
{
    if (!inReport)
        return;
    leaveStreams();
    inReport = false;
    out.flush();
}

void TextWriter::leaveStreams()
{
    while (depth > 0)
        endElement();
    if (inStream)
        endStream();
}

// One line per item: "item 1: hvc1 64x64, primary, 1 extent of 1234 bytes at 567,
// 4 properties, thmb from 2".
void TextWriter::addItem(const Item &item)
{
    if (!inReport || problemsBegun)
        return;
    leaveStreams();
    out.appendLiteral("item ");
    out.appendUnsigned(item.id);
    out.appendLiteral(": ");
    text(item.type);
    if (item.width != 0 || item.height != 0) {
        out.put(' ');
        out.appendUnsigned(item.width);
        out.put('x');
        out.appendUnsigned(item.height);
    }
    if (item.grid) {
        out.appendLiteral(", grid of ");
        out.appendUnsigned(item.grid->rows);
        out.put('x');
        out.appendUnsigned(item.grid->columns);
    }
    if (item.overlay) {
        out.appendLiteral(", overlay of ");
        out.appendUnsigned(item.overlay->offsets.size());
        if (item.overlay->offsets.size() == 1)
            out.appendLiteral(" image");
        else
            out.appendLiteral(" images");
    }
    if (!item.name.isEmpty()) {
        out.appendLiteral(" \"");
        text(item.name);
        out.put('"');
    }
    if (item.primary)
        out.appendLiteral(", primary");
    if (item.hidden)
        out.appendLiteral(", hidden");
    if (item.extents) {
        quint64 bytes = 0;
        for (const ItemExtent &extent : *item.extents)
            bytes += extent.length;
        out.appendLiteral(", ");
        out.appendUnsigned(item.extents->size());
        out.appendCString(item.extents->size() == 1 ? " extent of " : " extents of ");
        out.appendUnsigned(bytes);
        out.appendLiteral(" bytes");
        if (!item.extents->empty()) {
            out.appendLiteral(" at ");
            out.appendUnsigned(item.extents->front().offset);
        }
    } else {
        out.appendLiteral(", no extents: ");
        text(item.extentsReason);
    }
    out.appendLiteral(", ");
    out.appendUnsigned(item.properties.size());
    out.appendCString(item.properties.size() == 1 ? " property" : " properties");
    for (const ItemReference &reference : item.references) {
        out.appendLiteral(", ");
        text(reference.type);
        out.appendCString(reference.outgoing ? " to " : " from ");
        for (size_t i = 0; i < reference.items.size(); ++i) {
            if (i > 0)
                out.put(' ');
            out.appendUnsigned(reference.items[i]);
        }
    }
    out.put('\n');
}

void TextWriter::addProblem(const Problem &problem)
{
    if (!inReport)
        return;
    leaveStreams();
    if (!problemsBegun)
        out.appendLiteral("problems:\n");
    problemsBegun = true;
    static const char *const severities[] = {"error  ", "warning", "info   "};
    out.appendSpaces(2);
    out.appendCString(severities[int(problem.severity)]);
    out.put(' ');
    text(problem.code);
    out.appendLiteral(" @");
    out.appendUnsigned(problem.offset);
    out.appendLiteral(" +");
    out.appendUnsigned(problem.size);
    if (!problem.path.isEmpty()) {
        out.put(' ');
        text(problem.path);
    }
    out.appendLiteral(": ");
    text(problem.message);
    out.put('\n');
}

void TextWriter::endProblems()
{
    if (!inReport)
        return;
    leaveStreams();
    if (!problemsBegun)
        out.appendLiteral("problems: none\n");
    problemsBegun = true;
}

void TextWriter::setCoverage(const Coverage &coverage)
{
    if (!inReport)
        return;
    endProblems();
    out.appendLiteral("coverage: ");
    out.appendUnsigned(coverage.fileSize);
    const struct {
        const char *label;
        quint64 bytes;
    } parts[] = {{" bytes = structure ", coverage.structure},
                 {" + sample data ", coverage.sampleData},
                 {" + unreferenced media data ", coverage.unreferencedMediaData},
                 {" + filler ", coverage.filler},
                 {" + unknown ", coverage.unknown},
                 {" + trailing ", coverage.trailing}};
    for (const auto &part : parts) {
        out.appendCString(part.label);
        out.appendUnsigned(part.bytes);
    }
    // Only files of items have item data: the line of every other file stays as it was.
    if (coverage.itemData > 0) {
        out.appendLiteral(" + item data ");
        out.appendUnsigned(coverage.itemData);
    }
    out.put('\n');
}

void TextWriter::writePendingHeader()
{
    if (depth == 0)
        return;
    OpenElement &element = open[depth - 1];
    if (element.headerWritten)
        return;
    element.headerWritten = true;
    indent(depth - 1);
    text(element.name);
    if (element.index != -1) {
        out.put('[');
        out.appendSigned(element.index);
        out.put(']');
    }
    out.appendLiteral(" @");
    out.appendUnsigned(element.offset);
    out.appendLiteral(" size ");
    out.appendUnsigned(element.size);
    out.put('\n');
}

void TextWriter::beginChildLine()
{
    writePendingHeader();
    indent(depth);
}

void TextWriter::beginElement(quint64 offset, quint64 size, const QString &name, qint64 index)
{
    if (!inReport)
        return;
    writePendingHeader();
    if (depth == open.size())
        open.emplace_back();
    OpenElement &element = open[depth++];
    element.offset = offset;
    element.size = size;
    element.name = name;
    element.index = index;
    element.headerWritten = false;
}

void TextWriter::setElementOffset(quint64 offset)
{
    if (depth > 0)
        open[depth - 1].offset = offset;
}

void TextWriter::setElementSize(quint64 size)
{
    if (depth > 0)
        open[depth - 1].size = size;
}

void TextWriter::setElementNote(const QString &note)
{
    writeElementLine("note: ", note);
}

void TextWriter::setElementValue(const QString &value)
{
    writeElementLine("value: ", value);
}

void TextWriter::writeElementLine(const char *label, const QString &value)
{
    if (depth == 0)
        return;
    beginChildLine();
    out.appendCString(label);
    text(value);
    out.put('\n');
}

void TextWriter::endElement()
{
    if (depth == 0)
        return;
    writePendingHeader();
    --depth;
}

void TextWriter::addField(bool bitField, quint64 offset, quint8 bitOffset, quint64 size,
                          const QString &name, const QString &value, const QString &extra,
                          const QString &comment, qint64 index)
{
    if (!inReport)
        return;
    beginChildLine();
    out.put('@');
    out.appendUnsigned(offset);
    if (bitField) {
        out.put('.');
        out.appendUnsigned(bitOffset);
    }
    out.appendLiteral(" +");
    out.appendUnsigned(size);
    if (bitField)
        out.put('b');
    const int placeLength = 3 + OutputBuffer::decimalDigits(offset) +
                            OutputBuffer::decimalDigits(size) +
                            (bitField ? 2 + OutputBuffer::decimalDigits(bitOffset) : 0);
    out.appendSpaces(qMax(PlaceWidth - placeLength, 1));
    text(name);
    if (index != -1) {
        out.put('[');
        out.appendSigned(index);
        out.put(']');
    }
    if (!value.isEmpty()) {
        out.appendLiteral(" = ");
        text(value);
    }
    if (!extra.isEmpty()) {
        out.appendLiteral(" [");
        text(extra);
        out.put(']');
    }
    if (!comment.isEmpty()) {
        out.appendLiteral("  (");
        text(comment);
        out.put(')');
    }
    out.put('\n');
}

void TextWriter::addRawField(quint64 offset, quint64 size, const quint8 *data, const QString &name,
                             const QString &comment)
{
    if (!inReport)
        return;
    beginChildLine();
    out.put('@');
    out.appendUnsigned(offset);
    out.appendLiteral(" +");
    out.appendUnsigned(size);
    out.appendSpaces(qMax(PlaceWidth - 3 - OutputBuffer::decimalDigits(offset) -
                              OutputBuffer::decimalDigits(size),
                          1));
    text(name);
    if (data && size > 0) {
        out.appendLiteral(" = ");
        out.appendHex(data, size, true);
    }
    if (!comment.isEmpty()) {
        out.appendLiteral("  (");
        text(comment);
        out.put(')');
    }
    out.put('\n');
}

void TextWriter::writeStreamLine(bool withCount)
{
    out.appendLiteral("stream ");
    out.appendSigned(streamIndex);
    out.appendLiteral(": codec ");
    out.appendSigned(stream.codecId);
    if (!stream.codecName.isEmpty()) {
        out.appendLiteral(" (");
        text(stream.codecName);
        out.put(')');
    }
    out.appendLiteral(", ");
    out.appendSigned(stream.width);
    out.put('x');
    out.appendSigned(stream.height);
    out.appendLiteral(", config @");
    out.appendUnsigned(stream.configOffset);
    out.appendLiteral(" size ");
    out.appendUnsigned(stream.configSize);
    if (stream.track)
        writeTrackFacts(stream);
    if (withCount) {
        out.appendLiteral(", ");
        writeSampleCount();
    }
    out.put('\n');
}

void TextWriter::writeTrackFacts(const StreamInfo &info)
{
    const TrackFacts &facts = *info.track;
    out.appendLiteral(", track ");
    out.appendUnsigned(facts.trackId);
    out.put(' ');
    text(info.handlerType.isEmpty() ? QStringLiteral("-") : info.handlerType);
    out.put(' ');
    text(facts.sampleEntry.isEmpty() ? QStringLiteral("-") : facts.sampleEntry);
    out.appendLiteral(", timescale ");
    if (facts.timescale != 0)
        out.appendUnsigned(facts.timescale);
    else
        out.appendLiteral("unknown");
    out.appendLiteral(", duration ");
    out.appendUnsigned(facts.duration);
    out.appendLiteral(", language ");
    text(facts.language);
    if (facts.channelCount != 0) {
        out.appendLiteral(", ");
        out.appendUnsigned(facts.channelCount);
        if (facts.channelCount == 1)
            out.appendLiteral(" channel, ");
        else
            out.appendLiteral(" channels, ");
        out.appendUnsigned(facts.sampleRate);
        out.appendLiteral(" Hz");
    }
    if (!facts.codecs.isEmpty()) {
        out.appendLiteral(", codecs ");
        text(facts.codecs);
    }
    if (!facts.representation.isEmpty()) {
        out.appendLiteral(", representation ");
        text(facts.representation);
    }
    if (facts.video)
        writeVideoFacts(*facts.video);
}

void TextWriter::writeVideoFacts(const VideoFacts &video)
{
    out.appendLiteral(", coded ");
    out.appendUnsigned(quint64(video.codedWidth));
    out.put('x');
    out.appendUnsigned(quint64(video.codedHeight));
    out.appendLiteral(" shown ");
    out.appendUnsigned(quint64(video.width));
    out.put('x');
    out.appendUnsigned(quint64(video.height));
    out.appendLiteral(", ");
    out.appendUnsigned(quint64(video.bitDepthLuma));
    out.appendLiteral(" bit");
    static const char *const chromaFormats[] = {" monochrome", " 4:2:0", " 4:2:2", " 4:4:4"};
    if (video.chromaFormat >= 0 && video.chromaFormat <= 3)
        out.appendCString(chromaFormats[video.chromaFormat]);
    if (video.colourPrimaries >= 0) {
        out.appendLiteral(", colour ");
        out.appendUnsigned(quint64(video.colourPrimaries));
        out.put('/');
        out.appendUnsigned(quint64(video.transferCharacteristics));
        out.put('/');
        out.appendUnsigned(quint64(video.matrixCoefficients));
    }
    if (video.frameDuration != 0) {
        out.appendLiteral(", frame rate ");
        out.appendUnsigned(video.timeScale);
        out.put('/');
        out.appendUnsigned(video.frameDuration);
    }
}

void TextWriter::writeSampleCount()
{
    out.appendUnsigned(streamSamples);
    if (streamSamples == 1)
        out.appendLiteral(" sample");
    else
        out.appendLiteral(" samples");
}

void TextWriter::writeSampleTableHeader()
{
    const struct {
        const char *title;
        int width;
    } columns[] = {{"index", IndexWidth}, {"offset", OffsetWidth},
                   {"size", SizeWidth},   {"dts", TimeWidth},
                   {"pts", TimeWidth},    {"duration", TimeWidth},
                   {"key", KeyWidth},     {"presentation", PresentationWidth},
                   {"from", OriginWidth}};
    out.appendSpaces(2);
    // Streams of deep analysis have the last two columns.
    for (size_t i = 0; i < std::size(columns) - (stream.track ? 0 : 2); ++i) {
        const size_t length = std::strlen(columns[i].title);
        out.appendSpaces(columns[i].width - int(length));
        out.append(columns[i].title, length);
    }
    out.put('\n');
}

void TextWriter::beginStream(int index, const StreamInfo &info)
{
    if (!inReport)
        return;
    leaveStreams();
    inStream = true;
    streamIndex = index;
    stream = info;
    streamSamples = 0;
    if (showSamples) {
        writeStreamLine(false);
        writeSampleTableHeader();
    }
}

void TextWriter::addSample(quint64 sampleIndex, const Sample &sample)
{
    if (!inStream)
        return;
    ++streamSamples;
    if (!showSamples)
        return;
    const struct {
        quint64 value;
        int width;
    } columns[] = {{sampleIndex, IndexWidth},  {sample.offset, OffsetWidth},
                   {sample.size, SizeWidth},   {sample.dts, TimeWidth},
                   {sample.pts, TimeWidth},    {sample.duration, TimeWidth},
                   {sample.keyFrame, KeyWidth}};
    out.appendSpaces(2);
    // A space before each column keeps numbers apart that outgrow their column.
    for (const auto &column : columns) {
        out.put(' ');
        out.appendUnsignedPadded(column.value, column.width - 1);
    }
    out.put('\n');
}

void TextWriter::addTrackSample(quint64 sampleIndex, const TrackSample &sample)
{
    if (!inStream)
        return;
    ++streamSamples;
    if (!showSamples)
        return;
    out.appendSpaces(2);
    for (const auto &[value, width] :
         {std::pair{sampleIndex, IndexWidth}, std::pair{sample.offset, OffsetWidth},
          std::pair{sample.size, SizeWidth}}) {
        out.put(' ');
        out.appendUnsignedPadded(value, width - 1);
    }
    for (const qint64 time : {sample.dts, sample.pts}) {
        out.put(' ');
        out.appendSignedPadded(time, TimeWidth - 1);
    }
    out.put(' ');
    out.appendUnsignedPadded(sample.duration, TimeWidth - 1);
    out.put(' ');
    out.appendUnsignedPadded(sample.keyFrame ? 1 : 0, KeyWidth - 1);
    out.put(' ');
    if (sample.presentationTime) {
        out.appendSignedPadded(*sample.presentationTime, PresentationWidth - 1);
    } else {
        out.appendSpaces(PresentationWidth - 2);
        out.put('-');
    }
    // Where the sample came from: its chunk, or the moof of its movie fragment.
    out.put(' ');
    const quint64 origin = sample.fragment ? sample.fragment->moof : sample.chunk;
    const int label = sample.fragment ? 5 : 6;
    out.appendSpaces(OriginWidth - 1 - label - OutputBuffer::decimalDigits(origin));
    if (sample.fragment)
        out.appendLiteral("moof ");
    else
        out.appendLiteral("chunk ");
    out.appendUnsigned(origin);
    if (sample.file >= 0) {
        out.appendLiteral(" file ");
        out.appendSigned(sample.file);
    }
    out.put('\n');
    if (sample.units)
        writeUnits(*sample.units);
}

void TextWriter::writeUnits(const std::vector<SampleUnit> &units)
{
    for (const SampleUnit &unit : units) {
        out.appendLiteral("      unit @");
        out.appendUnsigned(unit.offset);
        out.put('+');
        out.appendUnsigned(unit.size);
        out.appendLiteral(" type ");
        out.appendUnsigned(quint64(unit.type));
        if (*unit.typeName) {
            out.put(' ');
            out.appendCString(unit.typeName);
        }
        const std::pair<const char *, qint64> fields[] = {
            {", nal_ref_idc ", unit.nalRefIdc},
            {", layer ", unit.layerId},
            {", temporal ", unit.temporalId},
            {", first_mb_in_slice ", unit.firstMbInSlice},
            {", first_slice_segment_in_pic_flag ", unit.firstSliceSegmentInPicFlag},
            {", slice_type ", unit.sliceType},
        };
        for (const auto &[label, value] : fields) {
            if (value >= 0) {
                out.appendCString(label);
                out.appendUnsigned(quint64(value));
            }
        }
        for (const SeiPayload &payload : unit.sei) {
            out.appendLiteral(", SEI ");
            out.appendUnsigned(payload.type);
            if (*payload.name) {
                out.put(' ');
                out.appendCString(payload.name);
            }
            out.appendLiteral(" (");
            out.appendUnsigned(payload.size);
            out.appendLiteral(" bytes");
            if (payload.captions >= 0) {
                out.appendLiteral(", ");
                out.appendUnsigned(quint64(payload.captions));
                out.appendLiteral(" captions");
            }
            if (!payload.uuid.isEmpty()) {
                out.put(' ');
                text(payload.uuid);
            }
            out.put(')');
        }
        out.put('\n');
    }
}

void TextWriter::endStream()
{
    if (!inStream)
        return;
    inStream = false;
    if (showSamples) {
        out.appendSpaces(2);
        writeSampleCount();
        out.put('\n');
    } else {
        writeStreamLine(true);
    }
}

#include "SummaryWriter.h"

namespace {
constexpr auto Escaping = OutputBuffer::Escaping::Json;
} // namespace

SummaryWriter::SummaryWriter(FILE *file, bool checked, Reports reports, JsonWriter::Keys reportKeys)
    // The reports, when wanted, hear of every call; the summary is gathered alongside.
    : TeeWriter(reports == Reports::With ? std::vector<ReportSink *>{&report}
                                         : std::vector<ReportSink *>{})
    , out(file)
    , report(out, Escaping, reportKeys)
    , checked(checked)
{
}

void SummaryWriter::setContainerName(const QString &name)
{
    report.setContainerName(name);
    containerName = name;
}

void SummaryWriter::reportError(const QString &fileName, const QString &problem)
{
    report.reportError(fileName, problem);
}

void SummaryWriter::flush()
{
    out.flush();
}

int SummaryWriter::writeError() const
{
    return out.writeError();
}

void SummaryWriter::string(const QString &text)
{
    out.appendString(text, Escaping);
}

void SummaryWriter::beginReport(const QString &name, quint64 size)
{
    TeeWriter::beginReport(name, size);
    fileName = name;
    fileSize = size;
    file = FileFacts();
    streams.clear();
    items = 0;
    primaryItem.reset();
    std::fill(std::begin(problemCounts), std::end(problemCounts), 0);
    problemCodes.clear();
}

void SummaryWriter::endReport()
{
    // The report's line comes first.
    TeeWriter::endReport();
    writeSummary();
}

void SummaryWriter::setFileFacts(const FileFacts &facts)
{
    TeeWriter::setFileFacts(facts);
    file = facts;
}

void SummaryWriter::beginStream(int index, const StreamInfo &info)
{
    TeeWriter::beginStream(index, info);
    Stream stream;
    stream.index = index;
    stream.handlerType = info.handlerType;
    stream.codecName = info.codecName;
    if (info.track) {
        stream.deep = true;
        stream.sampleEntry = info.track->sampleEntry;
    }
    streams.push_back(stream);
}

void SummaryWriter::addSample(quint64 sampleIndex, const Sample &sample)
{
    TeeWriter::addSample(sampleIndex, sample);
    ++streams.back().samples;
}

void SummaryWriter::addTrackSample(quint64 sampleIndex, const TrackSample &sample)
{
    TeeWriter::addTrackSample(sampleIndex, sample);
    ++streams.back().samples;
}

void SummaryWriter::addItem(const Item &item)
{
    TeeWriter::addItem(item);
    ++items;
    if (item.primary && !primaryItem) {
        // Only what the summary shows of it is kept.
        primaryItem = Item();
        primaryItem->type = item.type;
        primaryItem->width = item.width;
        primaryItem->height = item.height;
    }
}

void SummaryWriter::addProblem(const Problem &problem)
{
    TeeWriter::addProblem(problem);
    ++problemCounts[int(problem.severity)];
    if (!problemCodes.contains(problem.code))
        problemCodes << problem.code;
}

void SummaryWriter::writeSummary()

{
    JsonWriter::beginReportObject(out, Escaping, fileName, fileSize, containerName);
    out.appendLiteral(",\"majorBrand\":");
    if (file.majorBrand.isEmpty())
        out.appendLiteral("null");
    else
        string(file.majorBrand);
    // A duration means nothing without the units it counts in.
    out.appendLiteral(",\"timescale\":");
    if (file.timescale != 0) {
        out.appendUnsigned(file.timescale);
        out.appendLiteral(",\"duration\":");
        out.appendUnsigned(file.duration);
    } else {
        out.appendLiteral("null,\"duration\":null");
    }
    out.appendLiteral(",\"streams\":[");
    for (const Stream &stream : streams) {
        if (&stream != &streams.front())
            out.put(',');
        out.appendLiteral("{\"index\":");
        out.appendSigned(stream.index);
        out.appendLiteral(",\"handlerType\":");
        string(stream.handlerType);
        out.appendLiteral(",\"codecName\":");
        string(stream.codecName);
        if (stream.deep) {
            out.appendLiteral(",\"sampleEntry\":");
            string(stream.sampleEntry);
        }
        out.appendLiteral(",\"samples\":");
        out.appendUnsigned(stream.samples);
        out.put('}');
    }
    out.put(']');
    // Files without items keep the summary they have always had.
    if (items > 0) {
        out.appendLiteral(",\"items\":");
        out.appendUnsigned(items);
        out.appendLiteral(",\"primaryItem\":");
        if (primaryItem) {
            out.appendLiteral("{\"type\":");
            string(primaryItem->type);
            out.appendLiteral(",\"width\":");
            out.appendUnsigned(primaryItem->width);
            out.appendLiteral(",\"height\":");
            out.appendUnsigned(primaryItem->height);
            out.put('}');
        } else {
            out.appendLiteral("null");
        }
    }
    if (checked) {
        out.appendLiteral(",\"problems\":{");
        for (Severity severity : {Severity::Error, Severity::Warning, Severity::Info}) {
            if (severity != Severity::Error)
                out.put(',');
            out.put('"');
            out.appendCString(severityName(severity));
            out.appendLiteral("\":");
            out.appendUnsigned(problemCounts[int(severity)]);
        }
        out.appendLiteral("},\"problemCodes\":[");
        for (const QString &code : problemCodes) {
            if (&code != &problemCodes.front())
                out.put(',');
            string(code);
        }
        out.put(']');
    }
    out.appendLiteral("}\n");
    out.flush();
}

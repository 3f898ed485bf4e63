#include "SummaryWriter.h"

namespace {
constexpr auto Escaping = OutputBuffer::Escaping::Json;
} // namespace

SummaryWriter::SummaryWriter(FILE *file, bool checked, Reports reports, JsonWriter::Keys reportKeys)
    // The report hears of each call first, so that its line comes before the summary's.
    : TeeWriter(reports == Reports::With ? std::vector<ReportSink *>{&report, &summary}
                                         : std::vector<ReportSink *>{&summary})
    , out(file)
    , report(out, Escaping, reportKeys)
    , summary(out, checked)
{
}

void SummaryWriter::setContainerName(const QString &name)
{
    report.setContainerName(name);
    summary.containerName = name;
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

SummaryWriter::Summary::Summary(OutputBuffer &out, bool checked)
    : out(out)
    , checked(checked)
{
}

void SummaryWriter::Summary::string(const QString &text)
{
    out.appendString(text, Escaping);
}

void SummaryWriter::Summary::beginReport(const QString &name, quint64 size)
{
    fileName = name;
    fileSize = size;
    file = FileFacts();
    streams.clear();
    std::fill(std::begin(problemCounts), std::end(problemCounts), 0);
    problemCodes.clear();
}

void SummaryWriter::Summary::beginStream(int index, const StreamInfo &info)
{
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

void SummaryWriter::Summary::addProblem(const Problem &problem)
{
    ++problemCounts[int(problem.severity)];
    if (!problemCodes.contains(problem.code))
        problemCodes << problem.code;
}

void SummaryWriter::Summary::endReport()
{
    out.appendLiteral("{\"file\":");
    string(fileName);
    out.appendLiteral(",\"fileSize\":");
    out.appendUnsigned(fileSize);
    out.appendLiteral(",\"container\":");
    string(containerName);
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

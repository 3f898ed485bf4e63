#include "ReportSink.h"

ReportSink::~ReportSink() = default;

bool ReportSink::takesElementTree() const
{
    return true;
}

void ReportSink::setElementState(ElementState) {}

void ReportSink::addTrackSample(quint64 sampleIndex, const TrackSample &sample)
{
    addSample(sampleIndex, Sample{sample.offset, sample.size, quint32(sample.dts),
                                  quint32(sample.pts), sample.duration, sample.keyFrame ? 1u : 0u});
}

void ReportSink::addJoinedFile(const QString &, quint64) {}

void ReportSink::setFileFacts(const FileFacts &) {}

void ReportSink::addItem(const Item &) {}

void ReportSink::addProblem(const Problem &) {}

void ReportSink::setCoverage(const Coverage &) {}

void ReportSink::endProblems() {}

void ReportSink::addPayloadField(quint64 offset, quint64 size, const QString &name, Payload)
{
    addField(false, offset, 0, size, name, QString(), QString(), QString(), -1);
}

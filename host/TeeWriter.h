#pragma once

#include "ReportWriter.h"

#include <utility>
#include <vector>

// A writer made of other sinks: every report call goes to each of them in the order given.
// What the output is made of around the reports is left to the writer that derives from it,
// and so are sinks that change from report to report (setSinks).
class TeeWriter : public ReportWriter {
public:
    explicit TeeWriter(std::vector<ReportSink *> sinks)
        : sinks(std::move(sinks))
    {
    }

    void beginReport(const QString &fileName, quint64 fileSize) override
    {
        for (ReportSink *sink : sinks)
            sink->beginReport(fileName, fileSize);
    }
    void endReport() override
    {
        for (ReportSink *sink : sinks)
            sink->endReport();
    }
    void beginElement(quint64 offset, quint64 size, const QString &name, qint64 index) override
    {
        for (ReportSink *sink : sinks)
            sink->beginElement(offset, size, name, index);
    }
    void setElementOffset(quint64 offset) override
    {
        for (ReportSink *sink : sinks)
            sink->setElementOffset(offset);
    }
    void setElementSize(quint64 size) override
    {
        for (ReportSink *sink : sinks)
            sink->setElementSize(size);
    }
    void setElementNote(const QString &text) override
    {
        for (ReportSink *sink : sinks)
            sink->setElementNote(text);
    }
    void setElementValue(const QString &text) override
    {
        for (ReportSink *sink : sinks)
            sink->setElementValue(text);
    }
    void setElementState(ElementState state) override
    {
        for (ReportSink *sink : sinks)
            sink->setElementState(state);
    }
    void endElement() override
    {
        for (ReportSink *sink : sinks)
            sink->endElement();
    }
    void addField(bool bitField, quint64 offset, quint8 bitOffset, quint64 size,
                  const QString &name, const QString &value, const QString &extra,
                  const QString &comment, qint64 index) override
    {
        for (ReportSink *sink : sinks)
            sink->addField(bitField, offset, bitOffset, size, name, value, extra, comment, index);
    }
    void addPayloadField(quint64 offset, quint64 size, const QString &name,
                         Payload payload) override
    {
        for (ReportSink *sink : sinks)
            sink->addPayloadField(offset, size, name, payload);
    }
    void addRawField(quint64 offset, quint64 size, const quint8 *data, const QString &name,
                     const QString &comment) override
    {
        for (ReportSink *sink : sinks)
            sink->addRawField(offset, size, data, name, comment);
    }
    void setFileFacts(const FileFacts &facts) override
    {
        for (ReportSink *sink : sinks)
            sink->setFileFacts(facts);
    }
    void beginStream(int index, const StreamInfo &info) override
    {
        for (ReportSink *sink : sinks)
            sink->beginStream(index, info);
    }
    void addSample(quint64 sampleIndex, const Sample &sample) override
    {
        for (ReportSink *sink : sinks)
            sink->addSample(sampleIndex, sample);
    }
    void addTrackSample(quint64 sampleIndex, const TrackSample &sample) override
    {
        for (ReportSink *sink : sinks)
            sink->addTrackSample(sampleIndex, sample);
    }
    void endStream() override
    {
        for (ReportSink *sink : sinks)
            sink->endStream();
    }
    void addItem(const Item &item) override
    {
        for (ReportSink *sink : sinks)
            sink->addItem(item);
    }
    void addJoinedFile(const QString &fileName, quint64 fileSize) override
    {
        for (ReportSink *sink : sinks)
            sink->addJoinedFile(fileName, fileSize);
    }
    void addProblem(const Problem &problem) override
    {
        for (ReportSink *sink : sinks)
            sink->addProblem(problem);
    }
    void setCoverage(const Coverage &coverage) override
    {
        for (ReportSink *sink : sinks)
            sink->setCoverage(coverage);
    }
    void endProblems() override
    {
        for (ReportSink *sink : sinks)
            sink->endProblems();
    }

protected:
    void setSinks(std::vector<ReportSink *> newSinks) { sinks = std::move(newSinks); }

private:
    std::vector<ReportSink *> sinks;
};

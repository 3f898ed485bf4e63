#pragma once

#include "Export.h"
#include "ReportSink.h"

#include <QByteArray>
#include <QString>
#include <QVector>

#include <memory>
#include <optional>
#include <vector>

// A report kept in memory as a tree, for tests and for library users who want to look
// at the whole report at once.
class SARVELINTH_ABSTRACT_EXPORT ReportTree : public ReportSink {
public:
    struct Node {
        enum Kind { Element, Field, Raw };
        Kind kind = Element;
        QString name;
        quint64 offset = 0;
        quint64 size = 0;
        qint64 index = -1;
        // Elements
        QString note;
        QString value; // also the value of a field
        std::vector<std::unique_ptr<Node>> children;
        // Fields
        bool bitField = false;
        quint8 bitOffset = 0;
        QString extra;
        QString comment; // also the comment of a raw field
        // Raw fields
        QByteArray data;
    };

    struct Stream {
        int index = 0;
        StreamInfo info;
        QVector<Sample> samples;
        QVector<TrackSample> trackSamples; // of deep analysis
        QVector<quint64> sampleIndexes;    // of either kind
        // With sample units: the units of each deep sample, which trackSamples leave out.
        QVector<std::vector<SampleUnit>> trackSampleUnits;
    };

    QString fileName;
    quint64 fileSize = 0;
    Node root; // an element without a name; its children are the top-level elements
    QVector<Stream> streams;
    // Of deep analysis.
    QVector<Item> items;
    // With checks.
    QVector<Problem> problems;
    std::optional<Coverage> coverage;

    void beginReport(const QString &fileName, quint64 fileSize) override;
    void endReport() override;
    void beginElement(quint64 offset, quint64 size, const QString &name, qint64 index) override;
    void setElementOffset(quint64 offset) override;
    void setElementSize(quint64 size) override;
    void setElementNote(const QString &text) override;
    void setElementValue(const QString &text) override;
    void endElement() override;
    void addField(bool bitField, quint64 offset, quint8 bitOffset, quint64 size,
                  const QString &name, const QString &value, const QString &extra,
                  const QString &comment, qint64 index) override;
    void addRawField(quint64 offset, quint64 size, const quint8 *data, const QString &name,
                     const QString &comment) override;
    void beginStream(int index, const StreamInfo &info) override;
    void addSample(quint64 sampleIndex, const Sample &sample) override;
    void addTrackSample(quint64 sampleIndex, const TrackSample &sample) override;
    void endStream() override;
    void addItem(const Item &item) override;
    void addProblem(const Problem &problem) override;
    void setCoverage(const Coverage &coverage) override;

    // Number of elements still open; 0 in a balanced report.
    int openElements() const { return int(open.size()) - 1; }

private:
    Node *current() { return open.back(); }
    Node &append(Node::Kind kind);

    std::vector<Node *> open{&root};
};

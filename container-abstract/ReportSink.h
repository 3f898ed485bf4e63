#pragma once

#include "Export.h"
#include "Records.h"

#include <QString>

// Receives a report call by call, in the order the parser makes it. Writers turn each
// call into output at once, so nothing accumulates with the number of fields.
//
// Element offset and size may be changed after beginElement (list entries learn theirs
// later), and the note, state and value arrive after the element's children: a writer
// that prints them must hold them until endElement.
class SARVELINTH_ABSTRACT_EXPORT ReportSink {
public:
    virtual ~ReportSink();

    // Whether the sink takes the element tree at all: elements, their fields and notes. A sink
    // that drops them all (samples only) spares the parser the text of every table entry.
    virtual bool takesElementTree() const;

    virtual void beginReport(const QString &fileName, quint64 fileSize) = 0;
    virtual void endReport() = 0;

    virtual void beginElement(quint64 offset, quint64 size, const QString &name, qint64 index) = 0;
    virtual void setElementOffset(quint64 offset) = 0;
    virtual void setElementSize(quint64 size) = 0;
    virtual void setElementNote(const QString &text) = 0;
    virtual void setElementValue(const QString &text) = 0;
    // Why the element's content was not read; elements that were read get no call.
    virtual void setElementState(ElementState state);
    virtual void endElement() = 0;

    virtual void addField(bool bitField, quint64 offset, quint8 bitOffset, quint64 size,
                          const QString &name, const QString &value, const QString &extra,
                          const QString &comment, qint64 index) = 0;
    // A field shown only by its position: a plain field without value, comment or index,
    // and what its bytes hold. Sinks that do not tell payloads apart take it as that field.
    virtual void addPayloadField(quint64 offset, quint64 size, const QString &name,
                                 Payload payload);
    virtual void addRawField(quint64 offset, quint64 size, const quint8 *data, const QString &name,
                             const QString &comment) = 0;

    // Joined files: a file of the presentation, before the element that holds its elements;
    // the files are counted from 0 in the order of these calls. Sinks that report files
    // alone take no notice.
    virtual void addJoinedFile(const QString &fileName, quint64 fileSize);

    // What the file tells of itself, after the element tree and before the streams. Sinks
    // that do not summarize files take no notice.
    virtual void setFileFacts(const FileFacts &facts);

    // Streams come after the element tree, in index order, each with its samples.
    virtual void beginStream(int index, const StreamInfo &info) = 0;
    virtual void addSample(quint64 sampleIndex, const Sample &sample) = 0;
    // A sample of deep analysis. Sinks that do not tell them apart take it as a sample
    // whose times are cut to the sample slot's 32 bits.
    virtual void addTrackSample(quint64 sampleIndex, const TrackSample &sample);
    virtual void endStream() = 0;

    // Deep analysis of a file of items: each item after the streams, in the order the file
    // lists them. Sinks that do not show items take no notice.
    virtual void addItem(const Item &item);

    // Checks only: the problems of the file and where its bytes went, after the streams. Sinks
    // that do not show them take no notice.
    virtual void addProblem(const Problem &problem);
    virtual void setCoverage(const Coverage &coverage);
    // The problems are all told, for a report of checks without coverage (a package): a
    // writer says so where there were none. Coverage ends them too.
    virtual void endProblems();
};

#pragma once

#include "ReportSink.h"

#include <QString>

#include <memory>

class SourceBytes;

// A sink that writes reports of files to an output stream, one report after another.
class ReportWriter : public ReportSink {
public:
    // Name of the container format that the next report comes from.
    virtual void setContainerName(const QString &name) = 0;
    // Where the bytes of the next report are read from, for writers that show them; without
    // it, the file under the name its report shows.
    virtual void setSource(const std::shared_ptr<SourceBytes> &bytes) { Q_UNUSED(bytes) }
    // A file that gets no report: writers whose consumers expect an entry for every input
    // write one; others write nothing, since the problem goes to the error stream.
    virtual void reportError(const QString &fileName, const QString &problem) = 0;
    // Writes out everything buffered so far.
    virtual void flush() = 0;
    // Ends the output after the last report: writers whose reports sit in a frame close
    // it. Then writes out everything.
    virtual void finish() { flush(); }
    // The error number of the first write to the output that failed, 0 while none has.
    virtual int writeError() const = 0;
};

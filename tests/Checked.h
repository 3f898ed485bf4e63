#pragma once

#include "CheckingSink.h"
#include "Support.h"

#include <QFile>

#include <cstring>

// What a parse under the checking sink came to. Plain data, so that it can cross a pipe
// from a child process.
struct CheckedRun {
    quint64 elements = 0;
    quint64 fields = 0;
    quint64 samples = 0;
    int maxDepth = 0;
    bool finished = false;
    char problem[120] = {};

    quint64 nodes() const { return elements + fields + samples; }
    bool sound() const { return finished && problem[0] == '\0'; }
};

// Parses the input as "test.mp4" through a CheckingSink that records instead of aborting,
// passing the report on to next when given.
inline CheckedRun parseChecked(const QByteArray &input, ReportSink *next = nullptr)
{
    CheckingSink sink(CheckingSink::Record, next);
    TestParser().parseBytes(QStringLiteral("test.mp4"), input, sink);
    CheckedRun run;
    run.elements = sink.elements;
    run.fields = sink.fields;
    run.samples = sink.samples;
    run.maxDepth = sink.maxDepth;
    run.finished = sink.finished();
    std::strncpy(run.problem, sink.problem().c_str(), sizeof run.problem - 1);
    return run;
}

inline QByteArray readWholeFile(const QString &path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

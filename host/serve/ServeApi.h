#pragma once

#include "ServeIndex.h"

#include <QByteArray>
#include <QString>
#include <QUrlQuery>

// The answers of the server to requests, apart from HTTP: the page at "/" and the JSON API
// of docs/serve-api.md under /api/v1, read from the index of each file. Every request that
// cannot be answered gets a 4xx status and {"error": "..."} saying why. Counts and sizes
// a request asks for are capped, so no request makes the server read or hold more than a
// few megabytes.
class ServeApi {
public:
    static constexpr quint64 MaxCount = 1000;      // children, elements, samples
    static constexpr quint64 MaxBytes = 64 * 1024; // of the file at once
    static constexpr quint32 MaxColumns = 4096;    // of a chart
    static constexpr quint64 MaxMatches = 1000;    // elements listed of a search
    static constexpr int MaxQuery = 256;           // characters of a search

    struct Answer {
        int status = 200;
        QByteArray contentType;
        QByteArray body;
    };

    // page: what "/" answers.
    ServeApi(const ServeIndex &index, QByteArray page);

    Answer answer(const QByteArray &method, const QString &path, const QUrlQuery &query) const;

private:
    const ServeIndex &index;
    QByteArray page;
};

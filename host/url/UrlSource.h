#pragma once

#include "InputDevice.h"

#include <QByteArray>
#include <QString>
#include <QUrl>

#include <list>
#include <map>
#include <memory>

class QNetworkAccessManager;

// A file read by URL through HTTP range requests: the blocks a parse touches are fetched when
// first read, a few requests at a time, and kept in a cache of bounded size. Every answer is
// checked against its request: a server that does not honour ranges, answers with another
// range or length, sends more or fewer bytes than asked, redirects without end or stalls ends
// the reading with an error (error()), and reads deliver no more bytes.
//
// Reads block in a local event loop, so the source is used from the thread that made it.
class UrlSource : public ByteSource {
public:
    // Bytes of one block, the unit of requests and of the cache.
    static constexpr qint64 BlockSize = 64 * 1024;
    // The cache holds at most this many bytes; a request at most MaxRequestBytes.
    static constexpr qint64 CacheBytes = 32 * 1024 * 1024;
    static constexpr qint64 MaxRequestBytes = 1024 * 1024;
    static constexpr int RequestsInFlight = 4;
    static constexpr int MaxRedirects = 10;
    // A request that receives nothing for this long, or is not done after four times as
    // long, fails.
    static constexpr int TimeoutMilliseconds = 10000;

    explicit UrlSource(const QUrl &url);
    ~UrlSource() override;

    static bool isUrl(const QString &name);

    // Fetches the first block, which tells the file's length and whether the server honours
    // ranges. Returns false with error() set when it cannot be read.
    bool open();

    qint64 size() const override { return length; }
    qint64 readAt(qint64 offset, char *buffer, qint64 count) override;

    // Why reading failed; empty while it has not.
    const QString &error() const { return problem; }
    quint64 requestCount() const { return requests; }
    quint64 bytesReceived() const { return received; }

private:
    struct Fetch;

    // Fetches the blocks from first to last (inclusive) into the cache, in requests of at
    // most MaxRequestBytes, RequestsInFlight at a time.
    bool fetchBlocks(qint64 first, qint64 last);
    void store(qint64 block, QByteArray bytes);
    const QByteArray *cached(qint64 block);
    void fail(const QString &text);

    QUrl url;
    std::unique_ptr<QNetworkAccessManager> network;
    qint64 length = -1; // unknown until open()
    QString problem;
    quint64 requests = 0;
    quint64 received = 0;
    // The cache: blocks by index, and their indexes from the latest used to the oldest.
    std::map<qint64, std::pair<QByteArray, std::list<qint64>::iterator>> blocks;
    std::list<qint64> recentlyUsed;
    // Where the last read ended, and how many blocks the next sequential read fetches ahead.
    qint64 lastEnd = -1;
    qint64 readAhead = 1;
};

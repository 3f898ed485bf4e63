#include "UrlSource.h"

#include <QEventLoop>
#include <QNetworkAccessManager>
#include <QNetworkReply>
#include <QNetworkRequest>
#include <QRegularExpression>
#include <QTimer>

#include <algorithm>
#include <cstring>
#include <functional>
#include <vector>

// One range request: the bytes asked for, what came, and what was wrong with the answer.
struct UrlSource::Fetch {
    qint64 start = 0;
    qint64 end = 0; // the last byte asked for
    QNetworkReply *reply = nullptr;
    QByteArray body;
    QString problem;
    bool finished = false;

    qint64 expected() const { return end - start + 1; }
};

UrlSource::UrlSource(const QUrl &url)
    : url(url)
    , network(std::make_unique<QNetworkAccessManager>())
{
}

UrlSource::~UrlSource() = default;

bool UrlSource::isUrl(const QString &name)
{
    return name.startsWith(QLatin1String("http://"), Qt::CaseInsensitive) ||
           name.startsWith(QLatin1String("https://"), Qt::CaseInsensitive);
}

bool UrlSource::open()
{
    if (!url.isValid() || url.host().isEmpty()) {
        fail(QStringLiteral("not a valid URL"));
        return false;
    }
    // The first block tells the length; a file shorter than a block comes whole.
    return fetchBlocks(0, 0);
}

void UrlSource::fail(const QString &text)
{
    if (problem.isEmpty())
        problem = text;
}

qint64 UrlSource::readAt(qint64 offset, char *buffer, qint64 count)
{
    if (!problem.isEmpty() || offset < 0 || offset >= length || count <= 0)
        return 0;
    count = qMin(count, length - offset);
    const qint64 first = offset / BlockSize;
    const qint64 last = (offset + count - 1) / BlockSize;
    // Reading on from where the last read ended fetches ever more blocks ahead, up to a
    // request's worth; a jump starts again with one.
    readAhead = offset == lastEnd ? qMin(readAhead * 2, MaxRequestBytes / BlockSize) : 1;
    lastEnd = offset + count;
    const qint64 lastBlock = (length - 1) / BlockSize;
    const qint64 ahead = qMin(last + readAhead - 1, lastBlock);

    // Each run of missing blocks is fetched as one range.
    for (qint64 block = first; block <= ahead && problem.isEmpty(); ++block) {
        if (cached(block))
            continue;
        qint64 runEnd = block;
        while (runEnd < ahead && !blocks.count(runEnd + 1))
            ++runEnd;
        fetchBlocks(block, runEnd);
        block = runEnd;
    }

    qint64 delivered = 0;
    while (delivered < count) {
        const qint64 at = offset + delivered;
        const QByteArray *bytes = cached(at / BlockSize);
        const qint64 inBlock = at % BlockSize;
        if (!bytes || inBlock >= bytes->size())
            break;
        const qint64 piece = qMin(count - delivered, qint64(bytes->size()) - inBlock);
        std::memcpy(buffer + delivered, bytes->constData() + inBlock, size_t(piece));
        delivered += piece;
    }
    return delivered;
}

const QByteArray *UrlSource::cached(qint64 block)
{
    const auto found = blocks.find(block);
    if (found == blocks.end())
        return nullptr;
    recentlyUsed.splice(recentlyUsed.begin(), recentlyUsed, found->second.second);
    return &found->second.first;
}

void UrlSource::store(qint64 block, QByteArray bytes)
{
    if (blocks.count(block))
        return;
    recentlyUsed.push_front(block);
    blocks.emplace(block, std::make_pair(std::move(bytes), recentlyUsed.begin()));
    while (qint64(blocks.size()) * BlockSize > CacheBytes) {
        blocks.erase(recentlyUsed.back());
        recentlyUsed.pop_back();
    }
}

bool UrlSource::fetchBlocks(qint64 first, qint64 last)
{
    // The requests: runs of whole blocks, the last one cut at the end of the file.
    std::vector<std::unique_ptr<Fetch>> fetches;
    const qint64 blocksPerRequest = MaxRequestBytes / BlockSize;
    for (qint64 block = first; block <= last; block += blocksPerRequest) {
        auto fetch = std::make_unique<Fetch>();
        fetch->start = block * BlockSize;
        fetch->end = qMin(block + blocksPerRequest, last + 1) * BlockSize - 1;
        if (length >= 0)
            fetch->end = qMin(fetch->end, length - 1);
        fetches.push_back(std::move(fetch));
    }

    QEventLoop loop;
    size_t next = 0;
    int running = 0;
    const auto checkHead = [this](Fetch &fetch) {
        QNetworkReply *reply = fetch.reply;
        const int status = reply->attribute(QNetworkRequest::HttpStatusCodeAttribute).toInt();
        if (status >= 300 && status < 400)
            return; // a redirect on its way to the answer
        const QString asked = QStringLiteral("bytes %1-%2").arg(fetch.start).arg(fetch.end);
        if (status == 200) {
            fetch.problem = QStringLiteral("the server does not honour range requests: it "
                                           "answered 200 with the whole file to a request for %1")
                                .arg(asked);
            return;
        }
        const QString range = QString::fromLatin1(reply->rawHeader("Content-Range"));
        // An empty file has no first block: the server says so with its length.
        static const QRegularExpression emptyFile(QStringLiteral("^bytes \\*/0$"));
        if (status == 416 && length < 0 && emptyFile.match(range).hasMatch()) {
            length = 0;
            return;
        }
        if (status != 206) {
            fetch.problem =
                QStringLiteral("the server answered %1 %2 to a request for %3")
                    .arg(status)
                    .arg(reply->attribute(QNetworkRequest::HttpReasonPhraseAttribute).toString(),
                         asked);
            return;
        }
        static const QRegularExpression pattern(
            QStringLiteral("^bytes (\\d{1,18})-(\\d{1,18})/(\\d{1,18})$"));
        const QRegularExpressionMatch match = pattern.match(range);
        const qint64 start = match.captured(1).toLongLong();
        const qint64 end = match.captured(2).toLongLong();
        const qint64 total = match.captured(3).toLongLong();
        if (match.hasMatch() && length < 0 && start == fetch.start && total > 0) {
            // The first answer tells the length; a short file ends the first range early.
            length = total;
            fetch.end = qMin(fetch.end, length - 1);
        }
        if (!match.hasMatch() || start != fetch.start || end != fetch.end || total != length) {
            fetch.problem = QStringLiteral("the server answered with Content-Range \"%1\" to a "
                                           "request for %2 of a file of %3 bytes")
                                .arg(range.left(100), asked)
                                .arg(length);
            return;
        }
        bool known = false;
        const qint64 declared =
            reply->header(QNetworkRequest::ContentLengthHeader).toLongLong(&known);
        if (known && declared != fetch.expected())
            fetch.problem = QStringLiteral("the server announced %1 bytes for the %2 bytes of %3")
                                .arg(declared)
                                .arg(fetch.expected())
                                .arg(asked);
    };
    // Starts requests while fewer than RequestsInFlight run; each one that ends starts the next.
    std::function<void()> startNext;
    startNext = [&]() {
        while (running < RequestsInFlight && next < fetches.size() && problem.isEmpty()) {
            Fetch &fetch = *fetches[next++];
            QNetworkRequest request(url);
            request.setRawHeader(
                "Range", QStringLiteral("bytes=%1-%2").arg(fetch.start).arg(fetch.end).toLatin1());
            // Bytes as they lie in the file: a compressed answer would not count them.
            request.setRawHeader("Accept-Encoding", "identity");
            request.setMaximumRedirectsAllowed(MaxRedirects);
            request.setTransferTimeout(TimeoutMilliseconds);
            fetch.reply = network->get(request);
            // Qt holds no more of an answer than this before it is read.
            fetch.reply->setReadBufferSize(MaxRequestBytes);
            ++requests;
            ++running;
            QObject::connect(fetch.reply, &QNetworkReply::metaDataChanged, &loop,
                             [&fetch, checkHead] {
                                 if (fetch.problem.isEmpty())
                                     checkHead(fetch);
                                 if (!fetch.problem.isEmpty())
                                     fetch.reply->abort();
                             });
            QObject::connect(fetch.reply, &QNetworkReply::readyRead, &loop, [this, &fetch] {
                const qint64 room = fetch.expected() - fetch.body.size();
                const QByteArray data = fetch.reply->read(room + 1);
                received += quint64(data.size());
                if (data.size() > room) {
                    fetch.problem = QStringLiteral("the server sent more than the %1 bytes asked "
                                                   "for at %2")
                                        .arg(fetch.expected())
                                        .arg(fetch.start);
                    fetch.reply->abort();
                    return;
                }
                fetch.body += data;
            });
            // A request that trickles on is ended too.
            auto *deadline = new QTimer(fetch.reply);
            deadline->setSingleShot(true);
            QObject::connect(deadline, &QTimer::timeout, fetch.reply, [&fetch] {
                fetch.problem = QStringLiteral("no whole answer within %1 s")
                                    .arg(4 * TimeoutMilliseconds / 1000);
                fetch.reply->abort();
            });
            deadline->start(4 * TimeoutMilliseconds);
            QObject::connect(
                fetch.reply, &QNetworkReply::finished, &loop, [&, this, fetchPointer = &fetch] {
                    Fetch &done = *fetchPointer;
                    QNetworkReply *reply = done.reply;
                    if (done.problem.isEmpty() && reply->error() == QNetworkReply::NoError) {
                        const QByteArray rest = reply->read(done.expected() - done.body.size() + 1);
                        received += quint64(rest.size());
                        done.body += rest;
                    }
                    if (done.problem.isEmpty()) {
                        if (length == 0)
                            done.body.clear(); // the answer of an empty file: nothing to hold
                        else if (reply->error() == QNetworkReply::TooManyRedirectsError)
                            done.problem =
                                QStringLiteral("more than %1 redirects").arg(MaxRedirects);
                        else if (reply->error() == QNetworkReply::RemoteHostClosedError &&
                                 done.body.size() < done.expected())
                            done.problem = QStringLiteral("the answer ended after %1 of the %2 "
                                                          "bytes asked for at %3")
                                               .arg(done.body.size())
                                               .arg(done.expected())
                                               .arg(done.start);
                        else if (reply->error() == QNetworkReply::OperationCanceledError ||
                                 reply->error() == QNetworkReply::TimeoutError)
                            done.problem = QStringLiteral("no answer for %1 s")
                                               .arg(TimeoutMilliseconds / 1000);
                        else if (reply->error() != QNetworkReply::NoError)
                            done.problem = reply->errorString();
                        else if (done.body.size() > done.expected())
                            done.problem =
                                QStringLiteral(
                                    "the server sent more than the %1 bytes asked for at %2")
                                    .arg(done.expected())
                                    .arg(done.start);
                        else if (done.body.size() < done.expected())
                            done.problem =
                                QStringLiteral(
                                    "the answer ended after %1 of the %2 bytes asked for at %3")
                                    .arg(done.body.size())
                                    .arg(done.expected())
                                    .arg(done.start);
                    }
                    fail(done.problem);
                    done.finished = true;
                    --running;
                    if (!problem.isEmpty()) {
                        for (const auto &other : fetches) {
                            if (other->reply && !other->finished)
                                other->reply->abort();
                        }
                    }
                    startNext();
                    if (running == 0)
                        loop.quit();
                });
        }
    };
    startNext();
    if (running > 0)
        loop.exec(QEventLoop::ExcludeUserInputEvents);

    for (const auto &fetch : fetches) {
        // Every reply has finished, and none of its signals is being handled.
        delete fetch->reply;
        if (!fetch->finished || !fetch->problem.isEmpty() || !problem.isEmpty())
            continue;
        for (qint64 at = 0; at < fetch->body.size(); at += BlockSize)
            store((fetch->start + at) / BlockSize, fetch->body.mid(at, BlockSize));
    }
    return problem.isEmpty();
}

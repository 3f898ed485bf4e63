#include "Server.h"

#include "HtmlPage.h"
#include "JsonText.h"

#include <QCoreApplication>
#include <QHttpServerRequest>
#include <QHttpServerResponder>
#include <QMetaEnum>
#include <QSocketNotifier>
#include <QTcpServer>

#include <csignal>
#include <fcntl.h>
#include <unistd.h>

namespace {
// The request's method as HTTP spells it, from the name Qt gives it ("Get": "GET").
QByteArray methodName(QHttpServerRequest::Method method)
{
    const char *name = QMetaEnum::fromType<QHttpServerRequest::Method>().valueToKey(int(method));
    return name ? QByteArray(name).toUpper() : QByteArrayLiteral("an unknown method");
}

// The page of the HTML report without reports: it finds the server's API instead, and may
// fetch from the server it came from.
QByteArray servedPage()
{
    QByteArray head(HtmlPageHead);
    head.replace("default-src 'none';", "default-src 'none'; connect-src 'self';");
    return head +
           "<script type=\"application/json\" id=\"served\">{\"api\":\"/api/v1\"}</script>\n" +
           QByteArray(HtmlPageTail);
}

int signalPipe[2] = {-1, -1};

void onSignal(int)
{
    const char byte = 1;
    [[maybe_unused]] const ssize_t written = ::write(signalPipe[1], &byte, 1);
}
} // namespace

Server::Server(const ServeApi &api)
    : api(api)
{
}

quint16 Server::start(quint16 wanted, QString *problem)
{
    auto *tcp = new QTcpServer(this);
    if (!tcp->listen(QHostAddress::LocalHost, wanted)) {
        *problem = tcp->errorString();
        delete tcp;
        return 0;
    }
    bind(tcp);
    port = tcp->serverPort();
    return port;
}

bool Server::handleRequest(const QHttpServerRequest &request, QTcpSocket *socket)
{
    ServeApi::Answer answer;
    const QByteArray host = request.value("Host");
    const QByteArray port = ':' + QByteArray::number(this->port);
    if (host != "127.0.0.1" + port && host != "localhost" + port) {
        answer = {403, "application/json; charset=utf-8",
                  json::errorBody(QStringLiteral("this server answers only requests for "
                                                 "127.0.0.1%1")
                                      .arg(QString::fromLatin1(port)))};
    } else {
        answer = api.answer(methodName(request.method()), request.url().path(), request.query());
    }
    QHttpServerResponder responder = makeResponder(request, socket);
    responder.writeStatusLine(QHttpServerResponder::StatusCode(answer.status));
    responder.writeHeader("Content-Type", answer.contentType);
    responder.writeHeader("Content-Length", QByteArray::number(answer.body.size()));
    responder.writeHeader("Cache-Control", "no-store");
    responder.writeHeader("X-Content-Type-Options", "nosniff");
    if (answer.status == 405)
        responder.writeHeader("Allow", "GET");
    responder.writeBody(answer.body);
    return true;
}

void Server::missingHandler(const QHttpServerRequest &request, QTcpSocket *socket)
{
    makeResponder(request, socket)
        .write(json::errorBody(QStringLiteral("no such path")), "application/json",
               QHttpServerResponder::StatusCode::NotFound);
}

int serveReports(const ServeIndex &index, quint16 port, FILE *err)
{
    const ServeApi api(index, servedPage());
    Server server(api);
    QString problem;
    const quint16 bound = server.start(port, &problem);
    if (bound == 0) {
        std::fprintf(err, "sarvelinth: cannot listen on 127.0.0.1 port %u: %s\n", unsigned(port),
                     problem.toUtf8().constData());
        return 1;
    }

    // A signal handler may only write to a pipe; the event loop reads it and ends.
    if (::pipe2(signalPipe, O_CLOEXEC | O_NONBLOCK) != 0) {
        std::fprintf(err, "sarvelinth: cannot set up the signal pipe\n");
        return 1;
    }
    QSocketNotifier notifier(signalPipe[0], QSocketNotifier::Read);
    QObject::connect(&notifier, &QSocketNotifier::activated, QCoreApplication::instance(),
                     &QCoreApplication::quit);
    struct sigaction action = {};
    action.sa_handler = onSignal;
    sigemptyset(&action.sa_mask);
    struct sigaction previousInterrupt = {};
    struct sigaction previousTerminate = {};
    sigaction(SIGINT, &action, &previousInterrupt);
    sigaction(SIGTERM, &action, &previousTerminate);

    std::fprintf(err, "sarvelinth: serving http://127.0.0.1:%u/\n", unsigned(bound));
    std::fflush(err);
    QCoreApplication::exec();

    sigaction(SIGINT, &previousInterrupt, nullptr);
    sigaction(SIGTERM, &previousTerminate, nullptr);
    ::close(signalPipe[0]);
    ::close(signalPipe[1]);
    signalPipe[0] = signalPipe[1] = -1;
    return 0;
}

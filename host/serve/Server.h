#pragma once

#include "ServeApi.h"

#include <QAbstractHttpServer>

#include <cstdio>

class QTcpServer;

// The HTTP side of --serve: listens on 127.0.0.1 only and hands every request to the API.
// A request whose Host header names another server is refused, so that a web page whose
// name was pointed at this machine cannot read the reports through the browser.
class Server : public QAbstractHttpServer {
public:
    explicit Server(const ServeApi &api);

    // Listens at port, or at a free port for 0; returns the port, or 0 with the reason in
    // *problem.
    quint16 start(quint16 port, QString *problem);

protected:
    bool handleRequest(const QHttpServerRequest &request, QTcpSocket *socket) override;
    void missingHandler(const QHttpServerRequest &request, QTcpSocket *socket) override;

private:
    const ServeApi &api;
    quint16 port = 0;
};

// Serves the reports of the index at 127.0.0.1:port (0: a free port) until SIGINT or
// SIGTERM; tells the address on err. Returns the exit status: 0, or 1 when it cannot
// listen.
int serveReports(const ServeIndex &index, quint16 port, FILE *err);

#pragma once

#include <QByteArray>
#include <QFile>
#include <QString>

#include <memory>

class UrlSource;

// The bytes of a reported file, for the writers that show them (the page's hex view, the
// server's bytes): read from the file under its path, standard input's spool too, or through
// the URL the file was read by.
class SourceBytes {
public:
    explicit SourceBytes(const QString &path);
    explicit SourceBytes(std::shared_ptr<UrlSource> url);
    ~SourceBytes();
    SourceBytes(const SourceBytes &) = delete;
    SourceBytes &operator=(const SourceBytes &) = delete;

    // The file's length; -1 with *error set when it cannot be read.
    qint64 size(QString *error);
    // Up to count bytes from offset, fewer at the end of the file (or of one that changed
    // since it was parsed); false with *error set when they cannot be read.
    bool read(quint64 offset, quint64 count, QByteArray *bytes, QString *error);

private:
    QString path;
    QFile file;
    std::shared_ptr<UrlSource> url;
};

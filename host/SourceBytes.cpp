#include "SourceBytes.h"

#include "UrlSource.h"

#include <utility>

SourceBytes::SourceBytes(const QString &path)
    : path(path)
{
}

SourceBytes::SourceBytes(std::shared_ptr<UrlSource> url)
    : url(std::move(url))
{
}

SourceBytes::~SourceBytes() = default;

qint64 SourceBytes::size(QString *error)
{
    if (url) {
        if (!url->error().isEmpty()) {
            *error = url->error();
            return -1;
        }
        return url->size();
    }
    if (!file.isOpen()) {
        file.setFileName(path);
        if (!file.open(QIODevice::ReadOnly)) {
            *error = file.errorString();
            return -1;
        }
    }
    return file.size();
}

bool SourceBytes::read(quint64 offset, quint64 count, QByteArray *bytes, QString *error)
{
    const qint64 length = size(error);
    if (length < 0)
        return false;
    const qint64 wanted =
        offset < quint64(length) ? qint64(qMin(count, quint64(length) - offset)) : 0;
    bytes->resize(wanted);
    qint64 got = 0;
    if (url)
        got = url->readAt(qint64(offset), bytes->data(), wanted);
    else if (wanted > 0 && file.seek(qint64(offset)))
        got = file.read(bytes->data(), wanted);
    bytes->resize(qMax<qint64>(got, 0));
    if (url && !url->error().isEmpty()) {
        *error = url->error();
        return false;
    }
    return true;
}

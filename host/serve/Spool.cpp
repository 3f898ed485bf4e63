#include "Spool.h"

#include <QDir>

#include <cerrno>
#include <cstring>
#include <unistd.h>

Spool::Spool(size_t bufferSize)
    : file(QDir::tempPath() + QStringLiteral("/sarvelinth-index-XXXXXX"))
    , capacity(bufferSize)
    , buffer(new char[bufferSize])
{
}

bool Spool::open()
{
    if (!file.open()) {
        problem = file.errorString();
        return false;
    }
    descriptor = file.handle();
    return true;
}

void Spool::failed(int error)
{
    if (problem.isEmpty())
        problem = QString::fromLocal8Bit(std::strerror(error ? error : EIO));
}

void Spool::drain()
{
    const char *data = buffer.get();
    size_t left = used;
    while (left > 0 && problem.isEmpty()) {
        const ssize_t done = ::pwrite(descriptor, data, left, off_t(written));
        if (done <= 0) {
            if (done < 0 && errno == EINTR)
                continue;
            failed(errno);
            break;
        }
        data += done;
        left -= size_t(done);
        written += quint64(done);
    }
    // What could not be written counts as written, so positions stay those of the records.
    written += left;
    used = 0;
}

void Spool::append(const void *data, size_t length)
{
    const char *bytes = static_cast<const char *>(data);
    while (length > 0) {
        if (used == capacity)
            drain();
        const size_t part = qMin(length, capacity - used);
        std::memcpy(buffer.get() + used, bytes, part);
        used += part;
        bytes += part;
        length -= part;
    }
}

void Spool::writeAt(quint64 position, const void *data, size_t length)
{
    const char *bytes = static_cast<const char *>(data);
    while (length > 0 && problem.isEmpty()) {
        const ssize_t done = ::pwrite(descriptor, bytes, length, off_t(position));
        if (done <= 0) {
            if (done < 0 && errno == EINTR)
                continue;
            failed(errno);
            return;
        }
        bytes += done;
        length -= size_t(done);
        position += quint64(done);
    }
    written = qMax(written, position);
}

bool Spool::read(quint64 position, void *data, size_t length) const
{
    if (position > size() || length > size() - position)
        return false;
    char *to = static_cast<char *>(data);
    while (length > 0 && position < written) {
        const size_t part = size_t(qMin<quint64>(length, written - position));
        const ssize_t done = ::pread(descriptor, to, part, off_t(position));
        if (done <= 0) {
            if (done < 0 && errno == EINTR)
                continue;
            return false;
        }
        to += done;
        length -= size_t(done);
        position += quint64(done);
    }
    if (length > 0)
        std::memcpy(to, buffer.get() + (position - written), length);
    return true;
}

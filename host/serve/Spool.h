#pragma once

#include <QString>
#include <QTemporaryFile>

#include <memory>

// A temporary file that grows at its end through a write buffer and is read at any
// position. The index of a report lives in such files, so that memory does not grow with
// the report; the file goes when the spool does.
class Spool {
public:
    explicit Spool(size_t bufferSize = 64 * 1024);
    Spool(const Spool &) = delete;
    Spool &operator=(const Spool &) = delete;

    // Creates the file in the temporary directory; false when none can be made.
    bool open();
    quint64 size() const { return written + used; }
    void append(const void *data, size_t length);
    // Writes at any position, past the end too, bypassing the buffer: only for spools that
    // are never appended to.
    void writeAt(quint64 position, const void *data, size_t length);
    // Reads length bytes at position, from the file or the buffer; false when they are not
    // all there.
    bool read(quint64 position, void *data, size_t length) const;
    template <typename T> bool readRecord(quint64 position, T *record) const
    {
        return read(position, record, sizeof(T));
    }
    // Why the last write failed; empty while none has.
    const QString &error() const { return problem; }

private:
    void drain();
    void failed(int error);

    QTemporaryFile file;
    int descriptor = -1;
    size_t capacity;
    std::unique_ptr<char[]> buffer;
    size_t used = 0;
    quint64 written = 0;
    QString problem;
};

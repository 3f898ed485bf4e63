#pragma once

#include "Export.h"

#include <QByteArray>
#include <QFile>
#include <QString>

#include <vector>
// Bytes of an input that is no local file, such as a file read by URL: an input device
// fills its window from them.
class SARVELINTH_ABSTRACT_EXPORT ByteSource {
public:
    virtual ~ByteSource();
    virtual qint64 size() const = 0;
    // Reads up to count bytes from offset into buffer; returns how many, 0 behind the end
    // or when they cannot be had.
    virtual qint64 readAt(qint64 offset, char *buffer, qint64 count) = 0;
};

// Read-only random access to the file under analysis. Parsers seek and read small pieces
// all over the file, so reads are served from a window of the file held in memory.
// A read never delivers bytes beyond the end and never touches the caller's buffer
// behind the bytes it delivers.
class SARVELINTH_ABSTRACT_EXPORT InputDevice {
public:
    InputDevice();
    virtual ~InputDevice();
    InputDevice(const InputDevice &) = delete;
    InputDevice &operator=(const InputDevice &) = delete;

    // Opens a file; on failure returns false and sets *error to a message for people.
    bool openFile(const QString &fileName, QString *error);
    // Serves the given bytes as the whole input.
    void openMemory(const QByteArray &bytes);
    // Serves the given bytes as the whole input until endOverlay, which returns to the input
    // as it was, at its position: for bytes inflated from a part of the input. Overlays nest.
    void beginOverlay(const QByteArray &bytes);
    void endOverlay();
    // Serves the bytes of source, which outlives the device's use of it.
    void openSource(ByteSource *source);

    virtual qint64 size() const;
    virtual bool seek(qint64 position);
    virtual qint64 readBytes(char *buffer, qint64 count);
    qint64 pos() const { return position; }
    // Bytes of the input from position to its end; 0 at or behind the end.
    quint64 bytesFrom(quint64 position) const
    {
        return position < quint64(length) ? quint64(length) - position : 0;
    }

private:
    bool fillWindow(qint64 start);

    QFile file;
    ByteSource *source = nullptr;
    bool fromFile = false;
    qint64 length = 0;
    qint64 position = 0;
    QByteArray window; // bytes of the input starting at windowStart
    qint64 windowStart = 0;
    // The inputs under the overlays, innermost last.
    struct Covered {
        bool fromFile;
        ByteSource *source;
        qint64 length;
        qint64 position;
        QByteArray window;
        qint64 windowStart;
    };
    std::vector<Covered> covered;
};

#pragma once

#include "Export.h"

#include <QByteArray>
#include <QFile>
#include <QString>

#include <vector>

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
    bool fromFile = false;
    qint64 length = 0;
    qint64 position = 0;
    QByteArray window; // bytes of the input starting at windowStart
    qint64 windowStart = 0;
    // The inputs under the overlays, innermost last.
    struct Covered {
        bool fromFile;
        qint64 length;
        qint64 position;
        QByteArray window;
        qint64 windowStart;
    };
    std::vector<Covered> covered;
};

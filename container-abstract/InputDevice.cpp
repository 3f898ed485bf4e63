#include "InputDevice.h"

#include <QFileInfo>

#include <cstring>

namespace {
// Large enough that the small reads of a box table stay inside one window, small
// enough to stay out of the memory budget.
constexpr qint64 WindowSize = 64 * 1024;
} // namespace

ByteSource::~ByteSource() = default;

InputDevice::InputDevice() = default;
InputDevice::~InputDevice() = default;

bool InputDevice::openFile(const QString &fileName, QString *error)
{
    const QFileInfo info(fileName);
    QString problem;
    if (!info.exists())
        problem = QStringLiteral("no such file");
    else if (info.isDir())
        problem = QStringLiteral("is a directory");
    else {
        file.close();
        file.setFileName(fileName);
        if (!file.open(QIODevice::ReadOnly | QIODevice::Unbuffered))
            problem = file.errorString();
    }
    if (!problem.isEmpty()) {
        if (error)
            *error = problem;
        return false;
    }
    fromFile = true;
    source = nullptr;
    length = file.size();
    position = 0;
    window.clear();
    windowStart = 0;
    return true;
}

void InputDevice::openMemory(const QByteArray &bytes)
{
    fromFile = false;
    source = nullptr;
    window = bytes;
    windowStart = 0;
    length = bytes.size();
    position = 0;
}

void InputDevice::beginOverlay(const QByteArray &bytes)
{
    covered.push_back({fromFile, source, length, position, window, windowStart});
    openMemory(bytes);
}

void InputDevice::endOverlay()
{
    if (covered.empty())
        return;
    Covered &under = covered.back();
    fromFile = under.fromFile;
    source = under.source;
    length = under.length;
    position = under.position;
    window = std::move(under.window);
    windowStart = under.windowStart;
    covered.pop_back();
}

void InputDevice::openSource(ByteSource *byteSource)
{
    fromFile = false;
    source = byteSource;
    length = qMax<qint64>(source->size(), 0);
    position = 0;
    window.clear();
    windowStart = 0;
}

qint64 InputDevice::size() const
{
    return length;
}

bool InputDevice::seek(qint64 newPosition)
{
    if (newPosition < 0)
        return false;
    position = newPosition;
    return true;
}

qint64 InputDevice::readBytes(char *buffer, qint64 count)
{
    if (count <= 0 || position >= length)
        return 0;
    count = qMin(count, length - position);
    qint64 delivered = 0;
    while (delivered < count) {
        const qint64 at = position + delivered;
        if (at < windowStart || at >= windowStart + window.size()) {
            if ((!fromFile && !source) || !fillWindow(at))
                break;
        }
        const qint64 inWindow = qMin(count - delivered, windowStart + window.size() - at);
        std::memcpy(buffer + delivered, window.constData() + (at - windowStart), size_t(inWindow));
        delivered += inWindow;
    }
    position += delivered;
    return delivered;
}

bool InputDevice::fillWindow(qint64 start)
{
    window.resize(WindowSize);
    if (source) {
        const qint64 got = source->readAt(start, window.data(), WindowSize);
        window.resize(int(qMax<qint64>(got, 0)));
        windowStart = start;
        return got > 0;
    }
    if (!file.seek(start)) {
        window.clear();
        return false;
    }
    const qint64 got = file.read(window.data(), WindowSize);
    window.resize(int(qMax<qint64>(got, 0)));
    windowStart = start;
    return got > 0;
}

#include "ContainerMP4.h"
#include "Render.h"

// vmhd: the composition mode of a video track and the colour it uses.
int ContainerMP4::parseBoxVMHD(quint64 offset, quint64 /*size*/)
{
    // Zeroed, so that what a short read leaves out shows as 0.
    quint16 words[4] = {};
    input.readBytes(reinterpret_cast<char *>(words), sizeof words);

    swapBytes(&words[0], 2);
    const QString modeComment =
        words[0] == 0 ? QStringLiteral("Copy over existing image.") : QString();
    reportField(offset, 2, "graphicsmode", Render::i32(words[0], valueBase), modeComment);

    // The colour is always decimal, whatever the base of the other values.
    QString color = QStringLiteral("%1, %2, %3");
    for (int i = 1; i < 4; ++i) {
        swapBytes(&words[i], 2);
        color = color.arg(qulonglong(words[i]));
    }
    reportField(offset + 2, 6, "opcolor", color, QStringLiteral("red, green, blue"));
    return ParseOk;
}

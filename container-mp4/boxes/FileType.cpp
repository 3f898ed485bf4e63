#include "ContainerMP4.h"

// ftyp and styp: major brand, minor version and the list of compatible brands.
int ContainerMP4::parseFileType(quint64 offset, quint64 size)
{
    // One buffer for every read: its fifth byte stays zero, so it always ends a text.
    char brand[5] = {};

    input.readBytes(brand, 4);
    reportField(offset, 4, "major_brand", QString::fromLatin1(brand));

    input.seek(qint64(offset + 4));
    input.readBytes(brand, 4);
    QString minorVersion = QStringLiteral("%1%2.%3.%4");
    for (int i = 0; i < 4; ++i)
        minorVersion = minorVersion.arg(qlonglong(quint8(brand[i])), 2, 16, QLatin1Char('0'));
    reportField(offset + 4, 4, "minor_version", minorVersion);

    beginElement(offset + 8, size >= 8 ? size - 8 : 0, QStringLiteral("compatible_brands"), -1);
    // A last group of 1 to 3 bytes still gets a whole brand; no brand starts behind the
    // end of the input, whatever the box claims.
    const QString brandName = QStringLiteral("brand");
    for (quint64 at = 8; at < size && input.bytesFrom(offset + at) > 0; at += 4) {
        input.seek(qint64(offset + at));
        input.readBytes(brand, 4);
        reportField(offset + at, 4, brandName, QString::fromLatin1(brand));
    }
    endElement();

    input.seek(qint64(offset));
    return ParseOk;
}

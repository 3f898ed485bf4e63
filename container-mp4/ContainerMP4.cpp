#include "ContainerMP4.h"

#include <QFileInfo>

#include <cstdio>

ContainerMP4::ElementMP4::ElementMP4()
    : handler(nullptr)
    , fullBox(0)
    , description(QString())
    , opensStream(false)
{
}

ContainerMP4::ElementMP4::ElementMP4(int elementType, int fullBox, BoxHandler handler, QString name,
                                     QString description, bool opensStream)
    : CommonElement(elementType, name)
    , handler(handler)
    , fullBox(fullBox)
    , description(std::move(description))
    , opensStream(opensStream)
{
}

ContainerMP4::ElementMP4::ElementMP4(const ElementMP4 &other) = default;
ContainerMP4::ElementMP4 &ContainerMP4::ElementMP4::operator=(const ElementMP4 &other) = default;
ContainerMP4::ElementMP4::~ElementMP4() = default;

ContainerMP4::ContainerMP4()
{
    buildBoxTable();
}

ContainerMP4::~ContainerMP4()
{
    for (ElementMP4 *row : std::as_const(elements))
        delete row;
    elements.clear();

    const int streamCount = int(sampleOutputs.size());
    for (int i = 0; i < streamCount; ++i) {
        for (TableList list : TableLists) {
            if (QIODevice *device = (this->*list)[i]) {
                device->close();
                delete device;
            }
        }
    }
}

int ContainerMP4::verifyContainerFormat(const QString &fileName)
{
    const QString suffix = QFileInfo(fileName).suffix().toLower();
    if (suffix == QLatin1String("mp4") || suffix == QLatin1String("f4v") ||
        suffix == QLatin1String("mp4v")) {
        std::fprintf(stderr, "Container format:\tMP4\n");
        return ParseOk;
    }
    return ParseNotThisFormat;
}

int ContainerMP4::findBeginOfContainer(qint64 *offset)
{
    *offset = 0;
    return ParseOk;
}

void ContainerMP4::prepareParsing() {}

int ContainerMP4::searchID(const QString &id, ElementMP4 *element)
{
    const auto row = elements.constFind(id);
    if (row == elements.constEnd())
        return ParseUnknownElement;
    *element = **row;
    return ParseOk;
}

ContainerAbstract *createParser()
{
    return new ContainerMP4();
}

QString containerName()
{
    return QStringLiteral("MP4");
}

QStringList supportedExtensions()
{
    return QStringLiteral("mp4|f4v").split(QLatin1Char('|'), Qt::KeepEmptyParts, Qt::CaseSensitive);
}

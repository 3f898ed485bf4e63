#include "ContainerMP4.h"
#include "deep/DeepAnalysis.h"

#include <QFile>
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
    const bool taken = suffix == QLatin1String("mp4") || suffix == QLatin1String("f4v") ||
                       suffix == QLatin1String("mp4v") ||
                       (deepAnalysis && (isFamilySuffix(suffix) || beginsWithABox(fileName)));
    if (!taken)
        return ParseNotThisFormat;
    std::fprintf(stderr, "Container format:\tMP4\n");
    return ParseOk;
}

bool ContainerMP4::isFamilySuffix(const QString &suffix)
{
    return deepExtensions().contains(suffix);
}

bool ContainerMP4::beginsWithABox(const QString &fileName)
{
    QFile file(fileName);
    unsigned char header[8];
    if (!file.open(QIODevice::ReadOnly) || file.read(reinterpret_cast<char *>(header), 8) != 8)
        return false;
    const quint32 size = quint32(header[0]) << 24 | header[1] << 16 | header[2] << 8 | header[3];
    const QString type = QString::fromLatin1(reinterpret_cast<const char *>(header) + 4, 4);
    prepareParsing();
    return (size == 0 || size == 1 || size >= 8) && elements.contains(type);
}

int ContainerMP4::findBeginOfContainer(qint64 *offset)
{
    *offset = 0;
    return ParseOk;
}

void ContainerMP4::prepareParsing()
{
    if (deepAnalysis && !deep) {
        deep = std::make_unique<DeepAnalysis>();
        addDeepRows();
    }
}

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

QStringList deepExtensions()
{
    static const QStringList suffixes = {"mov",  "m4a",  "m4v",  "m4s",  "3gp",  "3g2", "heic",
                                         "heif", "avif", "cmfv", "cmfa", "ismv", "mj2"};
    return suffixes;
}

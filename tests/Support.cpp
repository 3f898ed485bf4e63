#include "Support.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QtEndian>

#include <gtest/gtest.h>

namespace bytes {

namespace {
template <typename T> QByteArray bigEndian(T value, int width)
{
    const T big = qToBigEndian(value);
    return QByteArray(reinterpret_cast<const char *>(&big) + sizeof(T) - width, width);
}
} // namespace

QByteArray u8(quint8 value)
{
    return QByteArray(1, char(value));
}
QByteArray u16(quint16 value)
{
    return bigEndian(value, 2);
}
QByteArray u24(quint32 value)
{
    return bigEndian(value, 3);
}
QByteArray u32(quint32 value)
{
    return bigEndian(value, 4);
}
QByteArray u64(quint64 value)
{
    return bigEndian(value, 8);
}
QByteArray text(const char *ascii)
{
    return QByteArray(ascii);
}
QByteArray zeros(int count)
{
    return QByteArray(count, '\0');
}
QByteArray cat(std::initializer_list<QByteArray> parts)
{
    QByteArray all;
    for (const QByteArray &part : parts)
        all += part;
    return all;
}
QByteArray box(const char *type, const QByteArray &payload)
{
    return u32(quint32(8 + payload.size())) + QByteArray(type, 4) + payload;
}
QByteArray fullBox(const char *type, quint8 version, quint32 flags, const QByteArray &payload)
{
    return box(type, u8(version) + u24(flags) + payload);
}
QByteArray bigBox(const char *type, const QByteArray &payload)
{
    return u32(1) + QByteArray(type, 4) + u64(quint64(16 + payload.size())) + payload;
}

} // namespace bytes

ReportTree parseReport(const QByteArray &input, const ContainerAbstract::Settings &settings)
{
    ReportTree report;
    TestParser parser;
    parser.configure(settings);
    parser.parseBytes(QStringLiteral("test.mp4"), input, report);
    return report;
}

QString dump(const ReportTree::Node &node, int depth)
{
    QString line = QString(depth * 2, QLatin1Char(' ')) + node.name;
    if (node.index != -1)
        line += QStringLiteral("[%1]").arg(node.index);
    if (node.kind == ReportTree::Node::Field && node.bitField)
        line += QStringLiteral(" @%1.%2+%3b").arg(node.offset).arg(node.bitOffset).arg(node.size);
    else
        line += QStringLiteral(" @%1+%2").arg(node.offset).arg(node.size);
    if (!node.note.isEmpty())
        line += QStringLiteral(" ! ") + node.note;
    if (node.kind == ReportTree::Node::Raw)
        line += QStringLiteral(" = ") + QString::fromLatin1(node.data.toHex());
    else if (!node.value.isEmpty())
        line += QStringLiteral(" = ") + node.value;
    if (!node.comment.isEmpty())
        line += QStringLiteral(" // ") + node.comment;
    line += QLatin1Char('\n');
    for (const auto &child : node.children)
        line += dump(*child, depth + 1);
    return line;
}

QString dump(const ReportTree &report)
{
    QString all;
    for (const auto &child : report.root.children)
        all += dump(*child, 0);
    return all;
}

QString deepDump(const QByteArray &input)
{
    ContainerAbstract::Settings settings;
    settings.deepAnalysis = true;
    const ReportTree report = parseReport(input, settings);
    QString all = dump(report);
    for (const ReportTree::Stream &stream : report.streams) {
        const StreamInfo &info = stream.info;
        all += QStringLiteral("stream %1: codec %2 (%3) %4x%5 config @%6+%7")
                   .arg(stream.index)
                   .arg(info.codecId)
                   .arg(info.codecName)
                   .arg(info.width)
                   .arg(info.height)
                   .arg(info.configOffset)
                   .arg(info.configSize);
        if (const std::optional<TrackFacts> &facts = info.track) {
            all += QStringLiteral(" | track %1 %2 %3 %4 %5 %6")
                       .arg(facts->trackId)
                       .arg(info.handlerType, facts->sampleEntry)
                       .arg(facts->timescale)
                       .arg(facts->duration)
                       .arg(facts->language);
            if (facts->channelCount != 0)
                all += QStringLiteral(" %1 %2").arg(facts->channelCount).arg(facts->sampleRate);
        }
        all += '\n';
        for (int i = 0; i < stream.trackSamples.size(); ++i) {
            const TrackSample &s = stream.trackSamples[i];
            all += QString::asprintf(
                "  %llu %llu %llu %lld %lld %u %d %s", qulonglong(stream.sampleIndexes[i]),
                qulonglong(s.offset), qulonglong(s.size), qlonglong(s.dts), qlonglong(s.pts),
                s.duration, s.keyFrame ? 1 : 0,
                s.presentationTime ? qPrintable(QString::number(*s.presentationTime)) : "-");
            if (const std::optional<FragmentOrigin> &origin = s.fragment)
                all += QString::asprintf(" moof %llu@%llu traf %llu trun %llu entry %llu\n",
                                         qulonglong(origin->moof), qulonglong(origin->moofOffset),
                                         qulonglong(origin->traf), qulonglong(origin->trun),
                                         qulonglong(origin->trunEntry));
            else
                all += QString::asprintf(
                    " %llu %lld %lld %lld\n", qulonglong(s.chunk), qlonglong(s.sampleToChunkEntry),
                    qlonglong(s.timeToSampleEntry), qlonglong(s.compositionEntry));
        }
    }
    return all;
}

void expectGolden(const QString &name, const QString &actual)
{
    const QString path =
        QStringLiteral(SARVELINTH_SOURCE_DIR "/tests/golden/") + name + QStringLiteral(".txt");
    QFile file(path);
    if (qEnvironmentVariableIntValue("UPDATE_GOLDEN") == 1) {
        QDir().mkpath(QFileInfo(path).path());
        ASSERT_TRUE(file.open(QIODevice::WriteOnly)) << "cannot write " << path.toStdString();
        file.write(actual.toUtf8());
        return;
    }
    ASSERT_TRUE(file.open(QIODevice::ReadOnly))
        << "missing golden file " << path.toStdString()
        << "; run the test with UPDATE_GOLDEN=1 to create it, then review it";
    EXPECT_EQ(actual.toStdString(), QString::fromUtf8(file.readAll()).toStdString())
        << "golden file " << path.toStdString();
}

#include "Support.h"

#include <QTemporaryFile>

#include <cstring>
#include <functional>

#include <gtest/gtest.h>

TEST(InputDevice, ReadsClampToTheInputAndLeaveTheRestAlone)
{
    QTemporaryFile file;
    ASSERT_TRUE(file.open());
    QByteArray content(200000, '\0');
    for (int i = 0; i < content.size(); ++i)
        content[i] = char(i * 7);
    file.write(content);
    file.flush();
    InputDevice fromFile;
    QString error;
    ASSERT_TRUE(fromFile.openFile(file.fileName(), &error));
    InputDevice fromMemory;
    fromMemory.openMemory(content);

    for (InputDevice *input : {&fromFile, &fromMemory}) {
        EXPECT_EQ(input->size(), content.size());
        // Across the file's read window and back: the file's bytes, the position behind them.
        for (qint64 at : {65530LL, 199990LL, 70000LL}) {
            char buffer[16];
            input->seek(at);
            const qint64 want = qMin<qint64>(16, content.size() - at);
            ASSERT_EQ(input->readBytes(buffer, 16), want) << at;
            EXPECT_EQ(QByteArray(buffer, int(want)), content.mid(int(at), int(want))) << at;
            EXPECT_EQ(input->pos(), at + want);
        }
        char buffer[8];
        std::memset(buffer, 'k', sizeof buffer);
        input->seek(content.size() - 3);
        EXPECT_EQ(input->readBytes(buffer, 8), 3);
        EXPECT_EQ(QByteArray(buffer + 3, 5), QByteArray(5, 'k'));
        input->seek(content.size() + 100);
        EXPECT_EQ(input->readBytes(buffer, 1LL << 40), 0);
        EXPECT_EQ(buffer[0], content[content.size() - 3]);
    }
}

namespace {
// A parser that makes the base's reporting calls directly.
class ScriptedParser : public ContainerAbstract {
public:
    std::function<void(ScriptedParser &)> script;
    using ContainerAbstract::addField;
    using ContainerAbstract::addRawField;
    using ContainerAbstract::beginElement;
    using ContainerAbstract::beginListEntry;
    using ContainerAbstract::currentSample;
    using ContainerAbstract::enableSampleOutput;
    using ContainerAbstract::endElement;
    using ContainerAbstract::input;
    using ContainerAbstract::openStream;
    using ContainerAbstract::reportSample;
    using ContainerAbstract::setElementOffset;
    using ContainerAbstract::setElementSize;
    using ContainerAbstract::streams;

protected:
    int verifyContainerFormat(const QString &) override { return ParseOk; }
    int findBeginOfContainer(qint64 *offset) override
    {
        *offset = 0;
        return ParseOk;
    }
    int parseElement(quint64 *size) override
    {
        *size = quint64(input.size());
        script(*this);
        return ParseOk;
    }
};
} // namespace

TEST(Base, ReportModelKeepsCallOrderNestingAndStreams)
{
    ScriptedParser parser;
    parser.script = [](ScriptedParser &p) {
        const qint64 before = p.input.pos();
        const auto field = [&](const char *name, quint64 offset) {
            p.addField(false, offset, 0, 0, name, QString(), QString(), QString(), -1);
        };
        p.beginElement(0, 10, "outer", -1);
        field("same", 0);
        field("same", 0);
        p.beginListEntry("entry", 3);
        p.setElementOffset(4);
        p.setElementSize(2);
        field("inner", 4);
        p.endElement();
        field("after", 0);
        const quint8 raw[] = {0xAB, 0x01};
        p.addRawField(5, 2, raw, "raw", "c");
        p.endElement();
        EXPECT_EQ(p.input.pos(), before);
        // Samples reach the sink only for the stream that asked for them.
        for (int stream = 0; stream < 3; ++stream)
            p.openStream();
        p.streams[1]->width = 320;
        p.enableSampleOutput(1);
        p.currentSample.size = 7;
        p.reportSample(0, 0);
        p.reportSample(1, 0);
        p.currentSample.size = 9;
        p.reportSample(1, 1);
        p.reportSample(5, 0); // no such stream
    };
    ReportTree report;
    parser.parseBytes("x", QByteArray(10, 'x'), report);
    expectGolden("Base/report-model", dump(report));
    EXPECT_EQ(report.openElements(), 0);
    EXPECT_EQ(report.reportsEnded, 1);
    ASSERT_EQ(report.streams.size(), 3);
    EXPECT_EQ(report.streams[0].samples.size() + report.streams[2].samples.size(), 0);
    EXPECT_EQ(report.streams[1].info.width, 320);
    ASSERT_EQ(report.streams[1].samples.size(), 2);
    EXPECT_EQ(report.streams[1].samples[1].size, 9u);
    EXPECT_EQ(report.streams[1].sampleIndexes[1], 1u);
}

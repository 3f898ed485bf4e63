#include "Support.h"

#include "ByteSelection.h"
#include "HtmlWriter.h"
#include "JsonWriter.h"

#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QTemporaryDir>

#include <gtest/gtest.h>

#include <cstdio>
#include <functional>

namespace {

const QString SampleFile = QStringLiteral(SARVELINTH_SOURCE_DIR "/samples/sample.mp4");
const QByteArray ScriptStart = "<script type=\"application/json\" class=\"report\">";

// Everything a writer writes, through a real FILE*.
QByteArray written(const std::function<void(FILE *)> &write)
{
    FILE *file = std::tmpfile();
    write(file);
    std::fflush(file);
    std::rewind(file);
    QByteArray text;
    char block[4096];
    size_t got;
    while ((got = std::fread(block, 1, sizeof block, file)) > 0)
        text.append(block, qsizetype(got));
    std::fclose(file);
    return text;
}

QByteArray htmlReportOf(const QString &fileName, quint64 byteLimit = HtmlWriter::DefaultByteLimit)
{
    return written([&](FILE *out) {
        HtmlWriter writer(out, byteLimit);
        TestParser parser;
        writer.setContainerName("MP4");
        parser.parse(fileName, writer);
        writer.finish();
    });
}

// The report documents of a page, as written between their script tags.
QList<QByteArray> documentsOf(const QByteArray &page)
{
    QList<QByteArray> documents;
    for (qsizetype at = page.indexOf(ScriptStart); at >= 0; at = page.indexOf(ScriptStart, at)) {
        at += ScriptStart.size();
        const qsizetype end = page.indexOf("</script>", at);
        if (end < 0)
            break;
        documents << page.mid(at, end - at);
    }
    return documents;
}

struct Chunk {
    quint64 offset;
    QByteArray data;
    bool operator==(const Chunk &other) const
    {
        return offset == other.offset && data == other.data;
    }
};

std::vector<Chunk> embeddedChunks(const QJsonObject &report)
{
    std::vector<Chunk> chunks;
    for (const QJsonValue &range : report["embeddedBytes"]["ranges"].toArray()) {
        chunks.push_back({quint64(range["offset"].toInteger()),
                          QByteArray::fromBase64(range["data"].toString().toLatin1())});
    }
    return chunks;
}

QByteArray fileBytes(const QString &fileName)
{
    QFile file(fileName);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

} // namespace

TEST(HtmlWriter, EmbedsTheJsonDocumentAndTheBytesOfTheBoxes)
{
    const QByteArray page = htmlReportOf(SampleFile);
    const QByteArray json = written([](FILE *out) {
        JsonWriter writer(out);
        TestParser parser;
        writer.setContainerName("MP4");
        parser.parse(SampleFile, writer);
        writer.finish();
    });

    EXPECT_TRUE(page.startsWith("<!DOCTYPE html>\n"));
    EXPECT_TRUE(page.endsWith("</html>\n"));
    const QList<QByteArray> documents = documentsOf(page);
    ASSERT_EQ(documents.size(), 1);
    // The JSON writer's document, byte for byte, with one member more at its end.
    const QByteArray extra = ",\"embeddedBytes\":";
    const qsizetype extraAt = documents[0].indexOf(extra);
    ASSERT_GT(extraAt, 0);
    EXPECT_EQ(documents[0].left(extraAt) + "}\n", json);

    const QJsonObject report = QJsonDocument::fromJson(documents[0]).object();
    const QJsonObject embedded = report["embeddedBytes"].toObject();
    EXPECT_EQ(embedded["limit"].toInteger(), 16 * 1024 * 1024);
    EXPECT_TRUE(embedded["limitReachedAt"].isNull());
    EXPECT_EQ(embedded["readError"].toString("-"), "");
    // ftyp, the header of free (it has no payload) and of mdat, then the whole moov.
    const QByteArray file = fileBytes(SampleFile);
    ASSERT_EQ(file.size(), 5932);
    const std::vector<Chunk> expected = {{0, file.left(48)}, {4457, file.mid(4457)}};
    EXPECT_EQ(embeddedChunks(report), expected);
}

TEST(HtmlWriter, HostileTextsStayInsideTheScriptElement)
{
    const QString hostile[] = {
        "</script><script>alert(1)</script>",
        "</SCRIPT >",
        "<!--<script>",
        "\"quoted\" \\ 'single' & <b>",
        QString::fromLatin1("\xa9too \xff\x80"),
        QString::fromUtf16(u"line\u2028paragraph\u2029end"),
        QString::fromLatin1("\x00\x01\n", 3),
    };
    QStringList texts;
    const QByteArray page = written([&](FILE *out) {
        HtmlWriter writer(out);
        writer.setContainerName("MP4");
        writer.beginReport("in.mp4", 100);
        for (const QString &text : hostile) {
            writer.beginElement(0, 8, text, -1);
            writer.addField(false, 0, 0, 4, text, text, text, text, -1);
            writer.setElementNote(text);
            writer.setElementValue(text);
            writer.endElement();
            texts << text;
        }
        writer.endReport();
        writer.reportError(hostile[0], hostile[2]);
        writer.finish();
    });

    const QList<QByteArray> documents = documentsOf(page);
    ASSERT_EQ(documents.size(), 2);
    for (const QByteArray &document : documents) {
        SCOPED_TRACE(document.toStdString());
        EXPECT_FALSE(document.contains("</"));
        EXPECT_FALSE(document.contains("<!"));
        EXPECT_FALSE(document.contains("\xe2\x80\xa8"));
        EXPECT_FALSE(document.contains("\xe2\x80\xa9"));
    }
    // Nothing ends a report's script element early: the page holds exactly its own tags.
    EXPECT_EQ(page.count("</script>"), documents.size() + 1);

    const QJsonObject report = QJsonDocument::fromJson(documents[0]).object();
    const QJsonArray elements = report["elements"].toArray();
    ASSERT_EQ(elements.size(), texts.size());
    for (qsizetype i = 0; i < texts.size(); ++i) {
        const QJsonObject element = elements[i].toObject();
        const QJsonObject field = element["children"][0].toObject();
        for (const QString &read :
             {element["name"].toString(), element["note"].toString(), element["value"].toString(),
              field["name"].toString(), field["value"].toString(), field["extra"].toString(),
              field["comment"].toString()})
            EXPECT_EQ(read, texts[i]);
    }
    const QJsonObject error = QJsonDocument::fromJson(documents[1]).object();
    EXPECT_EQ(error, QJsonObject({{"file", hostile[0]}, {"error", hostile[2]}}));
}

TEST(HtmlWriter, OnePageForAllReportsEachWithItsOwnLimit)
{
    QTemporaryDir dir;
    ASSERT_TRUE(dir.isValid());
    const QByteArray movie = bytes::cat({bytes::box("ftyp", bytes::text("isom")),
                                         bytes::box("moov", bytes::box("abcd", bytes::zeros(60)))});
    const QString first = dir.filePath("first.mp4");
    const QString second = dir.filePath("second.mp4");
    for (const QString &name : {first, second}) {
        QFile file(name);
        ASSERT_TRUE(file.open(QIODevice::WriteOnly));
        file.write(movie);
    }

    const QByteArray page = written([&](FILE *out) {
        HtmlWriter writer(out, 40);
        for (const QString &name : {first, second}) {
            TestParser parser;
            writer.setContainerName("MP4");
            parser.parse(name, writer);
        }
        writer.reportError("gone.mp4", "no such file");
        writer.finish();
    });
    EXPECT_EQ(page.count("<!DOCTYPE html>"), 1);
    EXPECT_EQ(page.count("</html>"), 1);
    const QList<QByteArray> documents = documentsOf(page);
    ASSERT_EQ(documents.size(), 3);
    for (int i = 0; i < 2; ++i) {
        const QJsonObject report = QJsonDocument::fromJson(documents[i]).object();
        EXPECT_EQ(report["file"].toString(), i == 0 ? first : second);
        EXPECT_EQ(report["embeddedBytes"]["limitReachedAt"].toInteger(), 40);
        const std::vector<Chunk> expected = {{0, movie.left(40)}};
        EXPECT_EQ(embeddedChunks(report), expected);
    }
    EXPECT_EQ(QJsonDocument::fromJson(documents[2]).object(),
              QJsonObject({{"file", "gone.mp4"}, {"error", "no such file"}}));
}

TEST(HtmlWriter, SaysWhenTheFileCannotBeRead)
{
    const QByteArray page = written([](FILE *out) {
        HtmlWriter writer(out);
        writer.setContainerName("MP4");
        writer.beginReport("/nonexistent/in.mp4", 100);
        writer.beginElement(0, 100, "moov", -1);
        writer.endReport(); // closes moov
        writer.finish();
    });
    const QList<QByteArray> documents = documentsOf(page);
    ASSERT_EQ(documents.size(), 1);
    const QJsonObject embedded =
        QJsonDocument::fromJson(documents[0]).object()["embeddedBytes"].toObject();
    EXPECT_NE(embedded["readError"].toString(), "");
    EXPECT_EQ(embedded["ranges"].toArray(), QJsonArray());
}

TEST(ByteSelection, LeavesOutMediaPayloadsAndBulkData)
{
    using Range = ByteSelection::Range;
    using Calls = std::function<void(ByteSelection &)>;
    const struct {
        const char *what;
        quint64 fileSize;
        quint64 limit;
        Calls calls;
        std::vector<Range> ranges;
        quint64 limitOffset; // 0: limit not reached
    } cases[] = {
        {"adjacent top-level boxes make one range",
         200,
         1000,
         [](ByteSelection &s) {
             s.beginElement(0, 32, "ftyp");
             s.endElement();
             s.beginElement(32, 100, "moov");
             s.endElement();
         },
         {{0, 132}},
         0},
        {"media payloads keep their headers",
         5000,
         1 << 20,
         [](ByteSelection &s) {
             s.beginElement(0, 8, "free");
             s.addPositionField(8, 0);
             s.endElement();
             s.beginElement(8, 1000, "mdat");
             s.addPositionField(16, 992);
             s.endElement();
             s.beginElement(1008, 16, "skip");
             s.addPositionField(1016, 8);
             s.endElement();
             s.beginElement(1024, 20, "moov");
             s.endElement();
         },
         {{0, 16}, {1008, 8}, {1024, 20}},
         0},
        {"a free box inside another box",
         300,
         1000,
         [](ByteSelection &s) {
             s.beginElement(0, 200, "moov");
             s.beginElement(50, 20, "free");
             s.addPositionField(58, 12);
             s.endElement();
             s.endElement();
         },
         {{0, 58}, {70, 130}},
         0},
        {"unknown data beyond the first 4 KiB",
         20000,
         1 << 20,
         [](ByteSelection &s) {
             s.beginElement(0, 10000, "abcd");
             s.setElementNote("Unknown element!");
             s.endElement();
             s.beginElement(10000, 10000, "moov");
             s.beginElement(10008, 9992, "wxyz");
             s.setElementNote("Invalid element size.");
             s.endElement();
             s.endElement();
         },
         {{0, 4096}, {10000, 4104}},
         0},
        {"data shown only by position beyond the first 4 KiB",
         10000,
         1 << 20,
         [](ByteSelection &s) {
             s.beginElement(0, 10000, "stsd");
             s.addPositionField(16, 9984);
             s.endElement();
         },
         {{0, 4096}},
         0},
        {"a box reaching past the end of the file",
         100,
         1000,
         [](ByteSelection &s) {
             s.beginElement(0, 1u << 31, "moov");
             s.endElement();
             s.beginElement(200, 8, "moov");
             s.endElement();
         },
         {{0, 100}},
         0},
        {"a list entry that learns its place late",
         100,
         1000,
         [](ByteSelection &s) {
             s.beginElement(0, 0, "entry");
             s.setElementOffset(10);
             s.setElementSize(20);
             s.endElement();
         },
         {{10, 20}},
         0},
        {"the limit",
         1000,
         100,
         [](ByteSelection &s) {
             s.beginElement(0, 80, "ftyp");
             s.endElement();
             s.beginElement(80, 8, "mdat");
             s.endElement();
             s.beginElement(88, 100, "moov");
             s.endElement();
             s.beginElement(188, 100, "moov");
             s.endElement();
         },
         {{0, 100}},
         100},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.what);
        ByteSelection selection(c.limit);
        selection.beginReport(c.fileSize);
        c.calls(selection);
        EXPECT_EQ(selection.ranges(), c.ranges);
        EXPECT_EQ(selection.limitReached(), c.limitOffset != 0);
        EXPECT_EQ(selection.limitOffset(), c.limitOffset);
    }
}

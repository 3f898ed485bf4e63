// The index of --serve and its API: the served tree and samples against the JSON report of
// the same files, the chart's sums against the samples, the edges of every range, requests
// that are refused, and the command serving over HTTP on 127.0.0.1 until SIGINT or SIGTERM.

#include "Support.h"

#include "JsonWriter.h"
#include "ServeApi.h"
#include "ServeIndex.h"

#include <QFile>
#include <QFileInfo>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>
#include <QTcpSocket>
#include <QTemporaryDir>

#include <gtest/gtest.h>

#include <csignal>
#include <cstdio>
#include <random>

namespace {

const QString SourceDir = QStringLiteral(SARVELINTH_SOURCE_DIR);

// The settings of deep analysis, checks and sample units alike for the index and the report.
ContainerAbstract::Settings settingsOf(bool deep, bool check, bool units)
{
    ContainerAbstract::Settings settings;
    settings.deepAnalysis = deep || units;
    settings.checkProblems = check;
    settings.sampleUnits = units;
    return settings;
}

std::unique_ptr<ServeIndex> indexOf(const QString &path, bool deep = false, bool check = false,
                                    bool units = false)
{
    auto index = std::make_unique<ServeIndex>();
    TestParser parser;
    parser.configure(settingsOf(deep, check, units));
    index->setContainerName(QStringLiteral("MP4"));
    parser.parse(path, *index);
    return index;
}

QJsonObject jsonReportOf(const QString &path, bool deep, bool check, bool units)
{
    char *data = nullptr;
    size_t size = 0;
    FILE *out = open_memstream(&data, &size);
    {
        JsonWriter writer(out, JsonWriter::Keys::Annotated);
        TestParser parser;
        parser.configure(settingsOf(deep, check, units));
        writer.setContainerName(QStringLiteral("MP4"));
        parser.parse(path, writer);
        writer.finish();
    }
    std::fclose(out);
    const QJsonObject report = QJsonDocument::fromJson(QByteArray(data, qsizetype(size))).object();
    std::free(data);
    return report;
}

struct Reply {
    int status = 0;
    QJsonObject body;
};

Reply get(const ServeApi &api, const QString &path, const QString &query = QString(),
          const QByteArray &method = "GET")
{
    const ServeApi::Answer answer = api.answer(method, path, QUrlQuery(query));
    return {answer.status, QJsonDocument::fromJson(answer.body).object()};
}

// The children of a node as the report has them, asked for 1000 at a time and made whole.
QJsonArray servedChildren(const ServeApi &api, const QString &file, qint64 id)
{
    QJsonArray children;
    for (qint64 from = 0;; from += 1000) {
        const Reply reply = get(api, QStringLiteral("%1/nodes/%2/children").arg(file).arg(id),
                                QStringLiteral("from=%1&count=1000").arg(from));
        EXPECT_EQ(reply.status, 200);
        const QJsonArray page = reply.body[QStringLiteral("children")].toArray();
        for (const QJsonValue &value : page) {
            QJsonObject child = value.toObject();
            if (child[QStringLiteral("kind")] == QStringLiteral("element")) {
                child[QStringLiteral("children")] =
                    servedChildren(api, file, child[QStringLiteral("id")].toInteger());
                for (const char *key :
                     {"id", "parent", "depth", "position", "kidCount", "childCount"})
                    child.remove(QLatin1String(key));
            }
            children.append(child);
        }
        if (page.size() < 1000)
            return children;
    }
}

struct ServedCase {
    const char *name;
    bool deep;
    bool check;
    bool units = false;
};
class ServeFiles : public testing::TestWithParam<ServedCase> {};

TEST_P(ServeFiles, TreeSamplesAndProblemsAreThoseOfTheJsonReport)
{
    const auto [name, deep, check, units] = GetParam();
    const QString path = SourceDir + QLatin1Char('/') + QLatin1String(name);
    const auto index = indexOf(path, deep, check, units);
    const ServeApi api(*index, QByteArray());
    const QJsonObject report = jsonReportOf(path, deep, check, units);
    const QString file = QStringLiteral("/api/v1/files/0");

    EXPECT_EQ(servedChildren(api, file, 0), report[QStringLiteral("elements")].toArray());
    const QJsonObject facts =
        get(api, QStringLiteral("/api/v1/files")).body[QStringLiteral("files")][0].toObject();
    EXPECT_EQ(facts[QStringLiteral("coverage")], report[QStringLiteral("coverage")]);
    EXPECT_EQ(facts[QStringLiteral("items")], report[QStringLiteral("items")]);
    if (check) {
        const QJsonArray problems = report[QStringLiteral("problems")].toArray();
        EXPECT_EQ(facts[QStringLiteral("problemCount")].toInteger(), problems.size());
        EXPECT_EQ(get(api, file + QStringLiteral("/problems"), QStringLiteral("count=1000"))
                      .body[QStringLiteral("problems")],
                  problems);
    }
    const QJsonArray streams = report[QStringLiteral("streams")].toArray();
    const QJsonArray served = facts[QStringLiteral("streams")].toArray();
    ASSERT_EQ(served.size(), streams.size());
    for (qsizetype s = 0; s < streams.size(); ++s) {
        QJsonObject stream = streams[s].toObject();
        const QJsonArray samples = stream.take(QStringLiteral("samples")).toArray();
        QJsonObject streamFacts = served[s].toObject();
        for (const char *key :
             {"deep", "sampleCount", "keyCount", "totalSize", "maxSize", "byTime", "xMin", "xMax"})
            streamFacts.remove(QLatin1String(key));
        EXPECT_EQ(streamFacts, stream);
        QJsonArray listed;
        for (qint64 from = 0; from < samples.size(); from += 1000)
            for (const QJsonValue &sample :
                 get(api, QStringLiteral("%1/streams/%2/samples").arg(file).arg(s),
                     QStringLiteral("from=%1&count=1000").arg(from))
                     .body[QStringLiteral("samples")]
                     .toArray())
                listed.append(sample);
        EXPECT_EQ(listed, samples) << "stream " << s;
    }
}

INSTANTIATE_TEST_SUITE_P(Files, ServeFiles,
                         testing::Values(ServedCase{"samples/sample.mp4", false, false},
                                         ServedCase{"samples/sample.mp4", false, true},
                                         ServedCase{"tests/data/deep-h264-aac.mov", true, false},
                                         ServedCase{"tests/data/frag-empty-moov.mp4", true, true},
                                         ServedCase{"tests/data/image-grid.avif", true, true},
                                         ServedCase{"tests/data/deep-hevc.mp4", true, true, true}));

TEST(Serve, RangesAtTheEdges)
{
    const QString path = SourceDir + QStringLiteral("/samples/sample.mp4");
    const auto index = indexOf(path);
    const ServeApi api(*index, QByteArray());
    const QString file = QStringLiteral("/api/v1/files/0");
    QFile input(path);
    ASSERT_TRUE(input.open(QIODevice::ReadOnly));
    const QByteArray bytes = input.readAll();

    // The last bytes of the file, a request that reaches past them, and none at the end.
    Reply reply = get(api, file + QStringLiteral("/bytes"),
                      QStringLiteral("offset=%1&size=16").arg(bytes.size() - 3));
    EXPECT_EQ(reply.status, 200);
    EXPECT_EQ(QByteArray::fromBase64(reply.body[QStringLiteral("data")].toString().toLatin1()),
              bytes.right(3));
    reply = get(api, file + QStringLiteral("/bytes"),
                QStringLiteral("offset=%1&size=16").arg(bytes.size()));
    EXPECT_EQ(reply.status, 200);
    EXPECT_EQ(reply.body[QStringLiteral("size")].toInt(), 0);
    reply = get(api, file + QStringLiteral("/bytes"),
                QStringLiteral("offset=%1&size=1").arg(bytes.size() + 1));
    EXPECT_EQ(reply.status, 400);
    EXPECT_EQ(reply.body[QStringLiteral("error")].toString(),
              QStringLiteral("offset: past the end of the file (%1 bytes)").arg(bytes.size()));
    EXPECT_EQ(get(api, file + QStringLiteral("/bytes"), QStringLiteral("offset=0&size=65537"))
                  .body[QStringLiteral("error")]
                  .toString(),
              QStringLiteral("size: at most 65536, not 65537"));

    // Samples: the last one, a range that starts at the end, one past it.
    const Reply first = get(api, file + QStringLiteral("/streams/0/samples"));
    const int total = first.body[QStringLiteral("total")].toInt();
    ASSERT_GT(total, 0);
    reply = get(api, file + QStringLiteral("/streams/0/samples"),
                QStringLiteral("from=%1&count=1000").arg(total - 1));
    EXPECT_EQ(reply.body[QStringLiteral("samples")].toArray().size(), 1);
    EXPECT_EQ(reply.body[QStringLiteral("samples")][0][QStringLiteral("index")].toInt(), total - 1);
    for (int from : {total, total + 1000000}) {
        reply = get(api, file + QStringLiteral("/streams/0/samples"),
                    QStringLiteral("from=%1").arg(from));
        EXPECT_EQ(reply.status, 200);
        EXPECT_TRUE(reply.body[QStringLiteral("samples")].toArray().isEmpty());
    }
    EXPECT_EQ(get(api, file + QStringLiteral("/streams/0/samples"), QStringLiteral("count=1001"))
                  .body[QStringLiteral("error")]
                  .toString(),
              QStringLiteral("count: at most 1000, not 1001"));

    // Children past the last, and the last of the file's own.
    const int top = get(api, file).body[QStringLiteral("topCount")].toInt();
    reply = get(api, file + QStringLiteral("/nodes/0/elements"),
                QStringLiteral("from=%1").arg(top - 1));
    EXPECT_EQ(reply.body[QStringLiteral("elements")][0][QStringLiteral("name")].toString(),
              QStringLiteral("moov"));
    EXPECT_TRUE(
        get(api, file + QStringLiteral("/nodes/0/elements"), QStringLiteral("from=%1").arg(top))
            .body[QStringLiteral("elements")]
            .toArray()
            .isEmpty());
}

TEST(Serve, RefusesWhatItCannotAnswer)
{
    const auto index = indexOf(SourceDir + QStringLiteral("/samples/sample.mp4"));
    const ServeApi api(*index, QByteArrayLiteral("page"));
    const int elements =
        get(api, QStringLiteral("/api/v1/files/0")).body[QStringLiteral("elementCount")].toInt();
    const struct {
        const char *path;
        const char *query;
        int status;
        QString error;
    } cases[] = {
        {"/api/v1/files/0/nodes/999999", "", 404,
         QStringLiteral("no node 999999: the nodes of this file are 0 to %1").arg(elements)},
        {"/api/v1/files/0/nodes/x/children", "", 404,
         QStringLiteral("no node x: the nodes of this file are 0 to %1").arg(elements)},
        {"/api/v1/files/1", "", 404,
         "no file 1: this server serves the files 0 to 0, those it was started with"},
        {"/api/v1/files/../../etc/passwd", "", 404,
         "no file ..: this server serves the files 0 to 0, those it was started with"},
        {"/etc/passwd", "", 404, "no such path: /etc/passwd (the API is under /api/v1/files)"},
        {"/api/v1/files/0/streams/7/samples", "", 404,
         "no stream 7: the streams of this file are 0 to 1"},
        {"/api/v1/files/0/nodes/1/children", "from=-1", 400, "from: a decimal number, not '-1'"},
        {"/api/v1/files/0/nodes/1/children", "from=1x", 400, "from: a decimal number, not '1x'"},
        {"/api/v1/files/0/nodes/1/children", "from=99999999999999999999999", 400,
         "from: a decimal number, not '99999999999999999999999'"},
        {"/api/v1/files/0/nodes/1/children", "count=5&count=6", 400, "count: given twice"},
        {"/api/v1/files/0/nodes/1/children", "size=5", 400, "unknown parameter 'size'"},
        {"/api/v1/files/0/bytes", "offset=0", 400, "size: missing"},
        {"/api/v1/files/0/streams/0/chart", "columns=0", 400, "columns: at least 1"},
        {"/api/v1/files/0/streams/0/chart", "columns=4097", 400, "columns: at most 4096, not 4097"},
        {"/api/v1/files/0/streams/0/chart", "from=5&to=5", 400, "to: must be greater than from"},
        {"/api/v1/files/0/streams/0/locate", "", 400, "x: missing"},
        {"/api/v1/files/0/search", "q=%20", 400, "q: from 1 to 256 characters"},
        {"/api/v1/files/0/problems", "", 404,
         SourceDir + QStringLiteral("/samples/sample.mp4 was not checked: start the server "
                                    "with --check")},
    };
    for (const auto &test : cases) {
        const Reply reply = get(api, QLatin1String(test.path), QLatin1String(test.query));
        EXPECT_EQ(reply.status, test.status) << test.path << "?" << test.query;
        EXPECT_EQ(reply.body[QStringLiteral("error")].toString(), test.error)
            << test.path << "?" << test.query;
    }
    const Reply posted = get(api, QStringLiteral("/api/v1/files"), QString(), "POST");
    EXPECT_EQ(posted.status, 405);
    EXPECT_EQ(posted.body[QStringLiteral("error")].toString(),
              QStringLiteral("only GET is answered, not POST"));
    EXPECT_EQ(api.answer("GET", QStringLiteral("/"), QUrlQuery()).body, QByteArrayLiteral("page"));
}

TEST(Serve, SearchFindsTypesAndFieldNamesWithTheirParents)
{
    const auto index = indexOf(SourceDir + QStringLiteral("/samples/sample.mp4"));
    const ServeApi api(*index, QByteArray());
    Reply reply = get(api, QStringLiteral("/api/v1/files/0/search"), QStringLiteral("q=STSZ"));
    EXPECT_EQ(reply.body[QStringLiteral("count")].toInt(), 2);
    QStringList names;
    for (const QJsonValue &element : reply.body[QStringLiteral("elements")].toArray())
        names << element[QStringLiteral("name")].toString();
    EXPECT_EQ(names.join(QLatin1Char(' ')),
              QStringLiteral("moov trak mdia minf stbl stsz trak mdia minf stbl stsz"));
    reply = get(api, QStringLiteral("/api/v1/files/0/search"), QStringLiteral("q=major_brand"));
    EXPECT_EQ(reply.body[QStringLiteral("count")].toInt(), 1);
    EXPECT_EQ(reply.body[QStringLiteral("elements")][0][QStringLiteral("name")].toString(),
              QStringLiteral("ftyp"));
    reply = get(api, QStringLiteral("/api/v1/files/0/search"), QStringLiteral("q=a&limit=3"));
    EXPECT_GT(reply.body[QStringLiteral("count")].toInt(), 3);
    EXPECT_EQ(reply.body[QStringLiteral("matches")].toArray().size(), 3);

    // The deepest element that holds the codec configuration.
    const QJsonObject stream = get(api, QStringLiteral("/api/v1/files/0/streams/0")).body;
    reply = get(api, QStringLiteral("/api/v1/files/0/path"),
                QStringLiteral("offset=%1&size=%2")
                    .arg(stream[QStringLiteral("configOffset")].toInteger())
                    .arg(stream[QStringLiteral("configSize")].toInteger()));
    EXPECT_EQ(reply.body[QStringLiteral("elements")].toArray().last()[QStringLiteral("name")],
              QStringLiteral("avcC"));
}

// A stream of crafted samples fed to the index straight, with numbers past 2^53.
class CraftedStream : public testing::Test {
protected:
    static constexpr int Count = 10000;
    void SetUp() override
    {
        file.beginReport(QStringLiteral("crafted.mp4"), ~quint64(0));
        file.beginElement((quint64(1) << 60) + 1, 8, QStringLiteral("big"), -1);
        file.addField(false, (quint64(1) << 60) + 1, 0, 4, QStringLiteral("size"),
                      QStringLiteral("1"), QString(), QString(), -1);
        file.endElement();
        file.beginStream(0, StreamInfo());
        std::mt19937 random(7);
        for (int i = 0; i < Count; ++i) {
            Sample sample;
            sample.offset = (quint64(1) << 63) + quint64(i);
            sample.size = random() % 5000;
            sample.dts = quint32(i * 10);
            sample.duration = 10;
            sample.keyFrame = i % 97 == 0 ? 1 : 0;
            samples.push_back(sample);
            file.addSample(quint64(i), sample);
        }
        file.endReport();
    }

    FileIndex file{QStringLiteral("crafted.mp4"), QStringLiteral("MP4")};
    std::vector<Sample> samples;
};

TEST_F(CraftedStream, NumbersPastTwoToThe53StayExact)
{
    ServeIndex none;
    FileIndex::Element root;
    ASSERT_TRUE(file.element(0, &root));
    std::vector<FileIndex::Child> children;
    ASSERT_TRUE(file.children(root, 0, 1, &children));
    FileIndex::Element big;
    ASSERT_TRUE(file.element(children[0].offset, &big));
    EXPECT_EQ(big.offset, (quint64(1) << 60) + 1);
    std::vector<FileIndex::SampleRecord> records;
    ASSERT_TRUE(file.samples(file.streams()[0], Count - 1, 5, &records));
    ASSERT_EQ(records.size(), 1u);
    EXPECT_EQ(records[0].offset, (quint64(1) << 63) + Count - 1);
}

TEST_F(CraftedStream, ChartColumnsSumUpTheSamples)
{
    const FileIndex::Stream &stream = file.streams()[0];
    ASSERT_TRUE(stream.byTime);
    EXPECT_EQ(stream.xMax, Count * 10);
    EXPECT_EQ(file.locate(stream, 55), 6u);
    EXPECT_EQ(file.locate(stream, -5), 0u);
    EXPECT_EQ(file.locate(stream, Count * 10), quint64(Count));

    // Few samples per column: each column is exactly its samples.
    const qint64 x0 = 12345;
    const qint64 x1 = 45678;
    const quint32 columns = 4096;
    std::vector<FileIndex::Column> result;
    ASSERT_TRUE(file.chart(stream, x0, x1, columns, &result));
    std::vector<FileIndex::Column> expected(columns);
    for (int i = 0; i < Count; ++i) {
        const qint64 x = samples[size_t(i)].dts;
        if (x < x0 || x > x1)
            continue;
        const quint32 c =
            std::min(columns - 1, quint32(double(x - x0) / double(x1 - x0) * columns));
        FileIndex::Column &column = expected[c];
        if (column.count++ == 0)
            column.first = quint64(i);
        FileIndex::Summary one;
        (samples[size_t(i)].keyFrame ? one.keyMax : one.frameMax) = samples[size_t(i)].size;
        (samples[size_t(i)].keyFrame ? one.keyMin : one.frameMin) = samples[size_t(i)].size;
        one.keys = samples[size_t(i)].keyFrame;
        column.sizes.add(one);
    }
    for (quint32 c = 0; c < columns; ++c) {
        EXPECT_EQ(result[c].count, expected[c].count) << c;
        EXPECT_EQ(result[c].first, expected[c].first) << c;
        EXPECT_EQ(result[c].sizes.frameMax, expected[c].sizes.frameMax) << c;
        EXPECT_EQ(result[c].sizes.frameMin, expected[c].sizes.frameMin) << c;
        EXPECT_EQ(result[c].sizes.keyMax, expected[c].sizes.keyMax) << c;
        EXPECT_EQ(result[c].sizes.keys, expected[c].sizes.keys) << c;
    }

    // Many samples per column: summed by blocks, all samples and their largest still there.
    ASSERT_TRUE(file.chart(stream, 0, Count * 10, 7, &result));
    quint64 count = 0;
    quint64 keys = 0;
    quint64 largest = 0;
    for (const FileIndex::Column &column : result) {
        count += column.count;
        keys += column.sizes.keys;
        largest = std::max({largest, column.sizes.frameMax, column.sizes.keyMax});
    }
    EXPECT_EQ(count, quint64(Count));
    EXPECT_EQ(keys, stream.keys);
    EXPECT_EQ(largest, stream.maxSize);
}

// ---- The command ---------------------------------------------------------------------------

QString tool()
{
    return QFileInfo(QFileInfo(QStringLiteral("/proc/self/exe")).canonicalFilePath()).path() +
           QStringLiteral("/sarvelinth");
}

// A request on a connection of its own; the status line and the body, read as far as the
// answer's Content-Length.
std::pair<QByteArray, QByteArray> request(quint16 port, const QByteArray &head)
{
    QTcpSocket socket;
    socket.connectToHost(QStringLiteral("127.0.0.1"), port);
    if (!socket.waitForConnected(5000))
        return {};
    socket.write(head + "\r\n");
    QByteArray answer;
    qsizetype split = -1;
    qsizetype length = -1;
    while ((split < 0 || answer.size() < split + 4 + length) && socket.waitForReadyRead(5000)) {
        answer += socket.readAll();
        split = answer.indexOf("\r\n\r\n");
        const QRegularExpressionMatch match =
            QRegularExpression(QStringLiteral("Content-Length: (\\d+)"),
                               QRegularExpression::CaseInsensitiveOption)
                .match(QString::fromLatin1(answer.left(split)));
        length = match.hasMatch() ? match.captured(1).toLongLong() : 0;
    }
    return {answer.left(answer.indexOf("\r\n")), split < 0 ? QByteArray() : answer.mid(split + 4)};
}

TEST(ServeCommand, ServesOnLoopbackAndEndsCleanlyOnSignals)
{
    for (int signal : {SIGINT, SIGTERM}) {
        QProcess server;
        // Whatever fails, the server this test started goes with it.
        const std::unique_ptr<QProcess, void (*)(QProcess *)> stop(&server, [](QProcess *process) {
            if (process->state() != QProcess::NotRunning) {
                process->kill();
                process->waitForFinished(5000);
            }
        });
        server.setWorkingDirectory(SourceDir);
        server.setReadChannel(QProcess::StandardError);
        server.start(tool(), {QStringLiteral("--serve"), QStringLiteral("samples/sample.mp4")});
        ASSERT_TRUE(server.waitForStarted(10000));
        QByteArray err;
        while (!err.contains("serving") && server.waitForReadyRead(30000))
            err += server.readAllStandardError();
        const QRegularExpressionMatch match =
            QRegularExpression(QStringLiteral("serving http://127\\.0\\.0\\.1:(\\d+)/"))
                .match(QString::fromUtf8(err));
        ASSERT_TRUE(match.hasMatch()) << err.constData();
        const quint16 port = quint16(match.captured(1).toUInt());
        const QByteArray host = "Host: 127.0.0.1:" + QByteArray::number(port) + "\r\n";

        auto [status, body] =
            request(port, "GET /api/v1/files/0/bytes?offset=x HTTP/1.1\r\n" + host);
        EXPECT_EQ(status, "HTTP/1.1 400 Bad Request");
        EXPECT_EQ(body, "{\"error\":\"offset: a decimal number, not 'x'\"}");
        std::tie(status, body) = request(port, "DELETE /api/v1/files HTTP/1.1\r\n" + host);
        EXPECT_EQ(status, "HTTP/1.1 405 Method Not Allowed");
        std::tie(status, body) =
            request(port, "GET /api/v1/files HTTP/1.1\r\nHost: example.com\r\n");
        EXPECT_EQ(status, "HTTP/1.1 403 Forbidden");
        // Still serving after the refusals.
        std::tie(status, body) = request(port, "GET /api/v1/files/0 HTTP/1.1\r\n" + host);
        EXPECT_EQ(status, "HTTP/1.1 200 OK");
        EXPECT_TRUE(body.contains("\"file\":\"samples/sample.mp4\"")) << body.constData();
        std::tie(status, body) = request(port, "GET / HTTP/1.1\r\n" + host);
        EXPECT_TRUE(body.contains("id=\"served\"")) << status.constData();
        EXPECT_TRUE(body.contains("connect-src 'self'"));

        ::kill(pid_t(server.processId()), signal);
        ASSERT_TRUE(server.waitForFinished(10000));
        EXPECT_EQ(server.exitStatus(), QProcess::NormalExit);
        EXPECT_EQ(server.exitCode(), 0);
    }
}

TEST(ServeCommand, OptionsThatDoNotGoWithServing)
{
    for (const QStringList &arguments :
         {QStringList{"--port", "8080", "samples/sample.mp4"},
          QStringList{"--serve", "--port", "0", "samples/sample.mp4"},
          QStringList{"--serve", "--format", "json", "samples/sample.mp4"},
          QStringList{"--serve", "-o", "out.html", "samples/sample.mp4"}}) {
        QProcess process;
        process.setWorkingDirectory(SourceDir);
        process.start(tool(), arguments);
        ASSERT_TRUE(process.waitForFinished(10000));
        EXPECT_EQ(process.exitCode(), 2) << arguments.join(QLatin1Char(' ')).toStdString();
    }
}

} // namespace

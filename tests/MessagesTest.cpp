// What a user sees for files that are not what an inspector hopes for: missing, a
// directory, empty, all zeros, not MP4 at all under an .mp4 name. Each gets the report or
// the message one would expect, with the right exit status, in text and in JSON.

#include <gtest/gtest.h>

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>
#include <QTemporaryDir>

namespace {

struct Outcome {
    int exitCode = -1;
    QByteArray out;
    QByteArray err;
};

// Runs the command built beside the test binary, in dir, on the given arguments.
Outcome runCommand(const QString &dir, const QStringList &arguments)
{
    const QString bin =
        QFileInfo(QFileInfo(QStringLiteral("/proc/self/exe")).canonicalFilePath()).path();
    QProcess process;
    process.setWorkingDirectory(dir);
    process.start(bin + QStringLiteral("/sarvelinth"), arguments);
    Outcome outcome;
    if (!process.waitForFinished(60000) || process.exitStatus() != QProcess::NormalExit)
        return outcome;
    outcome.exitCode = process.exitCode();
    outcome.out = process.readAllStandardOutput();
    outcome.err = process.readAllStandardError();
    return outcome;
}

class Messages : public ::testing::Test {
protected:
    void SetUp() override
    {
        ASSERT_TRUE(dir.isValid());
        write("empty.mp4", QByteArray());
        write("zeros.mp4", QByteArray(1000, '\0'));
        write("tiny.mp4", QByteArray("abc"));
        write("notes.mp4", QByteArray("This is a plain text file, not a movie.\n"));
        ASSERT_TRUE(QDir(dir.path()).mkdir(QStringLiteral("folder.mp4")));
    }
    void write(const char *name, const QByteArray &content)
    {
        QFile file(dir.filePath(QString::fromLatin1(name)));
        ASSERT_TRUE(file.open(QIODevice::WriteOnly));
        ASSERT_EQ(file.write(content), content.size());
    }
    Outcome run(const QStringList &arguments) { return runCommand(dir.path(), arguments); }
    // The one JSON document of a run on one file.
    QJsonObject json(const char *name, int expectedExit)
    {
        const Outcome outcome =
            run({QStringLiteral("--format"), QStringLiteral("json"), QString::fromLatin1(name)});
        EXPECT_EQ(outcome.exitCode, expectedExit) << name;
        EXPECT_TRUE(outcome.out.endsWith('\n')) << name;
        EXPECT_EQ(outcome.out.count('\n'), 1) << name;
        QJsonParseError error;
        const QJsonDocument document = QJsonDocument::fromJson(outcome.out, &error);
        EXPECT_EQ(error.error, QJsonParseError::NoError) << name << ": " << outcome.out.data();
        return document.object();
    }

    QTemporaryDir dir;
};

TEST_F(Messages, FilesThatCannotBeReadAreNamedOnStderrWithStatus1)
{
    const struct {
        const char *name;
        const char *problem;
    } cases[] = {{"missing.mp4", "no such file"}, {"folder.mp4", "is a directory"}};
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        const Outcome text = run({QString::fromLatin1(c.name)});
        EXPECT_EQ(text.exitCode, 1);
        EXPECT_EQ(text.err, QByteArray("sarvelinth: ") + c.name + ": " + c.problem + "\n");
        EXPECT_EQ(text.out, "");

        const QJsonObject document = json(c.name, 1);
        EXPECT_EQ(document.value("file").toString(), c.name);
        EXPECT_EQ(document.value("error").toString(), c.problem);
    }
}

TEST_F(Messages, AnUnreadableFileDoesNotStopTheOthers)
{
    const Outcome outcome = run({"missing.mp4", "zeros.mp4", "folder.mp4", "empty.mp4"});
    EXPECT_EQ(outcome.exitCode, 1);
    EXPECT_EQ(outcome.err, "sarvelinth: missing.mp4: no such file\n"
                           "Container format:\tMP4\n"
                           "sarvelinth: folder.mp4: is a directory\n"
                           "Container format:\tMP4\n");
    EXPECT_TRUE(outcome.out.contains("zeros.mp4"));
    EXPECT_TRUE(outcome.out.contains("empty.mp4"));
}

TEST_F(Messages, AnEmptyFileHasAReportWithoutElements)
{
    const Outcome text = run({"empty.mp4"});
    EXPECT_EQ(text.exitCode, 0);
    EXPECT_EQ(text.err, "Container format:\tMP4\n");
    EXPECT_TRUE(text.out.startsWith("empty.mp4")) << text.out.data();

    const QJsonObject document = json("empty.mp4", 0);
    EXPECT_EQ(document.value("fileSize").toInt(-1), 0);
    EXPECT_EQ(document.value("container").toString(), "MP4");
    EXPECT_TRUE(document.value("elements").isArray());
    EXPECT_TRUE(document.value("elements").toArray().isEmpty());
    EXPECT_TRUE(document.value("streams").toArray().isEmpty());
}

// Files that are no MP4 at all are still reported, as what the box walk makes of them:
// one unknown element whose size says where its header points, and its first bytes.
TEST_F(Messages, FilesThatAreNoMP4AreReportedAsUnknownElements)
{
    const QByteArray dots(64, '.');
    const struct {
        const char *name;
        const char *elementName;
        qint64 size;
        const char *sizeComment;
        QByteArray data;
    } cases[] = {
        {"zeros.mp4", "", 1000, "Element extends to end of file.", dots},
        {"notes.mp4", " is ", 0x54686973, "", "a plain text file, not a movie.."},
        // Three bytes of a size and nothing else: the size reads as 0x61626300.
        {"tiny.mp4", "", 0x61626300, "", ""},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        const Outcome text = run({QString::fromLatin1(c.name)});
        EXPECT_EQ(text.exitCode, 0);
        EXPECT_EQ(text.err, "Container format:\tMP4\n");
        EXPECT_TRUE(text.out.contains("Unknown element!")) << text.out.data();

        const QJsonObject document = json(c.name, 0);
        const QJsonArray elements = document.value("elements").toArray();
        ASSERT_EQ(elements.size(), 1);
        const QJsonObject element = elements[0].toObject();
        EXPECT_EQ(element.value("name").toString(), c.elementName);
        EXPECT_EQ(element.value("offset").toInteger(-1), 0);
        EXPECT_EQ(element.value("size").toInteger(-1), c.size);
        EXPECT_EQ(element.value("note").toString(), "Unknown element!");
        const QJsonArray fields = element.value("children").toArray();
        ASSERT_EQ(fields.size(), 3);
        EXPECT_EQ(fields[0].toObject().value("name").toString(), "size");
        EXPECT_EQ(fields[0].toObject().value("comment").toString(), c.sizeComment);
        EXPECT_EQ(fields[1].toObject().value("name").toString(), "type");
        EXPECT_EQ(fields[2].toObject().value("name").toString(), "data");
        EXPECT_EQ(fields[2].toObject().value("value").toString(), QString::fromLatin1(c.data));
        EXPECT_EQ(fields[2].toObject().value("size").toInteger(-1), c.data.size());
    }
}

} // namespace

#include "Support.h"

#include <QTemporaryFile>

#include <cstring>

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
    ASSERT_TRUE(fromFile.openFile(file.fileName(), nullptr));
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

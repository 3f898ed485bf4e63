#include "Support.h"

#include <gtest/gtest.h>

TEST(Plugin, FormatIsDecidedByTheSuffixAlone)
{
    const struct {
        const char *name;
        int result;
    } cases[] = {
        {"MOVIE.MP4", 0}, {"Clip.F4v", 0},          {"a.Mp4V", 0}, {"a.mp4.part", 3}, {"mp4", 3},
        {"dir.mp4/x", 3}, {"/no/such/file.mp4", 0},
    };
    for (const auto &c : cases) {
        testing::internal::CaptureStderr();
        EXPECT_EQ(TestParser().verifyContainerFormat(QString::fromLatin1(c.name)), c.result)
            << c.name;
        EXPECT_EQ(testing::internal::GetCapturedStderr(),
                  c.result == 0 ? "Container format:\tMP4\n" : "")
            << c.name;
    }
}

TEST(Plugin, BoxTableHoldsEveryTypeAndItsContainers)
{
    TestParser parser;
    EXPECT_EQ(parser.elements.size(), 68);
    int containers = 0;
    for (auto it = parser.elements.cbegin(); it != parser.elements.cend(); ++it) {
        if (it.value()->elementType == 7) {
            ++containers;
            EXPECT_EQ(it.value()->handler, nullptr) << it.key().toStdString();
            EXPECT_EQ(it.value()->fullBox, it.key() == "meta" ? 1 : 0) << it.key().toStdString();
        }
    }
    EXPECT_EQ(containers, 17);
}

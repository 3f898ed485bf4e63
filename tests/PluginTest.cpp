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
    // What it says on stderr shows in the command's tests.
    for (const auto &c : cases)
        EXPECT_EQ(TestParser().verifyContainerFormat(QString::fromLatin1(c.name)), c.result)
            << c.name;
}

#include "Support.h"

#include <gtest/gtest.h>

using namespace bytes;

namespace {
std::string report(const QByteArray &input, const ContainerAbstract::Settings &settings = {})
{
    return dump(parseReport(input, settings)).toStdString();
}
} // namespace

TEST(Walker, WorkedWalkOfNestedContainersAndSizeZero)
{
    const QByteArray input =
        cat({box("moov", box("udta", box("free", zeros(8)))), u32(0), text("abcd")});
    EXPECT_EQ(report(input), "moov @0+32\n"
                             "  size @0+4 = 32\n"
                             "  type @4+4 = moov\n"
                             "  udta @8+24\n"
                             "    size @8+4 = 24\n"
                             "    type @12+4 = udta\n"
                             "    free @16+16\n"
                             "      size @16+4 = 16\n"
                             "      type @20+4 = free\n"
                             "      data @24+8\n"
                             "abcd @32+8 ! Unknown element!\n"
                             "  size @32+4 = 0 // Element extends to end of file.\n"
                             "  type @36+4 = abcd\n");
}

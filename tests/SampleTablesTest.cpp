// The sample table boxes: what each reports. What a video track makes of them shows in its samples
// (SampleWalkTest.cpp).

#include "TrackSupport.h"

#include <gtest/gtest.h>

using namespace bytes;
using namespace tracks;

namespace {

// Compared with tests/golden/SampleTables/<name>.txt, in value base 16 when the name ends so.
TEST(SampleTables, ReportEveryEntryThatLiesInsideTheBoxAndTheInput)
{
    const std::pair<const char *, QByteArray> cases[] = {
        // Entries as elements or as indexed fields; offsets unsigned; a constant sample size
        // without entries.
        {"every-table",
         cat({table("stts", {{3, 5}, {0, 9}}), counted("stss", {1, 5}),
              table("stsc", {{1, 2, 1}, {3, 1, 2}}), counted("stco", {400, 0xFFFFFFFF}),
              co64({0x100000000}), stsz({7, 9}), fullBox("stsz", 0, 0, words32({100, 5, 1, 2}))})},
        // An empty table, a count and a constant size cut off by the box, a count beyond the box,
        // and entries cut off by the end of the input.
        {"short-tables",
         cat({counted("stco", {}), fullBox("stts", 0, 0, u16(7)), fullBox("stsz", 0, 0, u32(0)),
              fullBox("stss", 0, 0, words32({5, 1, 2})), box("free", words32({3, 4})), u32(100),
              text("stco"), zeros(4), words32({3, 1, 2}), u16(0)})},
        {"stco-base16", counted("stco", {255})},
    };
    for (const auto &[name, input] : cases) {
        ContainerAbstract::Settings settings;
        settings.valueBase = QByteArray(name).endsWith("-base16") ? 16 : 10;
        expectGolden(QStringLiteral("SampleTables/") + QLatin1String(name),
                     dump(parseReport(input, settings)));
    }
}

} // namespace

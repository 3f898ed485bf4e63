#include "Support.h"

#include <gtest/gtest.h>

using namespace bytes;

// Whole reports compared with tests/golden/FileLevel/<name>.txt.
TEST(FileLevel, WholeReports)
{
    const auto unknownData = [](bool show, quint64 cap) {
        ContainerAbstract::Settings settings;
        settings.showUnknownData = show;
        settings.maxUnknownDataSize = cap;
        return settings;
    };
    ContainerAbstract::Settings base2;
    base2.valueBase = 2;
    const struct {
        const char *name;
        QByteArray input;
        ContainerAbstract::Settings settings;
    } cases[] = {
        {"ftyp-brands-and-minor-version",
         box("ftyp", cat({text("isom"), u32(0x20050300), text("iso2"), text("ab"), u16(0x0063)})),
         {}},
        // The minor version is hex bytes whatever the base.
        {"styp-minor-version-base-2", box("styp", cat({text("msdh"), u32(0x0000AB0C)})), base2},
        // Brand text ends at a zero byte.
        {"ftyp-zero-in-brand",
         box("ftyp", cat({text("ab"), u8(0), text("c"), zeros(4), zeros(4)})),
         {}},
        // Four payload bytes: both fields are reported, the brand list is empty.
        {"ftyp-short-payload", box("ftyp", text("qt  ")), {}},
        // Nine payload bytes: the last brand takes three bytes from behind the box.
        {"ftyp-last-brand-reaches-past-the-payload",
         cat({u32(17), text("ftyp"), text("isom"), zeros(4), text("a"), text("bcd")}),
         {}},
        // A million brands claimed: only those inside the input are reported.
        {"ftyp-brands-stop-at-the-end-of-the-input",
         cat({u32(1000016), text("ftyp"), text("isom"), zeros(4), text("avc1"), text("mp41")}),
         {}},
        // free, skip and mdat read nothing; a last mdat of size zero reaches to the end.
        {"junk", cat({box("free"), box("skip", zeros(3)), u32(0), text("mdat"), text("xyz")}), {}},
        // Unknown data: hidden, capped, capped at zero, and cut by the end of the input.
        {"unknown-data-hidden", box("zzzz", text("abc")), unknownData(false, 64)},
        {"unknown-data-capped", box("zzzz", QByteArray(100, 'x')), unknownData(true, 16)},
        {"unknown-data-cap-zero", box("zzzz", text("abc")), unknownData(true, 0)},
        {"unknown-data-beyond-the-input", cat({u32(108), text("zzzz"), text("hello")}), {}},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        expectGolden(QStringLiteral("FileLevel/") + QLatin1String(c.name),
                     dump(parseReport(c.input, c.settings)));
    }
}

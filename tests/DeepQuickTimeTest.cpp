// Deep analysis of QuickTime's ways: lists of atoms that end in a terminator, types that are
// no text, boxes that claim more than their parent holds, compressed movies and reference
// movies. Compared whole with tests/golden/Deep/quicktime.txt.

#include "TrackSupport.h"

#include <gtest/gtest.h>

using namespace bytes;
using namespace tracks;

namespace {

TEST(DeepQuickTime, CraftedMovies)
{
    const QByteArray tables =
        cat({fullBox("stsd", 0, 0, u32(0)), table("stts", {{2, 10}}), table("stsc", {{1, 2, 1}}),
             fullBox("stsz", 0, 0, words32({8, 2})), counted("stco", {8})});
    const QByteArray moov = box("moov", trackBox("vide", tables));
    const QByteArray deflated = qCompress(moov, 9).mid(4);
    const auto compressed = [&](quint32 declared, const QByteArray &data) {
        return box("moov",
                   box("cmov", box("dcom", text("zlib")) + box("cmvd", u32(declared) + data)));
    };
    const std::pair<const char *, QByteArray> cases[] = {
        // A QuickTime meta, without version and flags, and an ISO one; both lists end in a
        // terminator, and so does the udta around them.
        {"terminators",
         box("udta", cat({box("meta", handlerBox("mdir") + u32(0)),
                          fullBox("meta", 0, 0, handlerBox("mdir") + u32(0)), u32(0)}))},
        // Four zero bytes that do not end the list are a box reaching to its parent's end;
        // so are four zero bytes of type.
        {"zeros in odd places", cat({box("udta", u32(0) + box("name", text("A"))),
                                     box("udta", u32(12) + zeros(4) + text("abcd") + u32(8) +
                                                     text("\x01\x7F"
                                                          "ab"))})},
        {"a box past its parent", box("moov", box("udta", u32(400) + text("name") + text("x")))},
        // The samples' offsets are the file's: the mdat's payload at 8.
        {"a compressed movie", box("mdat", zeros(16)) + compressed(quint32(moov.size()), deflated)},
        {"a compressed movie of another kind",
         box("moov", box("cmov", box("dcom", text("lzss")) + box("cmvd", u32(4) + zeros(4))))},
        {"a damaged compressed movie", compressed(quint32(moov.size()), deflated.left(20))},
        {"reference movies",
         box("moov",
             box("rmra",
                 box("rmda",
                     cat({box("rdrf",
                              cat({u32(0), text("url "), u32(10), text("movie.mov"), u8(0)})),
                          box("rmdr", u32(0) + u32(56000)), box("rmcs", u32(0) + u16(1)),
                          box("rmvc", cat({u32(0), text("qtim"), u32(0x07000000), u32(0xFFFF0000),
                                           u16(0)})),
                          box("rmcd", cat({u32(0), text("imdc"), text("avc1"), zeros(12), u32(0)})),
                          box("rmqu", u32(500))}))))},
    };
    QString all;
    for (const auto &[name, input] : cases)
        all += QStringLiteral("== ") + QLatin1String(name) + '\n' + deepDump(input);
    expectGolden(QStringLiteral("Deep/quicktime"), all);
}

} // namespace

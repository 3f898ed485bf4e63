// --units: the codec checks over crafted H.264 tracks, each of which gives its problem code,
// and over the real files of the tests, which give none of them.

#include "Support.h"
#include "TrackSupport.h"

#include <QDir>
#include <QFile>

#include <gtest/gtest.h>

#include <set>
#include <vector>

using namespace bytes;
using namespace tracks;

namespace {

// Bits written from the top down: fixed widths and Exp-Golomb codes, then the stop bit.
class BitWriter {
public:
    BitWriter &u(int count, quint64 value)
    {
        for (int bit = count - 1; bit >= 0; --bit)
            bits.push_back(value >> bit & 1);
        return *this;
    }
    BitWriter &ue(quint64 value)
    {
        int width = 0;
        while ((value + 1) >> (width + 1))
            ++width;
        return u(width, 0).u(width + 1, value + 1);
    }
    QByteArray rbsp()
    {
        u(1, 1);
        while (bits.size() % 8)
            bits.push_back(0);
        QByteArray all;
        for (size_t i = 0; i < bits.size(); i += 8) {
            quint8 byte = 0;
            for (size_t j = 0; j < 8; ++j)
                byte = quint8(byte << 1 | bits[i + j]);
            all += char(byte);
        }
        return all;
    }

private:
    std::vector<int> bits;
};

// Baseline, 32x32 (2x2 macroblocks), level 3.0 or as given.
QByteArray sps(quint8 level = 30)
{
    return u8(0x67) + u8(66) + u8(0xC0) + u8(level) +
           BitWriter().ue(0).ue(0).ue(2).ue(1).u(1, 0).ue(1).ue(1).u(3, 0b110).u(1, 0).rbsp();
}

QByteArray pps()
{
    return u8(0x68) + BitWriter()
                          .ue(0)
                          .ue(0)
                          .u(2, 0)
                          .ue(0)
                          .ue(0)
                          .ue(0)
                          .u(3, 0)
                          .ue(0)
                          .ue(0)
                          .ue(0)
                          .u(3, 0b100)
                          .rbsp();
}

// A slice: IDR or not, of a slice type, naming a picture parameter set.
QByteArray slice(bool idr, int type, int pictureSet = 0)
{
    return u8(idr ? 0x65 : 0x41) +
           BitWriter().ue(0).ue(quint64(type)).ue(quint64(pictureSet)).rbsp();
}

// Units with lengths of the given size in front.
QByteArray sample(std::initializer_list<QByteArray> units, int lengthSize = 4)
{
    QByteArray all;
    for (const QByteArray &unit : units)
        all += u32(quint32(unit.size())).right(lengthSize) + unit;
    return all;
}

QByteArray avcC(int lengthSizeMinusOne = 3)
{
    return box("avcC", cat({u8(1), u8(66), u8(0xC0), u8(30), u8(quint8(0xFC | lengthSizeMinusOne)),
                            u8(0xE1), u16(quint16(sps().size())), sps(), u8(1),
                            u16(quint16(pps().size())), pps()}));
}

// A movie of one video track of an avc1 entry of the given size and these samples, sync
// where listed (every one without a list), its media data behind the movie.
QByteArray movie(const std::vector<QByteArray> &samples, std::initializer_list<quint32> sync,
                 const QByteArray &config = avcC(), quint16 width = 32, quint16 height = 32)
{
    const QByteArray entry = box(
        "avc1", cat({zeros(6), u16(1), zeros(16), u16(width), u16(height), u32(0x00480000),
                     u32(0x00480000), u32(0), u16(1), zeros(32), u16(24), u16(0xFFFF), config}));
    QByteArray sizes = u32(0) + u32(quint32(samples.size()));
    QByteArray media;
    for (const QByteArray &one : samples) {
        sizes += u32(quint32(one.size()));
        media += one;
    }
    const auto build = [&](quint32 offset) {
        QByteArray tables = cat({fullBox("stsd", 0, 0, u32(1) + entry),
                                 table("stts", {{quint32(samples.size()), 1}}),
                                 table("stsc", {{1, quint32(samples.size()), 1}}),
                                 fullBox("stsz", 0, 0, sizes), counted("stco", {offset})});
        if (sync.size() > 0)
            tables += counted("stss", sync);
        return videoMovie(tables);
    };
    const QByteArray moov = build(0);
    return build(quint32(moov.size() + 8)) + box("mdat", media);
}

// The codes of the problems of --units --check.
std::set<QString> codes(const QByteArray &input)
{
    ContainerAbstract::Settings settings;
    settings.deepAnalysis = true;
    settings.sampleUnits = true;
    settings.checkProblems = true;
    std::set<QString> all;
    for (const Problem &problem : parseReport(input, settings).problems)
        all.insert(problem.code);
    return all;
}

const QStringList UnitCodes = {"sync-sample-not-random-access",
                               "random-access-not-sync",
                               "unit-length-overrun",
                               "unit-length-size",
                               "zero-size-unit",
                               "parameter-set-mismatch",
                               "picture-size-mismatch",
                               "missing-parameter-set"};

TEST(SampleUnits, CraftedTracksGiveTheirCodes)
{
    const QByteArray idr = sample({slice(true, 7)});
    const QByteArray p = sample({slice(false, 5)});
    const struct {
        const char *name;
        QByteArray input;
        std::set<QString> expected;
    } cases[] = {
        {"clean", movie({idr, p}, {1}), {}},
        {"sync sample that is a P slice",
         movie({idr, p}, {1, 2}),
         {"sync-sample-not-random-access"}},
        {"IDR outside stss", movie({idr, idr}, {1}), {"random-access-not-sync"}},
        {"NAL length past the sample",
         movie({idr, u32(100) + slice(false, 5)}, {1}),
         {"unit-length-overrun"}},
        {"lengthSizeMinusOne 0", movie({idr, p}, {1}, avcC(0)), {"unit-length-size"}},
        {"lengthSizeMinusOne 1", movie({idr, p}, {1}, avcC(1)), {"unit-length-size"}},
        {"slice naming a missing PPS",
         movie({idr, sample({slice(false, 5, 3)})}, {1}),
         {"missing-parameter-set"}},
        {"SPS of another size than the sample entry",
         movie({idr, p}, {1}, avcC(), 64, 48),
         {"picture-size-mismatch"}},
        {"zero-size unit",
         movie({idr, sample({QByteArray(), slice(false, 5)})}, {1}),
         {"zero-size-unit"}},
        {"in-band SPS unlike the configuration's",
         movie({sample({sps(31), slice(true, 7)})}, {1}),
         {"parameter-set-mismatch"}},
    };
    for (const auto &one : cases) {
        SCOPED_TRACE(one.name);
        std::set<QString> found;
        for (const QString &code : codes(one.input))
            if (UnitCodes.contains(code))
                found.insert(code);
        EXPECT_EQ(found, one.expected);
    }
}

TEST(SampleUnits, RealFilesGiveNoUnitProblems)
{
    QStringList paths = {QStringLiteral(SARVELINTH_SOURCE_DIR "/samples/sample.mp4")};
    const QDir data(QStringLiteral(SARVELINTH_SOURCE_DIR "/tests/data"));
    for (const QString &name : data.entryList({"*.mp4", "*.mov", "*.m4s"}, QDir::Files))
        paths << data.filePath(name);
    for (const QString &path : paths) {
        SCOPED_TRACE(path.toStdString());
        QFile file(path);
        ASSERT_TRUE(file.open(QIODevice::ReadOnly));
        for (const QString &code : codes(file.readAll()))
            EXPECT_FALSE(UnitCodes.contains(code)) << code.toStdString();
    }
}

} // namespace

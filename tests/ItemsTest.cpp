// Items: the real images of tests/data against heif-info, crafted files for each iloc layout,
// construction method, ipma width and check, a grid of 10,000 tiles against the clock, and
// hostile items that must stay bounded with one valid JSON line.

#include "ItemSupport.h"
#include "JsonWriter.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>
#include <QRegularExpression>
#include <QStandardPaths>
#include <QTemporaryFile>

#include <gtest/gtest.h>

#include <ctime>

#include <unistd.h>

using namespace items;

// Extents are equal where they cover the same bytes; found by the comparisons of gtest.
static bool operator==(const ItemExtent &a, const ItemExtent &b)
{
    return a.offset == b.offset && a.length == b.length;
}

namespace {

ReportTree deepChecked(const QByteArray &input)
{
    ContainerAbstract::Settings settings;
    settings.deepAnalysis = true;
    settings.checkProblems = true;
    return parseReport(input, settings);
}

QStringList codesOf(const ReportTree &report)
{
    QStringList codes;
    for (const Problem &problem : report.problems)
        codes << problem.code;
    return codes;
}

const Item *primaryOf(const ReportTree &report)
{
    for (const Item &item : report.items) {
        if (item.primary)
            return &item;
    }
    return nullptr;
}

bool hasUnknownBox(const ReportTree::Node &node)
{
    if (node.note == QLatin1String("Unknown element!"))
        return true;
    for (const auto &child : node.children) {
        if (hasUnknownBox(*child))
            return true;
    }
    return false;
}

std::vector<ItemExtent> extentsOf(const Item &item)
{
    return item.extents ? *item.extents : std::vector<ItemExtent>();
}

// The files of make-image-files.sh: no error, no box left opaque, every extent inside the
// file, and the primary item as heif-info tells it.
TEST(Items, RealImagesAgreeWithHeifInfo)
{
    const QDir data(QStringLiteral(SARVELINTH_SOURCE_DIR "/tests/data"));
    const QStringList names = data.entryList({"image-*.heic", "image-*.avif"}, QDir::Files);
    ASSERT_GE(names.size(), 6);
    const QString heifInfo = QStandardPaths::findExecutable(QStringLiteral("heif-info"));
    for (const QString &name : names) {
        SCOPED_TRACE(name.toStdString());
        QFile file(data.filePath(name));
        ASSERT_TRUE(file.open(QIODevice::ReadOnly));
        const QByteArray bytes = file.readAll();
        const ReportTree report = deepChecked(bytes);
        for (const Problem &problem : report.problems)
            EXPECT_NE(problem.severity, Severity::Error) << problem.message.toStdString();
        EXPECT_FALSE(hasUnknownBox(report.root));
        ASSERT_FALSE(report.items.isEmpty());
        for (const Item &item : report.items) {
            ASSERT_TRUE(item.extents) << item.extentsReason.toStdString();
            for (const ItemExtent &extent : *item.extents)
                EXPECT_LE(extent.offset + extent.length, quint64(bytes.size()));
        }
        const Item *primary = primaryOf(report);
        ASSERT_TRUE(primary);
        const bool avif = name.endsWith(QLatin1String(".avif"));
        EXPECT_TRUE(primary->type == (avif ? "av01" : "hvc1") || primary->type == "grid");
        ASSERT_TRUE(report.coverage);
        EXPECT_GT(report.coverage->itemData, 0u);
        EXPECT_EQ(report.coverage->unreferencedMediaData, 0u);

        if (heifInfo.isEmpty())
            continue;
        QProcess process;
        process.start(heifInfo, {file.fileName()});
        ASSERT_TRUE(process.waitForFinished(10000));
        const QString text = QString::fromUtf8(process.readAllStandardOutput());
        const QRegularExpressionMatch match =
            QRegularExpression(QStringLiteral("image: (\\d+)x(\\d+) \\(id=(\\d+)\\), primary"))
                .match(text);
        ASSERT_TRUE(match.hasMatch()) << text.toStdString();
        EXPECT_EQ(primary->width, match.captured(1).toUInt());
        EXPECT_EQ(primary->height, match.captured(2).toUInt());
        EXPECT_EQ(primary->id, match.captured(3).toUInt());
        EXPECT_TRUE(text.contains(avif ? "image/avif" : "image/heic"));
    }
    if (heifInfo.isEmpty())
        GTEST_SKIP() << "heif-info is not installed: the items were not compared with it";
}

// The whole deep, checked reports of a HEIC of two images with thumbnails and of an AVIF grid,
// as text, and their summaries: every box field by field, the grid layout in idat, one line
// per item, the coverage with the item data; exit status 0.
TEST(Items, WholeReportsOfRealImages)
{
    const QString bin =
        QFileInfo(QFileInfo(QStringLiteral("/proc/self/exe")).canonicalFilePath()).path();
    QString all;
    for (const QString &format : {QStringLiteral("text"), QStringLiteral("summary")}) {
        QProcess process;
        process.setWorkingDirectory(QStringLiteral(SARVELINTH_SOURCE_DIR));
        process.start(bin + QStringLiteral("/sarvelinth"),
                      {"--deep", "--check", "--format", format, "tests/data/image-two.heic",
                       "tests/data/image-grid.avif"});
        ASSERT_TRUE(process.waitForFinished(60000));
        EXPECT_EQ(process.exitCode(), 0);
        all += QString::fromUtf8(process.readAllStandardOutput());
    }
    expectGolden(QStringLiteral("Items/images"), all);
}

// Each iloc version with each width of offsets, lengths and base offsets: the extent lands
// at the same bytes of the mdat.
TEST(Items, EveryLocationLayoutResolvesToTheSameBytes)
{
    for (int version : {0, 1, 2}) {
        for (int offsetSize : {0, 4, 8}) {
            for (int baseSize : {0, 4, 8}) {
                if (offsetSize == 0 && baseSize == 0)
                    continue;
                const int lengthSize = offsetSize == 4 ? 8 : 4;
                const int indexSize = version >= 1 ? 4 : 0;
                SCOPED_TRACE(QStringLiteral("version %1, offsets %2, base offsets %3")
                                 .arg(version)
                                 .arg(offsetSize)
                                 .arg(baseSize)
                                 .toStdString());
                quint64 payload = 0;
                const QByteArray input = imageFile([&](quint64 at) {
                    payload = at;
                    const quint64 base = baseSize ? (offsetSize ? at : at + 2) : 0;
                    const quint64 offset = offsetSize ? (baseSize ? 2 : at + 2) : 0;
                    return cat(
                        {primary(1), info({entry(1, "hvc1")}),
                         location({{1, base, {{offset, 10, 1}}}}, version,
                                  {offsetSize, lengthSize, baseSize, indexSize}),
                         properties(spatialExtents(64, 64), associations({{1, {{1, false}}}}))});
                });
                const ReportTree report = deepChecked(input);
                EXPECT_TRUE(report.problems.isEmpty()) << codesOf(report).join(' ').toStdString();
                ASSERT_EQ(report.items.size(), 1);
                EXPECT_EQ(extentsOf(report.items[0]), (std::vector<ItemExtent>{{payload + 2, 10}}));
            }
        }
    }
}

// Construction method 1 counts from the payload of idat; method 2 from the bytes of the item
// its iloc reference names, across that item's extents.
TEST(Items, IdatAndItemConstructionMethods)
{
    const QByteArray idat = box("idat", QByteArray(16, '\x22'));
    quint64 payload = 0;
    const QByteArray input = imageFile(
        [&](quint64 at) {
            payload = at;
            return cat(
                {primary(1), info({entry(1, "hvc1"), entry(2, "hvc1"), entry(3, "Exif")}),
                 references(reference("iloc", 2, {1})),
                 location(
                     {{1, 0, {{at, 8}, {at + 12, 8}}}, {2, 0, {{6, 4, 1}}, 2}, {3, 0, {{4, 8}}, 1}},
                     1, {4, 4, 0, 4}),
                 idat,
                 properties(spatialExtents(64, 64),
                            associations({{1, {{1, false}}}, {2, {{1, false}}}}))});
        },
        QByteArray(24, '\x11'));
    const ReportTree report = deepChecked(input);
    EXPECT_TRUE(report.problems.isEmpty()) << codesOf(report).join(' ').toStdString();
    ASSERT_EQ(report.items.size(), 3);
    EXPECT_EQ(extentsOf(report.items[1]),
              (std::vector<ItemExtent>{{payload + 6, 2}, {payload + 12, 2}}));
    const quint64 idatPayload = quint64(input.indexOf("idat") + 4);
    EXPECT_EQ(extentsOf(report.items[2]), (std::vector<ItemExtent>{{idatPayload + 4, 8}}));
    // Item 2 lies inside item 1: their bytes are counted once.
    EXPECT_EQ(report.coverage->itemData, 16u + 8u);
}

// ipma with flag 1: 15-bit property indexes, here past the 127 that 7 bits hold.
TEST(Items, WideAssociationIndexes)
{
    QByteArray container;
    for (quint32 i = 1; i <= 130; ++i)
        container += spatialExtents(i, 2 * i);
    for (int version : {0, 1}) {
        const QByteArray input = imageFile([&](quint64 at) {
            return cat({primary(1), info({entry(1, "hvc1")}), location({{1, 0, {{at, 16}}}}),
                        properties(container,
                                   associations({{1, {{130, true}, {0, false}}}}, version, 1))});
        });
        const ReportTree report = deepChecked(input);
        EXPECT_TRUE(report.problems.isEmpty()) << codesOf(report).join(' ').toStdString();
        ASSERT_EQ(report.items.size(), 1);
        const Item &item = report.items[0];
        ASSERT_EQ(item.properties.size(), 1u);
        EXPECT_EQ(item.properties[0].index, 130u);
        EXPECT_TRUE(item.properties[0].essential);
        EXPECT_EQ(item.properties[0].path, "meta/iprp/ipco/ispe[129]");
        EXPECT_EQ(item.width, 130u);
        EXPECT_EQ(item.height, 260u);
    }
}

// An overlay of two images on a canvas of 640x480, its layout with sizes of 2 bytes or of 4,
// where it lies in idat and where it lies in the mdat in two extents around the images' bytes:
// the same record either way.
TEST(Items, OverlayLayoutIsReadWhereverItLies)
{
    for (const bool wide : {false, true}) {
        const auto size = [&](qint32 value) {
            return wide ? u32(quint32(value)) : u16(quint16(value));
        };
        const QByteArray layout =
            cat({u8(0), u8(wide ? 1 : 0), u16(1), u16(2), u16(3), u16(0xFFFF), size(640), size(480),
                 size(0), size(0), size(-16), size(320)});
        for (const bool inIdat : {true, false}) {
            SCOPED_TRACE(QStringLiteral("sizes of %1 bytes, %2")
                             .arg(wide ? 4 : 2)
                             .arg(inIdat ? "in idat" : "in the mdat")
                             .toStdString());
            const quint64 head = 5; // of the layout in the mdat, before the images' bytes
            const QByteArray mediaData =
                inIdat ? QByteArray("\x11\x22", 2)
                       : layout.left(head) + QByteArray("\x11\x22", 2) + layout.mid(head);
            const QByteArray input = imageFile(
                [&](quint64 at) {
                    const quint64 images = inIdat ? at : at + head;
                    const Location overlay =
                        inIdat
                            ? Location{1, 0, {{0, quint64(layout.size())}}, 1}
                            : Location{1, 0, {{at, head}, {at + head + 2, layout.size() - head}}};
                    return cat(
                        {primary(1),
                         info({entry(1, "iovl"), entry(2, "hvc1", 1), entry(3, "hvc1", 1)}),
                         references(reference("dimg", 1, {2, 3})),
                         location({overlay, {2, 0, {{images, 1}}}, {3, 0, {{images + 1, 1}}}}, 1),
                         inIdat ? box("idat", layout) : QByteArray(),
                         properties(spatialExtents(640, 480) + spatialExtents(64, 64),
                                    associations(
                                        {{1, {{1, true}}}, {2, {{2, true}}}, {3, {{2, true}}}}))});
                },
                mediaData);
            const ReportTree report = deepChecked(input);
            EXPECT_TRUE(report.problems.isEmpty()) << codesOf(report).join(' ').toStdString();
            ASSERT_EQ(report.items.size(), 3);
            ASSERT_TRUE(report.items[0].overlay);
            const ItemOverlay &overlay = *report.items[0].overlay;
            EXPECT_EQ(std::vector<quint16>(overlay.canvasFill, overlay.canvasFill + 4),
                      (std::vector<quint16>{1, 2, 3, 0xFFFF}));
            EXPECT_EQ(overlay.outputWidth, 640u);
            EXPECT_EQ(overlay.outputHeight, 480u);
            ASSERT_EQ(overlay.offsets.size(), 2u);
            EXPECT_EQ(overlay.offsets[0].x, 0);
            EXPECT_EQ(overlay.offsets[0].y, 0);
            EXPECT_EQ(overlay.offsets[1].x, -16);
            EXPECT_EQ(overlay.offsets[1].y, 320);
        }
    }
}

// A grid of rows x columns tiles of 64x64, the grid's layout in idat, each tile a byte of
// the mdat.
QByteArray gridFile(quint8 rows, quint8 columns, quint32 tiles, quint16 width, quint16 height)
{
    return imageFile(
        [&](quint64 at) {
            std::vector<QByteArray> entries = {entry(1, "grid")};
            std::vector<Location> locations = {{1, 0, {{0, 8}}, 1}};
            std::vector<quint32> ids;
            std::vector<Association> links = {{1, {{1, true}}}};
            for (quint32 i = 0; i < tiles; ++i) {
                entries.push_back(entry(2 + i, "hvc1", 1));
                locations.push_back({2 + i, 0, {{at + i, 1}}});
                ids.push_back(2 + i);
                links.push_back({2 + i, {{2, true}}});
            }
            return cat({primary(1), info(entries), references(reference("dimg", 1, ids)),
                        location(locations, 1),
                        box("idat", gridLayout(rows, columns, width, height)),
                        properties(spatialExtents(width, height) + spatialExtents(64, 64),
                                   associations(links))});
        },
        QByteArray(int(tiles), '\x11'));
}

TEST(Items, GridOfTenThousandTilesIsQuick)
{
    const QByteArray input = gridFile(100, 100, 10000, 6400, 6400);
    QTemporaryFile output;
    ASSERT_TRUE(output.open());
    FILE *out = fdopen(dup(output.handle()), "w");
    ASSERT_TRUE(out);
    // Processor time: the machine may be busy with other work.
    const std::clock_t start = std::clock();
    {
        JsonWriter writer(out, JsonWriter::Keys::Annotated);
        TestParser parser;
        ContainerAbstract::Settings settings;
        settings.deepAnalysis = true;
        settings.checkProblems = true;
        parser.configure(settings);
        parser.parseBytes(QStringLiteral("grid.heic"), input, writer);
        writer.flush();
    }
    const double seconds = double(std::clock() - start) / CLOCKS_PER_SEC;
    fclose(out);
    EXPECT_LT(seconds, 1.0); // 0.2 s in a release build; sanitizers and debug builds are slower
    output.seek(0);
    const QJsonObject document = QJsonDocument::fromJson(output.readAll()).object();
    ASSERT_EQ(document["items"].toArray().size(), 10001);
    const QJsonObject grid = document["items"].toArray()[0].toObject();
    EXPECT_EQ(grid["grid"].toObject()["rows"].toInt(), 100);
    EXPECT_EQ(grid["references"].toArray()[0].toObject()["items"].toArray().size(), 10000);
    EXPECT_TRUE(document["problems"].toArray().isEmpty());
}

// Each check with the file that shows it.
TEST(Items, EachCheckHasItsCode)
{
    const auto image = [](const std::function<QByteArray(quint64)> &meta) {
        return imageFile(meta);
    };
    const QByteArray ispe = spatialExtents(64, 64);
    const QList<QPair<QString, QByteArray>> cases = {
        {"item-extent-past-eof", image([&](quint64 at) {
             return cat({primary(1), info({entry(1, "hvc1")}), location({{1, 0, {{at, 1000}}}}),
                         properties(ispe, associations({{1, {{1, false}}}}))});
         })},
        {"item-extent-outside-idat", image([&](quint64) {
             return cat({primary(1), info({entry(1, "hvc1")}), location({{1, 0, {{2, 8}}, 1}}),
                         box("idat", zeros(4)),
                         properties(ispe, associations({{1, {{1, false}}}}))});
         })},
        {"item-without-location", image([&](quint64 at) {
             return cat({primary(1), info({entry(1, "hvc1"), entry(2, "Exif")}),
                         location({{1, 0, {{at, 16}}}}),
                         properties(ispe, associations({{1, {{1, false}}}}))});
         })},
        {"primary-item-missing", image([&](quint64 at) {
             return cat({primary(9), info({entry(1, "hvc1")}), location({{1, 0, {{at, 16}}}}),
                         properties(ispe, associations({{1, {{1, false}}}}))});
         })},
        {"property-index-invalid", image([&](quint64 at) {
             return cat({primary(1), info({entry(1, "hvc1")}), location({{1, 0, {{at, 16}}}}),
                         properties(ispe, associations({{1, {{1, false}, {5, false}}}}))});
         })},
        {"essential-property-unknown", image([&](quint64 at) {
             return cat({primary(1), info({entry(1, "hvc1")}), location({{1, 0, {{at, 16}}}}),
                         properties(ispe + box("abcd", zeros(4)),
                                    associations({{1, {{1, false}, {2, true}}}}))});
         })},
        {"item-reference-missing", image([&](quint64 at) {
             return cat({primary(1), info({entry(1, "hvc1")}),
                         references(reference("thmb", 1, {7})), location({{1, 0, {{at, 16}}}}),
                         properties(ispe, associations({{1, {{1, false}}}}))});
         })},
        {"grid-tile-count", gridFile(2, 2, 3, 128, 128)},
        {"grid-output-size", gridFile(1, 1, 1, 100, 100)},
        {"primary-without-ispe", image([&](quint64 at) {
             return cat({primary(1), info({entry(1, "hvc1")}), location({{1, 0, {{at, 16}}}})});
         })},
        {"items-share-bytes", image([&](quint64 at) {
             return cat({primary(1), info({entry(1, "hvc1"), entry(2, "hvc1")}),
                         location({{1, 0, {{at, 16}}}, {2, 0, {{at + 8, 8}}}}),
                         properties(ispe, associations({{1, {{1, false}}}, {2, {{1, false}}}}))});
         })},
        {"item-location-sizes", image([&](quint64 at) {
             return cat({primary(1), info({entry(1, "hvc1")}),
                         location({{1, 0, {{at, 16}}}}, 1, {3, 4, 0, 0}),
                         properties(ispe, associations({{1, {{1, false}}}}))});
         })},
    };
    EXPECT_TRUE(deepChecked(oneImage()).problems.isEmpty());
    for (const auto &[code, input] : cases) {
        const QStringList codes = codesOf(deepChecked(input));
        EXPECT_TRUE(codes.contains(code))
            << code.toStdString() << ": " << codes.join(' ').toStdString();
    }
}

// Hostile items: each reported in a bounded time as one valid JSON line with all its items.
TEST(Items, HostileItemsGiveOneJsonLineQuickly)
{
    const std::map<QString, quint64> itemCounts = {{"ItemExtentCountBeyondTheBox", 1},
                                                   {"ItemsBuiltFromEachOtherInALoop", 2},
                                                   {"SixtyFiveThousandItems", 65535},
                                                   {"GridOfTheLargestLayout", 1}};
    for (const auto &[name, input] : hostileItemFiles()) {
        SCOPED_TRACE(name.toStdString());
        QTemporaryFile output;
        ASSERT_TRUE(output.open());
        FILE *out = fdopen(dup(output.handle()), "w");
        ASSERT_TRUE(out);
        const std::clock_t start = std::clock();
        {
            JsonWriter writer(out, JsonWriter::Keys::Annotated);
            TestParser parser;
            ContainerAbstract::Settings settings;
            settings.deepAnalysis = true;
            settings.checkProblems = true;
            parser.configure(settings);
            parser.parseBytes(QStringLiteral("hostile.heic"), input, writer);
            writer.flush();
        }
        EXPECT_LT(double(std::clock() - start) / CLOCKS_PER_SEC, 2.0 * TimeScale);
        fclose(out);
        output.seek(0);
        const QByteArray text = output.readAll();
        EXPECT_EQ(text.count('\n'), 1);
        // The line of 65,535 items is some 170 MB: Python's parser, which the sanitizers do
        // not slow down, reads it in seconds.
        QProcess python;
        python.start(QStringLiteral("/usr/bin/python3"),
                     {QStringLiteral("-c"),
                      QStringLiteral("import json, sys; print(len(json.load(sys.stdin)['items']))"),
                      QStringLiteral("-")});
        python.write(text);
        python.closeWriteChannel();
        ASSERT_TRUE(python.waitForFinished(60000));
        EXPECT_EQ(python.exitCode(), 0) << python.readAllStandardError().toStdString();
        EXPECT_EQ(python.readAllStandardOutput().trimmed().toULongLong(), itemCounts.at(name));
    }
}

} // namespace

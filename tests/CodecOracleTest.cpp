// The codec layer against FFmpeg's trace_headers bitstream filter, over the H.264, HEVC and
// AV1 files of the tests: every syntax element both show of each VPS, SPS and PPS of the
// decoder configurations has the same values, in the same order; and each sample has the
// NAL units or OBUs, by type, of its packet.

#include "Support.h"

#include <QFile>
#include <QProcess>
#include <QRegularExpression>
#include <QStandardPaths>

#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <vector>

namespace {

// The values of each syntax element of one parameter set, by name without array indices.
using Elements = std::map<QString, QStringList>;

// Names whose fields the two show in pieces of other widths, or not at all.
bool compared(const QString &name)
{
    return !name.contains(QLatin1String("reserved")) && !name.startsWith(QLatin1String("rbsp_"));
}

// The lines of FFmpeg's trace of the file's first video stream.
QStringList trace(const QString &path)
{
    QProcess ffmpeg;
    ffmpeg.start(QStringLiteral("ffmpeg"), {"-hide_banner", "-i", path, "-map", "0:v:0", "-c",
                                            "copy", "-bsf:v", "trace_headers", "-f", "null", "-"});
    if (!ffmpeg.waitForFinished(30000))
        return {};
    return QString::fromUtf8(ffmpeg.readAllStandardError()).split('\n');
}

// The parameter sets of the extradata in FFmpeg's trace, in order.
std::vector<Elements> traced(const QString &path)
{
    const QStringList lines = trace(path);
    static const QRegularExpression field(QStringLiteral(
        R"(^\[trace_headers @ [^\]]*\] \d+\s+(\w+)(?:\[[^ ]*\])?\s+[01]+ = (-?\d+)$)"));
    static const QRegularExpression title(QStringLiteral(R"(^\[trace_headers @ [^\]]*\] (\D.*)$)"));
    std::vector<Elements> sets;
    bool inExtradata = false;
    bool inSet = false;
    for (const QString &line : lines) {
        if (const QRegularExpressionMatch match = title.match(line); match.hasMatch()) {
            const QString text = match.captured(1);
            if (text == QLatin1String("Extradata"))
                inExtradata = true;
            else if (text.startsWith(QLatin1String("Packet")))
                inExtradata = false;
            inSet = inExtradata && text.endsWith(QLatin1String("Parameter Set"));
            if (inSet)
                sets.emplace_back();
        } else if (const QRegularExpressionMatch match = field.match(line);
                   inSet && match.hasMatch()) {
            sets.back()[match.captured(1)].append(match.captured(2));
        }
    }
    return sets;
}

// The fields of an element and of the groups inside it, in order.
void collect(const ReportTree::Node &node, Elements &elements)
{
    for (const auto &child : node.children) {
        if (child->kind == ReportTree::Node::Field)
            elements[child->name].append(child->value);
        else if (child->kind == ReportTree::Node::Element)
            collect(*child, elements);
    }
}

// The parameter sets of the report's configuration records, in order.
void reported(const ReportTree::Node &node, std::vector<Elements> &sets)
{
    static const QStringList units = {"sequence_parameter_set", "picture_parameter_set",
                                      "nal_unit"};
    for (const auto &child : node.children) {
        if (child->kind != ReportTree::Node::Element)
            continue;
        if (units.contains(child->name)) {
            Elements elements;
            collect(*child, elements);
            const int type = elements[QStringLiteral("nal_unit_type")].value(0).toInt();
            if ((type >= 7 && type <= 8) || (type >= 32 && type <= 34))
                sets.push_back(elements);
        } else {
            reported(*child, sets);
        }
    }
}

TEST(CodecOracle, ParameterSetsEqualFfmpegTrace)
{
    if (QStandardPaths::findExecutable(QStringLiteral("ffmpeg")).isEmpty())
        GTEST_SKIP() << "ffmpeg is not installed";
    ContainerAbstract::Settings deep;
    deep.deepAnalysis = true;
    for (const char *name :
         {"samples/sample.mp4", "tests/data/track-aac-h264.mp4",
          "tests/data/track-h264-bframes.mp4", "tests/data/track-h264-faststart.mp4",
          "tests/data/deep-hevc.mp4", "tests/data/deep-h264-aac.mov", "tests/data/deep-edits.mp4",
          "tests/data/frag-cmaf.mp4", "tests/data/deep-dash.mp4", "tests/data/frag-base-moof.mp4",
          "tests/data/header-versions.mp4"}) {
        SCOPED_TRACE(name);
        const QString path = QStringLiteral(SARVELINTH_SOURCE_DIR "/") + QLatin1String(name);
        QFile file(path);
        ASSERT_TRUE(file.open(QIODevice::ReadOnly));
        std::vector<Elements> ours;
        reported(parseReport(file.readAll(), deep).root, ours);
        const std::vector<Elements> theirs = traced(path);
        ASSERT_EQ(ours.size(), theirs.size());
        ASSERT_FALSE(ours.empty());
        for (size_t i = 0; i < ours.size(); ++i) {
            SCOPED_TRACE(i);
            int both = 0;
            for (const auto &[element, values] : theirs[i]) {
                const auto mine = ours[i].find(element);
                if (!compared(element) || mine == ours[i].end())
                    continue;
                ++both;
                EXPECT_EQ(mine->second, values) << element.toStdString();
            }
            // Every parameter set has at least its identifiers and a few fields beside.
            EXPECT_GE(both, 8);
        }
    }
}

// The unit types of each packet in FFmpeg's trace, in order.
std::vector<QList<int>> tracedUnits(const QString &path)
{
    static const QRegularExpression type(QStringLiteral(
        R"(^\[trace_headers @ [^\]]*\] \d+\s+(?:nal_unit_type|obu_type)\s+[01]+ = (\d+)$)"));
    std::vector<QList<int>> packets;
    for (const QString &line : trace(path)) {
        if (line.contains(QLatin1String("] Packet: ")))
            packets.emplace_back();
        else if (const QRegularExpressionMatch match = type.match(line);
                 match.hasMatch() && !packets.empty())
            packets.back().append(match.captured(1).toInt());
    }
    return packets;
}

TEST(CodecOracle, UnitTypesOfEverySampleEqualFfmpegTrace)
{
    if (QStandardPaths::findExecutable(QStringLiteral("ffmpeg")).isEmpty())
        GTEST_SKIP() << "ffmpeg is not installed";
    ContainerAbstract::Settings units;
    units.deepAnalysis = true;
    units.sampleUnits = true;
    for (const char *name :
         {"samples/sample.mp4", "tests/data/track-aac-h264.mp4",
          "tests/data/track-h264-bframes.mp4", "tests/data/deep-hevc.mp4",
          "tests/data/deep-h264-aac.mov", "tests/data/deep-av1.mp4", "tests/data/frag-cmaf.mp4"}) {
        SCOPED_TRACE(name);
        const QString path = QStringLiteral(SARVELINTH_SOURCE_DIR "/") + QLatin1String(name);
        QFile file(path);
        ASSERT_TRUE(file.open(QIODevice::ReadOnly));
        const ReportTree report = parseReport(file.readAll(), units);
        const std::vector<QList<int>> theirs = tracedUnits(path);
        // The first video stream: the one with units.
        const auto stream =
            std::find_if(report.streams.begin(), report.streams.end(),
                         [](const ReportTree::Stream &s) { return !s.trackSampleUnits.isEmpty(); });
        ASSERT_NE(stream, report.streams.end());
        ASSERT_EQ(size_t(stream->trackSampleUnits.size()), theirs.size());
        for (size_t i = 0; i < theirs.size(); ++i) {
            QList<int> ours;
            for (const SampleUnit &unit : stream->trackSampleUnits[qsizetype(i)])
                ours.append(unit.type);
            EXPECT_EQ(ours, theirs[i]) << "sample " << i;
        }
    }
}

} // namespace

#pragma once

#include "OutputBuffer.h"
#include "Records.h"

#include <QByteArray>

#include <utility>
#include <vector>

// The JSON of the codec layer, as the report and the server's API write it: a sample's units
// and a video stream's facts. Out is the report's OutputBuffer or a QByteArray behind
// ByteArrayOut.

// The array of a sample's units.
template <typename Out> void writeUnitsJson(Out &out, const std::vector<SampleUnit> &units)
{
    out.put('[');
    bool first = true;
    for (const SampleUnit &unit : units) {
        if (!first)
            out.put(',');
        first = false;
        out.appendLiteral("{\"offset\":");
        out.appendUnsigned(unit.offset);
        out.appendLiteral(",\"size\":");
        out.appendUnsigned(unit.size);
        out.appendLiteral(",\"type\":");
        out.appendUnsigned(quint64(unit.type));
        // Names of units and SEI messages are plain ASCII of the codec layer's tables.
        out.appendLiteral(",\"name\":\"");
        out.appendCString(unit.typeName);
        out.put('"');
        // The fields the unit has, by the codec's names.
        const std::pair<const char *, qint64> fields[] = {
            {",\"nalRefIdc\":", unit.nalRefIdc},
            {",\"layerId\":", unit.layerId},
            {",\"temporalId\":", unit.temporalId},
            {",\"sliceType\":", unit.sliceType},
            {",\"firstMbInSlice\":", unit.firstMbInSlice},
            {",\"firstSliceSegmentInPicFlag\":", unit.firstSliceSegmentInPicFlag},
        };
        for (const auto &[key, value] : fields) {
            if (value >= 0) {
                out.appendCString(key);
                out.appendUnsigned(quint64(value));
            }
        }
        if (!unit.sei.empty()) {
            out.appendLiteral(",\"sei\":[");
            for (size_t i = 0; i < unit.sei.size(); ++i) {
                const SeiPayload &payload = unit.sei[i];
                if (i > 0)
                    out.put(',');
                out.appendLiteral("{\"type\":");
                out.appendUnsigned(payload.type);
                out.appendLiteral(",\"name\":\"");
                out.appendCString(payload.name);
                out.put('"');
                out.appendLiteral(",\"size\":");
                out.appendUnsigned(payload.size);
                if (payload.captions >= 0) {
                    out.appendLiteral(",\"captions\":");
                    out.appendUnsigned(quint64(payload.captions));
                }
                if (!payload.uuid.isEmpty()) {
                    out.appendLiteral(",\"uuid\":");
                    out.appendString(payload.uuid, OutputBuffer::Escaping::Json);
                }
                out.put('}');
            }
            out.put(']');
        }
        out.put('}');
    }
    out.put(']');
}

// The object of a video stream's facts: codes the stream does not state are left out.
template <typename Out> void writeVideoFactsJson(Out &out, const VideoFacts &video)
{
    out.appendLiteral("{\"codedWidth\":");
    out.appendUnsigned(quint64(video.codedWidth));
    out.appendLiteral(",\"codedHeight\":");
    out.appendUnsigned(quint64(video.codedHeight));
    out.appendLiteral(",\"width\":");
    out.appendUnsigned(quint64(video.width));
    out.appendLiteral(",\"height\":");
    out.appendUnsigned(quint64(video.height));
    out.appendLiteral(",\"bitDepthLuma\":");
    out.appendUnsigned(quint64(video.bitDepthLuma));
    out.appendLiteral(",\"bitDepthChroma\":");
    out.appendUnsigned(quint64(video.bitDepthChroma));
    const std::pair<const char *, int> codes[] = {
        {",\"chromaFormat\":", video.chromaFormat},
        {",\"colourPrimaries\":", video.colourPrimaries},
        {",\"transferCharacteristics\":", video.transferCharacteristics},
        {",\"matrixCoefficients\":", video.matrixCoefficients},
    };
    for (const auto &[key, code] : codes) {
        if (code >= 0) {
            out.appendCString(key);
            out.appendUnsigned(quint64(code));
        }
    }
    if (video.frameDuration != 0) {
        out.appendLiteral(",\"frameRate\":{\"timeScale\":");
        out.appendUnsigned(video.timeScale);
        out.appendLiteral(",\"frameDuration\":");
        out.appendUnsigned(video.frameDuration);
        out.put('}');
    }
    out.put('}');
}

// The calls these writers make, onto a QByteArray.
struct ByteArrayOut {
    QByteArray &bytes;

    void put(char c) { bytes += c; }
    template <size_t N> void appendLiteral(const char (&text)[N]) { bytes.append(text, N - 1); }
    void appendCString(const char *text) { bytes += text; }
    void appendUnsigned(quint64 value) { bytes += QByteArray::number(value); }
    // The texts of the codec layer are plain ASCII: hex digits and dashes.
    void appendString(const QString &text, OutputBuffer::Escaping)
    {
        bytes += '"';
        bytes += text.toLatin1();
        bytes += '"';
    }
};

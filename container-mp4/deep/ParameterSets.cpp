#include "ParameterSets.h"

#include "Descriptors.h"
#include "codecs/Av1.h"
#include "codecs/H264.h"
#include "codecs/Hevc.h"

#include <vector>

namespace {

// Hands the syntax elements to the payload reader, as fields of the box.
class BoxSink : public SyntaxSink {
public:
    explicit BoxSink(PayloadReader &box)
        : box(box)
    {
    }
    void field(quint64 fileBit, quint64 bitCount, const char *name, quint64 value, bool isSigned,
               const QString &comment, qint64 index) override
    {
        box.codedField(fileBit, bitCount, QString::fromLatin1(name), value, isSigned, comment,
                       index);
    }
    void beginGroup(quint64 offset, quint64 size, const char *name, qint64 index) override
    {
        box.beginGroupAt(offset, size, QString::fromLatin1(name), index);
    }
    void endGroup() override { box.endGroup(); }

private:
    PayloadReader &box;
};

// The track's facts when it has none yet: of its first sequence parameter set.
TrackFacts *firstFacts(PayloadReader &box)
{
    StreamInfo *stream = box.stream();
    return stream && stream->track && !stream->track->video ? &*stream->track : nullptr;
}

// Moves behind the last bit read, to the next whole byte.
void skipBehind(PayloadReader &box, const BitReader &bits)
{
    if (bits.position() > 0)
        box.skipTo(bits.fileBit(bits.position() - 1) / 8 + 1);
}

// The longest configuration the codec layer reads at once; what lies behind is data.
constexpr quint64 MaxConfiguration = 1 << 20;

} // namespace

void readParameterSet(PayloadReader &box, quint64 end, ParameterSet kind, int profileIdc)
{
    const quint64 from = box.at();
    const quint64 size = leftBefore(box, end);
    std::vector<uchar> bytes(size);
    if (size == 0 || !box.peek(bytes.data(), size))
        return;
    BitReader bits(bytes.data(), size, from, true);
    BoxSink sink(box);
    SyntaxReader reader(bits, &sink);
    StreamInfo *stream = box.stream();
    TrackFacts *track = stream && stream->track ? &*stream->track : nullptr;
    TrackFacts *first = firstFacts(box);
    VideoFacts facts;
    switch (kind) {
    case ParameterSet::AvcSequence:
        H264::sequenceParameterSet(reader, profileIdc, facts);
        break;
    case ParameterSet::AvcPicture:
        H264::pictureParameterSet(reader, track && track->video ? track->video->chromaFormat : 1);
        break;
    case ParameterSet::AvcSequenceExtension:
        H264::sequenceParameterSetExtension(reader);
        break;
    case ParameterSet::HevcVideo:
        Hevc::videoParameterSet(reader);
        break;
    case ParameterSet::HevcSequence:
        Hevc::sequenceParameterSet(reader, facts);
        break;
    case ParameterSet::HevcPicture:
        Hevc::pictureParameterSet(reader);
        break;
    }
    const bool sequence = kind == ParameterSet::AvcSequence || kind == ParameterSet::HevcSequence;
    if (first && sequence && facts.codedWidth != 0)
        first->video = facts;
    skipBehind(box, bits);
}

void readConfigurationObus(PayloadReader &box)
{
    const QString obu = QStringLiteral("obu");
    for (quint32 i = 0; box.ok() && box.left() > 0; ++i) {
        const quint64 from = box.at();
        const quint64 size = qMin(box.available(), MaxConfiguration);
        std::vector<uchar> bytes(size);
        if (size == 0 || !box.peek(bytes.data(), size))
            break;
        // The OBU's extent, from its header read unseen.
        BitReader probe(bytes.data(), size, from, false);
        SyntaxReader unseen(probe, nullptr);
        const Av1::ObuHeader header = Av1::obuHeader(unseen);
        if (!probe.ok())
            break;
        const quint64 headerSize = probe.position() / 8;
        const quint64 whole =
            header.hasSize ? qMin(size, headerSize + qMin(header.payloadSize, size)) : size;
        box.beginGroup(obu, i, whole);
        BitReader bits(bytes.data(), whole, from, false);
        BoxSink sink(box);
        SyntaxReader reader(bits, &sink);
        Av1::obuHeader(reader);
        if (header.type == 1) {
            TrackFacts *first = firstFacts(box);
            VideoFacts facts;
            Av1::sequenceHeader(reader, facts);
            if (first && facts.codedWidth != 0)
                first->video = facts;
        } else if (header.type == 5) {
            Av1::metadata(reader);
        }
        skipBehind(box, bits);
        box.data("data", leftBefore(box, from + whole));
        box.endGroup();
    }
    box.data("config_obus", box.left());
}

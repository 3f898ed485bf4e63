#pragma once

#include "BitReader.h"

#include <QString>

// Where the syntax elements of a bitstream go as they are read: each one at its bits in the
// file, under its name, and the structures that hold them (a VUI, an HRD, a list entry) as
// groups of the bytes their bits touch.
class SyntaxSink {
public:
    virtual ~SyntaxSink() = default;
    virtual void field(quint64 fileBit, quint64 bitCount, const char *name, quint64 value,
                       bool isSigned, const QString &comment, qint64 index) = 0;
    virtual void beginGroup(quint64 offset, quint64 size, const char *name, qint64 index) = 0;
    virtual void endGroup() = 0;
};

// Reads syntax elements through a bit reader and hands each one, when read whole, to the
// sink; without a sink it only reads, as the walk of the samples does.
class SyntaxReader {
public:
    SyntaxReader(BitReader &bits, SyntaxSink *sink)
        : bits(bits)
        , sink(sink)
    {
    }

    bool ok() const { return bits.ok(); }
    BitReader &bits;

    quint64 u(const char *name, int count, const QString &comment = QString(), qint64 index = -1);
    quint64 ue(const char *name, const QString &comment = QString(), qint64 index = -1);
    qint64 se(const char *name, qint64 index = -1);
    bool flag(const char *name, qint64 index = -1);
    // rbsp_trailing_bits of a NAL unit, trailing_bits of an OBU: the stop bit and the zero
    // bits up to the next byte.
    void trailingBits(bool obu = false);

    // A structure read by body, shown as a group: body runs once unseen to find where the
    // structure ends, then again with the sink. A structure of no bits is no group.
    template <typename Body> void group(const char *name, qint64 index, Body body)
    {
        if (!sink || !bits.ok()) {
            body();
            return;
        }
        const quint64 from = bits.position();
        SyntaxSink *shown = sink;
        sink = nullptr;
        body();
        const quint64 to = bits.position();
        const bool whole = bits.ok();
        sink = shown;
        if (to == from) {
            bits.seek(to, whole);
            return;
        }
        bits.seek(from, true);
        const quint64 first = bits.fileBit(from) / 8;
        const quint64 last = to > from ? (bits.fileBit(to - 1) / 8) + 1 : first;
        sink->beginGroup(first, last - first, name, index);
        body();
        sink->endGroup();
        bits.seek(to, whole);
    }

    // The bits from from to the current position, read by the caller, as one element.
    void report(quint64 from, const char *name, quint64 value, bool isSigned = false,
                const QString &comment = QString(), qint64 index = -1);

private:
    SyntaxSink *sink;
};

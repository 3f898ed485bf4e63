#pragma once

#include "ContainerMP4.h"
#include "Render.h"
#include "TableReading.h"

#include <QString>

class DeepAnalysis;
struct TrackContext;

// Reads the payload of one box of the deep vocabulary field after field, and reports each
// field as it reads it: at its place in the file, with its value rendered in the value base.
// A field is read only while it lies whole inside the payload and inside the input; the
// first that does not ends the reading, so that a box cut short or a count the box cannot
// hold is reported as far as it goes and costs nothing beyond its bytes. Every later read
// then reports nothing and returns 0.
//
// It is also what a parser of the deep vocabulary knows of its surroundings: the box's
// version and flags, its parent, the track it belongs to and the walker for child boxes.
class PayloadReader {
public:
    // basic: the basic parser of the box's type, or null.
    PayloadReader(ContainerMP4 &parser, quint64 offset, quint64 size,
                  ContainerMP4::BoxHandler basic = nullptr);
    PayloadReader(const PayloadReader &) = delete;
    PayloadReader &operator=(const PayloadReader &) = delete;

    // Position
    // The first byte of the box, its header included.
    quint64 boxOffset() const { return start; }
    quint64 at() const { return offset + position; }
    quint64 end() const;
    // Payload bytes from at() to the end of the payload.
    quint64 left() const { return position < size ? size - position : 0; }
    // Of those, the bytes the input holds.
    quint64 available() const { return qMin(left(), parser.input.bytesFrom(at())); }
    // Whether every read so far lay whole inside the payload and the input.
    bool ok() const { return whole; }

    // Unsigned and signed numbers of 1 to 8 bytes, rendered in the value base.
    quint64 unsignedField(const QString &name, int bytes, const QString &comment = QString());
    qint64 signedField(const QString &name, int bytes, const QString &comment = QString());
    quint8 u8(const char *name, const QString &comment = QString());
    quint16 u16(const char *name, const QString &comment = QString());
    quint32 u24(const char *name, const QString &comment = QString());
    quint32 u32(const char *name, const QString &comment = QString());
    quint64 u64(const char *name, const QString &comment = QString());
    qint16 i16(const char *name, const QString &comment = QString());
    qint32 i32(const char *name, const QString &comment = QString());
    qint64 i64(const char *name, const QString &comment = QString());
    // A number of 1 to 8 bytes whose value the caller decoded itself from a peek, such as a
    // size written in pieces of 7 bits: reported with that value.
    quint64 decodedField(const char *name, int bytes, quint64 value,
                         const QString &comment = QString());
    // A field of 8 bytes when wide (version 1 of most boxes), else of 4.
    quint64 versioned(const char *name, bool wide, const QString &comment = QString());
    // Fixed point: the integer and the fraction part as integers joined by ".", as every
    // fixed-point field of the report shows (1.5 in 16.16 is "1.32768").
    quint32 fixed16(const char *name, bool isSigned = false, const QString &comment = QString());
    quint16 fixed8(const char *name, bool isSigned = false, const QString &comment = QString());
    // An unsigned number of 1 to 8 bytes that is a size, rendered in the size base.
    quint64 sizeField(const char *name, int bytes, const QString &comment = QString());
    // An IEEE 754 floating-point number of 4 or 8 bytes, in decimal; a field of a list of
    // like fields where index is not -1.
    double floatField(const QString &name, int bytes, qint64 index = -1);

    // Texts
    // Four characters, such as a box type or a brand.
    QString fourcc(const char *name, const QString &comment = QString());
    // A text of a fixed width, up to its first zero byte.
    QString fixedText(const char *name, quint64 width, const QString &comment = QString());
    // UTF-8 up to and with its zero byte, or up to the end of the payload without one.
    QString nullTerminated(const char *name, const QString &comment = QString());
    // UTF-8 of the given width, without a terminator.
    QString utf8(const char *name, quint64 width, const QString &comment = QString());
    // A counted text in a field of a fixed width: its first byte the length of the UTF-8 text
    // behind it, the rest of the field padding. Reported as one field of the whole width.
    QString countedText(const char *name, quint64 width, const QString &comment = QString());
    // UTF-16 of the given width, up to its first zero character: big-endian, or little-endian
    // when asked, unless a byte-order mark in front says otherwise.
    QString utf16(const char *name, quint64 width, const QString &comment = QString(),
                  bool littleEndian = false);

    // Bytes
    // A raw field: its bytes in hex.
    void raw(const char *name, quint64 width, const QString &comment = QString());
    // Bytes shown by position only, up to the end of the payload at most.
    void data(const char *name, quint64 width, Payload payload = Payload::Data);
    // What is left of the payload, by position only; nothing when nothing is left.
    void rest(const char *name = "data");
    // Reads bytes ahead bytes behind the current position without reporting them; false,
    // with nothing read, when they do not lie whole inside the payload and the input.
    bool peek(void *bytes, quint64 width, quint64 ahead = 0);
    // The unsigned big-endian number of 1 to 8 bytes there; 0 when it is not there.
    quint64 peekUnsigned(int bytes, quint64 ahead = 0);
    // Moves on without reporting.
    void skip(quint64 width);

    // Bit fields: a word of 1 to 8 bytes read at once, whose fields are then reported from
    // its top bit down.
    class Bits {
    public:
        // The next count bits; reported as a bit field.
        quint64 field(const char *name, int count, const QString &comment = QString());
        // The same with a name made once, for fields read in loops over many entries.
        quint64 field(const QString &name, int count, const QString &comment = QString());
        // The same as a field of a list of like fields, at its place in the list.
        quint64 listField(const QString &name, int count, qint64 index);
        // The next count bits as a flag: its value with "yes" or "no" beside it.
        bool flag(const char *name, int count = 1);
        // The next count bits, not reported.
        quint64 skip(int count);
        // The next 15 bits as a packed ISO 639-2 code, three letters of 5 bits each counted
        // from 0x60, shown as the media header shows its language.
        QString language(const char *name);

    private:
        friend class PayloadReader;
        Bits(PayloadReader &box, quint64 at, quint64 word, int width, bool whole);
        PayloadReader &box;
        quint64 start;
        quint64 word;
        int width; // in bits
        int used = 0;
        bool whole;
    };
    Bits bits(int bytes);
    friend class Bits;

    // A field of a bitstream read apart from this reader, such as a syntax element of a
    // parameter set: at the bits of the file its code takes, rendered in the value base.
    void codedField(quint64 fileBit, quint64 bitCount, const QString &name, quint64 value,
                    bool isSigned, const QString &comment, qint64 index);
    // A group of such fields over the bytes their bits touch, from at.
    void beginGroupAt(quint64 at, quint64 size, const QString &name, qint64 index);
    // Moves on to a position in the file behind the current one.
    void skipTo(quint64 fileOffset) { skip(fileOffset > at() ? fileOffset - at() : 0); }

    // Groups of fields, such as an entry of a list: an element of the given size from the
    // current position. The size is given up front, as the text report shows it before the
    // fields.
    void beginGroup(const QString &name, qint64 index, quint64 size);
    void endGroup();
    // A problem of this box, for the checks.
    void problem(const char *code, Severity severity, const QString &message);

    // A number of a list of like fields, at its place in the list.
    quint64 listField(const QString &name, int bytes, qint64 index);

    // Child boxes from the current position to the end of the payload, through the walker.
    int walkChildren();
    // The same for the children of a box that the walker does not walk itself, such as a
    // sample entry: the children see a box of parentType as their parent.
    int walkChildrenOf(const QString &parentType);
    // Boxes walked with walkChildrenOf from here on are siblings, counted from the first.
    void beginSiblings() { parser.beginSiblings(); }
    // Walks bytes inflated from this box's payload as its child, with the bytes as the input
    // meanwhile; they stay with the parser for the tables noted in them.
    int walkInflated(const QByteArray &bytes)
    {
        return parser.walkInflated(bytes, start, end() - start);
    }
    // Whether the box lies in inflated bytes rather than in the file.
    bool insideInflated() const { return parser.inflatedSource != nullptr; }
    // The device of the inflated bytes the box lies in, for the boxes noted to be read again
    // at the end; null in the file.
    InputDevice *source() const { return parser.inflatedSource; }
    // The size of the input: of the file, outside inflated bytes.
    quint64 inputSize() const { return quint64(parser.input.size()); }
    // Runs the basic parser of the box's type over the whole payload, so that the box is
    // reported as without deep analysis; the reading ends. Nothing without one.
    int parseBasic();

    // The version and flags word of a box that is a full box only in some places, or whose
    // flags take a comment, read by its parser rather than by the walker: reported as the
    // walker reports it, and kept for version() and flags(). Returns the flags.
    quint32 versionAndFlags(const QString &flagsComment = QString());
    // A note on the box itself, for what no field of its payload can say.
    void note(const QString &text) { parser.addElementNote(text); }

    // Surroundings
    ContainerMP4 &parser;
    quint32 version() const { return parser.boxVersion; }
    quint32 flags() const { return parser.boxFlags; }
    const QString &type() const { return parser.boxPath.last(); }
    // The four bytes of the box's type as one big-endian number, for a type that is not
    // text, such as the key index of a metadata item.
    quint32 typeCode() const;
    // The type of the box around this one; empty at the top level.
    QString parentType() const;
    // The path of this box, such as "moov/trak[1]/mdia".
    QString path() const { return parser.pathText(); }
    int valueBase() const { return parser.valueBase; }
    // What deep analysis gathers of the file.
    DeepAnalysis *deep() const { return parser.deep.get(); }
    // Whether the problems of the file are looked for.
    bool checks() const { return parser.checkProblems; }
    // The record of the stream of the trak this box stands in, or null outside every trak.
    StreamInfo *stream() const;
    // The deep facts of that stream, made on first use.
    TrackFacts *facts() const;
    // Sets the codecs string of the first sample entry whose children are being walked to its
    // type followed by parameters, such as ".64001F"; nothing outside that entry.
    void setCodecs(const QString &parameters);
    // What deep analysis gathers of that track, or of the track of the traf this box stands
    // in; null outside both.
    TrackContext *track() const;
    // The stream of the track with the given track_ID: the one whose tkhd names it, else a
    // stream opened for it (a track known from its movie fragments only).
    int streamOfTrack(quint32 trackId);

private:
    // Reads width bytes into bytes and moves behind them; false, with the reading ended,
    // when they do not lie whole inside the payload and the input.
    bool take(void *bytes, quint64 width);
    quint64 takeUnsigned(int bytes, bool *read);
    void report(quint64 at, quint64 width, const QString &name, const QString &value,
                const QString &comment);
    void reportBits(quint64 wordAt, int firstBit, int count, const QString &name, quint64 value,
                    const QString &comment, qint64 index = -1);

    ContainerMP4::BoxHandler basic;
    TableReader reader;
    quint64 start; // where the box's header starts: the walker holds it during the payload
    quint64 offset;
    quint64 size;
    quint64 position = 0;
    bool whole = true;
    Render::NumberText number;
    int openGroups = 0;
};

#include "PayloadReader.h"

#include "Bounds.h"
#include "DeepAnalysis.h"
#include "boxes/HeaderFields.h"

#include <QtEndian>

#include <charconv>
#include <cstring>

PayloadReader::PayloadReader(ContainerMP4 &parser, quint64 offset, quint64 size,
                             ContainerMP4::BoxHandler basic)
    : parser(parser)
    , basic(basic)
    , reader(parser.input, offset, size)
    , start(parser.currentOffset)
    , offset(offset)
    , size(size)
{
}

quint64 PayloadReader::end() const
{
    return endOf(offset, size);
}

bool PayloadReader::take(void *bytes, quint64 width)
{
    if (!whole || !reader.read(position, bytes, width)) {
        whole = false;
        return false;
    }
    position += width;
    return true;
}

bool PayloadReader::peek(void *bytes, quint64 width, quint64 ahead)
{
    return whole && ahead <= ~quint64(0) - position && reader.read(position + ahead, bytes, width);
}

quint64 PayloadReader::peekUnsigned(int bytes, quint64 ahead)
{
    unsigned char buffer[8] = {};
    if (!peek(buffer, quint64(bytes), ahead))
        return 0;
    quint64 value = 0;
    for (int i = 0; i < bytes; ++i)
        value = value << 8 | buffer[i];
    return value;
}

void PayloadReader::skip(quint64 width)
{
    position = width > ~quint64(0) - position ? ~quint64(0) : position + width;
}

quint64 PayloadReader::takeUnsigned(int bytes, bool *read)
{
    unsigned char buffer[8] = {};
    *read = take(buffer, quint64(bytes));
    quint64 value = 0;
    for (int i = 0; i < bytes; ++i)
        value = value << 8 | buffer[i];
    return *read ? value : 0;
}

void PayloadReader::report(quint64 at, quint64 width, const QString &name, const QString &value,
                           const QString &comment)
{
    parser.reportField(at, width, name, value, comment);
}

quint64 PayloadReader::unsignedField(const QString &name, int bytes, const QString &comment)
{
    const quint64 at = this->at();
    bool read = false;
    const quint64 value = takeUnsigned(bytes, &read);
    if (read)
        report(at, quint64(bytes), name, number.render(value, valueBase()), comment);
    return value;
}

qint64 PayloadReader::signedField(const QString &name, int bytes, const QString &comment)
{
    const quint64 at = this->at();
    bool read = false;
    quint64 value = takeUnsigned(bytes, &read);
    // Sign-extends from the top bit of the field.
    const int unused = 64 - 8 * bytes;
    const qint64 signedValue = unused > 0 ? qint64(value << unused) >> unused : qint64(value);
    if (read)
        report(at, quint64(bytes), name, Render::i64(signedValue, valueBase()), comment);
    return signedValue;
}

quint64 PayloadReader::decodedField(const char *name, int bytes, quint64 value,
                                    const QString &comment)
{
    const quint64 at = this->at();
    bool read = false;
    takeUnsigned(bytes, &read);
    if (!read)
        return 0;
    report(at, quint64(bytes), QString::fromLatin1(name), number.render(value, valueBase()),
           comment);
    return value;
}

quint8 PayloadReader::u8(const char *name, const QString &comment)
{
    return quint8(unsignedField(QString::fromLatin1(name), 1, comment));
}

quint16 PayloadReader::u16(const char *name, const QString &comment)
{
    return quint16(unsignedField(QString::fromLatin1(name), 2, comment));
}

quint32 PayloadReader::u24(const char *name, const QString &comment)
{
    return quint32(unsignedField(QString::fromLatin1(name), 3, comment));
}

quint32 PayloadReader::u32(const char *name, const QString &comment)
{
    return quint32(unsignedField(QString::fromLatin1(name), 4, comment));
}

quint64 PayloadReader::u64(const char *name, const QString &comment)
{
    return unsignedField(QString::fromLatin1(name), 8, comment);
}

qint16 PayloadReader::i16(const char *name, const QString &comment)
{
    return qint16(signedField(QString::fromLatin1(name), 2, comment));
}

qint32 PayloadReader::i32(const char *name, const QString &comment)
{
    return qint32(signedField(QString::fromLatin1(name), 4, comment));
}

qint64 PayloadReader::i64(const char *name, const QString &comment)
{
    return signedField(QString::fromLatin1(name), 8, comment);
}

quint64 PayloadReader::versioned(const char *name, bool wide, const QString &comment)
{
    return unsignedField(QString::fromLatin1(name), wide ? 8 : 4, comment);
}

quint32 PayloadReader::fixed16(const char *name, bool isSigned, const QString &comment)
{
    const quint64 at = this->at();
    bool read = false;
    const quint32 value = quint32(takeUnsigned(4, &read));
    if (read) {
        const qint32 high = isSigned ? qint16(value >> 16) : qint32(value >> 16);
        report(at, 4, QString::fromLatin1(name),
               Render::fixedPoint(high, qint32(value & 0xFFFF), valueBase()), comment);
    }
    return value;
}

quint16 PayloadReader::fixed8(const char *name, bool isSigned, const QString &comment)
{
    const quint64 at = this->at();
    bool read = false;
    const quint16 value = quint16(takeUnsigned(2, &read));
    if (read) {
        const qint32 high = isSigned ? qint8(value >> 8) : qint32(value >> 8);
        report(at, 2, QString::fromLatin1(name),
               Render::fixedPoint(high, qint32(value & 0xFF), valueBase()), comment);
    }
    return value;
}

quint64 PayloadReader::sizeField(const char *name, int bytes, const QString &comment)
{
    const quint64 at = this->at();
    bool read = false;
    const quint64 value = takeUnsigned(bytes, &read);
    if (read)
        report(at, quint64(bytes), QString::fromLatin1(name), Render::u64(value, parser.sizeBase),
               comment);
    return value;
}

double PayloadReader::floatField(const QString &name, int bytes, qint64 index)
{
    const quint64 at = this->at();
    bool read = false;
    const quint64 word = takeUnsigned(bytes, &read);
    if (!read)
        return 0;
    // The shortest digits that read back as the same number, of its own width.
    char digits[32];
    std::to_chars_result written{};
    double value = 0;
    if (bytes == 4) {
        const quint32 narrow = quint32(word);
        float single = 0;
        std::memcpy(&single, &narrow, sizeof single);
        written = std::to_chars(digits, digits + sizeof digits, single);
        value = single;
    } else {
        std::memcpy(&value, &word, sizeof value);
        written = std::to_chars(digits, digits + sizeof digits, value);
    }
    parser.addField(false, at, 0, quint64(bytes), name,
                    QString::fromLatin1(digits, written.ptr - digits), QString(), QString(), index);
    return value;
}

QString PayloadReader::fourcc(const char *name, const QString &comment)
{
    return fixedText(name, 4, comment);
}

QString PayloadReader::fixedText(const char *name, quint64 width, const QString &comment)
{
    const quint64 at = this->at();
    QByteArray bytes(qsizetype(qMin(width, available())), Qt::Uninitialized);
    if (quint64(bytes.size()) != width || !take(bytes.data(), width)) {
        whole = false;
        return QString();
    }
    const QString text = Render::latin1Text(bytes.constData(), bytes.size());
    report(at, width, QString::fromLatin1(name), text, comment);
    return text;
}

QString PayloadReader::nullTerminated(const char *name, const QString &comment)
{
    const quint64 at = this->at();
    const quint64 available = whole ? this->available() : 0;
    const quint64 payloadLeft = left();
    // Read in pieces, so that a payload far larger than its text costs nothing.
    QByteArray bytes;
    char piece[256];
    bool terminated = false;
    while (!terminated && this->at() - at < available) {
        const quint64 width = qMin<quint64>(sizeof piece, available - (this->at() - at));
        take(piece, width);
        const void *zero = std::memchr(piece, 0, size_t(width));
        const quint64 used = zero ? quint64(static_cast<const char *>(zero) - piece) : width;
        bytes.append(piece, qsizetype(used));
        terminated = zero != nullptr;
        // The bytes behind the terminator are not the text's.
        position -= width - (terminated ? used + 1 : used);
    }
    // Cut off by the end of the input: the text is what is there, and the reading ends.
    if (!terminated && available < payloadLeft)
        whole = false;
    const QString text = QString::fromUtf8(bytes);
    if (this->at() > at)
        report(at, this->at() - at, QString::fromLatin1(name), text, comment);
    return text;
}

QString PayloadReader::utf8(const char *name, quint64 width, const QString &comment)
{
    const quint64 at = this->at();
    QByteArray bytes(qsizetype(qMin(width, available())), Qt::Uninitialized);
    if (quint64(bytes.size()) != width || !take(bytes.data(), width)) {
        whole = false;
        return QString();
    }
    const QString text = QString::fromUtf8(bytes);
    report(at, width, QString::fromLatin1(name), text, comment);
    return text;
}

QString PayloadReader::countedText(const char *name, quint64 width, const QString &comment)
{
    const quint64 at = this->at();
    QByteArray bytes(qsizetype(qMin(width, available())), Qt::Uninitialized);
    if (bytes.isEmpty() || quint64(bytes.size()) != width || !take(bytes.data(), width)) {
        whole = false;
        return QString();
    }
    const qsizetype length = qMin<qsizetype>(quint8(bytes.at(0)), bytes.size() - 1);
    const QString text = QString::fromUtf8(bytes.constData() + 1, length);
    report(at, width, QString::fromLatin1(name), text, comment);
    return text;
}

QString PayloadReader::utf16(const char *name, quint64 width, const QString &comment,
                             bool littleEndian)
{
    const quint64 at = this->at();
    QByteArray bytes(qsizetype(qMin(width, available())), Qt::Uninitialized);
    if (quint64(bytes.size()) != width || !take(bytes.data(), width)) {
        whole = false;
        return QString();
    }
    const auto *byte = reinterpret_cast<const unsigned char *>(bytes.constData());
    qsizetype i = 0;
    if (bytes.size() >= 2 &&
        ((byte[0] == 0xFE && byte[1] == 0xFF) || (byte[0] == 0xFF && byte[1] == 0xFE))) {
        littleEndian = byte[0] == 0xFF;
        i = 2;
    }
    QString text;
    for (; i + 1 < bytes.size(); i += 2) {
        const char16_t unit = littleEndian ? char16_t(byte[i + 1] << 8 | byte[i])
                                           : char16_t(byte[i] << 8 | byte[i + 1]);
        if (unit == 0)
            break;
        text += QChar(unit);
    }
    report(at, width, QString::fromLatin1(name), text, comment);
    return text;
}

void PayloadReader::raw(const char *name, quint64 width, const QString &comment)
{
    const quint64 at = this->at();
    QByteArray bytes(qsizetype(qMin(width, available())), Qt::Uninitialized);
    if (quint64(bytes.size()) != width || !take(bytes.data(), width)) {
        whole = false;
        return;
    }
    parser.addRawField(at, width, reinterpret_cast<const quint8 *>(bytes.constData()),
                       QString::fromLatin1(name), comment);
}

void PayloadReader::data(const char *name, quint64 width, Payload payload)
{
    if (!whole)
        return;
    width = qMin(width, left());
    if (width == 0)
        return;
    parser.reportPayload(at(), width, name, payload);
    position += width;
}

void PayloadReader::rest(const char *name)
{
    data(name, left());
}

PayloadReader::Bits PayloadReader::bits(int bytes)
{
    const quint64 start = at();
    bool read = false;
    const quint64 word = takeUnsigned(bytes, &read);
    return Bits(*this, start, word, 8 * bytes, read);
}

PayloadReader::Bits::Bits(PayloadReader &box, quint64 at, quint64 word, int width, bool whole)
    : box(box)
    , start(at)
    , word(word)
    , width(width)
    , whole(whole)
{
}

quint64 PayloadReader::Bits::skip(int count)
{
    if (count <= 0 || used + count > width)
        return 0;
    const quint64 value = (word >> (width - used - count)) & (~quint64(0) >> (64 - count));
    used += count;
    return value;
}

quint64 PayloadReader::Bits::field(const char *name, int count, const QString &comment)
{
    return field(QString::fromLatin1(name), count, comment);
}

quint64 PayloadReader::Bits::field(const QString &name, int count, const QString &comment)
{
    const int first = used;
    const quint64 value = skip(count);
    if (whole && used > first)
        box.reportBits(start, first, count, name, value, comment);
    return value;
}

quint64 PayloadReader::Bits::listField(const QString &name, int count, qint64 index)
{
    const int first = used;
    const quint64 value = skip(count);
    if (whole && used > first)
        box.reportBits(start, first, count, name, value, QString(), index);
    return value;
}

bool PayloadReader::Bits::flag(const char *name, int count)
{
    const int first = used;
    const quint64 value = skip(count);
    if (whole && used > first)
        box.reportBits(start, first, count, QString::fromLatin1(name), value,
                       value ? QStringLiteral("yes") : QStringLiteral("no"));
    return value != 0;
}

QString PayloadReader::Bits::language(const char *name)
{
    const int first = used;
    const QString letters = HeaderFields::language(quint16(skip(15)));
    if (whole && used > first)
        box.parser.addField(true, start + quint64(first / 8), quint8(first % 8), 15,
                            QString::fromLatin1(name), letters, QString(), QString(), -1);
    return letters;
}

void PayloadReader::reportBits(quint64 wordAt, int firstBit, int count, const QString &name,
                               quint64 value, const QString &comment, qint64 index)
{
    parser.addField(true, wordAt + quint64(firstBit / 8), quint8(firstBit % 8), quint64(count),
                    name, number.render(value, valueBase()), QString(), comment, index);
}

void PayloadReader::codedField(quint64 fileBit, quint64 bitCount, const QString &name,
                               quint64 value, bool isSigned, const QString &comment, qint64 index)
{
    parser.addField(true, fileBit / 8, quint8(fileBit % 8), bitCount, name,
                    isSigned ? Render::i64(qint64(value), valueBase())
                             : number.render(value, valueBase()),
                    QString(), comment, index);
}

void PayloadReader::beginGroupAt(quint64 at, quint64 size, const QString &name, qint64 index)
{
    parser.beginElement(at, size, name, index);
    ++openGroups;
}

void PayloadReader::beginGroup(const QString &name, qint64 index, quint64 size)
{
    parser.beginElement(at(), size, name, index);
    ++openGroups;
}

void PayloadReader::endGroup()
{
    if (openGroups == 0)
        return;
    --openGroups;
    parser.endElement();
}

quint64 PayloadReader::listField(const QString &name, int bytes, qint64 index)
{
    const quint64 at = this->at();
    bool read = false;
    const quint64 value = takeUnsigned(bytes, &read);
    if (read)
        parser.reportListField(at, quint64(bytes), name, number.render(value, valueBase()), index);
    return value;
}

quint32 PayloadReader::versionAndFlags(const QString &flagsComment)
{
    parser.boxVersion = u8("version");
    parser.boxFlags = u24("flags", flagsComment);
    return parser.boxFlags;
}

int PayloadReader::walkChildren()
{
    if (!whole || left() == 0)
        return ContainerAbstract::ParseOk;
    const quint64 from = at();
    position = size;
    const quint64 savedOffset = parser.currentOffset;
    const int result = parser.walkChildren(from, end());
    parser.currentOffset = savedOffset;
    return result;
}

int PayloadReader::walkChildrenOf(const QString &parentType)
{
    parser.enterBox(parentType);
    const int result = walkChildren();
    parser.leaveBox();
    return result;
}

void PayloadReader::problem(const char *code, Severity severity, const QString &message)
{
    parser.noteProblem(code, severity, start, end() - start, message, parser.pathText());
}

int PayloadReader::parseBasic()
{
    position = size;
    if (!basic)
        return ContainerAbstract::ParseOk;
    parser.input.seek(qint64(offset));
    return (parser.*basic)(offset, size);
}

int PayloadReader::streamOfTrack(quint32 trackId)
{
    for (int stream = 0; stream < parser.streams.size(); ++stream) {
        const std::optional<TrackFacts> &facts = parser.streams[stream]->track;
        const quint32 id =
            facts && facts->trackId != 0
                ? facts->trackId
                : TrackBoxes::trackId(parser.input,
                                      parser.trackContexts[size_t(stream)].trackHeader);
        if (id == trackId)
            return stream;
    }
    const int stream = parser.beginTrack();
    parser.streams[stream]->track.emplace().trackId = trackId;
    return stream;
}

quint32 PayloadReader::typeCode() const
{
    unsigned char bytes[4] = {};
    parser.input.seek(qint64(start + 4));
    parser.input.readBytes(reinterpret_cast<char *>(bytes), 4);
    return qFromBigEndian<quint32>(bytes);
}

QString PayloadReader::parentType() const
{
    const auto &path = parser.boxPath;
    return path.size() >= 2 ? path[path.size() - 2] : QString();
}

StreamInfo *PayloadReader::stream() const
{
    for (const QString &type : parser.boxPath) {
        const ContainerMP4::ElementMP4 *row = parser.elements.value(type);
        if (row && row->opensStream)
            return parser.currentStream();
    }
    return nullptr;
}

TrackFacts *PayloadReader::facts() const
{
    StreamInfo *info = stream();
    if (!info)
        return nullptr;
    if (!info->track)
        info->track.emplace();
    return &*info->track;
}

void PayloadReader::setCodecs(const QString &parameters)
{
    if (!parser.deep || parser.deep->codecsEntry.isEmpty())
        return;
    if (TrackFacts *trackFacts = facts())
        trackFacts->codecs = parser.deep->codecsEntry + parameters;
}

TrackContext *PayloadReader::track() const
{
    if (!parser.deep)
        return nullptr;
    if (stream())
        return &parser.trackContexts.back();
    // Inside a track fragment whose header named its track.
    const FragmentWalk &fragment = parser.deep->fragment;
    if (fragment.inTraf && fragment.stream >= 0)
        return &parser.trackContexts[size_t(fragment.stream)];
    return nullptr;
}

#include "Bounds.h"
#include "ContainerMP4.h"
#include "Render.h"

namespace {
// Deepest level of boxes that is parsed; the top level is level 1.
constexpr int MaxDepth = 64;
// Bytes the walk may cover, in multiples of the input size. Children that reach past
// their parents are walked again at the parent's level; this bounds that repetition.
constexpr quint64 WorkBudgetFactor = 64;
} // namespace

int ContainerMP4::parseElement(quint64 *size)
{
    const quint64 start = currentOffset;
    const quint64 inputSize = quint64(input.size());
    int result = ParseOk;
    quint64 payload = start + 8;
    QString sizeComment;

    // No element is made at or behind the end of the input, nor once the work budget is
    // spent: every walk ends there, the top level included.
    if (start >= inputSize || walkStopped) {
        *size = start < inputSize ? inputSize - start : 0;
        return ParseOk;
    }

    quint64 declaredSize = 0;
    input.readBytes(reinterpret_cast<char *>(&declaredSize), 4);
    swapBytes(&declaredSize, 4);
    input.seek(qint64(start + 4));
    char typeBytes[5] = {};
    input.readBytes(typeBytes, 4);
    // Deep analysis names a type of zero or control bytes by their escapes, never by an
    // empty name.
    const QString type = deepAnalysis ? typeText(typeBytes) : QString::fromLatin1(typeBytes);
    const bool isUuid = type.toLower() == QLatin1String("uuid");

    // A uuid box is known by its usertype, behind the size and type or behind the big size.
    const ElementMP4 *found =
        rowOf(isUuid ? userTypeRow(start + (declaredSize == 1 ? 16 : 8)) : type);
    input.seek(qint64(start + 8));
    const bool known = found != nullptr;
    ElementMP4 row;
    if (known)
        row = *found;

    quint64 totalSize = declaredSize;
    quint64 bigSize = 0;
    if (declaredSize == 0) {
        totalSize = inputSize - start;
        sizeComment = QStringLiteral("Element extends to end of file.");
    } else if (declaredSize == 1) {
        input.readBytes(reinterpret_cast<char *>(&bigSize), 8);
        swapBytes(&bigSize, 8);
        totalSize = bigSize;
        sizeComment = QStringLiteral("big_size contains true size");
        payload = start + 16;
    }

    // A size smaller than the box's own header cannot be right: the box is taken to reach
    // to the end of the input and its payload is left alone.
    const quint64 headerSize =
        (payload - start) + (isUuid ? 16 : 0) + (known && row.fullBox == 1 ? 4 : 0);
    const bool invalidSize = totalSize < headerSize;
    if (invalidSize)
        totalSize = inputSize - start;

    // A box below the deepest level walks nothing and costs a few fields, so it is left out
    // of the budget: a file whose boxes stay inside their parents then never reaches it,
    // however deep it nests.
    const bool tooDeep = depth >= MaxDepth;
    // Deep analysis shows a box that declares more than its parent holds as far as the parent
    // reaches, so that its bytes count once, inside the parent.
    const quint64 parentEnd = levelEnds.empty() ? inputSize : levelEnds.back();
    const quint64 declaredEnd = endOf(start, totalSize);
    const bool clamped = deepAnalysis && !levelEnds.empty() && declaredEnd > parentEnd;
    const quint64 shownSize = clamped ? parentEnd - start : totalSize;
    // Clamped below its own header, the box has no payload to read.
    const bool cutShort = clamped && shownSize < headerSize;
    const quint64 extent = tooDeep ? 0 : qMin(shownSize, inputSize - start);
    if (workDone + extent > WorkBudgetFactor * inputSize) {
        walkStopped = true;
        checkWorkBudget(start, inputSize - start);
        *size = inputSize - start;
        input.seek(qint64(start));
        return ParseOk;
    }
    workDone += extent;

    ++depth;
    enterBox(type);
    beginElement(start, shownSize, type, -1);
    *size = shownSize;
    checkBox({start, declaredSize, totalSize, headerSize, parentEnd, known, invalidSize, tooDeep});
    if (clamped) {
        addElementNote(QStringLiteral("Declares %1 bytes; shown as far as its parent reaches.")
                           .arg(totalSize));
        totalSize = shownSize;
    }

    reportField(start, 4, "size", Render::u64(declaredSize, sizeBase), sizeComment);
    reportField(start + 4, 4, "type", type);
    if (declaredSize == 1)
        reportField(start + 8, 8, "big_size", Render::u64(bigSize, sizeBase));
    if (isUuid) {
        QUuid uuid;
        getUUID(&uuid);
        reportField(payload, 16, "usertype", uuid.toString());
        payload += 16;
    }
    quint64 remaining = totalSize > payload - start ? totalSize - (payload - start) : 0;
    boxIsFull = false;

    if (invalidSize || cutShort) {
        addElementNote(QStringLiteral("Invalid element size."));
        setElementState(ElementState::InvalidSize);
    } else if (tooDeep) {
        reportPayload(payload, remaining, "data");
        addElementNote(QStringLiteral("Nesting too deep."));
        setElementState(ElementState::TooDeep);
    } else if (!known) {
        result = parseUnknownObject(payload, remaining);
        addElementNote(QStringLiteral("Unknown element!"));
        setElementState(ElementState::UnknownType);
    } else {
        if (row.fullBox == 1) {
            boxIsFull = true;
            input.seek(qint64(payload));
            quint32 word = 0;
            input.readBytes(reinterpret_cast<char *>(&word), 4);
            swapBytes(&word, 4);
            boxFlags = word & 0xFFFFFF;
            boxVersion = word >> 24;
            reportField(payload, 1, "version", Render::u32(boxVersion, valueBase));
            reportField(payload + 1, 3, "flags", Render::u32(boxFlags, valueBase));
            payload += 4;
            remaining -= 4;
        }
        if (row.elementType == ContainerBox) {
            // A track opens its stream before its boxes are walked and learns after them
            // whether its samples are wanted.
            const int stream = row.opensStream ? beginTrack() : -1;
            openTrakBoxes += row.opensStream ? 1 : 0;
            result = walkChildren(payload, endOf(start, totalSize));
            openTrakBoxes -= row.opensStream ? 1 : 0;
            if (row.opensStream) {
                endTrack(stream);
                checkTrack(stream, start, totalSize);
            }
        } else if (row.deepParser) {
            result = parseDeepBox(row, payload, remaining);
        } else if (row.handler) {
            input.seek(qint64(payload));
            result = (this->*row.handler)(payload, remaining);
        } else {
            reportPayload(payload, remaining, "data");
        }
        noteBox(row.noted, payload, remaining);
        checkPayload(result, start, totalSize, remaining);
        if (!row.description.isEmpty())
            addElementNote(row.description);
    }

    if (deep && boxPath.size() == 1)
        checkTopLevelBox(type, start, start + (declaredSize == 1 ? 16 : 8), declaredEnd);
    endElement();
    leaveBox();
    --depth;
    currentOffset = start;
    input.seek(qint64(start));
    return result;
}

const ContainerMP4::ElementMP4 *ContainerMP4::rowOf(const QString &type) const
{
    auto row = elements.constFind(type);
    if (row == elements.constEnd() && !boxPath.isEmpty())
        row = elements.constFind(boxPath.last() + QStringLiteral("/*"));
    return row == elements.constEnd() ? nullptr : *row;
}

QString ContainerMP4::userTypeRow(quint64 at)
{
    input.seek(qint64(at));
    QUuid uuid;
    getUUID(&uuid);
    return QStringLiteral("uuid") + uuid.toString();
}

int ContainerMP4::walkChildren(quint64 begin, quint64 end)
{
    const quint64 inputEnd = quint64(input.size());
    int result = ParseOk;
    quint64 position = begin;
    // The children count their siblings of each type from here, and reach to end.
    beginSiblings();
    levelEnds.push_back(end);
    while (position < end && position < inputEnd && !walkStopped) {
        if (deepAnalysis && endsWithTerminator(position, end))
            break;
        currentOffset = position;
        input.seek(qint64(position));
        quint64 childSize = 0;
        result = parseElement(&childSize);
        if (position + childSize <= position)
            break;
        position += childSize;
    }
    levelEnds.pop_back();
    return result;
}

bool ContainerMP4::endsWithTerminator(quint64 position, quint64 end)
{
    if (end - position != 4)
        return false;
    quint32 word = ~quint32(0);
    input.seek(qint64(position));
    if (input.readBytes(reinterpret_cast<char *>(&word), 4) != 4 || word != 0)
        return false;
    reportField(position, 4, "terminator", QStringLiteral("0"),
                QStringLiteral("ends the list of atoms"));
    return true;
}

QString ContainerMP4::typeText(const char *bytes)
{
    QString text;
    for (int i = 0; i < 4; ++i) {
        const auto byte = static_cast<unsigned char>(bytes[i]);
        if (byte < 0x20 || (byte >= 0x7F && byte < 0xA0))
            text += QStringLiteral("\\x%1").arg(uint(byte), 2, 16, QLatin1Char('0'));
        else
            text += QChar(byte);
    }
    return text;
}

int ContainerMP4::siblingIndex(const QString &type)
{
    siblingCounts.resize(std::max(siblingCounts.size(), size_t(boxPath.size()) + 1));
    auto &counts = siblingCounts[size_t(boxPath.size())];
    for (auto &[seen, count] : counts) {
        if (seen == type)
            return count++;
    }
    counts.push_back({type, 1});
    return 0;
}

void ContainerMP4::beginSiblings()
{
    siblingCounts.resize(size_t(boxPath.size()) + 1);
    siblingCounts[size_t(boxPath.size())].clear();
}

void ContainerMP4::enterBox(const QString &type)
{
    boxIndexes.append(siblingIndex(type));
    boxPath.append(type);
}

void ContainerMP4::leaveBox()
{
    boxPath.removeLast();
    boxIndexes.removeLast();
}

QString ContainerMP4::pathText() const
{
    QString path;
    for (qsizetype i = 0; i < boxPath.size(); ++i) {
        if (i > 0)
            path += QLatin1Char('/');
        path += boxPath[i];
        if (boxIndexes[i] > 0)
            path += QStringLiteral("[%1]").arg(boxIndexes[i]);
    }
    return path;
}

int ContainerMP4::getSize(quint64 *value, quint8 width)
{
    quint64 number = 0;
    input.readBytes(reinterpret_cast<char *>(&number), qMin<quint8>(width, 8));
    swapBytes(&number, qMin<quint8>(width, 8));
    *value = number;
    return ParseOk;
}

int ContainerMP4::getID(QString *id)
{
    char bytes[5] = {};
    input.readBytes(bytes, 4);
    *id = QString::fromLatin1(bytes);
    return ParseOk;
}

int ContainerMP4::getUUID(QUuid *uuid)
{
    unsigned char bytes[16] = {};
    input.readBytes(reinterpret_cast<char *>(bytes), 16);
    QString text = QStringLiteral("%1%2%3%4-%5%6-%7%8-%9%10-%11%12%13%14%15%16");
    for (unsigned char byte : bytes)
        text = text.arg(qlonglong(byte), 2, 16, QLatin1Char('0'));
    *uuid = QUuid::fromString(text);
    return ParseOk;
}

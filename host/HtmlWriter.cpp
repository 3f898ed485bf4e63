#include "HtmlWriter.h"

#include "HtmlPage.h"

#include <QFile>

#include <cstring>

namespace {
// Bytes read from the file at a time; a multiple of 3, so base64 pieces join seamlessly.
constexpr qint64 ReadBlock = 48 * 1024;
} // namespace

HtmlWriter::HtmlWriter(FILE *out, quint64 byteLimit)
    : JsonWriter(out, OutputBuffer::Escaping::Script)
    , selection(byteLimit)
{
}

void HtmlWriter::writeHead()
{
    if (headWritten)
        return;
    out.append(HtmlPageHead, std::strlen(HtmlPageHead));
    headWritten = true;
}

void HtmlWriter::beginScript()
{
    writeHead();
    out.appendLiteral("<script type=\"application/json\" class=\"report\">");
}

void HtmlWriter::reportError(const QString &fileName, const QString &problem)
{
    beginScript();
    JsonWriter::reportError(fileName, problem);
    out.appendLiteral("</script>\n");
}

void HtmlWriter::finish()
{
    writeHead();
    out.append(HtmlPageTail, std::strlen(HtmlPageTail));
    flush();
}

void HtmlWriter::beginReport(const QString &name, quint64 fileSize)
{
    beginScript();
    JsonWriter::beginReport(name, fileSize);
    fileName = name;
    selection.beginReport(fileSize);
    inReport = true;
    inElements = true;
}

void HtmlWriter::endReport()
{
    if (!inReport)
        return;
    JsonWriter::endReport();
    out.appendLiteral("</script>\n");
    inReport = false;
    inElements = false;
}

void HtmlWriter::beginElement(quint64 offset, quint64 size, const QString &name, qint64 index)
{
    JsonWriter::beginElement(offset, size, name, index);
    if (inElements)
        selection.beginElement(offset, size, name);
}

void HtmlWriter::setElementOffset(quint64 offset)
{
    JsonWriter::setElementOffset(offset);
    selection.setElementOffset(offset);
}

void HtmlWriter::setElementSize(quint64 size)
{
    JsonWriter::setElementSize(size);
    selection.setElementSize(size);
}

void HtmlWriter::setElementNote(const QString &text)
{
    JsonWriter::setElementNote(text);
    selection.setElementNote(text);
}

void HtmlWriter::endElement()
{
    JsonWriter::endElement();
    selection.endElement();
}

void HtmlWriter::addField(bool bitField, quint64 offset, quint8 bitOffset, quint64 size,
                          const QString &name, const QString &value, const QString &extra,
                          const QString &comment, qint64 index)
{
    JsonWriter::addField(bitField, offset, bitOffset, size, name, value, extra, comment, index);
    if (inElements && !bitField && value.isEmpty())
        selection.addPositionField(offset, size);
}

void HtmlWriter::beginStream(int index, const StreamInfo &info)
{
    // Closes the elements still open, which the selection then sees closed too.
    JsonWriter::beginStream(index, info);
    inElements = false;
}

void HtmlWriter::writeReportExtras()
{
    // The elements the parser left open are closed by now.
    inElements = false;
    out.appendLiteral(",\"embeddedBytes\":{\"limit\":");
    out.appendUnsigned(selection.limit());
    out.appendLiteral(",\"limitReachedAt\":");
    if (selection.limitReached())
        out.appendUnsigned(selection.limitOffset());
    else
        out.appendLiteral("null");
    writeRanges();
    out.put('}');
}

void HtmlWriter::writeRanges()
{
    QFile file(fileName);
    const bool readable = selection.ranges().empty() || file.open(QIODevice::ReadOnly);
    out.appendLiteral(",\"readError\":");
    string(readable ? QString() : file.errorString());
    out.appendLiteral(",\"ranges\":[");
    if (!readable) {
        out.put(']');
        return;
    }
    QByteArray block(ReadBlock, Qt::Uninitialized);
    bool first = true;
    for (const ByteSelection::Range &range : selection.ranges()) {
        if (!first)
            out.put(',');
        first = false;
        out.appendLiteral("{\"offset\":");
        out.appendUnsigned(range.offset);
        out.appendLiteral(",\"data\":\"");
        // A file that changed since it was parsed gives fewer bytes: the range ends there.
        quint64 left = file.seek(qint64(range.offset)) ? range.size : 0;
        while (left > 0) {
            const qint64 wanted = qint64(qMin<quint64>(left, ReadBlock));
            const qint64 got = file.read(block.data(), wanted);
            if (got <= 0)
                break;
            out.appendBase64(reinterpret_cast<const quint8 *>(block.constData()), quint64(got));
            left -= quint64(got);
            if (got < wanted)
                break;
        }
        out.appendLiteral("\"}");
    }
    out.put(']');
}

#include "HtmlWriter.h"

#include "HtmlPage.h"

#include <QFile>

namespace {
// Bytes read from the file at a time; a multiple of 3, so base64 pieces join seamlessly.
constexpr qint64 ReadBlock = 48 * 1024;
constexpr auto Escaping = OutputBuffer::Escaping::Script;
} // namespace

HtmlWriter::HtmlWriter(FILE *file, quint64 byteLimit)
    // The selection hears of each call first, so that its choice is complete when the JSON
    // writer ends the document with the bytes.
    : TeeWriter({&selection, &json})
    , out(file)
    , selection(byteLimit)
    , json(out, Escaping, JsonWriter::Keys::Annotated)
{
    json.setTrailer([this] { writeEmbeddedBytes(); });
}

void HtmlWriter::setContainerName(const QString &name)
{
    json.setContainerName(name);
}

void HtmlWriter::writeHead()
{
    if (headWritten)
        return;
    out.appendCString(HtmlPageHead);
    headWritten = true;
}

void HtmlWriter::beginScript()
{
    writeHead();
    out.appendLiteral("<script type=\"application/json\" class=\"report\">");
}

void HtmlWriter::reportError(const QString &name, const QString &problem)
{
    beginScript();
    json.reportError(name, problem);
    out.appendLiteral("</script>\n");
}

void HtmlWriter::flush()
{
    out.flush();
}

void HtmlWriter::finish()
{
    writeHead();
    out.appendCString(HtmlPageTail);
    flush();
}

int HtmlWriter::writeError() const
{
    return out.writeError();
}

void HtmlWriter::beginReport(const QString &name, quint64 fileSize)
{
    beginScript();
    fileName = name;
    TeeWriter::beginReport(name, fileSize);
}

void HtmlWriter::endReport()
{
    TeeWriter::endReport();
    out.appendLiteral("</script>\n");
}

void HtmlWriter::writeEmbeddedBytes()
{
    out.appendLiteral(",\"embeddedBytes\":{\"limit\":");
    out.appendUnsigned(selection.limit());
    out.appendLiteral(",\"limitReachedAt\":");
    if (selection.limitReached())
        out.appendUnsigned(selection.limitOffset());
    else
        out.appendLiteral("null");

    QFile file(fileName);
    const bool readable = selection.ranges().empty() || file.open(QIODevice::ReadOnly);
    out.appendLiteral(",\"readError\":");
    out.appendString(readable ? QString() : file.errorString(), Escaping);
    out.appendLiteral(",\"ranges\":[");
    if (readable)
        writeRanges(file);
    out.appendLiteral("]}");
}

void HtmlWriter::writeRanges(QFile &file)
{
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
}

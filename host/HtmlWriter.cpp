#include "HtmlWriter.h"

#include "HtmlPage.h"
#include "SourceBytes.h"

#include <utility>

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
    bytes = nextBytes ? std::exchange(nextBytes, nullptr) : std::make_shared<SourceBytes>(name);
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

    QString readError;
    const bool readable = selection.ranges().empty() || bytes->size(&readError) >= 0;
    out.appendLiteral(",\"readError\":");
    out.appendString(readError, Escaping);
    out.appendLiteral(",\"ranges\":[");
    if (readable)
        writeRanges();
    out.appendLiteral("]}");
}

void HtmlWriter::writeRanges()
{
    QByteArray block;
    QString error;
    bool first = true;
    for (const ByteSelection::Range &range : selection.ranges()) {
        if (!first)
            out.put(',');
        first = false;
        out.appendLiteral("{\"offset\":");
        out.appendUnsigned(range.offset);
        out.appendLiteral(",\"data\":\"");
        // A file that changed since it was parsed gives fewer bytes: the range ends there.
        for (quint64 done = 0; done < range.size;) {
            const quint64 wanted = qMin<quint64>(range.size - done, ReadBlock);
            if (!bytes->read(range.offset + done, wanted, &block, &error) || block.isEmpty())
                break;
            out.appendBase64(reinterpret_cast<const quint8 *>(block.constData()),
                             quint64(block.size()));
            done += quint64(block.size());
            if (quint64(block.size()) < wanted)
                break;
        }
        out.appendLiteral("\"}");
    }
}

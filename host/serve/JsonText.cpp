#include "JsonText.h"

namespace json {

char *escape(char *at, QStringView text)
{
    qsizetype position = 0;
    return OutputBuffer::encodeText(at, text, &position, text.size(), OutputBuffer::Escaping::Json);
}

void appendEscaped(QByteArray &out, QStringView text)
{
    const qsizetype size = out.size();
    out.resize(size + text.size() * qsizetype(MaxEscapedUnitBytes));
    out.truncate(escape(out.data() + size, text) - out.constData());
}

QByteArray errorBody(const QString &message)
{
    QByteArray body("{\"error\":");
    appendString(body, message);
    body += '}';
    return body;
}

} // namespace json

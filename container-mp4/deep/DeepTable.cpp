#include "DeepAnalysis.h"
#include "DeepRows.h"
#include "PayloadReader.h"
#include "items/ItemRows.h"

void ContainerMP4::addDeepRows()
{
    for (const DeepRows &family : {
             handlerRows(),
             sampleTableRows(),
             fragmentRows(),
             codecConfigurationRows(),
             sampleEntryRows(),
             entryBoxRows(),
             protectionRows(),
             segmentRows(),
             trackBoxRows(),
             userDataRows(),
             quickTimeMovieRows(),
             quickTimeRows(),
             sphericalVideoRows(),
             userTypeRows(),
             itemRows(),
             itemPropertyRows(),
         }) {
        for (const DeepRow &row : family) {
            const QString type = QString::fromUtf8(row.type);
            // The basic parser of the type stays with the row, for the deep one to call.
            ElementMP4 *basic = elements.take(type);
            auto *element = new ElementMP4(row.elementType, row.fullBox,
                                           basic ? basic->handler : nullptr, QString(), QString());
            element->deepParser = row.parser;
            element->noted = basic ? basic->noted : NotedBox::None;
            delete basic;
            elements.insert(type, element);
        }
    }
}

int ContainerMP4::parseDeepBox(const ElementMP4 &row, quint64 offset, quint64 size)
{
    PayloadReader box(*this, offset, size, row.handler);
    return row.deepParser(box);
}

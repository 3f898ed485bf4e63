#include "ReportSink.h"

ReportSink::~ReportSink() = default;

void ReportSink::setElementState(ElementState) {}

void ReportSink::addPayloadField(quint64 offset, quint64 size, const QString &name, Payload)
{
    addField(false, offset, 0, size, name, QString(), QString(), QString(), -1);
}

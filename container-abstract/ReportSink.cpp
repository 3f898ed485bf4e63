#include "ReportSink.h"

ReportSink::~ReportSink() = default;

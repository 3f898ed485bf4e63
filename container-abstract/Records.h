#pragma once

#include <QtGlobal>

// The sample slot: the sample a parser is about to hand over.
struct Sample {
    quint64 offset = 0;
    quint64 size = 0;
    quint32 dts = 0;
    quint32 pts = 0;
    quint32 duration = 0;
    quint32 keyFrame = 0;
};

// Facts of one stream, filled in by the parser while it walks the stream's boxes.
struct StreamInfo {
    int width = 0;
    int height = 0;
    int reserved = 0; // kept for the record layout; no parser uses it
    int codecId = 0;
    quint64 configOffset = 0;
    quint64 configSize = 0;
};

#pragma once

#include <QString>
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
    QString codecName; // the codec for people, such as "H.264"; empty when not known
};

// What the bytes of a field shown only by its position hold. Writers that keep a file's
// bytes leave out media data and filler, and keep only the head of other data.
enum class Payload {
    Data,      // bytes the parser does not interpret, such as a box without a payload parser
    MediaData, // the media itself
    Filler,    // bytes that mean nothing (free, skip)
};

// Why the parser did not read an element's content. Writers that keep a file's bytes keep
// only the head of such an element.
enum class ElementState {
    UnknownType, // a type the parser does not know
    InvalidSize, // a size smaller than the element's own header
    TooDeep,     // nested below the deepest level the parser walks
};

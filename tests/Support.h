#pragma once

#include "ContainerMP4.h"
#include "ReportTree.h"

#include <QByteArray>
#include <QString>

#include <initializer_list>

// Byte builder for crafted inputs: big-endian words and boxes whose sizes patch themselves.
// The time bounds of the tests are those of the plain build; the sanitizers slow the code down
// several times.
#if defined(__SANITIZE_ADDRESS__)
constexpr double TimeScale = 5;
#else
constexpr double TimeScale = 1;
#endif

namespace bytes {
QByteArray u8(quint8 value);
QByteArray u16(quint16 value);
QByteArray u24(quint32 value);
QByteArray u32(quint32 value);
QByteArray u64(quint64 value);
QByteArray text(const char *ascii); // the characters without a terminator
QByteArray zeros(int count);
QByteArray cat(std::initializer_list<QByteArray> parts);
// A box of the given type around the payload, with its 32-bit size filled in.
QByteArray box(const char *type, const QByteArray &payload = QByteArray());
// The same with a version and flags word in front of the payload.
QByteArray fullBox(const char *type, quint8 version, quint32 flags,
                   const QByteArray &payload = QByteArray());
// A box with declared size 1 and the true size in big_size.
QByteArray bigBox(const char *type, const QByteArray &payload = QByteArray());
} // namespace bytes

// The parser with its format check opened up for tests.
class TestParser : public ContainerMP4 {
public:
    using ContainerMP4::verifyContainerFormat;
};

// Parses bytes as the file "test.mp4" and returns the whole report.
ReportTree parseReport(const QByteArray &input, const ContainerAbstract::Settings &settings = {});

// One line per node, indented by depth, for comparing whole reports:
//   element:  name[index] @offset+size ! note = value
//   field:    name[index] @offset+size = value // comment   (bit fields: @offset.bit+bitsb)
//   raw:      name @offset+size = hex // comment
// [index] only when it is not -1; each part after the size only when it is not empty.
QString dump(const ReportTree::Node &node, int depth = 0);
// The dump of every top-level element of a report.
QString dump(const ReportTree &report);

// The dump of a deep analysis of bytes, the file "test.mp4": the boxes, then each stream
// with its facts and one line for each sample:
//   stream index: codec id (name) widthxheight config @offset+size | track id handler entry
//     timescale duration language [channels rate]
//   index offset size dts pts duration key presentation chunk stsc stts ctts
// where a sample of a movie fragment has "moof index@offset traf t trun r entry e" for the last
// four.
QString deepDump(const QByteArray &input);

// Compares actual with tests/golden/<name>.txt. With UPDATE_GOLDEN=1 in the environment the
// file is written instead, so a changed report is reviewed as a diff of the golden file.
void expectGolden(const QString &name, const QString &actual);

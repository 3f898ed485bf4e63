#include "ContainerAbstract.h"

#include "checks/ProblemChecker.h"

#include <algorithm>
#include <optional>

ContainerAbstract::CommonElement::CommonElement()
    : elementType(0)
{
}

ContainerAbstract::CommonElement::CommonElement(int elementType, const QString &name)
    : elementType(elementType)
    , name(name)
{
}

ContainerAbstract::CommonElement::CommonElement(const CommonElement &other) = default;

ContainerAbstract::ContainerAbstract() = default;

ContainerAbstract::~ContainerAbstract()
{
    qDeleteAll(streams);
}

void ContainerAbstract::configure(const Settings &settings)
{
    maxUnknownDataSize = settings.maxUnknownDataSize;
    showUnknownData = settings.showUnknownData;
    sizeBase = settings.sizeBase;
    valueBase = settings.valueBase;
    deepAnalysis = settings.deepAnalysis;
    checkProblems = settings.checkProblems;
    sampleUnits = settings.sampleUnits;
}

ContainerAbstract::RunResult ContainerAbstract::parse(const QString &fileName, ReportSink &sink,
                                                      QString *error, const QString &shownName)
{
    if (verifyContainerFormat(fileName) != ParseOk)
        return RunNotThisFormat;
    if (byteSource)
        input.openSource(byteSource);
    else if (!input.openFile(fileName, error))
        return RunOpenFailed;
    return run(shownName.isEmpty() ? fileName : shownName, sink);
}

ContainerAbstract::RunResult
ContainerAbstract::parseBytes(const QString &fileName, const QByteArray &bytes, ReportSink &sink)
{
    if (verifyContainerFormat(fileName) != ParseOk)
        return RunNotThisFormat;
    input.openMemory(bytes);
    return run(fileName, sink);
}

ContainerAbstract::RunResult ContainerAbstract::run(const QString &fileName, ReportSink &target)
{
    // With checks, the report passes the checker on its way to the sink.
    std::optional<ProblemChecker> checker;
    if (checkProblems)
        checker.emplace(target);
    ReportSink &sink = checker ? static_cast<ReportSink &>(*checker) : target;
    this->sink = &sink;
    treeWanted = checker || target.takesElementTree();
    const quint64 end = quint64(input.size());
    sink.beginReport(fileName, end);

    qint64 begin = 0;
    findBeginOfContainer(&begin);
    prepareParsing();
    walkElements(begin);

    finalizeParsing();
    advanceStreamsTo(int(streams.size()));
    sink.endReport();
    this->sink = nullptr;
    if (checker)
        problemsFound = checker->counts();
    return RunOk;
}

void ContainerAbstract::walkElements(qint64 begin)
{
    // A non-zero result of one element does not stop the walk: everything behind it is
    // still reported. An element size of 0, or one that carries the position past 2^64,
    // cannot advance the walk, so it ends there.
    const quint64 end = quint64(input.size());
    quint64 position = quint64(qMax<qint64>(begin, 0));
    while (position < end) {
        currentOffset = position;
        input.seek(qint64(position));
        quint64 size = 0;
        parseElement(&size);
        if (size == 0 || position + size < position)
            break;
        position += size;
    }
}

ContainerAbstract::RunResult ContainerAbstract::parseJoined(const QStringList &fileNames,
                                                            ReportSink &target, QString *error)
{
    if (fileNames.isEmpty() || !canJoinFiles() ||
        verifyContainerFormat(fileNames.first()) != ParseOk)
        return RunNotThisFormat;
    QVector<quint64> sizes;
    joinedSize = 0;
    for (const QString &fileName : fileNames) {
        QString problem;
        if (!input.openFile(fileName, &problem)) {
            if (error)
                *error = fileName + QStringLiteral(": ") + problem;
            return RunOpenFailed;
        }
        sizes << quint64(input.size());
        joinedSize += sizes.back();
    }
    joinedFiles = fileNames;
    problemsFound = ProblemCounts();
    currentFile = -1; // the input is on the last file; the walk begins with the first
    // The checks of one file's bytes (coverage, elements past its end) do not span files:
    // problems go to the sink as the parser finds them.
    sink = &target;
    treeWanted = target.takesElementTree();
    sink->beginReport(fileNames.first(), joinedSize);
    prepareParsing();
    for (int file = 0; file < fileNames.size(); ++file) {
        sink->addJoinedFile(fileNames[file], sizes[file]);
        sink->beginElement(0, sizes[file], fileNames[file], -1);
        if (switchToFile(file)) {
            if (file > 0)
                continueWithFile(file);
            qint64 begin = 0;
            findBeginOfContainer(&begin);
            walkElements(begin);
        } else {
            sink->setElementNote(QStringLiteral("The file cannot be opened again."));
        }
        sink->endElement();
    }
    // What the presentation tells of itself comes from its first file.
    switchToFile(0);
    finalizeParsing();
    advanceStreamsTo(int(streams.size()));
    sink->endReport();
    sink = nullptr;
    return RunOk;
}

bool ContainerAbstract::switchToFile(int file)
{
    if (file == currentFile)
        return true;
    if (file < 0 || file >= joinedFiles.size())
        return false;
    currentFile = input.openFile(joinedFiles[file], nullptr) ? file : -1;
    return currentFile == file;
}

void ContainerAbstract::beginElement(quint64 offset, quint64 size, const QString &name,
                                     qint64 index)
{
    sink->beginElement(offset, size, name, index);
}

void ContainerAbstract::beginListEntry(const QString &name, qint64 index)
{
    sink->beginElement(0, 0, name, index);
}

void ContainerAbstract::setElementOffset(quint64 offset)
{
    sink->setElementOffset(offset);
}

void ContainerAbstract::setElementSize(quint64 size)
{
    sink->setElementSize(size);
}

void ContainerAbstract::endElement()
{
    sink->endElement();
}

void ContainerAbstract::addField(bool bitField, quint64 offset, quint8 bitOffset, quint64 size,
                                 const QString &name, const QString &value, const QString &extra,
                                 const QString &comment, qint64 index)
{
    sink->addField(bitField, offset, bitOffset, size, name, value, extra, comment, index);
}

void ContainerAbstract::addRawField(quint64 offset, quint64 size, const quint8 *data,
                                    const QString &name, const QString &comment)
{
    sink->addRawField(offset, size, data, name, comment);
}

void ContainerAbstract::addPayloadField(quint64 offset, quint64 size, const QString &name,
                                        Payload payload)
{
    sink->addPayloadField(offset, size, name, payload);
}

void ContainerAbstract::addElementNote(const QString &text)
{
    sink->setElementNote(text);
}

void ContainerAbstract::setElementState(ElementState state)
{
    sink->setElementState(state);
}

void ContainerAbstract::setElementValue(const QString &text)
{
    sink->setElementValue(text);
}

void ContainerAbstract::swapBytes(void *data, quint8 size)
{
#if Q_BYTE_ORDER == Q_LITTLE_ENDIAN
    auto *bytes = static_cast<unsigned char *>(data);
    std::reverse(bytes, bytes + size);
#else
    Q_UNUSED(data);
    Q_UNUSED(size);
#endif
}

void ContainerAbstract::reportFileFacts(const FileFacts &facts)
{
    sink->setFileFacts(facts);
}

void ContainerAbstract::reportProblem(const Problem &problem)
{
    if (!checkProblems)
        return;
    sink->addProblem(problem);
    // Joined files have no checker in front of the sink to count them.
    if (!joinedFiles.isEmpty())
        ++(problem.severity == Severity::Error     ? problemsFound.errors
           : problem.severity == Severity::Warning ? problemsFound.warnings
                                                   : problemsFound.infos);
}

int ContainerAbstract::reportSample(uint stream, quint64 sampleIndex)
{
    if (ReportSink *output = sampleOutputFor(stream))
        output->addSample(sampleIndex, currentSample);
    return 0;
}

void ContainerAbstract::reportTrackSample(int stream, quint64 sampleIndex,
                                          const TrackSample &sample)
{
    if (ReportSink *output = sampleOutputFor(uint(stream)))
        output->addTrackSample(sampleIndex, sample);
}

void ContainerAbstract::reportItem(const Item &item)
{
    advanceStreamsTo(int(streams.size()));
    sink->addItem(item);
}

ReportSink *ContainerAbstract::sampleOutputFor(uint stream)
{
    if (stream >= uint(sampleOutputs.size()) || !sampleOutputs[int(stream)])
        return nullptr;
    // The sink receives streams in order; a sample of a stream already passed is dropped.
    if (int(stream) < openStreamIndex)
        return nullptr;
    advanceStreamsTo(int(stream));
    return sampleOutputs[int(stream)];
}

void ContainerAbstract::advanceStreamsTo(int stream)
{
    while (nextStreamIndex <= stream && nextStreamIndex < streams.size()) {
        if (openStreamIndex >= 0)
            sink->endStream();
        openStreamIndex = nextStreamIndex++;
        sink->beginStream(openStreamIndex, *streams[openStreamIndex]);
    }
    if (stream >= streams.size() && openStreamIndex >= 0) {
        sink->endStream();
        openStreamIndex = -1;
    }
}

int ContainerAbstract::openStream()
{
    streams.append(new StreamInfo());
    sampleCounts.append(0);
    sampleOutputs.append(nullptr);
    return int(streams.size()) - 1;
}

void ContainerAbstract::enableSampleOutput(int stream)
{
    if (stream >= 0 && stream < sampleOutputs.size())
        sampleOutputs[stream] = sink;
}

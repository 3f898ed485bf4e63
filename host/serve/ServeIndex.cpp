#include "ServeIndex.h"

#include <utility>

void ServeIndex::reportError(const QString &fileName, const QString &problem)
{
    fileList.push_back({fileName, problem, nullptr});
}

void ServeIndex::beginReport(const QString &fileName, quint64 fileSize)
{
    auto index = std::make_unique<FileIndex>(fileName, containerName);
    current = index.get();
    if (nextBytes)
        current->setSource(std::exchange(nextBytes, nullptr));
    setSinks({current});
    fileList.push_back({fileName, QString(), std::move(index)});
    TeeWriter::beginReport(fileName, fileSize);
}

void ServeIndex::endReport()
{
    if (!current)
        return;
    TeeWriter::endReport();
    setSinks({});
    const QString problem = current->problem();
    current = nullptr;
    if (!problem.isEmpty()) {
        File &file = fileList.back();
        file.error =
            QStringLiteral("the index of the report could not be written: %1").arg(problem);
        file.index.reset();
    }
}

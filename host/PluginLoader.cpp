#include "PluginLoader.h"

#include <QCoreApplication>
#include <QDir>
#include <QFileInfo>
#include <QLibrary>

namespace {
using CreateParser = ContainerAbstract *(*)();
using ContainerName = QString (*)();
using SupportedExtensions = QStringList (*)();
} // namespace

PluginLoader::PluginLoader() = default;
PluginLoader::~PluginLoader() = default;

QString PluginLoader::defaultDirectory()
{
    // Without an application object (library users, tests) the kernel names the executable.
    const QString executableDir =
        QCoreApplication::instance()
            ? QCoreApplication::applicationDirPath()
            : QFileInfo(QFileInfo(QStringLiteral("/proc/self/exe")).canonicalFilePath()).path();
    return QDir::cleanPath(executableDir + QStringLiteral("/../lib"));
}

void PluginLoader::load(const QString &directory)
{
    const QDir dir(directory);
    const QStringList names = dir.entryList({QStringLiteral("libsarvelinth-container-*.so")},
                                            QDir::Files | QDir::Readable, QDir::Name);
    for (const QString &name : names) {
        auto library = std::make_unique<QLibrary>(dir.filePath(name));
        if (!library->load()) {
            loadProblems << library->fileName() + QStringLiteral(": ") + library->errorString();
            continue;
        }
        Plugin plugin;
        plugin.path = library->fileName();
        plugin.createParser = reinterpret_cast<CreateParser>(library->resolve("createParser"));
        const auto containerName =
            reinterpret_cast<ContainerName>(library->resolve("containerName"));
        const auto supportedExtensions =
            reinterpret_cast<SupportedExtensions>(library->resolve("supportedExtensions"));
        if (!plugin.createParser || !containerName || !supportedExtensions) {
            library->unload();
            continue;
        }
        plugin.name = containerName();
        plugin.extensions = supportedExtensions();
        if (const auto deepExtensions =
                reinterpret_cast<SupportedExtensions>(library->resolve("deepExtensions")))
            plugin.deepExtensions = deepExtensions();
        loaded.push_back(plugin);
        libraries.push_back(std::move(library));
    }
}

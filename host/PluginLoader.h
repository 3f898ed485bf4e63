#pragma once

#include <QString>
#include <QStringList>

#include <memory>
#include <vector>

class ContainerAbstract;
class QLibrary;

// Finds the container plugins in a directory and resolves their entry points by name.
// A plugin is a shared library named libsarvelinth-container-<name>.so that exports
// createParser, containerName and supportedExtensions under their plain names.
class PluginLoader {
public:
    struct Plugin {
        QString path;
        QString name;           // the plugin's containerName()
        QStringList extensions; // the plugin's supportedExtensions()
        // The plugin's deepExtensions(), an optional entry point: the suffixes it takes only
        // with deep analysis.
        QStringList deepExtensions;
        ContainerAbstract *(*createParser)() = nullptr;
    };

    PluginLoader();
    ~PluginLoader();
    PluginLoader(const PluginLoader &) = delete;
    PluginLoader &operator=(const PluginLoader &) = delete;

    // Where the build puts the plugins: lib/ beside the bin/ of the running executable.
    static QString defaultDirectory();

    // Loads every plugin library of the directory, in order of file name. A library that
    // cannot be loaded is listed in problems(); one that lacks the entry points is no
    // plugin (the base library shares the name prefix) and is passed over.
    void load(const QString &directory);

    const std::vector<Plugin> &plugins() const { return loaded; }
    const QStringList &problems() const { return loadProblems; }

private:
    // The libraries stay loaded while parsers made by them may exist: they are never
    // unloaded.
    std::vector<std::unique_ptr<QLibrary>> libraries;
    std::vector<Plugin> loaded;
    QStringList loadProblems;
};

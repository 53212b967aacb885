#include "stimhost/Temporary.h"

#include "platform/ThreadSafety.h"

#include <QTemporaryDir>

#include <memory>

namespace Stimhost {

namespace {

struct SFolder
{
    CQsMutex lock;
    std::unique_ptr<QTemporaryDir> folder QS_GUARDED_BY(lock); // null until it is needed
};

SFolder& Folder()
{
    static SFolder& folder = *new SFolder; // an interrupt may still ask while the process ends
    return folder;
}

} // namespace

std::string TemporaryPath(const std::string& name, std::string& error)
{
    SFolder& folder = Folder();
    const CQsScopedLock<CQsMutex> hold(folder.lock);
    if (folder.folder == nullptr)
        folder.folder = std::make_unique<QTemporaryDir>();
    if (folder.folder->isValid())
        return folder.folder->filePath(QString::fromStdString(name)).toStdString();
    error = "no temporary folder: " + folder.folder->errorString().toStdString();
    return {};
}

void RemoveTemporaryFolder()
{
    SFolder& folder = Folder();
    const CQsScopedLock<CQsMutex> hold(folder.lock);
    folder.folder.reset();
}

} // namespace Stimhost

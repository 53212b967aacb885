#include "stimhost/Temporary.h"

#include "platform/RegistryControl.h"
#include "platform/ThreadSafety.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QLockFile>
#include <QTemporaryDir>

#include <memory>

namespace Stimhost {

namespace {

const char* const s_names = "stimhost-";
const char* const s_inUse = "in-use";

struct SFolder
{
    CQsMutex lock;
    std::unique_ptr<QTemporaryDir> folder QS_GUARDED_BY(lock); // null until it is needed
    std::unique_ptr<QLockFile> inUse QS_GUARDED_BY(lock);      // a file in it, for as long as this run lives
};

SFolder& Folder()
{
    static SFolder& folder = *new SFolder; // an interrupt may still ask while the process ends
    return folder;
}

std::unique_ptr<QLockFile> LockOf(const QString& folder)
{
    auto lock = std::make_unique<QLockFile>(QDir(folder).filePath(QString::fromLatin1(s_inUse)));
    lock->setStaleLockTime(0); // however long a run lasts
    return lock;
}

// A run that was killed leaves its folder, and one that was told twice to end cannot remove files that its threads have
// open where the system keeps open files.
void RemoveLeftBehind(const QDir& all)
{
    const QStringList filter(QString::fromLatin1(s_names) + QLatin1Char('*'));
    for (const QFileInfo& left : all.entryInfoList(filter, QDir::Dirs | QDir::NoSymLinks | QDir::NoDotAndDotDot))
    {
        const std::unique_ptr<QLockFile> lock = LockOf(left.filePath());
        // Without a lock file it has just been made.
        if (!QDir(left.filePath()).exists(QString::fromLatin1(s_inUse)) || !lock->tryLock(0))
            continue;
        QsPlatform::RemoveRegistriesIn(left.filePath().toStdString());
        lock->unlock();
        QDir(left.filePath()).removeRecursively();
    }
}

// All but the lock. False when something stays.
bool RemoveContents(const QString& folder)
{
    bool removed = true;
    constexpr QDir::Filters all = QDir::AllEntries | QDir::Hidden | QDir::System | QDir::NoDotAndDotDot;
    for (const QFileInfo& entry : QDir(folder).entryInfoList(all))
        if (entry.fileName() != QLatin1String(s_inUse))
            removed = (entry.isDir() && !entry.isSymLink() ? QDir(entry.filePath()).removeRecursively()
                                                           : QFile::remove(entry.filePath())) &&
                      removed;
    return removed;
}

} // namespace

std::string TemporaryPath(const std::string& name, std::string& error)
{
    SFolder& folder = Folder();
    const CQsScopedLock<CQsMutex> hold(folder.lock);
    if (folder.folder == nullptr)
    {
        const QDir all(QDir::tempPath());
        RemoveLeftBehind(all);
        folder.folder =
            std::make_unique<QTemporaryDir>(all.filePath(QString::fromLatin1(s_names) + QStringLiteral("XXXXXX")));
        folder.inUse = LockOf(folder.folder->path());
        folder.inUse->tryLock(0);
    }
    if (folder.folder->isValid())
        return folder.folder->filePath(QString::fromStdString(name)).toStdString();
    error = "no temporary folder: " + folder.folder->errorString().toStdString();
    return {};
}

void RemoveTemporaryFolder()
{
    SFolder& folder = Folder();
    const CQsScopedLock<CQsMutex> hold(folder.lock);
    if (folder.folder == nullptr)
        return;
    QsPlatform::RemoveRegistriesIn(folder.folder->path().toStdString());
    if (!RemoveContents(folder.folder->path()))
        return; // the lock goes with the process, and tells the next run that nobody uses it any more
    folder.inUse->unlock();
    folder.folder.reset();
}

} // namespace Stimhost

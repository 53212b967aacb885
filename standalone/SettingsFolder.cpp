// Where plug-ins keep their settings files.
#include "platform/Folders.h"
#include "platform/ThreadSafety.h"
#include "standalone/HostControl.h"

#include <filesystem>

namespace fs = std::filesystem;

namespace {

struct SFolder
{
    CQsMutex lock;
    std::string set QS_GUARDED_BY(lock); // empty: the system's
};

SFolder& Folder()
{
    static SFolder& folder = *new SFolder; // never destroyed: threads may ask until the process ends
    return folder;
}

} // namespace

CQsStringW QS_GetSettingsFolder()
{
    std::string path;
    {
        SFolder& folder = Folder();
        const CQsScopedLock<CQsMutex> guard(folder.lock);
        path = folder.set;
    }
    if (path.empty())
        path = QsPlatform::UserSettingsFolder();
    std::error_code error;
    fs::path absolute = fs::absolute(fs::u8path(path), error).lexically_normal();
    if (!absolute.has_filename() && absolute.has_relative_path())
        absolute = absolute.parent_path();
    fs::create_directories(absolute, error);
    const std::string text = absolute.generic_u8string();
    std::error_code ignored;
    if (error && !fs::is_directory(absolute, ignored))
        DiagOutputExW(L"Settings", __LINE__, L"%hs: expected a folder of settings files, it cannot be made: %hs",
                      text.c_str(), error.message().c_str());
    return CQsStringW::FromUtf8(text);
}

void QsStandalone::SetSettingsFolder(const std::string& path)
{
    // Made absolute now: what the program's folder is later must not move the settings.
    std::error_code ignored;
    std::string absolute = path.empty() ? path : fs::absolute(fs::u8path(path), ignored).generic_u8string();
    SFolder& folder = Folder();
    const CQsScopedLock<CQsMutex> guard(folder.lock);
    folder.set = std::move(absolute);
}

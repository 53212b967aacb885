#include "platform/ModuleFile.h"

#include "platform/windows/FileOfModule.h"
#include "platform/windows/FilePaths.h"
#include "platform/windows/SystemText.h"

#include <vector>

#include <psapi.h>

namespace QsPlatform {

namespace {

// A damaged file must not bring up a window that waits for somebody to close it.
class CQuietErrors
{
public:
    CQuietErrors() { SetThreadErrorMode(SEM_FAILCRITICALERRORS | SEM_NOOPENFILEERRORBOX, &m_before); }
    ~CQuietErrors() { SetThreadErrorMode(m_before, nullptr); }
    CQuietErrors(const CQuietErrors&) = delete;
    CQuietErrors& operator=(const CQuietErrors&) = delete;

private:
    DWORD m_before = 0;
};

bool IsFile(const std::wstring& path)
{
    const DWORD attributes = GetFileAttributesW(path.c_str());
    constexpr DWORD others = FILE_ATTRIBUTE_DIRECTORY | FILE_ATTRIBUTE_DEVICE;
    return attributes != INVALID_FILE_ATTRIBUTES && (attributes & others) == 0;
}

// Every module of the process at the moment.
std::vector<HMODULE> Modules()
{
    std::vector<HMODULE> modules(64);
    for (;;)
    {
        const DWORD room = static_cast<DWORD>(modules.size() * sizeof(HMODULE));
        DWORD size = 0;
        if (!EnumProcessModules(GetCurrentProcess(), modules.data(), room, &size))
            return {};
        modules.resize(size / sizeof(HMODULE));
        if (size <= room)
            return modules;
    }
}

} // namespace

std::wstring FileOfModule(HMODULE module)
{
    std::wstring path(MAX_PATH, L'\0');
    for (;;)
    {
        const DWORD room = static_cast<DWORD>(path.size());
        const DWORD length = GetModuleFileNameW(module, path.data(), room);
        if (length < room)
        {
            path.resize(length);
            return path;
        }
        path.resize(2 * path.size());
    }
}

void* LoadModuleFile(const std::string& path, std::string& error)
{
    const std::wstring file = SystemPath(path);
    if (path.empty() || !IsFile(file))
    {
        error = path + ": no such file";
        return nullptr;
    }
    const CQuietErrors quiet;
    // What it needs may lie beside it.
    void* const module = LoadLibraryExW(file.c_str(), nullptr, LOAD_WITH_ALTERED_SEARCH_PATH);
    if (module == nullptr)
        error = path + ": cannot be loaded: " + ReasonOf(GetLastError());
    return module;
}

void* ModuleSymbol(void* module, const char* name)
{
    return reinterpret_cast<void*>(GetProcAddress(static_cast<HMODULE>(module), name));
}

std::string ModuleFileOfAddress(const void* address)
{
    HMODULE module = nullptr;
    constexpr DWORD flags = GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS | GET_MODULE_HANDLE_EX_FLAG_UNCHANGED_REFCOUNT;
    if (address == nullptr || !GetModuleHandleExW(flags, static_cast<const wchar_t*>(address), &module))
        return {};
    return ToUtf8(UsualForm(FileOfModule(module)));
}

bool IsModuleFileLoaded(const std::string& path)
{
    if (path.empty())
        return false;
    const std::wstring file = SystemPath(path);
    HMODULE module = nullptr;
    if (GetModuleHandleExW(GET_MODULE_HANDLE_EX_FLAG_UNCHANGED_REFCOUNT, file.c_str(), &module))
        return true;
    // The system knows it by the path that it was loaded from, which may be another one than ours.
    SFileIdentity wanted, found;
    DWORD ignored = 0;
    if (!IdentityOf(file, wanted, ignored))
        return false;
    for (const HMODULE loaded : Modules())
        if (IdentityOf(FileOfModule(loaded), found, ignored) && found == wanted)
            return true;
    return false;
}

} // namespace QsPlatform

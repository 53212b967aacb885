// Handles of modules that are loaded in the process.
#include "platform/Utf16.h"
#include "platform/posix/Win32Posix.h"

#include <QString>

#include <string>

#include <dlfcn.h>
#include <link.h>
#include <unistd.h>

namespace {

std::string FileNameOf(const std::string& path)
{
    return path.substr(path.rfind('/') + 1);
}

std::string PathOfProgram()
{
    char path[4096];
    const ssize_t length = readlink("/proc/self/exe", path, sizeof path);
    return length > 0 ? std::string(path, static_cast<std::size_t>(length)) : std::string();
}

struct SSearch
{
    std::string fileName;
    std::string path; // as the loader knows it; empty for the program itself
    bool found = false;
};

int CompareModule(dl_phdr_info* info, std::size_t, void* context)
{
    auto& search = *static_cast<SSearch*>(context);
    const bool isProgram = !info->dlpi_name || !*info->dlpi_name;
    search.found = search.fileName == FileNameOf(isProgram ? PathOfProgram() : info->dlpi_name);
    if (search.found && !isProgram)
        search.path = info->dlpi_name;
    return search.found ? 1 : 0;
}

// One more use of a module that is loaded already; null when it is not.
void* UseLoaded(const std::string& path)
{
    return dlopen(path.empty() ? nullptr : path.c_str(), RTLD_LAZY | RTLD_NOLOAD);
}

void* UseByAddress(const void* address)
{
    Dl_info info{};
    void* map = nullptr;
    if (dladdr1(address, &info, &map, RTLD_DL_LINKMAP) == 0 || !map)
        return nullptr;
    return UseLoaded(static_cast<const link_map*>(map)->l_name);
}

void* UseByName(const wchar_t* name)
{
    const std::u16string units = QsToUtf16(name);
    const std::string path = QString::fromUtf16(units.data(), static_cast<int>(units.size())).toStdString();
    if (path.find('/') != std::string::npos)
        return UseLoaded(path == PathOfProgram() ? std::string() : path); // the loader takes no path of a program
    // The loader knows a module by the path that it was loaded from, so a bare name is looked for here.
    SSearch search;
    search.fileName = path;
    dl_iterate_phdr(CompareModule, &search);
    return search.found ? UseLoaded(search.path) : nullptr;
}

} // namespace

BOOL GetModuleHandleExW(DWORD flags, const wchar_t* nameOrAddress, HMODULE* module)
{
    if (!module)
        return FALSE;
    *module = nullptr;
    if (!nameOrAddress)
        *module = UseLoaded({}); // the program
    else if (flags & GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS)
        *module = UseByAddress(nameOrAddress);
    else if (*nameOrAddress)
        *module = UseByName(nameOrAddress);
    if (!*module)
        return FALSE;
    if (flags & GET_MODULE_HANDLE_EX_FLAG_UNCHANGED_REFCOUNT)
        dlclose(*module);
    return TRUE;
}

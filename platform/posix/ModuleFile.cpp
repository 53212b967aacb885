#include "platform/ModuleFile.h"

#include <algorithm>
#include <filesystem>

#include <dlfcn.h>

namespace fs = std::filesystem;

void* QsPlatform::LoadModuleFile(const std::string& path, std::string& error)
{
    std::error_code code;
    if (!fs::is_regular_file(path, code)) // the loader would wait for a pipe
    {
        error = path + ": no such file";
        return nullptr;
    }
    dlerror();
    void* const module = dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
    if (module != nullptr)
        return module;
    const char* const reason = dlerror();
    error = reason != nullptr ? reason : path + ": cannot be loaded";
    std::replace(error.begin(), error.end(), '\n', ' ');
    if (error.find(path) == std::string::npos) // a library that it needs is named instead
        error = path + ": " + error;
    return nullptr;
}

void* QsPlatform::ModuleSymbol(void* module, const char* name)
{
    return dlsym(module, name);
}

std::string QsPlatform::ModuleFileOfAddress(const void* address)
{
    Dl_info info{};
    if (dladdr(address, &info) == 0 || info.dli_fname == nullptr)
        return {};
    // The program itself goes by the name that it was called with, which need not be a path.
    const std::string name = info.dli_fname;
    std::error_code code;
    fs::path file = fs::canonical(name, code);
    if (code || name.find('/') == std::string::npos)
        file = fs::read_symlink("/proc/self/exe", code);
    return code ? name : file.string();
}

bool QsPlatform::IsModuleFileLoaded(const std::string& path)
{
    void* const module = path.empty() ? nullptr : dlopen(path.c_str(), RTLD_LAZY | RTLD_NOLOAD);
    if (module != nullptr)
        dlclose(module);
    return module != nullptr;
}

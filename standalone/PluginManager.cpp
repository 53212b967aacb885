#include "standalone/PluginManager.h"

#include "platform/ModuleFile.h"
#include "standalone/ClassRegistry.h"

#include <algorithm>
#include <filesystem>

namespace fs = std::filesystem;

namespace QsStandalone {
namespace {

constexpr wchar_t unit[] = L"PluginManager";

// The one path by which a module is known, whatever way leads to it. Of a missing file the part that exists counts.
// With the system's own separators: the module asks the system by this path whether a file is loaded.
std::string FullPath(const std::string& path)
{
    std::error_code code;
    fs::path full = fs::weakly_canonical(fs::u8path(path), code);
    return code ? path : full.make_preferred().u8string();
}

// In whatever letters; both kinds are read everywhere.
bool IsModuleName(const fs::path& file)
{
    std::string extension = file.extension().u8string();
    for (char& c : extension)
        c = c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
    return extension == ".so" || extension == ".dll";
}

SModuleFile Scan(const std::string& path)
{
    SModuleFile module = ReadModuleFile(FullPath(path));
    if (module.error.empty())
        CClassRegistry::Instance().AddModule(module);
    else
        DiagOutputExW(unit, __LINE__, L"%hs - skipped", module.error.c_str());
    return module;
}

SModuleFile UnreadableFolder(const std::string& folder, const std::string& reason)
{
    SModuleFile entry;
    entry.path = folder;
    entry.error = folder + ": the folder of modules cannot be read: " + reason;
    std::replace(entry.error.begin(), entry.error.end(), '\n', ' ');
    DiagOutputExW(unit, __LINE__, L"%hs", entry.error.c_str());
    return entry;
}

} // namespace

std::vector<SModuleFile> CQsModules::ScanFolder(const std::string& folder)
{
    std::vector<fs::path> files;
    std::error_code code;
    for (fs::directory_iterator entry(fs::u8path(folder), code), end; !code && entry != end; entry.increment(code))
        if (IsModuleName(entry->path()))
            files.push_back(entry->path());
    if (code)
        return {UnreadableFolder(folder, code.message())};
    std::sort(files.begin(), files.end(),
              [](const fs::path& a, const fs::path& b) { return a.filename().native() < b.filename().native(); });

    std::vector<SModuleFile> modules;
    for (const fs::path& file : files)
        modules.push_back(Scan(file.u8string()));
    return modules;
}

SModuleFile CQsModules::ScanFile(const std::string& path)
{
    return Scan(path);
}

bool CQsModules::LoadModule(const std::string& path, std::string& error)
{
    return QsPlatform::LoadModuleFile(FullPath(path), error) != nullptr;
}

bool CQsModules::LoadModuleOfClass(const std::string& className, std::string& error)
{
    const CClassRegistry::SSource source = CClassRegistry::Instance().Find(className);
    if (!source.known)
    {
        error = "class " + className + ": no module that is known holds it";
        return false;
    }
    return source.module.empty() || LoadModule(source.module, error); // else it registered in code
}

bool CQsModules::IsLoaded(const std::string& path)
{
    return QsPlatform::IsModuleFileLoaded(FullPath(path));
}

std::vector<SModuleFile> CQsModules::KnownModules()
{
    return CClassRegistry::Instance().Modules();
}

void CQsModules::Forget()
{
    CClassRegistry& registry = CClassRegistry::Instance();
    std::vector<std::string> unused;
    for (const SModuleFile& module : registry.Modules())
        if (!QsPlatform::IsModuleFileLoaded(module.path))
            unused.push_back(module.path);
    registry.ForgetModules(unused);
}

} // namespace QsStandalone

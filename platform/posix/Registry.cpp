// The registry calls, on one file for each root.
#include "platform/RegistryControl.h"
#include "platform/ThreadSafety.h"
#include "platform/Utf16.h"
#include "platform/posix/Control.h"
#include "platform/posix/RegistryStore.h"

#include <QFile>
#include <QStandardPaths>
#include <QString>

#include <cstdlib>
#include <cstring>
#include <new>

using namespace QsPlatform;

namespace {

struct SOpenKey
{
    bool machine = false;
    std::string file; // stays that of the opening when the folders change
    RegistryPath path;
};

struct SRegistry
{
    CQsMutex lock;                       // held during file access: one process writes one change after the other
    std::string own QS_GUARDED_BY(lock); // folder of the program's own registry; empty: from the environment
    bool refused[2] QS_GUARDED_BY(lock) = {};
    std::map<HKEY, SOpenKey> keys QS_GUARDED_BY(lock);
    std::uintptr_t lastKey QS_GUARDED_BY(lock) = 0;
};

SRegistry& Registry()
{
    static SRegistry& registry = *new SRegistry; // used until the process is gone
    return registry;
}

bool IsRoot(HKEY key)
{
    return key == HKEY_CURRENT_USER || key == HKEY_LOCAL_MACHINE;
}

std::string Environment(const char* name)
{
    const char* value = std::getenv(name);
    return value ? value : "";
}

std::string FolderOf(const SRegistry& registry, bool machine) QS_REQUIRES(registry.lock)
{
    if (!registry.own.empty())
        return registry.own + (machine ? "/machine" : "/user");
    std::string folder = machine ? Environment("QS_MACHINE_REGISTRY_DIR") : std::string();
    if (folder.empty())
        folder = Environment("QS_REGISTRY_DIR");
    if (!folder.empty())
        return folder;
    const QString config = QStandardPaths::writableLocation(QStandardPaths::GenericConfigLocation);
    return QFile::encodeName(config + "/qsstimulation").toStdString();
}

std::string FileOf(const SRegistry& registry, bool machine) QS_REQUIRES(registry.lock)
{
    return FolderOf(registry, machine) + (machine ? "/registry-machine.json" : "/registry-user.json");
}

LSTATUS Find(const SRegistry& registry, HKEY key, SOpenKey& found) QS_REQUIRES(registry.lock)
{
    if (IsRoot(key))
    {
        const bool machine = key == HKEY_LOCAL_MACHINE;
        found = {machine, FileOf(registry, machine), {}};
        return ERROR_SUCCESS;
    }
    const auto place = registry.keys.find(key);
    if (place == registry.keys.end())
        return ERROR_INVALID_HANDLE;
    found = place->second;
    return ERROR_SUCCESS;
}

// The key below `parent`, for opening or creating it.
LSTATUS FindBelow(const SRegistry& registry, HKEY parent, const wchar_t* subKey, SOpenKey& found)
    QS_REQUIRES(registry.lock)
{
    const LSTATUS status = Find(registry, parent, found);
    if (status != ERROR_SUCCESS)
        return status;
    const std::u16string path = QsToUtf16(subKey);
    RegistryPath parts;
    if (!path.empty() && path.front() == u'\\')
        return ERROR_BAD_PATHNAME;
    if (!SplitRegistryPath(path, parts))
        return ERROR_INVALID_PARAMETER;
    found.path.insert(found.path.end(), parts.begin(), parts.end());
    if (found.path.size() > kDeepestKey)
        return ERROR_INVALID_PARAMETER;
    return registry.refused[found.machine] ? ERROR_ACCESS_DENIED : ERROR_SUCCESS;
}

HKEY Open(SRegistry& registry, SOpenKey key) QS_REQUIRES(registry.lock)
{
    // Numbers that no root has, each given once: a closed handle never means another key.
    const auto handle = reinterpret_cast<HKEY>(registry.lastKey += 4);
    registry.keys.emplace(handle, std::move(key));
    return handle;
}

bool Exists(const SOpenKey& key)
{
    SRegistryNode root;
    std::string error;
    ReadRegistryFile(key.file, root, error);
    return FindRegistryKey(root, key.path) != nullptr;
}

bool LacksTerminator(const SRegistryData& data)
{
    const std::size_t size = data.bytes.size();
    return data.type == REG_SZ && size >= 2 && size % 2 == 0 &&
           (data.bytes[size - 1] != 0 || data.bytes[size - 2] != 0);
}

// Calls report by status alone, also when memory runs out.
template <class Call>
LSTATUS Guarded(Call call)
{
    try
    {
        return call();
    }
    catch (const std::bad_alloc&)
    {
        return ERROR_WRITE_FAULT;
    }
}

} // namespace

LSTATUS RegCreateKeyExW(HKEY key, const wchar_t* subKey, DWORD reserved, wchar_t*, DWORD, REGSAM,
                        const SECURITY_ATTRIBUTES*, HKEY* result, DWORD* disposition)
{
    if (!subKey || reserved != 0 || !result)
        return ERROR_INVALID_PARAMETER;
    return Guarded(
        [&]() -> LSTATUS
        {
            SRegistry& registry = Registry();
            CQsScopedLock<CQsMutex> lock(registry.lock);
            SOpenKey wanted;
            LSTATUS status = FindBelow(registry, key, subKey, wanted);
            if (status != ERROR_SUCCESS)
                return status;
            bool made = false;
            if (!Exists(wanted))
                status = ChangeRegistryFile(wanted.file,
                                            [&](SRegistryNode& root)
                                            {
                                                MakeRegistryKey(root, wanted.path, made);
                                                return made;
                                            });
            if (status != ERROR_SUCCESS)
                return status;
            *result = Open(registry, std::move(wanted));
            if (disposition)
                *disposition = made ? REG_CREATED_NEW_KEY : REG_OPENED_EXISTING_KEY;
            return ERROR_SUCCESS;
        });
}

LSTATUS RegCreateKeyW(HKEY key, const wchar_t* subKey, HKEY* result)
{
    if (!subKey || !*subKey)
        return RegOpenKeyW(key, subKey, result);
    return RegCreateKeyExW(key, subKey, 0, nullptr, REG_OPTION_NON_VOLATILE, KEY_ALL_ACCESS, nullptr, result, nullptr);
}

LSTATUS RegOpenKeyW(HKEY key, const wchar_t* subKey, HKEY* result)
{
    if (!result)
        return ERROR_INVALID_PARAMETER;
    return Guarded(
        [&]() -> LSTATUS
        {
            SRegistry& registry = Registry();
            CQsScopedLock<CQsMutex> lock(registry.lock);
            SOpenKey wanted;
            const LSTATUS status = FindBelow(registry, key, subKey ? subKey : L"", wanted);
            if (status != ERROR_SUCCESS)
                return status;
            if (!subKey || !*subKey)
            {
                *result = key; // the real call hands back the same handle
                return ERROR_SUCCESS;
            }
            if (!Exists(wanted))
                return ERROR_FILE_NOT_FOUND;
            *result = Open(registry, std::move(wanted));
            return ERROR_SUCCESS;
        });
}

LSTATUS RegQueryValueExW(HKEY key, const wchar_t* name, DWORD* reserved, DWORD* type, BYTE* data, DWORD* size)
{
    if (reserved || (data && !size))
        return ERROR_INVALID_PARAMETER;
    return Guarded(
        [&]() -> LSTATUS
        {
            SRegistry& registry = Registry();
            CQsScopedLock<CQsMutex> lock(registry.lock);
            SOpenKey open;
            const LSTATUS status = Find(registry, key, open);
            if (status != ERROR_SUCCESS)
                return status;
            SRegistryNode root;
            std::string error;
            ReadRegistryFile(open.file, root, error);
            const SRegistryNode* node = FindRegistryKey(root, open.path);
            if (!node)
                return ERROR_FILE_NOT_FOUND;
            const auto value = node->values.find(QsToUtf16(name ? name : L""));
            if (value == node->values.end())
                return ERROR_FILE_NOT_FOUND;
            const std::vector<unsigned char>& bytes = value->second.bytes;
            if (type)
                *type = value->second.type;
            const DWORD room = size ? *size : 0;
            if (size)
                *size = static_cast<DWORD>(bytes.size());
            if (data && room < bytes.size())
                return ERROR_MORE_DATA;
            if (data && !bytes.empty())
                std::memcpy(data, bytes.data(), bytes.size());
            // As the real call, for callers that forget to: behind the size that it tells.
            if (data && LacksTerminator(value->second) && room - bytes.size() >= sizeof(char16_t))
                std::memset(data + bytes.size(), 0, sizeof(char16_t));
            return ERROR_SUCCESS;
        });
}

LSTATUS RegSetValueExW(HKEY key, const wchar_t* name, DWORD reserved, DWORD type, const BYTE* data, DWORD size)
{
    if (reserved != 0 || (!data && size != 0))
        return ERROR_INVALID_PARAMETER;
    return Guarded(
        [&]() -> LSTATUS
        {
            const std::u16string valueName = QsToUtf16(name ? name : L"");
            if (!IsRegistryName(valueName))
                return ERROR_INVALID_PARAMETER;
            SRegistry& registry = Registry();
            CQsScopedLock<CQsMutex> lock(registry.lock);
            SOpenKey open;
            const LSTATUS status = Find(registry, key, open);
            if (status != ERROR_SUCCESS)
                return status;
            if (registry.refused[open.machine])
                return ERROR_ACCESS_DENIED;
            SRegistryData written{type, {}};
            if (size != 0)
                written.bytes.assign(data, data + size);
            // Makes the key anew when somebody has removed the file since it was opened.
            return ChangeRegistryFile(open.file,
                                      [&](SRegistryNode& root)
                                      {
                                          bool changed = false;
                                          SRegistryNode& node = MakeRegistryKey(root, open.path, changed);
                                          const auto [place, isNew] = node.values.try_emplace(valueName);
                                          changed = changed || isNew || !(place->second == written);
                                          place->second = written;
                                          return changed;
                                      });
        });
}

LSTATUS RegCloseKey(HKEY key)
{
    if (IsRoot(key))
        return ERROR_SUCCESS;
    SRegistry& registry = Registry();
    CQsScopedLock<CQsMutex> lock(registry.lock);
    return registry.keys.erase(key) != 0 ? ERROR_SUCCESS : ERROR_INVALID_HANDLE;
}

namespace QsPlatform {
namespace {

std::string ToUtf8(const std::u16string& text)
{
    return QString::fromUtf16(text.data(), static_cast<int>(text.size())).toStdString();
}

void ListBelow(const SRegistryNode& node, const std::string& path, std::vector<SRegistryValue>& values)
{
    for (const auto& [name, data] : node.values)
        values.push_back({path, ToUtf8(name), data.type, data.bytes});
    for (const auto& [name, child] : node.keys)
        ListBelow(child, path.empty() ? ToUtf8(name) : path + '\\' + ToUtf8(name), values);
}

} // namespace

void UseOwnRegistry(const std::string& folder)
{
    SRegistry& registry = Registry();
    CQsScopedLock<CQsMutex> lock(registry.lock);
    registry.own = folder;
}

void RemoveRegistriesIn(const std::string&) {} // they are files in it

std::string RegistryPlace(HKEY root)
{
    SRegistry& registry = Registry();
    CQsScopedLock<CQsMutex> lock(registry.lock);
    return IsRoot(root) ? FileOf(registry, root == HKEY_LOCAL_MACHINE) : std::string();
}

void RefuseRegistry(HKEY root, bool refuse)
{
    SRegistry& registry = Registry();
    CQsScopedLock<CQsMutex> lock(registry.lock);
    if (IsRoot(root))
        registry.refused[root == HKEY_LOCAL_MACHINE] = refuse;
}

bool ListRegistry(HKEY root, const wchar_t* subKey, std::vector<SRegistryValue>& values, std::string& error)
{
    values.clear();
    error.clear();
    const std::string file = RegistryPlace(root);
    const std::u16string path = QsToUtf16(subKey ? subKey : L"");
    RegistryPath parts;
    if (!SplitRegistryPath(path, parts))
    {
        error = file + ": expected the path of a key, found \"" + ToUtf8(path) + "\"";
        return false;
    }
    SRegistryNode node;
    CQsScopedLock<CQsMutex> lock(Registry().lock);
    const ERegistryFile state = ReadRegistryFile(file, node, error);
    if (state == ERegistryFile::Damaged || state == ERegistryFile::Unreadable)
        return false;
    std::string key;
    for (const std::u16string& part : parts)
        key += (key.empty() ? "" : "\\") + ToUtf8(part);
    if (const SRegistryNode* const found = FindRegistryKey(node, parts))
        ListBelow(*found, key, values);
    return true;
}

} // namespace QsPlatform

#include "platform/RegistryControl.h"

#include "platform/ThreadSafety.h"
#include "platform/windows/OwnRegistry.h"
#include "platform/windows/SystemText.h"

#include <algorithm>
#include <stdexcept>
#include <utility>

namespace QsPlatform {

namespace {

constexpr wchar_t registriesKey[] = L"Software\\QsStimulation\\Registries\\";
constexpr std::size_t longestName = 255; // of a key; a longer path takes several

struct SOwn
{
    CQsMutex lock;
    std::string folder QS_GUARDED_BY(lock);
    HKEY registries QS_GUARDED_BY(lock) = nullptr; // key of all of them, opened while the roots were the user's own
};

SOwn& Own()
{
    static SOwn& own = *new SOwn; // used until the process is gone
    return own;
}

// The folder as it stands in the names of keys.
std::wstring NameOf(const std::string& folder)
{
    std::wstring path = ToWide(PlainPath(SystemPath(folder)));
    std::replace(path.begin(), path.end(), L'\\', L'/'); // also of a form that has none
    while (path.size() > 1 && path.back() == L'/')
        path.pop_back();
    return path;
}

// The key of the registry that the folder names.
std::wstring KeyOf(const std::string& folder)
{
    const std::wstring path = NameOf(folder);
    std::wstring key = registriesKey;
    for (std::size_t i = 0; i < path.size(); i += longestName)
        key += path.substr(i, longestName) + L'\\';
    return key;
}

// Everything that this process opens below the root from now on lies below the key.
void Replace(HKEY root, const std::wstring& key)
{
    HKEY own = nullptr;
    LSTATUS status = RegCreateKeyExW(HKEY_CURRENT_USER, key.c_str(), 0, nullptr, REG_OPTION_NON_VOLATILE,
                                     KEY_ALL_ACCESS, nullptr, &own, nullptr);
    if (status == ERROR_SUCCESS)
    {
        status = RegOverridePredefKey(root, own);
        RegCloseKey(own);
    }
    if (status != ERROR_SUCCESS)
        throw std::runtime_error("HKEY_CURRENT_USER\\" + ToUtf8(key) +
                                 ": cannot be a registry: " + ReasonOf(static_cast<DWORD>(status)));
}

struct SLess
{
    template <class Named>
    bool operator()(const Named& a, const Named& b) const
    {
        return CompareStringOrdinal(a.name.c_str(), -1, b.name.c_str(), -1, TRUE) == CSTR_LESS_THAN;
    }
};

struct SNamedKey
{
    std::wstring name;
};

struct SNamedValue
{
    std::wstring name;
    DWORD type = 0;
    std::vector<unsigned char> data;
};

constexpr DWORD longestKeyName = 256, longestValueName = 16384; // with the terminator

LSTATUS ReadKeys(HKEY key, std::vector<SNamedKey>& keys)
{
    for (DWORD i = 0;; ++i)
    {
        wchar_t name[longestKeyName];
        DWORD length = longestKeyName;
        const LSTATUS status = RegEnumKeyExW(key, i, name, &length, nullptr, nullptr, nullptr, nullptr);
        if (status != ERROR_SUCCESS)
        {
            std::sort(keys.begin(), keys.end(), SLess());
            return status == ERROR_NO_MORE_ITEMS ? ERROR_SUCCESS : status;
        }
        keys.push_back({std::wstring(name, length)});
    }
}

LSTATUS ReadValues(HKEY key, std::vector<SNamedValue>& values)
{
    std::vector<wchar_t> name(longestValueName);
    std::vector<unsigned char> data(4096);
    for (DWORD i = 0;;)
    {
        DWORD length = longestValueName;
        DWORD size = static_cast<DWORD>(data.size());
        DWORD type = 0;
        const LSTATUS status = RegEnumValueW(key, i, name.data(), &length, nullptr, &type, data.data(), &size);
        if (status == ERROR_MORE_DATA) // somebody may write a larger one meanwhile
        {
            data.resize(std::max<std::size_t>(size, 2 * data.size()));
            continue;
        }
        if (status != ERROR_SUCCESS)
        {
            std::sort(values.begin(), values.end(), SLess());
            return status == ERROR_NO_MORE_ITEMS ? ERROR_SUCCESS : status;
        }
        values.push_back({std::wstring(name.data(), length), type, {data.begin(), data.begin() + size}});
        ++i;
    }
}

class COpenKey
{
public:
    COpenKey(HKEY parent, const wchar_t* path)
        : m_status(RegOpenKeyExW(parent, path, 0, KEY_QUERY_VALUE | KEY_ENUMERATE_SUB_KEYS, &m_key))
    {}
    ~COpenKey()
    {
        if (m_status == ERROR_SUCCESS)
            RegCloseKey(m_key);
    }
    COpenKey(const COpenKey&) = delete;
    COpenKey& operator=(const COpenKey&) = delete;

    HKEY Get() const { return m_key; }
    LSTATUS Status() const { return m_status; }

private:
    HKEY m_key = nullptr;
    LSTATUS m_status;
};

LSTATUS ListBelow(HKEY parent, const std::wstring& name, const std::string& path, std::vector<SRegistryValue>& values)
{
    const COpenKey key(parent, name.c_str());
    if (key.Status() != ERROR_SUCCESS)
        return key.Status() == ERROR_FILE_NOT_FOUND ? ERROR_SUCCESS : key.Status();
    std::vector<SNamedValue> own;
    std::vector<SNamedKey> below;
    LSTATUS status = ReadValues(key.Get(), own);
    if (status == ERROR_SUCCESS)
        status = ReadKeys(key.Get(), below);
    for (SNamedValue& value : own)
        values.push_back({path, ToUtf8(value.name), value.type, std::move(value.data)});
    for (std::size_t i = 0; i < below.size() && status == ERROR_SUCCESS; ++i)
        status =
            ListBelow(key.Get(), below[i].name, (path.empty() ? path : path + '\\') + ToUtf8(below[i].name), values);
    return status;
}

// Deletes the keys below `parent` whose path begins with that.
void DeleteBelow(HKEY parent, const std::wstring& beginning)
{
    if (beginning.size() > longestName)
    {
        HKEY key = nullptr;
        if (RegOpenKeyExW(parent, beginning.substr(0, longestName).c_str(), 0, KEY_ALL_ACCESS, &key) != ERROR_SUCCESS)
            return;
        DeleteBelow(key, beginning.substr(longestName));
        RegCloseKey(key);
        return;
    }
    std::vector<SNamedKey> keys;
    ReadKeys(parent, keys);
    const int length = static_cast<int>(beginning.size());
    for (const SNamedKey& key : keys)
        if (CompareStringOrdinal(key.name.c_str(), std::min(length, static_cast<int>(key.name.size())),
                                 beginning.c_str(), length, TRUE) == CSTR_EQUAL)
            RegDeleteTreeW(parent, key.name.c_str());
}

} // namespace

std::string OwnRegistryFolder()
{
    SOwn& own = Own();
    const CQsScopedLock<CQsMutex> lock(own.lock);
    return own.folder;
}

void UseOwnRegistry(const std::string& folder)
{
    SOwn& own = Own();
    const CQsScopedLock<CQsMutex> lock(own.lock);
    // First the user's own registry, since that is where the others lie.
    for (const HKEY root : {HKEY_LOCAL_MACHINE, HKEY_CURRENT_USER})
        RegOverridePredefKey(root, nullptr);
    own.folder.clear();
    if (folder.empty())
        return;
    if (own.registries == nullptr)
        RegCreateKeyExW(HKEY_CURRENT_USER, registriesKey, 0, nullptr, REG_OPTION_NON_VOLATILE, KEY_ALL_ACCESS, nullptr,
                        &own.registries, nullptr);
    const std::wstring key = KeyOf(folder);
    try
    {
        Replace(HKEY_LOCAL_MACHINE, key + L"machine");
        Replace(HKEY_CURRENT_USER, key + L"user");
    }
    catch (...)
    {
        RegOverridePredefKey(HKEY_LOCAL_MACHINE, nullptr); // both or none
        throw;
    }
    own.folder = folder;
}

void RemoveRegistriesIn(const std::string& folder)
{
    SOwn& own = Own();
    const CQsScopedLock<CQsMutex> lock(own.lock);
    const std::wstring beginning = NameOf(folder) + L'/';
    if (own.registries != nullptr)
        return DeleteBelow(own.registries, beginning);
    HKEY registries = nullptr; // the roots are the user's own
    if (RegOpenKeyExW(HKEY_CURRENT_USER, registriesKey, 0, KEY_ALL_ACCESS, &registries) != ERROR_SUCCESS)
        return;
    DeleteBelow(registries, beginning);
    RegCloseKey(registries);
}

std::string RegistryPlace(HKEY root)
{
    return root == HKEY_CURRENT_USER    ? "HKEY_CURRENT_USER"
           : root == HKEY_LOCAL_MACHINE ? "HKEY_LOCAL_MACHINE"
                                        : std::string();
}

bool ListRegistry(HKEY root, const wchar_t* subKey, std::vector<SRegistryValue>& values, std::string& error)
{
    values.clear();
    error.clear();
    std::wstring path = subKey ? subKey : L"";
    if (!path.empty() && path.back() == L'\\')
        path.pop_back();
    const LSTATUS status = ListBelow(root, path, ToUtf8(path), values);
    if (status == ERROR_SUCCESS)
        return true;
    values.clear();
    error = RegistryPlace(root) + (path.empty() ? "" : "\\" + ToUtf8(path)) +
            ": cannot be read: " + ReasonOf(static_cast<DWORD>(status));
    return false;
}

} // namespace QsPlatform

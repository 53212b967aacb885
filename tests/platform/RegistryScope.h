// A registry of the test's own, gone with it.
#pragma once

#include "platform/Win32.h"

#include <cstdint>
#include <string>
#include <vector>

class CRegistryScope
{
public:
    CRegistryScope();
    ~CRegistryScope();
    CRegistryScope(const CRegistryScope&) = delete;
    CRegistryScope& operator=(const CRegistryScope&) = delete;

    const std::string& Folder() const { return m_folder; }

private:
    std::string m_folder;
};

using Bytes = std::vector<std::uint8_t>;

// What a value query wrote; poisoned before the call.
struct SQueried
{
    LSTATUS status = -1;
    DWORD type = 0xDEADBEEF;
    DWORD size = 0xDEADBEEF;
    Bytes data;
};

inline SQueried Query(HKEY key, const wchar_t* name, DWORD room = 4096)
{
    SQueried result;
    result.data.assign(room + 1, 0xA5);
    result.size = room;
    result.status = RegQueryValueExW(key, name, nullptr, &result.type, result.data.data(), &result.size);
    return result;
}

// The bytes of the value, or none when the query failed or wrote beyond the size that it told.
inline Bytes ValueOf(HKEY key, const wchar_t* name)
{
    SQueried result = Query(key, name);
    if (result.status != ERROR_SUCCESS || result.data[result.size] != 0xA5)
        return {};
    result.data.resize(result.size);
    return result.data;
}

inline LSTATUS SetBytes(HKEY key, const wchar_t* name, DWORD type, const Bytes& bytes)
{
    return RegSetValueExW(key, name, 0, type, bytes.data(), static_cast<DWORD>(bytes.size()));
}

// Values of the registry as bytes.
#pragma once

#include "platform/Win32.h"

#include <cstdint>
#include <vector>

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

// With something behind the bytes: the real call takes the terminator of a text along when it stands there.
inline LSTATUS SetBytes(HKEY key, const wchar_t* name, DWORD type, const Bytes& bytes)
{
    Bytes text = bytes;
    text.insert(text.end(), 2, 0xA5);
    return RegSetValueExW(key, name, 0, type, text.data(), static_cast<DWORD>(bytes.size()));
}

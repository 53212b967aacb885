// Where a file really is, and whether two paths lead to the same one.
#pragma once

#include "platform/Win32.h"

#include <string>

namespace QsPlatform {

// Whether the path (UTF-8) can be that of a file: it ends in a name, and the name is not one of a part of a file.
bool EndsInFileName(const std::string& path);

// The file that the path leads to over symbolic links; it need not be there. A path without links comes back as it is.
std::wstring BehindLinks(std::wstring systemPath);

// What a file or folder is, whatever it is called.
struct SFileIdentity
{
    FILE_ID_INFO id{};
    bool operator==(const SFileIdentity& other) const;
};
// False, with the system's error, when it cannot be told.
bool IdentityOf(const std::wstring& systemPath, SFileIdentity& identity, DWORD& failure);

} // namespace QsPlatform

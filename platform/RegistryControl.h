// The registry beside the calls of platform/Win32.h: one of the program's own, and what is in it.
#pragma once

#include "host/QsHostApi.h"
#include "platform/Win32.h"

#include <string>
#include <vector>

namespace QsPlatform {

// From now on both roots are a registry of the program's own, which the folder (UTF-8) names; nobody sees it who does
// not name it, too. Keys that are open stay where they are. Empty: the user's registry again.
//
// On Windows its values lie below HKEY_CURRENT_USER\Software\QsStimulation\Registries\<folder>, elsewhere in
// <folder>/user and <folder>/machine; docs/formats.md tells both. Throws where there can be none, rather than change
// the user's. [before other threads use the registry]
QS_HOST_API void UseOwnRegistry(const std::string& folder);
// Removes what the registries that folders in this folder (UTF-8) name have left elsewhere than in it; for folders that
// are removed themselves. What still uses one of them finds no key and makes none.
QS_HOST_API void RemoveRegistriesIn(const std::string& folder);

// What messages call that root: where it is kept in files the file, on Windows its name.
QS_HOST_API std::string RegistryPlace(HKEY root);

struct SRegistryValue
{
    std::string key; // path below the root, as it was written
    std::string name;
    DWORD type = 0;
    std::vector<unsigned char> data;
};
// Every value at and below the key, in order of key and name; of a key that is missing there is none. A null or empty
// sub-key is the root. False, with one line, when the registry cannot be read.
QS_HOST_API bool ListRegistry(HKEY root, const wchar_t* subKey, std::vector<SRegistryValue>& values,
                              std::string& error);

} // namespace QsPlatform

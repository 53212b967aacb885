// One root of the registry as a file. docs/formats.md describes it.
#pragma once

#include "platform/posix/Win32Posix.h"

#include <functional>
#include <map>
#include <string>
#include <vector>

namespace QsPlatform {

// Upper and lower case of A to Z are one letter; all else compares by code unit.
struct SRegistryNameLess
{
    bool operator()(const std::u16string& a, const std::u16string& b) const;
};

struct SRegistryData
{
    DWORD type = 0;
    std::vector<unsigned char> bytes;
    bool operator==(const SRegistryData& other) const { return type == other.type && bytes == other.bytes; }
};

// A key; names keep the spelling that they were first written with.
struct SRegistryNode
{
    std::map<std::u16string, SRegistryNode, SRegistryNameLess> keys;
    std::map<std::u16string, SRegistryData, SRegistryNameLess> values;
};

using RegistryPath = std::vector<std::u16string>;

constexpr std::size_t kDeepestKey = 512; // levels below a root; keys are walked by recursion

// Parts of a path between its backslashes; a trailing one adds none. False when a name is one that the file cannot
// hold, when the path begins with a backslash or has two in a row, or when it is too deep.
bool SplitRegistryPath(const std::u16string& path, RegistryPath& parts);
bool IsRegistryName(const std::u16string& name);

// Null when there is no such key.
const SRegistryNode* FindRegistryKey(const SRegistryNode& root, const RegistryPath& path);
SRegistryNode& MakeRegistryKey(SRegistryNode& root, const RegistryPath& path, bool& made);

enum class ERegistryFile
{
    Whole,
    Missing,
    Unreadable, // it is there and is no file, or the system does not let it be read
    Damaged     // damaged, or not a store of this version
};

// Anything but Whole leaves `root` empty; `error` then says why, in one line, except for Missing.
ERegistryFile ReadRegistryFile(const std::string& file, SRegistryNode& root, std::string& error);

// Reads the store, lets `change` work on it and replaces the file, all under the lock that processes share. `change`
// answers false when there is nothing to write. A damaged file is moved aside first.
// ERROR_SUCCESS; ERROR_ACCESS_DENIED when another process holds the lock for five seconds; ERROR_WRITE_FAULT when the
// file cannot be written: then the old one is still there.
LSTATUS ChangeRegistryFile(const std::string& file, const std::function<bool(SRegistryNode&)>& change);

} // namespace QsPlatform

// Switches of the POSIX side of the platform layer, for the command line and for tests.
#pragma once

#include "host/QsHostApi.h"
#include "platform/posix/Win32Posix.h"

#include <cstdint>
#include <string>
#include <vector>

namespace QsPlatform {

// Folder of the registry store. At first it is $QS_REGISTRY_DIR, else $XDG_CONFIG_HOME/qsstimulation, else
// ~/.config/qsstimulation for the user's root, and the same for the machine's root unless $QS_MACHINE_REGISTRY_DIR is
// set. Takes effect for keys opened later.
QS_HOST_API void SetRegistryFolders(const std::string& user, const std::string& machine);
QS_HOST_API std::string GetRegistryFile(HKEY root); // the file of that root

// Makes every opening and creating of a key below the root, and every write below it, answer ERROR_ACCESS_DENIED.
QS_HOST_API void RefuseRegistry(HKEY root, bool refuse);

struct SRegistryValue
{
    std::string key; // path below the root, as it was written
    std::string name;
    DWORD type = 0;
    std::vector<unsigned char> data;
};
// Every value below the root, in order of key and name. False, with one line, when the store cannot be read.
QS_HOST_API bool ListRegistry(HKEY root, std::vector<SRegistryValue>& values, std::string& error);

// The next `count` creations of a thread / of an event fail.
QS_HOST_API void FailThreadCreations(unsigned count);
QS_HOST_API void FailEventCreations(unsigned count);
// The next `count` items are not queued.
QS_HOST_API void FailPoolItems(unsigned count);
// Called on the replacing thread after each step of a replacement of a file (platform/AtomicFile.h), with the step's
// name; null: no longer. What ends the process there ends it between two steps.
QS_HOST_API void OnFileReplacementStep(void (*hook)(const char* step));
// CloseHandle calls / DeleteObject calls so far that closed something.
QS_HOST_API std::uint64_t ClosedHandles();
QS_HOST_API std::uint64_t DeletedObjects();
// Threads of the pool that exist now.
QS_HOST_API unsigned PoolThreads();
// After how long without an item a thread of the pool ends, for threads that become idle later; 30 s at first.
QS_HOST_API void SetPoolIdleTime(unsigned milliseconds);

} // namespace QsPlatform

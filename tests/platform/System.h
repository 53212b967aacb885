// What the suite asks of the system that it runs on.
#pragma once

#include "platform/Win32.h"

#include <atomic>
#include <filesystem>
#include <string>

// Whether Windows' calls are answered by Wine, which does not check all that Windows checks.
bool IsWine();

// Returns when the thread of this process sleeps in a call that waits. `thread` is 0 until it has begun.
void UntilParked(const std::atomic<DWORD>& thread);

// Undoes one use of a module.
void Unload(void* module);

// Both UTF-8.
void SetEnvironment(const char* name, const std::string& value);

// Closes a standard stream of this process for everybody in it.
void CloseStandardStream(int number);

// From then on nothing interrupts this process but itself.
void LeaveTerminal();
// As Ctrl-C does.
void InterruptThisProcess();

// The same file under a name of any length, for libraries that know the usual length only.
std::filesystem::path LongName(const std::string& path);

// The path as the calls of platform/Win32.h take it, with the system's own separators.
std::wstring Wide(const std::string& utf8);

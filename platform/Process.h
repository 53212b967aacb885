// The running program, as the system knows it.
#pragma once

#include "host/QsHostApi.h"

#include <optional>
#include <string>
#include <vector>

namespace QsPlatform {

// Whether the process ends and only the libraries' own ends are still run, in this thread. Windows has ended the others
// by then, wherever they were: a lock that one of them held stays held for ever. False where threads go on until the
// end.
QS_HOST_API bool IsProcessEnding();

// Absolute path of the program's file; empty when the system does not tell.
QS_HOST_API std::string ProgramFile();

// What the program was called with, UTF-8, its own name first. `count` and `texts` are main's; where these have lost
// characters, the system is asked again.
QS_HOST_API std::vector<std::string> CommandLineArguments(int count, char** texts);
// UTF-8; none when the environment does not have it.
QS_HOST_API std::optional<std::string> EnvironmentVariable(const char* name);

// Makes the standard streams pass on bytes as they are written and UTF-8 as the characters that it stands for, and
// gives each of them that is closed a file of its own on which it fails; otherwise the next file that is opened would
// take its place, and be written into. Whoever writes to stderr flushes it. Call it before any file is opened.
QS_HOST_API void GuardStandardStreams();

// Whether a person sees what is written to stderr, on a terminal that follows escape sequences.
QS_HOST_API bool StderrIsTerminal();

// Ends the process at once: nothing is destroyed, in no library, and no buffer is written. For where threads may still
// be inside what would be destroyed. [any thread]
[[noreturn]] QS_HOST_API void EndProcess(int exitCode);

} // namespace QsPlatform

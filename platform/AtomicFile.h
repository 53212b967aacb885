// Files that are replaced as a whole: whoever reads one, at any moment and after a crash, finds the old or the new
// content, never a part of it.
//
// Paths are UTF-8. Every failure is one line that begins with the path.
#pragma once

#include "host/QsHostApi.h"

#include <cstddef>
#include <cstdio>
#include <string>

namespace QsPlatform {

enum class EFlush
{
    ToSystem, // survives the process
    ToDisk    // on the disk, with its name, when the call returns: survives the system
};

// Writes the bytes to a temporary file beside `path` and gives it the name of `path`. A file that is there keeps its
// permissions; a symbolic link stays, and what it points to is replaced. What killed processes left of earlier
// replacements of this file is removed. False for a file that may not be written, something that is no file, and every
// failure on the way, the disk full among them: then the old content is as it was, unless only the last step, bringing
// the new name to the disk, has failed. [any thread], also of several processes at the same time.
QS_HOST_API bool ReplaceFileContents(const std::string& path, const void* bytes, std::size_t count, EFlush flush,
                                     std::string& error);

// A file to be read, closed by the caller: one that neither stands in the way of whoever replaces it nor is refused
// because of them. On Windows others that read may be told for a moment that the file is in use, and one that they keep
// open is not replaced. Null when it cannot be opened. [any thread]
QS_HOST_API std::FILE* OpenToRead(const std::string& path);

// Gives the file a second name, <path><suffix>, or with 2, 3, ... behind it when that is taken. `kept` is that name.
QS_HOST_API bool KeepFileAside(const std::string& path, const std::string& suffix, std::string& kept,
                               std::string& error);

// Called on the replacing thread after each step of a replacement with the step's name, "renamed" after the one that
// lets readers see the new content; null: no longer. What ends the process there ends it between two steps: for tests.
QS_HOST_API void OnFileReplacementStep(void (*hook)(const char* step));

} // namespace QsPlatform

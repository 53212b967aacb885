// A file's bytes, for readers of small files.
#pragma once

#include <cstdint>
#include <string>

namespace QsStandalone {

// Reads a regular file whole. Anything else (a folder, a pipe, a device) is refused without opening it, so that no
// reader ever waits for one. False, with one line that begins with the path, when that fails.
bool ReadFileContents(const std::string& path, std::uint64_t maxBytes, std::string& contents, std::string& error);

} // namespace QsStandalone

// Where a file really is.
#pragma once

#include <filesystem>

namespace QsPlatform {

// The file that a path leads to over symbolic links; it need not be there.
std::filesystem::path BehindLinks(std::filesystem::path path);

// To be opened: never empty.
std::filesystem::path FolderOf(const std::filesystem::path& file);

} // namespace QsPlatform

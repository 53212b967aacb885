#include "platform/posix/FilePaths.h"

#include <system_error>

namespace fs = std::filesystem;

namespace QsPlatform {

fs::path BehindLinks(fs::path path)
{
    constexpr int mostLinks = 40; // as the system's own limit
    std::error_code error;
    for (int i = 0; i < mostLinks && fs::is_symlink(path, error); ++i)
    {
        const fs::path target = fs::read_symlink(path, error);
        if (error)
            break;
        path = path.parent_path() / target; // an absolute one replaces the whole
    }
    return path;
}

fs::path FolderOf(const fs::path& file)
{
    return file.has_parent_path() ? file.parent_path() : fs::path(".");
}

} // namespace QsPlatform

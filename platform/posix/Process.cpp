#include "platform/Process.h"

#include <filesystem>
#include <unistd.h>

namespace QsPlatform {

std::string ProgramFile()
{
    std::error_code error;
    const std::filesystem::path file = std::filesystem::read_symlink("/proc/self/exe", error);
    return error ? std::string() : file.string();
}

bool StderrIsTerminal()
{
    return isatty(STDERR_FILENO) == 1;
}

} // namespace QsPlatform

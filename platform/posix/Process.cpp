#include "platform/Process.h"

#include <cstdlib>
#include <filesystem>

#include <fcntl.h>
#include <unistd.h>

namespace QsPlatform {

bool IsProcessEnding()
{
    return false;
}

std::string ProgramFile()
{
    std::error_code error;
    const std::filesystem::path file = std::filesystem::read_symlink("/proc/self/exe", error);
    return error ? std::string() : file.string();
}

std::vector<std::string> CommandLineArguments(int count, char** texts)
{
    return {texts, texts + count};
}

std::optional<std::string> EnvironmentVariable(const char* name)
{
    const char* const value = std::getenv(name);
    return value != nullptr ? std::optional<std::string>(value) : std::nullopt;
}

void GuardStandardStreams()
{
    for (const int stream : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO})
        if (fcntl(stream, F_GETFD) == -1)
            static_cast<void>(open("/dev/null", stream == STDIN_FILENO ? O_WRONLY : O_RDONLY)); // takes this number
}

bool StderrIsTerminal()
{
    return isatty(STDERR_FILENO) == 1;
}

void EndProcess(int exitCode)
{
    std::_Exit(exitCode);
}

} // namespace QsPlatform

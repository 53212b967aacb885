#include "stimhost/Folders.h"

#include "platform/Process.h"

#include <filesystem>

namespace Stimhost {

namespace {

namespace fs = std::filesystem;

fs::path ProgramFolder()
{
    return fs::u8path(QsPlatform::ProgramFile()).parent_path();
}

// The first of the places that exists; the first place when none does, so that a message can name it.
std::string FirstThatExists(const fs::path& first, const fs::path& second)
{
    std::error_code error;
    if (!fs::exists(first, error) && fs::exists(second, error))
        return second.lexically_normal().generic_u8string();
    return first.lexically_normal().generic_u8string();
}

std::string OrNothing(const std::string& path)
{
    std::error_code error;
    return fs::exists(fs::u8path(path), error) ? path : std::string();
}

} // namespace

std::string ModuleFile()
{
    return FirstThatExists(ProgramFolder() / QS_MODULE_FILE, ProgramFolder() / QS_LIBRARY_FOLDER / QS_MODULE_FILE);
}

std::string CommandsFile()
{
    return FirstThatExists(ProgramFolder() / QS_COMMANDS_FILE, ProgramFolder() / QS_LIBRARY_FOLDER / QS_COMMANDS_FILE);
}

std::string PluginFolder()
{
    return OrNothing(FirstThatExists(ProgramFolder() / "plugins",
                                     ProgramFolder() / QS_LIBRARY_FOLDER / "qsstimulation" / "plugins"));
}

std::string RigOfProgram(const std::string& name)
{
    const fs::path rig = ProgramFolder() / QS_SHARE_FOLDER / "qsstimulation" / "rigs" / fs::u8path(name);
    return OrNothing(rig.lexically_normal().generic_u8string());
}

} // namespace Stimhost

#include "platform/Folders.h"

#include "platform/posix/Control.h"

#include <filesystem>

std::string QsPlatform::UserSettingsFolder()
{
    return (std::filesystem::path(GetRegistryFile(HKEY_CURRENT_USER)).parent_path() / "settings").string();
}

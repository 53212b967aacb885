#include "platform/Folders.h"

#include "platform/RegistryControl.h"

#include <filesystem>

std::string QsPlatform::UserSettingsFolder()
{
    return (std::filesystem::path(RegistryPlace(HKEY_CURRENT_USER)).parent_path() / "settings").string();
}

#include "platform/Folders.h"

#include "platform/windows/OwnRegistry.h"
#include "platform/windows/SystemText.h"

#include <objbase.h>
#include <shlobj.h>

// Calibrations hold for the microscope at this machine; they must not follow the user to another one.
std::string QsPlatform::UserSettingsFolder()
{
    const std::string own = OwnRegistryFolder();
    if (!own.empty())
        return own + "/user/settings";
    wchar_t* found = nullptr;
    std::wstring folder;
    if (SHGetKnownFolderPath(FOLDERID_LocalAppData, KF_FLAG_DONT_VERIFY, nullptr, &found) == S_OK)
        folder = found;
    CoTaskMemFree(found);
    return PlainPath(folder + L"\\QsStimulation\\settings");
}

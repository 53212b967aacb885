#include "tests/support/OwnRegistry.h"

#include "platform/RegistryControl.h"
#include "platform/Win32.h"

namespace QsTest {

COwnRegistry::COwnRegistry()
{
    QsPlatform::UseOwnRegistry(m_folder.Path());
}

COwnRegistry::~COwnRegistry()
{
    QsPlatform::UseOwnRegistry("");
    const std::wstring registries = L"Software\\QsStimulation\\Registries\\";
    RegDeleteTreeW(HKEY_CURRENT_USER, (registries + std::filesystem::u8path(m_folder.Path()).wstring()).c_str());
}

} // namespace QsTest

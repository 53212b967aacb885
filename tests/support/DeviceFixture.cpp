#include "tests/support/DeviceFixture.h"

#include "platform/posix/Control.h"

#include <cstdlib>
#include <filesystem>
#include <stdexcept>

namespace QsTest {

CTemporaryRegistry::CTemporaryRegistry()
{
    std::string pattern = (std::filesystem::temp_directory_path() / "qs-test-XXXXXX").string();
    if (mkdtemp(pattern.data()) == nullptr)
        throw std::runtime_error("cannot make a temporary folder");
    m_folder = pattern;
    QsPlatform::SetRegistryFolders(m_folder + "/user", m_folder + "/machine");
}

CTemporaryRegistry::~CTemporaryRegistry()
{
    std::error_code ignored;
    std::filesystem::remove_all(m_folder, ignored);
}

DevicePtr CreateDevice(const char* className)
{
    IQsInterface* const object = CQsRTTI::CreateAndQuery(className, "IQsStimulationDevice", "no file", -1);
    auto* const device = dynamic_cast<IQsStimulationDevice*>(object);
    if (device == nullptr)
        return nullptr;
    return DevicePtr(device, [](IQsStimulationDevice* p) { CQsRTTI::Release(p); });
}

} // namespace QsTest

#include "tests/support/DeviceFixture.h"

namespace QsTest {

DevicePtr CreateDevice(const char* className)
{
    IQsInterface* const object = CQsRTTI::CreateAndQuery(className, "IQsStimulationDevice", "no file", -1);
    auto* const device = dynamic_cast<IQsStimulationDevice*>(object);
    if (device == nullptr)
        return nullptr;
    return DevicePtr(device, [](IQsStimulationDevice* p) { CQsRTTI::Release(p); });
}

} // namespace QsTest

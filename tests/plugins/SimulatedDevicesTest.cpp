#include "SimulatedDevicesTest.h"

#include "standalone/HostControl.h"
#include "standalone/PluginManager.h"

#include <chrono>
#include <thread>

namespace QsTest {

DevicePtr MakeDevice(const std::string& className, const std::string& settings)
{
    static const QsStandalone::SModuleFile file = QsStandalone::CQsModules::ScanFile(QS_SIMULATED_DEVICES);
    EXPECT_EQ("", file.error);
    QsStandalone::SetDeviceSettings(className, settings);
    IQsInterface* object = CQsRTTI::CreateAndQuery(className.c_str(), "IQsStimulationDevice", "no file", -1);
    auto* device = dynamic_cast<IQsStimulationDevice*>(object);
    EXPECT_NE(nullptr, device) << className;
    return DevicePtr(device);
}

IQsStimulationDevice::SQsStimulationType Request(std::uint32_t kind, double durationMs, std::uint32_t repeat)
{
    IQsStimulationDevice::SQsStimulationType request;
    request.uiType = kind;
    request.dDurationMs = durationMs;
    request.uiRepeatCount = repeat;
    return request;
}

std::vector<SPulse> Pulses(const std::string& device)
{
    std::vector<SPulse> pulses;
    for (const QsStandalone::SJournalEntry& entry : QsStandalone::CQsJournal::Entries())
    {
        if (entry.device != device)
            continue;
        if (entry.kind == QsStandalone::EJournalKind::LightOn)
            pulses.push_back({entry.timeMs, -1.0});
        else if (entry.kind == QsStandalone::EJournalKind::LightOff)
        {
            EXPECT_FALSE(pulses.empty()) << "light off before any light";
            if (!pulses.empty())
            {
                EXPECT_EQ(-1.0, pulses.back().off) << "light off twice";
                pulses.back().off = entry.timeMs;
            }
        }
    }
    return pulses;
}

bool Eventually(const std::function<bool()>& condition)
{
    const double start = QS_GetTimeCounter();
    while (!condition())
    {
        if (QS_GetTimeCounter() - start > generousMs)
            return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return true;
}

} // namespace QsTest

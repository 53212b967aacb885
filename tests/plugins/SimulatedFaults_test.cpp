#include "SimulatedDevicesTest.h"

#include "manager/StimulationManager.h"
#include "standalone/HostControl.h"
#include "tests/support/OwnRegistry.h"

#include <atomic>
#include <future>
#include <stdexcept>

using namespace QsTest;
using QsStandalone::CQsJournal;
using testing::IsEmpty;

namespace {

const char* const patternClass = "CQsSimPatternDevice";
const char* const genericClass = "CQsSimGenericDevice";

std::atomic<unsigned> s_states{0};

void CountState(IQsStimulationDevice*, unsigned)
{
    ++s_states;
}

} // namespace

TEST(SimulatedFaults, AShotFailsWithoutLightAndTheNextOneWorks)
{
    const DevicePtr device =
        MakeDevice(patternClass, R"({"name": "P", "exposureMs": 1, "fireFault": {"atFire": 2, "status": -7}})");
    for (int round = 0; round < 2; ++round) // the shots of each stimulation are counted anew
    {
        CQsJournal::Clear();
        EXPECT_EQ(0, device->StimulationBegin(Request(3, 0.0, 3)));
        EXPECT_EQ(0, device->StimulationFire(Request(3), nullptr, nullptr));
        double begin = unwritten;
        double end = unwritten;
        EXPECT_EQ(-7, device->StimulationFire(Request(3), &begin, &end));
        EXPECT_EQ(-1.0, begin);
        EXPECT_EQ(-1.0, end);
        EXPECT_EQ(0, device->StimulationFire(Request(3), nullptr, nullptr));
        EXPECT_EQ(2u, Pulses("P").size());
        EXPECT_EQ(0, device->StimulationEnd(nullptr, nullptr, 0));
    }
}

TEST(SimulatedFaults, ABeginFailsWithoutLight)
{
    const DevicePtr device = MakeDevice(genericClass, R"({"name": "G", "beginStatus": -5, "endStatus": -6})");
    EXPECT_EQ(-5, device->StimulationBegin(Request(1)));
    EXPECT_EQ(-5, device->StimulationBegin(Request(2, longMs)));
    EXPECT_THAT(Pulses("G"), IsEmpty());
    double begin = unwritten;
    EXPECT_EQ(-6, device->StimulationEnd(&begin, nullptr, 1));
    EXPECT_EQ(-1.0, begin);
}

TEST(SimulatedFaults, AnEndThatFailsHasSwitchedOffTheLight)
{
    const DevicePtr device = MakeDevice(genericClass, R"({"name": "G", "endStatus": -6, "endMs": 5})");
    EXPECT_EQ(0, device->StimulationBegin(Request(1)));
    const double start = QS_GetTimeCounter();
    EXPECT_EQ(-6, device->StimulationEnd(nullptr, nullptr, 0));
    EXPECT_GE(QS_GetTimeCounter() - start, 5.0);
    EXPECT_THAT(CQsJournal::LitDevices(), IsEmpty());
}

TEST(SimulatedFaults, ADeviceThatThrowsIsDark)
{
    const DevicePtr begin = MakeDevice(patternClass, R"({"name": "B", "throws": "begin"})");
    for (const std::uint32_t kind : {1u, 2u, 3u})
        EXPECT_THROW(begin->StimulationBegin(Request(kind, longMs)), std::runtime_error) << kind;
    const DevicePtr fire = MakeDevice(patternClass, R"({"name": "F", "throws": "fire", "exposureMs": 60000})");
    EXPECT_EQ(0, fire->StimulationBegin(Request(3, 0.0, 1)));
    EXPECT_THROW(fire->StimulationFire(Request(3), nullptr, nullptr), std::runtime_error);
    EXPECT_EQ(1u, Pulses("F").size());
    const DevicePtr end = MakeDevice(patternClass, R"({"name": "E", "throws": "end"})");
    EXPECT_EQ(0, end->StimulationBegin(Request(1)));
    double time = unwritten;
    EXPECT_THROW(end->StimulationEnd(&time, nullptr, 1), std::runtime_error);
    EXPECT_GE(time, 0.0);
    EXPECT_THAT(CQsJournal::LitDevices(), IsEmpty());
}

TEST(SimulatedFaults, ADeafDeviceRefusesAbortsForAWhile)
{
    const DevicePtr device = MakeDevice(genericClass, R"({"name": "G", "ignoreAbortMs": 50})");
    EXPECT_EQ(0, device->StimulationAbort()); // nothing to be deaf about
    std::future<int> begun =
        std::async(std::launch::async, [&] { return device->StimulationBegin(Request(2, longMs)); });
    ASSERT_TRUE(Eventually([] { return !CQsJournal::LitDevices().empty(); }));
    bool refused = false;
    ASSERT_TRUE(Eventually(
        [&]
        {
            const bool done = device->StimulationAbort() == 0;
            refused = refused || !done;
            return done;
        }));
    EXPECT_EQ(0, begun.get());
    const std::vector<SPulse> pulses = Pulses("G");
    ASSERT_EQ(1u, pulses.size());
    // It was deaf from its begin, shortly before its light; where the test was slow, the first abort is late.
    EXPECT_TRUE(refused || pulses[0].off - pulses[0].on >= 25.0);
    EXPECT_LT(pulses[0].off - pulses[0].on, generousMs);
}

TEST(SimulatedFaults, ADeviceReportsItsStateFromAThreadOfItsOwn)
{
    const COwnRegistry registry;
    const DevicePtr device = MakeDevice(genericClass, R"({"name": "G", "stateCallback": true})");
    EXPECT_EQ(0, device->StimulationBegin(Request(1))); // without a manager nobody hears it
    EXPECT_EQ(0, device->StimulationEnd(nullptr, nullptr, 0));

    // The manager makes a device of every class that it knows; that one must not take our device's name.
    QsStandalone::SetDeviceSettings(genericClass, R"({"connected": false})");
    CQsStimulationDeviceManager* manager = CQsStimulationDeviceManager::GetInstance();
    EXPECT_EQ(0, manager->RegisterSimpleStimulationDevice(device.get()));
    EXPECT_EQ(0, manager->Update());
    EXPECT_EQ(0, manager->SetActive(L"G", false));
    manager->AddCallbackForDeviceStateChange(&CountState);
    EXPECT_EQ(0, device->StimulationBegin(Request(1)));
    EXPECT_TRUE(Eventually([] { return s_states > 0; }));
    EXPECT_EQ(0, device->StimulationEnd(nullptr, nullptr, 0));
    manager->RemoveCallbackForDeviceStateChange(&CountState);
    EXPECT_EQ(0, manager->UnregisterSimpleStimulationDevice(device.get()));
}

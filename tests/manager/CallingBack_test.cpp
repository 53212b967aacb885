// Devices and host functions that call the manager while it calls them.
#include "tests/manager/ManagerTest.h"

#include <future>
#include <ostream>

using namespace QsTest;
using ::testing::AllOf;
using ::testing::Each;
using ::testing::ElementsAre;
using ::testing::SizeIs;

namespace {

struct SQuestion
{
    const char* name;
    std::function<void()> CProbeDevice::*hook;
};

// Also how the test's parameter is printed.
std::ostream& operator<<(std::ostream& stream, const SQuestion& question)
{
    return stream << question.name;
}

std::string Name(const ::testing::TestParamInfo<SQuestion>& info)
{
    return info.param.name;
}

constexpr SQuestion s_questions[] = {{"WhetherItIsConnected", &CProbeDevice::onConnected},
                                     {"WhetherItIsVisible", &CProbeDevice::onVisible},
                                     {"ForItsName", &CProbeDevice::onName},
                                     {"ForItsIds", &CProbeDevice::onInfo}};

// The active device as another thread is told.
IQsStimulationDevice* AskOnAnotherThread()
{
    return std::async(std::launch::async, [] { return ManagerTest::M().GetActive(); }).get();
}

IQsStimulationDevice* s_asked[2];
int s_aborted;

void AskInCommand(unsigned)
{
    s_asked[0] = AskOnAnotherThread();
    s_asked[1] = ManagerTest::M().GetActive();
}

void AbortInCommand(unsigned)
{
    s_aborted = std::async(std::launch::async, [] { return ManagerTest::M().StimulationAbort(); }).get();
}

} // namespace

class AskedByUpdate : public ManagerTest, public ::testing::WithParamInterface<SQuestion>
{};

TEST_P(AskedByUpdate, ADeviceIsRefusedEveryChangeAndNothingIsLost)
{
    CWatchdog watchdog("changes out of a query");
    CQsFakeDevice& active = Active(L"A");
    auto& special = Special<CProbeDevice>(L"S");
    CQsFakeDevice& shutter = Shutter(L"T");
    CQsFakeDevice& optConf = OptConf(L"U");
    CQsFakeDevice& stranger = Make(L"Z");
    active.info.vecLogDevIds = {5};
    special.info.vecPhysDevIds = {6};
    ASSERT_EQ(0, M().Update());

    unsigned questions = 0;
    std::vector<int> refused;
    special.*GetParam().hook = [&]
    {
        ++questions;
        refused = {M().RegisterSimpleStimulationDevice(&stranger),
                   M().UnregisterSimpleStimulationDevice(&active),
                   M().Update(),
                   M().SetActive(L"A", false),
                   M().SetActive(L"S", false),
                   M().SetActiveV4(true),
                   M().SetActiveV4(false)};
        EXPECT_EQ(-13, M().SetActiveMru(0));
        M().SpecialDevicesAdd(&stranger);
        M().ShuttersAdd(&stranger);
        M().OptConfDevicesAdd(&stranger);
        M().SpecialDevicesRemoveAll();
        M().ShuttersRemoveAll();
        M().OptConfDevicesRemoveAll();
    };
    EXPECT_EQ(0, M().Update());
    special.*GetParam().hook = nullptr;
    EXPECT_EQ(1u, questions);
    EXPECT_THAT(refused, AllOf(SizeIs(7), Each(-9)));
    EXPECT_THAT(DeviceNames(), ElementsAre("A", "S", "T", "U"));
    EXPECT_THAT(Access::SpecialDevices(M()), ElementsAre(&special));
    EXPECT_THAT(Access::Shutters(M()), ElementsAre(&shutter));
    EXPECT_THAT(Access::OptConfDevices(M()), ElementsAre(&optConf));
    EXPECT_EQ(&active, M().GetActive());
    EXPECT_EQ(&special, M().GetDevice(L"S"));
    std::set<IQsStimulationDevice*> found;
    EXPECT_EQ(0, M().GetStimulationDevicesForLogDevId(5, found));
    EXPECT_THAT(found, ElementsAre(&active));
    EXPECT_EQ(0, M().GetStimulationDevicesForPhysDevId(6, found));
    EXPECT_THAT(found, ElementsAre(&special));
    EXPECT_EQ(1u, QsStandalone::ReferenceCount(&stranger));

    EXPECT_EQ(0, M().RegisterSimpleStimulationDevice(&stranger)); // the refusals end with the update
    EXPECT_EQ(0, M().Update());
    EXPECT_THAT(DeviceNames(), ElementsAre("A", "S", "T", "U", "Z"));
}

INSTANTIATE_TEST_SUITE_P(Each, AskedByUpdate, ::testing::ValuesIn(s_questions), Name);

class CallingBackOnDatabase : public DatabaseManagerTest
{
public:
    CallingBackOnDatabase()
    {
        Access::SetBeampathDevices(M(), {{4, &m_device}});
        Access::SetActiveBeampathId(M(), 4);
    }
    ~CallingBackOnDatabase() override { Access::SetBeampathDevices(M(), {}); }

protected:
    CWatchdog m_watchdog{"a call back"};
    CProbeDevice& m_device = Make<CProbeDevice>(L"beampath");
};

TEST_F(CallingBackOnDatabase, ACommandFunctionAsksForTheActiveDeviceBesideAnotherThread)
{
    M().AddCallbackForStimulationOCCommand(&AskInCommand);
    s_asked[0] = s_asked[1] = nullptr;
    M().FireCallbackForStimulationOCCommand(Manager::eOCCommandStimulationBegin);
    EXPECT_THAT(s_asked, Each(&m_device));
}

TEST_F(CallingBackOnDatabase, ACommandFunctionDoesNotHoldAnAbortBack)
{
    M().AddCallbackForStimulationOCCommand(&AbortInCommand);
    s_aborted = 1;
    m_device.iAbortResult = -3;
    M().FireCallbackForStimulationOCCommand(Manager::eOCCommandStimulationBegin);
    EXPECT_EQ(-3, s_aborted);
    EXPECT_EQ(1u, m_device.log.Count("StimulationAbort()"));
}

TEST_F(CallingBackOnDatabase, ADeviceAnnouncesItsStateOutOfAFeatureQueryBesideAThreadThatAsksForTheActiveDevice)
{
    unsigned queries = 0;
    m_device.onFeature = [&]
    {
        ++queries;
        EXPECT_EQ(&m_device, AskOnAnotherThread());
        m_device.DeviceStateChangedCallback(1);
    };
    std::atomic<bool> bDone{false};
    std::thread asking(
        [&]
        {
            while (!bDone)
                EXPECT_EQ(&m_device, M().GetActive());
        });
    for (unsigned i = 0; i < 50; ++i)
        EXPECT_FALSE(M().QueryFeatureSupported(1));
    bDone = true;
    asking.join();
    EXPECT_EQ(50u, queries);
    m_device.onFeature = nullptr;
}

// Callbacks and listeners.
#include "tests/manager/ManagerTest.h"

#include <algorithm>
#include <array>
#include <future>

using namespace QsTest;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

namespace {

CCallLog& Calls()
{
    static CCallLog log;
    return log;
}

// Several functions that tell themselves apart, for callbacks of each kind.
template <int N>
void OnChange(unsigned code)
{
    Calls().Add(std::to_string(N) + " change " + std::to_string(code));
}
template <int N>
void OnState(IQsStimulationDevice* device, unsigned state)
{
    Calls().Add(std::to_string(N) + " state " + device->GetUniqueName().ToUtf8() + " " + std::to_string(state));
}
template <int N>
void OnCommand(unsigned command)
{
    Calls().Add(std::to_string(N) + " command " + std::to_string(command));
}

// The number of each function, in ascending order of their addresses.
template <class Function>
std::vector<int> ByAddress(const std::array<Function, 4>& functions)
{
    std::vector<int> order = {0, 1, 2, 3};
    std::sort(order.begin(), order.end(),
              [&functions](int a, int b) {
                  return std::less<Function>()(functions[static_cast<std::size_t>(a)],
                                               functions[static_cast<std::size_t>(b)]);
              });
    return order;
}

std::vector<std::string> InOrder(const std::vector<int>& order, const std::string& entry)
{
    std::vector<std::string> expected;
    for (const int number : order)
        expected.push_back(std::to_string(number) + entry);
    return expected;
}

const std::array<Manager::ChangeCallback, 4> s_changes = {&OnChange<0>, &OnChange<1>, &OnChange<2>, &OnChange<3>};
const std::array<Manager::DeviceStateCallback, 4> s_states = {&OnState<0>, &OnState<1>, &OnState<2>, &OnState<3>};
const std::array<Manager::OCCommandCallback, 4> s_commands = {&OnCommand<0>, &OnCommand<1>, &OnCommand<2>,
                                                              &OnCommand<3>};

class CListener final : public IQsStimulationDeviceManagerEventListener
{
public:
    int AvailableStimulationDevicesChanged() override
    {
        const int answer = iCalls++ == 0 ? iFirst : iSecond;
        if (onCall)
            onCall();
        return answer;
    }

    int iFirst = 0;
    int iSecond = 0;
    unsigned iCalls = 0;
    std::function<void()> onCall;
};

} // namespace

class Notifications : public ManagerTest
{
public:
    Notifications() { Calls().Clear(); }

    // Listeners in ascending order of their addresses, since they are elements of one array.
    std::array<CListener, 4> m_listeners;
    ~Notifications() override
    {
        if (Manager* const manager = Manager::InstanceIfExists())
            for (CListener& listener : m_listeners)
                manager->UnregisterStimulationDeviceManagerEventListener(&listener);
    }
};

TEST_F(Notifications, CallEachChangeFunctionOnceInOrderOfTheirAddresses)
{
    for (const auto callback : {s_changes[2], s_changes[0], s_changes[3], s_changes[1], s_changes[0]})
        M().AddCallbackForChange(callback);
    M().FireCallbackForChange(64);
    EXPECT_EQ(InOrder(ByAddress(s_changes), " change 64"), Calls().Entries());
}

TEST_F(Notifications, CallEachStateFunctionOnceInOrderOfTheirAddresses)
{
    CQsFakeDevice& device = Active(L"A");
    for (const auto callback : {s_states[2], s_states[0], s_states[3], s_states[1], s_states[0]})
        M().AddCallbackForDeviceStateChange(callback);
    M().FireCallbackForDeviceStateChange(&device, 9);
    EXPECT_EQ(InOrder(ByAddress(s_states), " state A 9"), Calls().Entries());
}

TEST_F(Notifications, CallEachCommandFunctionOnceInOrderOfTheirAddresses)
{
    for (const auto callback : {s_commands[2], s_commands[0], s_commands[3], s_commands[1], s_commands[0]})
        M().AddCallbackForStimulationOCCommand(callback);
    M().FireCallbackForStimulationOCCommand(Manager::eOCCommandStimulationEnd);
    EXPECT_EQ(InOrder(ByAddress(s_commands), " command 16"), Calls().Entries());
}

TEST_F(Notifications, HandTheCodeThroughAsItIs)
{
    M().AddCallbackForChange(s_changes[0]);
    M().FireCallbackForChange(0);
    M().FireCallbackForChange(0xFFFFFFFFu);
    M().AddCallbackForStimulationOCCommand(s_commands[0]);
    M().FireCallbackForStimulationOCCommand(Manager::eOCCommandStimulationBegin);
    M().FireCallbackForStimulationOCCommand(Manager::eOCCommandStimulationPhase);
    EXPECT_THAT(Calls().Entries(), ElementsAre("0 change 0", "0 change 4294967295", "0 command 1", "0 command 2"));
}

TEST_F(Notifications, EndWithTheRemovalOfTheFunction)
{
    CQsFakeDevice& device = Active(L"A");
    M().RemoveCallbackForChange(s_changes[0]); // never added: harmless
    M().RemoveCallbackForDeviceStateChange(s_states[0]);
    M().RemoveCallbackForStimulationOCCommand(s_commands[0]);
    M().AddCallbackForChange(s_changes[0]);
    M().AddCallbackForDeviceStateChange(s_states[0]);
    M().AddCallbackForStimulationOCCommand(s_commands[0]);
    M().RemoveCallbackForChange(s_changes[0]);
    M().RemoveCallbackForDeviceStateChange(s_states[0]);
    M().RemoveCallbackForStimulationOCCommand(s_commands[0]);
    M().FireCallbackForChange(1);
    M().FireCallbackForDeviceStateChange(&device, 1);
    M().FireCallbackForStimulationOCCommand(Manager::eOCCommandStimulationBegin);
    EXPECT_THAT(Calls().Entries(), IsEmpty());
}

TEST_F(Notifications, PassOverNoFunctionAndNoListener)
{
    CQsFakeDevice& device = Active(L"A");
    M().AddCallbackForChange(nullptr);
    M().AddCallbackForDeviceStateChange(nullptr);
    M().AddCallbackForStimulationOCCommand(nullptr);
    M().RegisterStimulationDeviceManagerEventListener(nullptr);
    M().AddCallbackForChange(s_changes[0]);
    M().FireCallbackForChange(1);
    M().FireCallbackForDeviceStateChange(&device, 1);
    M().FireCallbackForStimulationOCCommand(Manager::eOCCommandStimulationBegin);
    EXPECT_THAT(Calls().Entries(), ElementsAre("0 change 1"));
    EXPECT_EQ(0, M().NotifyStimulationDeviceManagerEventListeners());
}

TEST_F(Notifications, OfADevicesStateAreForTheActiveEntrysDeviceOnly)
{
    CQsFakeDevice& other = Simple(L"B");
    CQsFakeDevice& device = Active(L"A");
    M().AddCallbackForDeviceStateChange(s_states[0]);
    other.DeviceStateChangedCallback(3);
    M().FireCallbackForDeviceStateChange(nullptr, 3);
    EXPECT_THAT(Calls().Entries(), IsEmpty());
    device.DeviceStateChangedCallback(3);
    EXPECT_THAT(Calls().Entries(), ElementsAre("0 state A 3"));
    M().UnregisterSimpleStimulationDevice(&device); // now none is active
    device.DeviceStateChangedCallback(3);
    M().FireCallbackForDeviceStateChange(nullptr, 3);
    EXPECT_EQ(1u, Calls().Entries().size());
}

TEST_F(Notifications, OfADevicesStateNeedNoManager)
{
    CQsFakeDevice& device = Make(L"A");
    device.DeviceStateChangedCallback(3);
    EXPECT_EQ(nullptr, Manager::InstanceIfExists());
}

TEST_F(Notifications, OfADevicesStateRunUnderTheRegistryLock)
{
    static std::atomic<bool> s_bOtherGotIt;
    static std::atomic<bool> s_bOtherHadToWait;
    static std::thread s_other;
    s_bOtherGotIt = false;
    s_bOtherHadToWait = false;
    CQsFakeDevice& device = Active(L"A");
    M().AddCallbackForDeviceStateChange(
        [](IQsStimulationDevice*, unsigned)
        {
            std::atomic<bool> bRuns{false};
            s_other = std::thread(
                [&bRuns]
                {
                    bRuns = true;
                    M().GetDevice(L"A");
                    s_bOtherGotIt = true;
                });
            while (!bRuns)
                std::this_thread::yield();
            // However fast the other thread is, it cannot be through before this function returns.
            for (int i = 0; i < 1000; ++i)
                std::this_thread::yield();
            s_bOtherHadToWait = !s_bOtherGotIt;
            M().GetDevice(L"A"); // this thread has the lock already
        });
    device.DeviceStateChangedCallback(3);
    s_other.join();
    EXPECT_TRUE(s_bOtherHadToWait);
    EXPECT_TRUE(s_bOtherGotIt);
}

TEST_F(Notifications, OfADevicesStateReachTheDeviceOfTheEntryAlsoInDatabaseMode)
{
    QsStandalone::SetDeviceDatabaseInitialized(true);
    CQsFakeDevice& beampath = Make(L"beampath");
    CQsFakeDevice& device = Simple(L"A");
    M().Update();
    Access::SetBeampathDevices(M(), {{1, &beampath}});
    Access::SetActiveBeampathId(M(), 1);
    ASSERT_EQ(&beampath, M().GetActive());
    M().AddCallbackForDeviceStateChange(s_states[0]);
    beampath.DeviceStateChangedCallback(4);
    EXPECT_THAT(Calls().Entries(), IsEmpty());
    device.DeviceStateChangedCallback(4);
    EXPECT_THAT(Calls().Entries(), ElementsAre("0 state A 4"));
    Access::SetBeampathDevices(M(), {});
}

TEST_F(Notifications, MayBeFiredByAFunctionThatIsBeingCalled)
{
    CWatchdog watchdog("a callback that fires");
    CQsFakeDevice& device = Active(L"A");
    static IQsStimulationDevice* s_device = nullptr;
    s_device = &device;
    M().AddCallbackForStimulationOCCommand(
        [](unsigned command)
        {
            Calls().Add("command " + std::to_string(command));
            if (command == 1)
                M().FireCallbackForStimulationOCCommand(Manager::eOCCommandStimulationPhase);
        });
    M().AddCallbackForDeviceStateChange(
        [](IQsStimulationDevice*, unsigned state)
        {
            Calls().Add("state " + std::to_string(state));
            if (state == 1)
                s_device->DeviceStateChangedCallback(2);
        });
    M().AddCallbackForChange(
        [](unsigned code)
        {
            Calls().Add("change " + std::to_string(code));
            if (code == 1)
                M().FireCallbackForChange(2);
        });
    M().FireCallbackForStimulationOCCommand(Manager::eOCCommandStimulationBegin);
    device.DeviceStateChangedCallback(1);
    M().FireCallbackForChange(1);
    EXPECT_THAT(Calls().Entries(), ElementsAre("command 1", "command 2", "state 1", "state 2", "change 1", "change 2"));
}

TEST_F(Notifications, SeeFunctionsThatAreAddedAndRemovedMeanwhileAtTheNextFiring)
{
    M().AddCallbackForChange(
        [](unsigned code)
        {
            Calls().Add("adder " + std::to_string(code));
            for (const auto callback : s_changes)
            {
                M().RemoveCallbackForChange(callback);
                if (code == 1)
                    M().AddCallbackForChange(callback);
            }
        });
    M().FireCallbackForChange(1);
    EXPECT_THAT(Calls().Entries(), ElementsAre("adder 1"));
    Calls().Clear();
    M().FireCallbackForChange(2);
    EXPECT_EQ(5u, Calls().Entries().size());
    Calls().Clear();
    M().FireCallbackForChange(2);
    EXPECT_THAT(Calls().Entries(), ElementsAre("adder 2"));
}

TEST_F(Notifications, MayGoBesideAChangeOfTheSets)
{
    std::atomic<bool> bDone{false};
    std::thread changer(
        [&bDone]
        {
            while (!bDone)
            {
                for (const auto callback : s_changes)
                    M().AddCallbackForChange(callback);
                for (const auto callback : s_changes)
                    M().RemoveCallbackForChange(callback);
            }
        });
    for (int i = 0; i < 2000; ++i)
        M().FireCallbackForChange(1);
    bDone = true;
    changer.join();
    for (const std::string& entry : Calls().Entries())
        ASSERT_EQ(" change 1", entry.substr(1));
    M().FireCallbackForChange(2);
    EXPECT_EQ(0u, Calls().Count("0 change 2"));
}

namespace {

CGate* s_inside; // opened by the first command function that runs
CGate* s_leave;  // and what it waits for

void WaitInCommand(unsigned command)
{
    Calls().Add("begin " + std::to_string(command));
    s_inside->Open();
    s_leave->Pass();
    Calls().Add("end " + std::to_string(command));
}

} // namespace

TEST_F(Notifications, OfCommandsWaitForTheOneThatIsBeingHandled)
{
    CWatchdog watchdog("two commands");
    CGate inside;
    CGate leave;
    s_inside = &inside;
    s_leave = &leave;
    M().AddCallbackForStimulationOCCommand(&WaitInCommand);
    std::thread first([] { M().FireCallbackForStimulationOCCommand(Manager::eOCCommandStimulationBegin); });
    inside.Pass();
    auto second = std::async(std::launch::async,
                             [] { M().FireCallbackForStimulationOCCommand(Manager::eOCCommandStimulationEnd); });
    EXPECT_EQ(std::future_status::timeout, second.wait_for(std::chrono::milliseconds(40)));
    leave.Open();
    first.join();
    second.get();
    EXPECT_THAT(Calls().Entries(), ElementsAre("begin 1", "end 1", "begin 16", "end 16"));
}

// ---------------------------------------------------------------------------------------------------------- listeners

TEST_F(Notifications, OfListenersGiveTheReferenceValues)
{
    for (const Json* const vector : VectorsOf("NotifyStimulationDeviceManagerEventListeners"))
    {
        SCOPED_TRACE(Member(*vector, "id").GetString());
        const auto answers = Member(*vector, "input").GetArray();
        ASSERT_LE(answers.Size(), m_listeners.size());
        for (rapidjson::SizeType i = 0; i < answers.Size(); ++i)
        {
            m_listeners[i].iFirst = answers[i][0].GetInt();
            m_listeners[i].iSecond = answers[i][1].GetInt();
            m_listeners[i].iCalls = 0;
            M().RegisterStimulationDeviceManagerEventListener(&m_listeners[i]);
        }
        const Json& output = Member(*vector, "output");
        EXPECT_EQ(Member(output, "result").GetInt(), M().NotifyStimulationDeviceManagerEventListeners());
        const auto calls = Member(output, "calls").GetArray();
        for (rapidjson::SizeType i = 0; i < answers.Size(); ++i)
        {
            EXPECT_EQ(calls[i].GetUint(), m_listeners[i].iCalls) << i;
            M().UnregisterStimulationDeviceManagerEventListener(&m_listeners[i]);
        }
    }
}

TEST_F(Notifications, AskAListenerAgainOnlyWhenItIsWorseThanTheResultSoFar)
{
    struct SCase
    {
        std::vector<std::pair<int, int>> answers;
        int result;
        std::vector<unsigned> calls;
    };
    const SCase cases[] = {
        {{}, 0, {}},
        {{{-9, -9}}, -9, {2}},
        {{{-9, -9}, {-2, -2}}, -9, {2, 1}}, // the second is not worse than the first
        {{{-9, -2}, {-2, -5}}, -2, {2, 1}}, // nor is it when the first took its answer back
        {{{-9, 0}}, 0, {2}},                // the second answer counts, also when it is better
        {{{-9, 7}, {0, -3}}, -3, {2, 2}},   // and then the next is measured against that
        {{{-1, -8}, {-8, -8}, {-9, -1}}, -1, {2, 1, 2}},
    };
    for (const SCase& expected : cases)
    {
        for (std::size_t i = 0; i < expected.answers.size(); ++i)
        {
            m_listeners[i].iFirst = expected.answers[i].first;
            m_listeners[i].iSecond = expected.answers[i].second;
            m_listeners[i].iCalls = 0;
            M().RegisterStimulationDeviceManagerEventListener(&m_listeners[i]);
            M().RegisterStimulationDeviceManagerEventListener(&m_listeners[i]);
        }
        EXPECT_EQ(expected.result, M().NotifyStimulationDeviceManagerEventListeners());
        for (std::size_t i = 0; i < expected.answers.size(); ++i)
        {
            EXPECT_EQ(expected.calls[i], m_listeners[i].iCalls) << i;
            M().UnregisterStimulationDeviceManagerEventListener(&m_listeners[i]);
        }
    }
}

TEST_F(Notifications, DoNotReachAListenerThatAnEarlierOneUnregistered)
{
    M().RegisterStimulationDeviceManagerEventListener(&m_listeners[0]);
    M().RegisterStimulationDeviceManagerEventListener(&m_listeners[1]);
    m_listeners[0].onCall = [this] { M().UnregisterStimulationDeviceManagerEventListener(&m_listeners[1]); };
    EXPECT_EQ(0, M().NotifyStimulationDeviceManagerEventListeners());
    EXPECT_EQ(1u, m_listeners[0].iCalls);
    EXPECT_EQ(0u, m_listeners[1].iCalls);
}

TEST_F(Notifications, LetAListenerRegisterAndNotify)
{
    CWatchdog watchdog("a listener that registers");
    M().RegisterStimulationDeviceManagerEventListener(&m_listeners[0]);
    m_listeners[1].iFirst = m_listeners[1].iSecond = -9;
    m_listeners[0].onCall = [this]
    {
        if (m_listeners[0].iCalls > 1)
            return;
        M().RegisterStimulationDeviceManagerEventListener(&m_listeners[1]);
        EXPECT_EQ(-9, M().NotifyStimulationDeviceManagerEventListeners());
    };
    EXPECT_EQ(0, M().NotifyStimulationDeviceManagerEventListeners());
    EXPECT_EQ(2u, m_listeners[0].iCalls);
    EXPECT_EQ(2u, m_listeners[1].iCalls);
}

TEST_F(Notifications, DoNotAskAListenerAgainThatUnregisteredItselfWithABadAnswer)
{
    CListener& leaving = m_listeners[0];
    leaving.iFirst = leaving.iSecond = -9;
    leaving.onCall = [&leaving] { M().UnregisterStimulationDeviceManagerEventListener(&leaving); };
    M().RegisterStimulationDeviceManagerEventListener(&leaving);
    M().RegisterStimulationDeviceManagerEventListener(&m_listeners[1]);
    M().NotifyStimulationDeviceManagerEventListeners();
    EXPECT_EQ(1u, leaving.iCalls);
    EXPECT_EQ(1u, m_listeners[1].iCalls);
    EXPECT_EQ(0, M().NotifyStimulationDeviceManagerEventListeners());
    EXPECT_EQ(1u, leaving.iCalls);
}

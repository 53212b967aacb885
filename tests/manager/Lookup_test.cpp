// Lookups by text and by id, and the questions to the devices of the beampaths.
#include "tests/manager/ManagerTest.h"

using namespace QsTest;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::UnorderedElementsAre;

class Lookup : public ManagerTest
{
public:
    // Position of the device that `text` means among static devices of those names; nothing when there is none.
    std::optional<std::size_t> Find(const std::wstring& text, const std::vector<std::wstring>& names)
    {
        std::vector<IQsStimulationDevice*> devices;
        for (const std::wstring& name : names)
            devices.push_back(&Static(name.c_str()));
        return Position(devices, M().FindStimulationDeviceByNameIntelligent(text.c_str()));
    }

    // The same for extended devices; a name that is not there stands for a device that is none.
    std::optional<std::size_t> FindEx(const std::wstring& text, const std::vector<std::optional<std::wstring>>& names)
    {
        std::vector<IQsStimulationDeviceEx*> devices;
        for (const auto& name : names)
        {
            if (name)
                devices.push_back(&Static<CQsFakeDeviceEx>(name->c_str()));
            else
            {
                Static(L"Alpha");
                devices.push_back(nullptr);
            }
        }
        return Position(devices, M().FindExStimulationDeviceByNameIntelligent(text.c_str()));
    }

    void ForgetStaticDevices()
    {
        while (!Access::StaticDevices(M()).empty())
        {
            const Manager::SQsDeviceInfo info = Access::StaticDevices(M()).front();
            ASSERT_EQ(0, M().StaticDeviceRemove(info.sClassName.c_str()));
            CQsRTTI::Release(info.pDevice);
        }
    }

private:
    template <class Interface>
    static std::optional<std::size_t> Position(const std::vector<Interface*>& devices, Interface* found)
    {
        if (found == nullptr)
            return std::nullopt;
        const auto position = std::find(devices.begin(), devices.end(), found);
        EXPECT_NE(devices.end(), position) << "a device that nobody made";
        return static_cast<std::size_t>(position - devices.begin());
    }
};
class LookupOnDatabase : public DatabaseManagerTest
{};

namespace {

std::optional<std::size_t> ExpectedPosition(const Json& vector)
{
    const Json& output = Member(vector, "output");
    return output.IsNull() ? std::nullopt : std::optional<std::size_t>(output.GetUint());
}

const std::vector<std::wstring> s_names = {L"Alpha Laser", L"Alpha Lamp", L"Beta"};

} // namespace

TEST_F(Lookup, ByTextGivesTheReferenceValues)
{
    for (const Json* const vector : VectorsOf("FindStimulationDeviceByNameIntelligent"))
    {
        SCOPED_TRACE(Member(*vector, "id").GetString());
        const Json& input = Member(*vector, "input");
        std::vector<std::wstring> names;
        for (const Json& name : Member(input, "names").GetArray())
            names.push_back(ToWide(name));
        EXPECT_EQ(ExpectedPosition(*vector), Find(ToWide(Member(input, "text")), names));
        ForgetStaticDevices();
    }
}

TEST_F(Lookup, OfExtendedDevicesByTextGivesTheReferenceValues)
{
    for (const Json* const vector : VectorsOf("FindExStimulationDeviceByNameIntelligent"))
    {
        SCOPED_TRACE(Member(*vector, "id").GetString());
        const Json& input = Member(*vector, "input");
        std::vector<std::optional<std::wstring>> names;
        for (const Json& name : Member(input, "names").GetArray())
            names.push_back(name.IsNull() ? std::nullopt : std::optional<std::wstring>(ToWide(name)));
        EXPECT_EQ(ExpectedPosition(*vector), FindEx(ToWide(Member(input, "text")), names));
        ForgetStaticDevices();
    }
}

TEST_F(Lookup, PrefersTheEqualNameToAnEarlierOneThatContainsTheText)
{
    EXPECT_EQ(1u, Find(L"Lamp", {L"Alpha Lamp", L"Lamp", L"Lamp 2"}));
}

TEST_F(Lookup, PrefersANameThatContainsTheTextToALongerCommonPrefix)
{
    EXPECT_EQ(1u, Find(L"Lamp", {L"Lam", L"Alpha Lamp"}));
}

TEST_F(Lookup, TakesTheLongestCommonPrefixAndTheEarlierOfTwoEqualOnes)
{
    // "Alpha Lx": both Alpha devices share "Alpha L", so the earlier one stays.
    EXPECT_EQ(0u, Find(L"Alpha Lx", s_names));
    ForgetStaticDevices();
    // "Alpha Lampe" shares ten characters with the second and seven with the first.
    EXPECT_EQ(1u, Find(L"Alpha Lampe", s_names));
}

TEST_F(Lookup, DoesNotCountTheLastCharacterOfANameOrOfTheText)
{
    // One common character scores 0 when it is the name's only one, which is not better than nothing.
    EXPECT_EQ(0u, Find(L"Bx", {L"Alpha", L"B"}));
    ForgetStaticDevices();
    // With two characters in both the second position is reached although it differs: a score of 1.
    EXPECT_EQ(1u, Find(L"Bx", {L"Alpha", L"Bz"}));
    ForgetStaticDevices();
    // A text of one character is found where it is contained, by whatever position.
    EXPECT_EQ(1u, Find(L"q", {L"Alpha", L"qq"}));
}

TEST_F(Lookup, MindsTheCase)
{
    EXPECT_EQ(0u, Find(L"beta", s_names));
    ForgetStaticDevices();
    EXPECT_EQ(2u, Find(L"Beta", s_names));
}

TEST_F(Lookup, FallsBackToTheFirstDeviceWhenNothingMatches)
{
    EXPECT_EQ(0u, Find(L"zzz", s_names));
    ForgetStaticDevices();
    // No name contains anything of the text; the empty name scores nothing.
    EXPECT_EQ(0u, Find(L"zzz", {L"", L"Alpha"}));
}

TEST_F(Lookup, FindsTheFirstDeviceForNoText)
{
    EXPECT_EQ(0u, Find(L"", s_names));
    ForgetStaticDevices();
    // The empty text is equal to the empty name.
    EXPECT_EQ(1u, Find(L"", {L"Alpha", L""}));
    EXPECT_NE(nullptr, M().FindStimulationDeviceByNameIntelligent(nullptr));
}

TEST_F(Lookup, FindsNothingWithoutStaticDevices)
{
    Simple(L"A");
    Special(L"S");
    M().Update();
    EXPECT_EQ(nullptr, M().FindStimulationDeviceByNameIntelligent(L"A"));
    EXPECT_EQ(nullptr, M().FindExStimulationDeviceByNameIntelligent(L"A"));
}

TEST_F(Lookup, PassesOverClassesWithoutAnObject)
{
    M().StaticDeviceAdd({"CQsNotCreated", L"nowhere"});
    EXPECT_EQ(nullptr, M().FindStimulationDeviceByNameIntelligent(L"A"));
    EXPECT_EQ(nullptr, M().FindExStimulationDeviceByNameIntelligent(L"A"));
    CQsFakeDeviceEx& device = Static<CQsFakeDeviceEx>(L"Alpha");
    EXPECT_EQ(&device, M().FindStimulationDeviceByNameIntelligent(L"zzz"));
    EXPECT_EQ(&device, M().FindExStimulationDeviceByNameIntelligent(L"zzz"));
}

TEST_F(Lookup, OfExtendedDevicesPassesOverTheOthers)
{
    // The first device has the very name, but is no extended one.
    EXPECT_EQ(1u, FindEx(L"Alpha", {std::nullopt, L"Alpha Ex"}));
    ForgetStaticDevices();
    EXPECT_EQ(2u, FindEx(L"Beta", {std::nullopt, L"Beta 2", L"Beta"}));
    ForgetStaticDevices();
    EXPECT_EQ(2u, FindEx(L"Alpha Lx", {L"Alpha", std::nullopt, L"Alpha Laser"}));
}

TEST_F(Lookup, OfExtendedDevicesTakesTheFirstNamedOneWhenNothingMatches)
{
    EXPECT_EQ(1u, FindEx(L"zzz", {std::nullopt, L"Alpha", L"Beta"}));
    ForgetStaticDevices();
    EXPECT_EQ(std::nullopt, FindEx(L"zzz", {L""}));
    ForgetStaticDevices();
    // The empty text occurs in every name.
    EXPECT_EQ(1u, FindEx(L"", {std::nullopt, L"Alpha"}));
}

TEST_F(Lookup, LeavesTheReferencesOfTheDevicesAsTheyAre)
{
    CQsFakeDeviceEx& first = Static<CQsFakeDeviceEx>(L"Alpha");
    CQsFakeDeviceEx& second = Static<CQsFakeDeviceEx>(L"Beta");
    EXPECT_EQ(&second, M().FindExStimulationDeviceByNameIntelligent(L"Bet"));
    EXPECT_EQ(&second, M().FindStimulationDeviceByNameIntelligent(L"Bet"));
    EXPECT_EQ(2u, QsStandalone::ReferenceCount(static_cast<CQsFakeDevice*>(&first)));
    EXPECT_EQ(2u, QsStandalone::ReferenceCount(static_cast<CQsFakeDevice*>(&second)));
}

TEST_F(Lookup, ByIdEmptiesTheResultAndFailsForAnUnknownId)
{
    CQsFakeDevice& device = Active(L"A");
    std::set<IQsStimulationDevice*> found = {&device};
    EXPECT_EQ(-9, M().GetStimulationDevicesForLogDevId(3, found));
    EXPECT_THAT(found, IsEmpty());
    found = {&device};
    EXPECT_EQ(-9, M().GetStimulationDevicesForPhysDevId(3, found));
    EXPECT_THAT(found, IsEmpty());
}

TEST_F(Lookup, ByIdGivesEveryDeviceOfTheIdAndNoneForZero)
{
    CQsFakeDevice& a = Simple(L"A");
    CQsFakeDevice& b = Simple(L"B");
    a.info.vecLogDevIds = {5, 0, 5};
    a.info.vecPhysDevIds = {70, 0, 71};
    b.info.vecLogDevIds = {5, 6};
    b.info.vecPhysDevIds = {70};
    M().Update();
    std::set<IQsStimulationDevice*> found;
    EXPECT_EQ(0, M().GetStimulationDevicesForLogDevId(5, found));
    EXPECT_THAT(found, UnorderedElementsAre(&a, &b));
    EXPECT_EQ(0, M().GetStimulationDevicesForLogDevId(6, found));
    EXPECT_THAT(found, UnorderedElementsAre(&b));
    EXPECT_EQ(-9, M().GetStimulationDevicesForLogDevId(0, found));
    EXPECT_EQ(-9, M().GetStimulationDevicesForLogDevId(70, found));
    EXPECT_EQ(0, M().GetStimulationDevicesForPhysDevId(70, found));
    EXPECT_THAT(found, UnorderedElementsAre(&a, &b));
    EXPECT_EQ(0, M().GetStimulationDevicesForPhysDevId(71, found));
    EXPECT_THAT(found, UnorderedElementsAre(&a));
    EXPECT_EQ(-9, M().GetStimulationDevicesForPhysDevId(0, found));
}

TEST_F(Lookup, ByIdDoesNotWaitForTheRegistryLock)
{
    CQsFakeDevice& device = Simple(L"A");
    device.info.vecLogDevIds = {5};
    M().Update();
    CWatchdog watchdog("a lookup by id beside a held registry lock");
    const CQsScopedLock<CQsRegistryLock> lock(Access::LockR(M()));
    std::set<IQsStimulationDevice*> found;
    std::thread other([&found] { EXPECT_EQ(0, M().GetStimulationDevicesForLogDevId(5, found)); });
    other.join();
    EXPECT_THAT(found, UnorderedElementsAre(&device));
}

TEST_F(Lookup, ForgetsTheIdsOfAnEarlierUpdate)
{
    CQsFakeDevice& device = Simple(L"A");
    device.info.vecLogDevIds = {5};
    M().Update();
    device.info.vecLogDevIds = {6};
    M().Update();
    std::set<IQsStimulationDevice*> found;
    EXPECT_EQ(-9, M().GetStimulationDevicesForLogDevId(5, found));
    EXPECT_EQ(0, M().GetStimulationDevicesForLogDevId(6, found));
}

TEST_F(LookupOnDatabase, AsksTheBeampathsForAFeatureInOrderOfTheirIdsUntilOneHasIt)
{
    CQsFakeDevice& first = Make(L"first");
    CQsFakeDevice& second = Make(L"second");
    CQsFakeDevice& third = Make(L"third");
    second.supportedFeatures = {7};
    second.enabledFeatures = {8};
    third.supportedFeatures = {7, 9};
    third.enabledFeatures = {8, 9};
    Access::SetBeampathDevices(M(), {{1, nullptr}, {2, &first}, {-3, nullptr}, {10, &second}, {11, &third}});

    EXPECT_TRUE(M().QueryFeatureSupported(7));
    EXPECT_EQ(1u, first.queries.Count("IsFeatureSupported()"));
    EXPECT_EQ(1u, second.queries.Count("IsFeatureSupported()"));
    EXPECT_EQ(0u, third.queries.Count("IsFeatureSupported()"));
    EXPECT_TRUE(M().QueryFeatureEnabled(8));
    EXPECT_EQ(1u, first.queries.Count("IsFeatureEnabled()"));
    EXPECT_EQ(0u, third.queries.Count("IsFeatureEnabled()"));
    EXPECT_TRUE(M().QueryFeatureSupported(9));
    EXPECT_TRUE(M().QueryFeatureEnabled(9));
    EXPECT_FALSE(M().QueryFeatureSupported(8));
    EXPECT_FALSE(M().QueryFeatureEnabled(7));
    Access::SetBeampathDevices(M(), {});
    EXPECT_FALSE(M().QueryFeatureSupported(7));
}

// What the manager writes into the real registry, as the system's own tool finds it.
#include "tests/manager/ManagerTest.h"
#include "tests/support/windows/RegistryTool.h"

using namespace QsTest;
using ::testing::ElementsAre;
using ::testing::UnorderedElementsAre;

namespace {

constexpr wchar_t s_path[] = L"Software\\Corvane\\Misc\\StimulationDeviceManager";

std::optional<std::vector<SToolValue>> Found(HKEY root)
{
    return AskRegistryTool(root, "Software\\Corvane\\Misc\\StimulationDeviceManager");
}

} // namespace

// Without the fixture's own registry; the user's values are there again afterwards.
class RegistryTool : public ManagerTest
{
protected:
    void SetUp() override
    {
        QsPlatform::UseOwnRegistry("");
        m_users.emplace(HKEY_CURRENT_USER, s_path);
        m_machines.emplace(HKEY_LOCAL_MACHINE, s_path);
        if (!m_machines->MayBeMade())
            GTEST_SKIP() << "this user may not write the machine's registry";
    }
    void TearDown() override
    {
        m_users.reset();
        m_machines.reset();
    }

private:
    std::optional<CBorrowedKey> m_users, m_machines;
};

TEST_F(RegistryTool, FindsTheOptionsBelowTheMachineAndTheSavedDevicesBelowTheUser)
{
    EXPECT_EQ(std::nullopt, Found(HKEY_LOCAL_MACHINE));
    EXPECT_THAT(Mru(), ElementsAre(s_v4Name, s_hx4Name)); // makes the manager
    const std::vector<SToolValue> nothing;
    EXPECT_EQ(nothing, Found(HKEY_CURRENT_USER)); // the key alone
    const std::vector<SToolValue> options{{"V4StimDevBehaviourOnActivateGrabber", "REG_DWORD", "0x0"},
                                          {"DoNotUseVDMStyle", "REG_DWORD", "0x0"}};
    ASSERT_TRUE(Found(HKEY_LOCAL_MACHINE));
    EXPECT_THAT(*Found(HKEY_LOCAL_MACHINE), UnorderedElementsAre(options[0], options[1]));

    Active(L"Galvo scanner 2");
    M().Save();
    ASSERT_TRUE(Found(HKEY_CURRENT_USER));
    EXPECT_THAT(*Found(HKEY_CURRENT_USER),
                UnorderedElementsAre(SToolValue{"Device-0", "REG_SZ", "Galvo scanner 2"},
                                     SToolValue{"Device-1", "REG_SZ", "CQsStimulationDeviceV4New"},
                                     SToolValue{"Device-2", "REG_SZ", "CQsHX4Stimulation"}));
    EXPECT_THAT(*Found(HKEY_LOCAL_MACHINE), UnorderedElementsAre(options[0], options[1]));
}

TEST_F(RegistryTool, FindsOptionsThatWereSetAsTheyWereSet)
{
    WriteRegistry(HKEY_LOCAL_MACHINE, L"DoNotUseVDMStyle", REG_DWORD, DwordBytes(0x12AB));
    EXPECT_TRUE(M().GetDoNotUseVDMStyle());
    EXPECT_FALSE(M().GetAutoActivateV4Behaviour());
    ASSERT_TRUE(Found(HKEY_LOCAL_MACHINE));
    EXPECT_THAT(*Found(HKEY_LOCAL_MACHINE),
                UnorderedElementsAre(SToolValue{"DoNotUseVDMStyle", "REG_DWORD", "0x12ab"},
                                     SToolValue{"V4StimDevBehaviourOnActivateGrabber", "REG_DWORD", "0x0"}));
}

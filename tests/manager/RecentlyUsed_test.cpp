// The recently used devices, in memory and in the user's registry.
#include "tests/manager/ManagerTest.h"

#include "tests/support/SystemFaults.h"

using namespace QsTest;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

namespace {

std::wstring Value(int i)
{
    return L"Device-" + std::to_wstring(i);
}

void Store(int i, const std::u16string& text)
{
    WriteRegistry(HKEY_CURRENT_USER, Value(i).c_str(), REG_SZ, TextBytes(text));
}

std::vector<CQsStringW> Names(unsigned count)
{
    std::vector<CQsStringW> names;
    for (unsigned i = 0; i < count; ++i)
        names.push_back(CQsStringW::Format(L"name %u", i));
    return names;
}

} // namespace

class RecentlyUsed : public ManagerTest
{};

TEST_F(RecentlyUsed, AreThePointScannerAndItsSuccessorWhenNothingIsStored)
{
    EXPECT_THAT(Mru(), ElementsAre(s_v4Name, s_hx4Name));
}

TEST_F(RecentlyUsed, AreReadInOrderWithGapsLeftOut)
{
    Store(0, u"A");
    Store(3, u"B");
    Store(9, u"C");
    Store(10, u"beyond the last place");
    EXPECT_THAT(Mru(), ElementsAre(L"A", L"B", L"C"));
}

TEST_F(RecentlyUsed, AreReadFromTheUsersKeyOnly)
{
    WriteRegistry(HKEY_LOCAL_MACHINE, L"Device-0", REG_SZ, TextBytes(u"machine"));
    EXPECT_THAT(Mru(), ElementsAre(s_v4Name, s_hx4Name));
}

TEST_F(RecentlyUsed, LeaveOutValuesThatAreNoText)
{
    WriteRegistry(HKEY_CURRENT_USER, L"Device-0", REG_DWORD, DwordBytes(1));
    Store(1, u"A");
    EXPECT_THAT(Mru(), ElementsAre(L"A"));
}

TEST_F(RecentlyUsed, TakeTextOfUpTo2048Bytes)
{
    Store(0, std::u16string(1023, u'a')); // 2048 bytes with the terminator
    Store(1, std::u16string(1024, u'b')); // 2050
    WriteRegistry(HKEY_CURRENT_USER, L"Device-2", REG_SZ, TextBytes(std::u16string(1024, u'c'), false)); // 2048
    Store(3, u"A");
    EXPECT_THAT(Mru(), ElementsAre(CQsStringW(std::wstring(1023, L'a')), CQsStringW(std::wstring(1024, L'c')), L"A"));
}

TEST_F(RecentlyUsed, TakeTextWithoutATerminatorAndEndItAtTheFirst)
{
    WriteRegistry(HKEY_CURRENT_USER, L"Device-0", REG_SZ, TextBytes(u"Lamp", false));
    WriteRegistry(HKEY_CURRENT_USER, L"Device-1", REG_SZ, TextBytes(std::u16string(u"Laser\0rest", 10)));
    EXPECT_THAT(Mru(), ElementsAre(L"Lamp", L"Laser"));
}

TEST_F(RecentlyUsed, KeepCharactersOutsideTheBasicPlane)
{
    const CQsStringW name = CQsStringW::FromUtf8("\xF0\x9F\x94\xA6 \xC3\xA9"); // U+1F526, U+00E9
    Access::SetMru(M(), {name});
    M().Save();
    Access::SetMru(M(), {});
    Access::MruLoad(M());
    EXPECT_THAT(Mru(), ElementsAre(name));
    const auto stored = ReadRegistry(HKEY_CURRENT_USER, L"Device-0");
    ASSERT_TRUE(stored);
    EXPECT_EQ(TextBytes(u"\U0001F526 \u00E9"), stored->data);
}

TEST_F(RecentlyUsed, MoveToTheFrontWithoutADuplicate)
{
    Access::SetMru(M(), {L"A", L"B", L"C", L"D"});
    Access::MruSet(M(), L"D");
    EXPECT_THAT(Mru(), ElementsAre(L"D", L"A", L"B", L"C"));
    Access::MruSet(M(), L"D");
    EXPECT_THAT(Mru(), ElementsAre(L"D", L"A", L"B", L"C"));
    Access::MruSet(M(), L"d");
    EXPECT_THAT(Mru(), ElementsAre(L"d", L"D", L"A", L"B", L"C"));
}

TEST_F(RecentlyUsed, AreReadByPositionAndEmptyBeyondTheLast)
{
    Access::SetMru(M(), {L"A", L"B"});
    EXPECT_EQ(L"B", Access::MruGet(M(), 1));
    EXPECT_EQ(L"", Access::MruGet(M(), 2));
    EXPECT_EQ(L"", Access::MruGet(M(), 0xFFFFFFFFu));
}

TEST_F(RecentlyUsed, AreNotCutInMemoryAndTenAreSaved)
{
    Access::SetMru(M(), {});
    std::vector<CQsStringW> names = Names(12);
    for (auto name = names.rbegin(); name != names.rend(); ++name)
        Access::MruSet(M(), name->c_str());
    EXPECT_EQ(names, Mru());
    M().Save();
    for (int i = 0; i < 10; ++i)
    {
        const auto stored = ReadRegistry(HKEY_CURRENT_USER, Value(i).c_str());
        ASSERT_TRUE(stored) << i;
        EXPECT_EQ(REG_SZ, stored->type);
        EXPECT_EQ(TextBytes(u"name " + std::u16string(1, static_cast<char16_t>(u'0' + i))), stored->data);
        EXPECT_FALSE(ReadRegistry(HKEY_LOCAL_MACHINE, Value(i).c_str()));
    }
    EXPECT_FALSE(ReadRegistry(HKEY_CURRENT_USER, L"Device-10"));
    EXPECT_FALSE(ReadRegistry(HKEY_CURRENT_USER, L"Device-11"));
}

TEST_F(RecentlyUsed, LeaveLaterStoredPlacesWhenFewerAreSaved)
{
    Access::SetMru(M(), Names(10));
    M().Save();
    Access::SetMru(M(), {L"A", L"B", L"C"});
    M().Save();
    Access::SetMru(M(), {});
    Access::MruLoad(M());
    EXPECT_THAT(Mru(), ElementsAre(L"A", L"B", L"C", L"name 3", L"name 4", L"name 5", L"name 6", L"name 7", L"name 8",
                                   L"name 9"));
}

TEST_F(RecentlyUsed, AreWrittenBySaveAlone)
{
    Active(L"A");
    EXPECT_FALSE(ReadRegistry(HKEY_CURRENT_USER, L"Device-0"));
    M().Save();
    const auto stored = ReadRegistry(HKEY_CURRENT_USER, L"Device-0");
    ASSERT_TRUE(stored);
    EXPECT_EQ(TextBytes(u"A"), stored->data);
}

TEST_F(RecentlyUsed, WorkWithoutARegistry)
{
    RefuseRegistry(HKEY_CURRENT_USER, true);
    EXPECT_THAT(Mru(), ElementsAre(s_v4Name, s_hx4Name));
    Active(L"A");
    M().Save();
    RefuseRegistry(HKEY_CURRENT_USER, false);
    EXPECT_FALSE(ReadRegistry(HKEY_CURRENT_USER, L"Device-0"));
    EXPECT_EQ(L"A", Access::MruGet(M(), 0));
}

TEST_F(RecentlyUsed, CannotBeActivatedBeyondTheLast)
{
    Active(L"A");
    Access::SetMru(M(), {L"A"});
    EXPECT_EQ(-13, M().SetActiveMru(1));
    EXPECT_EQ(-13, M().SetActiveMru(0xFFFFFFFFu));
}

TEST_F(RecentlyUsed, CannotBeActivatedWhenNoneIsThere)
{
    CQsFakeDevice& a = Active(L"A");
    Access::SetMru(M(), {L"x", L"y"});
    EXPECT_EQ(-13, M().SetActiveMru(0));
    EXPECT_EQ(&a, M().GetActive());
    EXPECT_THAT(Log().Entries(), IsEmpty());
}

TEST_F(RecentlyUsed, ActivateTheFirstThatIsThereFromThePlaceOnAndKeepTheirOrder)
{
    CQsFakeDevice& b = Simple(L"B");
    Simple(L"C");
    Active(L"A");
    Access::SetMru(M(), {L"C", L"x", L"B", L"A"});
    EXPECT_EQ(0, M().SetActiveMru(1));
    EXPECT_EQ(&b, M().GetActive());
    EXPECT_THAT(Mru(), ElementsAre(L"C", L"x", L"B", L"A"));
}

TEST_F(RecentlyUsed, MayBeChangedByACallbackWhileOneIsActivated)
{
    Simple(L"B");
    Active(L"A");
    Access::SetMru(M(), {L"x", L"B", L"A"});
    M().AddCallbackForChange([](unsigned) { Access::SetMru(M(), {}); });
    EXPECT_EQ(0, M().SetActiveMru(0));
    EXPECT_TRUE(Info(L"B").bActive);
    EXPECT_THAT(Mru(), IsEmpty());
}

TEST_F(RecentlyUsed, MayBeNamedByTheirOwnText)
{
    Access::SetMru(M(), {L"A", L"B", L"C"});
    Access::MruSet(M(), Access::MruText(M(), 1));
    EXPECT_THAT(Mru(), ElementsAre(L"B", L"A", L"C"));
    // Longer than what a string keeps within itself.
    Access::SetMru(M(), {L"A", L"a device with a rather long name", L"C"});
    Access::MruSet(M(), Access::MruText(M(), 1));
    EXPECT_THAT(Mru(), ElementsAre(L"a device with a rather long name", L"A", L"C"));
}

TEST_F(RecentlyUsed, MayBeActivatedByTheirOwnText)
{
    Simple(L"A");
    CQsFakeDevice& b = Simple(L"B");
    Simple(L"C");
    M().Update();
    Access::SetMru(M(), {L"A", L"B", L"C"});
    EXPECT_EQ(0, M().SetActive(Access::MruText(M(), 1), false));
    EXPECT_EQ(&b, M().GetActive());
    EXPECT_THAT(Mru(), ElementsAre(L"B", L"A", L"C"));
}

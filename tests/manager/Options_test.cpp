// The two options in the machine's registry.
#include "tests/manager/ManagerTest.h"

#include "tests/support/SystemFaults.h"

using namespace QsTest;

namespace {

constexpr const wchar_t* s_autoActivate = L"V4StimDevBehaviourOnActivateGrabber";
constexpr const wchar_t* s_noVdm = L"DoNotUseVDMStyle";

} // namespace

class Options : public ManagerTest
{
public:
    static void Expect(bool bAutoActivate, bool bNoVdm)
    {
        EXPECT_EQ(bAutoActivate, M().GetAutoActivateV4Behaviour());
        EXPECT_EQ(bNoVdm, M().GetDoNotUseVDMStyle());
    }
    static void ExpectStored(HKEY root, const wchar_t* name, DWORD type, const std::vector<unsigned char>& data)
    {
        const auto stored = ReadRegistry(root, name);
        ASSERT_TRUE(stored);
        EXPECT_EQ(type, stored->type);
        EXPECT_EQ(data, stored->data);
    }
};

TEST_F(Options, AreOffAndWrittenAsZeroWhenTheyAreMissing)
{
    Expect(false, false);
    for (const wchar_t* const name : {s_autoActivate, s_noVdm})
    {
        ExpectStored(HKEY_LOCAL_MACHINE, name, REG_DWORD, DwordBytes(0));
        EXPECT_FALSE(ReadRegistry(HKEY_CURRENT_USER, name));
    }
}

TEST_F(Options, AreWrittenOneByOneWhenOneIsMissing)
{
    WriteRegistry(HKEY_LOCAL_MACHINE, s_noVdm, REG_DWORD, DwordBytes(1));
    Expect(false, true);
    ExpectStored(HKEY_LOCAL_MACHINE, s_autoActivate, REG_DWORD, DwordBytes(0));
    ExpectStored(HKEY_LOCAL_MACHINE, s_noVdm, REG_DWORD, DwordBytes(1));
}

TEST_F(Options, AreOnForPositiveNumbers)
{
    WriteRegistry(HKEY_LOCAL_MACHINE, s_autoActivate, REG_DWORD, DwordBytes(1));
    WriteRegistry(HKEY_LOCAL_MACHINE, s_noVdm, REG_DWORD, DwordBytes(0x7FFFFFFF));
    Expect(true, true);
}

TEST_F(Options, AreOffForNegativeNumbers)
{
    WriteRegistry(HKEY_LOCAL_MACHINE, s_autoActivate, REG_DWORD, DwordBytes(0x80000000u));
    WriteRegistry(HKEY_LOCAL_MACHINE, s_noVdm, REG_DWORD, DwordBytes(0xFFFFFFFFu));
    Expect(false, false);
    ExpectStored(HKEY_LOCAL_MACHINE, s_autoActivate, REG_DWORD, DwordBytes(0x80000000u));
    ExpectStored(HKEY_LOCAL_MACHINE, s_noVdm, REG_DWORD, DwordBytes(0xFFFFFFFFu));
}

TEST_F(Options, AreNeitherReadNorOverwrittenWhenTheyAreText)
{
    WriteRegistry(HKEY_LOCAL_MACHINE, s_autoActivate, REG_SZ, TextBytes(u"1"));
    WriteRegistry(HKEY_LOCAL_MACHINE, s_noVdm, REG_SZ, TextBytes(u"1"));
    Expect(false, false);
    ExpectStored(HKEY_LOCAL_MACHINE, s_autoActivate, REG_SZ, TextBytes(u"1"));
    ExpectStored(HKEY_LOCAL_MACHINE, s_noVdm, REG_SZ, TextBytes(u"1"));
}

TEST_F(Options, AreNeitherReadNorOverwrittenWhenTheyHaveAnotherSize)
{
    const std::vector<unsigned char> wide = {1, 0, 0, 0, 0, 0, 0, 0};
    const std::vector<unsigned char> narrow = {1, 0};
    WriteRegistry(HKEY_LOCAL_MACHINE, s_autoActivate, REG_DWORD, wide);
    WriteRegistry(HKEY_LOCAL_MACHINE, s_noVdm, REG_DWORD, narrow);
    Expect(false, false);
    ExpectStored(HKEY_LOCAL_MACHINE, s_autoActivate, REG_DWORD, wide);
    ExpectStored(HKEY_LOCAL_MACHINE, s_noVdm, REG_DWORD, narrow);
}

TEST_F(Options, AreOfTheMachineAndNotOfTheUser)
{
    WriteRegistry(HKEY_CURRENT_USER, s_autoActivate, REG_DWORD, DwordBytes(1));
    WriteRegistry(HKEY_CURRENT_USER, s_noVdm, REG_DWORD, DwordBytes(1));
    Expect(false, false);
}

TEST_F(Options, AreOffWhenTheMachinesRegistryIsRefused)
{
    WriteRegistry(HKEY_LOCAL_MACHINE, s_autoActivate, REG_DWORD, DwordBytes(1));
    RefuseRegistry(HKEY_LOCAL_MACHINE, true);
    Expect(false, false);
    RefuseRegistry(HKEY_LOCAL_MACHINE, false);
    ExpectStored(HKEY_LOCAL_MACHINE, s_autoActivate, REG_DWORD, DwordBytes(1));
}

TEST_F(Options, AreReadWhenTheManagerIsMadeAndNotLater)
{
    Expect(false, false);
    WriteRegistry(HKEY_LOCAL_MACHINE, s_autoActivate, REG_DWORD, DwordBytes(1));
    Expect(false, false);
    Access::RefreshRegOptions(M());
    Expect(true, false);
}

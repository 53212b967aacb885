// The parameter store.
#include "tests/standalone/DatabaseTest.h"

#include <random>
#include <thread>

namespace {

using EStage = SDatabaseFault::EStage;
using testing::HasSubstr;

constexpr unsigned always = SDatabaseFault::always;
constexpr int nothingStored = -13;

void ExpectFailure(const wchar_t* name)
{
    CQsStringW text(L"unwritten");
    bool found = true;
    EXPECT_EQ(-9, DeviceDBAppHelper::LoadParam(name, text, &found, 3, 4));
    EXPECT_FALSE(found);
    EXPECT_TRUE(text.IsEmpty());
}

} // namespace

using DatabaseParameters = OpenDatabaseTest;
INSTANTIATE_ON_DATABASES(DatabaseParameters);

TEST_P(DatabaseParameters, ThatWereNeverStoredAreNotFound)
{
    CQsStringW text(L"unwritten");
    bool found = true;
    EXPECT_EQ(nothingStored, DeviceDBAppHelper::LoadParam(L"none", text, &found, 3, 4));
    EXPECT_FALSE(found);
    EXPECT_TRUE(text.IsEmpty());
    EXPECT_EQ(nothingStored, DeviceDBAppHelper::LoadParam(L"none", text, nullptr, 3, 4));
    EXPECT_TRUE(CQsDeviceDatabase::Reports().empty());
}

TEST_P(DatabaseParameters, AreReplacedAndKeptPerNameSetupAndUser)
{
    EXPECT_EQ("[1,2]", Loaded(L"key", 3, 4)); // imported
    EXPECT_EQ(0, DeviceDBAppHelper::SaveParam(L"key", L"new", 3, 4));
    EXPECT_EQ(0, DeviceDBAppHelper::SaveParam(L"key", L"other user", 3, 8));
    EXPECT_EQ(0, DeviceDBAppHelper::SaveParam(L"key", L"other setup", 6, 4));
    EXPECT_EQ(0, DeviceDBAppHelper::SaveParam(L"Key", L"other name", 3, 4));
    EXPECT_EQ(0, DeviceDBAppHelper::SaveParam(L"key", L"newest", 3, 4));
    EXPECT_EQ("newest", Loaded(L"key", 3, 4));
    EXPECT_EQ("other user", Loaded(L"key", 3, 8));
    EXPECT_EQ("other setup", Loaded(L"key", 6, 4));
    EXPECT_EQ("other name", Loaded(L"Key", 3, 4));
    EXPECT_EQ(5, CRawConnection(Address()).Number("SELECT COUNT(*) FROM dev_Parameter") + 1);
}

TEST_P(DatabaseParameters, MayBelongToNoSetupAndNoUser)
{
    EXPECT_EQ(0, DeviceDBAppHelper::SaveParam(L"key", L"nobody's", 0, 0));
    EXPECT_EQ(0, DeviceDBAppHelper::SaveParam(L"key", L"", 0, 4));
    EXPECT_EQ(0, DeviceDBAppHelper::SaveParam(L"key", L"odd", -1, 99));
    EXPECT_EQ("nobody's", Loaded(L"key", 0, 0));
    EXPECT_EQ("", Loaded(L"key", 0, 4)); // stored, and empty
    EXPECT_EQ("odd", Loaded(L"key", -1, 99));
}

TEST_P(DatabaseParameters, StayAsTheyAreWhateverTheyHold)
{
    std::vector<std::string> texts = {"",
                                      " ",
                                      "'",
                                      "''\"\\'\\\\",
                                      "'; DROP TABLE dev_Parameter; --",
                                      ":sName $1 ? %s %% \\x41 \\u0041 E'\\n'",
                                      "tab\tline\nreturn\r\nbell\a",
                                      "\xC3\xA9\xE2\x82\xAC \xF0\x9F\x94\xAC \xF4\x8F\xBF\xBF",
                                      "NULL",
                                      "[5,5,5]",
                                      std::string(1000000, 'x')};
    // Random texts over characters of every length, from a fixed seed.
    std::mt19937 random(4711);
    const char* const alphabet[] = {"a",    "'",    "\\",       "\"",           "\n",
                                    "\x01", "\x7F", "\xC2\x80", "\xEF\xBF\xBD", "\xF0\x90\x80\x80"};
    for (int i = 0; i < 40; ++i)
    {
        std::string text;
        for (auto length = random() % 60; length > 0; --length)
            text += alphabet[random() % std::size(alphabet)];
        texts.push_back(text);
    }
    for (const std::string& text : texts)
    {
        const CQsStringW wide = CQsStringW::FromUtf8(text);
        ASSERT_EQ(0, DeviceDBAppHelper::SaveParam(L"odd", wide, 3, 4));
        CQsStringW loaded;
        ASSERT_EQ(0, DeviceDBAppHelper::LoadParam(L"odd", loaded, nullptr, 3, 4));
        ASSERT_TRUE(wide == loaded) << text.substr(0, 100);
        if (text.size() > 200)
            continue;
        ASSERT_EQ(0, DeviceDBAppHelper::SaveParam(wide.c_str(), L"named so", 3, 4));
        ASSERT_EQ("named so", Loaded(wide.c_str(), 3, 4));
    }
}

TEST_P(DatabaseParameters, WithANullCharacterOrATooLongNameAreRefusedAndLeaveTheOldOnes)
{
    EXPECT_EQ(-9, DeviceDBAppHelper::SaveParam(L"key", CQsStringW(L"a\0b", 3), 3, 4));
    EXPECT_EQ("[1,2]", Loaded(L"key", 3, 4));
    const std::wstring longest(255, L'\x20AC');
    EXPECT_EQ(0, DeviceDBAppHelper::SaveParam(longest.c_str(), L"longest", 3, 4));
    EXPECT_EQ("longest", Loaded(longest.c_str(), 3, 4));
    EXPECT_EQ(-9, DeviceDBAppHelper::SaveParam((longest + L"x").c_str(), L"longer", 3, 4));
    EXPECT_EQ("-13", Loaded((longest + L"x").c_str(), 3, 4));
}

TEST_P(DatabaseParameters, AreNotLoadedAndStayWhenTheDatabaseFails)
{
    struct SCase
    {
        EStage stage;
        const wchar_t* load;
        const wchar_t* save;
    };
    for (const SCase& failing :
         {SCase{EStage::Prepare, L"Loading a parameter - prepare", L"Saving a parameter - prepare"},
          SCase{EStage::Exec, L"Loading a parameter - exec", L"Saving a parameter - exec"}})
    {
        CQsDeviceDatabase::ClearReports();
        CQsDeviceDatabase::SetFaults({{failing.stage, L"DeviceDBAppHelper::LoadParam", "dev_Parameter", 0, always},
                                      {failing.stage, L"DeviceDBAppHelper::SaveParam", "INSERT", 0, always}});
        ExpectFailure(L"key");
        EXPECT_EQ(-9, DeviceDBAppHelper::SaveParam(L"key", L"lost", 3, 4));
        const std::vector<SDatabaseReport> reports = CQsDeviceDatabase::Reports();
        ASSERT_EQ(2u, reports.size());
        EXPECT_EQ(L"DeviceDBAppHelper::LoadParam", reports[0].location);
        EXPECT_EQ(failing.load, reports[0].text);
        EXPECT_EQ(failing.stage == EStage::Prepare, reports[0].bStructure);
        EXPECT_EQ(L"DeviceDBAppHelper::SaveParam", reports[1].location);
        EXPECT_EQ(failing.save, reports[1].text);
        CQsDeviceDatabase::SetFaults({});
        EXPECT_EQ("[1,2]", Loaded(L"key", 3, 4));
    }
    CQsDeviceDatabase::ClearReports();
    CQsDeviceDatabase::SetFaults({{EStage::Connection, L"", "", 0, always}});
    ExpectFailure(L"key");
    EXPECT_EQ(-9, DeviceDBAppHelper::SaveParam(L"key", L"lost", 3, 4));
    EXPECT_TRUE(CQsDeviceDatabase::Reports().empty()); // no query
    EXPECT_THAT(LogLines(), testing::Contains(HasSubstr("DeviceDBAppHelper::SaveParam: no connection")));
    CQsDeviceDatabase::SetFaults({});
    EXPECT_EQ("[1,2]", Loaded(L"key", 3, 4));
    CQsDeviceDatabase::Close();
    ExpectFailure(L"key");
    EXPECT_EQ(-9, DeviceDBAppHelper::SaveParam(L"key", L"lost", 3, 4));
}

TEST_P(DatabaseParameters, SavedByManyThreadsAreWholeOnes)
{
    constexpr int threadCount = 4;
    constexpr int times = 25;
    const auto textOf = [](int thread) { return CQsStringW(std::wstring(20000, L'a' + static_cast<wchar_t>(thread))); };
    std::vector<std::thread> threads;
    std::atomic<int> failures{0};
    for (int i = 0; i < threadCount; ++i)
        threads.emplace_back(
            [&, i]
            {
                for (int n = 0; n < times; ++n)
                {
                    failures += DeviceDBAppHelper::SaveParam(L"shared", textOf(i), 3, 4) != 0 ? 1 : 0;
                    CQsStringW text;
                    failures += DeviceDBAppHelper::LoadParam(L"shared", text, nullptr, 3, 4) != 0 ? 1 : 0;
                    const bool whole =
                        text.GetLength() == 20000 && text.Std().find_first_not_of(text.Std()[0]) == std::wstring::npos;
                    failures += whole ? 0 : 1;
                }
            });
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(0, failures);
    EXPECT_TRUE(CQsDeviceDatabase::Reports().empty());
}

// Somebody else's transaction holds the table: the statement is given up, nobody waits for ever.
TEST_P(DatabaseParameters, ThatAnotherProgramHoldsAreGivenUp)
{
    CRawConnection other(Address());
    if (GetParam() == EDatabaseKind::Sqlite)
        other.Run("BEGIN IMMEDIATE");
    else
    {
        other.Run("BEGIN");
        other.Run("LOCK TABLE dev_Parameter IN ACCESS EXCLUSIVE MODE");
    }
    const auto begin = std::chrono::steady_clock::now();
    EXPECT_EQ(-9, DeviceDBAppHelper::SaveParam(L"key", L"lost", 3, 4));
    EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(30));
    EXPECT_EQ(1u, CQsDeviceDatabase::Reports().size());
    other.Run("ROLLBACK");
    EXPECT_EQ("[1,2]", Loaded(L"key", 3, 4));
    EXPECT_EQ(0, DeviceDBAppHelper::SaveParam(L"key", L"later", 3, 4));
}

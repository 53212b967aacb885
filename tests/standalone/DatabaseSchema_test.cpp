// Making, opening and migrating a device database.
#include "tests/standalone/DatabaseTest.h"

#include "host/QsDMApi.h"
#include "standalone/DeviceManager.h"

#include <filesystem>
#include <thread>

using QsTest::ContentsOf;
using QsTest::CTemporaryFolder;

namespace {

using testing::HasSubstr;
using testing::IsEmpty;

// The schema as its first version had it: without the parameter store and without the indices.
void MakeFirstVersion(const SDeviceDatabaseSetup& setup)
{
    if (setup.kind == EDatabaseKind::Sqlite)
        std::filesystem::remove(std::filesystem::u8path(setup.file));
    CRawConnection raw(setup);
    if (setup.kind == EDatabaseKind::PostgreSql)
        for (const char* table : {"dev_Parameter", "dev_Configuration", "dev_LogicalDevice", "dev_HWConfig_BeamPath",
                                  "dev_BeamPath", "dev_HWConfig", "dev_User", "dev_Setup", "dev_SchemaVersion"})
            raw.Run(std::string("DROP TABLE ") + table);
    for (const char* statement :
         {"CREATE TABLE dev_SchemaVersion (iVersion INTEGER NOT NULL PRIMARY KEY)",
          "INSERT INTO dev_SchemaVersion (iVersion) VALUES (1)",
          "CREATE TABLE dev_Setup (iSetupID INTEGER NOT NULL PRIMARY KEY, sName TEXT NOT NULL)",
          "CREATE TABLE dev_User (iUserID INTEGER NOT NULL PRIMARY KEY, sName TEXT NOT NULL)",
          "CREATE TABLE dev_HWConfig (iHWConfigID INTEGER NOT NULL PRIMARY KEY, iSetupID INTEGER NOT NULL, "
          "sName TEXT NOT NULL)",
          "CREATE TABLE dev_BeamPath (iBeamPathID INTEGER NOT NULL PRIMARY KEY, sName TEXT NOT NULL, sUserName TEXT, "
          "iSetupID INTEGER NOT NULL, eType INTEGER NOT NULL, eDefHWCBehaviour INTEGER NOT NULL, "
          "iOrderNo INTEGER NOT NULL, jMergedBeamPathIDs TEXT)",
          "CREATE TABLE dev_HWConfig_BeamPath (iBeamPathID INTEGER NOT NULL, iHWConfigID INTEGER NOT NULL, "
          "eBehaviour INTEGER, PRIMARY KEY (iBeamPathID, iHWConfigID))",
          "CREATE TABLE dev_LogicalDevice (iLogicalDeviceID INTEGER NOT NULL PRIMARY KEY, iLogDevID BIGINT NOT NULL)",
          "CREATE TABLE dev_Configuration (iBeamPathID INTEGER NOT NULL, iLogicalDeviceID INTEGER NOT NULL, "
          "eType INTEGER NOT NULL, PRIMARY KEY (iBeamPathID, iLogicalDeviceID, eType))",
          "INSERT INTO dev_Setup (iSetupID, sName) VALUES (5, 'Old')",
          "INSERT INTO dev_BeamPath (iBeamPathID, sName, iSetupID, eType, eDefHWCBehaviour, iOrderNo) "
          "VALUES (9, 'Kept', 5, 2, 1, 0)"})
        raw.Run(statement);
}

int VersionOf(const SDeviceDatabaseSetup& setup)
{
    return CRawConnection(setup).Number("SELECT iVersion FROM dev_SchemaVersion");
}

} // namespace

using DatabaseSchema = DatabaseTest;
INSTANTIATE_ON_DATABASES(DatabaseSchema);

TEST_P(DatabaseSchema, IsMadeOnceAndIsThePresentVersion)
{
    EXPECT_EQ(2, VersionOf(Address()));
    std::string error;
    EXPECT_FALSE(CQsDeviceDatabase::Create(Address(), error));
    EXPECT_THAT(error, IsOneLine());
    EXPECT_THAT(error, HasSubstr("already exists"));
    EXPECT_FALSE(DeviceDBApi::IsInitialized());
    EXPECT_EQ(0u, CQsDeviceDatabase::ConnectionCount());
}

TEST_P(DatabaseSchema, KeepsRowsFromReferringToWhatIsNotThere)
{
    SDatabaseContent content = SmallContent();
    Import(content);
    for (auto* broken : {&content.hwConfigs.front().setup, &content.beampaths.front().setup,
                         &content.hwConfigBeampaths.front().hwConfig, &content.hwConfigBeampaths.front().beampath,
                         &content.configurations.front().beampath})
    {
        const qs_int32 right = *broken;
        *broken = 999;
        std::string error;
        EXPECT_FALSE(ImportDatabase(Address(), content, error));
        EXPECT_THAT(error, IsOneLine());
        *broken = right;
    }
    Import(content);
}

TEST_P(DatabaseSchema, OpensWithTheLowestIds)
{
    EXPECT_FALSE(DeviceDBApi::IsInitialized());
    Import(SmallContent());
    Open();
    EXPECT_TRUE(DeviceDBApi::IsInitialized());
    EXPECT_TRUE(CQsDeviceDatabase::IsOpen());
    EXPECT_EQ(DeviceDatabaseText(Address()), DeviceDatabaseText(CQsDeviceDatabase::Setup()));
    EXPECT_EQ(3, DeviceDBApi::GetCurrentSetupID());
    EXPECT_EQ(30, DeviceDBApi::GetCurrentHWConfigID()); // of setup 3; setup 6 has a lower one
    EXPECT_EQ(4, DeviceDBApi::GetCurrentUserID());
    CQsDeviceDatabase::Close();
    EXPECT_FALSE(DeviceDBApi::IsInitialized());
    EXPECT_FALSE(CQsDeviceDatabase::IsOpen());
    EXPECT_EQ(0, DeviceDBApi::GetCurrentSetupID());
    EXPECT_EQ(0, DeviceDBApi::GetCurrentHWConfigID());
    EXPECT_EQ(0, DeviceDBApi::GetCurrentUserID());
}

TEST_P(DatabaseSchema, WithoutRowsOpensWithNoIds)
{
    Open();
    EXPECT_EQ(0, DeviceDBApi::GetCurrentSetupID());
    EXPECT_EQ(0, DeviceDBApi::GetCurrentHWConfigID());
    EXPECT_EQ(0, DeviceDBApi::GetCurrentUserID());
}

TEST_P(DatabaseSchema, OfAnOlderVersionIsMigratedWhenItIsOpened)
{
    MakeFirstVersion(Address());
    Open();
    EXPECT_EQ(2, VersionOf(Address()));
    EXPECT_EQ(5, DeviceDBApi::GetCurrentSetupID());
    CRawConnection raw(Address());
    EXPECT_EQ(9, raw.Number("SELECT iBeamPathID FROM dev_BeamPath WHERE sName = 'Kept'"));
    raw.Run("DROP INDEX dev_BeamPath_Name"); // is there
    EXPECT_EQ(0, DeviceDBAppHelper::SaveParam(L"new", L"text", 5, 0));
    CQsStringW text;
    EXPECT_EQ(0, DeviceDBAppHelper::LoadParam(L"new", text, nullptr, 5, 0));
    EXPECT_EQ(L"text", text);
}

TEST_P(DatabaseSchema, ThatCannotBeMigratedStaysAsItWas)
{
    MakeFirstVersion(Address());
    CRawConnection(Address()).Run("CREATE TABLE dev_Parameter (sOther TEXT)");
    std::string error;
    EXPECT_FALSE(CQsDeviceDatabase::Open(Address(), error));
    EXPECT_THAT(error, IsOneLine());
    EXPECT_THAT(error, HasSubstr("version 1 cannot be migrated to version 2"));
    EXPECT_EQ(1, VersionOf(Address()));
    EXPECT_TRUE(CRawConnection(Address()).Refuses("DROP INDEX dev_BeamPath_Name")); // nor half of it
    EXPECT_FALSE(CQsDeviceDatabase::IsOpen());
}

TEST_P(DatabaseSchema, IsMigratedByOneOfManyThatFindItOld)
{
    MakeFirstVersion(Address());
    // Held up by another program until all have found the old version.
    const bool isFile = GetParam() == EDatabaseKind::Sqlite;
    CRawConnection other(Address());
    other.Run(isFile ? "BEGIN IMMEDIATE" : "BEGIN");
    other.Run("UPDATE dev_SchemaVersion SET iVersion = iVersion");
    std::vector<std::thread> threads;
    std::vector<std::string> errors(6);
    std::vector<SDatabaseContent> contents(errors.size());
    for (std::size_t i = 0; i < errors.size(); ++i)
        threads.emplace_back([&, i] { ExportDatabase(Address(), contents[i], errors[i]); });
    if (isFile)
    {
        while (CQsDeviceDatabase::ConnectionCount() < errors.size())
            std::this_thread::yield();
        // A file does not say who waits for it. Whoever comes late finds the new version, which is right, too.
        std::this_thread::sleep_for(std::chrono::milliseconds(200));
    }
    else
        while (other.Number("SELECT COUNT(DISTINCT pid) FROM pg_locks WHERE NOT granted") <
               static_cast<int>(errors.size()))
            std::this_thread::yield();
    other.Run("ROLLBACK");
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_THAT(errors, testing::Each(std::string()));
    for (const SDatabaseContent& content : contents)
        EXPECT_EQ(1u, content.beampaths.size());
    EXPECT_EQ(2, VersionOf(Address()));
}

TEST_P(DatabaseSchema, NewerThanTheProgramIsRefused)
{
    for (const char* version : {"3", "2147483647", "0", "-1"})
    {
        CRawConnection(Address()).Run(std::string("UPDATE dev_SchemaVersion SET iVersion = ") + version);
        std::string error;
        EXPECT_FALSE(CQsDeviceDatabase::Open(Address(), error));
        EXPECT_THAT(error, HasSubstr(std::string("expected a schema of version 1 to 2, found ") + version));
        EXPECT_THAT(error, IsOneLine());
    }
    EXPECT_FALSE(DeviceDBApi::IsInitialized());
}

TEST_P(DatabaseSchema, IsMissedInADatabaseWithoutOne)
{
    const CTestDatabase empty(GetParam());
    if (GetParam() == EDatabaseKind::Sqlite)
        CRawConnection(empty.Setup()).Run("CREATE TABLE other (x INTEGER)");
    std::string error;
    EXPECT_FALSE(CQsDeviceDatabase::Open(empty.Setup(), error));
    EXPECT_THAT(error, IsOneLine());
    EXPECT_THAT(error, HasSubstr("expected the schema of a device database, found none"));
    EXPECT_FALSE(DeviceDBApi::IsInitialized());
}

TEST_P(DatabaseSchema, OfADatabaseThatIsNotThereIsNotOpened)
{
    SDeviceDatabaseSetup missing = Address();
    missing.file += ".missing";
    missing.database = "nowhere";
    std::string error;
    EXPECT_FALSE(CQsDeviceDatabase::Open(missing, error));
    EXPECT_THAT(error, IsOneLine());
    EXPECT_THAT(error, HasSubstr(DeviceDatabaseText(missing)));
    EXPECT_FALSE(std::filesystem::exists(std::filesystem::u8path(missing.file))); // looking makes no file
    EXPECT_EQ(0u, CQsDeviceDatabase::ConnectionCount());
}

TEST_P(DatabaseSchema, OpeningAnotherThatFailsChangesNothing)
{
    Import(SmallContent());
    Open();
    SDeviceDatabaseSetup missing = Address();
    missing.file += ".missing";
    missing.database = "nowhere";
    std::string error;
    EXPECT_FALSE(CQsDeviceDatabase::Open(missing, error));
    EXPECT_TRUE(DeviceDBApi::IsInitialized());
    EXPECT_EQ(3, DeviceDBApi::GetCurrentSetupID());
    EXPECT_EQ(7u, DMApi::LogDev_GetIdByDBId(70).value);
    EXPECT_EQ(DeviceDatabaseText(Address()), DeviceDatabaseText(CQsDeviceDatabase::Setup()));
    const DeviceDBApi::CQsAutoDeviceDB scope(L"here", 0);
    EXPECT_TRUE(scope.IsOK());
}

TEST(DatabaseFile, ThatIsNoneIsRefusedAndLeftAlone)
{
    const CTemporaryFolder folder;
    SDeviceDatabaseSetup setup;
    setup.file = folder.Write("letter.txt", std::string(5000, 'x'));
    std::string error;
    EXPECT_FALSE(CQsDeviceDatabase::Open(setup, error));
    EXPECT_THAT(error, IsOneLine());
    EXPECT_FALSE(CQsDeviceDatabase::Create(setup, error));
    EXPECT_THAT(error, IsOneLine());
    EXPECT_EQ(std::string(5000, 'x'), ContentsOf(setup.file));
}

TEST(DatabaseFile, InAFolderThatIsNotThereIsRefused)
{
    const CTemporaryFolder folder;
    SDeviceDatabaseSetup setup;
    setup.file = folder.File("no/such/folder/x.db");
    std::string error;
    EXPECT_FALSE(CQsDeviceDatabase::Create(setup, error));
    EXPECT_THAT(error, IsOneLine());
}

TEST(DatabaseFile, MayHaveAnyName)
{
    for (const char* name : {"a b.db", "100%41.db", "sharp#1.db", "\xC3\xA9\xF0\x9F\x94\xAC.db"})
        ExpectDatabaseMayHaveTheName(name);
}

TEST(DatabaseFile, MayBeNamedFromTheWorkingFolder)
{
    const CTemporaryFolder folder;
    std::filesystem::current_path(std::filesystem::u8path(folder.Path()));
    SDeviceDatabaseSetup setup;
    setup.file = "here.db";
    std::string error;
    EXPECT_TRUE(CQsDeviceDatabase::Create(setup, error)) << error;
    EXPECT_TRUE(std::filesystem::exists(std::filesystem::u8path(folder.File("here.db"))));
    std::filesystem::current_path("/");
}

using DatabaseIds = OpenDatabaseTest;
INSTANTIATE_ON_DATABASES(DatabaseIds);

TEST_P(DatabaseIds, OfLogicalDevicesAreThoseOfTheDatabase)
{
    EXPECT_EQ(7u, DMApi::LogDev_GetIdByDBId(70).value);
    EXPECT_EQ(4294967295u, DMApi::LogDev_GetIdByDBId(71).value); // the greatest there is
    EXPECT_EQ(0u, DMApi::LogDev_GetIdByDBId(72).value);
    CQsDeviceDatabase::Close();
    EXPECT_EQ(0u, DMApi::LogDev_GetIdByDBId(70).value);
}

TEST_P(DatabaseIds, ThatDevicesWereAddedWithStayAsTheyAre)
{
    CQsDeviceDatabase::Close();
    std::string error;
    ASSERT_TRUE(CQsDeviceManager::AddLogicalDevice({7, 0, 70}, error)) << error;  // as the database has it
    ASSERT_TRUE(CQsDeviceManager::AddLogicalDevice({90, 0, 72}, error)) << error; // not in the database
    Open();
    EXPECT_EQ(7u, DMApi::LogDev_GetIdByDBId(70).value);
    EXPECT_EQ(90u, DMApi::LogDev_GetIdByDBId(72).value);
    EXPECT_EQ(4294967295u, DMApi::LogDev_GetIdByDBId(71).value);
    CQsDeviceDatabase::Close();
    EXPECT_EQ(7u, DMApi::LogDev_GetIdByDBId(70).value);
    EXPECT_EQ(0u, DMApi::LogDev_GetIdByDBId(71).value);
}

TEST_P(DatabaseIds, ThatContradictTheDevicesAreRefused)
{
    CQsDeviceDatabase::Close();
    std::string error;
    ASSERT_TRUE(CQsDeviceManager::AddLogicalDevice({8, 0, 70}, error)) << error;
    EXPECT_FALSE(CQsDeviceDatabase::Open(Address(), error));
    EXPECT_THAT(error, IsOneLine());
    EXPECT_THAT(error, HasSubstr("expected database id 70 to mean logical device 8, as the devices have it, found 7"));
    EXPECT_FALSE(DeviceDBApi::IsInitialized());
    EXPECT_EQ(8u, DMApi::LogDev_GetIdByDBId(70).value);
    EXPECT_EQ(0u, DMApi::LogDev_GetIdByDBId(71).value);
}

TEST_P(DatabaseIds, AreNotContradictedByDevicesThatComeLater)
{
    std::string error;
    EXPECT_FALSE(CQsDeviceManager::AddLogicalDevice({8, 0, 70}, error));
    EXPECT_THAT(error, IsOneLine());
    EXPECT_TRUE(CQsDeviceManager::AddLogicalDevice({7, 0, 70}, error)) << error;
    EXPECT_EQ(7u, DMApi::LogDev_GetIdByDBId(70).value);
}

TEST_P(DatabaseIds, OfTheSetupChangeAfterItsConsumersWereTold)
{
    struct CConsumer final : IQsDMApiPluginNotification
    {
        unsigned AppRntm_HandleEvent(const wchar_t* name, void*) override
        {
            heard.push_back(CQsStringW(name).ToUtf8());
            setup = DeviceDBApi::GetCurrentSetupID();
            return 0;
        }
        std::vector<std::string> heard;
        qs_int32 setup = -1;
    } consumer;
    DMApi::AppRntm_RegisterConsumer(&consumer);
    DMApi::AppRntm_RegisterEvent(&consumer, L"QS_MODULEEVENT_DMV2_BEFORE_SETUP_CHANGE");

    std::string error;
    EXPECT_TRUE(CQsDeviceDatabase::SetCurrentSetup(6, error)) << error;
    EXPECT_THAT(consumer.heard, testing::ElementsAre("QS_MODULEEVENT_DMV2_BEFORE_SETUP_CHANGE"));
    EXPECT_EQ(3, consumer.setup); // still
    EXPECT_EQ(6, DeviceDBApi::GetCurrentSetupID());
    EXPECT_EQ(12, DeviceDBApi::GetCurrentHWConfigID());

    EXPECT_TRUE(CQsDeviceDatabase::SetCurrentHWConfig(50, error)) << error;
    EXPECT_TRUE(CQsDeviceDatabase::SetCurrentSetup(6, error)) << error; // no change
    EXPECT_EQ(50, DeviceDBApi::GetCurrentHWConfigID());
    EXPECT_FALSE(CQsDeviceDatabase::SetCurrentSetup(5, error));
    EXPECT_EQ(1u, consumer.heard.size());
    DMApi::AppRntm_UnregisterConsumer(&consumer);
}

TEST_P(DatabaseIds, ThatTheDatabaseDoesNotHaveAreRefused)
{
    std::string error;
    EXPECT_FALSE(CQsDeviceDatabase::SetCurrentSetup(7, error));
    EXPECT_EQ("expected the id of a setup of the device database, found 7", error);
    EXPECT_FALSE(CQsDeviceDatabase::SetCurrentHWConfig(12, error)); // of the other setup
    EXPECT_EQ("expected the id of a hardware configuration of setup 3, found 12", error);
    EXPECT_FALSE(CQsDeviceDatabase::SetCurrentUser(0, error));
    EXPECT_EQ("expected the id of a user of the device database, found 0", error);
    EXPECT_TRUE(CQsDeviceDatabase::SetCurrentHWConfig(31, error)) << error;
    EXPECT_TRUE(CQsDeviceDatabase::SetCurrentUser(8, error)) << error;
    EXPECT_EQ(3, DeviceDBApi::GetCurrentSetupID());
    EXPECT_EQ(31, DeviceDBApi::GetCurrentHWConfigID());
    EXPECT_EQ(8, DeviceDBApi::GetCurrentUserID());
}

TEST_P(DatabaseIds, AreKeptWhenTheDatabaseFails)
{
    CQsDeviceDatabase::SetFaults({{SDatabaseFault::EStage::Connection, L"", "", 0, SDatabaseFault::always}});
    std::string error;
    EXPECT_FALSE(CQsDeviceDatabase::SetCurrentSetup(6, error));
    EXPECT_THAT(error, IsOneLine());
    CQsDeviceDatabase::SetFaults({{SDatabaseFault::EStage::Exec, L"", "MIN(iHWConfigID)", 0, SDatabaseFault::always}});
    EXPECT_FALSE(CQsDeviceDatabase::SetCurrentSetup(6, error));
    EXPECT_THAT(error, IsOneLine());
    EXPECT_EQ(3, DeviceDBApi::GetCurrentSetupID());
    EXPECT_EQ(30, DeviceDBApi::GetCurrentHWConfigID());
}

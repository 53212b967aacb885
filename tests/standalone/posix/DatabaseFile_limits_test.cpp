// Files of device databases where limits and permissions of the system forbid something, and names that only these
// systems allow.
#include "tests/standalone/DatabaseTest.h"

#include <csignal>

#include <sys/resource.h>
#include <unistd.h>

TEST(DatabaseFile, MayHaveANameThatMeansSomethingElseInAnAddress)
{
    for (const char* name : {"what?mode=memory", ":memory:"})
        ExpectDatabaseMayHaveTheName(name);
}

// The limit on the size of files stands for a disk that has no room.
TEST(DatabaseFile, OnAFullDiskKeepsWhatWasStored)
{
    const CTestDatabase database(EDatabaseKind::Sqlite);
    std::string error;
    ASSERT_TRUE(CQsDeviceDatabase::Create(database.Setup(), error)) << error;
    ASSERT_TRUE(ImportDatabase(database.Setup(), SmallContent(), error)) << error;
    ASSERT_TRUE(CQsDeviceDatabase::Open(database.Setup(), error)) << error;
    signal(SIGXFSZ, SIG_IGN);
    rlimit before{};
    ASSERT_EQ(0, getrlimit(RLIMIT_FSIZE, &before));
    rlimit limit = before;
    limit.rlim_cur = std::filesystem::file_size(database.Setup().file);
    ASSERT_EQ(0, setrlimit(RLIMIT_FSIZE, &limit));
    EXPECT_EQ(-9, DeviceDBAppHelper::SaveParam(L"key", CQsStringW(std::wstring(1000000, L'x')), 3, 4));
    SDatabaseContent content = SmallContent();
    content.parameters[0].text = std::string(1000000, 'x');
    EXPECT_FALSE(ImportDatabase(database.Setup(), content, error));
    EXPECT_THAT(error, IsOneLine());
    ASSERT_EQ(0, setrlimit(RLIMIT_FSIZE, &before));
    EXPECT_EQ("[1,2]", Loaded(L"key", 3, 4));
    EXPECT_EQ(0, DeviceDBAppHelper::SaveParam(L"key", CQsStringW(std::wstring(1000000, L'x')), 3, 4));
    CQsDeviceDatabase::Close();
}

TEST(DatabaseFile, ThatIsReadOnlyIsReadAndNotWritten)
{
    const CTestDatabase database(EDatabaseKind::Sqlite);
    std::string error;
    ASSERT_TRUE(CQsDeviceDatabase::Create(database.Setup(), error)) << error;
    ASSERT_TRUE(ImportDatabase(database.Setup(), SmallContent(), error)) << error;
    const std::filesystem::path file = database.Setup().file;
    std::filesystem::permissions(file, std::filesystem::perms(0444));
    std::filesystem::permissions(file.parent_path(), std::filesystem::perms(0555));
    constexpr uid_t nobody = 65534; // root may write anything
    const uid_t own = geteuid();
    ASSERT_EQ(0, own == 0 ? seteuid(nobody) : 0);
    EXPECT_TRUE(CQsDeviceDatabase::Open(database.Setup(), error)) << error;
    EXPECT_EQ("[1,2]", Loaded(L"key", 3, 4));
    EXPECT_EQ(-9, DeviceDBAppHelper::SaveParam(L"key", L"lost", 3, 4));
    EXPECT_EQ("[1,2]", Loaded(L"key", 3, 4));
    EXPECT_FALSE(ImportDatabase(database.Setup(), {}, error));
    EXPECT_THAT(error, IsOneLine());
    CQsDeviceDatabase::Close();
    ASSERT_EQ(0, own == 0 ? seteuid(own) : 0);
    std::filesystem::permissions(file.parent_path(), std::filesystem::perms(0755));
}

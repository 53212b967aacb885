// Settings files that another program has open so that nobody else may have them.
#include "platform/Win32.h"
#include "tests/standalone/SettingsFileTest.h"

using QsTest::ContentsOf;
using QsTest::CTemporaryFolder;
using testing::ElementsAre;

namespace {

TEST(SettingsFault, AFileThatMayNotBeReadIsNeitherReadNorReplaced)
{
    const CTemporaryFolder folder;
    const std::string path = folder.Write("file", "somebody's");
    CUntouched untouched;
    const HANDLE file = CreateFileW(std::filesystem::u8path(path).c_str(), GENERIC_READ, 0, nullptr, OPEN_EXISTING,
                                    FILE_ATTRIBUTE_NORMAL, nullptr);
    ASSERT_NE(INVALID_HANDLE_VALUE, file);
    EXPECT_EQ(-9, Load(untouched.Store(), path));
    EXPECT_TRUE(untouched.Is());
    EXPECT_EQ(-9, Save(untouched.Store(), path));
    CloseHandle(file);
    EXPECT_EQ("somebody's", ContentsOf(path));
    EXPECT_THAT(NamesIn(folder.Path()), ElementsAre("file"));
}

} // namespace

// Files that are replaced as a whole: attributes, permissions, links and other programs as Windows has them.
#include "platform/AtomicFile.h"
#include "platform/Win32.h"
#include "tests/platform/System.h"
#include "tests/support/TemporaryFolder.h"

#include <gmock/gmock.h>

#include <chrono>
#include <thread>
#include <vector>

#include <aclapi.h>

namespace fs = std::filesystem;
using QsPlatform::EFlush;
using QsPlatform::KeepFileAside;
using QsPlatform::ReplaceFileContents;
using QsTest::ContentsOf;
using QsTest::CTemporaryFolder;
using testing::AllOf;
using testing::EndsWith;
using testing::HasSubstr;
using testing::StartsWith;

namespace {

using Clock = std::chrono::steady_clock;

bool Replace(const std::string& path, const std::string& text, std::string& error)
{
    return ReplaceFileContents(path, text.data(), text.size(), EFlush::ToSystem, error);
}

// Somebody who has the file open.
class CUser
{
public:
    CUser(const std::string& path, DWORD access, DWORD share)
        : m_file(CreateFileW(Wide(path).c_str(), access, share, nullptr, OPEN_EXISTING, 0, nullptr))
    {
        EXPECT_NE(INVALID_HANDLE_VALUE, m_file);
    }
    ~CUser() { LetGo(); }
    CUser(const CUser&) = delete;
    CUser& operator=(const CUser&) = delete;

    void LetGo()
    {
        if (m_file != INVALID_HANDLE_VALUE)
            CloseHandle(m_file);
        m_file = INVALID_HANDLE_VALUE;
    }

private:
    HANDLE m_file;
};

TEST(AtomicFile, ThatSomebodyReadsIsReplacedWhenHeLetsGo)
{
    const CTemporaryFolder folder;
    const std::string path = folder.Write("file", "old");
    CUser reader(path, GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE); // as most programs read
    bool replaced = false;
    std::string error;
    std::thread writer([&] { replaced = Replace(path, "new", error); });
    std::this_thread::sleep_for(std::chrono::milliseconds(100)); // a little of the time that it waits
    EXPECT_EQ("old", ContentsOf(path));
    reader.LetGo();
    writer.join();
    EXPECT_TRUE(replaced) << error;
    EXPECT_EQ("new", ContentsOf(path));
}

TEST(AtomicFile, ThatSomebodyKeepsOpenIsLeftAloneAfterAWhile)
{
    const CTemporaryFolder folder;
    const std::string path = folder.Write("file", "old");
    const CUser reader(path, GENERIC_READ, FILE_SHARE_READ);
    std::string error;
    const auto begin = Clock::now();
    EXPECT_FALSE(Replace(path, "new", error));
    EXPECT_GE(Clock::now() - begin, std::chrono::seconds(1));
    EXPECT_LT(Clock::now() - begin, std::chrono::seconds(30));
    EXPECT_THAT(error, StartsWith(path + ": cannot be written: "));
    EXPECT_EQ("old", ContentsOf(path));
    EXPECT_EQ(1, std::distance(fs::directory_iterator(fs::u8path(folder.Path())), fs::directory_iterator()));
}

TEST(AtomicFile, ThatMayNotBeWrittenIsRefusedAtOnce)
{
    const CTemporaryFolder folder;
    const std::string path = folder.Write("file", "old");
    ASSERT_TRUE(SetFileAttributesW(Wide(path).c_str(), FILE_ATTRIBUTE_READONLY));
    std::string error;
    const auto begin = Clock::now();
    EXPECT_FALSE(Replace(path, "new", error));
    EXPECT_LT(Clock::now() - begin, std::chrono::seconds(1));
    EXPECT_THAT(error, AllOf(StartsWith(path + ": cannot be written: Access "), EndsWith("denied")));
    EXPECT_EQ("old", ContentsOf(path));
    EXPECT_TRUE(SetFileAttributesW(Wide(path).c_str(), FILE_ATTRIBUTE_NORMAL));
    EXPECT_TRUE(Replace(path, "new", error)) << error;
}

TEST(AtomicFile, StaysHidden)
{
    const CTemporaryFolder folder;
    const std::string path = folder.Write("file", "old");
    ASSERT_TRUE(SetFileAttributesW(Wide(path).c_str(), FILE_ATTRIBUTE_HIDDEN));
    if ((GetFileAttributesW(Wide(path).c_str()) & FILE_ATTRIBUTE_HIDDEN) == 0)
        GTEST_SKIP() << "the file system has no hidden files";
    std::string error;
    ASSERT_TRUE(Replace(path, "new", error)) << error;
    EXPECT_NE(0u, GetFileAttributesW(Wide(path).c_str()) & FILE_ATTRIBUTE_HIDDEN);
}

// The list of who may do what, as text.
std::vector<std::string> PermissionsOf(const std::string& path)
{
    PACL list = nullptr;
    PSECURITY_DESCRIPTOR descriptor = nullptr;
    std::vector<std::string> entries;
    if (GetNamedSecurityInfoW(Wide(path).data(), SE_FILE_OBJECT, DACL_SECURITY_INFORMATION, nullptr, nullptr, &list,
                              nullptr, &descriptor) != ERROR_SUCCESS ||
        list == nullptr)
        return {"none"};
    for (DWORD i = 0; i < list->AceCount; ++i)
    {
        void* entry = nullptr;
        EXPECT_TRUE(GetAce(list, i, &entry));
        const auto* const bytes = static_cast<const char*>(entry);
        entries.emplace_back(bytes, static_cast<const ACE_HEADER*>(entry)->AceSize);
    }
    LocalFree(descriptor);
    return entries;
}

TEST(AtomicFile, KeepsWhoMayReadIt)
{
    const CTemporaryFolder folder;
    const std::string path = folder.Write("file", "old");
    // Everybody may read it, and nobody else anything.
    SID_IDENTIFIER_AUTHORITY world = SECURITY_WORLD_SID_AUTHORITY;
    PSID everybody = nullptr;
    ASSERT_TRUE(AllocateAndInitializeSid(&world, 1, SECURITY_WORLD_RID, 0, 0, 0, 0, 0, 0, 0, &everybody));
    EXPLICIT_ACCESSW access = {};
    access.grfAccessPermissions = GENERIC_READ | GENERIC_WRITE | DELETE;
    access.grfAccessMode = SET_ACCESS;
    access.Trustee.TrusteeForm = TRUSTEE_IS_SID;
    access.Trustee.ptstrName = static_cast<wchar_t*>(everybody);
    PACL list = nullptr;
    ASSERT_EQ(static_cast<DWORD>(ERROR_SUCCESS), SetEntriesInAclW(1, &access, nullptr, &list));
    const std::vector<std::string> ofTheFolder = PermissionsOf(path);
    ASSERT_EQ(static_cast<DWORD>(ERROR_SUCCESS),
              SetNamedSecurityInfoW(Wide(path).data(), SE_FILE_OBJECT,
                                    DACL_SECURITY_INFORMATION | PROTECTED_DACL_SECURITY_INFORMATION, nullptr, nullptr,
                                    list, nullptr));
    const std::vector<std::string> given = PermissionsOf(path);
    EXPECT_NE(ofTheFolder, given);
    std::string error;
    ASSERT_TRUE(Replace(path, "new", error)) << error;
    EXPECT_EQ(given, PermissionsOf(path));
    EXPECT_EQ("new", ContentsOf(path));
    LocalFree(list);
    FreeSid(everybody);
}

TEST(AtomicFile, RefusesDevicesAndPartsOfFiles)
{
    const CTemporaryFolder folder;
    std::string error;
    for (const char* const device : {"NUL", "CON", "\\\\.\\pipe\\QsStimulationTest", "COM1"})
    {
        EXPECT_FALSE(Replace(device, "new", error)) << device;
        EXPECT_EQ(device + std::string(": cannot be written: expected a file, found something else"), error);
    }
    const std::string path = folder.Write("file", "old");
    EXPECT_FALSE(Replace(path + ":stream", "new", error));
    EXPECT_THAT(error, HasSubstr("expected the path of a file"));
    EXPECT_FALSE(Replace("C:", "new", error));
    EXPECT_THAT(error, HasSubstr("expected the path of a file"));
    EXPECT_EQ("old", ContentsOf(path));
}

bool IsLink(const std::string& path)
{
    const DWORD attributes = GetFileAttributesW(Wide(path).c_str());
    return attributes != INVALID_FILE_ATTRIBUTES && (attributes & FILE_ATTRIBUTE_REPARSE_POINT) != 0;
}

TEST(AtomicFile, ReplacesWhatALinkPointsTo)
{
    const CTemporaryFolder folder;
    std::string error, kept;
    fs::create_directory(fs::u8path(folder.File("real")));
    const std::string real = folder.Write("real/file", "old");
    CreateSymbolicLinkW(Wide(folder.File("one")).c_str(), L"real\\file", 0);
    CreateSymbolicLinkW(Wide(folder.File("two")).c_str(), Wide(folder.File("one")).c_str(), 0);
    if (!IsLink(folder.File("one")) || !IsLink(folder.File("two")))
        GTEST_SKIP() << "the system, or this user, makes no symbolic links";
    ASSERT_TRUE(Replace(folder.File("two"), "new", error)) << error;
    for (const char* const link : {"one", "two"})
        EXPECT_TRUE(IsLink(folder.File(link)));
    EXPECT_EQ("new", ContentsOf(real));
    ASSERT_TRUE(KeepFileAside(folder.File("two"), ".damaged", kept, error)) << error;
    EXPECT_THAT(kept, EndsWith("real/file.damaged"));

    ASSERT_TRUE(CreateSymbolicLinkW(Wide(folder.File("dangling")).c_str(), L"real\\later", 0));
    ASSERT_TRUE(Replace(folder.File("dangling"), "new", error)) << error;
    EXPECT_EQ("new", ContentsOf(folder.File("real/later")));
    ASSERT_TRUE(CreateSymbolicLinkW(Wide(folder.File("round")).c_str(), L"round", 0));
    EXPECT_FALSE(Replace(folder.File("round"), "new", error));
    EXPECT_THAT(error, StartsWith(folder.File("round") + ": cannot be written: "));
}

} // namespace

// What Windows does otherwise than the other side of the platform layer, or shows alone.
#include "platform/FileLock.h"
#include "platform/ModuleFile.h"
#include "platform/Threads.h"
#include "tests/support/TemporaryFolder.h"

#include <gtest/gtest.h>

#include <cstdint>

namespace {

constexpr DWORD kLong = 60000;

// An event is no graphics object; its owner may go on to use it.
TEST(DeleteObject, RefusesAnEventAndLeavesItAsItIs)
{
    HANDLE event = CreateEventW(nullptr, FALSE, TRUE, nullptr);
    EXPECT_EQ(FALSE, DeleteObject(event));
    EXPECT_EQ(WAIT_OBJECT_0, WaitForSingleObject(event, 0));
    EXPECT_EQ(static_cast<DWORD>(WAIT_TIMEOUT), WaitForSingleObject(event, 0));
    EXPECT_NE(FALSE, SetEvent(event));
    EXPECT_EQ(WAIT_OBJECT_0, WaitForSingleObject(event, 0));
    EXPECT_NE(FALSE, CloseHandle(event));
}

// Counted one by one: not every system tells the number.
unsigned OpenHandles()
{
    constexpr std::uintptr_t step = 4, longest = 100000;
    unsigned open = 0;
    for (std::uintptr_t value = step; value < longest; value += step)
    {
        DWORD flags = 0;
        open += GetHandleInformation(reinterpret_cast<HANDLE>(value), &flags) ? 1 : 0;
    }
    return open;
}

TEST(Thread, ThatNobodyJoinsLeavesNoHandleOpen)
{
    const auto runOne = []
    {
        QsThread thread{};
        ASSERT_EQ(0, pthread_create(
                         &thread, nullptr, [](void*) -> void* { return nullptr; }, nullptr));
        ASSERT_EQ(0, pthreadCancelableTimedWait(pthread_getw32threadhandle_np(thread), kLong));
    };
    runOne(); // what the library makes once
    const unsigned before = OpenHandles();
    constexpr unsigned threads = 200;
    for (unsigned i = 0; i < threads; ++i)
        runOne();
    // The library gives an ended thread's handles back a moment after the thread is seen to have ended.
    EXPECT_LT(OpenHandles(), before + threads / 10);
}

// Nothing comes up that waits for somebody to close it, and nothing is read beyond the end.
TEST(ModuleFile, ThatIsCutAnywhereIsRefused)
{
    const QsTest::CTemporaryFolder folder;
    const std::string whole = QsTest::ContentsOf(QS_TEST_MODULE);
    for (const std::size_t size : {std::size_t{1}, std::size_t{63}, std::size_t{64}, std::size_t{200}, std::size_t{700},
                                   std::size_t{1500}, whole.size() / 4})
    {
        const std::string path = folder.Write("cut" + std::to_string(size) + ".dll", whole.substr(0, size));
        std::string error;
        EXPECT_EQ(nullptr, QsPlatform::LoadModuleFile(path, error)) << size;
        EXPECT_EQ(0u, error.find(path + ": cannot be loaded: ")) << error;
    }
}

// The folder itself is locked, not one of its names: those ignore case.
TEST(FolderLock, IsTheSameInAnyCase)
{
    const QsTest::CTemporaryFolder folder;
    std::filesystem::create_directory(std::filesystem::u8path(folder.File("Lamps")));
    std::string error;
    const QsPlatform::CFolderLock lock(folder.File("Lamps/file"), 0, error);
    ASSERT_TRUE(lock.IsHeld()) << error;
    EXPECT_FALSE(QsPlatform::CFolderLock(folder.File("lAMPS/file"), 0, error).IsHeld());
}

} // namespace

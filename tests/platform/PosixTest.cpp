// What only the POSIX side of the platform layer can show: injected failures, loaded modules, and the moment at which a
// thread is really parked.
#include "platform/Threads.h"
#include "platform/Win32.h"
#include "platform/posix/Control.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <thread>

#include <dlfcn.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace {

constexpr DWORD kLong = 60000;

// A thread that waits, with the means to see that it sleeps.
template <class Wait>
class CWaiter
{
public:
    explicit CWaiter(Wait wait)
        : m_thread(
              [this, wait]
              {
                  m_id = static_cast<long>(syscall(SYS_gettid));
                  m_result = wait();
              })
    {
        int asleep = 0; // several looks in a row: a lock on the way to the wait is not the wait
        while (asleep < 5)
        {
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
            asleep = m_id != 0 && IsAsleep() ? asleep + 1 : 0;
        }
    }
    DWORD Result()
    {
        m_thread.join();
        return m_result;
    }

private:
    bool IsAsleep() const
    {
        std::ostringstream stat;
        stat << std::ifstream("/proc/self/task/" + std::to_string(m_id) + "/stat").rdbuf();
        const std::string text = stat.str();
        const std::size_t name = text.rfind(')');
        return name != std::string::npos && text.compare(name, 3, ") S") == 0;
    }

    std::atomic<long> m_id{0};
    std::atomic<DWORD> m_result{0xDEADBEEF};
    std::thread m_thread;
};

TEST(ParkedWaiter, IsReleasedByASignalThatIsResetAtOnce)
{
    HANDLE event = CreateEventW(nullptr, TRUE, FALSE, nullptr);
    CWaiter single([&] { return WaitForSingleObject(event, kLong); });
    CWaiter group([&] { return WaitForMultipleObjects(1, &event, TRUE, kLong); });
    SetEvent(event);
    ResetEvent(event);
    EXPECT_EQ(WAIT_OBJECT_0, single.Result());
    EXPECT_EQ(WAIT_OBJECT_0, group.Result());
    EXPECT_EQ(WAIT_TIMEOUT, WaitForSingleObject(event, 0));
    CloseHandle(event);
}

TEST(ParkedWaiter, TwoSignalsOfAnAutoEventReleaseTwo)
{
    HANDLE event = CreateEventW(nullptr, FALSE, FALSE, nullptr);
    CWaiter first([&] { return WaitForSingleObject(event, kLong); });
    CWaiter second([&] { return WaitForSingleObject(event, kLong); });
    SetEvent(event);
    SetEvent(event);
    EXPECT_EQ(WAIT_OBJECT_0, first.Result());
    EXPECT_EQ(WAIT_OBJECT_0, second.Result());
    EXPECT_EQ(WAIT_TIMEOUT, WaitForSingleObject(event, 0));
    CloseHandle(event);
}

TEST(ParkedWaiter, AWaitForAllIsReleasedByTheLastSignalAlone)
{
    HANDLE events[] = {CreateEventW(nullptr, FALSE, FALSE, nullptr), CreateEventW(nullptr, FALSE, FALSE, nullptr)};
    CWaiter both([&] { return WaitForMultipleObjects(2, events, TRUE, kLong); });
    SetEvent(events[0]);
    EXPECT_EQ(WAIT_OBJECT_0, WaitForSingleObject(events[0], 0)); // not taken by the waiter
    SetEvent(events[1]);
    SetEvent(events[0]);
    EXPECT_EQ(WAIT_OBJECT_0, both.Result());
    EXPECT_EQ(WAIT_TIMEOUT, WaitForSingleObject(events[0], 0));
    EXPECT_EQ(WAIT_TIMEOUT, WaitForSingleObject(events[1], 0));
    CloseHandle(events[0]);
    CloseHandle(events[1]);
}

TEST(ParkedWaiter, OfAClosedEventTimesOutAndDoesNotSeeTheNextEvent)
{
    HANDLE event = CreateEventW(nullptr, TRUE, FALSE, nullptr);
    CWaiter single([&] { return WaitForSingleObject(event, 300); });
    CloseHandle(event);
    HANDLE next = CreateEventW(nullptr, TRUE, TRUE, nullptr);
    EXPECT_NE(event, next);
    EXPECT_EQ(WAIT_TIMEOUT, single.Result());
    CloseHandle(next);
}

TEST(Handle, GarbageIsRefused)
{
    for (const std::uintptr_t value : std::initializer_list<std::uintptr_t>{1, 4, ~std::uintptr_t{0}, 0x1234567890})
    {
        HANDLE garbage = reinterpret_cast<HANDLE>(value);
        EXPECT_EQ(FALSE, CloseHandle(garbage));
        EXPECT_EQ(FALSE, SetEvent(garbage));
        EXPECT_EQ(FALSE, ResetEvent(garbage));
        EXPECT_EQ(WAIT_FAILED, WaitForSingleObject(garbage, kLong));
    }
    int local = 0;
    EXPECT_EQ(WAIT_FAILED, WaitForSingleObject(&local, kLong));
}

TEST(Event, CreationFailsAsOftenAsItIsTold)
{
    QsPlatform::FailEventCreations(2);
    EXPECT_EQ(nullptr, CreateEventW(nullptr, TRUE, FALSE, nullptr));
    EXPECT_EQ(nullptr, CreateEventW(nullptr, TRUE, FALSE, nullptr));
    HANDLE event = CreateEventW(nullptr, TRUE, FALSE, nullptr);
    EXPECT_NE(nullptr, event);
    CloseHandle(event);
}

TEST(Event, NamedOnesAreNotSupported)
{
    EXPECT_EQ(nullptr, CreateEventW(nullptr, TRUE, FALSE, L"name"));
}

TEST(Event, ClosingIsCountedWhenItClosedSomething)
{
    HANDLE event = CreateEventW(nullptr, TRUE, FALSE, nullptr);
    const std::uint64_t before = QsPlatform::ClosedHandles();
    CloseHandle(event);
    CloseHandle(event);
    CloseHandle(nullptr);
    EXPECT_EQ(before + 1, QsPlatform::ClosedHandles());
}

TEST(Wait, ATimedOneAsksForTheFinestTimer)
{
    HANDLE event = CreateEventW(nullptr, TRUE, FALSE, nullptr);
    std::thread(
        [&]
        {
            ASSERT_NE(1, prctl(PR_GET_TIMERSLACK));
            WaitForSingleObject(event, 1);
            EXPECT_EQ(1, prctl(PR_GET_TIMERSLACK));
        })
        .join();
    std::thread(
        [&]
        {
            WaitForMultipleObjects(1, &event, TRUE, 1);
            EXPECT_EQ(1, prctl(PR_GET_TIMERSLACK));
        })
        .join();
    CloseHandle(event);
}

void* Nothing(void*)
{
    return nullptr;
}

TEST(Thread, CreationFailsAsOftenAsItIsToldAndLeavesTheHandle)
{
    QsThread thread;
    ASSERT_EQ(0, pthread_create(&thread, nullptr, Nothing, nullptr));
    const QsThread before = thread;
    QsPlatform::FailThreadCreations(1);
    EXPECT_EQ(EAGAIN, pthread_create(&thread, nullptr, Nothing, nullptr));
    EXPECT_EQ(before, thread);
    ASSERT_EQ(0, pthread_create(&thread, nullptr, Nothing, nullptr));
    EXPECT_EQ(0, pthreadCancelableTimedWait(pthread_getw32threadhandle_np(before), kLong));
    EXPECT_EQ(0, pthreadCancelableTimedWait(pthread_getw32threadhandle_np(thread), kLong));
}

TEST(Thread, CreationThatTheSystemRefusesLeavesTheHandle)
{
    // A stack larger than the address space.
    pthread_attr_t attributes;
    ASSERT_EQ(0, pthread_attr_init(&attributes));
    ASSERT_EQ(0, pthread_attr_setstacksize(&attributes, std::size_t{1} << 55));
    QsThread thread;
    EXPECT_NE(0, pthread_create(&thread, &attributes, Nothing, nullptr));
    EXPECT_EQ(nullptr, thread);
    EXPECT_EQ(EINVAL, pthread_create(static_cast<QsThread*>(nullptr), nullptr, Nothing, nullptr));
    EXPECT_EQ(EINVAL, pthread_create(&thread, nullptr, nullptr, nullptr));
    pthread_attr_destroy(&attributes);
}

TEST(Thread, HonoursTheStackSizeAndIsDetachedInAnyCase)
{
    for (const int detachState : {PTHREAD_CREATE_JOINABLE, PTHREAD_CREATE_DETACHED})
    {
        pthread_attr_t attributes;
        pthread_attr_init(&attributes);
        pthread_attr_setdetachstate(&attributes, detachState);
        pthread_attr_setstacksize(&attributes, 4u << 20);
        struct SSeen
        {
            HANDLE created = CreateEventW(nullptr, TRUE, FALSE, nullptr);
            std::atomic<std::size_t> stack{0};
            std::atomic<int> detachState{-1};
        } seen;
        QsThread thread;
        ASSERT_EQ(0, pthread_create(
                         &thread, &attributes,
                         [](void* context) -> void*
                         {
                             auto& mine = *static_cast<SSeen*>(context);
                             WaitForSingleObject(mine.created, kLong);
                             pthread_attr_t own;
                             pthread_getattr_np(pthread_self(), &own);
                             std::size_t size = 0;
                             int state = -1;
                             pthread_attr_getstacksize(&own, &size);
                             pthread_attr_getdetachstate(&own, &state);
                             pthread_attr_destroy(&own);
                             mine.stack = size;
                             mine.detachState = state;
                             return nullptr;
                         },
                         &seen));
        SetEvent(seen.created);
        EXPECT_EQ(0, pthreadCancelableTimedWait(pthread_getw32threadhandle_np(thread), kLong));
        EXPECT_EQ(PTHREAD_CREATE_DETACHED, seen.detachState);
        EXPECT_GE(seen.stack, 4u << 20);
        EXPECT_LT(seen.stack, 8u << 20); // not the default
        CloseHandle(seen.created);
        pthread_attr_destroy(&attributes);
    }
}

TEST(Thread, LeavingThroughPthreadExitEndsItToo)
{
    QsThread thread;
    ASSERT_EQ(0, pthread_create(
                     &thread, nullptr, [](void*) -> void* { pthread_exit(nullptr); }, nullptr));
    EXPECT_EQ(0, pthreadCancelableTimedWait(pthread_getw32threadhandle_np(thread), kLong));
}

TEST(Thread, KnowsItsOwnHandleFromItsFirstInstruction)
{
    struct SOwn
    {
        QsThread thread;
        std::atomic<bool> known{false};
    } own;
    ASSERT_EQ(0, pthread_create(
                     &own.thread, nullptr,
                     [](void* context) -> void*
                     {
                         auto& mine = *static_cast<SOwn*>(context);
                         mine.known = mine.thread != nullptr;
                         return nullptr;
                     },
                     &own));
    EXPECT_EQ(0, pthreadCancelableTimedWait(pthread_getw32threadhandle_np(own.thread), kLong));
    EXPECT_TRUE(own.known);
}

TEST(Thread, ItsHandleIsNotAnEvent)
{
    QsThread thread;
    ASSERT_EQ(0, pthread_create(&thread, nullptr, Nothing, nullptr));
    HANDLE handle = pthread_getw32threadhandle_np(thread);
    EXPECT_EQ(FALSE, SetEvent(handle));
    EXPECT_EQ(FALSE, ResetEvent(handle));
    EXPECT_EQ(FALSE, CloseHandle(handle));
    EXPECT_EQ(0, pthreadCancelableTimedWait(handle, kLong));
    thread.reset();
    // The thread drops its own copy after it has signalled its end.
    while (WaitForSingleObject(handle, 0) == WAIT_OBJECT_0)
        std::this_thread::yield();
    EXPECT_EQ(WAIT_FAILED, WaitForSingleObject(handle, 0));
}

// --------------------------------------------------------------------------------------------------------- modules

HMODULE Poison()
{
    return reinterpret_cast<HMODULE>(std::uintptr_t{0x5A5A});
}

std::wstring Wide(const std::string& ascii)
{
    return {ascii.begin(), ascii.end()};
}

std::string HostFile()
{
    Dl_info info{};
    EXPECT_NE(0, dladdr(reinterpret_cast<void*>(&SetEvent), &info));
    return info.dli_fname;
}

constexpr DWORD kUnchanged = GET_MODULE_HANDLE_EX_FLAG_UNCHANGED_REFCOUNT;

TEST(GetModuleHandleExW, FindsALoadedModuleByPathAndByBareName)
{
    const std::string path = HostFile();
    HMODULE byPath = Poison();
    HMODULE byName = Poison();
    EXPECT_EQ(TRUE, GetModuleHandleExW(kUnchanged, Wide(path).c_str(), &byPath));
    const std::string name = std::filesystem::path(path).filename().string();
    EXPECT_EQ(TRUE, GetModuleHandleExW(kUnchanged, Wide(name).c_str(), &byName));
    EXPECT_NE(nullptr, byPath);
    EXPECT_EQ(byPath, byName);
    EXPECT_EQ(reinterpret_cast<void*>(&SetEvent), dlsym(byPath, "_Z8SetEventPv"));
}

TEST(GetModuleHandleExW, FindsAModuleByAnAddressInIt)
{
    HMODULE byAddress = Poison();
    const auto* address = reinterpret_cast<const wchar_t*>(&SetEvent);
    EXPECT_EQ(TRUE, GetModuleHandleExW(kUnchanged | GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS, address, &byAddress));
    HMODULE byPath = Poison();
    EXPECT_EQ(TRUE, GetModuleHandleExW(kUnchanged, Wide(HostFile()).c_str(), &byPath));
    EXPECT_EQ(byPath, byAddress);
}

TEST(GetModuleHandleExW, FindsTheProgram)
{
    HMODULE none = Poison();
    HMODULE byName = Poison();
    HMODULE byAddress = Poison();
    EXPECT_EQ(TRUE, GetModuleHandleExW(kUnchanged, nullptr, &none));
    EXPECT_EQ(TRUE, GetModuleHandleExW(kUnchanged, L"platform_tests", &byName));
    const auto* address = reinterpret_cast<const wchar_t*>(&Nothing);
    EXPECT_EQ(TRUE, GetModuleHandleExW(kUnchanged | GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS, address, &byAddress));
    EXPECT_NE(nullptr, none);
    EXPECT_EQ(none, byName);
    EXPECT_EQ(none, byAddress);
}

TEST(GetModuleHandleExW, AnswersNullForWhatIsNotLoaded)
{
    for (const wchar_t* name : {L"libnot-there.so", L"/not/there.so", L"/etc/passwd", L"", L"x\xD800"})
    {
        HMODULE module = Poison();
        EXPECT_EQ(FALSE, GetModuleHandleExW(kUnchanged, name, &module));
        EXPECT_EQ(nullptr, module);
    }
    HMODULE module = Poison();
    int local = 0;
    const auto* address = reinterpret_cast<const wchar_t*>(&local);
    EXPECT_EQ(FALSE, GetModuleHandleExW(kUnchanged | GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS, address, &module));
    EXPECT_EQ(nullptr, module);
    EXPECT_EQ(FALSE, GetModuleHandleExW(kUnchanged, L"platform_tests", nullptr));
}

TEST(GetModuleHandleExW, LeavesTheUseCountAloneWhenAskedTo)
{
    // Any library of the system that this program does not use itself.
    const char* const file = "libutil.so.1";
    void* handle = dlopen(file, RTLD_NOW);
    ASSERT_NE(nullptr, handle);
    HMODULE module = Poison();
    for (int i = 0; i < 3; ++i)
        ASSERT_EQ(TRUE, GetModuleHandleExW(kUnchanged, Wide(file).c_str(), &module));
    EXPECT_EQ(handle, module);
    dlclose(handle);
    EXPECT_EQ(FALSE, GetModuleHandleExW(kUnchanged, Wide(file).c_str(), &module));

    handle = dlopen(file, RTLD_NOW);
    ASSERT_EQ(TRUE, GetModuleHandleExW(0, Wide(file).c_str(), &module)); // one use more
    dlclose(handle);
    EXPECT_EQ(TRUE, GetModuleHandleExW(kUnchanged, Wide(file).c_str(), &module));
    dlclose(module);
    EXPECT_EQ(FALSE, GetModuleHandleExW(kUnchanged, Wide(file).c_str(), &module));
}

} // namespace

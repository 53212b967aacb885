// Requests to end that come to the windows of a process.
#include "platform/Interrupt.h"
#include "platform/Win32.h"
#include "tests/support/ChildProcess.h"

#include <gtest/gtest.h>

namespace {

constexpr DWORD kLong = 60000; // ends only when something is broken

BOOL CALLBACK TakeOwn(HWND window, LPARAM found)
{
    DWORD process = 0;
    GetWindowThreadProcessId(window, &process);
    if (process != GetCurrentProcessId())
        return TRUE;
    *reinterpret_cast<HWND*>(found) = window;
    return FALSE;
}

// As who looks for the windows of a process to ask it to end.
HWND OwnWindow()
{
    HWND window = nullptr;
    EnumWindows(&TakeOwn, reinterpret_cast<LPARAM>(&window));
    return window;
}

constexpr int kNoWindow = 77;

QS_CHILD_PROCESS(IsAskedToEnd)
{
    static const HANDLE called = CreateEventW(nullptr, FALSE, FALSE, nullptr);
    if (!QsPlatform::OnInterrupt([] { SetEvent(called); }))
        return 1;
    const HWND window = OwnWindow();
    if (window == nullptr)
        return kNoWindow;
    if (IsWindowVisible(window))
        return 2;
    for (int i = 0; i < 2; ++i)
        if (!PostMessageW(window, WM_CLOSE, 0, 0) || WaitForSingleObject(called, kLong) != WAIT_OBJECT_0)
            return 3;
    // The session may end, and is then said not to.
    if (SendMessageW(window, WM_QUERYENDSESSION, 0, 0) == FALSE)
        return 4;
    SendMessageW(window, WM_ENDSESSION, FALSE, 0);
    if (WaitForSingleObject(called, 0) != WAIT_TIMEOUT)
        return 5;
    // It ends: as long as the process has work to do it is not told that all is done.
    DWORD_PTR result = 0;
    constexpr UINT whileItWorks = 200;
    if (SendMessageTimeoutW(window, WM_ENDSESSION, TRUE, 0, SMTO_NORMAL, whileItWorks, &result) != 0)
        return 6;
    return WaitForSingleObject(called, kLong) == WAIT_OBJECT_0 ? 42 : 7;
}

TEST(Interrupt, ComesFromWhoeverClosesTheWindowOrEndsTheSession)
{
    const std::optional<int> code = QsTest::CChildProcess("IsAskedToEnd", {}).Wait();
    if (code == kNoWindow)
        GTEST_SKIP() << "there is no desktop";
    EXPECT_EQ(42, code);
}

} // namespace

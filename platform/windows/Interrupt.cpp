#include "platform/Interrupt.h"

#include "platform/Win32.h"

#include <future>
#include <system_error>
#include <thread>

namespace QsPlatform {

namespace {

constexpr int handlerThreads = 2; // one may wait while the next interrupt is handled

// Counts interrupts that no thread has taken yet. Never closed: the system may call until the process is gone.
HANDLE s_interrupts = nullptr;

void Interrupt()
{
    ReleaseSemaphore(s_interrupts, 1, nullptr);
}

// The system ends the process when we return, or when its patience is over. Until then the light goes out.
[[noreturn]] void StayUntilTheEnd()
{
    for (;;)
        Sleep(INFINITE);
}

// The system calls on a thread of its own and, while that is inside, not a second time; so the handler is called from
// threads of ours.
BOOL WINAPI OnControl(DWORD event)
{
    Interrupt();
    if (event != CTRL_C_EVENT && event != CTRL_BREAK_EVENT) // the console is closed, or a service's session ends
        StayUntilTheEnd();
    return TRUE;
}

LRESULT CALLBACK OnMessage(HWND window, UINT message, WPARAM wide, LPARAM extra)
{
    switch (message)
    {
    case WM_CLOSE:
        Interrupt();
        return 0;
    case WM_QUERYENDSESSION:
        return TRUE;
    case WM_ENDSESSION:
        if (wide == FALSE) // somebody else has refused it
            return 0;
        Interrupt();
        StayUntilTheEnd();
    default:
        return DefWindowProcW(window, message, wide, extra);
    }
}

// Who asks a process to end sends that to its windows, and so does the end of the user's session: a program that has
// the system's library for windows in it is told in no other way. So there is one that nobody sees.
void ReceiveMessages(std::promise<void>& ready)
{
    WNDCLASSW kind = {};
    kind.lpfnWndProc = &OnMessage;
    kind.hInstance = GetModuleHandleW(nullptr);
    kind.lpszClassName = L"QsStimulation.Interrupt";
    // Where there is no desktop, there is nobody to send anything either.
    const HWND window = RegisterClassW(&kind) == 0 ? nullptr
                                                   : CreateWindowExW(0, kind.lpszClassName, L"", WS_POPUP, 0, 0, 0, 0,
                                                                     nullptr, nullptr, kind.hInstance, nullptr);
    ready.set_value();
    MSG message;
    while (window != nullptr && GetMessageW(&message, nullptr, 0, 0) > 0)
        DispatchMessageW(&message);
}

} // namespace

bool OnInterrupt(const std::function<void()>& handler)
{
    constexpr LONG most = 1000000;
    s_interrupts = CreateSemaphoreW(nullptr, 0, most, nullptr);
    if (s_interrupts == nullptr)
        return false;
    try
    {
        for (int i = 0; i < handlerThreads; ++i)
            std::thread(
                [handler]
                {
                    while (WaitForSingleObject(s_interrupts, INFINITE) == WAIT_OBJECT_0)
                        handler();
                })
                .detach();
        std::promise<void> ready;
        std::thread([&ready] { ReceiveMessages(ready); }).detach();
        ready.get_future().wait();
    }
    catch (const std::system_error&)
    {
        return false;
    }
    // Who starts us as a group of its own has Ctrl-C ignored; a light must be stoppable all the same.
    SetConsoleCtrlHandler(nullptr, FALSE);
    return SetConsoleCtrlHandler(&OnControl, TRUE) != FALSE;
}

} // namespace QsPlatform

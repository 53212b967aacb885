// Items for the thread pool.
#pragma once

#include "platform/Win32.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <thread>
#include <utility>

constexpr DWORD kLong = 60000; // ends only when something is broken

template <class Condition>
bool Becomes(Condition condition)
{
    const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(kLong);
    while (!condition())
    {
        if (std::chrono::steady_clock::now() > end)
            return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return true;
}

class CEvent
{
public:
    explicit CEvent(bool manualReset) : m_handle(CreateEventW(nullptr, manualReset ? TRUE : FALSE, FALSE, nullptr)) {}
    ~CEvent() { CloseHandle(m_handle); }
    CEvent(const CEvent&) = delete;
    CEvent& operator=(const CEvent&) = delete;

    void Set() { SetEvent(m_handle); }
    bool Wait() { return WaitForSingleObject(m_handle, kLong) == WAIT_OBJECT_0; }

private:
    HANDLE m_handle;
};

// What the pool runs, with what it saw. Lives longer than the item.
struct SItem
{
    std::function<void()> body;
    std::atomic<DWORD> thread{0}; // on which it ran
    CEvent done{true};

    explicit SItem(std::function<void()> whatToDo) : body(std::move(whatToDo)) {}

    BOOL Queue() { return QueueUserWorkItem(&SItem::Run, this, WT_EXECUTELONGFUNCTION); }

    static DWORD WINAPI Run(LPVOID context)
    {
        auto& self = *static_cast<SItem*>(context);
        self.thread = GetCurrentThreadId();
        self.body();
        self.done.Set();
        return 0;
    }
};

// Runs until it is released.
struct SBlocked
{
    CEvent release{true};
    SItem item;

    explicit SBlocked(std::function<void()> atFirst = [] {})
        : item(
              [this, atFirst]
              {
                  atFirst();
                  EXPECT_TRUE(release.Wait());
              })
    {}
};

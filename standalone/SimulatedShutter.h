// One simulated shutter of the stand-alone host.
//
// Its blade moves towards what the newest accepted command asked for. A command that asks for the way the blade is
// already moving joins that movement; one that asks for the other way turns the blade round at once, and the call that
// had started the old movement returns. So the last command wins, whichever thread it comes from.
#pragma once

#include "platform/ThreadSafety.h"
#include "standalone/DeviceManager.h"
#include "standalone/JournalLight.h"

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <random>

namespace QsStandalone {

class CQsSimulatedShutter
{
public:
    CQsSimulatedShutter(const SShutterSetup& setup, std::uint32_t index);

    std::uint32_t Id() const { return m_setup.logDevId; }
    std::uint32_t Index() const { return m_index; }
    const SShutterSetup& Setup() const { return m_setup; }
    const wchar_t* ToolbarName() const { return m_toolbarName.c_str(); }
    bool IsConnected() const { return m_connected.load(std::memory_order_acquire); }
    bool IsOpen();
    std::uint32_t Calls();

    // True when the blade has come to rest as asked; without `wait` when it has been sent there. [blocks]
    // A triggered command is refused and not counted.
    bool SetState(bool open, bool triggered, bool wait);
    void WakeHangs(); // after the hangs were released
    // Springs shut at once and forgets every command under way. True when it was open, or on its way.
    bool ForceClosed();
    void Disconnect(); // the same, and refuses every later command

    // Bound of the times below, for the clock's sake [ms].
    static constexpr double s_longestTimeMs = 1e9;

private:
    using Clock = std::chrono::steady_clock;

    struct SCommand
    {
        bool accepted = false;
        std::uint64_t number = 0;
    };

    SCommand Accept() QS_REQUIRES(m_lock);
    void DropOut() QS_REQUIRES(m_lock);
    void SpringShut() QS_REQUIRES(m_lock);
    bool Hang(std::uint64_t command) QS_REQUIRES(m_lock); // false: a newer command has come
    void Move(bool open) QS_REQUIRES(m_lock);
    bool AwaitRest(std::uint64_t movement) QS_REQUIRES(m_lock);
    void Rest() QS_REQUIRES(m_lock);
    double Latency(bool open) QS_REQUIRES(m_lock);
    void Wake() QS_REQUIRES(m_lock);
    bool WaitUntil(Clock::time_point time) QS_REQUIRES(m_lock); // false: it is that time

    const SShutterSetup m_setup;
    const std::uint32_t m_index;
    const std::wstring m_toolbarName;
    std::atomic<bool> m_connected;
    CQsJournalLight m_light;

    CQsMutex m_lock;
    std::condition_variable m_changed;
    unsigned m_waiting QS_GUARDED_BY(m_lock) = 0;
    std::uint32_t m_calls QS_GUARDED_BY(m_lock) = 0;
    std::uint64_t m_command QS_GUARDED_BY(m_lock) = 0;  // number of the newest accepted command
    std::uint64_t m_movement QS_GUARDED_BY(m_lock) = 0; // number of the newest movement
    bool m_target QS_GUARDED_BY(m_lock) = false;        // where that movement goes: open or closed
    bool m_atRest QS_GUARDED_BY(m_lock) = true;
    bool m_open QS_GUARDED_BY(m_lock) = false; // from the end of an opening to the end of a closing
    Clock::time_point m_restTime QS_GUARDED_BY(m_lock);
    std::mt19937 m_random QS_GUARDED_BY(m_lock);
};

// Whether hangs are over, now and later; set by CQsDeviceManager.
std::atomic<bool>& HangsReleased();

} // namespace QsStandalone

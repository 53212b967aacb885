#include "standalone/SimulatedShutter.h"

#include "host/QsSystem.h"
#include "platform/Win32.h"
#include "standalone/Journal.h"

#include <algorithm>
#include <array>
#include <system_error>
#include <thread>

namespace QsStandalone {

namespace {

constexpr int statusRefused = QS_ERR_FAIL;

// Made once: a command to close the light must not wait for memory.
const std::string& CommandText(bool open, bool triggered, bool wait)
{
    static const std::array<std::string, 8> texts = []
    {
        std::array<std::string, 8> all;
        for (std::size_t i = 0; i < all.size(); ++i)
            all[i] = std::string("Shutter_SetState(") + (i & 4 ? "open" : "close") + (i & 2 ? ", true" : ", false") +
                     (i & 1 ? ", true)" : ", false)");
        return all;
    }();
    return texts[(open ? 4u : 0u) + (triggered ? 2u : 0u) + (wait ? 1u : 0u)];
}

// The platform's waits take whole milliseconds, a blade does not, so it waits for itself. A timed wait for a signalled
// event returns at once and leaves the thread with the finest timer that the system gives.
void AskForFinestTimer()
{
    static const HANDLE signalled = CreateEventW(nullptr, TRUE, TRUE, nullptr);
    static thread_local const DWORD asked = WaitForSingleObject(signalled, 1);
    static_cast<void>(asked);
}

} // namespace

std::atomic<bool>& HangsReleased()
{
    static std::atomic<bool> released{false};
    return released;
}

CQsSimulatedShutter::CQsSimulatedShutter(const SShutterSetup& setup, std::uint32_t index)
    : m_setup(setup), m_index(index), m_toolbarName(CQsStringW::FromUtf8(setup.name).Std()),
      m_connected(setup.connected), m_light(setup.name), m_random(setup.jitterSeed)
{}

bool CQsSimulatedShutter::IsOpen()
{
    CQsScopedLock<CQsMutex> lock(m_lock);
    return m_open;
}

std::uint32_t CQsSimulatedShutter::Calls()
{
    CQsScopedLock<CQsMutex> lock(m_lock);
    return m_calls;
}

bool CQsSimulatedShutter::SetState(bool open, bool triggered, bool wait)
{
    const bool recording = g_journalRecords.load(std::memory_order_relaxed);
    CQsScopedLock<CQsMutex> lock(m_lock);
    if (recording)
        CQsJournal::Call(m_setup.name, CommandText(open, triggered, wait));
    const SCommand command = triggered ? SCommand() : Accept(); // there is no trigger
    bool done = command.accepted && (m_calls != m_setup.hangAtCall || Hang(command.number));
    if (done)
    {
        Move(open);
        if (wait)
            done = AwaitRest(m_movement);
        else if (!m_atRest)
        {
            const std::uint64_t movement = m_movement;
            try
            {
                // Shutters are never freed, so the thread may outlive everything else.
                std::thread(
                    [this, movement]
                    {
                        CQsScopedLock<CQsMutex> ownLock(m_lock);
                        AwaitRest(movement);
                    })
                    .detach();
            }
            catch (const std::system_error&)
            {
                done = AwaitRest(movement);
            }
        }
    }
    if (recording)
        CQsJournal::Return(m_setup.name, CommandText(open, triggered, wait), done ? QS_OK : statusRefused);
    return done;
}

void CQsSimulatedShutter::WakeHangs()
{
    CQsScopedLock<CQsMutex> lock(m_lock);
    Wake();
}

bool CQsSimulatedShutter::ForceClosed()
{
    CQsScopedLock<CQsMutex> lock(m_lock);
    const bool wasOpen = m_open || m_target;
    SpringShut();
    return wasOpen;
}

void CQsSimulatedShutter::Disconnect()
{
    CQsScopedLock<CQsMutex> lock(m_lock);
    m_connected.store(false, std::memory_order_release);
    SpringShut();
}

void CQsSimulatedShutter::SpringShut()
{
    ++m_command;
    ++m_movement;
    m_target = false;
    Rest();
}

CQsSimulatedShutter::SCommand CQsSimulatedShutter::Accept()
{
    ++m_calls;
    if (m_calls == m_setup.dropOutAtCall)
        DropOut();
    if (!IsConnected())
        return {};
    if (m_calls >= m_setup.refuseFromCall && m_calls <= m_setup.refuseToCall)
    {
        CQsJournal::Fault(m_setup.name, "call " + std::to_string(m_calls) + " is refused");
        return {};
    }
    ++m_command;
    Wake(); // a hang that this command overtakes, also when the blade has nowhere to go
    return {true, m_command};
}

void CQsSimulatedShutter::DropOut()
{
    CQsJournal::Fault(m_setup.name, "call " + std::to_string(m_calls) + ": the shutter drops out");
    m_connected.store(false, std::memory_order_release);
    SpringShut();
}

bool CQsSimulatedShutter::Hang(std::uint64_t command)
{
    CQsJournal::Fault(m_setup.name, "call " + std::to_string(m_calls) + " hangs");
    const Clock::time_point end = Clock::now() + std::chrono::duration_cast<Clock::duration>(
                                                     std::chrono::duration<double, std::milli>(m_setup.hangMs));
    while (m_command == command && !HangsReleased() && WaitUntil(end))
    {}
    return m_command == command;
}

void CQsSimulatedShutter::Move(bool open)
{
    if (open == m_target)
        return;
    ++m_movement;
    m_target = open;
    m_atRest = false;
    const double latency = Latency(open);
    if (latency <= 0.0)
    {
        Rest();
        return;
    }
    m_restTime =
        Clock::now() + std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double, std::milli>(latency));
    Wake();
}

// True when the movement came to its end; false when the blade was turned round on its way.
bool CQsSimulatedShutter::AwaitRest(std::uint64_t movement)
{
    while (!m_atRest && m_movement == movement)
        if (!WaitUntil(m_restTime) && m_movement == movement && !m_atRest)
            Rest();
    return m_movement == movement;
}

void CQsSimulatedShutter::Rest()
{
    m_atRest = true;
    if (m_open != m_target)
    {
        m_open = m_target;
        if (m_setup.lightOnWhenOpen)
        {
            if (m_open)
                m_light.On();
            else
                m_light.Off();
        }
    }
    Wake();
}

double CQsSimulatedShutter::Latency(bool open)
{
    double latency = open ? m_setup.openLatencyMs : m_setup.closeLatencyMs;
    if (m_setup.jitterMs > 0.0)
        latency += std::uniform_real_distribution<double>(-m_setup.jitterMs, m_setup.jitterMs)(m_random);
    return std::max(latency, 0.0);
}

void CQsSimulatedShutter::Wake()
{
    if (m_waiting != 0)
        m_changed.notify_all();
}

bool CQsSimulatedShutter::WaitUntil(Clock::time_point time)
{
    AskForFinestTimer();
    ++m_waiting;
    std::unique_lock<std::mutex> native(m_lock.Native(), std::adopt_lock);
    const bool inTime = m_changed.wait_until(native, time) == std::cv_status::no_timeout;
    native.release();
    --m_waiting;
    return inTime;
}

} // namespace QsStandalone

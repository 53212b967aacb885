#include "standalone/Journal.h"

#include "host/QsSystem.h"
#include "platform/ThreadSafety.h"
#include "standalone/JournalLight.h"

#include <algorithm>
#include <map>

namespace QsStandalone {

std::atomic<bool> g_journalRecords{true};

namespace {

bool Records()
{
    return g_journalRecords.load(std::memory_order_relaxed);
}

struct SJournal
{
    SJournal() { entries.reserve(4096); } // a growing list would delay what is written

    CQsMutex lock;
    std::vector<SJournalEntry> entries QS_GUARDED_BY(lock);
    // A device that was lit once keeps its place, so that switching it again allocates nothing.
    std::map<std::string, std::atomic<bool>> lit QS_GUARDED_BY(lock);
};

// Never destroyed: devices may still be switched while the process ends.
SJournal& Journal()
{
    static SJournal& journal = *new SJournal;
    return journal;
}

std::uint64_t ThisThread()
{
    static std::atomic<std::uint64_t> threads{0};
    static thread_local const std::uint64_t number = ++threads;
    return number;
}

// The time is taken under the lock, so that the entries stand in the order of their times.
void Append(SJournal& journal, EJournalKind kind, const std::string& device, const std::string& text, int status)
    QS_REQUIRES(journal.lock)
{
    SJournalEntry entry;
    entry.timeMs = QS_GetTimeCounter();
    entry.thread = ThisThread();
    entry.kind = kind;
    entry.device = device;
    entry.text = text;
    entry.status = status;
    journal.entries.push_back(std::move(entry));
}

void Write(EJournalKind kind, const std::string& device, const std::string& text, int status)
{
    if (!Records())
        return;
    SJournal& journal = Journal();
    CQsScopedLock<CQsMutex> lock(journal.lock);
    Append(journal, kind, device, text, status);
}

// The lit state changes first: it stays right also when there is no memory for the entry.
void Light(bool on, const std::string& device, const std::string& text)
{
    SJournal& journal = Journal();
    CQsScopedLock<CQsMutex> lock(journal.lock);
    journal.lit.try_emplace(device, false).first->second.store(on);
    if (Records())
        Append(journal, on ? EJournalKind::LightOn : EJournalKind::LightOff, device, text, 0);
}

std::atomic<bool>& LitState(const std::string& device)
{
    SJournal& journal = Journal();
    CQsScopedLock<CQsMutex> lock(journal.lock);
    return journal.lit.try_emplace(device, false).first->second;
}

} // namespace

void CQsJournal::Call(const std::string& device, const std::string& text)
{
    Write(EJournalKind::Call, device, text, 0);
}

void CQsJournal::Return(const std::string& device, const std::string& text, int status)
{
    Write(EJournalKind::Return, device, text, status);
}

void CQsJournal::LightOn(const std::string& device, const std::string& text)
{
    Light(true, device, text);
}

void CQsJournal::LightOff(const std::string& device, const std::string& text)
{
    Light(false, device, text);
}

void CQsJournal::Fault(const std::string& device, const std::string& text)
{
    Write(EJournalKind::Fault, device, text, 0);
}

std::vector<SJournalEntry> CQsJournal::Entries()
{
    return EntriesFrom(0);
}

std::size_t CQsJournal::Count()
{
    SJournal& journal = Journal();
    CQsScopedLock<CQsMutex> lock(journal.lock);
    return journal.entries.size();
}

std::vector<SJournalEntry> CQsJournal::EntriesFrom(std::size_t first)
{
    SJournal& journal = Journal();
    CQsScopedLock<CQsMutex> lock(journal.lock);
    const std::size_t begin = std::min(first, journal.entries.size());
    return {journal.entries.begin() + static_cast<std::ptrdiff_t>(begin), journal.entries.end()};
}

void CQsJournal::Clear()
{
    SJournal& journal = Journal();
    CQsScopedLock<CQsMutex> lock(journal.lock);
    journal.entries.clear();
}

std::vector<std::string> CQsJournal::LitDevices()
{
    SJournal& journal = Journal();
    CQsScopedLock<CQsMutex> lock(journal.lock);
    std::vector<std::string> devices;
    for (const auto& [device, lit] : journal.lit)
        if (lit.load())
            devices.push_back(device);
    return devices;
}

void CQsJournal::SetRecording(bool record)
{
    g_journalRecords.store(record);
}

bool CQsJournal::IsRecording()
{
    return Records();
}

CQsJournalLight::CQsJournalLight(std::string device) : m_device(std::move(device)), m_lit(LitState(m_device)) {}

void CQsJournalLight::Switch(bool on)
{
    if (Records())
        Light(on, m_device, {});
    else
        m_lit.store(on, std::memory_order_release);
}

} // namespace QsStandalone

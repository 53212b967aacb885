#include "standalone/DatabaseDeadlines.h"

#include "platform/Sockets.h"
#include "platform/ThreadSafety.h"

#include <cstddef>
#include <thread>

namespace QsStandalone {

namespace {

constexpr auto s_interval = std::chrono::seconds(1);

struct SDeadlines
{
    CQsMutex lock;
    std::list<SDatabaseUse> uses QS_GUARDED_BY(lock);
    std::size_t connections QS_GUARDED_BY(lock) = 0;
    bool bWatching QS_GUARDED_BY(lock) = false;
};

SDeadlines& Deadlines()
{
    static SDeadlines& deadlines = *new SDeadlines; // the thread may still look while the process ends
    return deadlines;
}

// False when there is nothing left to watch.
bool Look()
{
    SDeadlines& deadlines = Deadlines();
    const CQsScopedLock<CQsMutex> lock(deadlines.lock);
    const auto now = std::chrono::steady_clock::now();
    for (SDatabaseUse& use : deadlines.uses)
        if (use.socket >= 0 && use.end < now)
        {
            QsShutdownSocket(use.socket);
            use.socket = -1; // once
        }
    deadlines.bWatching = deadlines.connections != 0;
    return deadlines.bWatching;
}

} // namespace

void AddWatchedConnection()
{
    SDeadlines& deadlines = Deadlines();
    const CQsScopedLock<CQsMutex> lock(deadlines.lock);
    ++deadlines.connections;
    if (deadlines.bWatching)
        return;
    deadlines.bWatching = true;
    std::thread(
        []
        {
            do
                std::this_thread::sleep_for(s_interval);
            while (Look());
        })
        .detach();
}

void RemoveWatchedConnection()
{
    SDeadlines& deadlines = Deadlines();
    const CQsScopedLock<CQsMutex> lock(deadlines.lock);
    --deadlines.connections;
}

DatabaseUse BeginDatabaseUse(int socket, std::chrono::milliseconds limit)
{
    SDeadlines& deadlines = Deadlines();
    const auto end = std::chrono::steady_clock::now() + limit;
    const CQsScopedLock<CQsMutex> lock(deadlines.lock);
    return deadlines.uses.insert(deadlines.uses.end(), {socket, end});
}

void EndDatabaseUse(DatabaseUse use)
{
    SDeadlines& deadlines = Deadlines();
    const CQsScopedLock<CQsMutex> lock(deadlines.lock);
    deadlines.uses.erase(use);
}

} // namespace QsStandalone

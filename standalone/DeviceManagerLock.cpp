// The device manager's global lock.
#include "host/QsDMApi.h"
#include "platform/ThreadSafety.h"
#include "standalone/HostControl.h"

#include <thread>

namespace {

// A count and its owner rather than a recursive mutex: a release by a thread that holds nothing is then seen, and
// ignored, and how often it is held can be asked from outside.
struct SGlobalLock
{
    CQsMutex lock;
    std::thread::id owner QS_GUARDED_BY(lock); // of depth above 0
    QsStandalone::SDeviceManagerLock state QS_GUARDED_BY(lock);
    bool refuse QS_GUARDED_BY(lock) = false;
};

SGlobalLock& GlobalLock()
{
    static SGlobalLock& lock = *new SGlobalLock; // never destroyed: threads may hold it while the process ends
    return lock;
}

} // namespace

bool DMApi_TryLockDeviceManager(int)
{
    SGlobalLock& global = GlobalLock();
    const std::thread::id self = std::this_thread::get_id();
    const CQsScopedLock<CQsMutex> guard(global.lock);
    ++global.state.tries;
    if (global.refuse || (global.state.depth > 0 && global.owner != self))
    {
        ++global.state.refusals;
        return false;
    }
    global.owner = self;
    ++global.state.depth;
    return true;
}

void DMApi_ReleaseLockDeviceManager(int)
{
    SGlobalLock& global = GlobalLock();
    {
        const CQsScopedLock<CQsMutex> guard(global.lock);
        if (global.state.depth > 0 && global.owner == std::this_thread::get_id())
        {
            --global.state.depth;
            return;
        }
    }
    DiagOutputExW(L"DeviceManager", __LINE__, L"the lock was released by a thread that does not hold it: ignored");
}

void QsStandalone::RefuseDeviceManagerLock(bool refuse)
{
    SGlobalLock& global = GlobalLock();
    const CQsScopedLock<CQsMutex> guard(global.lock);
    global.refuse = refuse;
}

QsStandalone::SDeviceManagerLock QsStandalone::DeviceManagerLock()
{
    SGlobalLock& global = GlobalLock();
    const CQsScopedLock<CQsMutex> guard(global.lock);
    return global.state;
}

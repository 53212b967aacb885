// What the microscope is set to.
#include "host/QsDMApi.h"
#include "platform/ThreadSafety.h"
#include "standalone/HostControl.h"

namespace {

struct SHardware
{
    CQsMutex lock;
    SQsDMApiHardware now QS_GUARDED_BY(lock);
};

SHardware& Hardware()
{
    static SHardware& hardware = *new SHardware; // never destroyed: threads may ask until the process ends
    return hardware;
}

} // namespace

SQsDMApiHardware DMApi::Hardware_Get()
{
    SHardware& hardware = Hardware();
    const CQsScopedLock<CQsMutex> guard(hardware.lock);
    return hardware.now;
}

void QsStandalone::SetHardware(const SQsDMApiHardware& hardware)
{
    SQsDMApiHardware copy = hardware;
    SHardware& kept = Hardware();
    const CQsScopedLock<CQsMutex> guard(kept.lock);
    std::swap(kept.now, copy);
}

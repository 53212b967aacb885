// Whether the stand-alone host runs on a device database.
#include "host/QsDevice.h"
#include "standalone/HostControl.h"

#include <atomic>

namespace {

std::atomic<bool> s_initialized{false};

} // namespace

bool DeviceDBApi::IsInitialized()
{
    return s_initialized;
}

void QsStandalone::SetDeviceDatabaseInitialized(bool initialized)
{
    s_initialized = initialized;
}

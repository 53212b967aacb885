// The host's device library: the device database.
#pragma once

#include "host/QsHostApi.h"

class QS_HOST_API DeviceDBApi
{
public:
    // Whether the host runs on a device database. May change while the host starts. [any thread]
    static bool IsInitialized();
};

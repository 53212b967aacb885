// How exactly the system ends timed waits.
#pragma once

#include "host/QsHostApi.h"

namespace QsPlatform {

// While one exists, timed waits of the process end about a millisecond after their time at most. Windows would let them
// end some 16 ms late; it gives the finer timer at the price of more power. Elsewhere this does nothing: there each
// wait sees to it for its own thread. [any thread]
class QS_HOST_API CFinestTimer
{
public:
    CFinestTimer();
    ~CFinestTimer();
    CFinestTimer(const CFinestTimer&) = delete;
    CFinestTimer& operator=(const CFinestTimer&) = delete;
};

} // namespace QsPlatform

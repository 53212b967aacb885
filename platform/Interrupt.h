// Interrupts of the process from outside: Ctrl-C, the request to end, and whatever else would end or stop it.
#pragma once

#include "host/QsHostApi.h"

#include <functional>

namespace QsPlatform {

// From now on an interrupt does not end the process: it calls `handler`, on a thread that does nothing else, so the
// handler may take locks and wait. Two threads do so: one more interrupt is handled while a handler waits, the next
// ones when one of the two has returned. Nor does the process end when a reader of our output goes away or a file
// reaches its greatest size, and it is not stopped from its terminal. Call it once, before any other thread is started:
// threads that exist already could still be ended. False when the system refuses.
QS_HOST_API bool OnInterrupt(const std::function<void()>& handler);

} // namespace QsPlatform

// Interrupts of the process from outside: Ctrl-C, and the request to end.
#pragma once

#include "host/QsHostApi.h"

#include <functional>

namespace QsPlatform {

// From now on an interrupt does not end the process: it calls `handler`, on a thread that does nothing else, so the
// handler may take locks and wait. Interrupts that arrive meanwhile are handled one after the other. A reader of our
// output that goes away no longer ends the process either. Call it once, before any other thread is started: threads
// that exist already could still be ended. False when the system refuses.
QS_HOST_API bool OnInterrupt(std::function<void()> handler);

} // namespace QsPlatform

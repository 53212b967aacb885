// Calls into a device that may never answer.
#pragma once

#include <functional>

namespace Stimhost {

// Runs the function on a thread of its own and waits for it, at most that long. False when it did not end by then: the
// thread then goes on by itself, so what the function uses must live as long as the process. [blocks]
bool RunBounded(double timeoutMs, std::function<void()> function);

} // namespace Stimhost

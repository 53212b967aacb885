#include "platform/Interrupt.h"

#include <csignal>
#include <pthread.h>
#include <system_error>
#include <thread>

namespace QsPlatform {

bool OnInterrupt(std::function<void()> handler)
{
    sigset_t signals;
    sigemptyset(&signals);
    // A shell that starts us in the background may have had them ignored; a light must be stoppable all the same.
    for (const int number : {SIGINT, SIGTERM})
    {
        if (std::signal(number, SIG_DFL) == SIG_ERR)
            return false;
        sigaddset(&signals, number);
    }
    // A closed terminal ends the run as well, unless the user asked to survive that (nohup).
    struct sigaction hangUp = {};
    if (sigaction(SIGHUP, nullptr, &hangUp) == 0 && hangUp.sa_handler == SIG_DFL)
        sigaddset(&signals, SIGHUP);
    if (std::signal(SIGPIPE, SIG_IGN) == SIG_ERR || pthread_sigmask(SIG_BLOCK, &signals, nullptr) != 0)
        return false;

    try
    {
        std::thread([signals, handler = std::move(handler)] {
            for (;;)
            {
                int number = 0;
                if (sigwait(&signals, &number) == 0)
                    handler();
            }
        }).detach();
    }
    catch (const std::system_error&)
    {
        pthread_sigmask(SIG_UNBLOCK, &signals, nullptr);
        return false;
    }
    return true;
}

} // namespace QsPlatform

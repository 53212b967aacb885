#include "platform/Interrupt.h"

#include <csignal>
#include <pthread.h>
#include <system_error>
#include <thread>

namespace QsPlatform {

namespace {

constexpr int handlerThreads = 2; // one may wait while the next interrupt is handled

} // namespace

bool OnInterrupt(const std::function<void()>& handler)
{
    sigset_t signals;
    sigemptyset(&signals);
    // A shell that starts us in the background may have had them ignored; a light must be stoppable all the same.
    for (const int number :
         {SIGINT, SIGTERM, SIGQUIT, SIGALRM, SIGVTALRM, SIGPROF, SIGUSR1, SIGUSR2, SIGXCPU, SIGPWR, SIGIO})
    {
        if (std::signal(number, SIG_DFL) == SIG_ERR)
            return false;
        sigaddset(&signals, number);
    }
    // A closed terminal ends the run as well, unless the user asked to survive that (nohup).
    struct sigaction hangUp = {};
    if (sigaction(SIGHUP, nullptr, &hangUp) == 0 && hangUp.sa_handler == SIG_DFL)
        sigaddset(&signals, SIGHUP);
    // A stopped process cannot put its light out; the other two come back as errors of the write.
    for (const int number : {SIGTSTP, SIGTTIN, SIGTTOU, SIGPIPE, SIGXFSZ})
        if (std::signal(number, SIG_IGN) == SIG_ERR)
            return false;
    if (pthread_sigmask(SIG_BLOCK, &signals, nullptr) != 0)
        return false;

    try
    {
        for (int i = 0; i < handlerThreads; ++i)
            std::thread(
                [signals, handler]
                {
                    for (;;)
                    {
                        int number = 0;
                        if (sigwait(&signals, &number) == 0)
                            handler();
                    }
                })
                .detach();
    }
    catch (const std::system_error&)
    {
        pthread_sigmask(SIG_UNBLOCK, &signals, nullptr);
        return false;
    }
    return true;
}

} // namespace QsPlatform

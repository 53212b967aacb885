// Threads whose end can be waited for any number of times.
#include "platform/posix/Control.h"
#include "platform/posix/ThreadsPosix.h"
#include "platform/posix/Waitable.h"

#include <cerrno>
#include <new>
#include <utility>

struct SQsThreadState
{
    HANDLE end = QsPlatform::CreateThreadEnd();

    SQsThreadState() = default;
    ~SQsThreadState() { QsPlatform::CloseThreadEnd(end); }
    SQsThreadState(const SQsThreadState&) = delete;
    SQsThreadState& operator=(const SQsThreadState&) = delete;
};

namespace {

std::atomic<unsigned> g_failures{0};

struct SStart
{
    QsThread state;
    void* (*start)(void*);
    void* argument;
};

// Signals the end also when the procedure leaves through pthread_exit.
struct SEndOfThread
{
    QsThread state;
    ~SEndOfThread() { QsPlatform::SignalThreadEnd(state->end); }
};

void* Run(void* context)
{
    auto* const given = static_cast<SStart*>(context);
    const auto start = given->start;
    void* const argument = given->argument;
    const SEndOfThread end{std::move(given->state)};
    delete given;
    return start(argument);
}

} // namespace

int pthread_create(QsThread* thread, const pthread_attr_t* attributes, void* (*start)(void*), void* argument)
{
    if (!thread || !start)
        return EINVAL;
    if (QsPlatform::TakeFailure(g_failures))
        return EAGAIN;
    int detachState = PTHREAD_CREATE_JOINABLE;
    if (attributes)
        pthread_attr_getdetachstate(attributes, &detachState);
    try
    {
        auto state = std::make_shared<SQsThreadState>();
        if (!state->end)
            return EAGAIN;
        auto context = std::make_unique<SStart>(SStart{state, start, argument});
        // Before the thread runs: it may compare itself with the caller's handle at once.
        thread->swap(state);
        pthread_t system;
        const int error = pthread_create(&system, attributes, Run, context.get());
        if (error != 0)
        {
            thread->swap(state);
            return error;
        }
        static_cast<void>(context.release()); // the thread's own
        if (detachState == PTHREAD_CREATE_JOINABLE)
            pthread_detach(system);
        return 0;
    }
    catch (const std::bad_alloc&)
    {
        return EAGAIN;
    }
}

HANDLE pthread_getw32threadhandle_np(const QsThread& thread)
{
    return thread ? thread->end : nullptr;
}

int pthreadCancelableTimedWait(HANDLE handle, DWORD milliseconds)
{
    switch (WaitForSingleObject(handle, milliseconds))
    {
    case WAIT_OBJECT_0:
        return 0;
    case WAIT_TIMEOUT:
        return ETIMEDOUT;
    default:
        return EINVAL;
    }
}

void QsPlatform::FailThreadCreations(unsigned count)
{
    g_failures = count;
}

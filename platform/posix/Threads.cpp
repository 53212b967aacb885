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
    void* (*start)(void*);
    void* argument;
    QsThread self; // keeps the state until the thread has taken it over

    SQsThreadState(void* (*startRoutine)(void*), void* startArgument) : start(startRoutine), argument(startArgument) {}
    ~SQsThreadState() { QsPlatform::CloseThreadEnd(end); }
    SQsThreadState(const SQsThreadState&) = delete;
    SQsThreadState& operator=(const SQsThreadState&) = delete;
};

namespace {

std::atomic<unsigned> g_failures{0};

// Signals the end also when the procedure leaves through pthread_exit.
struct SEndOfThread
{
    QsThread state;
    ~SEndOfThread() { QsPlatform::SignalThreadEnd(state->end); }
};

void* Run(void* context)
{
    auto* const state = static_cast<SQsThreadState*>(context);
    const SEndOfThread end{std::move(state->self)};
    return state->start(state->argument);
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
        QsThread state = std::make_shared<SQsThreadState>(start, argument);
        if (!state->end)
            return EAGAIN;
        state->self = state;
        SQsThreadState* const context = state.get();
        // Before the thread runs: it may compare itself with the caller's handle at once.
        thread->swap(state);
        pthread_t system;
        const int error = pthread_create(&system, attributes, Run, context);
        if (error != 0)
        {
            context->self.reset();
            thread->swap(state);
            return error;
        }
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

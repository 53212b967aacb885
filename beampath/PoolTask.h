// Work for one device of a beampath on a thread of the system's pool, shared between the thread that asked for it,
// which waits for its end, and the thread that does it, which may outlive that wait.
#pragma once

#include "host/QsSystem.h"
#include "manager/DeviceCall.h"
#include "manager/RegistryLock.h"
#include "platform/Win32.h"

#include <atomic>
#include <memory>
#include <new>

// Parameters by value, and an event that is set when the work is done. Counted; born with the caller's reference.
template <class Params>
class CQsPoolTask
{
public:
    // Null when there is no memory or no event.
    static CQsPoolTask* Create(const Params& params)
    {
        auto* const task = new (std::nothrow) CQsPoolTask(params);
        if (task == nullptr || task->m_hDone != nullptr)
            return task;
        delete task;
        return nullptr;
    }

    void AddRef() { ++m_references; }
    void Release()
    {
        if (--m_references != 0)
            return;
        // The graphics-object release call: which call these events go to is part of what hosts see of this module.
        // Where it refuses what is no graphics object, each event lives until the process ends (docs/decisions/0010).
        DeleteObject(m_hDone);
        delete this;
    }

    Params params;
    HANDLE Done() const { return m_hDone; }

private:
    explicit CQsPoolTask(const Params& p) : params(p), m_hDone(CreateEventW(nullptr, FALSE, FALSE, nullptr)) {}
    ~CQsPoolTask() = default;

    std::atomic<std::uint32_t> m_references{1};
    HANDLE m_hDone;
};

// One task on its way through the pool. Keeps the object that works and the device that is worked on: a rebuild may
// drop both meanwhile.
template <class Object, class Params>
class CQsPoolWork
{
public:
    using Operation = std::uint32_t (Object::*)(Params&);

    // For the stimulation `run`. False when it could not be queued; then nothing is left behind.
    static bool Queue(Object& object, Operation operation, CQsPoolTask<Params>& task, CQsRegistryLock::Run run)
    {
        std::unique_ptr<CQsPoolWork> work(new (std::nothrow) CQsPoolWork(object, operation, task, run));
        if (work == nullptr || QueueUserWorkItem(&Run, work.get(), WT_EXECUTELONGFUNCTION) == FALSE)
            return false;
        work.release();
        return true;
    }

    ~CQsPoolWork()
    {
        ReleaseObjects();
        m_task.Release();
    }
    CQsPoolWork(const CQsPoolWork&) = delete;
    CQsPoolWork& operator=(const CQsPoolWork&) = delete;

private:
    CQsPoolWork(Object& object, Operation operation, CQsPoolTask<Params>& task, CQsRegistryLock::Run run)
        : m_pObject(&object), m_operation(operation), m_task(task), m_run(run)
    {
        m_pObject->AddRef();
        CQsRTTI::AddRef(m_task.params.pDevice);
        m_task.AddRef();
    }

    void ReleaseObjects()
    {
        if (m_pObject == nullptr)
            return;
        CQsRTTI::Release(m_task.params.pDevice);
        m_pObject->Release();
        m_pObject = nullptr;
    }

    static DWORD WINAPI Run(LPVOID context)
    {
        const std::unique_ptr<CQsPoolWork> work(static_cast<CQsPoolWork*>(context));
        std::uint32_t result = 0;
        {
            // What the device asks of the manager is asked for the thread that waits here, and must get through as if
            // that one asked.
            const CQsRegistryLock::CWorkerScope scope(work->m_run);
            result = QsCallOr(std::uint32_t{0}, L"a task of the thread pool", __LINE__,
                              [&] { return (work->m_pObject->*work->m_operation)(work->m_task.params); });
        }
        // Before the event: who has waited for it may count on nobody using the devices any more.
        work->ReleaseObjects();
        SetEvent(work->m_task.Done());
        return result;
    }

    Object* m_pObject;
    const Operation m_operation;
    CQsPoolTask<Params>& m_task;
    const CQsRegistryLock::Run m_run;
};

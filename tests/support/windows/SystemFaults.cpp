#include "tests/support/SystemFaults.h"

#include "tests/support/Interposition.h"

#include <atomic>
#include <cerrno>
#include <map>
#include <mutex>

#include <pthread.h>

namespace QsTest {
namespace {

std::atomic<unsigned> s_threadFailures{0};
std::atomic<unsigned> s_eventFailures{0};
std::atomic<unsigned> s_itemFailures{0};
std::atomic<std::uint64_t> s_closed{0};
std::atomic<std::uint64_t> s_deleted{0};

// True as often as was asked for.
bool TakeFailure(std::atomic<unsigned>& failures)
{
    unsigned left = failures.load();
    while (left > 0)
        if (failures.compare_exchange_weak(left, left - 1))
            return true;
    return false;
}

// Roots that refuse, and the root of each key that the program has opened.
class CRefusals
{
public:
    void Set(HKEY root, bool refuse)
    {
        const std::lock_guard<std::mutex> lock(m_lock);
        m_refused[root] = refuse;
    }
    bool Refuses(HKEY key)
    {
        const std::lock_guard<std::mutex> lock(m_lock);
        return m_refused[RootOf(key)];
    }
    LSTATUS Opened(LSTATUS status, HKEY parent, const HKEY* key)
    {
        const std::lock_guard<std::mutex> lock(m_lock);
        if (status == ERROR_SUCCESS)
            m_roots[*key] = RootOf(parent);
        return status;
    }
    void Closed(HKEY key)
    {
        const std::lock_guard<std::mutex> lock(m_lock);
        m_roots.erase(key);
    }

private:
    HKEY RootOf(HKEY key) const
    {
        const auto found = m_roots.find(key);
        return found == m_roots.end() ? key : found->second;
    }

    std::mutex m_lock;
    std::map<HKEY, bool> m_refused;
    std::map<HKEY, HKEY> m_roots;
};

// Never destroyed: objects that outlive main close their keys.
CRefusals& Refusals()
{
    static CRefusals& refusals = *new CRefusals;
    return refusals;
}

} // namespace

void FailThreadCreations(unsigned count)
{
    s_threadFailures = count;
}

void FailEventCreations(unsigned count)
{
    s_eventFailures = count;
}

void FailPoolItems(unsigned count)
{
    s_itemFailures = count;
}

void RefuseRegistry(HKEY root, bool refuse)
{
    Refusals().Set(root, refuse);
}

std::uint64_t ClosedHandles()
{
    return s_closed;
}

std::uint64_t DeletedObjects()
{
    return s_deleted;
}

} // namespace QsTest

using namespace QsTest;

// Behind every other replacement of the same function, as the system's own failure is.
#define QS_FAULT_OF(Tag, Result, Function, Parameters)                                                                 \
    QS_IN_PLACE_OF_AT(QS_FIRST_IN_PLACE, Tag, Result, Function, Parameters)

QS_FAULT_OF(MakeThread, int, pthread_create,
            (pthread_t * thread, const pthread_attr_t* attributes, void* (*start)(void*), void* argument))
{
    return TakeFailure(s_threadFailures) ? EAGAIN : QS_REAL(MakeThread)(thread, attributes, start, argument);
}

QS_FAULT_OF(MakeEvent, HANDLE WINAPI, CreateEventW,
            (SECURITY_ATTRIBUTES * attributes, BOOL manualReset, BOOL initialState, const wchar_t* name))
{
    return TakeFailure(s_eventFailures) ? nullptr : QS_REAL(MakeEvent)(attributes, manualReset, initialState, name);
}

QS_FAULT_OF(PutItem, BOOL WINAPI, QueueUserWorkItem, (LPTHREAD_START_ROUTINE function, LPVOID context, ULONG flags))
{
    return TakeFailure(s_itemFailures) ? FALSE : QS_REAL(PutItem)(function, context, flags);
}

QS_FAULT_OF(EndHandle, BOOL WINAPI, CloseHandle, (HANDLE handle))
{
    const BOOL bClosed = QS_REAL(EndHandle)(handle);
    s_closed += bClosed ? 1 : 0;
    return bClosed;
}

QS_FAULT_OF(EndObject, BOOL WINAPI, DeleteObject, (HGDIOBJ object))
{
    DWORD flags = 0;
    s_deleted += GetHandleInformation(object, &flags) ? 1 : 0;
    return QS_REAL(EndObject)(object);
}

QS_FAULT_OF(MakeKeyEx, LSTATUS WINAPI, RegCreateKeyExW,
            (HKEY key, const wchar_t* subKey, DWORD reserved, wchar_t* className, DWORD options, REGSAM access,
             SECURITY_ATTRIBUTES* attributes, HKEY* result, DWORD* disposition))
{
    if (Refusals().Refuses(key))
        return ERROR_ACCESS_DENIED;
    return Refusals().Opened(
        QS_REAL(MakeKeyEx)(key, subKey, reserved, className, options, access, attributes, result, disposition), key,
        result);
}

QS_FAULT_OF(MakeKey, LSTATUS WINAPI, RegCreateKeyW, (HKEY key, const wchar_t* subKey, HKEY* result))
{
    if (Refusals().Refuses(key))
        return ERROR_ACCESS_DENIED;
    return Refusals().Opened(QS_REAL(MakeKey)(key, subKey, result), key, result);
}

QS_FAULT_OF(FindKey, LSTATUS WINAPI, RegOpenKeyW, (HKEY key, const wchar_t* subKey, HKEY* result))
{
    if (Refusals().Refuses(key))
        return ERROR_ACCESS_DENIED;
    return Refusals().Opened(QS_REAL(FindKey)(key, subKey, result), key, result);
}

QS_FAULT_OF(PutValue, LSTATUS WINAPI, RegSetValueExW,
            (HKEY key, const wchar_t* name, DWORD reserved, DWORD type, const BYTE* data, DWORD size))
{
    return Refusals().Refuses(key) ? ERROR_ACCESS_DENIED : QS_REAL(PutValue)(key, name, reserved, type, data, size);
}

QS_FAULT_OF(LeaveKey, LSTATUS WINAPI, RegCloseKey, (HKEY key))
{
    Refusals().Closed(key);
    return QS_REAL(LeaveKey)(key);
}

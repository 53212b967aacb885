#include "platform/ThreadSlot.h"

#include "platform/Win32.h"

#include <new>

QsPlatform::CThreadSlot::CThreadSlot(void (*destroy)(void* object))
{
    // Fiber-local storage is the thread's own where there are no fibers, and the only storage with a destructor.
    const DWORD slot = FlsAlloc(destroy);
    if (slot == FLS_OUT_OF_INDEXES)
        throw std::bad_alloc();
    m_slot = slot;
}

void* QsPlatform::CThreadSlot::Get() const
{
    return FlsGetValue(static_cast<DWORD>(m_slot));
}

void QsPlatform::CThreadSlot::Set(void* object)
{
    if (!FlsSetValue(static_cast<DWORD>(m_slot), object))
        throw std::bad_alloc();
}

// One object for each thread, destroyed by its thread when that ends.
//
// A thread_local object would do the same, but MinGW's run-time frees the memory of thread_local variables before it
// destroys them. Variables that need no destructor may be thread_local.
#pragma once

#include "host/QsHostApi.h"

#include <cstdint>

namespace QsPlatform {

class QS_HOST_API CThreadSlot
{
public:
    // `destroy` gets each thread's object, unless it is null, when the thread ends. The slot lives until the process
    // ends, which calls `destroy` for no thread or only for the one that ends it.
    explicit CThreadSlot(void (*destroy)(void* object));
    CThreadSlot(const CThreadSlot&) = delete;
    CThreadSlot& operator=(const CThreadSlot&) = delete;

    void* Get() const;      // of the calling thread; null at first
    void Set(void* object); // what was there before is not destroyed

private:
    std::uintptr_t m_slot = 0;
};

} // namespace QsPlatform

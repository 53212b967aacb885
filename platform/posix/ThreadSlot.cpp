#include "platform/ThreadSlot.h"

#include <new>
#include <pthread.h>

static_assert(sizeof(pthread_key_t) <= sizeof(std::uintptr_t));

QsPlatform::CThreadSlot::CThreadSlot(void (*destroy)(void* object))
{
    pthread_key_t key{};
    if (pthread_key_create(&key, destroy) != 0)
        throw std::bad_alloc();
    m_slot = key;
}

void* QsPlatform::CThreadSlot::Get() const
{
    return pthread_getspecific(static_cast<pthread_key_t>(m_slot));
}

void QsPlatform::CThreadSlot::Set(void* object)
{
    if (pthread_setspecific(static_cast<pthread_key_t>(m_slot), object) != 0)
        throw std::bad_alloc();
}

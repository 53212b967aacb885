#pragma once

#define PTHREAD_MUTEX_RECURSIVE 1

#ifdef _WIN32
// The classic port of the library.
typedef struct
{
    void* p;
    unsigned x;
} pthread_t;
typedef struct pthread_attr_t_* pthread_attr_t;
typedef struct pthread_mutex_t_* pthread_mutex_t;
typedef struct pthread_mutexattr_t_* pthread_mutexattr_t;

extern "C" {
void* pthread_getw32threadhandle_np(pthread_t thread);
int pthreadCancelableTimedWait(void* waitHandle, unsigned long timeout);
}
#else
typedef unsigned long pthread_t;
union pthread_attr_t
{
    char bytes[56];
};
union pthread_mutex_t
{
    char bytes[40];
};
union pthread_mutexattr_t
{
    char bytes[4];
};
#endif

extern "C" {
int pthread_create(pthread_t* thread, const pthread_attr_t* attributes, void* (*start)(void*), void* argument);
int pthread_mutexattr_init(pthread_mutexattr_t* attributes);
int pthread_mutexattr_settype(pthread_mutexattr_t* attributes, int kind);
int pthread_mutexattr_destroy(pthread_mutexattr_t* attributes);
int pthread_mutex_init(pthread_mutex_t* mutex, const pthread_mutexattr_t* attributes);
int pthread_mutex_destroy(pthread_mutex_t* mutex);
int pthread_mutex_lock(pthread_mutex_t* mutex);
int pthread_mutex_unlock(pthread_mutex_t* mutex);
}

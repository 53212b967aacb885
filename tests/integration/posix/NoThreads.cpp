// Preloaded into the program: no thread can be made while the lamp is lit. A new thread is given the time to light it,
// so that a program that makes its threads in the wrong order always meets the fault.
#include <cerrno>
#include <cstdlib>

#include <dlfcn.h>
#include <fcntl.h>
#include <pthread.h>
#include <unistd.h>

namespace {

bool IsLit()
{
    const char* file = std::getenv("LAMP_FILE");
    const int lamp = file != nullptr ? open(file, O_RDONLY) : -1;
    char state = '0';
    const bool lit = lamp >= 0 && read(lamp, &state, 1) == 1 && state == '1';
    if (lamp >= 0)
        close(lamp);
    return lit;
}

} // namespace

extern "C" __attribute__((visibility("default"))) int
pthread_create(pthread_t* thread, const pthread_attr_t* attributes, void* (*start)(void*), void* argument) noexcept
{
    using Create = int (*)(pthread_t*, const pthread_attr_t*, void* (*)(void*), void*);
    const auto create = reinterpret_cast<Create>(dlsym(RTLD_NEXT, "pthread_create"));
    if (IsLit())
        return EAGAIN;
    const int result = create(thread, attributes, start, argument);
    for (int i = 0; i < 100 && !IsLit(); ++i)
        usleep(2000);
    return result;
}

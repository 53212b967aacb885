// The host's own function behind one of the same name that a test program puts in front of it.
#pragma once

#include <stdexcept>

#include <dlfcn.h>

namespace QsTest {

template <class Function>
Function HostFunction(Function own)
{
    Dl_info info = {};
    void* const found = dladdr(reinterpret_cast<void*>(own), &info) != 0 && info.dli_sname != nullptr
                            ? dlsym(RTLD_NEXT, info.dli_sname)
                            : nullptr;
    if (found == nullptr || found == reinterpret_cast<void*>(own))
        throw std::logic_error("the host's function is not found behind the test's");
    return reinterpret_cast<Function>(found);
}

} // namespace QsTest

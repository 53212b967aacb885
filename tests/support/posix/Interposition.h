// The program's function has the name of the other one, and the loader finds it first.
#pragma once

#include <stdexcept>

#include <dlfcn.h>

namespace QsTest {

// The function behind the program's own one of the same name.
template <class Function>
Function FunctionBehind(Function own)
{
    Dl_info info = {};
    void* const found = dladdr(reinterpret_cast<void*>(own), &info) != 0 && info.dli_sname != nullptr
                            ? dlsym(RTLD_NEXT, info.dli_sname)
                            : nullptr;
    if (found == nullptr || found == reinterpret_cast<void*>(own))
        throw std::logic_error("the host's function is not found behind the test's");
    return reinterpret_cast<Function>(found);
}

// Whether an object is one of the C run-time, or a wait one of the test library, whose calls come to the program's
// functions as well: never here.
inline bool IsOfCRuntime(const void*)
{
    return false;
}
inline bool IsWaitOfTestLibrary(const void*, unsigned long)
{
    return false;
}

} // namespace QsTest

#define QS_IN_PLACE_OF(Tag, Result, Function, Parameters)                                                              \
    static auto RealOf##Tag()                                                                                          \
    {                                                                                                                  \
        static const auto real = QsTest::FunctionBehind(&Function);                                                    \
        return real;                                                                                                   \
    }                                                                                                                  \
    Result Function Parameters

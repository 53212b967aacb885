// The program's calls into other modules go through its import table, where the address is replaced.
#pragma once

namespace QsTest {

// Puts the address into every slot of the program's import table that leads to the function, and returns what they led
// to. Ends the program with one line when none does.
void* ReplaceImport(void* function, void* own, const char* name);

// Whether an object is one of the C run-time, parts of which are linked into the program and call as it does: those
// have static storage in it, which no object under test has.
bool IsOfCRuntime(const void* object);
// Whether a wait is one of the test library, which is linked into the program, too: it has a thread wait for the end of
// each thread that uses it.
bool IsWaitOfTestLibrary(void* handle, unsigned long milliseconds);

template <class Function>
class CImportReplacement
{
public:
    CImportReplacement(Function function, Function own, const char* name)
        : m_real(reinterpret_cast<Function>(
              ReplaceImport(reinterpret_cast<void*>(function), reinterpret_cast<void*>(own), name)))
    {}

    Function Real() const { return m_real; }

private:
    Function m_real;
};

} // namespace QsTest

// Of two for one function the later one is in front: it sees the calls first.
constexpr int QS_FIRST_IN_PLACE = 200, QS_IN_PLACE = 300;

#define QS_IN_PLACE_OF(Tag, Result, Function, Parameters)                                                              \
    QS_IN_PLACE_OF_AT(QS_IN_PLACE, Tag, Result, Function, Parameters)

#define QS_IN_PLACE_OF_AT(Priority, Tag, Result, Function, Parameters)                                                 \
    static Result InPlaceOf##Tag Parameters;                                                                           \
    __attribute__((init_priority(Priority))) static const QsTest::CImportReplacement<decltype(&InPlaceOf##Tag)>        \
        s_replacementOf##Tag(&Function, &InPlaceOf##Tag, #Function);                                                   \
    static auto RealOf##Tag()                                                                                          \
    {                                                                                                                  \
        return s_replacementOf##Tag.Real();                                                                            \
    }                                                                                                                  \
    static Result InPlaceOf##Tag Parameters

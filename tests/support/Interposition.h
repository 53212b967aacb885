// A test program's own function in place of one of the host or of the system, for every call of the program, the code
// under test inside it included.
//
//   QS_IN_PLACE_OF(Wait, DWORD WINAPI, WaitForSingleObject, (HANDLE handle, DWORD milliseconds))
//   {
//       return QS_REAL(Wait)(handle, milliseconds);
//   }
//
// At namespace scope, not inside one. It holds before other files' objects of static storage are made, until the
// process ends. Where the system is not Windows the calls of the host's libraries come here too.
#pragma once

#ifdef _WIN32
#include "tests/support/windows/Interposition.h"
#else
#include "tests/support/posix/Interposition.h"
#endif

// The function that Tag stands in front of.
#define QS_REAL(Tag) RealOf##Tag()

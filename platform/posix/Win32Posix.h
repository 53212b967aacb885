// The subset of the Windows calls that the module uses, for systems without them. Each call has the documented meaning
// of the real one; deviations would make the module right here and wrong on Windows.
//
// Waits measure against the monotonic clock with an absolute deadline. A thread that waits with a time-out asks the
// system for its finest timer slack first.
#pragma once

#include "host/QsHostApi.h"
#include "platform/ThreadSafety.h"

#include <pthread.h>

#include <cstddef>
#include <cstdint>

using BOOL = int;
using BYTE = std::uint8_t;
using DWORD = std::uint32_t;
using LONG = std::int32_t;
using LSTATUS = LONG;
using HANDLE = void*;
using HMODULE = void*;
using LPVOID = void*;
using ULONG = std::uint32_t;
using HGDIOBJ = void*;
#define WINAPI
using LPTHREAD_START_ROUTINE = DWORD(WINAPI*)(LPVOID);
using HKEY = struct HKEY__*;
using REGSAM = DWORD;

constexpr BOOL FALSE = 0;
constexpr BOOL TRUE = 1;

struct SECURITY_ATTRIBUTES;

// ------------------------------------------------------------------------------------------------- events and waits

constexpr DWORD WAIT_OBJECT_0 = 0;
constexpr DWORD WAIT_TIMEOUT = 258;
constexpr DWORD WAIT_FAILED = 0xFFFFFFFFu;
constexpr DWORD INFINITE = 0xFFFFFFFFu;
constexpr DWORD MAXIMUM_WAIT_OBJECTS = 64;

// Null when the event cannot be made. Named events and security attributes are not supported: null.
QS_HOST_API HANDLE CreateEventW(SECURITY_ATTRIBUTES* attributes, BOOL manualReset, BOOL initialState,
                                const wchar_t* name);
QS_HOST_API BOOL SetEvent(HANDLE event);
QS_HOST_API BOOL ResetEvent(HANDLE event);
QS_HOST_API BOOL CloseHandle(HANDLE handle);
QS_HOST_API DWORD WaitForSingleObject(HANDLE handle, DWORD milliseconds);
// Fails for no handle, for more than MAXIMUM_WAIT_OBJECTS and for a null handle. waitAll: returns when all are
// signalled at the same time, and only then resets the auto-reset ones.
QS_HOST_API DWORD WaitForMultipleObjects(DWORD count, const HANDLE* handles, BOOL waitAll, DWORD milliseconds);

// The graphics-object release call, which this system also hands events to. The real one refuses what is no graphics
// object, and an event that is given to it lives until the process ends. Here it releases the event, since events are
// scarcer here: TRUE. FALSE for what is none.
QS_HOST_API BOOL DeleteObject(HGDIOBJ object);

// ------------------------------------------------------------------------------------------------- critical sections

// Recursive lock of one thread at a time. Its bytes must not be copied while it is initialised. The one that deletes it
// sees to it that nobody holds or waits for it.
struct QS_CAPABILITY("critical section") CRITICAL_SECTION
{
    pthread_mutex_t mutex;
};
QS_HOST_API void InitializeCriticalSection(CRITICAL_SECTION* section);
QS_HOST_API void EnterCriticalSection(CRITICAL_SECTION* section) QS_ACQUIRE(section);
QS_HOST_API void LeaveCriticalSection(CRITICAL_SECTION* section) QS_RELEASE(section);
QS_HOST_API void DeleteCriticalSection(CRITICAL_SECTION* section);

// ------------------------------------------------------------------------------------------------ threads and the pool

QS_HOST_API DWORD GetCurrentThreadId();

constexpr ULONG WT_EXECUTELONGFUNCTION = 0x10;
// Runs the function on a thread of the pool. Items that block do not hold others up: up to 500 run at once. FALSE when
// the item could not be queued.
QS_HOST_API BOOL QueueUserWorkItem(LPTHREAD_START_ROUTINE function, LPVOID context, ULONG flags);

// ---------------------------------------------------------------------------------------------------------- modules

constexpr DWORD GET_MODULE_HANDLE_EX_FLAG_UNCHANGED_REFCOUNT = 2;
constexpr DWORD GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS = 4;

// Handle of a module that is loaded in the process, by file name (a path, or a bare name with or without folder) or,
// with the flag, by an address in it. FALSE and *module null when it is not loaded.
QS_HOST_API BOOL GetModuleHandleExW(DWORD flags, const wchar_t* nameOrAddress, HMODULE* module);

// --------------------------------------------------------------------------------------------------------- registry

constexpr LSTATUS ERROR_SUCCESS = 0;
constexpr LSTATUS ERROR_FILE_NOT_FOUND = 2;
constexpr LSTATUS ERROR_ACCESS_DENIED = 5;
constexpr LSTATUS ERROR_INVALID_HANDLE = 6;
constexpr LSTATUS ERROR_WRITE_FAULT = 29;
constexpr LSTATUS ERROR_INVALID_PARAMETER = 87;
constexpr LSTATUS ERROR_BAD_PATHNAME = 161;
constexpr LSTATUS ERROR_MORE_DATA = 234;

constexpr DWORD REG_SZ = 1;
constexpr DWORD REG_BINARY = 3;
constexpr DWORD REG_DWORD = 4;

constexpr REGSAM KEY_ALL_ACCESS = 0xF003F;
constexpr DWORD REG_OPTION_NON_VOLATILE = 0;
constexpr DWORD REG_CREATED_NEW_KEY = 1;
constexpr DWORD REG_OPENED_EXISTING_KEY = 2;

inline const HKEY HKEY_CURRENT_USER = reinterpret_cast<HKEY>(std::uintptr_t{0x80000001u});
inline const HKEY HKEY_LOCAL_MACHINE = reinterpret_cast<HKEY>(std::uintptr_t{0x80000002u});

// Sub-keys are paths separated by "\"; a trailing one names the same key. Names ignore ASCII case, as the real ones do.
// REG_SZ data are UTF-16LE bytes with their terminator on every system: `data` points to 16-bit units, not to wchar_t
// (platform/Utf16.h converts). A text that was written without terminator is read without one; the query puts one
// behind the size that it tells where the caller has room. The real RegSetValueExW takes along a terminator that stands
// in memory behind the data; this one looks no further than it is told.
QS_HOST_API LSTATUS RegCreateKeyExW(HKEY key, const wchar_t* subKey, DWORD reserved, wchar_t* className, DWORD options,
                                    REGSAM access, const SECURITY_ATTRIBUTES* attributes, HKEY* result,
                                    DWORD* disposition);
QS_HOST_API LSTATUS RegCreateKeyW(HKEY key, const wchar_t* subKey, HKEY* result);
QS_HOST_API LSTATUS RegOpenKeyW(HKEY key, const wchar_t* subKey, HKEY* result);
QS_HOST_API LSTATUS RegQueryValueExW(HKEY key, const wchar_t* name, DWORD* reserved, DWORD* type, BYTE* data,
                                     DWORD* size);
QS_HOST_API LSTATUS RegSetValueExW(HKEY key, const wchar_t* name, DWORD reserved, DWORD type, const BYTE* data,
                                   DWORD size);
QS_HOST_API LSTATUS RegCloseKey(HKEY key);

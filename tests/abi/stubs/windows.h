#pragma once

#define WINAPI __stdcall
#define CALLBACK __stdcall
#define TRUE 1
#define FALSE 0
#define INFINITE 0xFFFFFFFF
#define WAIT_OBJECT_0 0ul
#define WAIT_TIMEOUT 258l
#define WAIT_FAILED 0xFFFFFFFFul
#define MAXIMUM_WAIT_OBJECTS 64
#define WT_EXECUTELONGFUNCTION 0x10
#define GET_MODULE_HANDLE_EX_FLAG_UNCHANGED_REFCOUNT 0x2
#define GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS 0x4
#define ERROR_SUCCESS 0l
#define ERROR_FILE_NOT_FOUND 2l
#define ERROR_MORE_DATA 234l
#define REG_SZ 1ul
#define REG_BINARY 3ul
#define REG_DWORD 4ul
#define REG_OPTION_NON_VOLATILE 0x0l
#define KEY_ALL_ACCESS 0xF003F
#define HKEY_CURRENT_USER ((HKEY)(unsigned long long)0x80000001)
#define HKEY_LOCAL_MACHINE ((HKEY)(unsigned long long)0x80000002)

using BOOL = int;
using BYTE = unsigned char;
using DWORD = unsigned long;
using LONG = long;
using ULONG = unsigned long;
using LSTATUS = LONG;
using LPVOID = void*;
using HANDLE = void*;
using HGDIOBJ = void*;
using HINSTANCE = struct HINSTANCE__*;
using HMODULE = HINSTANCE;
using HKEY = struct HKEY__*;
using REGSAM = DWORD;
using LPTHREAD_START_ROUTINE = DWORD(WINAPI*)(LPVOID);
struct SECURITY_ATTRIBUTES;

struct CRITICAL_SECTION
{
    void* DebugInfo;
    LONG LockCount;
    LONG RecursionCount;
    HANDLE OwningThread;
    HANDLE LockSemaphore;
    unsigned long long SpinCount;
};

extern "C" {
void WINAPI InitializeCriticalSection(CRITICAL_SECTION* section);
void WINAPI EnterCriticalSection(CRITICAL_SECTION* section);
void WINAPI LeaveCriticalSection(CRITICAL_SECTION* section);
void WINAPI DeleteCriticalSection(CRITICAL_SECTION* section);

HANDLE WINAPI CreateEventW(SECURITY_ATTRIBUTES* attributes, BOOL manualReset, BOOL initialState, const wchar_t* name);
BOOL WINAPI SetEvent(HANDLE event);
BOOL WINAPI ResetEvent(HANDLE event);
BOOL WINAPI CloseHandle(HANDLE handle);
BOOL WINAPI DeleteObject(HGDIOBJ object);
DWORD WINAPI WaitForSingleObject(HANDLE handle, DWORD milliseconds);
DWORD WINAPI WaitForMultipleObjects(DWORD count, const HANDLE* handles, BOOL waitAll, DWORD milliseconds);
DWORD WINAPI GetCurrentThreadId();
DWORD WINAPI GetLastError();
BOOL WINAPI QueueUserWorkItem(LPTHREAD_START_ROUTINE function, LPVOID context, ULONG flags);
BOOL WINAPI GetModuleHandleExW(DWORD flags, const wchar_t* nameOrAddress, HMODULE* module);

LSTATUS WINAPI RegCreateKeyExW(HKEY key, const wchar_t* subKey, DWORD reserved, wchar_t* className, DWORD options,
                               REGSAM access, const SECURITY_ATTRIBUTES* attributes, HKEY* result, DWORD* disposition);
LSTATUS WINAPI RegCreateKeyW(HKEY key, const wchar_t* subKey, HKEY* result);
LSTATUS WINAPI RegOpenKeyW(HKEY key, const wchar_t* subKey, HKEY* result);
LSTATUS WINAPI RegQueryValueExW(HKEY key, const wchar_t* name, DWORD* reserved, DWORD* type, BYTE* data, DWORD* size);
LSTATUS WINAPI RegSetValueExW(HKEY key, const wchar_t* name, DWORD reserved, DWORD type, const BYTE* data, DWORD size);
LSTATUS WINAPI RegCloseKey(HKEY key);
}

#include "platform/Process.h"

#include "platform/windows/FileOfModule.h"
#include "platform/windows/SystemText.h"

#include <cstdio>
#include <cstdlib>

#include <fcntl.h>
#include <io.h>
#include <shellapi.h>

namespace QsPlatform {

namespace {

bool IsThere(HANDLE stream)
{
    if (stream == nullptr || stream == INVALID_HANDLE_VALUE)
        return false;
    SetLastError(NO_ERROR);
    return GetFileType(stream) != FILE_TYPE_UNKNOWN || GetLastError() == NO_ERROR;
}

// Opens nothing in the stream's place, for the wrong direction, so that every use fails: in the account of the run-time
// library, as its file and as its number, and in the system's.
void Guard(DWORD which, std::FILE* stream, int number)
{
    if (IsThere(GetStdHandle(which)))
        return;
    const bool isInput = which == STD_INPUT_HANDLE;
    if (_wfreopen(L"NUL", isInput ? L"r" : L"w", stream) == nullptr)
        return;
    const int wrong = _wopen(L"NUL", isInput ? _O_WRONLY : _O_RDONLY);
    for (const int own : {number, _fileno(stream)})
        static_cast<void>(_dup2(wrong, own));
    if (wrong != number && wrong != _fileno(stream))
        _close(wrong);
    SetStdHandle(which, reinterpret_cast<HANDLE>(_get_osfhandle(number)));
}

constexpr std::size_t outputBuffer = 1 << 16;

UINT s_codePageBefore = 0;

void GiveCodePageBack()
{
    SetConsoleOutputCP(s_codePageBefore);
}

// A console's, for which it says how it shows what is written; 0 for everything else.
DWORD ConsoleModeOf(DWORD which)
{
    DWORD mode = 0;
    return GetConsoleMode(GetStdHandle(which), &mode) ? mode : 0;
}

// No header of the system declares it.
using ShutdownInProgress = BOOLEAN(NTAPI*)();
const auto s_shutdownInProgress = reinterpret_cast<ShutdownInProgress>(
    reinterpret_cast<void*>(GetProcAddress(GetModuleHandleW(L"ntdll.dll"), "RtlDllShutdownInProgress")));

} // namespace

bool IsProcessEnding()
{
    return s_shutdownInProgress != nullptr && s_shutdownInProgress();
}

std::string ProgramFile()
{
    return PlainPath(FileOfModule(nullptr));
}

std::vector<std::string> CommandLineArguments(int, char**)
{
    int count = 0;
    wchar_t** const texts = CommandLineToArgvW(GetCommandLineW(), &count);
    std::vector<std::string> arguments;
    for (int i = 0; texts != nullptr && i < count; ++i)
        arguments.push_back(ToUtf8(texts[i]));
    LocalFree(texts);
    return arguments;
}

std::optional<std::string> EnvironmentVariable(const char* name)
{
    const std::wstring wideName = ToWide(name);
    std::wstring value(MAX_PATH, L'\0');
    for (;;)
    {
        const DWORD room = static_cast<DWORD>(value.size());
        SetLastError(NO_ERROR);
        const DWORD length = GetEnvironmentVariableW(wideName.c_str(), value.data(), room);
        if (length == 0 && GetLastError() != NO_ERROR)
            return std::nullopt;
        value.resize(length);
        if (length < room) // without its terminator; else with it
            return ToUtf8(value);
    }
}

void EndProcess(int exitCode)
{
    TerminateProcess(GetCurrentProcess(), static_cast<UINT>(exitCode));
    std::abort(); // not reached
}

void GuardStandardStreams()
{
    Guard(STD_INPUT_HANDLE, stdin, 0);
    Guard(STD_OUTPUT_HANDLE, stdout, 1);
    Guard(STD_ERROR_HANDLE, stderr, 2);
    for (std::FILE* const stream : {stdin, stdout, stderr})
        _setmode(_fileno(stream), _O_BINARY);
    // The library hands over what is not buffered byte by byte, and the console then finds no characters in it.
    for (std::FILE* const stream : {stdout, stderr})
        std::setvbuf(stream, nullptr, _IOFBF, outputBuffer);
    if (ConsoleModeOf(STD_OUTPUT_HANDLE) == 0 && ConsoleModeOf(STD_ERROR_HANDLE) == 0)
        return;
    // The console is not ours alone: whoever uses it after us finds it as it was.
    s_codePageBefore = GetConsoleOutputCP();
    if (s_codePageBefore != 0 && s_codePageBefore != CP_UTF8 && SetConsoleOutputCP(CP_UTF8))
        std::atexit(&GiveCodePageBack);
}

bool StderrIsTerminal()
{
    // Lines that are written over need the console's own help. One without it shows their marks: it takes whole lines.
    const HANDLE stream = GetStdHandle(STD_ERROR_HANDLE);
    DWORD mode = 0;
    return GetConsoleMode(stream, &mode) && SetConsoleMode(stream, mode | ENABLE_VIRTUAL_TERMINAL_PROCESSING);
}

} // namespace QsPlatform

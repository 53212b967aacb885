#include "tests/support/ChildProcess.h"

#include "platform/Process.h"
#include "platform/Win32.h"
#include "tests/support/ChildProcessStart.h"

#include <cwchar>
#include <filesystem>
#include <stdexcept>

namespace QsTest {

const unsigned s_mostProcesses = 100;

namespace {

constexpr UINT s_killed = 0x51D; // the exit code of a process that was killed

std::wstring Wide(const std::string& utf8)
{
    return std::filesystem::u8path(utf8).wstring();
}

// The environment of this process and one more variable, each text with a zero behind it, and one more at the end.
std::wstring EnvironmentWith(const std::wstring& variable)
{
    std::wstring block;
    wchar_t* const own = GetEnvironmentStringsW();
    for (const wchar_t* one = own; *one != L'\0'; one += std::wcslen(one) + 1)
        block.append(one, std::wcslen(one) + 1);
    FreeEnvironmentStringsW(own);
    block.append(variable.c_str(), variable.size() + 1);
    return block;
}

} // namespace

struct CChildProcess::SProcess
{
    HANDLE handle = nullptr;

    ~SProcess() { CloseHandle(handle); }
};

CChildProcess::CChildProcess(const std::string& function, const std::vector<std::string>& arguments)
    : m_process(std::make_unique<SProcess>())
{
    std::string variable = std::string(s_childVariable) + "=" + function;
    for (const std::string& argument : arguments)
        variable += "\n" + argument;
    std::wstring environment = EnvironmentWith(Wide(variable));
    const std::wstring program = Wide(QsPlatform::ProgramFile());
    std::wstring command = L"\"" + program + L"\" --gtest_brief=1";
    STARTUPINFOW start = {};
    start.cb = sizeof start;
    start.dwFlags = STARTF_USESTDHANDLES;
    start.hStdInput = GetStdHandle(STD_INPUT_HANDLE);
    start.hStdOutput = GetStdHandle(STD_OUTPUT_HANDLE);
    start.hStdError = GetStdHandle(STD_ERROR_HANDLE);
    PROCESS_INFORMATION process = {};
    if (!CreateProcessW(program.c_str(), command.data(), nullptr, nullptr, TRUE, CREATE_UNICODE_ENVIRONMENT,
                        environment.data(), nullptr, &start, &process))
        throw std::runtime_error("no process for " + function);
    CloseHandle(process.hThread);
    m_process->handle = process.hProcess;
}

CChildProcess::~CChildProcess()
{
    Kill();
}

bool CChildProcess::IsRunning()
{
    return WaitForSingleObject(m_process->handle, 0) == WAIT_TIMEOUT;
}

void CChildProcess::Kill()
{
    TerminateProcess(m_process->handle, s_killed);
    WaitForSingleObject(m_process->handle, INFINITE);
}

std::optional<int> CChildProcess::Wait()
{
    DWORD code = 0;
    if (WaitForSingleObject(m_process->handle, INFINITE) != WAIT_OBJECT_0 ||
        !GetExitCodeProcess(m_process->handle, &code))
        throw std::runtime_error("no process to wait for");
    if (code == s_killed)
        return std::nullopt;
    return static_cast<int>(code); // that of a crash has the highest bit
}

void KillThisProcess()
{
    TerminateProcess(GetCurrentProcess(), s_killed);
    for (;;)
        Sleep(INFINITE);
}

} // namespace QsTest

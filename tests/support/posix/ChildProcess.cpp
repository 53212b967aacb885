#include "tests/support/ChildProcess.h"

#include "platform/Process.h"
#include "tests/support/ChildProcessStart.h"

#include <csignal>
#include <cstdlib>
#include <stdexcept>

#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

namespace QsTest {

const unsigned s_mostProcesses = 500;

struct CChildProcess::SProcess
{
    pid_t id = -1;
    bool bEnded = false;
    int status = 0;

    bool HasEnded(int waitFlags)
    {
        bEnded = bEnded || waitpid(id, &status, waitFlags) == id;
        return bEnded;
    }
};

CChildProcess::CChildProcess(const std::string& function, const std::vector<std::string>& arguments)
    : m_process(std::make_unique<SProcess>())
{
    std::string variable = std::string(s_childVariable) + "=" + function;
    for (const std::string& argument : arguments)
        variable += "\n" + argument;
    std::vector<char*> environment;
    for (char** one = environ; *one != nullptr; ++one)
        environment.push_back(*one);
    environment.push_back(variable.data());
    environment.push_back(nullptr);
    std::string program = QsPlatform::ProgramFile();
    std::string quiet = "--gtest_brief=1";
    char* const command[] = {program.data(), quiet.data(), nullptr};
    if (posix_spawn(&m_process->id, program.c_str(), nullptr, nullptr, command, environment.data()) != 0)
        throw std::runtime_error("no process for " + function);
}

CChildProcess::~CChildProcess()
{
    Kill();
}

bool CChildProcess::IsRunning()
{
    return !m_process->HasEnded(WNOHANG);
}

void CChildProcess::Kill()
{
    if (!IsRunning())
        return;
    kill(m_process->id, SIGKILL);
    m_process->HasEnded(0);
}

std::optional<int> CChildProcess::Wait()
{
    if (!m_process->HasEnded(0))
        throw std::runtime_error("no process to wait for");
    const int status = m_process->status;
    if (WIFEXITED(status))
        return WEXITSTATUS(status);
    if (WTERMSIG(status) == SIGKILL)
        return std::nullopt;
    return -WTERMSIG(status);
}

void KillThisProcess()
{
    kill(getpid(), SIGKILL);
    for (;;)
        pause();
}

} // namespace QsTest

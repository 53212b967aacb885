#include "tests/platform/System.h"

#include <chrono>
#include <csignal>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <thread>

#include <dlfcn.h>
#include <unistd.h>

namespace {

bool IsAsleep(DWORD thread)
{
    std::ostringstream stat;
    stat << std::ifstream("/proc/self/task/" + std::to_string(thread) + "/stat").rdbuf();
    const std::string text = stat.str();
    const std::size_t name = text.rfind(')');
    return name != std::string::npos && text.compare(name, 3, ") S") == 0;
}

} // namespace

bool IsWine()
{
    return false;
}

void UntilParked(const std::atomic<DWORD>& thread)
{
    int asleep = 0; // several looks in a row: a lock on the way to the wait is not the wait
    while (asleep < 5)
    {
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
        asleep = thread != 0 && IsAsleep(thread) ? asleep + 1 : 0;
    }
}

void Unload(void* module)
{
    dlclose(module);
}

void SetEnvironment(const char* name, const std::string& value)
{
    setenv(name, value.c_str(), 1);
}

void CloseStandardStream(int number)
{
    close(number);
}

void LeaveTerminal()
{
    setsid();
}

void InterruptThisProcess()
{
    kill(getpid(), SIGINT);
}

std::filesystem::path LongName(const std::string& path)
{
    return std::filesystem::u8path(path);
}

std::wstring Wide(const std::string& utf8)
{
    return std::filesystem::u8path(utf8).wstring();
}

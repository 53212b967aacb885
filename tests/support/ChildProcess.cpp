#include "tests/support/ChildProcess.h"

#include "platform/Process.h"
#include "tests/support/ChildProcessStart.h"

#include <gtest/gtest.h>

#include <chrono>
#include <cstdio>
#include <exception>
#include <filesystem>
#include <fstream>
#include <map>
#include <sstream>
#include <thread>

namespace QsTest {
namespace {

std::map<std::string, ChildFunction>& Functions()
{
    static std::map<std::string, ChildFunction> functions;
    return functions;
}

[[noreturn]] void End(int code)
{
    std::fflush(nullptr);
    QsPlatform::EndProcess(code);
}

[[noreturn]] void RunFunction(const std::string& variable)
{
    std::istringstream lines(variable);
    std::string name;
    std::getline(lines, name);
    std::vector<std::string> arguments;
    for (std::string argument; std::getline(lines, argument);)
        arguments.push_back(argument);
    const auto function = Functions().find(name);
    if (function == Functions().end())
    {
        std::fprintf(stderr, "no function %s for a child process\n", name.c_str());
        End(1);
    }
    try
    {
        const int code = function->second(arguments);
        End(code == 0 && testing::UnitTest::GetInstance()->ad_hoc_test_result().Failed() ? 1 : code);
    }
    catch (const std::exception& exception)
    {
        std::fprintf(stderr, "child process %s: %s\n", name.c_str(), exception.what());
        End(1);
    }
}

class CChildEnvironment : public testing::Environment
{
public:
    void SetUp() override
    {
        if (const std::optional<std::string> variable = QsPlatform::EnvironmentVariable(s_childVariable))
            RunFunction(*variable);
    }
};

} // namespace

SChildFunction::SChildFunction(const char* name, ChildFunction function)
{
    static const testing::Environment* const s_environment = testing::AddGlobalTestEnvironment(new CChildEnvironment);
    static_cast<void>(s_environment);
    Functions().emplace(name, function);
}

bool WaitForFile(const std::string& path)
{
    constexpr std::chrono::seconds patience{30};
    const auto deadline = std::chrono::steady_clock::now() + patience;
    while (!std::filesystem::exists(std::filesystem::u8path(path)))
    {
        if (std::chrono::steady_clock::now() > deadline)
            return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return true;
}

bool Meet(const std::string& folder, const std::string& own, const std::string& other)
{
    std::ofstream(std::filesystem::u8path(folder + "/" + own));
    return WaitForFile(folder + "/" + other);
}

} // namespace QsTest

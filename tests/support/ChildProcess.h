// Code of a test that runs in a process of its own, of the same program:
//
//   QS_CHILD_PROCESS(Saver)
//   {
//       return Save(arguments.at(0)) ? 0 : 1;
//   }
//   CChildProcess saver("Saver", {folder.File("settings")});
//   EXPECT_EQ(0, saver.Wait());
//
// The process runs nothing else and ends with the code that the function returns, without destroying anything; with 1
// instead of 0 when an expectation in it has failed. The two meet in files of a folder that is one of the arguments.
#pragma once

#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace QsTest {

class CChildProcess
{
public:
    // Throws when the process cannot be made.
    CChildProcess(const std::string& function, const std::vector<std::string>& arguments);
    ~CChildProcess(); // kills it if it still runs
    CChildProcess(const CChildProcess&) = delete;
    CChildProcess& operator=(const CChildProcess&) = delete;

    bool IsRunning();
    void Kill(); // returns when it is gone
    // Waits for its end. The exit code; none when Kill or KillThisProcess ended it; negative when it crashed.
    std::optional<int> Wait();

private:
    struct SProcess; // as the system knows it
    std::unique_ptr<SProcess> m_process;
};

// Ends this process at once, as a crash of the system or a task manager does: nothing is destroyed, nothing is written.
[[noreturn]] void KillThisProcess();

// Until the file is there; false after patience.
bool WaitForFile(const std::string& path);
// Says in the folder, by a file, that `own` has come, and waits for `other`; false after patience.
bool Meet(const std::string& folder, const std::string& own, const std::string& other);

// How many processes a test may start one after the other; how long a start takes differs much.
extern const unsigned s_mostProcesses;

using ChildFunction = int (*)(const std::vector<std::string>& arguments);

struct SChildFunction
{
    SChildFunction(const char* name, ChildFunction function);
};

} // namespace QsTest

#define QS_CHILD_PROCESS(Name)                                                                                         \
    static int InChildProcess##Name(const std::vector<std::string>& arguments);                                        \
    static const QsTest::SChildFunction s_childFunction##Name(#Name, &InChildProcess##Name);                           \
    static int InChildProcess##Name([[maybe_unused]] const std::vector<std::string>& arguments)

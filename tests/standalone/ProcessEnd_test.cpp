// A process ends while threads of it are inside the host. On Windows these are ended first, wherever they are, and then the
// libraries' own ends are run.
#include "standalone/HostControl.h"
#include "tests/support/ChildProcess.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cstdlib>
#include <functional>
#include <thread>

namespace {

constexpr int threads = 4, endings = 10;
constexpr int exitCode = 7;

// Ends the process while so many threads do it over and over.
[[noreturn]] void EndWhile(const std::function<void()>& act)
{
    static std::atomic<unsigned> s_done{0};
    for (int i = 0; i < threads; ++i)
        std::thread(
            [act]
            {
                for (;;)
                {
                    act();
                    ++s_done;
                }
            })
            .detach();
    while (s_done < 10 * threads)
        std::this_thread::yield();
    std::exit(exitCode);
}

} // namespace

QS_CHILD_PROCESS(EndsWhileClassesAreAskedFor)
{
    static_cast<void>(arguments);
    EndWhile([] { static_cast<void>(QsStandalone::KnownClasses()); });
}

TEST(ProcessEnd, IsNotHeldUpByThreadsThatAskForClasses)
{
    for (int i = 0; i < endings; ++i)
    {
        QsTest::CChildProcess process("EndsWhileClassesAreAskedFor", {});
        ASSERT_EQ(exitCode, process.Wait()) << "ending " << i;
    }
}

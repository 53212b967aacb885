// Lights that outlive the process, and what only a system with signals and preloaded libraries can do to it.
#include "tests/integration/LampTest.h"

#include <csignal>

#include <signal.h>

using testing::HasSubstr;

namespace {

// Where nothing went wrong: the host's journal does not know this lamp.
constexpr char s_done[] = "Lamp gave no light";

class LampSignals : public LampTest
{
protected:
    void Send(int number) { ASSERT_EQ(0, ::kill(static_cast<pid_t>(Process().processId()), number)); }
    void Preload(const char* library)
    {
        Set("LD_PRELOAD", library);
        // Sanitizers want to come first, although they are inside the program.
        const QString options = QProcessEnvironment::systemEnvironment().value("ASAN_OPTIONS");
        Set("ASAN_OPTIONS", options + (options.isEmpty() ? "" : ":") + "verify_asan_link_order=0");
    }
};

} // namespace

TEST_F(LampSignals, IsPutOutWhateverEndsTheProcess)
{
    for (const int number : {SIGHUP, SIGQUIT, SIGALRM, SIGUSR1, SIGUSR2, SIGXCPU})
    {
        Begin("timed", "60000");
        ASSERT_TRUE(WaitUntilLit());
        Send(number);
        EXPECT_EQ(1, ExitCode()) << number;
        EXPECT_FALSE(IsLit()) << number;
    }
}

TEST_F(LampSignals, IsPutOutInTimeAlthoughTheTerminalStopsTheProcess)
{
    for (const int number : {SIGTSTP, SIGTTIN, SIGTTOU})
    {
        Begin("timed", "300");
        ASSERT_TRUE(WaitUntilLit());
        Send(number);
        EXPECT_EQ(1, ExitCode()) << number;
        EXPECT_THAT(Errors(), HasSubstr(s_done)) << number;
        EXPECT_FALSE(IsLit()) << number;
    }
}

TEST_F(LampSignals, IsPutOutWhenNoThreadCanBeMadeAnyMore)
{
    Preload(QS_NO_THREADS);
    for (const char* kind : {"timed", "continuous"})
    {
        Begin(kind, "300");
        EXPECT_EQ(1, ExitCode()) << kind;
        EXPECT_THAT(Errors(), HasSubstr(s_done)) << kind;
        EXPECT_FALSE(IsLit()) << kind;
    }
}

// Lights that outlive the process: a lamp that stays lit when the program ends without having put it out.
#include "tests/integration/Stimhost.h"

#include <QElapsedTimer>
#include <QProcessEnvironment>
#include <QThread>

#include <gmock/gmock.h>

#include <csignal>
#include <signal.h>

using testing::HasSubstr;

namespace {

// Where nothing went wrong: the host's journal does not know this lamp.
constexpr char s_done[] = "Lamp gave no light";

class Lamp : public StimhostTest
{
protected:
    void SetUp() override
    {
        StimhostTest::SetUp();
        m_rig = File("lamp.json", "{ \"format\": \"stimulation-rig\", \"version\": 1, \"name\": \"Lamp\",\n"
                                  "  \"moduleFolders\": [ \"" QS_LAMP_FOLDER "\" ],\n"
                                  "  \"devices\": [ { \"class\": \"CQsTestLamp\" } ] }\n");
        m_environment.insert("LAMP_FILE", QString::fromStdString(File("lamp", "0")));
    }

    void SetFault(const char* fault) { m_environment.insert("LAMP_FAULT", fault); }
    void Preload(const char* library)
    {
        m_environment.insert("LD_PRELOAD", library);
        // Sanitizers want to come first, although they are inside the program.
        const QString options = m_environment.value("ASAN_OPTIONS");
        m_environment.insert("ASAN_OPTIONS", options + (options.isEmpty() ? "" : ":") + "verify_asan_link_order=0");
    }

    void Begin(const char* kind, const char* durationMs, const std::vector<std::string>& more = {})
    {
        m_process.setProcessEnvironment(m_environment);
        std::vector<std::string> arguments = {"stimulate", "--rig", m_rig,        "--device", "Lamp",
                                              "--kind",    kind,    "--duration", durationMs};
        arguments.insert(arguments.end(), more.begin(), more.end());
        Start(m_process, arguments);
    }

    bool IsLit() const { return ReadWhole(Path("lamp")) == "1"; }

    bool WaitUntilLit() const
    {
        QElapsedTimer timer;
        timer.start();
        while (!IsLit() && timer.elapsed() < 30000)
            QThread::msleep(2);
        return IsLit();
    }

    void Send(int number) { ASSERT_EQ(0, ::kill(static_cast<pid_t>(m_process.processId()), number)); }

    // The exit code; -1 when the program crashed or did not end.
    int ExitCode()
    {
        const bool ended = m_process.waitForFinished(30000);
        if (!ended)
            m_process.kill();
        m_process.waitForFinished(5000);
        return ended && m_process.exitStatus() == QProcess::NormalExit ? m_process.exitCode() : -1;
    }

    std::string Errors() { return m_process.readAllStandardError().toStdString(); }

private:
    std::string m_rig;
    QProcessEnvironment m_environment = QProcessEnvironment::systemEnvironment();
    QProcess m_process;
};

} // namespace

TEST_F(Lamp, IsPutOutAfterABeginThatThrows)
{
    for (const char* kind : {"timed", "continuous"})
    {
        SetFault("begin throws");
        Begin(kind, "50");
        EXPECT_EQ(1, ExitCode()) << kind;
        EXPECT_THAT(Errors(), HasSubstr("status -9")) << kind;
        EXPECT_FALSE(IsLit()) << kind;
    }
}

TEST_F(Lamp, IsPutOutByTheAbortWhereTheEndThrows)
{
    SetFault("end throws");
    Begin("continuous", "50");
    EXPECT_EQ(1, ExitCode());
    EXPECT_THAT(Errors(), HasSubstr("status -9"));
    EXPECT_FALSE(IsLit());
}

TEST_F(Lamp, IsPutOutByTheEndWhereTheAbortThrows)
{
    SetFault("abort throws");
    Begin("continuous", "60000", {"--abort-after", "50"});
    EXPECT_NE(-1, ExitCode());
    EXPECT_FALSE(IsLit());
}

TEST_F(Lamp, IsPutOutWhenTwoInterruptsComeTogether)
{
    for (const char* kind : {"timed", "continuous"})
    {
        SetFault("abort is slow");
        Begin(kind, "60000");
        ASSERT_TRUE(WaitUntilLit());
        Send(SIGINT);
        Send(SIGTERM);
        EXPECT_EQ(1, ExitCode()) << kind;
        EXPECT_FALSE(IsLit()) << kind;
    }
}

TEST_F(Lamp, ThatDoesNotAnswerIsNotWaitedForAfterASecondInterrupt)
{
    SetFault("abort hangs");
    Begin("timed", "600000", {"--grace", "600000"});
    ASSERT_TRUE(WaitUntilLit());
    Send(SIGINT);
    Send(SIGTERM);
    EXPECT_EQ(1, ExitCode());
}

TEST_F(Lamp, IsPutOutWhateverEndsTheProcess)
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

TEST_F(Lamp, IsPutOutInTimeAlthoughTheTerminalStopsTheProcess)
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

TEST_F(Lamp, IsPutOutWhenNoThreadCanBeMadeAnyMore)
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

// Ctrl-C: on systems that have signals.
#include "tests/integration/Stimhost.h"

#include <QDir>
#include <QElapsedTimer>

#include <csignal>
#include <gmock/gmock.h>
#include <signal.h>

using testing::HasSubstr;

using Interrupt = StimhostTest;

namespace {

// Until the log tells that the stimulation's light is on its way.
bool WaitForLine(QProcess& process, const QByteArray& text, QByteArray& seen)
{
    QElapsedTimer timer;
    timer.start();
    while (timer.elapsed() < 30000)
    {
        seen += process.readAllStandardError();
        if (seen.contains(text))
            return true;
        process.waitForReadyRead(100);
    }
    return false;
}

} // namespace

TEST_F(Interrupt, EndsALongStimulationPromptlyWithNoLightOn)
{
    for (const int number : {SIGINT, SIGTERM})
        for (const char* kind : {"timed", "continuous"})
        {
            QProcess process;
            ASSERT_NO_FATAL_FAILURE(Start(process, {"stimulate", "--rig", ShutterRig(), "--kind", kind, "--duration",
                                                    "60000", "--report", Path("r.json"), "--verbose"}));
            QByteArray err;
            ASSERT_TRUE(WaitForLine(process, "end, QS_OK", err)) << err.toStdString(); // its device is active
            QElapsedTimer timer;
            timer.start();
            ASSERT_EQ(0, ::kill(static_cast<pid_t>(process.processId()), number));
            ASSERT_TRUE(process.waitForFinished(30000)) << kind;
            EXPECT_LT(timer.elapsed(), 20000) << kind;
            EXPECT_EQ(QProcess::NormalExit, process.exitStatus());
            EXPECT_EQ(1, process.exitCode());
            EXPECT_FALSE((err + process.readAllStandardError()).contains("a light was still on")) << kind;
        }
}

TEST_F(Interrupt, EndsACalibrationPromptlyWithNoLightOnAndNothingSaved)
{
    QProcess process;
    ASSERT_NO_FATAL_FAILURE(
        Start(process, {"calibrate", "--rig", QS_SOURCE "/examples/rigs/optics.json", "--grid", "40x40", "--save",
                        "--settings", Path("settings"), "--log-level", "detailed", "--verbose"}));
    QByteArray err;
    ASSERT_TRUE(WaitForLine(process, "Flip matrix updated", err)) << err.toStdString(); // then come the spots
    QElapsedTimer timer;
    timer.start();
    ASSERT_EQ(0, ::kill(static_cast<pid_t>(process.processId()), SIGINT));
    ASSERT_TRUE(process.waitForFinished(30000));
    EXPECT_LT(timer.elapsed(), 20000);
    EXPECT_EQ(QProcess::NormalExit, process.exitStatus());
    EXPECT_EQ(1, process.exitCode());
    EXPECT_FALSE((err + process.readAllStandardError()).contains("a light was still on"));
    EXPECT_TRUE(QDir(QString::fromStdString(Path("settings"))).isEmpty());
}

TEST_F(Interrupt, EndsABeampathPromptlyWithEveryDeviceDarkAndNoFileLeft)
{
    ASSERT_TRUE(QDir().mkdir(QString::fromStdString(Path("temporary"))));
    for (const char* kind : {"timed", "continuous"})
    {
        QProcess process;
        ASSERT_NO_FATAL_FAILURE(Start(process,
                                      {"stimulate", "--rig", BeampathRig(), "--oc", "Both:x", "--kind", kind,
                                       "--duration", "60000", "--report", Path("r.json"), "--verbose"},
                                      {"TMPDIR=" + Path("temporary")}));
        QByteArray err;
        ASSERT_TRUE(WaitForLine(process, "StimulationBeginAsync: Windows Threadpool thread", err)) << err.toStdString();
        QElapsedTimer timer;
        timer.start();
        ASSERT_EQ(0, ::kill(static_cast<pid_t>(process.processId()), SIGINT));
        ASSERT_TRUE(process.waitForFinished(30000)) << kind;
        EXPECT_LT(timer.elapsed(), 20000) << kind;
        EXPECT_EQ(QProcess::NormalExit, process.exitStatus());
        EXPECT_EQ(1, process.exitCode());
        EXPECT_FALSE((err + process.readAllStandardError()).contains("a light was still on")) << kind;
        EXPECT_EQ(0u, ParsedJson(ReadWhole(Path("r.json")))["lightOnAtEnd"].Size()) << kind;
        EXPECT_TRUE(QDir(QString::fromStdString(Path("temporary"))).isEmpty()) << kind;
    }
}

TEST_F(Interrupt, ComingTwiceStillPutsEveryDeviceOutAndLeavesNoFile)
{
    ASSERT_TRUE(QDir().mkdir(QString::fromStdString(Path("temporary"))));
    QProcess process;
    ASSERT_NO_FATAL_FAILURE(
        Start(process, {"stimulate", "--rig", BeampathRig(), "--oc", "Both:x", "--duration", "60000", "--verbose"},
              {"TMPDIR=" + Path("temporary")}));
    QByteArray err;
    ASSERT_TRUE(WaitForLine(process, "StimulationBeginAsync: Windows Threadpool thread", err)) << err.toStdString();
    ASSERT_EQ(0, ::kill(static_cast<pid_t>(process.processId()), SIGINT));
    ASSERT_EQ(0, ::kill(static_cast<pid_t>(process.processId()), SIGTERM));
    ASSERT_TRUE(process.waitForFinished(30000));
    EXPECT_EQ(QProcess::NormalExit, process.exitStatus());
    EXPECT_EQ(1, process.exitCode());
    EXPECT_TRUE(QDir(QString::fromStdString(Path("temporary"))).isEmpty());
}

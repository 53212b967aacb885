// Ctrl-C, and the request to end.
#include "tests/integration/Interruption.h"
#include "tests/integration/Stimhost.h"

#include <QElapsedTimer>

#include <gmock/gmock.h>

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
    for (const auto send : {&SendInterrupt, &SendRequestToEnd})
        for (const char* kind : {"timed", "continuous"})
        {
            QProcess process;
            ASSERT_NO_FATAL_FAILURE(Start(process, {"stimulate", "--rig", ShutterRig(), "--kind", kind, "--duration",
                                                    "60000", "--report", Path("r.json"), "--verbose"}));
            QByteArray err;
            ASSERT_TRUE(WaitForLine(process, "end, QS_OK", err)) << err.toStdString(); // its device is active
            QElapsedTimer timer;
            timer.start();
            ASSERT_TRUE(send(process));
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
    ASSERT_TRUE(SendInterrupt(process));
    ASSERT_TRUE(process.waitForFinished(30000));
    EXPECT_LT(timer.elapsed(), 20000);
    EXPECT_EQ(QProcess::NormalExit, process.exitStatus());
    EXPECT_EQ(1, process.exitCode());
    EXPECT_FALSE((err + process.readAllStandardError()).contains("a light was still on"));
    EXPECT_TRUE(IsEmptyFolder("settings"));
}

TEST_F(Interrupt, EndsABeampathPromptlyWithEveryDeviceDarkAndNoFileLeft)
{
    const std::vector<std::string> environment = TemporaryFolder("temporary");
    for (const char* kind : {"timed", "continuous"})
    {
        QProcess process;
        ASSERT_NO_FATAL_FAILURE(Start(process,
                                      {"stimulate", "--rig", BeampathRig(), "--oc", "Both:x", "--kind", kind,
                                       "--duration", "60000", "--report", Path("r.json"), "--verbose"},
                                      environment));
        QByteArray err;
        ASSERT_TRUE(WaitForLine(process, "StimulationBeginAsync: Windows Threadpool thread", err)) << err.toStdString();
        QElapsedTimer timer;
        timer.start();
        ASSERT_TRUE(SendInterrupt(process));
        ASSERT_TRUE(process.waitForFinished(30000)) << kind;
        EXPECT_LT(timer.elapsed(), 20000) << kind;
        EXPECT_EQ(QProcess::NormalExit, process.exitStatus());
        EXPECT_EQ(1, process.exitCode());
        EXPECT_FALSE((err + process.readAllStandardError()).contains("a light was still on")) << kind;
        EXPECT_EQ(0u, ParsedJson(ReadWhole(Path("r.json")))["lightOnAtEnd"].Size()) << kind;
        EXPECT_TRUE(IsEmptyFolder("temporary")) << kind;
    }
}

TEST_F(Interrupt, ComingTwiceStillPutsEveryDeviceOutAndTheNextRunFindsNoFileLeft)
{
    const std::vector<std::string> environment = TemporaryFolder("temporary");
    QProcess process;
    ASSERT_NO_FATAL_FAILURE(
        Start(process, {"stimulate", "--rig", BeampathRig(), "--oc", "Both:x", "--duration", "60000", "--verbose"},
              environment));
    QByteArray err;
    ASSERT_TRUE(WaitForLine(process, "StimulationBeginAsync: Windows Threadpool thread", err)) << err.toStdString();
    ASSERT_TRUE(SendInterrupt(process));
    ASSERT_TRUE(SendRequestToEnd(process));
    ASSERT_TRUE(process.waitForFinished(30000));
    EXPECT_EQ(QProcess::NormalExit, process.exitStatus());
    EXPECT_EQ(1, process.exitCode());
    // Windows keeps files that are open, and then the process has no time to close them.
    EXPECT_EQ(0, Stimhost({"beampaths", "--rig", BeampathRig()}, environment).exitCode);
    EXPECT_TRUE(IsEmptyFolder("temporary"));
}

TEST_F(Interrupt, LeavesTheTemporaryFilesOfOthersAlone)
{
    const std::vector<std::string> environment = TemporaryFolder("temporary");
    QProcess running;
    ASSERT_NO_FATAL_FAILURE(
        Start(running, {"stimulate", "--rig", BeampathRig(), "--oc", "Both:x", "--duration", "60000", "--verbose"},
              environment));
    QByteArray err;
    ASSERT_TRUE(WaitForLine(running, "StimulationBeginAsync: Windows Threadpool thread", err)) << err.toStdString();
    EXPECT_EQ(0, Stimhost({"beampaths", "--rig", BeampathRig()}, environment).exitCode);
    EXPECT_FALSE(IsEmptyFolder("temporary"));
    ASSERT_TRUE(SendInterrupt(running));
    ASSERT_TRUE(running.waitForFinished(30000));
    EXPECT_EQ(1, running.exitCode());
    EXPECT_TRUE(IsEmptyFolder("temporary"));
}

// The program with a lamp whose light outlives the process.
#pragma once

#include "tests/integration/Interruption.h"
#include "tests/integration/Stimhost.h"

#include <QElapsedTimer>
#include <QProcessEnvironment>
#include <QThread>

#include <gmock/gmock.h>

class LampTest : public StimhostTest
{
protected:
    void SetUp() override
    {
        StimhostTest::SetUp();
        m_rig = File("lamp.json", "{ \"format\": \"stimulation-rig\", \"version\": 1, \"name\": \"Lamp\",\n"
                                  "  \"moduleFolders\": [ \"" QS_LAMP_FOLDER "\" ],\n"
                                  "  \"devices\": [ { \"class\": \"CQsTestLamp\" } ] }\n");
        Set("LAMP_FILE", QString::fromStdString(File("lamp", "0")));
    }

    void Set(const char* variable, const QString& value) { m_environment.insert(variable, value); }

    void Begin(const char* kind, const char* durationMs, const std::vector<std::string>& more = {})
    {
        m_process.setProcessEnvironment(m_environment);
        std::vector<std::string> arguments = {"stimulate", "--rig", m_rig,        "--device", "Lamp",
                                              "--kind",    kind,    "--duration", durationMs};
        arguments.insert(arguments.end(), more.begin(), more.end());
        Start(m_process, arguments);
    }
    QProcess& Process() { return m_process; }

    bool IsLit() const { return ReadWhole(Path("lamp")) == "1"; }

    bool WaitUntilLit() const
    {
        QElapsedTimer timer;
        timer.start();
        while (!IsLit() && timer.elapsed() < 30000)
            QThread::msleep(2);
        return IsLit();
    }

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

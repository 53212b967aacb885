// What tests of the lock of a settings file share.
#pragma once

#include "platform/FileLock.h"
#include "tests/standalone/SettingsTest.h"
#include "tests/support/ChildProcess.h"

inline CQsStringW Wide(const std::string& path)
{
    return CQsStringW::FromUtf8(path);
}

inline bool CanBeHad(const std::string& path)
{
    return CQsSettingsFileLock(Wide(path).c_str()).IsHeld();
}

// Without the wait.
inline bool IsInUse(const std::string& path)
{
    std::string error;
    const bool held = QsPlatform::CFolderLock(path, 0, error).IsHeld();
    EXPECT_EQ(held, error.empty());
    return !held && error.find("found in use") != std::string::npos;
}

// A process that has the lock of the path and sleeps until it is killed.
class CLockHolder
{
public:
    explicit CLockHolder(const std::string& path) : m_process("HoldsLock", {path, m_meeting.Path()})
    {
        m_holds = QsTest::WaitForFile(m_meeting.File("held"));
    }

    bool Holds() const { return m_holds; }
    void Kill() { m_process.Kill(); }

private:
    const QsTest::CTemporaryFolder m_meeting;
    QsTest::CChildProcess m_process;
    bool m_holds = false;
};

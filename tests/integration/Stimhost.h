// Runs the built programs as a user does: as processes, with what they print and their exit codes.
#pragma once

#include "platform/RegistryControl.h"

#include <QProcess>
#include <QStringList>
#include <QTemporaryDir>

#include <gtest/gtest.h>
#include <rapidjson/document.h>

#include <functional>
#include <string>
#include <vector>

struct SOutcome
{
    int exitCode = -1; // -1: it crashed or did not end in time
    std::string out;
    std::string err;
};

// Runs a program to its end, at most a minute. `environment` holds further settings, as NAME=VALUE; a database that the
// caller's environment names does not reach it. `prepare` gets the process before it is started.
SOutcome RunProgram(const std::string& program, const std::vector<std::string>& arguments,
                    const std::vector<std::string>& environment = {},
                    const std::function<void(QProcess& process)>& prepare = {});

// One stimhost with a registry and files of its own, in a folder that goes with the test.
class StimhostTest : public testing::Test
{
protected:
    void SetUp() override { ASSERT_TRUE(m_folder.isValid()); }
    void TearDown() override { QsPlatform::RemoveRegistriesIn(m_folder.path().toStdString()); }

    // Arguments after the registry of this test.
    SOutcome Stimhost(const std::vector<std::string>& arguments, const std::vector<std::string>& environment = {});
    void Start(QProcess& process, const std::vector<std::string>& arguments,
               const std::vector<std::string>& environment = {});

    std::string Path(const std::string& name) const
    {
        return m_folder.filePath(QString::fromStdString(name)).toStdString();
    }
    // Makes the folder, and gives the environment of a program that puts its temporary files there.
    std::vector<std::string> TemporaryFolder(const std::string& name) const;
    bool IsEmptyFolder(const std::string& name) const;
    // Writes a file and gives its path.
    std::string File(const std::string& name, const std::string& text) const;
    // A rig of one shutter with id 1, named "Blue"; `faults` are further members of it.
    std::string ShutterRig(const std::string& faults = {}) const;
    // A rig with a device database of one setup with the hardware configurations 1 and 2 and the users 1 and 2.
    //
    //   beampath      on in  sub-beampaths
    //   1 "Both"      1      11 "Blue" and 12 "Red", with shutters of 2 and 20 ms, and 14 "Bare", without a device
    //   2 "Late"      1, 2   11 and 15 with the device "Slow", which needs 300 ms to begin
    //   3 "Other"     2      11 and 12
    //   4 "Fails"     1, 2   11 and 16 with the device "Failing", which cannot begin
    //   5 "Shots"     1, 2   itself, with the device "Mirrors", which fires patterns
    std::string BeampathRig() const;
    // The same as a database in a file of the test's, as --database takes it.
    std::string BeampathDatabase();

private:
    QTemporaryDir m_folder;
};

// The text must be one JSON document.
rapidjson::Document ParsedJson(const std::string& text);
std::string ReadWhole(const std::string& path);
std::size_t LineCount(const std::string& text);

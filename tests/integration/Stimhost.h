// Runs the built programs as a user does: as processes, with what they print and their exit codes.
#pragma once

#include <QProcess>
#include <QStringList>
#include <QTemporaryDir>

#include <gtest/gtest.h>
#include <rapidjson/document.h>

#include <string>
#include <vector>

struct SOutcome
{
    int exitCode = -1; // -1: it crashed or did not end in time
    std::string out;
    std::string err;
};

// Runs a program to its end, at most a minute.
SOutcome RunProgram(const std::string& program, const std::vector<std::string>& arguments);

// One stimhost with a registry and files of its own, in a folder that goes with the test.
class StimhostTest : public testing::Test
{
protected:
    void SetUp() override { ASSERT_TRUE(m_folder.isValid()); }

    // Arguments after the registry of this test.
    SOutcome Stimhost(const std::vector<std::string>& arguments);
    void Start(QProcess& process, const std::vector<std::string>& arguments);

    std::string Path(const std::string& name) const
    {
        return m_folder.filePath(QString::fromStdString(name)).toStdString();
    }
    // Writes a file and gives its path.
    std::string File(const std::string& name, const std::string& text) const;
    // A rig of one shutter with id 1, named "Blue"; `faults` are further members of it.
    std::string ShutterRig(const std::string& faults = {}) const;

private:
    QTemporaryDir m_folder;
};

// The text must be one JSON document.
rapidjson::Document ParsedJson(const std::string& text);
std::string ReadWhole(const std::string& path);
std::size_t LineCount(const std::string& text);

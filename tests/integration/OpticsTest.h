// The command line on simulated optics, with settings of the test's own.
#pragma once

#include "tests/integration/Stimhost.h"

#include <QDir>
#include <QFile>
#include <QXmlStreamReader>

#include <gmock/gmock.h>

#include <map>

constexpr char s_opticsRig[] = QS_SOURCE "/examples/rigs/optics.json";
// A region of the camera's image, for all of which there are mirrors.
constexpr char s_region[] = "polygon 180,110 380,150 320,250 270,210 210,300";

class OpticsTest : public StimhostTest
{
protected:
    // With settings of the test's own.
    SOutcome Run(std::vector<std::string> arguments, const std::string& rig = s_opticsRig)
    {
        arguments.insert(arguments.end(), {"--rig", rig, "--settings", Path("settings")});
        return Stimhost(arguments);
    }
    SOutcome Calibrated(std::vector<std::string> arguments = {})
    {
        arguments.insert(arguments.begin(), {"calibrate", "--save", "--grid", "4x3", "--json"});
        return Run(arguments);
    }
    std::string SavedFile() const { return Path("settings/calibrations.json"); }
    bool IsSaved() const { return QFile::exists(QString::fromStdString(SavedFile())); }
    unsigned SavedCount() { return ParsedJson(Run({"calibration", "list", "--json"}).out)["calibrations"].Size(); }

    // A rig of one micromirror device, with further settings where they are given, and a camera with these settings.
    std::string OpticsRig(const std::string& camera, const std::string& device = {}) const
    {
        return File("rig.json", R"({ "format": "stimulation-rig", "version": 1, "name": "Small",
            "microscope": { "objective": "Plan 20x" },
            "cameras": [ { "class": "CQsSimCamera", "name": "Eye", "settings": )" +
                                    camera + R"( } ],
            "devices": [ { "class": "CQsSimMicromirrorDevice", "list": "simple", "name": "Mirrors",
                           "settings": { "camera": "Eye")" +
                                    (device.empty() ? "" : ", " + device) + " } } ] }");
    }
};

// How many elements of each name the picture has.
inline std::map<std::string, int> ElementsOf(const std::string& path)
{
    QXmlStreamReader svg(QByteArray::fromStdString(ReadWhole(path)));
    std::map<std::string, int> elements;
    while (!svg.atEnd())
        if (svg.readNext() == QXmlStreamReader::StartElement)
            ++elements[svg.name().toString().toStdString()];
    EXPECT_FALSE(svg.hasError()) << svg.errorString().toStdString();
    return elements;
}

inline void ExpectOneLine(const SOutcome& outcome, int exitCode, const std::string& part)
{
    EXPECT_EQ(exitCode, outcome.exitCode) << outcome.out << outcome.err;
    EXPECT_EQ(1u, LineCount(outcome.err)) << outcome.err;
    EXPECT_THAT(outcome.err, testing::HasSubstr(part));
}

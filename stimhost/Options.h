// The command line.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace Stimhost {

struct SOptions
{
    // Every command.
    std::string rig;
    std::string database;              // empty: that of the rig, or none
    std::optional<std::int32_t> setup; // these three: of the database; absent: its own first choice
    std::optional<std::int32_t> hwConfig;
    std::optional<std::int32_t> user;
    std::vector<std::string> moduleFolders;
    std::string registryFolder;
    std::string logFile;
    std::string logLevel = "normal";
    bool verbose = false;
    bool json = false;
    std::string settingsFolder; // empty: the user's

    // Changes of the rig's cameras and microscope for this run; absent, or empty: as the rig says.
    struct SFilter
    {
        std::string key;
        std::string name;
        std::int32_t position = 0;
    };
    std::optional<int> cameraRotation; // [deg]
    bool cameraFlip = false;
    std::optional<int> cameraBinning;
    std::vector<int> cameraRegion; // left, top, right, bottom
    std::optional<std::string> objective;
    std::optional<double> zoom;
    std::vector<SFilter> filters;

    std::string command; // "list", "script call", ...

    std::vector<std::string> files; // inspect, rig check
    std::string file;               // rig import, rig export

    std::optional<std::string> name; // activate
    std::optional<unsigned> mruIndex;
    std::string confocal; // "on", "off" or empty
    bool save = false;

    std::string kind = "timed"; // stimulate
    double durationMs = 100.0;
    unsigned repetitions = 1;
    std::uint32_t groupMask = 1;
    std::optional<std::string> device; // also script call
    std::optional<std::string> oc;     // also groups, and what oc set sets
    std::optional<double> abortAfterMs;
    double graceMs = 10000.0;
    std::string picture; // also calibrate
    std::string report;
    std::string roi;

    unsigned gridColumns = 7; // calibrate, with `device`, `save` and `picture`
    unsigned gridRows = 5;

    bool yes = false; // calibration clear

    std::string from = "image"; // map
    std::string to = "chip";
    std::string place; // the point, the rectangle
    std::string scanArea;

    std::vector<std::string> assignments; // groups save

    std::string procedure; // script call
    std::vector<std::string> parameters;

    bool machine = false; // registry show

    std::string out = "out"; // demo
};

// Reads the command line, UTF-8 and with the program's name first, and what the environment adds to it. The exit code
// when there is nothing left to do: help was shown, or the usage is bad and one line on stderr says how.
std::optional<int> ReadOptions(const std::vector<std::string>& arguments, SOptions& options);

} // namespace Stimhost

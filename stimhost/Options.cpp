#include "stimhost/Options.h"

#include "platform/Process.h"
#include "stimhost/RoiText.h"
#include "stimhost/Text.h"

#include <CLI/CLI.hpp>

#include <charconv>
#include <cmath>
#include <sstream>

namespace Stimhost {

namespace {

const char* const s_footer =
    "Exit codes:\n"
    "  0  done\n"
    "  1  a device or a stimulation failed, was interrupted, or left a light on\n"
    "  2  bad usage, bad input, or a file that cannot be written\n"
    "  3  an internal error, or the stimulation module is missing\n"
    "\n"
    "Ctrl-C aborts a running stimulation and closes every shutter; a second one does not wait.";

// Milliseconds from 0 to one day. A value that is not a number compares false with everything, so it fails too.
const CLI::Validator s_milliseconds(
    [](std::string& text)
    {
        double value = 0.0;
        const bool isNumber = CLI::detail::lexical_cast(text, value);
        return isNumber && value >= 0.0 && value <= 86400000.0
                   ? std::string()
                   : "\"" + text + "\" is not a time; expected 0 to 86400000 milliseconds";
    },
    "MS");

// A script's variable that is not set must not pass for the default.
const CLI::Validator
    s_path([](std::string& text) { return text.empty() ? "expected a name, found none" : std::string(); }, "");

// Sensors are smaller, and sums of such numbers stay whole.
constexpr double s_longestSide = 1e6;

// "L,T,R,B" of whole numbers with something between them; empty where that is not so.
std::vector<int> ReadRegion(const std::string& text)
{
    const std::optional<std::vector<double>> sides = ReadNumbers(text, 4);
    std::vector<int> region;
    if (!sides)
        return region;
    for (const double side : *sides)
        if (side != std::floor(side) || std::fabs(side) > s_longestSide)
            return region;
    for (const double side : *sides)
        region.push_back(static_cast<int>(side));
    if (region[2] <= region[0] || region[3] <= region[1])
        region.clear();
    return region;
}

bool ReadFilter(const std::string& text, SOptions::SFilter& filter)
{
    // The name may hold the marks, too: the first "=" and the last ":" count.
    const std::size_t equals = text.find('=');
    const std::size_t colon = text.rfind(':');
    if (equals == std::string::npos || equals == 0 || colon == std::string::npos || colon < equals)
        return false;
    const char* const end = text.data() + text.size();
    const auto [last, fault] = std::from_chars(text.data() + colon + 1, end, filter.position);
    filter.key = text.substr(0, equals);
    filter.name = text.substr(equals + 1, colon - equals - 1);
    return fault == std::errc() && last == end;
}

bool ReadGrid(const std::string& text, unsigned& columns, unsigned& rows)
{
    constexpr unsigned most = 40;
    const char* const end = text.data() + text.size();
    const auto first = std::from_chars(text.data(), end, columns);
    if (first.ec != std::errc() || first.ptr == end || *first.ptr != 'x')
        return false;
    const auto second = std::from_chars(first.ptr + 1, end, rows);
    return second.ec == std::errc() && second.ptr == end && columns >= 1 && rows >= 1 && columns <= most &&
           rows <= most;
}

// Ids of the device database start at 1.
const CLI::Range s_id(1, 2147483647);

CLI::App* Command(CLI::App& parent, const std::string& name, const std::string& description, SOptions& options)
{
    CLI::App* command = parent.add_subcommand(name, description);
    command->fallthrough();
    const std::string path = parent.get_parent() != nullptr ? parent.get_name() + " " + name : name;
    command->parse_complete_callback([&options, path] { options.command = path; });
    return command;
}

// A command that stands for nothing without one of its own commands.
CLI::App& Group(CLI::App& parent, const std::string& name, const std::string& description)
{
    CLI::App* group = parent.add_subcommand(name, description);
    group->fallthrough();
    group->require_subcommand(1);
    return *group;
}

void AddJson(CLI::App& command, SOptions& options)
{
    command.add_flag("--json", options.json, "Print JSON");
}

void AddGlobal(CLI::App& app, SOptions& options)
{
    app.add_option("--rig", options.rig, "Rig file (default: one that comes with the program)")
        ->check(s_path)
        ->type_name("FILE");
    app.add_option("--database", options.database,
                   "Device database, sqlite:FILE or postgresql://[USER[:PASSWORD]@]HOST[:PORT]/DATABASE; where a "
                   "password must not stand on the command line, in the environment's QS_DATABASE (default: the rig's "
                   "own, for this run)")
        ->check(s_path)
        ->type_name("SPEC");
    app.add_option("--setup", options.setup, "Setup of the device database (default: the first)")
        ->check(s_id)
        ->type_name("ID");
    app.add_option("--hw-config", options.hwConfig, "Hardware configuration of the setup (default: the first)")
        ->check(s_id)
        ->type_name("ID");
    app.add_option("--user", options.user, "User of the device database (default: the first)")
        ->check(s_id)
        ->type_name("ID");
    app.add_option("--modules", options.moduleFolders, "Folders with further device modules")->type_name("DIR");
    app.add_option("--registry", options.registryFolder, "Folder of the registry (default: the user's)")
        ->check(s_path)
        ->type_name("DIR");
    app.add_option("--log", options.logFile, "Append the diagnostic log to a file")->check(s_path)->type_name("FILE");
    app.add_option("--log-level", options.logLevel, "How much is logged")
        ->check(CLI::IsMember({"off", "normal", "detailed"}))
        ->type_name("LEVEL")
        ->capture_default_str();
    app.add_flag("--verbose", options.verbose, "Write the diagnostic log to stderr");
    app.add_option("--settings", options.settingsFolder, "Folder of saved calibrations (default: the user's)")
        ->check(s_path)
        ->type_name("DIR");
}

// An option whose text `read` takes apart; the message says what was expected in place of what is no such text.
template <class Read>
CLI::Option* AddRead(CLI::App& app, const std::string& name, const std::string& description, const std::string& form,
                     const std::string& expected, Read read)
{
    return app
        .add_option_function<std::string>(
            name,
            [name, expected, read](const std::string& text)
            {
                if (!read(text))
                    throw CLI::ValidationError(name, "expected " + expected + ", found \"" + text + "\"");
            },
            description)
        ->type_name(form);
}

void AddHardware(CLI::App& app, SOptions& options)
{
    const std::string group = "Cameras and microscope, for this run";
    app.add_option("--camera-rotation", options.cameraRotation, "Rotation of the image against the sensor")
        ->check(CLI::IsMember({0, 90, 180, 270}))
        ->type_name("DEGREES")
        ->group(group);
    app.add_flag("--camera-flip", options.cameraFlip, "Mirror the image top to bottom")->group(group);
    app.add_option("--camera-binning", options.cameraBinning, "Sensor pixels in one image pixel, either way")
        ->check(CLI::IsMember({1, 2, 4, 8}))
        ->type_name("N")
        ->group(group);
    AddRead(app, "--camera-region", "Part of the sensor that is read out [sensor pixels]", "L,T,R,B",
            "left, top, right and bottom as four whole numbers with commas",
            [&options](const std::string& text)
            {
                options.cameraRegion = ReadRegion(text);
                return !options.cameraRegion.empty();
            })
        ->group(group);
    app.add_option("--objective", options.objective, "Objective in place; empty: none")
        ->type_name("NAME")
        ->group(group);
    app.add_option("--zoom", options.zoom, "Manual zoom; 0: none")
        ->check(CLI::Range(0.0, 1000.0))
        ->type_name("X")
        ->group(group);
    app.add_option_function<std::vector<std::string>>(
           "--filter",
           [&options](const std::vector<std::string>& texts)
           {
               for (const std::string& text : texts)
               {
                   SOptions::SFilter filter;
                   if (!ReadFilter(text, filter))
                       throw CLI::ValidationError(
                           "--filter", "expected KEY=NAME:POSITION with a whole number, found \"" + text + "\"");
                   options.filters.push_back(filter);
               }
           },
           "Filter in place of a filter changer")
        ->type_name("KEY=NAME:POSITION")
        ->allow_extra_args(false)
        ->group(group);
}

void AddOC(CLI::App& command, SOptions& options)
{
    command.add_option("--oc", options.oc, "Stimulation optical configuration, for this run")
        ->check(s_path)
        ->type_name("BEAMPATH:CONFIGURATION");
}

void AddStimulate(CLI::App& app, SOptions& options)
{
    CLI::App* stimulate =
        Command(app, "stimulate", "Stimulate with the active device or beampath and measure its light", options);
    stimulate->add_option("--kind", options.kind, "Kind of stimulation")
        ->check(CLI::IsMember({"continuous", "timed"}))
        ->type_name("continuous|timed")
        ->capture_default_str();
    stimulate->add_option("--duration", options.durationMs, "Length of the light")
        ->check(s_milliseconds)
        ->type_name("MS")
        ->capture_default_str();
    stimulate->add_option("--repetitions", options.repetitions, "How often, one after the other")
        ->check(CLI::Range(1u, 10000u))
        ->type_name("N")
        ->capture_default_str();
    stimulate->add_option("--groups", options.groupMask, "Stimulation groups, bit 0 to 2")
        ->check(CLI::Range(0u, 7u))
        ->type_name("MASK")
        ->capture_default_str();
    stimulate->add_option("--device", options.device, "Activate this device first")->type_name("NAME");
    AddOC(*stimulate, options);
    stimulate->add_option("--abort-after", options.abortAfterMs, "Abort each stimulation after this time")
        ->check(s_milliseconds)
        ->type_name("MS");
    stimulate->add_option("--grace", options.graceMs, "Give up on a device this long after its time")
        ->check(s_milliseconds)
        ->type_name("MS")
        ->capture_default_str();
    stimulate
        ->add_option("--roi", options.roi,
                     "Light this region of the camera's image [image pixels]: \"ellipse CX,CY,RX,RY\" or \"polygon X,Y "
                     "X,Y X,Y ...\"")
        ->check(s_path)
        ->type_name("TEXT");
    stimulate->add_option("--picture", options.picture, "Write the timeline; of a region, what the camera saw")
        ->check(s_path)
        ->type_name("FILE.svg");
    stimulate->add_option("--report", options.report, "Write the JSON report")->check(s_path)->type_name("FILE");
    AddJson(*stimulate, options);
}

void AddBeampaths(CLI::App& app, SOptions& options)
{
    AddJson(*Command(app, "beampaths", "Stimulation beampaths of the setup, with their devices", options), options);

    CLI::App& oc = Group(app, "oc", "The stimulation optical configuration");
    AddJson(*Command(oc, "show", "Which one is set", options), options);
    CLI::App* set = Command(oc, "set", "Set it, and keep it for the setup and the user", options);
    set->add_option("name", options.oc, "Its name")->required()->check(s_path)->type_name("BEAMPATH:CONFIGURATION");
    AddJson(*set, options);

    CLI::App& groups = Group(app, "groups", "Which sub-beampath serves which stimulation group");
    CLI::App* show = Command(groups, "show", "Assignments of the active beampath", options);
    AddOC(*show, options);
    AddJson(*show, options);
    CLI::App* save = Command(groups, "save", "Save them for the setup and the user", options);
    save->add_option("--assign", options.assignments, "Assign a group, 0 to 2, to a sub-beampath first")
        ->type_name("GROUP=ID");
    AddOC(*save, options);
    AddJson(*save, options);
}

void AddDevice(CLI::App& command, SOptions& options)
{
    command
        .add_option("--device", options.device,
                    "Device with a calibration (default: the active one, or the first that has one)")
        ->check(s_path)
        ->type_name("NAME");
}

void AddCalibration(CLI::App& app, SOptions& options)
{
    CLI::App* calibrate =
        Command(app, "calibrate", "Measure where a device's mirrors light, on the camera's image", options);
    AddDevice(*calibrate, options);
    AddRead(*calibrate, "--grid", "Spots to project (default: 7x5)", "NxM",
            "columns and rows as NxM, each from 1 to 40",
            [&options](const std::string& text) { return ReadGrid(text, options.gridColumns, options.gridRows); });
    calibrate->add_flag("--save", options.save, "Save it for the hardware of now");
    calibrate->add_option("--picture", options.picture, "Write what the camera saw, with the residuals")
        ->check(s_path)
        ->type_name("FILE.svg");
    AddJson(*calibrate, options);

    CLI::App& calibration = Group(app, "calibration", "Saved calibrations, and the one of now");
    const auto add = [&](const char* name, const char* description)
    {
        CLI::App* command = Command(calibration, name, description, options);
        AddDevice(*command, options);
        AddJson(*command, options);
        return command;
    };
    add("list", "What is saved");
    add("show", "The calibration of now");
    add("find", "Find the saved one that fits the hardware of now, and adopt it");
    add("clear", "Forget all that are saved")->add_flag("--yes", options.yes, "Do it");
    add("why", "What keeps each saved one from fitting the hardware of now");
}

void AddMap(CLI::App& app, SOptions& options)
{
    CLI::App& map = Group(app, "map", "Places on the image, in the scanner's field and on the chip");
    const auto add = [&](const char* name, const char* description, const char* form, std::string& place)
    {
        CLI::App* command = Command(map, name, description, options);
        command->add_option("place", place, "The place, in the frame that it comes from")
            ->required()
            ->check(s_path)
            ->type_name(form);
        for (const auto& [flag, frame] : {std::pair("--from", &options.from), std::pair("--to", &options.to)})
            command->add_option(flag, *frame, "Frame")
                ->check(CLI::IsMember({"image", "area", "chip"}))
                ->type_name("image|area|chip")
                ->capture_default_str();
        command
            ->add_option("--scan-area", options.scanArea,
                         "Scan area of the image: zoom=, angle= [deg], x=, y=, aspect=, crop-zoom=, crop-aspect=, "
                         "crop-x=, crop-y=, reference-zoom=, with commas (default: the full field)")
            ->check(s_path)
            ->type_name("TEXT");
        AddDevice(*command, options);
        AddJson(*command, options);
    };
    add("point", "A point", "X,Y", options.place);
    add("rect", "A rectangle", "L,T,R,B", options.place);
    add("roi", "A region", "FILE|TEXT", options.place);
}

void AddRig(CLI::App& app, SOptions& options)
{
    CLI::App& rig = Group(app, "rig", "Rig files and device databases");
    CLI::App* check = Command(rig, "check", "Check rig files, files of database content, and the database", options);
    check->add_option("files", options.files, "Files")->type_name("FILE");
    AddJson(*check, options);

    AddJson(*Command(rig, "init", "Make an empty device database", options), options);

    CLI::App* import = Command(rig, "import", "Replace what the device database holds; make it where needed", options);
    import->add_option("file", options.file, "Rig with a device database, or an export")
        ->required()
        ->check(s_path)
        ->type_name("FILE");
    AddJson(*import, options);

    CLI::App* exporting = Command(rig, "export", "Write what the device database holds as JSON", options);
    exporting->add_option("file", options.file, "New file, or an earlier export (default: stdout)")
        ->check(s_path)
        ->type_name("FILE");
    AddJson(*exporting, options);
}

} // namespace

std::optional<int> ReadOptions(const std::vector<std::string>& arguments, SOptions& options)
{
    CLI::App app("Command-line host of the stimulation-device module.", "stimhost");
    app.footer(s_footer);
    app.allow_windows_style_options(false); // "/folder/file" is a path on every system
    app.require_subcommand(1);
    app.set_version_flag("--version", "stimhost " QS_VERSION);
    AddGlobal(app, options);
    AddHardware(app, options);

    CLI::App* list = Command(app, "list", "Classes, devices, recently used devices and options", options);
    AddJson(*list, options);

    CLI::App* inspect = Command(app, "inspect", "Class records of module files, which are not loaded", options);
    inspect->add_option("files", options.files, "Module files, ELF or PE")->required()->type_name("FILE");
    AddJson(*inspect, options);

    CLI::App* activate = Command(app, "activate", "Make a device the active one", options);
    CLI::Option_group* which = activate->add_option_group("which");
    which->add_option("name", options.name, "Unique name of the device")->type_name("NAME");
    which->add_option("--mru", options.mruIndex, "Recently used device from this place on, 0 is the latest")
        ->type_name("INDEX");
    which->add_option("--confocal", options.confocal, "Switch to or away from the point scanner's device")
        ->check(CLI::IsMember({"on", "off"}))
        ->type_name("on|off");
    which->require_option(1);
    activate->add_flag("--save", options.save, "Keep the recently used devices in the registry");
    AddJson(*activate, options);

    AddStimulate(app, options);
    AddCalibration(app, options);
    AddMap(app, options);
    AddBeampaths(app, options);

    CLI::App& script = Group(app, "script", "Registered script procedures");
    CLI::App* scriptList = Command(script, "list", "Procedures with their parameters", options);
    AddJson(*scriptList, options);
    CLI::App* scriptCall = Command(script, "call", "Call a procedure", options);
    scriptCall->add_option("procedure", options.procedure, "Name of the procedure")->required()->type_name("PROC");
    scriptCall->add_option("--device", options.device, "Device that the procedure shall find")->type_name("TEXT");
    scriptCall->add_option("--param", options.parameters, "Parameters")->type_name("NAME=VALUE");
    AddJson(*scriptCall, options);

    CLI::App& registry = Group(app, "registry", "The stored settings");
    CLI::App* registryShow = Command(registry, "show", "Stored values", options);
    registryShow->add_flag("--machine", options.machine, "Those of the machine instead of the user's");
    AddJson(*registryShow, options);

    AddRig(app, options);

    CLI::App* demo = Command(app, "demo", "Run the rig through its paces and check every promise", options);
    demo->add_option("--out", options.out, "Folder of report.json and the pictures")
        ->check(s_path)
        ->type_name("DIR")
        ->capture_default_str();
    AddJson(*demo, options);

    try
    {
        // Last one first.
        std::vector<std::string> texts(arguments.rbegin(), arguments.rend());
        if (!texts.empty())
            texts.pop_back();
        app.parse(texts);
    }
    catch (const CLI::ParseError& e)
    {
        if (e.get_exit_code() == 0)
        {
            std::ostringstream help;
            app.exit(e, help, help);
            Print(help.str());
            return CodeAfterOutput(eExitDone);
        }
        std::string reason = e.what();
        for (char& c : reason)
            c = c == '\n' ? ' ' : c;
        Complain(reason + " (see stimhost --help)");
        return eExitBadUse;
    }
    if (options.database.empty()) // an empty one on the command line is bad usage
        options.database = QsPlatform::EnvironmentVariable("QS_DATABASE").value_or("");
    return std::nullopt;
}

} // namespace Stimhost

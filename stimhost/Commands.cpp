// Entry of the commands' library: chooses the command, and leaves no light on whatever it does.

#include "stimhost/Commands.h"

#include "platform/Export.h"
#include "platform/Process.h"
#include "standalone/DeviceManager.h"
#include "standalone/HostControl.h"
#include "stimhost/Bounded.h"
#include "stimhost/Database.h"
#include "stimhost/Interruption.h"
#include "stimhost/Session.h"
#include "stimhost/Temporary.h"
#include "stimhost/Text.h"

#include <algorithm>
#include <exception>
#include <iterator>
#include <stdexcept>

extern "C" QS_EXPORT int StimhostMain(const std::vector<std::string>* arguments);

namespace Stimhost {

namespace {

struct SCommand
{
    const char* name;
    int (*withSession)(const SOptions& options, CSession& session); // null: it needs none
    int (*alone)(const SOptions& options);
};

constexpr SCommand s_commands[] = {
    {"list", &List, nullptr},
    {"activate", &Activate, nullptr},
    {"stimulate", &Stimulate, nullptr},
    {"calibrate", &Calibrate, nullptr},
    {"calibration list", &CalibrationList, nullptr},
    {"calibration show", &CalibrationShow, nullptr},
    {"calibration find", &CalibrationFind, nullptr},
    {"calibration clear", &CalibrationClear, nullptr},
    {"calibration why", &CalibrationWhy, nullptr},
    {"map point", &MapPoint, nullptr},
    {"map rect", &MapRect, nullptr},
    {"map roi", &MapRoi, nullptr},
    {"demo", &Demo, nullptr},
    {"script list", [](const SOptions& options, CSession&) { return ScriptList(options); }, nullptr},
    {"script call", [](const SOptions& options, CSession&) { return ScriptCall(options); }, nullptr},
    {"beampaths", &ShowBeampaths, nullptr},
    {"oc show", &OCShow, nullptr},
    {"oc set", &OCSet, nullptr},
    {"groups show", &GroupsShow, nullptr},
    {"groups save", &GroupsSave, nullptr},
    {"registry show", nullptr, &RegistryShow},
    {"rig check", nullptr, &RigCheck},
    {"rig init", nullptr, &RigInit},
    {"rig import", nullptr, &RigImport},
    {"rig export", nullptr, &RigExport},
};

int Run(SOptions& options)
{
    static CSession& session = *new CSession; // its devices are the manager's, which lives as long as the process
    std::string error;
    const SCommand* const command = std::find_if(std::begin(s_commands), std::end(s_commands),
                                                 [&](const SCommand& known) { return options.command == known.name; });
    if (command == std::end(s_commands))
        throw std::logic_error("a command that nobody runs: " + options.command);
    const bool withRig = command->withSession != nullptr;
    if ((options.command == "demo" && !PrepareDemo(options, error)) || !session.Open(options, withRig, error))
    {
        Complain(error);
        return eExitBadUse;
    }
    return withRig ? command->withSession(options, session) : command->alone(options);
}

int RunAndCatch(SOptions& options)
{
    try
    {
        return Run(options);
    }
    catch (const std::exception& e)
    {
        Complain(std::string("internal error: ") + e.what());
    }
    catch (...) // out of a device
    {
        Complain("internal error: not a standard exception");
    }
    return eExitInternal;
}

} // namespace

int PutLightsOut(int code)
{
    for (const std::string& light : LeaveNoLight())
    {
        Complain("a light was still on: " + light + "; it has been switched off");
        code = code == eExitDone ? eExitFailed : code;
    }
    return code;
}

} // namespace Stimhost

int StimhostMain(const std::vector<std::string>* arguments)
{
    using namespace Stimhost;

    SOptions options;
    if (const std::optional<int> code = ReadOptions(*arguments, options))
        return *code;
    if (!HandleInterruptions())
    {
        Complain("interrupts cannot be handled, so nothing is started");
        return eExitInternal;
    }
    const int code = CodeAfterOutput(PutLightsOut(RunAndCatch(options)));
    CloseDatabase();
    RemoveTemporaryFolder();
    if (ThreadsAreLeftBehind())
        QsPlatform::EndProcess(code); // they may still be inside a device; nothing of it may be tidied away under them
    QsStandalone::RemoveCameras();
    return code;
}

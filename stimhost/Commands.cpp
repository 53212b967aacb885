// Entry of the commands' library: chooses the command, and leaves no light on whatever it does.

#include "stimhost/Commands.h"

#include "platform/Export.h"
#include "standalone/DeviceManager.h"
#include "stimhost/Bounded.h"
#include "stimhost/Interruption.h"
#include "stimhost/Session.h"
#include "stimhost/Text.h"

#include <cstdlib>
#include <exception>

extern "C" QS_EXPORT int StimhostMain(int argc, char** argv);

namespace Stimhost {

namespace {

int Run(const SOptions& options)
{
    static CSession& session = *new CSession; // its devices are the manager's, which lives as long as the process
    std::string error;
    const std::string& command = options.command;
    const bool withRig = command != "registry show" && command != "rig check";
    if ((command == "demo" && !PrepareDemo(options, error)) || !session.Open(options, withRig, error))
    {
        Complain(error);
        return eExitBadUse;
    }
    if (command == "list")
        return List(options, session);
    if (command == "activate")
        return Activate(options, session);
    if (command == "stimulate")
        return Stimulate(options, session);
    if (command == "demo")
        return Demo(options, session);
    if (command == "script list")
        return ScriptList(options);
    if (command == "script call")
        return ScriptCall(options);
    if (command == "registry show")
        return RegistryShow(options);
    return RigCheck(options);
}

int RunAndCatch(const SOptions& options)
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

int StimhostMain(int argc, char** argv)
{
    using namespace Stimhost;

    SOptions options;
    if (const std::optional<int> code = ReadOptions(argc, argv, options))
        return *code;
    if (!HandleInterruptions())
    {
        Complain("interrupts cannot be handled, so nothing is started");
        return eExitInternal;
    }
    const int code = CodeAfterOutput(PutLightsOut(RunAndCatch(options)));
    if (ThreadsAreLeftBehind())
        std::_Exit(code); // they may still be inside a device; nothing of it may be tidied away under them
    return code;
}

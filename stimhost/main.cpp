// The program: reads the command line, inspects module files, and for everything else loads the stimulation module from
// its file, as a host does, and then the commands that use it.

#include "platform/ModuleFile.h"
#include "platform/Process.h"
#include "standalone/PluginManager.h"
#include "stimhost/Folders.h"
#include "stimhost/Inspect.h"
#include "stimhost/Options.h"
#include "stimhost/Text.h"

#include <exception>

namespace {

int RunCommands(const std::vector<std::string>& arguments)
{
    using CommandsMain = int (*)(const std::vector<std::string>*);

    std::string error;
    const std::string module = Stimhost::ModuleFile();
    const QsStandalone::SModuleFile records = QsStandalone::CQsModules::ScanFile(module);
    if (!records.error.empty() || !QsStandalone::CQsModules::LoadModule(module, error))
    {
        Stimhost::Complain("the stimulation module cannot be loaded: " + (error.empty() ? records.error : error));
        return Stimhost::eExitInternal;
    }
    const std::string commands = Stimhost::CommandsFile();
    void* handle = QsPlatform::LoadModuleFile(commands, error);
    void* entry = handle != nullptr ? QsPlatform::ModuleSymbol(handle, "StimhostMain") : nullptr;
    if (entry == nullptr)
    {
        Stimhost::Complain("the commands cannot be loaded: " + (error.empty() ? commands + " is not ours" : error));
        return Stimhost::eExitInternal;
    }
    return reinterpret_cast<CommandsMain>(entry)(&arguments);
}

} // namespace

int main(int argc, char** argv)
{
    QsPlatform::GuardStandardStreams();
    try
    {
        const std::vector<std::string> arguments = QsPlatform::CommandLineArguments(argc, argv);
        Stimhost::SOptions options;
        if (const std::optional<int> code = Stimhost::ReadOptions(arguments, options))
            return *code;
        if (options.command == "inspect")
            return Stimhost::CodeAfterOutput(Stimhost::Inspect(options));
        return RunCommands(arguments);
    }
    catch (const std::exception& e)
    {
        Stimhost::Complain(std::string("internal error: ") + e.what());
        return Stimhost::eExitInternal;
    }
}

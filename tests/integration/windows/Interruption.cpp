#include "tests/integration/Interruption.h"
#include "platform/Win32.h"

// Interrupts come from the console that both share, and go to a group of processes.
void MakeInterruptible(QProcess& process)
{
    if (GetConsoleCP() == 0)
    {
        FreeConsole(); // what is left where the one who started us has none
        AllocConsole();
    }
    process.setCreateProcessArgumentsModifier(
        [](QProcess::CreateProcessArguments* arguments)
        {
            arguments->flags |= CREATE_NEW_PROCESS_GROUP;
            arguments->flags &= ~static_cast<unsigned long>(CREATE_NO_WINDOW); // it would get a console of its own
        });
}

// Windows gives only Ctrl-Break to a single group, Wine only Ctrl-C; the program hears both alike.
bool SendInterrupt(const QProcess& process)
{
    const auto group = static_cast<DWORD>(process.processId());
    return GenerateConsoleCtrlEvent(CTRL_BREAK_EVENT, group) || GenerateConsoleCtrlEvent(CTRL_C_EVENT, group);
}

bool SendRequestToEnd(const QProcess& process)
{
    return SendInterrupt(process);
}

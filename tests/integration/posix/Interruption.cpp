#include "tests/integration/Interruption.h"

#include <csignal>

#include <signal.h>

void MakeInterruptible(QProcess&) {}

bool SendInterrupt(const QProcess& process)
{
    return ::kill(static_cast<pid_t>(process.processId()), SIGINT) == 0;
}

bool SendRequestToEnd(const QProcess& process)
{
    return ::kill(static_cast<pid_t>(process.processId()), SIGTERM) == 0;
}

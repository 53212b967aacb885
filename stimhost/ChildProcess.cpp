#include "stimhost/ChildProcess.h"

#include "platform/Process.h"
#include "stimhost/Database.h"

#include <QProcess>
#include <QProcessEnvironment>
#include <QStringList>

namespace Stimhost {

SChildOutcome RunSelf(const std::vector<std::string>& arguments)
{
    constexpr int longestMs = 120000;
    NeedApplication();
    QStringList list;
    for (const std::string& argument : arguments)
        list += QString::fromStdString(argument);
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    environment.remove(QStringLiteral("QS_DATABASE"));
    QProcess process;
    process.setProcessEnvironment(environment);
    process.start(QString::fromStdString(QsPlatform::ProgramFile()), list, QIODevice::ReadOnly);
    SChildOutcome outcome;
    const bool ended = process.waitForFinished(longestMs);
    if (!ended)
    {
        process.kill();
        process.waitForFinished(5000);
    }
    outcome.out = process.readAllStandardOutput().toStdString();
    outcome.err = process.readAllStandardError().toStdString();
    if (ended && process.exitStatus() == QProcess::NormalExit)
        outcome.exitCode = process.exitCode();
    return outcome;
}

} // namespace Stimhost

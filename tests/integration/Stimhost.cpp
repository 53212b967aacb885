#include "tests/integration/Stimhost.h"

#include <QCoreApplication>
#include <QFile>

#include <algorithm>

namespace {

// Qt waits for processes through an application object.
void NeedApplication()
{
    static int count = 1;
    static char name[] = "integration";
    static char* arguments[] = {name, nullptr};
    static QCoreApplication application(count, arguments);
}

QStringList Texts(const std::vector<std::string>& texts)
{
    QStringList list;
    for (const std::string& text : texts)
        list << QString::fromStdString(text);
    return list;
}

} // namespace

SOutcome RunProgram(const std::string& program, const std::vector<std::string>& arguments)
{
    NeedApplication();
    QProcess process;
    process.start(QString::fromStdString(program), Texts(arguments));
    SOutcome outcome;
    const bool ended = process.waitForStarted() && process.waitForFinished(60000);
    if (ended && process.exitStatus() == QProcess::NormalExit)
        outcome.exitCode = process.exitCode();
    if (!ended)
        process.kill();
    process.waitForFinished(5000);
    outcome.out = process.readAllStandardOutput().toStdString();
    outcome.err = process.readAllStandardError().toStdString();
    return outcome;
}

SOutcome StimhostTest::Stimhost(const std::vector<std::string>& arguments)
{
    std::vector<std::string> all = {"--registry", Path("registry")};
    all.insert(all.end(), arguments.begin(), arguments.end());
    return RunProgram(QS_BIN "/stimhost", all);
}

void StimhostTest::Start(QProcess& process, const std::vector<std::string>& arguments)
{
    NeedApplication();
    process.start(QS_BIN "/stimhost",
                  QStringList{"--registry", QString::fromStdString(Path("registry"))} + Texts(arguments));
    ASSERT_TRUE(process.waitForStarted());
}

std::string StimhostTest::File(const std::string& name, const std::string& text) const
{
    const std::string path = Path(name);
    QFile file(QString::fromStdString(path));
    EXPECT_TRUE(file.open(QIODevice::WriteOnly));
    EXPECT_EQ(static_cast<qint64>(text.size()), file.write(text.data(), static_cast<qint64>(text.size())));
    return path;
}

std::string StimhostTest::ShutterRig(const std::string& faults) const
{
    return File("rig.json", "{\n"
                            "  \"format\": \"stimulation-rig\",\n"
                            "  \"version\": 1,\n"
                            "  \"name\": \"One shutter\",\n"
                            "  \"shutters\": [\n"
                            "    { \"id\": 1, \"name\": \"Blue\", \"openLatencyMs\": 2, \"closeLatencyMs\": 3" +
                                (faults.empty() ? "" : ", " + faults) +
                                " }\n"
                                "  ],\n"
                                "  \"stimulationShutters\": [ { \"shutter\": 1, \"list\": \"simple\" } ]\n"
                                "}\n");
}

rapidjson::Document ParsedJson(const std::string& text)
{
    rapidjson::Document document;
    document.Parse(text.c_str());
    EXPECT_FALSE(document.HasParseError()) << "at " << document.GetErrorOffset() << " of:\n" << text;
    return document;
}

std::string ReadWhole(const std::string& path)
{
    QFile file(QString::fromStdString(path));
    EXPECT_TRUE(file.open(QIODevice::ReadOnly)) << path;
    return file.readAll().toStdString();
}

std::size_t LineCount(const std::string& text)
{
    return static_cast<std::size_t>(std::count(text.begin(), text.end(), '\n'));
}

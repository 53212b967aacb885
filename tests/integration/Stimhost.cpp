#include "tests/integration/Stimhost.h"

#include "tests/integration/Interruption.h"

#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QProcessEnvironment>

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

QProcessEnvironment Environment(QProcessEnvironment environment, const std::vector<std::string>& settings)
{
    if (environment.isEmpty())
        environment = QProcessEnvironment::systemEnvironment();
    environment.remove("QS_DATABASE");
    for (const std::string& setting : settings)
    {
        const std::size_t equals = setting.find('=');
        environment.insert(QString::fromStdString(setting.substr(0, equals)),
                           QString::fromStdString(setting.substr(equals + 1)));
    }
    return environment;
}

} // namespace

SOutcome RunProgram(const std::string& program, const std::vector<std::string>& arguments,
                    const std::vector<std::string>& environment, const std::function<void(QProcess& process)>& prepare)
{
    NeedApplication();
    QProcess process;
    process.setProcessEnvironment(Environment(process.processEnvironment(), environment));
    if (prepare)
        prepare(process);
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

SOutcome StimhostTest::Stimhost(const std::vector<std::string>& arguments, const std::vector<std::string>& environment)
{
    std::vector<std::string> all = {"--registry", Path("registry")};
    all.insert(all.end(), arguments.begin(), arguments.end());
    return RunProgram(QS_STIMHOST, all, environment);
}

void StimhostTest::Start(QProcess& process, const std::vector<std::string>& arguments,
                         const std::vector<std::string>& environment)
{
    NeedApplication();
    process.setProcessEnvironment(Environment(process.processEnvironment(), environment));
    MakeInterruptible(process);
    process.start(QS_STIMHOST, QStringList{"--registry", QString::fromStdString(Path("registry"))} + Texts(arguments));
    ASSERT_TRUE(process.waitForStarted());
}

std::vector<std::string> StimhostTest::TemporaryFolder(const std::string& name) const
{
    EXPECT_TRUE(QDir().mkdir(QString::fromStdString(Path(name))));
    return {"TMPDIR=" + Path(name), "TMP=" + Path(name), "TEMP=" + Path(name)};
}

bool StimhostTest::IsEmptyFolder(const std::string& name) const
{
    return QDir(QString::fromStdString(Path(name))).isEmpty();
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

std::string StimhostTest::BeampathRig() const
{
    return File("beampaths.json", R"({
    "format": "stimulation-rig", "version": 1, "name": "Beampaths",
    "shutters": [
        { "id": 1, "databaseId": 11, "name": "Blue shutter", "openLatencyMs": 2, "closeLatencyMs": 3 },
        { "id": 2, "databaseId": 12, "name": "Red shutter", "openLatencyMs": 20, "closeLatencyMs": 10 }
    ],
    "stimulationShutters": [ { "shutter": 1 }, { "shutter": 2 } ],
    "logicalDevices": [ { "id": 21, "databaseId": 31 }, { "id": 22, "databaseId": 32 }, { "id": 23, "databaseId": 33 } ],
    "devices": [
        { "class": "CQsSimGenericDevice", "name": "Slow", "settings": { "beginMs": 300, "logicalIds": [21] } },
        { "class": "CQsSimGenericDevice", "name": "Failing", "settings": { "beginStatus": -5, "logicalIds": [22] } },
        { "class": "CQsSimPatternDevice", "name": "Mirrors", "settings": { "logicalIds": [23] } }
    ],
    "deviceDatabase": {
        "users": [ { "id": 1, "name": "one" }, { "id": 2, "name": "two" } ],
        "setups": [ { "id": 1, "name": "setup" } ],
        "hwConfigs": [ { "id": 1, "setup": 1, "name": "first" }, { "id": 2, "setup": 1, "name": "second" } ],
        "beampaths": [
            { "id": 1, "setup": 1, "name": "Both", "userName": "Both shutters", "order": 1, "merged": [11, 12, 14] },
            { "id": 2, "setup": 1, "name": "Late", "order": 2, "merged": [11, 15] },
            { "id": 3, "setup": 1, "name": "Other", "order": 3, "onByDefault": false, "merged": [11, 12] },
            { "id": 4, "setup": 1, "name": "Fails", "order": 4, "merged": [11, 16] },
            { "id": 5, "setup": 1, "name": "Shots", "order": 5 },
            { "id": 11, "setup": 1, "name": "Blue", "type": 1 },
            { "id": 12, "setup": 1, "name": "Red", "userName": "Red light", "type": 1 },
            { "id": 14, "setup": 1, "name": "Bare", "type": 1 },
            { "id": 15, "setup": 1, "name": "Slow path", "type": 1 },
            { "id": 16, "setup": 1, "name": "Failing path", "type": 1 }
        ],
        "hwConfigBeampaths": [
            { "hwConfig": 2, "beampath": 1, "behaviour": 0 }, { "hwConfig": 2, "beampath": 3, "behaviour": 1 }
        ],
        "configurations": [
            { "beampath": 11, "logicalDevice": 11 }, { "beampath": 12, "logicalDevice": 12 },
            { "beampath": 15, "logicalDevice": 31, "type": 8 }, { "beampath": 16, "logicalDevice": 32, "type": 10 },
            { "beampath": 5, "logicalDevice": 33, "type": 2 }
        ]
    }
})");
}

std::string StimhostTest::BeampathDatabase()
{
    const std::string database = "sqlite:" + Path("devices.sqlite");
    const SOutcome imported = Stimhost({"rig", "import", BeampathRig(), "--database", database});
    EXPECT_EQ(0, imported.exitCode) << imported.err;
    return database;
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

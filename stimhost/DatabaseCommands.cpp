// The commands that make, fill and check device databases.

#include "stimhost/Commands.h"
#include "stimhost/Database.h"
#include "stimhost/Text.h"

#include <QFileInfo>

namespace Stimhost {

namespace {

using QsStandalone::SDatabaseContent;
using QsStandalone::SDeviceDatabaseSetup;

int Refuse(const std::string& error)
{
    Complain(error);
    return eExitBadUse;
}

std::string Counted(std::size_t count, const std::string& what)
{
    return std::to_string(count) + " " + what + (count == 1 ? "" : "s");
}

std::string Summary(const SDatabaseContent& content)
{
    return Counted(content.setups.size(), "setup") + ", " +
           Counted(content.hwConfigs.size(), "hardware configuration") + ", " +
           Counted(content.beampaths.size(), "beampath") + ", " + Counted(content.users.size(), "user");
}

// What a command did to a database.
int Done(const SOptions& options, const SDeviceDatabaseSetup& setup, const std::string& text)
{
    const std::string database = QsStandalone::DeviceDatabaseText(setup);
    if (options.json)
    {
        CJson json;
        json.Object().Integer("version", 1).Text("database", database).Text("done", text).EndObject();
        Print(json.Take());
    }
    else
        Print(database + ": " + text + "\n");
    return eExitDone;
}

// The findings about one file or database.
struct SFinding
{
    std::string file;
    std::string name;
    std::string error; // it cannot be read
    std::vector<std::string> contradictions;
    std::string summary;

    bool IsGood() const { return error.empty() && contradictions.empty(); }
};

SFinding CheckRigFile(const std::string& path, QsStandalone::SRig& rig)
{
    SFinding finding{path, {}, {}, {}, {}};
    if (!QsStandalone::ReadRig(path, rig, finding.error))
        return finding;
    finding.name = rig.name;
    finding.summary = "\"" + rig.name + "\", " + std::to_string(rig.shutters.size()) + " shutters, " +
                      std::to_string(rig.devices.size()) + " devices";
    SDatabaseContent content;
    if (rig.hasDatabaseContent && ReadContent(path, content, finding.error))
    {
        finding.contradictions = QsStandalone::CheckDatabaseContent(content, DrivenLogicalDevices(rig));
        finding.summary += ", " + Summary(content);
    }
    return finding;
}

SFinding CheckContentFile(const std::string& path)
{
    SFinding finding{path, {}, {}, {}, {}};
    SDatabaseContent content;
    if (ReadContent(path, content, finding.error))
    {
        finding.contradictions = QsStandalone::CheckDatabaseContent(content, {});
        finding.summary = Summary(content);
    }
    return finding;
}

// What the devices of all rigs drive together; empty, which is "not known", when one of them does not say.
std::vector<std::uint32_t> DrivenLogicalDevices(const std::vector<QsStandalone::SRig>& rigs)
{
    std::vector<std::uint32_t> driven;
    for (const QsStandalone::SRig& rig : rigs)
    {
        const std::vector<std::uint32_t> own = Stimhost::DrivenLogicalDevices(rig);
        if (own.empty())
            return {};
        driven.insert(driven.end(), own.begin(), own.end());
    }
    return driven;
}

// As it is when it runs with these rigs.
SFinding CheckDatabase(const SOptions& options, const std::vector<QsStandalone::SRig>& rigs)
{
    SFinding finding;
    SDeviceDatabaseSetup setup;
    SDatabaseContent content;
    if (!NamedDatabase(options, setup, finding.error))
        return finding;
    finding.file = QsStandalone::DeviceDatabaseText(setup);
    if (QsStandalone::ExportDatabase(setup, content, finding.error))
    {
        for (const QsStandalone::SRig& rig : rigs)
            AddLogicalIds(rig, content);
        finding.contradictions = QsStandalone::CheckDatabaseContent(content, DrivenLogicalDevices(rigs));
        finding.summary = Summary(content);
    }
    return finding;
}

void WriteFinding(CJson& json, const SFinding& finding)
{
    json.Text("file", finding.file).Flag("valid", finding.IsGood()).Text("error", finding.error);
    json.Text("name", finding.name).Array("contradictions");
    for (const std::string& contradiction : finding.contradictions)
        json.Element(contradiction);
    json.EndArray();
}

void Tell(const SOptions& options, const SFinding& finding)
{
    if (!finding.error.empty())
        Complain(finding.error);
    for (const std::string& contradiction : finding.contradictions)
        Complain(finding.file + ": " + contradiction);
    if (finding.IsGood() && !options.json)
        Print(finding.file + ": " + finding.summary + "\n");
}

} // namespace

int RigCheck(const SOptions& options)
{
    if (options.files.empty() && options.database.empty())
        return Refuse("expected files to check, or a device database with --database");
    NeedApplication();
    bool good = true;
    std::vector<QsStandalone::SRig> rigs;
    CJson json;
    json.Object().Integer("version", 1).Array("rigs");
    for (const std::string& path : options.files)
    {
        SFinding finding;
        QsStandalone::SRig rig;
        if (QsStandalone::FormatOfFile(path) == s_contentFormat)
            finding = CheckContentFile(path);
        else
        {
            finding = CheckRigFile(path, rig);
            if (finding.error.empty())
                rigs.push_back(std::move(rig));
        }
        Tell(options, finding);
        good = good && finding.IsGood();
        json.Object();
        WriteFinding(json, finding);
        json.EndObject();
    }
    json.EndArray();
    if (!options.database.empty())
    {
        const SFinding finding = CheckDatabase(options, rigs);
        Tell(options, finding);
        good = good && finding.IsGood();
        json.Object("database");
        WriteFinding(json, finding);
        json.EndObject();
    }
    json.EndObject();
    if (options.json)
        Print(json.Take());
    return good ? eExitDone : eExitBadUse;
}

int RigInit(const SOptions& options)
{
    NeedApplication();
    std::string error;
    SDeviceDatabaseSetup setup;
    if (!NamedDatabase(options, setup, error) || !QsStandalone::CQsDeviceDatabase::Create(setup, error))
        return Refuse(error);
    return Done(options, setup, "made, empty");
}

int RigImport(const SOptions& options)
{
    NeedApplication();
    std::string error;
    SDeviceDatabaseSetup setup;
    SDatabaseContent content;
    if (!NamedDatabase(options, setup, error) || !ReadContent(options.file, content, error))
        return Refuse(error);
    const std::vector<std::string> contradictions = QsStandalone::CheckDatabaseContent(content, {});
    for (const std::string& contradiction : contradictions)
        Complain(options.file + ": " + contradiction);
    if (!contradictions.empty())
        return eExitBadUse;
    // Where there is no schema it is made first; otherwise the first failure is the one that counts.
    std::string ofMaking;
    const bool imported = QsStandalone::ImportDatabase(setup, content, error) ||
                          (QsStandalone::CQsDeviceDatabase::Create(setup, ofMaking) &&
                           QsStandalone::ImportDatabase(setup, content, error));
    if (!imported)
        return Refuse(error);
    return Done(options, setup, Summary(content));
}

int RigExport(const SOptions& options)
{
    NeedApplication();
    std::string error;
    SDeviceDatabaseSetup setup;
    SDatabaseContent content;
    if (!NamedDatabase(options, setup, error) || !QsStandalone::ExportDatabase(setup, content, error))
        return Refuse(error);
    const std::string text = QsStandalone::DatabaseContentJson(content);
    if (options.file.empty())
    {
        Print(text);
        return eExitDone;
    }
    // A rig holds more than an export, and any other file is somebody's work.
    const QFileInfo file(QString::fromStdString(options.file));
    if (file.isFile() && file.size() > 0 && QsStandalone::FormatOfFile(options.file) != s_contentFormat)
        return Refuse(options.file + ": expected a new file or an earlier export, found another file; it is unchanged");
    if (!WriteWholeFile(options.file, text, error))
        return Refuse(error);
    return Done(options, setup, Summary(content) + ", written to " + options.file);
}

} // namespace Stimhost

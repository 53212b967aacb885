#include "stimhost/Database.h"

#include "host/QsDevice.h"
#include "host/QsPluginManager.h"
#include "standalone/DiagnosticLog.h"
#include "stimhost/Bounded.h"
#include "stimhost/Temporary.h"
#include "stimhost/Text.h"

#include <QCoreApplication>

#include <rapidjson/document.h>

#include <algorithm>

namespace Stimhost {

using QsStandalone::CQsDeviceDatabase;
using QsStandalone::CQsDiagnosticLog;
using QsStandalone::SDatabaseContent;
using QsStandalone::SDeviceDatabaseSetup;
using QsStandalone::SRig;

namespace {

// Saving needs a statement or two; a server that has gone is given up by then.
constexpr double s_longestSavingMs = 20000.0;

bool s_private = false;

void AddLogicalId(SDatabaseContent& content, int databaseId, std::uint32_t logDevId)
{
    const bool known = std::any_of(content.logicalIds.begin(), content.logicalIds.end(),
                                   [&](const SDatabaseContent::SLogicalId& other)
                                   { return other.databaseId == databaseId && other.logDevId == logDevId; });
    if (databaseId != 0 && !known)
        content.logicalIds.push_back({databaseId, logDevId});
}

bool ChooseIds(const SOptions& options, std::string& error)
{
    return (!options.setup || CQsDeviceDatabase::SetCurrentSetup(*options.setup, error)) &&
           (!options.hwConfig || CQsDeviceDatabase::SetCurrentHWConfig(*options.hwConfig, error)) &&
           (!options.user || CQsDeviceDatabase::SetCurrentUser(*options.user, error));
}

bool OpenPrivate(const SRig& rig, std::string& error)
{
    SDatabaseContent content;
    if (!ReadContent(rig.path, content, error))
        return false;
    const std::vector<std::string> contradictions =
        QsStandalone::CheckDatabaseContent(content, DrivenLogicalDevices(rig));
    if (!contradictions.empty())
    {
        error = rig.path + ": " + contradictions.front();
        if (contradictions.size() > 1)
            error += " (and " + std::to_string(contradictions.size() - 1) + " more: stimhost rig check)";
        return false;
    }
    SDeviceDatabaseSetup setup;
    setup.file = TemporaryPath("devices.sqlite", error);
    if (setup.file.empty())
        return false;
    s_private = true;
    return CQsDeviceDatabase::Create(setup, error) && QsStandalone::ImportDatabase(setup, content, error) &&
           CQsDeviceDatabase::Open(setup, error);
}

} // namespace

// It is never destroyed: threads of the pool may give their connections back until the process is gone.
void NeedApplication()
{
    static int count = 1;
    static char name[] = "stimhost";
    static char* arguments[] = {name, nullptr};
    if (QCoreApplication::instance() == nullptr)
    {
        static const QCoreApplication* const application = new QCoreApplication(count, arguments);
        static_cast<void>(application);
    }
}

bool ReadContent(const std::string& path, SDatabaseContent& content, std::string& error)
{
    SDatabaseContent read;
    if (QsStandalone::FormatOfFile(path) == s_rigFormat)
    {
        SRig rig;
        if (!QsStandalone::ReadRig(path, rig, error))
            return false;
        if (!QsStandalone::ReadDatabaseContent(path, read, error))
            return false;
        AddLogicalIds(rig, read);
    }
    else if (!QsStandalone::ReadDatabaseContent(path, read, error))
        return false;
    content = std::move(read);
    return true;
}

void AddLogicalIds(const SRig& rig, SDatabaseContent& content)
{
    for (const QsStandalone::SShutterSetup& shutter : rig.shutters)
        AddLogicalId(content, shutter.databaseId, shutter.logDevId);
    for (const QsStandalone::SLogicalDevice& device : rig.logicalDevices)
        AddLogicalId(content, device.databaseId, device.logDevId);
}

std::vector<std::uint32_t> DrivenLogicalDevices(const SRig& rig)
{
    std::vector<std::uint32_t> driven;
    for (const SRig::SStimulationShutter& shutter : rig.stimulationShutters)
        driven.push_back(shutter.logDevId);
    for (const QsStandalone::SRigDevice& device : rig.devices)
    {
        rapidjson::Document settings;
        settings.Parse(device.settings.c_str());
        const bool says = !settings.HasParseError() && settings.IsObject() && settings.HasMember("logicalIds") &&
                          settings["logicalIds"].IsArray();
        if (!says)
            return {};
        for (const rapidjson::Value& id : settings["logicalIds"].GetArray())
            if (id.IsUint())
                driven.push_back(id.GetUint());
    }
    return driven;
}

bool NamedDatabase(const SOptions& options, SDeviceDatabaseSetup& setup, std::string& error)
{
    if (!options.database.empty())
        return QsStandalone::ParseDeviceDatabase(options.database, setup, error);
    error = "expected a device database: --database sqlite:FILE or --database postgresql://...";
    return false;
}

bool OpenDatabase(const SOptions& options, const SRig& rig, std::string& error)
{
    const bool named = !options.database.empty();
    if (!named && !rig.hasDatabaseContent)
    {
        if (!options.setup && !options.hwConfig && !options.user)
            return true;
        error = "--setup, --hw-config and --user choose in a device database; name one with --database";
        return false;
    }
    NeedApplication();
    SDeviceDatabaseSetup setup;
    const bool opened =
        named ? NamedDatabase(options, setup, error) && CQsDeviceDatabase::Open(setup, error) : OpenPrivate(rig, error);
    return opened && ChooseIds(options, error);
}

bool DatabaseIsPrivate()
{
    return s_private;
}

void CloseDatabase()
{
    if (!CQsDeviceDatabase::IsOpen())
        return;
    CQsDiagnosticLog::ToMemory(true);
    const bool told =
        RunBounded(s_longestSavingMs,
                   [] { CQsPluginManager::AppRntm_HandleEvent(L"QS_MODULEEVENT_APP_BEFORESHUTDOWN", 0, 0, nullptr); });
    for (const QsStandalone::SLogLine& line : CQsDiagnosticLog::MemoryLines())
        if (line.unit == L"DeviceDB")
        {
            Complain("not saved: " + ToUtf8(line.text));
            break; // one line for a database that fails, however many beampaths save to it
        }
    CQsDiagnosticLog::ToMemory(false);
    if (!told)
        Complain("the device database does not answer; what the devices would save at the end is lost");
    if (!ThreadsAreLeftBehind())
        CQsDeviceDatabase::Close();
}

bool DatabaseContent(SDatabaseContent& content, std::string& error)
{
    return QsStandalone::ExportDatabase(CQsDeviceDatabase::Setup(), content, error);
}

} // namespace Stimhost

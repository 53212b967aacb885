#include "stimhost/Session.h"

#include "manager/StimulationManager.h"
#include "platform/RegistryControl.h"
#include "platform/ThreadSafety.h"
#include "standalone/DeviceDatabase.h"
#include "standalone/DeviceManager.h"
#include "standalone/DiagnosticLog.h"
#include "standalone/HostControl.h"
#include "standalone/Journal.h"
#include "standalone/PluginManager.h"
#include "stimhost/Bounded.h"
#include "stimhost/CameraOptions.h"
#include "stimhost/Database.h"
#include "stimhost/Folders.h"
#include "stimhost/ShutterAttachment.h"
#include "stimhost/Text.h"

#include <rapidjson/document.h>
#include <rapidjson/writer.h>

#include <algorithm>
#include <exception>
#include <filesystem>
#include <functional>

namespace Stimhost {

using QsStandalone::CQsDeviceDatabase;
using QsStandalone::CQsDeviceManager;
using QsStandalone::CQsDiagnosticLog;
using QsStandalone::CQsModules;
using QsStandalone::SRigDevice;

namespace {

constexpr const char* notConnected = R"({"connected": false})";

// Where no rig is named, commands about beampaths need one with a device database, and those about calibrations one
// with a camera.
std::string DefaultRig(const SOptions& options)
{
    const std::string& command = options.command;
    const bool needsDatabase = command == "demo" || command == "beampaths" || command.compare(0, 3, "oc ") == 0 ||
                               command.compare(0, 7, "groups ") == 0 || options.oc || !options.database.empty();
    const bool needsCamera =
        command.compare(0, 8, "calibrat") == 0 || command.compare(0, 4, "map ") == 0 || !options.roi.empty();
    return RigOfProgram(needsCamera ? "optics.json" : needsDatabase ? "beampaths.json" : "demo.json");
}

CQsMutex s_devicesLock;
// Every device that the session made, with a reference of ours: which the manager lists at the moment may be changing
// when all of them have to be put out. Never released.
std::vector<IQsStimulationDevice*> s_devices QS_GUARDED_BY(s_devicesLock);

void KeepForTheEnd(IQsStimulationDevice& device)
{
    CQsRTTI::AddRef(&device);
    const CQsScopedLock<CQsMutex> hold(s_devicesLock);
    s_devices.push_back(&device);
}

bool Fail(std::string& error, const std::string& text)
{
    error = text;
    return false;
}

// Settings of a device or a camera, with the name that the rig gives it.
std::string WithName(const std::string& text, const std::string& name)
{
    rapidjson::Document settings;
    settings.Parse(text.c_str());
    if (settings.HasParseError() || !settings.IsObject())
        settings.SetObject();
    if (!name.empty())
    {
        settings.RemoveMember("name");
        settings.AddMember("name", rapidjson::Value(name.c_str(), settings.GetAllocator()), settings.GetAllocator());
    }
    rapidjson::StringBuffer written;
    rapidjson::Writer<rapidjson::StringBuffer> writer(written);
    settings.Accept(writer);
    return written.GetString();
}

std::string SettingsOf(const SRigDevice& device)
{
    return WithName(device.settings, device.name);
}

bool UseRegistry(const std::string& folder, std::string& error)
{
    try
    {
        QsPlatform::UseOwnRegistry(folder);
        return true;
    }
    catch (const std::exception& e)
    {
        return Fail(error, folder + ": " + e.what());
    }
}

bool UseSettingsFolder(const std::string& folder, std::string& error)
{
    std::error_code failure;
    const std::filesystem::path path = std::filesystem::u8path(folder);
    std::filesystem::create_directories(path, failure);
    if (!std::filesystem::is_directory(path, failure))
        return Fail(error, folder + ": expected a folder of settings, found none and cannot make one");
    QsStandalone::SetSettingsFolder(folder);
    return true;
}

} // namespace

bool CSession::Open(const SOptions& options, bool withRig, std::string& error)
{
    if (!OpenLog(options, error))
        return false;
    if (!options.registryFolder.empty() && !UseRegistry(options.registryFolder, error))
        return false;
    if (!options.settingsFolder.empty() && !UseSettingsFolder(options.settingsFolder, error))
        return false;
    if (!withRig)
        return true;

    const std::string path = options.rig.empty() ? DefaultRig(options) : options.rig;
    if (path.empty())
    {
        error = "the rig of the program is not installed; name one with --rig FILE";
        return false;
    }
    if (!QsStandalone::ReadRig(path, m_rig, error) || !ScanModules(options, error) || !AddHostDevices(error))
        return false;
    if (!m_rig.translations.empty() && !QsStandalone::LoadTranslations(m_rig.translations, error))
        return false;
    // Before the devices, which look at both.
    QsStandalone::SetHardware(HardwareOf(m_rig.hardware, options));
    if (!AddCameras(options, error))
        return false;
    // After the host's devices, whose database ids it must not contradict.
    if (!OpenDatabase(options, m_rig, error) || !AnnounceStaticDevices(error))
        return false;
    m_manager = CQsStimulationDeviceManager::GetInstance();
    if (!AddShutters(error) || !AddDevices(error))
        return false;
    m_manager->Update(); // a rig without devices is no error
    return CheckSettings(error);
}

bool CSession::OpenLog(const SOptions& options, std::string& error)
{
    using QsStandalone::ELogLevel;
    CQsDiagnosticLog::SetLevel(options.logLevel == "detailed" ? ELogLevel::Detailed : ELogLevel::Normal);
    // Off means that nobody reads it; what a beampath's devices complain of is only logged, and reports need that.
    if (options.logLevel == "off")
        return true;
    CQsDiagnosticLog::ToStderr(options.verbose);
    constexpr std::uint64_t longest = 4u << 20;
    return options.logFile.empty() || CQsDiagnosticLog::ToFile(options.logFile, longest, 4, error);
}

bool CSession::ScanModules(const SOptions& options, std::string& error)
{
    const std::string own = PluginFolder();
    if (!own.empty() && !ScanFolder(own, "the program", error))
        return false;
    for (const std::string& folder : m_rig.moduleFolders)
        if (!ScanFolder(folder, m_rig.path, error))
            return false;
    for (const std::string& folder : options.moduleFolders)
        if (!ScanFolder(folder, "--modules", error))
            return false;
    return true;
}

bool CSession::ScanFolder(const std::string& folder, const std::string& named, std::string& error)
{
    std::error_code ignored;
    if (!std::filesystem::is_directory(std::filesystem::u8path(folder), ignored))
    {
        error = named + ": expected a folder of modules, found none at " + folder;
        return false;
    }
    for (const QsStandalone::SModuleFile& file : CQsModules::ScanFolder(folder))
        if (!file.error.empty())
            Complain("skipped: " + file.error);
    return true;
}

bool CSession::AddHostDevices(std::string& error)
{
    for (const QsStandalone::SShutterSetup& shutter : m_rig.shutters)
        if (!CQsDeviceManager::AddShutter(shutter, error))
            return Fail(error, m_rig.path + ": " + error);
    for (const QsStandalone::SLogicalDevice& device : m_rig.logicalDevices)
        if (!CQsDeviceManager::AddLogicalDevice(device, error))
            return Fail(error, m_rig.path + ": " + error);
    return true;
}

bool CSession::AddCameras(const SOptions& options, std::string& error)
{
    bool isFirst = true;
    for (const QsStandalone::SRigCamera& setup : m_rig.cameras)
    {
        QsStandalone::SetDeviceSettings(setup.className, WithName(setup.settings, setup.name));
        IQsInterface* const object =
            CQsRTTI::CreateAndQuery(setup.className.c_str(), "IQsGrabberCamera", "no file", -1);
        auto* const camera = dynamic_cast<IQsGrabberCamera*>(object);
        std::string fault;
        if (camera == nullptr)
            fault = "a camera of class \"" + setup.className +
                    "\" cannot be created; expected a class of a module that was found";
        else if (!CheckSettings(error))
            fault = error;
        else if (!QsStandalone::AddCamera(camera))
            fault = "expected a camera name of its own, found \"" + ToUtf8(camera->GetName()) + "\" a second time";
        else if (isFirst)
            SetCameraState(*camera, options, fault);
        CQsRTTI::Release(object);
        if (!fault.empty())
            return Fail(error, fault == error ? fault : m_rig.path + ": " + fault);
        isFirst = false;
    }
    const bool changesCamera =
        options.cameraRotation || options.cameraFlip || options.cameraBinning || !options.cameraRegion.empty();
    return !isFirst || !changesCamera || Fail(error, m_rig.path + ": expected a camera to change, found none");
}

// The manager makes a static device from its class, and only while the class's module is loaded: so the modules of the
// rig's static devices are loaded before there is a manager.
bool CSession::AnnounceStaticDevices(std::string& error)
{
    // Of the classes that the rig does not list as static there is no hardware; without this the manager would offer a
    // device of every class whose module some other device has loaded.
    for (const QsStandalone::SKnownClass& known : QsStandalone::KnownClasses())
        QsStandalone::SetDeviceSettings(known.className, notConnected);
    for (const SRigDevice& device : m_rig.devices)
    {
        if (device.list != "static")
            continue;
        if (CQsDeviceDatabase::IsOpen())
        {
            Complain("not used: " + m_rig.path + ": device class \"" + device.className +
                     "\": with a device database there are no static devices, list it as simple or special");
            continue;
        }
        QsStandalone::SetDeviceSettings(device.className, SettingsOf(device));
        if (!CQsModules::LoadModuleOfClass(device.className, error))
            return Fail(error, m_rig.path + ": device class \"" + device.className + "\": " + error);
    }
    return true;
}

bool CSession::AddShutters(std::string& error)
{
    for (const QsStandalone::SRig::SStimulationShutter& shutter : m_rig.stimulationShutters)
    {
        if (shutter.list == "list" && CQsDeviceDatabase::IsOpen())
        {
            Complain("not used: " + m_rig.path + ": shutter " + std::to_string(shutter.logDevId) +
                     ": with a device database there is no list of shutters, list it as simple");
            continue;
        }
        int status = QS_ERR_FAIL;
        IQsStimulationDevice* device = AttachNewShutter(shutter.logDevId, status);
        if (device == nullptr || status != QS_OK)
        {
            return Fail(error, m_rig.path + ": shutter " + std::to_string(shutter.logDevId) +
                                   " cannot become a stimulation device, status " + std::to_string(status));
        }
        KeepForTheEnd(*device);
        if (shutter.list == "list")
        {
            m_manager->UnregisterSimpleStimulationDevice(device); // attaching has registered it
            m_manager->ShuttersAdd(device);                       // takes over our reference
        }
        else
            CQsRTTI::Release(device);
    }
    return true;
}

bool CSession::AddDevices(std::string& error)
{
    for (const SRigDevice& setup : m_rig.devices)
    {
        if (setup.list == "static")
            continue;
        const std::string ofStatic = QsStandalone::GetDeviceSettings(setup.className);
        QsStandalone::SetDeviceSettings(setup.className, SettingsOf(setup));
        IQsInterface* object = CQsRTTI::CreateAndQuery(setup.className.c_str(), "IQsStimulationDevice", "no file", -1);
        QsStandalone::SetDeviceSettings(setup.className, ofStatic);
        auto* device = dynamic_cast<IQsStimulationDevice*>(object);
        if (device == nullptr)
        {
            CQsRTTI::Release(object);
            error = m_rig.path + ": a device of class \"" + setup.className +
                    "\" cannot be created; expected a class of a module that was found";
            return false;
        }
        if (!CheckSettings(error))
        {
            CQsRTTI::Release(device);
            return false;
        }
        KeepForTheEnd(*device);
        if (setup.list == "special")
            m_manager->SpecialDevicesAdd(device); // these two take over our reference
        else if (setup.list == "option")
            m_manager->OptConfDevicesAdd(device);
        else
        {
            m_manager->RegisterSimpleStimulationDevice(device);
            CQsRTTI::Release(device);
        }
    }
    return true;
}

// The devices that were made since the last time have found their settings right.
bool CSession::CheckSettings(std::string& error) const
{
    const std::vector<std::string> faults = QsStandalone::TakeSettingsFaults();
    return faults.empty() || Fail(error, m_rig.path + ": settings of a device of class " + faults.front());
}

std::vector<std::string> LeaveNoLight()
{
    std::vector<std::string> lit = QsStandalone::CQsJournal::LitDevices();
    CQsDeviceManager::ReleaseHangs();
    for (const std::string& open : CQsDeviceManager::CloseAllShutters())
        if (std::find(lit.begin(), lit.end(), open) == lit.end())
            lit.push_back(open);
    // Whatever the journal says: it knows the lights of simulated devices only. Each device is told on a thread of its
    // own, so that one which hangs does not keep the others lit; handing in no device waits for the worker of a
    // stimulation that still runs.
    std::vector<std::function<void()>> calls;
    {
        const CQsScopedLock<CQsMutex> hold(s_devicesLock);
        for (IQsStimulationDevice* const device : s_devices)
            calls.push_back([device] { Ask([device] { return device->StimulationAbort(); }); });
    }
    if (CQsStimulationDeviceManager* manager = CQsStimulationDeviceManager::InstanceIfExists())
    {
        // A beampath wakes the paths without a device, too, and holds back what has not begun.
        calls.push_back([manager] { Ask([manager] { return manager->StimulationAbort(); }); });
        calls.push_back(
            [manager]
            {
                if (IQsStimulationDevice* device = manager->GetActive())
                    Ask([device] { return device->StimulationAbort(); });
                manager->SpecialDevicesAdd(nullptr);
            });
    }
    RunAllBounded(1000.0, calls);
    return lit;
}

} // namespace Stimhost

// Commands that show and choose: list, activate, script, registry, rig.

#include "device/ChipTransformations.h"
#include "manager/StimulationManager.h"
#include "platform/RegistryControl.h"
#include "platform/Utf16.h"
#include "standalone/HostControl.h"
#include "standalone/Rig.h"
#include "standalone/Script.h"
#include "stimhost/CalibratedDevice.h"
#include "stimhost/Commands.h"
#include "stimhost/Session.h"
#include "stimhost/Text.h"

#include <algorithm>
#include <filesystem>
#include <map>

namespace Stimhost {

namespace {

using SInfo = CQsStimulationDeviceManager::SQsInfo;
using QsPlatform::SRegistryValue;

constexpr wchar_t shownKey[] = L"Software\\Corvane"; // where the module and its host keep what is theirs
constexpr wchar_t managerKey[] = L"Software\\Corvane\\Misc\\StimulationDeviceManager";

std::vector<SInfo> Devices(CQsStimulationDeviceManager& manager)
{
    std::vector<SInfo> devices;
    SInfo info;
    for (unsigned i = 0; manager.GetDeviceInfo(i, info) == QS_OK; ++i)
        devices.push_back(info);
    return devices;
}

// REG_SZ as UTF-8, without its terminator.
std::string RegistryText(const SRegistryValue& value)
{
    std::u16string units;
    for (std::size_t i = 0; i + 1 < value.data.size(); i += 2)
        units += static_cast<char16_t>(value.data[i] | value.data[i + 1] << 8);
    while (!units.empty() && units.back() == u'\0')
        units.pop_back();
    return ToUtf8(CQsStringW(QsFromUtf16(units.data(), units.size())));
}

std::string RegistryHex(const SRegistryValue& value)
{
    constexpr char digits[] = "0123456789abcdef";
    std::string text;
    for (const unsigned char byte : value.data)
        text += {digits[byte >> 4], digits[byte & 15]};
    return text;
}

bool IsNumber(const SRegistryValue& value)
{
    return value.type == REG_DWORD && value.data.size() == 4;
}

std::uint32_t RegistryNumber(const SRegistryValue& value)
{
    std::uint32_t number = 0;
    for (std::size_t i = 0; i < 4; ++i)
        number |= static_cast<std::uint32_t>(value.data[i]) << (8 * i);
    return number;
}

const char* RegistryType(DWORD type)
{
    switch (type)
    {
    case REG_SZ:
        return "text";
    case REG_DWORD:
        return "number";
    case REG_BINARY:
        return "binary";
    default:
        return "other";
    }
}

std::string RegistryShown(const SRegistryValue& value)
{
    return value.type == REG_SZ ? RegistryText(value)
           : IsNumber(value)    ? std::to_string(RegistryNumber(value))
                                : RegistryHex(value);
}

// The manager stores the recently used devices as the user's values "Device-0" to "Device-9".
bool StoredRecentlyUsed(std::vector<std::string>& names, std::string& error)
{
    std::vector<SRegistryValue> values;
    if (!QsPlatform::ListRegistry(HKEY_CURRENT_USER, managerKey, values, error))
        return false;
    for (int i = 0; i < 10; ++i)
        for (const SRegistryValue& value : values)
            if (value.type == REG_SZ && value.name == "Device-" + std::to_string(i))
                names.push_back(RegistryText(value));
    return true;
}

// The manager does not say whether it could save, so what is stored is read back. `latest` is the device that must come
// first; empty when the order is the one that was stored before.
bool SaveRecentlyUsed(CQsStimulationDeviceManager& manager, const std::string& latest)
{
    manager.Save();
    std::vector<std::string> stored;
    std::string error;
    if (!StoredRecentlyUsed(stored, error))
        Complain(error);
    else if (stored.empty() || (!latest.empty() && stored.front() != latest))
        Complain(QsPlatform::RegistryPlace(HKEY_CURRENT_USER) + ": the recently used devices cannot be saved");
    else
        return true;
    return false;
}

// What the camera tells of itself; none when it tells nothing.
std::optional<bool> IsConfocal(const CQsStringW& name)
{
    const std::unique_ptr<IQsGrabberCamera, SReleaser> camera(CQsGrabberManager::FindCamera(name));
    auto* const provider = dynamic_cast<IQsGenericProvider*>(camera.get());
    if (provider == nullptr)
        return std::nullopt;
    CQsGenericProviderGrabber grabber;
    grabber.AddProvider(provider);
    return IQsStimulationDevice::SQsTransformationHelper::IsConfocal(&grabber);
}

std::string ListJson(const std::vector<SInfo>& devices, const std::vector<std::string>& recent,
                     const CQsStimulationDeviceManager& manager, const QsStandalone::SRig& rig)
{
    CJson json;
    json.Object().Integer("version", 1);
    json.Object("rig").Text("name", rig.name).Text("file", rig.path).EndObject();
    json.Array("classes");
    for (const QsStandalone::SKnownClass& known : QsStandalone::KnownClasses())
        json.Object()
            .Text("class", known.className)
            .Text("friendlyName", known.friendlyName)
            .Text("module", known.module)
            .Flag("loaded", known.moduleLoaded)
            .EndObject();
    json.EndArray().Array("devices");
    for (const SInfo& device : devices)
        json.Object()
            .Text("name", ToUtf8(device.sName))
            .Text("displayName", ToUtf8(device.sDisplayName))
            .Flag("active", device.bActive)
            .Flag("visible", device.bVisible)
            .EndObject();
    json.EndArray().Array("cameras");
    for (const CQsStringW& name : CQsGrabberManager::CameraNames())
    {
        json.Object().Text("name", ToUtf8(name));
        if (const std::optional<bool> confocal = IsConfocal(name))
            json.Flag("confocal", *confocal);
        else
            json.Null("confocal");
        json.EndObject();
    }
    json.EndArray().Array("recentlyUsed");
    for (const std::string& name : recent)
        json.Element(name);
    json.EndArray().Object("options");
    json.Flag("autoActivateV4Behaviour", manager.GetAutoActivateV4Behaviour());
    json.Flag("doNotUseVDMStyle", manager.GetDoNotUseVDMStyle());
    json.EndObject().EndObject();
    return json.Take();
}

} // namespace

std::string ListText(CQsStimulationDeviceManager& manager)
{
    std::string text = "Classes\n";
    for (const QsStandalone::SKnownClass& known : QsStandalone::KnownClasses())
        text += "  " + Padded(known.className, 36) + "  " + (known.moduleLoaded ? "loaded  " : "known   ") +
                Padded(known.friendlyName, 40) + "  " + std::filesystem::u8path(known.module).filename().u8string() + "\n";
    text += "Devices\n";
    for (const SInfo& device : Devices(manager))
        text += std::string("  ") + (device.bActive ? "* " : "  ") + Padded(ToUtf8(device.sName), 32) + "  " +
                Padded(ToUtf8(device.sDisplayName), 32) + (device.bVisible ? "" : "  hidden") + "\n";
    const std::vector<CQsStringW> cameras = CQsGrabberManager::CameraNames();
    text += cameras.empty() ? "" : "Cameras\n";
    for (const CQsStringW& name : cameras)
    {
        const std::optional<bool> confocal = IsConfocal(name);
        text += "    " + Padded(ToUtf8(name), 32) + "  " +
                (!confocal   ? "does not say whether it is a confocal scanner"
                 : *confocal ? "confocal scanner"
                             : "camera") +
                "\n";
    }
    return text;
}

int List(const SOptions& options, CSession& session)
{
    std::string error;
    std::vector<std::string> recent;
    if (!StoredRecentlyUsed(recent, error))
    {
        Complain(error);
        return eExitBadUse;
    }
    CQsStimulationDeviceManager& manager = *session.Manager();
    if (options.json)
    {
        Print(ListJson(Devices(manager), recent, manager, session.Rig()));
        return eExitDone;
    }
    std::string text = ListText(manager) + "Recently used\n";
    for (std::size_t i = 0; i < recent.size(); ++i)
        text += "  " + std::to_string(i) + "  " + recent[i] + "\n";
    text += "Options\n";
    text += std::string("  activate the point scanner with its grabber: ") +
            (manager.GetAutoActivateV4Behaviour() ? "yes" : "no") + "\n";
    text += std::string("  do not use the display's style:              ") +
            (manager.GetDoNotUseVDMStyle() ? "yes" : "no") + "\n";
    Print(text);
    return eExitDone;
}

bool ActivateByName(CQsStimulationDeviceManager& manager, const std::string& name)
{
    const CQsStringW wide = FromUtf8(name);
    if (manager.GetDevice(wide.c_str()) == nullptr)
    {
        std::string known;
        for (const SInfo& device : Devices(manager))
            known += (known.empty() ? "" : ", ") + ToUtf8(device.sName);
        Complain("no device is named \"" + name + "\"; expected one of: " + known);
        return false;
    }
    const int status = manager.SetActive(wide.c_str(), false);
    if (status != QS_OK)
        Complain(name + " cannot be activated, status " + std::to_string(status));
    return status == QS_OK;
}

int Activate(const SOptions& options, CSession& session)
{
    CQsStimulationDeviceManager& manager = *session.Manager();
    int status = QS_OK;
    SInfo before;
    manager.GetActive(before);
    if (options.name)
    {
        if (!ActivateByName(manager, *options.name))
            return eExitBadUse;
    }
    else if (options.mruIndex)
        status = manager.SetActiveMru(*options.mruIndex);
    else
        status = manager.SetActiveV4(options.confocal == "on");

    SInfo active;
    manager.GetActive(active);
    const std::string name = ToUtf8(active.sName);
    if (status == QS_OK && options.save)
    {
        // Only a device that is chosen by name becomes the latest, and only when it was not active before.
        const bool isLatest = options.name && active.sName != before.sName;
        if (!SaveRecentlyUsed(manager, isLatest ? name : std::string()))
            return eExitBadUse;
    }
    if (options.json)
    {
        CJson json;
        json.Object().Integer("version", 1).Integer("status", status).Text("active", name).EndObject();
        Print(json.Take());
    }
    else if (status == QS_OK)
        Print("active: " + name + "\n");
    if (status == QS_OK)
        return eExitDone;
    Complain("no device could be activated, status " + std::to_string(status));
    return eExitFailed;
}

int ScriptList(const SOptions& options)
{
    CJson json;
    std::string text;
    json.Object().Integer("version", 1).Array("procedures");
    for (const QsStandalone::SScriptProcedure& procedure : QsStandalone::CQsScriptHost::Procedures())
    {
        json.Object().Text("name", procedure.name).Text("group", procedure.group).Array("parameters");
        text += procedure.name + "  (" + procedure.group + ")\n";
        for (const QsStandalone::SScriptParameter& parameter : procedure.parameters)
        {
            const bool flag = parameter.kind != 1;
            json.Object().Text("name", parameter.name).Text("kind", flag ? "flag" : "text");
            json.Text("default", parameter.defaultValue).EndObject();
            text += "  " + Padded(parameter.name, 28) + (flag ? "flag" : "text") + ", default \"" +
                    parameter.defaultValue + "\"\n";
        }
        json.EndArray().EndObject();
    }
    json.EndArray().EndObject();
    Print(options.json ? json.Take() : text);
    return eExitDone;
}

int ScriptCall(const SOptions& options)
{
    std::map<std::string, std::string> parameters;
    for (const std::string& text : options.parameters)
    {
        const std::size_t equals = text.find('=');
        if (equals == std::string::npos || equals == 0)
        {
            Complain("--param \"" + text + "\": expected NAME=VALUE");
            return eExitBadUse;
        }
        parameters[text.substr(0, equals)] = text.substr(equals + 1);
    }
    int result = 0;
    std::string error;
    if (!QsStandalone::CQsScriptHost::Call(options.procedure, options.device.value_or(""), parameters, result, error))
    {
        Complain(error);
        return eExitBadUse;
    }
    if (options.json)
    {
        CJson json;
        json.Object().Integer("version", 1).Text("procedure", options.procedure).Integer("result", result).EndObject();
        Print(json.Take());
    }
    else
        Print(options.procedure + ": " + std::to_string(result) + "\n");
    if (result != QS_OK)
        Complain(options.procedure + " failed, status " + std::to_string(result));
    return result == QS_OK ? eExitDone : eExitFailed;
}

int RegistryShow(const SOptions& options)
{
    const HKEY root = options.machine ? HKEY_LOCAL_MACHINE : HKEY_CURRENT_USER;
    std::vector<SRegistryValue> values;
    std::string error;
    if (!QsPlatform::ListRegistry(root, shownKey, values, error))
    {
        Complain(error);
        return eExitBadUse;
    }
    CJson json;
    std::string text = QsPlatform::RegistryPlace(root) + "\n";
    json.Object().Integer("version", 1).Text("file", QsPlatform::RegistryPlace(root)).Array("values");
    for (const SRegistryValue& value : values)
    {
        json.Object().Text("key", value.key).Text("name", value.name).Text("type", RegistryType(value.type));
        if (IsNumber(value))
            json.Integer("value", RegistryNumber(value));
        else
            json.Text("value", RegistryShown(value));
        json.EndObject();
        text += "  " + value.key + "\\" + value.name + " = " + RegistryShown(value) + "  (" + RegistryType(value.type) +
                ")\n";
    }
    json.EndArray().EndObject();
    Print(options.json ? json.Take() : text);
    return eExitDone;
}

} // namespace Stimhost

#include "standalone/Rig.h"

#include "standalone/RigObject.h"
#include "standalone/RigSchema.h"

#include <filesystem>
#include <map>
#include <set>

namespace QsStandalone {

namespace {

namespace fs = std::filesystem;

// The values of one kind that must not occur twice, with the line of the first.
template <class T>
class CUnique
{
public:
    explicit CUnique(std::string what) : m_what(std::move(what)) {}

    bool Enter(const T& value, const std::string& shown, unsigned line, SJsonFault& fault)
    {
        const auto [place, isNew] = m_lines.emplace(value, line);
        if (!isNew)
            fault = {line, "expected " + m_what + " of its own, found " + shown + " as in line " +
                               std::to_string(place->second)};
        return isNew;
    }
    bool Has(const T& value) const { return m_lines.count(value) != 0; }

private:
    std::string m_what;
    std::map<T, unsigned> m_lines;
};

class CRigReader
{
public:
    CRigReader(const SJsonValue& root, const std::string& path)
        : m_root(root, s_rigRoot), m_folder(fs::absolute(fs::u8path(path)).parent_path())
    {}

    bool Read(SRig& rig, SJsonFault& fault)
    {
        rig.name = m_root.Text("name");
        for (const SJsonValue& folder : m_root.List("moduleFolders"))
            rig.moduleFolders.push_back(Absolute(folder.text));
        const std::string translations = m_root.Text("translations");
        if (!translations.empty())
            rig.translations = Absolute(translations);
        rig.hasDatabaseContent = m_root.Find("deviceDatabase") != nullptr;
        return ReadShutters(rig, fault) && ReadStimulationShutters(rig, fault) && ReadLogicalDevices(rig, fault) &&
               ReadDevices(rig, fault) && ReadCameras(rig, fault) && ReadMicroscope(rig, fault);
    }

private:
    std::string Absolute(const std::string& path) const
    {
        return (m_folder / fs::u8path(path)).lexically_normal().generic_u8string();
    }

    bool EnterIds(const CRigObject& object, SJsonFault& fault)
    {
        const std::uint32_t id = object.Whole("id");
        const std::uint32_t databaseId = object.Whole("databaseId");
        return m_ids.Enter(id, std::to_string(id), object.LineOf("id"), fault) &&
               (databaseId == 0 ||
                m_databaseIds.Enter(databaseId, std::to_string(databaseId), object.LineOf("databaseId"), fault));
    }

    bool ReadShutters(SRig& rig, SJsonFault& fault)
    {
        CUnique<std::string> names("a shutter name");
        for (const SJsonValue& value : m_root.List("shutters"))
        {
            const CRigObject object(value, "shutter");
            SShutterSetup shutter;
            shutter.logDevId = object.Whole("id");
            shutter.physDevId = object.Whole("physicalId");
            shutter.databaseId = static_cast<int>(object.Whole("databaseId"));
            shutter.name = object.Text("name");
            shutter.connected = object.Flag("connected");
            shutter.lightOnWhenOpen = object.Flag("light");
            shutter.openLatencyMs = object.Number("openLatencyMs");
            shutter.closeLatencyMs = object.Number("closeLatencyMs");
            shutter.jitterMs = object.Number("jitterMs");
            shutter.jitterSeed = object.Whole("jitterSeed");
            if (!EnterIds(object, fault) ||
                !names.Enter(shutter.name, QuoteForMessage(shutter.name), object.LineOf("name"), fault) ||
                !ReadFaults(object, shutter, fault))
                return false;
            m_shutterIds.insert(shutter.logDevId);
            rig.shutters.push_back(shutter);
        }
        return true;
    }

    static bool ReadFaults(const CRigObject& object, SShutterSetup& shutter, SJsonFault& fault)
    {
        const SJsonValue* faults = object.Find("faults");
        if (!faults)
            return true;
        if (const SJsonValue* value = faults->Find("refuse"))
        {
            const CRigObject refuse(*value, "refuse");
            shutter.refuseFromCall = refuse.Whole("fromCall");
            if (refuse.Find("toCall"))
                shutter.refuseToCall = refuse.Whole("toCall");
            if (shutter.refuseToCall < shutter.refuseFromCall)
            {
                fault = {refuse.LineOf("toCall"), "expected \"toCall\" to be at least \"fromCall\", " +
                                                      std::to_string(shutter.refuseFromCall) + ", found " +
                                                      std::to_string(shutter.refuseToCall)};
                return false;
            }
        }
        if (const SJsonValue* value = faults->Find("hang"))
        {
            const CRigObject hang(*value, "hang");
            shutter.hangAtCall = hang.Whole("atCall");
            shutter.hangMs = hang.Number("ms");
        }
        if (const SJsonValue* value = faults->Find("dropOut"))
            shutter.dropOutAtCall = CRigObject(*value, "dropOut").Whole("atCall");
        return true;
    }

    bool ReadStimulationShutters(SRig& rig, SJsonFault& fault)
    {
        CUnique<std::uint32_t> attached("a shutter");
        for (const SJsonValue& value : m_root.List("stimulationShutters"))
        {
            const CRigObject object(value, "stimulationShutter");
            const std::uint32_t id = object.Whole("shutter");
            const unsigned line = object.LineOf("shutter");
            if (m_shutterIds.count(id) == 0)
            {
                fault = {line, "expected the id of a shutter of this file, found " + std::to_string(id)};
                return false;
            }
            if (!attached.Enter(id, std::to_string(id), line, fault))
                return false;
            rig.stimulationShutters.push_back({id, object.Text("list")});
        }
        return true;
    }

    bool ReadLogicalDevices(SRig& rig, SJsonFault& fault)
    {
        for (const SJsonValue& value : m_root.List("logicalDevices"))
        {
            const CRigObject object(value, "logicalDevice");
            if (!EnterIds(object, fault))
                return false;
            rig.logicalDevices.push_back(
                {object.Whole("id"), object.Whole("physicalId"), static_cast<int>(object.Whole("databaseId"))});
        }
        return true;
    }

    bool ReadDevices(SRig& rig, SJsonFault& fault)
    {
        CUnique<std::string> names("a device name");
        CUnique<std::string> staticClasses("a static device's class");
        for (const SJsonValue& value : m_root.List("devices"))
        {
            const CRigObject object(value, "device");
            SRigDevice device;
            device.className = object.Text("class");
            device.list = object.Text("list");
            device.name = object.Text("name");
            const SJsonValue* settings = object.Find("settings");
            device.settings = settings ? WriteJson(*settings) : "{}";
            if (!device.name.empty() &&
                !names.Enter(device.name, QuoteForMessage(device.name), object.LineOf("name"), fault))
                return false;
            if (device.list == "static" && !staticClasses.Enter(device.className, QuoteForMessage(device.className),
                                                                object.LineOf("class"), fault))
                return false;
            rig.devices.push_back(std::move(device));
        }
        return true;
    }

    bool ReadCameras(SRig& rig, SJsonFault& fault)
    {
        CUnique<std::string> names("a camera name");
        for (const SJsonValue& value : m_root.List("cameras"))
        {
            const CRigObject object(value, "camera");
            const SJsonValue* settings = object.Find("settings");
            SRigCamera camera{object.Text("class"), object.Text("name"), settings ? WriteJson(*settings) : "{}"};
            if (!camera.name.empty() &&
                !names.Enter(camera.name, QuoteForMessage(camera.name), object.LineOf("name"), fault))
                return false;
            rig.cameras.push_back(std::move(camera));
        }
        return true;
    }

    bool ReadMicroscope(SRig& rig, SJsonFault& fault)
    {
        const SJsonValue* value = m_root.Find("microscope");
        if (!value)
            return true;
        const auto wide = [](const std::string& text) { return CQsStringW::FromUtf8(text); };
        const CRigObject microscope(*value, "microscope");
        SQsDMApiHardware& hardware = rig.hardware;
        hardware.sMicroscope = wide(microscope.Text("name"));
        hardware.sObjective = wide(microscope.Text("objective"));
        hardware.dManualZoom = microscope.Number("manualZoom");
        for (const SJsonValue& light : microscope.List("lights"))
            hardware.lights.push_back(wide(light.text));
        CUnique<std::string> keys("a filter changer's key");
        for (const SJsonValue& item : microscope.List("filterChangers"))
        {
            const CRigObject changer(item, "filterChanger");
            const std::string key = changer.Text("key");
            if (!keys.Enter(key, QuoteForMessage(key), changer.LineOf("key"), fault))
                return false;
            hardware.filterChangers.push_back({wide(key), wide(changer.Text("name")), changer.Signed("position")});
        }
        for (const SJsonValue& item : microscope.List("multilasers"))
        {
            const CRigObject laser(item, "multilaser");
            hardware.multilasers.push_back({wide(laser.Text("name")), laser.Whole("number")});
        }
        hardware.bIlluminatorConnected = microscope.Find("illuminatorPort") != nullptr;
        if (hardware.bIlluminatorConnected)
            hardware.iIlluminatorPort = microscope.Signed("illuminatorPort");
        return true;
    }

    CRigObject m_root;
    fs::path m_folder;
    CUnique<std::uint32_t> m_ids{"a logical device id"};
    CUnique<std::uint32_t> m_databaseIds{"a database id"};
    std::set<std::uint32_t> m_shutterIds;
};

} // namespace

bool ReadRig(const std::string& path, SRig& rig, std::string& error)
{
    SJsonValue root;
    SJsonFault fault;
    SRig result;
    result.path = path;
    if (!ReadJsonFile(path, root, fault) || !CheckRigObject(root, s_rigRoot, fault) ||
        !CRigReader(root, path).Read(result, fault))
    {
        error = fault.InFile(path);
        return false;
    }
    rig = std::move(result);
    return true;
}

std::string FormatOfFile(const std::string& path)
{
    SJsonValue root;
    SJsonFault fault;
    const SJsonValue* const format = ReadJsonFile(path, root, fault) ? root.Find("format") : nullptr;
    return format != nullptr ? format->text : std::string();
}

} // namespace QsStandalone

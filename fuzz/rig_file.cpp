// Rig files, and the content of a device database in them.
#include "fuzz/Fuzz.h"
#include "standalone/DatabaseContent.h"
#include "standalone/Rig.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>

#include <algorithm>
#include <cmath>
#include <set>
#include <tuple>

using namespace QsStandalone;

namespace {

auto Members(const SShutterSetup& s)
{
    return std::tie(s.logDevId, s.physDevId, s.databaseId, s.name, s.connected, s.lightOnWhenOpen, s.openLatencyMs,
                    s.closeLatencyMs, s.jitterMs, s.jitterSeed, s.refuseFromCall, s.refuseToCall, s.hangAtCall,
                    s.hangMs, s.dropOutAtCall);
}
auto Members(const SRig::SStimulationShutter& s)
{
    return std::tie(s.logDevId, s.list);
}
auto Members(const SLogicalDevice& d)
{
    return std::tie(d.logDevId, d.physDevId, d.databaseId);
}
auto Members(const SRigDevice& d)
{
    return std::tie(d.className, d.list, d.name, d.settings);
}
auto Members(const SRigCamera& c)
{
    return std::tie(c.className, c.name, c.settings);
}
auto Members(const SQsDMApiHardware::SFilterChanger& c)
{
    return std::tie(c.sKey, c.sName, c.iPosition);
}
auto Members(const SQsDMApiHardware::SMultilaser& m)
{
    return std::tie(m.sName, m.uiNumber);
}

template <class T>
bool SameLists(const std::vector<T>& a, const std::vector<T>& b)
{
    return std::equal(a.begin(), a.end(), b.begin(), b.end(),
                      [](const T& x, const T& y) { return Members(x) == Members(y); });
}

bool SameHardware(const SQsDMApiHardware& a, const SQsDMApiHardware& b)
{
    const auto plain = [](const SQsDMApiHardware& h) {
        return std::tie(h.sMicroscope, h.sObjective, h.dManualZoom, h.lights, h.bIlluminatorConnected,
                        h.iIlluminatorPort);
    };
    return plain(a) == plain(b) && SameLists(a.filterChangers, b.filterChangers) &&
           SameLists(a.multilasers, b.multilasers);
}

bool SameRigs(const SRig& a, const SRig& b)
{
    return a.path == b.path && a.name == b.name && a.moduleFolders == b.moduleFolders &&
           SameLists(a.shutters, b.shutters) && SameLists(a.stimulationShutters, b.stimulationShutters) &&
           SameLists(a.logicalDevices, b.logicalDevices) && SameLists(a.devices, b.devices) &&
           SameLists(a.cameras, b.cameras) && SameHardware(a.hardware, b.hardware) &&
           a.translations == b.translations && a.hasDatabaseContent == b.hasDatabaseContent;
}

SRig SomeRig()
{
    SRig rig;
    rig.path = "unchanged";
    rig.name = "unchanged";
    rig.shutters.resize(1);
    rig.hasDatabaseContent = true;
    return rig;
}

unsigned LinesOf(const std::string& text)
{
    return 1 + static_cast<unsigned>(std::count(text.begin(), text.end(), '\n'));
}

constexpr char s_byteOrderMark[] = "\xEF\xBB\xBF"; // is allowed at the very beginning alone

// "file:line: text" with a line that the file has.
void CheckMessage(const std::string& error, const std::string& path, const std::string& text)
{
    QS_LAW(QsFuzz::IsOneLine(error));
    QS_LAW(QsFuzz::IsUtf8(error));
    QS_LAW(error.compare(0, path.size() + 1, path + ":") == 0);
    char* end = nullptr;
    const unsigned long line = std::strtoul(error.c_str() + path.size() + 1, &end, 10);
    QS_LAW(line >= 1 && line <= LinesOf(text));
    QS_LAW(std::string(end).compare(0, 11, ": expected ") == 0);
}

// With one more line before it the fault is one line further down.
void CheckLine(const std::string& error, const std::string& path, const std::string& text,
               const QsFuzz::CScratchFolder& folder)
{
    if (text.compare(0, 3, s_byteOrderMark) == 0 || error.find("as in line") != std::string::npos)
        return;
    char* end = nullptr;
    const unsigned long line = std::strtoul(error.c_str() + path.size() + 1, &end, 10);
    folder.Write("rig.json", "\n" + text);
    SRig rig;
    std::string further;
    QS_LAW(!ReadRig(path, rig, further));
    QS_LAW(further == path + ":" + std::to_string(line + 1) + end);
    folder.Write("rig.json", text);
}

bool IsName(const std::string& text, std::size_t least, std::size_t most)
{
    return text.size() >= least && text.size() <= most && QsFuzz::IsUtf8(text) &&
           (text.empty() || QsFuzz::IsOneLine(text));
}

bool IsTime(double ms, double most)
{
    return std::isfinite(ms) && ms >= 0.0 && ms <= most;
}

void CheckShutter(const SShutterSetup& s)
{
    QS_LAW(s.logDevId != 0 && s.databaseId >= 0);
    QS_LAW(IsName(s.name, 1, 100));
    QS_LAW(IsTime(s.openLatencyMs, 60000) && IsTime(s.closeLatencyMs, 60000) && IsTime(s.jitterMs, 60000));
    QS_LAW(IsTime(s.hangMs, 3600000));
    QS_LAW(s.refuseFromCall >= 1 && s.refuseFromCall <= s.refuseToCall);
    QS_LAW(s.hangAtCall >= 1 && s.dropOutAtCall >= 1);
}

void CheckRig(const SRig& rig)
{
    std::set<std::uint32_t> ids;
    std::set<int> databaseIds;
    std::set<std::uint32_t> shutters;
    std::set<std::string> names;
    const auto enterIds = [&](std::uint32_t id, int databaseId)
    {
        QS_LAW(id != 0 && ids.insert(id).second);
        QS_LAW(databaseId == 0 || databaseIds.insert(databaseId).second);
    };
    QS_LAW(IsName(rig.name, 0, 100));
    for (const std::string& folder : rig.moduleFolders)
        QS_LAW(std::filesystem::u8path(folder).is_absolute());
    QS_LAW(rig.translations.empty() || std::filesystem::u8path(rig.translations).is_absolute());
    for (const SShutterSetup& shutter : rig.shutters)
    {
        CheckShutter(shutter);
        enterIds(shutter.logDevId, shutter.databaseId);
        QS_LAW(names.insert(shutter.name).second);
        shutters.insert(shutter.logDevId);
    }
    for (const SLogicalDevice& device : rig.logicalDevices)
        enterIds(device.logDevId, device.databaseId);
    for (const SRig::SStimulationShutter& shutter : rig.stimulationShutters)
    {
        QS_LAW(shutters.erase(shutter.logDevId) == 1); // one of the file's, and once
        QS_LAW(shutter.list == "simple" || shutter.list == "list");
    }
}

bool IsName(const CQsStringW& text, std::size_t least)
{
    return IsName(text.ToUtf8(), least, 100);
}

void CheckMicroscope(const SQsDMApiHardware& hardware)
{
    QS_LAW(IsName(hardware.sMicroscope, 0) && IsName(hardware.sObjective, 0));
    QS_LAW(hardware.dManualZoom >= 0.0 && hardware.dManualZoom <= 1000.0);
    for (const CQsStringW& light : hardware.lights)
        QS_LAW(IsName(light, 1));
    std::set<CQsStringW> keys;
    for (const auto& changer : hardware.filterChangers)
        QS_LAW(IsName(changer.sKey, 1) && IsName(changer.sName, 0) && keys.insert(changer.sKey).second);
    for (const auto& laser : hardware.multilasers)
        QS_LAW(IsName(laser.sName, 1));
    QS_LAW(hardware.bIlluminatorConnected || hardware.iIlluminatorPort == 0);
}

// The library compares a whole number with the same one as a fraction as different.
bool SameJson(const QJsonValue& a, const QJsonValue& b)
{
    if (a.type() != b.type())
        return false;
    if (a.isDouble())
        return a.toDouble() == b.toDouble();
    if (a.isArray())
    {
        const QJsonArray left = a.toArray();
        const QJsonArray right = b.toArray();
        return std::equal(left.begin(), left.end(), right.begin(), right.end(), SameJson);
    }
    if (!a.isObject())
        return a == b;
    const QJsonObject left = a.toObject();
    const QJsonObject right = b.toObject();
    const QStringList keys = left.keys();
    return keys == right.keys() &&
           std::all_of(keys.begin(), keys.end(),
                       [&](const QString& key) { return SameJson(left.value(key), right.value(key)); });
}

// The settings of each device, or of each camera, are the object that another reader of JSON finds in the file, and
// reading what was written gives the same. The other reader knows no comments, and is asked where it reads the file.
template <class Unit>
void CheckSettings(const std::vector<Unit>& units, const char* key, std::vector<Unit> SRig::*member,
                   const std::string& text, const QsFuzz::CScratchFolder& folder)
{
    const QJsonArray elsewhere =
        QJsonDocument::fromJson(QByteArray::fromStdString(text)).object().value(QLatin1String(key)).toArray();
    std::string again = R"({"format":"stimulation-rig","version":1,")" + std::string(key) + R"(":[)";
    for (const Unit& unit : units)
    {
        const auto index = static_cast<int>(&unit - units.data());
        const QJsonDocument settings = QJsonDocument::fromJson(QByteArray::fromStdString(unit.settings));
        QS_LAW(settings.isObject());
        const QJsonValue there = elsewhere[index].toObject().value(QLatin1String("settings"));
        QS_LAW(elsewhere.isEmpty() || SameJson(settings.object(), there.isUndefined() ? QJsonObject() : there));
        again += std::string(index == 0 ? "" : ",") + R"({"class":"C","settings":)" + unit.settings + "}";
    }
    SRig second;
    std::string error;
    QS_LAW(ReadRig(folder.Write("settings.json", again + "]}"), second, error));
    QS_LAW((second.*member).size() == units.size());
    for (std::size_t i = 0; i < units.size(); ++i)
        QS_LAW((second.*member)[i].settings == units[i].settings);
}

void CheckUnits(const SRig& rig, const std::string& text, const QsFuzz::CScratchFolder& folder)
{
    std::set<std::string> names;
    std::set<std::string> classes;
    for (const SRigDevice& device : rig.devices)
    {
        QS_LAW(IsName(device.className, 1, 100));
        QS_LAW(device.name.empty() || (IsName(device.name, 1, 100) && names.insert(device.name).second));
        QS_LAW(device.list != "static" || classes.insert(device.className).second);
    }
    names.clear();
    for (const SRigCamera& camera : rig.cameras)
    {
        QS_LAW(IsName(camera.className, 1, 100));
        QS_LAW(camera.name.empty() || (IsName(camera.name, 1, 100) && names.insert(camera.name).second));
    }
    CheckSettings(rig.devices, "devices", &SRig::devices, text, folder);
    CheckSettings(rig.cameras, "cameras", &SRig::cameras, text, folder);
}

void CheckDatabase(const std::string& path, const std::string& text, const QsFuzz::CScratchFolder& folder)
{
    SDatabaseContent content;
    std::string error;
    if (!ReadDatabaseContent(path, content, error))
        return CheckMessage(error, path, text);
    for (const std::string& contradiction : CheckDatabaseContent(content, {1}))
        QS_LAW(QsFuzz::IsOneLine(contradiction) && QsFuzz::IsUtf8(contradiction));
    const std::string json = DatabaseContentJson(content);
    SDatabaseContent second;
    QS_LAW(ReadDatabaseContent(folder.Write("content.json", json), second, error));
    QS_LAW(DatabaseContentJson(second) == json);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    static const QsFuzz::CScratchFolder folder;
    const std::string text = QsFuzz::Text(data, size);
    const std::string path = folder.Write("rig.json", text);

    SRig rig = SomeRig();
    std::string error;
    if (!ReadRig(path, rig, error))
    {
        CheckMessage(error, path, text);
        QS_LAW(SameRigs(rig, SomeRig()));
        CheckLine(error, path, text, folder);
        CheckDatabase(path, text, folder); // it may be content of its own
        return 0;
    }
    QS_LAW(rig.path == path);
    QS_LAW(FormatOfFile(path) == "stimulation-rig");
    CheckRig(rig);
    CheckMicroscope(rig.hardware);
    CheckUnits(rig, text, folder);
    if (rig.hasDatabaseContent)
        CheckDatabase(path, text, folder);

    // Blanks and comments mean nothing, wherever the file ends in one; anything else behind a rig is a fault there.
    SRig second;
    folder.Write("rig.json", "// first\n" + text + "\n /* last */ ");
    QS_LAW(ReadRig(path, second, error) == (text.compare(0, 3, s_byteOrderMark) != 0));
    folder.Write("rig.json", text + "\n]");
    QS_LAW(!ReadRig(path, second, error));
    QS_LAW(error == path + ":" + std::to_string(LinesOf(text) + 1) + ": expected the end of the file, found \"]\"");
    return 0;
}

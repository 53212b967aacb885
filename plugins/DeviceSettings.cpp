#include "plugins/DeviceSettings.h"

#include "host/QsSystem.h"
#include "standalone/HostControl.h"

#include <rapidjson/document.h>
#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>

#include <cmath>
#include <initializer_list>
#include <set>

namespace {

using Json = rapidjson::Value;

constexpr double longestMs = 60000.0;
constexpr double greatestId = 4294967295.0;

// Reads the members of one object and remembers the first that is wrong. Members that nobody asked for are wrong too: a
// misspelt key would otherwise pass for a default.
class CReader
{
public:
    CReader(const Json& object, std::string& fault) : m_object(object), m_fault(fault) {}

    void Text(const char* key, std::string& value)
    {
        const Json* found = Find(key);
        if (found && !found->IsString())
            Complain(key, "a text", *found);
        else if (found)
            value.assign(found->GetString(), found->GetStringLength());
    }

    void Choice(const char* key, std::string& value, std::initializer_list<const char*> choices)
    {
        const Json* found = Find(key);
        if (!found)
            return;
        std::string all;
        for (const char* choice : choices)
        {
            if (found->IsString() && std::string(choice) == found->GetString())
            {
                value = choice;
                return;
            }
            all += std::string(all.empty() ? "one of \"" : ", \"") + choice + "\"";
        }
        Complain(key, all, *found);
    }

    void Flag(const char* key, bool& value)
    {
        const Json* found = Find(key);
        if (found && !found->IsBool())
            Complain(key, "true or false", *found);
        else if (found)
            value = found->GetBool();
    }

    void Time(const char* key, double& value)
    {
        const Json* found = Find(key);
        if (found && !IsBetween(*found, 0.0, longestMs))
            Complain(key, "a number from 0 to 60000 ms", *found);
        else if (found)
            value = found->GetDouble();
    }

    template <class T>
    void Whole(const char* key, T& value, double minimum, double maximum)
    {
        const Json* found = Find(key);
        if (found && !IsWhole(*found, minimum, maximum))
            Complain(key, "a whole number" + Bounds(minimum, maximum), *found);
        else if (found)
            value = static_cast<T>(found->GetDouble());
    }

    void WholeList(const char* key, std::vector<std::uint32_t>& value, double minimum, double maximum)
    {
        const Json* found = Find(key);
        if (!found)
            return;
        std::vector<std::uint32_t> numbers;
        bool right = found->IsArray();
        if (right)
            for (const Json& item : found->GetArray())
            {
                right = right && IsWhole(item, minimum, maximum);
                if (right)
                    numbers.push_back(static_cast<std::uint32_t>(item.GetDouble()));
            }
        if (right)
            value = numbers;
        else
            Complain(key, "a list of whole numbers" + Bounds(minimum, maximum), *found);
    }

    const Json* Object(const char* key)
    {
        const Json* found = Find(key);
        if (!found || found->IsObject())
            return found;
        Complain(key, "an object", *found);
        return nullptr;
    }

    void Finish()
    {
        for (const auto& member : m_object.GetObject())
            if (m_asked.count(member.name.GetString()) == 0)
                Complain(member.name.GetString(), "no such key", member.value);
    }

private:
    const Json* Find(const char* key)
    {
        m_asked.insert(key);
        const auto found = m_object.FindMember(key);
        return found != m_object.MemberEnd() ? &found->value : nullptr;
    }

    static bool IsBetween(const Json& value, double minimum, double maximum)
    {
        return value.IsNumber() && value.GetDouble() >= minimum && value.GetDouble() <= maximum;
    }

    static bool IsWhole(const Json& value, double minimum, double maximum)
    {
        return IsBetween(value, minimum, maximum) && std::floor(value.GetDouble()) == value.GetDouble();
    }

    static std::string Bounds(double minimum, double maximum)
    {
        return " from " + std::to_string(static_cast<long long>(minimum)) + " to " +
               std::to_string(static_cast<long long>(maximum));
    }

    void Complain(const std::string& key, const std::string& expected, const Json& found)
    {
        if (!m_fault.empty())
            return;
        rapidjson::StringBuffer text;
        rapidjson::Writer<rapidjson::StringBuffer> writer(text);
        found.Accept(writer);
        m_fault = "\"" + key + "\": expected " + expected + ", found " + std::string(text.GetString()).substr(0, 60);
    }

    const Json& m_object;
    std::string& m_fault;
    std::set<std::string> m_asked;
};

std::string ReadInto(SSimulatedDeviceSettings& settings, const std::string& text)
{
    constexpr double greatestStatus = 2147483647.0;
    rapidjson::Document document;
    document.Parse<rapidjson::kParseIterativeFlag>(text.c_str(), text.size());
    if (document.HasParseError() || !document.IsObject())
        return "expected a JSON object, found " + text.substr(0, 60);
    std::string fault;
    CReader reader(document, fault);
    reader.Text("name", settings.name);
    reader.Text("displayName", settings.displayName);
    reader.Flag("visible", settings.visible);
    reader.Flag("connected", settings.connected);
    reader.Whole("mode", settings.mode, 0.0, greatestId);
    reader.WholeList("kinds", settings.kinds, 1.0, 3.0);
    reader.Whole("areas", settings.areas, 0.0, 65535.0);
    reader.Time("exposureMs", settings.exposureMs);
    reader.WholeList("logicalIds", settings.logicalIds, 1.0, greatestId);
    reader.WholeList("physicalIds", settings.physicalIds, 0.0, greatestId);
    reader.Time("beginMs", settings.beginMs);
    reader.Time("fireMs", settings.fireMs);
    reader.Time("endMs", settings.endMs);
    reader.Whole("beginStatus", settings.beginStatus, -greatestStatus, greatestStatus);
    reader.Whole("endStatus", settings.endStatus, -greatestStatus, greatestStatus);
    if (const Json* object = reader.Object("fireFault"))
    {
        CReader fireFault(*object, fault);
        fireFault.Whole("atFire", settings.fireFaultAt, 1.0, greatestId);
        fireFault.Whole("status", settings.fireFaultStatus, -greatestStatus, greatestStatus);
        fireFault.Finish();
    }
    reader.Choice("throws", settings.throws, {"", "begin", "fire", "end"});
    reader.Flag("stateCallback", settings.stateCallback);
    reader.Time("ignoreAbortMs", settings.ignoreAbortMs);
    reader.Finish();
    return fault;
}

} // namespace

SSimulatedDeviceSettings ReadDeviceSettings(const char* className, const SSimulatedDeviceSettings& defaults)
{
    SSimulatedDeviceSettings settings = defaults;
    const std::string fault = ReadInto(settings, QsStandalone::GetDeviceSettings(className));
    if (fault.empty())
        return settings;
    QsStandalone::ReportSettingsFault(className, fault);
    DiagOutputExW(L"SimulatedDevices", __LINE__, L"Settings of %hs - %hs; the defaults are used", className,
                  fault.c_str());
    return defaults;
}

#include "plugins/SettingsReader.h"

#include "host/QsSystem.h"
#include "standalone/HostControl.h"

#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>

#include <algorithm>

namespace {

constexpr double longestMs = 60000.0;

std::string OneOf(std::initializer_list<const char*> choices)
{
    std::string all;
    for (const char* choice : choices)
        all += std::string(all.empty() ? "one of \"" : ", \"") + choice + "\"";
    return all;
}

bool IsOneOf(const CQsSettingsReader::Json& value, std::initializer_list<const char*> choices)
{
    return value.IsString() &&
           std::any_of(choices.begin(), choices.end(),
                       [&value](const char* choice) { return std::string(choice) == value.GetString(); });
}

std::string Shortest(double number)
{
    return CQsStringW::Format(L"%.9g", number).ToUtf8();
}

} // namespace

void CQsSettingsReader::Text(const char* key, std::string& value)
{
    const Json* found = Find(key);
    if (found && !found->IsString())
        Complain(key, "a text", *found);
    else if (found)
        value.assign(found->GetString(), found->GetStringLength());
}

void CQsSettingsReader::Choice(const char* key, std::string& value, std::initializer_list<const char*> choices)
{
    const Json* found = Find(key);
    if (found && !IsOneOf(*found, choices))
        Complain(key, OneOf(choices), *found);
    else if (found)
        value = found->GetString();
}

void CQsSettingsReader::ChoiceList(const char* key, std::vector<std::string>& value,
                                   std::initializer_list<const char*> choices)
{
    const Json* found = Find(key);
    if (!found)
        return;
    std::vector<std::string> texts;
    bool right = found->IsArray();
    if (right)
        for (const Json& item : found->GetArray())
        {
            right = right && IsOneOf(item, choices);
            if (right && std::find(texts.begin(), texts.end(), item.GetString()) == texts.end())
                texts.push_back(item.GetString());
        }
    if (right)
        value = texts;
    else
        Complain(key, "a list, each " + OneOf(choices), *found);
}

void CQsSettingsReader::Flag(const char* key, bool& value)
{
    const Json* found = Find(key);
    if (found && !found->IsBool())
        Complain(key, "true or false", *found);
    else if (found)
        value = found->GetBool();
}

void CQsSettingsReader::Time(const char* key, double& value)
{
    const Json* found = Find(key);
    if (found && !IsBetween(*found, 0.0, longestMs))
        Complain(key, "a number from 0 to 60000 ms", *found);
    else if (found)
        value = found->GetDouble();
}

void CQsSettingsReader::Number(const char* key, double& value, double minimum, double maximum)
{
    const Json* found = Find(key);
    if (found && !IsBetween(*found, minimum, maximum))
        Complain(key, "a number from " + Shortest(minimum) + " to " + Shortest(maximum), *found);
    else if (found)
        value = found->GetDouble();
}

void CQsSettingsReader::Object(const char* key, const std::function<void(CQsSettingsReader&)>& read)
{
    const Json* found = Find(key);
    if (!found)
        return;
    if (!found->IsObject())
        return Complain(key, "an object", *found);
    CQsSettingsReader members(*found, m_fault);
    read(members);
    members.Finish();
}

void CQsSettingsReader::Objects(const char* key,
                                const std::function<void(const std::string& name, CQsSettingsReader&)>& read)
{
    Object(key,
           [&read](CQsSettingsReader& all)
           {
               for (const auto& member : all.m_object.GetObject())
                   all.Object(member.name.GetString(),
                              [&](CQsSettingsReader& one) { read(member.name.GetString(), one); });
           });
}

void CQsSettingsReader::Finish()
{
    for (const auto& member : m_object.GetObject())
        if (m_asked.count(member.name.GetString()) == 0)
            Complain(member.name.GetString(), "no such key", member.value);
}

void CQsSettingsReader::Complain(const std::string& key, const std::string& expected)
{
    const Json* found = Find(key.c_str());
    if (found)
        Complain(key, expected, *found);
    else if (m_fault.empty())
        m_fault = "\"" + key + "\": expected " + expected;
}

const CQsSettingsReader::Json* CQsSettingsReader::Find(const char* key)
{
    m_asked.insert(key);
    const auto found = m_object.FindMember(key);
    return found != m_object.MemberEnd() ? &found->value : nullptr;
}

bool CQsSettingsReader::IsBetween(const Json& value, double minimum, double maximum)
{
    return value.IsNumber() && value.GetDouble() >= minimum && value.GetDouble() <= maximum;
}

bool CQsSettingsReader::IsWhole(const Json& value, double minimum, double maximum)
{
    return IsBetween(value, minimum, maximum) && std::floor(value.GetDouble()) == value.GetDouble();
}

std::string CQsSettingsReader::Bounds(double minimum, double maximum)
{
    return " from " + std::to_string(static_cast<long long>(minimum)) + " to " +
           std::to_string(static_cast<long long>(maximum));
}

void CQsSettingsReader::Complain(const std::string& key, const std::string& expected, const Json& found)
{
    if (!m_fault.empty())
        return;
    rapidjson::StringBuffer text;
    rapidjson::Writer<rapidjson::StringBuffer> writer(text);
    found.Accept(writer);
    m_fault = "\"" + key + "\": expected " + expected + ", found " + std::string(text.GetString()).substr(0, 60);
}

bool ReadHostSettings(const char* className, const std::function<void(CQsSettingsReader&)>& read)
{
    const std::string text = QsStandalone::GetDeviceSettings(className);
    rapidjson::Document document;
    document.Parse<rapidjson::kParseIterativeFlag>(text.c_str(), text.size());
    std::string fault;
    if (document.HasParseError() || !document.IsObject())
        fault = "expected a JSON object, found " + text.substr(0, 60);
    else
    {
        CQsSettingsReader reader(document, fault);
        read(reader);
        reader.Finish();
    }
    if (fault.empty())
        return true;
    QsStandalone::ReportSettingsFault(className, fault);
    DiagOutputExW(L"SimulatedDevices", __LINE__, L"Settings of %hs - %hs; the defaults are used", className,
                  fault.c_str());
    return false;
}

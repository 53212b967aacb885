// Reader of the JSON object that holds the settings of a simulated device or camera (docs/formats.md).
//
// A member with a wrong value is a fault, and so is a member that nobody asked for: a misspelt key would otherwise pass
// for a default. The first fault is remembered and nothing is thrown.
#pragma once

#include <rapidjson/document.h>

#include <cmath>
#include <cstdint>
#include <functional>
#include <initializer_list>
#include <set>
#include <string>
#include <vector>

class CQsSettingsReader
{
public:
    using Json = rapidjson::Value;

    // Both are kept by reference. `fault` is written once, while it is empty.
    CQsSettingsReader(const Json& object, std::string& fault) : m_object(object), m_fault(fault) {}

    // Each leaves the value as it is when the key is missing or wrong.
    void Text(const char* key, std::string& value);
    void Choice(const char* key, std::string& value, std::initializer_list<const char*> choices);
    // Texts out of the choices; `value` has each once, in the order of the list.
    void ChoiceList(const char* key, std::vector<std::string>& value, std::initializer_list<const char*> choices);
    void Flag(const char* key, bool& value);
    void Time(const char* key, double& value); // [ms]
    void Number(const char* key, double& value, double minimum, double maximum);
    template <class T>
    void Whole(const char* key, T& value, double minimum, double maximum)
    {
        const Json* found = Find(key);
        if (found && !IsWhole(*found, minimum, maximum))
            Complain(key, "a whole number" + Bounds(minimum, maximum), *found);
        else if (found)
            value = static_cast<T>(found->GetDouble());
    }
    template <class T>
    void WholeList(const char* key, std::vector<T>& value, double minimum, double maximum)
    {
        const Json* found = Find(key);
        if (!found)
            return;
        std::vector<T> numbers;
        bool right = found->IsArray();
        if (right)
            for (const Json& item : found->GetArray())
            {
                right = right && IsWhole(item, minimum, maximum);
                if (right)
                    numbers.push_back(static_cast<T>(item.GetDouble()));
            }
        if (right)
            value = numbers;
        else
            Complain(key, "a list of whole numbers" + Bounds(minimum, maximum), *found);
    }
    // The members of the object under the key. `read` asks for them; afterwards unknown ones are faults.
    void Object(const char* key, const std::function<void(CQsSettingsReader&)>& read);
    // An object of objects: `read` is called for each with its name.
    void Objects(const char* key, const std::function<void(const std::string& name, CQsSettingsReader&)>& read);

    // Members that nobody has asked for are faults.
    void Finish();
    // A fault that lies in several values together.
    void Complain(const std::string& key, const std::string& expected);

private:
    const Json* Find(const char* key);
    static bool IsBetween(const Json& value, double minimum, double maximum);
    static bool IsWhole(const Json& value, double minimum, double maximum);
    static std::string Bounds(double minimum, double maximum);
    void Complain(const std::string& key, const std::string& expected, const Json& found);

    const Json& m_object;
    std::string& m_fault;
    std::set<std::string> m_asked;
};

// Reads the settings that the host holds for `className`. False where they are malformed: then the host is told, one
// line goes to the log, and the caller uses its defaults instead of what `read` has filled.
bool ReadHostSettings(const char* className, const std::function<void(CQsSettingsReader&)>& read);

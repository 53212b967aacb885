#include "standalone/RigSchema.h"

#include "standalone/DeviceManager.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <iterator>

namespace QsStandalone {

namespace {

using Type = SRigKey::Type;

constexpr double greatestId = 4294967295.0;
constexpr double greatestDatabaseId = 2147483647.0;
constexpr double greatestCall = static_cast<double>(SShutterSetup::never - 1);
constexpr double longestMoveMs = 60000.0;
constexpr double longestHangMs = 3600000.0;
constexpr double greatestZoom = 1000.0;
constexpr double longestName = 100.0;
constexpr double longestPath = 4096.0;
constexpr double longestDatabaseName = 255.0; // in characters; the columns' limit
constexpr double longestText = 4194304.0;     // the longest file
constexpr double leastInt = -2147483648.0;
constexpr double greatestInt = 2147483647.0;

std::string NumberText(double number)
{
    char buffer[32];
    const std::to_chars_result result = std::to_chars(std::begin(buffer), std::end(buffer), number);
    return {buffer, result.ptr};
}

// Ids and calls are read by people: never in powers of ten.
std::string BoundText(double number)
{
    return std::floor(number) == number ? std::to_string(static_cast<long long>(number)) : NumberText(number);
}

std::string QuotedChoices(const char* choices)
{
    std::string quoted = "\"";
    for (const char* c = choices; *c != '\0'; ++c)
        quoted += *c == '|' ? std::string("\", \"") : std::string(1, *c);
    return quoted + "\"";
}

bool IsChoice(const std::string& text, const char* choices)
{
    const std::string all = std::string("|") + choices + "|";
    return !text.empty() && text.find('|') == std::string::npos && all.find("|" + text + "|") != std::string::npos;
}

bool HasControlCharacter(const std::string& text)
{
    return std::any_of(text.begin(), text.end(),
                       [](char c) { return static_cast<unsigned char>(c) < 0x20 || c == 0x7F; });
}

bool IsText(const SJsonValue& value, const SRigKey& key)
{
    const auto length = static_cast<double>(value.text.size());
    return value.kind == SJsonValue::Kind::Text && length >= key.minimum && length <= key.maximum &&
           !HasControlCharacter(value.text);
}

bool IsAnyText(const SJsonValue& value, const SRigKey& key)
{
    const auto characters = static_cast<double>(std::count_if(
        value.text.begin(), value.text.end(), [](char c) { return (static_cast<unsigned char>(c) & 0xC0) != 0x80; }));
    return value.kind == SJsonValue::Kind::Text && characters >= key.minimum && characters <= key.maximum &&
           value.text.find('\0') == std::string::npos;
}

bool IsNumber(const SJsonValue& value, const SRigKey& key)
{
    return value.kind == SJsonValue::Kind::Number && value.number >= key.minimum && value.number <= key.maximum;
}

bool IsWhole(const SJsonValue& value, const SRigKey& key)
{
    return IsNumber(value, key) && std::floor(value.number) == value.number;
}

bool IsRight(const SJsonValue& value, const SRigKey& key)
{
    switch (key.type)
    {
    case Type::Text:
        return IsText(value, key);
    case Type::AnyText:
        return IsAnyText(value, key);
    case Type::WholeListOrText:
        return value.kind == SJsonValue::Kind::List ||
               (value.kind == SJsonValue::Kind::Text && value.text.find('\0') == std::string::npos);
    case Type::TextList:
    case Type::ObjectList:
        return value.kind == SJsonValue::Kind::List;
    case Type::Flag:
        return value.kind == SJsonValue::Kind::Flag;
    case Type::Number:
        return IsNumber(value, key);
    case Type::Whole:
        return IsWhole(value, key);
    case Type::Choice:
        return value.kind == SJsonValue::Kind::Text && IsChoice(value.text, key.choices);
    case Type::Object:
    case Type::AnyObject:
        break;
    }
    return value.kind == SJsonValue::Kind::Object;
}

std::string KeysOf(const std::string& kind)
{
    std::string keys;
    for (const SRigKey& key : RigKeys())
        if (kind == key.owner)
            keys += std::string(keys.empty() ? "" : ", ") + key.key;
    return keys;
}

} // namespace

const std::vector<SRigKey>& RigKeys()
{
    static const std::vector<SRigKey> keys = {
        {"rig", "format", Type::Choice, "", true, "", 0, 0, "stimulation-rig", "", "what the file is"},
        {"rig", "version", Type::Whole, "", true, "", 1, 1, "", "", "version of the format"},
        {"rig", "name", Type::Text, "", false, "\"\"", 0, longestName, "", "", "name for the user"},
        {"rig", "moduleFolders", Type::TextList, "", false, "[]", 1, longestPath, "", "",
         "folders with modules of devices; relative ones start at the file's folder"},
        {"rig", "shutters", Type::ObjectList, "", false, "[]", 0, 0, "", "shutter", "shutters of the host"},
        {"rig", "stimulationShutters", Type::ObjectList, "", false, "[]", 0, 0, "", "stimulationShutter",
         "shutters that become stimulation devices"},
        {"rig", "logicalDevices", Type::ObjectList, "", false, "[]", 0, 0, "", "logicalDevice",
         "logical devices that are no shutters"},
        {"rig", "devices", Type::ObjectList, "", false, "[]", 0, 0, "", "device", "devices of plug-ins"},
        {"rig", "cameras", Type::ObjectList, "", false, "[]", 0, 0, "", "camera", "cameras of plug-ins"},
        {"rig", "microscope", Type::Object, "", false, "none", 0, 0, "", "microscope", "what the microscope is set to"},
        {"rig", "translations", Type::Text, "", false, "none", 1, longestPath, "", "",
         "catalogue of translations; a relative path starts at the file's folder"},
        {"rig", "deviceDatabase", Type::Object, "", false, "none", 0, 0, "", "deviceDatabase",
         "content of the device database that the rig runs on"},

        {"shutter", "id", Type::Whole, "", true, "", 1, greatestId, "", "", "logical device id, unique in the file"},
        {"shutter", "physicalId", Type::Whole, "", false, "0", 0, greatestId, "", "", "physical device id; 0: none"},
        {"shutter", "databaseId", Type::Whole, "", false, "0", 0, greatestDatabaseId, "", "",
         "id in the device database, unique in the file; 0: none"},
        {"shutter", "name", Type::Text, "", true, "", 1, longestName, "", "",
         "toolbar name, unique among the shutters"},
        {"shutter", "connected", Type::Flag, "", false, "true", 0, 0, "", "", "the hardware is there"},
        {"shutter", "light", Type::Flag, "", false, "true", 0, 0, "", "", "light passes when it is open"},
        {"shutter", "openLatencyMs", Type::Number, "ms", false, "0", 0, longestMoveMs, "", "", "time to open"},
        {"shutter", "closeLatencyMs", Type::Number, "ms", false, "0", 0, longestMoveMs, "", "", "time to close"},
        {"shutter", "jitterMs", Type::Number, "ms", false, "0", 0, longestMoveMs, "", "",
         "greatest random deviation of both times, either way"},
        {"shutter", "jitterSeed", Type::Whole, "", false, "1", 0, greatestId, "", "", "seed of the deviations"},
        {"shutter", "faults", Type::Object, "", false, "{}", 0, 0, "", "faults", "what goes wrong"},

        {"faults", "refuse", Type::Object, "", false, "never", 0, 0, "", "refuse", "calls that are refused"},
        {"faults", "hang", Type::Object, "", false, "never", 0, 0, "", "hang", "a call that hangs"},
        {"faults", "dropOut", Type::Object, "", false, "never", 0, 0, "", "dropOut",
         "a call at which it springs shut and is gone"},
        {"refuse", "fromCall", Type::Whole, "", true, "", 1, greatestCall, "", "", "first call, counted from 1"},
        {"refuse", "toCall", Type::Whole, "", false, "every later call", 1, greatestCall, "", "",
         "last call, not before the first"},
        {"hang", "atCall", Type::Whole, "", true, "", 1, greatestCall, "", "", "the call"},
        {"hang", "ms", Type::Number, "ms", true, "", 0, longestHangMs, "", "", "how long; the call then does its work"},
        {"dropOut", "atCall", Type::Whole, "", true, "", 1, greatestCall, "", "", "the call"},

        {"stimulationShutter", "shutter", Type::Whole, "", true, "", 1, greatestId, "", "", "id of a shutter, once"},
        {"stimulationShutter", "list", Type::Choice, "", false, "\"simple\"", 0, 0, "simple|list", "",
         "simple: attached, registers itself; list: handed in as a shutter"},

        {"logicalDevice", "id", Type::Whole, "", true, "", 1, greatestId, "", "",
         "logical device id, unique in the file"},
        {"logicalDevice", "physicalId", Type::Whole, "", false, "0", 0, greatestId, "", "",
         "physical device id; 0: none"},
        {"logicalDevice", "databaseId", Type::Whole, "", false, "0", 0, greatestDatabaseId, "", "",
         "id in the device database, unique in the file; 0: none"},

        {"device", "class", Type::Text, "", true, "", 1, longestName, "", "", "registered class of a module"},
        {"device", "list", Type::Choice, "", false, "\"simple\"", 0, 0, "simple|special|option|static", "",
         "where the manager learns of it; static: at most one of a class"},
        {"device", "name", Type::Text, "", false, "the class's own", 1, longestName, "", "",
         "unique name, unique among the devices"},
        {"device", "settings", Type::AnyObject, "", false, "{}", 0, 0, "", "",
         "settings of the device; the keys are its plug-in's"},

        {"camera", "class", Type::Text, "", true, "", 1, longestName, "", "", "registered class of a module"},
        {"camera", "name", Type::Text, "", false, "the class's own", 1, longestName, "", "",
         "name of the camera, unique among the cameras"},
        {"camera", "settings", Type::AnyObject, "", false, "{}", 0, 0, "", "",
         "settings of the camera; the keys are its plug-in's"},

        {"microscope", "name", Type::Text, "", false, "\"\"", 0, longestName, "", "", "name of the microscope"},
        {"microscope", "objective", Type::Text, "", false, "\"\"", 0, longestName, "", "", "objective in place"},
        {"microscope", "manualZoom", Type::Number, "", false, "0", 0, greatestZoom, "", "",
         "zoom that was set by hand; 0: none"},
        {"microscope", "lights", Type::TextList, "", false, "[]", 1, longestName, "", "", "lights that are there"},
        {"microscope", "filterChangers", Type::ObjectList, "", false, "[]", 0, 0, "", "filterChanger",
         "filter changers"},
        {"microscope", "multilasers", Type::ObjectList, "", false, "[]", 0, 0, "", "multilaser", "lasers"},
        {"microscope", "illuminatorPort", Type::Whole, "", false, "not connected", leastInt, greatestInt, "", "",
         "port of the laser-stimulation illuminator"},
        {"filterChanger", "key", Type::Text, "", true, "", 1, longestName, "", "",
         "key of the changer, unique among the changers"},
        {"filterChanger", "name", Type::Text, "", false, "\"\"", 0, longestName, "", "", "filter in place"},
        {"filterChanger", "position", Type::Whole, "", false, "0", leastInt, greatestInt, "", "",
         "position of the changer"},
        {"multilaser", "name", Type::Text, "", true, "", 1, longestName, "", "", "name of the laser"},
        {"multilaser", "number", Type::Whole, "", false, "0", 0, greatestId, "", "", "number of its line"},

        {s_databaseRoot, "format", Type::Choice, "", true, "", 0, 0, "stimulation-database", "", "what the file is"},
        {s_databaseRoot, "version", Type::Whole, "", true, "", 1, 1, "", "", "version of the format"},
        {s_databaseRoot, "deviceDatabase", Type::Object, "", true, "", 0, 0, "", "deviceDatabase", "the content"},

        {"deviceDatabase", "users", Type::ObjectList, "", false, "[]", 0, 0, "", "user", "users"},
        {"deviceDatabase", "setups", Type::ObjectList, "", false, "[]", 0, 0, "", "setup", "setups of the microscope"},
        {"deviceDatabase", "hwConfigs", Type::ObjectList, "", false, "[]", 0, 0, "", "hwConfig",
         "hardware configurations"},
        {"deviceDatabase", "beampaths", Type::ObjectList, "", false, "[]", 0, 0, "", "beampath", "light paths"},
        {"deviceDatabase", "hwConfigBeampaths", Type::ObjectList, "", false, "[]", 0, 0, "", "hwConfigBeampath",
         "what hardware configurations say of beampaths"},
        {"deviceDatabase", "configurations", Type::ObjectList, "", false, "[]", 0, 0, "", "configuration",
         "logical devices on beampaths"},
        {"deviceDatabase", "logicalIds", Type::ObjectList, "", false, "[]", 0, 0, "", "logicalId",
         "which logical devices database ids mean"},
        {"deviceDatabase", "parameters", Type::ObjectList, "", false, "[]", 0, 0, "", "parameter", "stored texts"},

        {"user", "id", Type::Whole, "", true, "", 1, greatestDatabaseId, "", "", "id, unique"},
        {"user", "name", Type::AnyText, "", true, "", 0, longestDatabaseName, "", "", "name"},
        {"setup", "id", Type::Whole, "", true, "", 1, greatestDatabaseId, "", "", "id, unique"},
        {"setup", "name", Type::AnyText, "", true, "", 0, longestDatabaseName, "", "", "name"},
        {"hwConfig", "id", Type::Whole, "", true, "", 1, greatestDatabaseId, "", "", "id, unique"},
        {"hwConfig", "setup", Type::Whole, "", true, "", 1, greatestDatabaseId, "", "", "id of its setup"},
        {"hwConfig", "name", Type::AnyText, "", true, "", 0, longestDatabaseName, "", "", "name"},

        {"beampath", "id", Type::Whole, "", true, "", 1, greatestDatabaseId, "", "", "id, unique"},
        {"beampath", "setup", Type::Whole, "", true, "", 1, greatestDatabaseId, "", "", "id of its setup"},
        {"beampath", "name", Type::AnyText, "", true, "", 0, longestDatabaseName, "", "",
         "the part of an optical configuration before the colon; unique among the stimulation beampaths of a setup"},
        {"beampath", "userName", Type::AnyText, "", false, "none", 0, longestText, "", "",
         "name shown to the user instead"},
        {"beampath", "type", Type::Whole, "", false, "2", leastInt, greatestInt, "", "", "2: stimulation"},
        {"beampath", "onByDefault", Type::Flag, "", false, "true", 0, 0, "", "",
         "switched on where the hardware configuration says nothing"},
        {"beampath", "order", Type::Whole, "", false, "0", leastInt, greatestInt, "", "",
         "the lowest wins where a name repeats"},
        {"beampath", "merged", Type::WholeListOrText, "", false, "none", leastInt, greatestInt, "", "",
         "ids of the sub-beampaths; a text stands for itself in the table"},

        {"hwConfigBeampath", "hwConfig", Type::Whole, "", true, "", 1, greatestDatabaseId, "", "",
         "id of a hardware configuration"},
        {"hwConfigBeampath", "beampath", Type::Whole, "", true, "", 1, greatestDatabaseId, "", "",
         "id of a beampath of the same setup"},
        {"hwConfigBeampath", "behaviour", Type::Whole, "", false, "the beampath's default", leastInt, greatestInt, "",
         "", "1: on"},

        {"configuration", "beampath", Type::Whole, "", true, "", 1, greatestDatabaseId, "", "", "id of a beampath"},
        {"configuration", "logicalDevice", Type::Whole, "", true, "", 1, greatestDatabaseId, "", "",
         "database id of a logical device"},
        {"configuration", "type", Type::Whole, "", false, "1", leastInt, greatestInt, "", "",
         "kind of the device; 1, 2, 8 and 10 stimulate"},

        {"logicalId", "databaseId", Type::Whole, "", true, "", 1, greatestDatabaseId, "", "", "database id, unique"},
        {"logicalId", "logDevId", Type::Whole, "", true, "", 1, greatestId, "", "", "logical device id"},

        {"parameter", "name", Type::AnyText, "", true, "", 0, longestDatabaseName, "", "", "name"},
        {"parameter", "setup", Type::Whole, "", false, "0", leastInt, greatestInt, "", "", "id of a setup; 0: none"},
        {"parameter", "user", Type::Whole, "", false, "0", leastInt, greatestInt, "", "", "id of a user; 0: none"},
        {"parameter", "text", Type::AnyText, "", true, "", 0, longestText, "", "", "what is stored"},
    };
    return keys;
}

const SRigKey* FindRigKey(const std::string& owner, const std::string& key)
{
    for (const SRigKey& candidate : RigKeys())
        if (owner == candidate.owner && key == candidate.key)
            return &candidate;
    return nullptr;
}

std::string RigKeyExpectation(const SRigKey& key)
{
    const std::string bounds = key.minimum == key.maximum
                                   ? BoundText(key.minimum)
                                   : std::string("from ") + BoundText(key.minimum) + " to " + BoundText(key.maximum);
    const std::string unit = *key.unit != '\0' ? std::string(" ") + key.unit : std::string();
    switch (key.type)
    {
    case Type::Text:
        return "a text of " + BoundText(key.minimum) + " to " + BoundText(key.maximum) +
               " bytes without control characters";
    case Type::TextList:
        return "a list of texts";
    case Type::AnyText:
        return "a text of " + BoundText(key.minimum) + " to " + BoundText(key.maximum) +
               " characters, none of them null";
    case Type::WholeListOrText:
        return "a list of whole numbers " + bounds + ", or a text";
    case Type::Flag:
        return "true or false";
    case Type::Number:
        return "a number " + bounds + unit;
    case Type::Whole:
        return (key.minimum == key.maximum ? "the number " : "a whole number ") + bounds + unit;
    case Type::Choice:
        return (std::string(key.choices).find('|') != std::string::npos ? "one of " : "") + QuotedChoices(key.choices);
    case Type::ObjectList:
        return "a list of objects";
    case Type::Object:
    case Type::AnyObject:
        break;
    }
    return "an object";
}

bool CheckRigValue(const SJsonValue& value, const SRigKey& key, SJsonFault& fault)
{
    if (!IsRight(value, key))
    {
        fault = {value.line, std::string("expected \"") + key.key + "\" to be " + RigKeyExpectation(key) + ", found " +
                                 value.Describe()};
        return false;
    }
    if (key.type == Type::Object)
        return CheckRigObject(value, key.object, fault);
    for (const SJsonValue& item : value.items)
    {
        if (key.type == Type::ObjectList && !CheckRigObject(item, key.object, fault))
            return false;
        if (key.type == Type::TextList && !IsText(item, key))
        {
            fault = {item.line, std::string("expected every item of \"") + key.key + "\" to be a text of " +
                                    BoundText(key.minimum) + " to " + BoundText(key.maximum) + " bytes, found " +
                                    item.Describe()};
            return false;
        }
        if (key.type == Type::WholeListOrText && !IsWhole(item, key))
        {
            fault = {item.line, std::string("expected every item of \"") + key.key + "\" to be a whole number from " +
                                    BoundText(key.minimum) + " to " + BoundText(key.maximum) + ", found " +
                                    item.Describe()};
            return false;
        }
    }
    return true;
}

bool CheckRigObject(const SJsonValue& value, const std::string& kind, SJsonFault& fault)
{
    if (value.kind != SJsonValue::Kind::Object)
    {
        fault = {value.line, "expected an object of the keys " + KeysOf(kind) + ", found " + value.Describe()};
        return false;
    }
    for (const SJsonValue::SMember& member : value.members)
    {
        const SRigKey* key = FindRigKey(kind, member.key);
        if (!key)
        {
            fault = {member.line,
                     "expected one of the keys " + KeysOf(kind) + ", found " + QuoteForMessage(member.key)};
            return false;
        }
        if (!CheckRigValue(member.value, *key, fault))
            return false;
    }
    for (const SRigKey& key : RigKeys())
        if (key.required && kind == key.owner && !value.Find(key.key))
        {
            fault = {value.line, std::string("expected the key \"") + key.key + "\" in this object, found none"};
            return false;
        }
    return true;
}

std::string RigSchemaMarkdown()
{
    std::string table;
    const char* owner = "";
    for (const SRigKey& key : RigKeys())
    {
        if (std::string(owner) != key.owner)
        {
            owner = key.owner;
            table += std::string(table.empty() ? "" : "\n") + "#### Object `" + owner + "`\n\n" +
                     "| Key | Value | Default | Meaning |\n|---|---|---|---|\n";
        }
        const bool nested = key.type == Type::Object || key.type == Type::ObjectList;
        table += std::string("| `") + key.key + "` | " + RigKeyExpectation(key) +
                 (nested ? std::string(" `") + key.object + "`" : std::string()) + " | " +
                 (key.required ? "required" : key.defaultValue) + " | " + key.meaning + " |\n";
    }
    return table;
}

} // namespace QsStandalone

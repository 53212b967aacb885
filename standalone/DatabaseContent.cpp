// Content of a device database as JSON.
#include "standalone/DatabaseContent.h"

#include "standalone/RigObject.h"
#include "standalone/RigSchema.h"

namespace QsStandalone {

namespace {

using Kind = SJsonValue::Kind;

constexpr const char* s_member = "deviceDatabase";

// --- reading; the table has checked everything

template <class Row, class Read>
void ReadRows(const CRigObject& content, const char* key, const char* kind, std::vector<Row>& rows, Read read)
{
    const SJsonValue* const list = content.Find(key);
    if (list == nullptr)
        return;
    for (const SJsonValue& value : list->items)
        read(CRigObject(value, kind), rows.emplace_back());
}

void ReadMicroscope(const CRigObject& root, SDatabaseContent& content)
{
    ReadRows(root, "users", "user", content.users,
             [](const CRigObject& object, SDatabaseContent::SUser& user) {
                 user = {object.Signed("id"), object.Text("name")};
             });
    ReadRows(root, "setups", "setup", content.setups,
             [](const CRigObject& object, SDatabaseContent::SSetup& setup) {
                 setup = {object.Signed("id"), object.Text("name")};
             });
    ReadRows(root, "hwConfigs", "hwConfig", content.hwConfigs,
             [](const CRigObject& object, SDatabaseContent::SHWConfig& config) {
                 config = {object.Signed("id"), object.Signed("setup"), object.Text("name")};
             });
    ReadRows(root, "logicalIds", "logicalId", content.logicalIds,
             [](const CRigObject& object, SDatabaseContent::SLogicalId& id) {
                 id = {object.Signed("databaseId"), object.Whole("logDevId")};
             });
    ReadRows(root, "parameters", "parameter", content.parameters,
             [](const CRigObject& object, SDatabaseContent::SParameter& parameter) {
                 parameter = {object.Text("name"), object.Signed("setup"), object.Signed("user"), object.Text("text")};
             });
}

void ReadBeampath(const CRigObject& object, SDatabaseContent::SBeampath& beampath)
{
    beampath.id = object.Signed("id");
    beampath.setup = object.Signed("setup");
    beampath.name = object.Text("name");
    if (const SJsonValue* const userName = object.Find("userName"))
        beampath.userName = userName->text;
    beampath.type = object.Signed("type");
    beampath.onByDefault = object.Flag("onByDefault");
    beampath.order = object.Signed("order");
    if (const SJsonValue* const merged = object.Find("merged"))
        beampath.merged = merged->kind == Kind::Text ? merged->text : WriteJson(*merged);
    beampath.line = object.Value().line;
}

void ReadBeampaths(const CRigObject& root, SDatabaseContent& content)
{
    ReadRows(root, "beampaths", "beampath", content.beampaths, ReadBeampath);
    ReadRows(root, "hwConfigBeampaths", "hwConfigBeampath", content.hwConfigBeampaths,
             [](const CRigObject& object, SDatabaseContent::SHWConfigBeampath& row)
             {
                 row.hwConfig = object.Signed("hwConfig");
                 row.beampath = object.Signed("beampath");
                 if (object.Find("behaviour") != nullptr)
                     row.behaviour = object.Signed("behaviour");
             });
    ReadRows(root, "configurations", "configuration", content.configurations,
             [](const CRigObject& object, SDatabaseContent::SConfiguration& row) {
                 row = {object.Signed("beampath"), object.Signed("logicalDevice"), object.Signed("type"),
                        object.Value().line};
             });
}

// --- writing

SJsonValue JsonText(const std::string& text)
{
    SJsonValue value;
    value.kind = Kind::Text;
    value.text = text;
    return value;
}

SJsonValue JsonNumber(double number)
{
    SJsonValue value;
    value.kind = Kind::Number;
    value.number = number;
    return value;
}

SJsonValue JsonFlag(bool flag)
{
    SJsonValue value;
    value.kind = Kind::Flag;
    value.flag = flag;
    return value;
}

// A list of whole numbers where it says exactly what stands in the table, and the text itself where it does not.
SJsonValue JsonMerged(const std::string& merged)
{
    SJsonValue list;
    SJsonFault fault;
    const SRigKey* const rule = FindRigKey("beampath", "merged");
    const bool isList = ParseJson(merged, list, fault) && list.kind == Kind::List && CheckRigValue(list, *rule, fault);
    return isList && WriteJson(list) == merged ? list : JsonText(merged);
}

using Members = std::vector<SJsonValue::SMember>;

void Add(Members& members, const char* key, SJsonValue value)
{
    members.push_back({key, 0, std::move(value)});
}

// One line for each row, so that changes show where they are.
template <class Row, class Write>
void WriteRows(std::string& json, const char* key, const std::vector<Row>& rows, bool bLast, Write write)
{
    json += std::string("    \"") + key + "\": [";
    for (const Row& row : rows)
    {
        SJsonValue object;
        object.kind = Kind::Object;
        write(row, object.members);
        json += (&row == rows.data() ? "\n      " : ",\n      ") + WriteJson(object);
    }
    json += std::string(rows.empty() ? "]" : "\n    ]") + (bLast ? "\n" : ",\n");
}

void WriteBeampath(const SDatabaseContent::SBeampath& beampath, Members& members)
{
    Add(members, "id", JsonNumber(beampath.id));
    Add(members, "setup", JsonNumber(beampath.setup));
    Add(members, "name", JsonText(beampath.name));
    if (beampath.userName)
        Add(members, "userName", JsonText(*beampath.userName));
    Add(members, "type", JsonNumber(beampath.type));
    Add(members, "onByDefault", JsonFlag(beampath.onByDefault));
    Add(members, "order", JsonNumber(beampath.order));
    if (beampath.merged)
        Add(members, "merged", JsonMerged(*beampath.merged));
}

void WriteNamed(qs_int32 id, const std::string& name, Members& members)
{
    Add(members, "id", JsonNumber(id));
    Add(members, "name", JsonText(name));
}

void WriteHWConfig(const SDatabaseContent::SHWConfig& config, Members& members)
{
    Add(members, "id", JsonNumber(config.id));
    Add(members, "setup", JsonNumber(config.setup));
    Add(members, "name", JsonText(config.name));
}

void WriteHWConfigBeampath(const SDatabaseContent::SHWConfigBeampath& row, Members& members)
{
    Add(members, "hwConfig", JsonNumber(row.hwConfig));
    Add(members, "beampath", JsonNumber(row.beampath));
    if (row.behaviour)
        Add(members, "behaviour", JsonNumber(*row.behaviour));
}

void WriteConfiguration(const SDatabaseContent::SConfiguration& row, Members& members)
{
    Add(members, "beampath", JsonNumber(row.beampath));
    Add(members, "logicalDevice", JsonNumber(row.logicalDevice));
    Add(members, "type", JsonNumber(row.type));
}

void WriteLogicalId(const SDatabaseContent::SLogicalId& id, Members& members)
{
    Add(members, "databaseId", JsonNumber(id.databaseId));
    Add(members, "logDevId", JsonNumber(id.logDevId));
}

void WriteParameter(const SDatabaseContent::SParameter& parameter, Members& members)
{
    Add(members, "name", JsonText(parameter.name));
    Add(members, "setup", JsonNumber(parameter.setup));
    Add(members, "user", JsonNumber(parameter.user));
    Add(members, "text", JsonText(parameter.text));
}

} // namespace

bool ReadDatabaseContent(const std::string& path, SDatabaseContent& content, std::string& error)
{
    SJsonValue root;
    SJsonFault fault;
    if (!ReadJsonFile(path, root, fault))
    {
        error = fault.InFile(path);
        return false;
    }
    const SJsonValue* const format = root.Find("format");
    const bool isRig = format != nullptr && format->text == "stimulation-rig";
    if (!CheckRigObject(root, isRig ? s_rigRoot : s_databaseRoot, fault))
    {
        error = fault.InFile(path);
        return false;
    }
    const SJsonValue* const member = root.Find(s_member);
    if (member == nullptr)
    {
        fault = {root.line, std::string("expected the key \"") + s_member + "\" in this object, found none"};
        error = fault.InFile(path);
        return false;
    }
    SDatabaseContent read;
    const CRigObject object(*member, s_member);
    ReadMicroscope(object, read);
    ReadBeampaths(object, read);
    content = std::move(read);
    return true;
}

std::string DatabaseContentJson(const SDatabaseContent& content)
{
    std::string json = "{\n  \"format\": \"stimulation-database\",\n  \"version\": 1,\n  \"deviceDatabase\": {\n";
    WriteRows(json, "users", content.users, false,
              [](const SDatabaseContent::SUser& user, Members& members) { WriteNamed(user.id, user.name, members); });
    WriteRows(json, "setups", content.setups, false,
              [](const SDatabaseContent::SSetup& setup, Members& members)
              { WriteNamed(setup.id, setup.name, members); });
    WriteRows(json, "hwConfigs", content.hwConfigs, false, WriteHWConfig);
    WriteRows(json, "beampaths", content.beampaths, false, WriteBeampath);
    WriteRows(json, "hwConfigBeampaths", content.hwConfigBeampaths, false, WriteHWConfigBeampath);
    WriteRows(json, "configurations", content.configurations, false, WriteConfiguration);
    WriteRows(json, "logicalIds", content.logicalIds, false, WriteLogicalId);
    WriteRows(json, "parameters", content.parameters, true, WriteParameter);
    return json + "  }\n}\n";
}

} // namespace QsStandalone

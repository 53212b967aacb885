#include "stimhost/Inspect.h"

#include "standalone/ClassRecords.h"
#include "stimhost/Text.h"

namespace Stimhost {

namespace {

void WriteFile(CJson& json, const QsStandalone::SModuleFile& file)
{
    json.Object().Text("file", file.path).Text("format", file.format).Text("section", file.section);
    json.Text("error", file.error).Array("classes");
    for (const QsStandalone::SClassRecord& record : file.classes)
    {
        json.Object().Text("class", record.className).Text("friendlyName", record.friendlyName);
        json.Integer("version", record.version).Integer("offset", static_cast<long long>(record.offset));
        json.Array("parents");
        for (const std::string& parent : record.parents)
            json.Element(parent);
        json.EndArray().EndObject();
    }
    json.EndArray().EndObject();
}

void PrintFile(const QsStandalone::SModuleFile& file)
{
    std::string text = file.path + ": " + (file.format.empty() ? "no module" : file.format);
    text += file.section.empty() ? ", no class records\n" : ", class records in section \"" + file.section + "\"\n";
    for (const QsStandalone::SClassRecord& record : file.classes)
    {
        text += "  " + Padded(record.className, 36) + " version " + std::to_string(record.version) + "  \"" +
                record.friendlyName + "\"  at " + std::to_string(record.offset) + "\n";
        for (const std::string& parent : record.parents)
            text += parent.empty() ? "" : "    is a " + parent + "\n";
    }
    Print(text);
}

} // namespace

int Inspect(const SOptions& options)
{
    int code = eExitDone;
    CJson json;
    json.Object().Integer("version", 1).Array("files");
    for (const std::string& path : options.files)
    {
        const QsStandalone::SModuleFile file = QsStandalone::ReadModuleFile(path);
        if (options.json)
            WriteFile(json, file);
        else if (file.error.empty() || !file.classes.empty())
            PrintFile(file);
        if (!file.error.empty())
        {
            Complain(file.error);
            code = eExitBadUse;
        }
    }
    json.EndArray().EndObject();
    if (options.json)
        Print(json.Take());
    return code;
}

} // namespace Stimhost

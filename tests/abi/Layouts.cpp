#include "tests/abi/Layouts.h"

#include <algorithm>
#include <regex>
#include <sstream>

namespace QsTest {

namespace {

std::vector<std::string> Lines(const std::string& text)
{
    std::vector<std::string> lines;
    std::istringstream stream(text);
    for (std::string line; std::getline(stream, line);)
        lines.push_back(line);
    return lines;
}

// The lines behind the first one that begins with `head`, up to a blank one.
std::vector<std::string> Paragraph(const std::string& text, const std::string& head)
{
    const std::vector<std::string> lines = Lines(text);
    const auto isHead = [&head](const std::string& line) { return line.compare(0, head.size(), head) == 0; };
    auto first = std::find_if(lines.begin(), lines.end(), isHead);
    if (first == lines.end())
        return {};
    const auto isBlank = [](const std::string& line) { return line.find_first_not_of(' ') == std::string::npos; };
    return {++first, std::find_if(first, lines.end(), isBlank)};
}

// Text behind "<number> | "; nothing for the lines between the entries.
std::optional<std::string> Entry(const std::string& line)
{
    static const std::regex entry("^ *[0-9]+ \\| (.*)$");
    std::smatch match;
    if (!std::regex_match(line, match, entry))
        return std::nullopt;
    return match[1].str();
}

bool Has(const std::string& text, const std::string& part)
{
    return text.find(part) != std::string::npos;
}

// Appends the slot of an entry. The Itanium ABI has two entries for a destructor, of which the second, which also frees
// the memory, counts here.
void AppendSlot(std::vector<SGoldenSlot>& slots, const std::string& entry)
{
    static const std::string pure = " [pure]";
    if (Has(entry, "[complete]"))
        return;
    if (Has(entry, "deleting]"))
    {
        slots.push_back({"destructor", true});
        return;
    }
    const bool isPure = Has(entry, pure);
    slots.push_back({Spelled(isPure ? entry.substr(0, entry.size() - pure.size()) : entry), !isPure});
}

std::string Said(const SGoldenSlot& slot)
{
    return slot.operation + (slot.hasBody ? "" : " = 0");
}

void CompareTable(const SGoldenTable& golden, const SAnswer& layouts, const SAbi& abi,
                  std::vector<std::string>& differences)
{
    const std::string name = golden.interface + " of " + golden.example;
    // Nothing but a class with bodies for all has a table of its own in the other ABI.
    const bool isAbstract =
        std::any_of(golden.slots.begin(), golden.slots.end(), [](const SGoldenSlot& slot) { return !slot.hasBody; });
    if (!abi.microsoft && golden.afterRoot && isAbstract)
        return;

    const std::optional<std::vector<SGoldenSlot>> found = FindTable(layouts, abi, golden.interface, golden.example);
    if (!found)
    {
        differences.push_back(name + ": no table");
        return;
    }
    std::vector<SGoldenSlot> expected;
    if (!abi.microsoft && golden.afterRoot)
        for (const SGoldenSlot& slot : GoldenRoot().slots)
            expected.push_back({slot.operation, true});
    const std::size_t before = expected.size();
    expected.insert(expected.end(), golden.slots.begin(), golden.slots.end());

    for (std::size_t i = 0; i < std::max(expected.size(), found->size()); ++i)
    {
        if (i >= expected.size() && !abi.microsoft && golden.hasMoreBases)
            break;
        const std::string must =
            i < expected.size() ? Said({Spelled(expected[i].operation), expected[i].hasBody}) : "nothing";
        const std::string is = i < found->size() ? Said((*found)[i]) : "nothing";
        if (must != is)
            differences.push_back(name + ", slot " + std::to_string(static_cast<long>(i) - static_cast<long>(before)) +
                                  ": " + is + " instead of " + must);
    }
}

void CompareRecord(const SGoldenRecord& golden, const SAnswer& layouts, std::vector<std::string>& differences)
{
    const std::optional<SGoldenRecord> found = FindRecord(layouts, golden.name);
    if (!found)
    {
        differences.push_back(golden.name + ": no layout");
        return;
    }
    if (found->size != golden.size || found->alignment != golden.alignment)
        differences.push_back(golden.name + ": " + std::to_string(found->size) + " bytes at multiples of " +
                              std::to_string(found->alignment));
    const auto said = [](const std::vector<SGoldenField>& fields, std::size_t i)
    {
        return i < fields.size()
                   ? Spelled(fields[i].type) + " " + fields[i].name + " at " + std::to_string(fields[i].offset)
                   : std::string("nothing");
    };
    for (std::size_t i = 0; i < std::max(golden.fields.size(), found->fields.size()); ++i)
        if (said(golden.fields, i) != said(found->fields, i))
            differences.push_back(golden.name + ": " + said(found->fields, i) + " instead of " +
                                  said(golden.fields, i));
}

// The lines of a record's layout, from its own to the one before its size, and the size line.
std::vector<std::string> RecordLines(const SAnswer& layouts, const std::string& name)
{
    const std::string head = "*** Dumping AST Record Layout";
    const std::vector<std::string> lines = Lines(layouts.text);
    static const std::regex named("^ *0 \\| (?:class|struct) (.*)$");
    for (auto line = lines.begin(); line != lines.end(); ++line)
    {
        std::smatch match;
        if (*line != head || line + 1 == lines.end() || !std::regex_match(*(line + 1), match, named) ||
            match[1].str() != name)
            continue;
        auto last = line + 1;
        while (last != lines.end() && !Has(*last, "[sizeof="))
            ++last;
        if (last == lines.end())
            return {};
        return {line + 1, last + 1};
    }
    return {};
}

} // namespace

std::string Spelled(const std::string& declaration)
{
    static const std::regex qualifier("\\b[A-Za-z_]\\w*::");
    static const std::regex tag("\\b(?:class|struct) ");
    static const std::regex truth("\\b_Bool\\b");
    std::string text = std::regex_replace(declaration, qualifier, "");
    text = std::regex_replace(text, tag, "");
    text = std::regex_replace(text, truth, "bool");
    const auto isWord = [](char c) { return std::isalnum(static_cast<unsigned char>(c)) != 0 || c == '_'; };
    std::string spelled;
    for (std::size_t i = 0; i < text.size(); ++i)
        if (text[i] != ' ' || (i > 0 && i + 1 < text.size() && isWord(text[i - 1]) && isWord(text[i + 1])))
            spelled += text[i];
    return spelled;
}

std::optional<std::vector<SGoldenSlot>> FindTable(const SAnswer& layouts, const SAbi& abi, const std::string& interface,
                                                  const std::string& example)
{
    const std::string type = "LaidOut::" + example;
    std::vector<SGoldenSlot> slots;
    if (abi.microsoft)
    {
        // "VFTable for 'A' in 'B' in 'C' (n entries)."; a class that derives from another device has that one between.
        std::vector<std::string> lines;
        for (const std::string& line : Lines(layouts.text))
            if (line.compare(0, 15 + interface.size(), "VFTable for '" + interface + "' ") == 0 &&
                Has(line, " in '" + type + "' ("))
                lines = Paragraph(layouts.text, line);
        bool isAfterType = false;
        for (const std::string& line : lines)
        {
            const std::optional<std::string> entry = Entry(line);
            if (!entry)
                continue;
            // What the table points to stands in front of it.
            if (!isAfterType && Has(*entry, " RTTI"))
                isAfterType = true;
            else
                AppendSlot(slots, *entry);
        }
        if (!isAfterType)
            return std::nullopt;
        return slots;
    }

    bool isInside = false;
    for (const std::string& line : Paragraph(layouts.text, "Vtable for '" + type + "' ("))
    {
        const std::optional<std::string> entry = Entry(line);
        if (!isInside)
            isInside = Has(line, "-- (" + interface + ", 0) vtable address --");
        else if (entry &&
                 (Has(*entry, "vbase_offset (") || Has(*entry, "vcall_offset (") || Has(*entry, "offset_to_top (")))
            break; // the table of another base
        else if (entry)
            AppendSlot(slots, *entry);
    }
    if (!isInside)
        return std::nullopt;
    return slots;
}

std::optional<SGoldenRecord> FindRecord(const SAnswer& layouts, const std::string& name)
{
    const std::vector<std::string> lines = RecordLines(layouts, name);
    if (lines.empty())
        return std::nullopt;
    SGoldenRecord record = {name, 0, 0, {}};
    static const std::regex field("^ *([0-9]+) \\|   ([^ ].*[ *&])([A-Za-z_]\\w*)$");
    static const std::regex size("\\[sizeof=([0-9]+),.*\\balign=([0-9]+)");
    for (const std::string& line : lines)
    {
        std::smatch match;
        if (std::regex_match(line, match, field))
            record.fields.push_back({match[3].str(), Spelled(match[2].str()), std::stoul(match[1].str())});
        else if (std::regex_search(line, match, size))
        {
            record.size = std::stoul(match[1].str());
            record.alignment = std::stoul(match[2].str());
        }
    }
    return record;
}

std::vector<std::string> FindBases(const SAnswer& layouts, const std::string& name)
{
    std::vector<std::string> bases;
    static const std::regex base("^ *[0-9]+ \\|   class (\\w+) \\((?:primary )?base\\)(?: \\(empty\\))?$");
    for (const std::string& line : RecordLines(layouts, name))
    {
        std::smatch match;
        if (std::regex_match(line, match, base))
            bases.push_back(match[1].str());
    }
    return bases;
}

std::vector<std::string> Differences(const SAnswer& layouts, const SAbi& abi)
{
    std::vector<std::string> differences;
    CompareTable(GoldenRoot(), layouts, abi, differences);
    for (const SGoldenTable& table : GoldenTables())
        CompareTable(table, layouts, abi, differences);
    for (const SGoldenRecord& record : GoldenRecords())
        CompareRecord(record, layouts, differences);
    for (const SGoldenBases& golden : GoldenBasesOfClasses())
        if (FindBases(layouts, golden.name) != golden.bases)
            differences.push_back(golden.name + ": other bases, or in another order");
    return differences;
}

} // namespace QsTest

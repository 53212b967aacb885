// The writer of settings files.
#include "platform/Utf16.h"
#include "standalone/Crc64.h"
#include "standalone/SettingsFile.h"
#include "standalone/SettingsText.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <cmath>
#include <cstring>

namespace QsStandalone {

namespace {

using Level = SQsLiteLevel::Level;
using SEntry = SQsLiteLevel::SEntry;

bool IsHigh(char32_t unit)
{
    return unit >= 0xD800 && unit < 0xDC00;
}

bool IsLow(char32_t unit)
{
    return unit >= 0xDC00 && unit < 0xE000;
}

void AppendEscape(std::string& json, char32_t unit)
{
    json += "\\u";
    const std::string digits = Hex64(unit);
    json.append(digits, s_digits64 - s_escapedDigits, s_escapedDigits);
}

void AppendUtf8(std::string& json, char32_t code)
{
    const auto put = [&json](char32_t byte) { json += static_cast<char>(static_cast<unsigned char>(byte)); };
    if (code >= 0x10000)
    {
        put(0xF0 | (code >> 18));
        put(0x80 | ((code >> 12) & 0x3F));
    }
    else if (code >= 0x800)
        put(0xE0 | (code >> 12));
    if (code >= 0x800)
        put(0x80 | ((code >> 6) & 0x3F));
    else
        put(0xC0 | (code >> 6));
    put(0x80 | (code & 0x3F));
}

std::string Quoted(const CQsStringW& text)
{
    const std::wstring& wide = text.Std();
    const bool plain =
        std::all_of(wide.begin(), wide.end(), [](wchar_t c) { return c >= 0x20 && c < 0x7F && c != '"' && c != '\\'; });
    if (plain)
    {
        std::string json(wide.size() + 2, '"');
        std::transform(wide.begin(), wide.end(), json.begin() + 1, [](wchar_t c) { return static_cast<char>(c); });
        return json;
    }
    std::string json = "\"";
    const std::u16string units = QsToUtf16(wide);
    for (std::size_t i = 0; i < units.size(); ++i)
    {
        const char32_t unit = units[i];
        if (unit == '"' || unit == '\\')
            (json += '\\') += static_cast<char>(unit);
        else if (unit >= 0x20 && unit < 0x7F)
            json += static_cast<char>(unit);
        else if (unit == '\n')
            json += "\\n";
        else if (IsHigh(unit) && i + 1 < units.size() && IsLow(units[i + 1]))
            AppendUtf8(json, 0x10000 + ((unit - 0xD800) << 10) + (char32_t{units[++i]} - 0xDC00));
        else if (unit == 0 || IsHigh(unit) || IsLow(unit))
        {
            AppendEscape(json, 0);
            json.append(Hex64(unit), s_digits64 - s_escapedDigits, s_escapedDigits);
        }
        else if (unit < 0x20 || unit == 0x7F)
            AppendEscape(json, unit);
        else
            AppendUtf8(json, unit);
    }
    return json += '"';
}

class CWriter
{
public:
    CWriter(std::string& json, bool compact) : m_json(json), m_compact(compact) {}

    bool Write(const SQsLiteLevel& root)
    {
        m_json += '{';
        Line(1);
        Member("format", "\"" + std::string(s_settingsFormat) + "\",");
        Line(1);
        Member("version", "1,");
        Line(1);
        Member("entries", "");
        if (!WriteList(root, 1))
            return false;
        m_json += ',';
        Line(1);
        const std::uint64_t sum = Crc64(m_json.data(), m_json.size());
        Member("sum", "\"" + Hex64(sum) + "\"");
        Line(0);
        m_json += "}\n";
        return true;
    }

private:
    void Line(std::size_t indentation)
    {
        if (m_compact)
            return;
        m_json += '\n';
        m_json.append(indentation * 2, ' ');
    }

    void Member(const char* key, const std::string& value)
    {
        ((((m_json += '"') += key) += '"') += (m_compact ? ":" : ": ")) += value;
    }

    // Most names stand many times, a few of them alternately.
    void WriteName(const CSettingsName& name)
    {
        SQuoted& quoted = m_quoted[name.Hash() % m_quoted.size()];
        if (quoted.name != name.Identity())
            quoted = {name.Identity(), Quoted(name.Text()) + (m_compact ? ":" : ": ")};
        m_json += quoted.json;
    }

    bool WriteList(const SQsLiteLevel& level, std::size_t depth)
    {
        if (depth > s_deepestSettings + 1)
            return false;
        m_json += '[';
        const SQsLiteLevel::Entries& entries = level.All();
        const bool inOneLine = m_compact || (depth > 1 && IsShort(level));
        for (std::size_t i = 0; i < entries.size(); ++i)
        {
            if (!inOneLine)
                Line(depth + 1);
            else if (i > 0 && !m_compact)
                m_json += ' ';
            m_json += '{';
            WriteName(entries[i].name);
            if (!WriteValue(entries[i].value, depth))
                return false;
            m_json += i + 1 < entries.size() ? "}," : "}";
        }
        if (!inOneLine && !entries.empty())
            Line(depth);
        m_json += ']';
        return true;
    }

    // A row of numbers is read best as one.
    static bool IsShort(const SQsLiteLevel& level)
    {
        constexpr std::size_t most = 4;
        if (level.All().size() > most)
            return false;
        for (const SEntry& entry : level.All())
            if (!std::holds_alternative<double>(entry.value) && !std::holds_alternative<bool>(entry.value) &&
                !std::holds_alternative<std::uint32_t>(entry.value))
                return false;
        return true;
    }

    bool WriteValue(const SQsLiteLevel::Value& value, std::size_t depth)
    {
        if (const auto* const number = std::get_if<double>(&value))
            WriteDouble(*number);
        else if (const auto* const level = std::get_if<Level>(&value))
            return WriteList(**level, depth + 1);
        else if (const auto* const flag = std::get_if<bool>(&value))
            m_json += *flag ? "true" : "false";
        else if (const auto* const whole = std::get_if<std::uint32_t>(&value))
            WriteTyped("unsigned", std::to_string(*whole));
        else if (const auto* const text = std::get_if<SQsLiteLevel::Text>(&value))
            m_json += Quoted(**text);
        else
            WriteTyped("binary", Quoted(std::get<SQsLiteLevel::BytesPointer>(value)));
        return true;
    }

    // The shortest digits that read back as the same number. JSON has no others than finite ones.
    void WriteDouble(double number)
    {
        if (!std::isfinite(number))
        {
            std::uint64_t bits = 0;
            std::memcpy(&bits, &number, sizeof bits);
            WriteTyped("double", "\"" + Hex64(bits) + "\"");
            return;
        }
        std::array<char, 32> digits{};
        const std::to_chars_result end = std::to_chars(digits.data(), digits.data() + digits.size(), number);
        m_json.append(digits.data(), end.ptr);
    }

    void WriteTyped(const char* type, const std::string& value)
    {
        m_json += '{';
        Member(type, value);
        m_json += '}';
    }

    static std::string Quoted(const SQsLiteLevel::BytesPointer& bytes)
    {
        std::string json = "\"";
        for (const unsigned char byte : *bytes)
            (json += "0123456789abcdef"[byte >> 4]) += "0123456789abcdef"[byte & 15];
        return json += '"';
    }
    static std::string Quoted(const CQsStringW& text) { return QsStandalone::Quoted(text); }

    struct SQuoted
    {
        const void* name = nullptr;
        std::string json;
    };

    std::string& m_json;
    bool m_compact;
    std::array<SQuoted, 64> m_quoted;
};

} // namespace

std::string Hex64(std::uint64_t number)
{
    std::string digits(s_digits64, '0');
    for (std::size_t i = s_digits64; i-- > 0; number >>= 4)
        digits[i] = "0123456789abcdef"[number & 15];
    return digits;
}

std::string WriteSettings(const SQsLiteLevel& root, bool compact, std::size_t expected, std::string& error)
{
    std::string json;
    json.reserve(expected);
    if (!CWriter(json, compact).Write(root))
        error = "expected at most " + std::to_string(s_deepestSettings) + " levels in each other, found more";
    else if (json.size() > s_longestSettings)
        error = "expected settings of at most " + std::to_string(s_longestSettings >> 20) + " MiB, found more";
    else
        return json;
    return {};
}

} // namespace QsStandalone

#include "standalone/SettingsFile.h"

#include "platform/AtomicFile.h"
#include "platform/ThreadSafety.h"
#include "platform/Utf16.h"
#include "standalone/Crc64.h"
#include "standalone/FileContents.h"

#include <rapidjson/reader.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <cmath>
#include <cstring>
#include <filesystem>
#include <memory_resource>
#include <optional>
#include <string_view>
#include <system_error>
#include <unordered_map>

namespace QsStandalone {

namespace {

using Level = SQsLiteLevel::Level;
using SEntry = SQsLiteLevel::SEntry;

constexpr std::string_view s_format = "stimulation-settings";
constexpr std::size_t s_digits64 = 16;

bool IsHigh(char32_t unit)
{
    return unit >= 0xD800 && unit < 0xDC00;
}

bool IsLow(char32_t unit)
{
    return unit >= 0xDC00 && unit < 0xE000;
}

std::string Hex64(std::uint64_t number)
{
    std::string digits(s_digits64, '0');
    for (std::size_t i = s_digits64; i-- > 0; number >>= 4)
        digits[i] = "0123456789abcdef"[number & 15];
    return digits;
}

int HexDigit(char digit)
{
    if (digit >= '0' && digit <= '9')
        return digit - '0';
    return digit >= 'a' && digit <= 'f' ? digit - 'a' + 10 : -1;
}

// Exactly as many small digits as `digits` has characters.
bool FromHex(std::string_view digits, std::uint64_t& number)
{
    number = 0;
    for (const char character : digits)
    {
        const int digit = HexDigit(character);
        if (digit < 0)
            return false;
        number = number << 4 | static_cast<std::uint64_t>(digit);
    }
    return true;
}

// ------------------------------------------------------------------------------------------------------------- texts
//
// What JSON's texts cannot hold everywhere, the null character and surrogates that are no pair, stands as a null
// character with four hex digits behind it.

constexpr std::size_t s_escapedDigits = 4;

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

bool AppendDecoded(std::wstring& text, std::string_view utf8)
{
    std::size_t ascii = 0;
    while (ascii < utf8.size() && static_cast<unsigned char>(utf8[ascii]) < 0x80)
        ++ascii;
    if (ascii == utf8.size())
    {
        text.append(utf8.begin(), utf8.end());
        return true;
    }
    const std::string bytes(utf8);
    const CQsStringW decoded = CQsStringW::FromUtf8(bytes);
    text += decoded.Std();
    return decoded.ToUtf8() == bytes; // malformed bytes have become something else
}

// False for bytes that are no UTF-8, and for a null character without its digits.
bool Decode(std::string_view utf8, CQsStringW& text)
{
    std::wstring decoded;
    for (std::size_t begin = 0;;)
    {
        const std::size_t escape = utf8.find('\0', begin);
        if (!AppendDecoded(decoded, utf8.substr(begin, escape - begin)))
            return false;
        if (escape == std::string_view::npos)
            break;
        std::uint64_t unit = 0;
        const std::string_view digits = utf8.substr(escape + 1, s_escapedDigits);
        std::string small(digits); // the digits of JSON's own escapes may be capitals, so ours may
        for (char& digit : small)
            if (digit >= 'A' && digit <= 'F')
                digit = static_cast<char>(digit - 'A' + 'a');
        if (small.size() != s_escapedDigits || !FromHex(small, unit))
            return false;
        decoded += static_cast<wchar_t>(unit);
        begin = escape + 1 + s_escapedDigits;
    }
    text = CQsStringW(std::move(decoded));
    return true;
}

// ------------------------------------------------------------------------------------------------------------ writing

class CWriter
{
public:
    CWriter(std::string& json, bool compact) : m_json(json), m_compact(compact) {}

    bool Write(const SQsLiteLevel& root)
    {
        m_json += '{';
        Line(1);
        Member("format", "\"" + std::string(s_format) + "\",");
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

// ------------------------------------------------------------------------------------------------------------ reading

// Takes the parser's events and builds the store. A handler answers false to end the parse.
class CBuilder
{
public:
    CBuilder(const char* text, std::size_t length)
        : m_text(text), m_memory(std::make_shared<std::pmr::monotonic_buffer_resource>(length)), m_names(&m_namesMemory)
    {}

    bool Null() { return Unexpected("null"); }
    bool Bool(bool flag) { return m_state == EState::Value ? Add(flag) : Unexpected(flag ? "true" : "false"); }
    bool Int(int) { return false; } // numbers come as they stand in the file
    bool Uint(unsigned) { return false; }
    bool Int64(std::int64_t) { return false; }
    bool Uint64(std::uint64_t) { return false; }
    bool Double(double) { return false; }
    bool RawNumber(const char* digits, rapidjson::SizeType length, bool)
    {
        const std::string_view number(digits, length);
        if (m_state == EState::Value)
        {
            double value = 0.0;
            const std::from_chars_result end = std::from_chars(digits, digits + length, value);
            return end.ec == std::errc() && end.ptr == digits + length
                       ? Add(value)
                       : Fail("expected a number that a double can hold, found " + std::string(number));
        }
        if (m_state == EState::TypedValue && m_type == EType::Unsigned)
        {
            std::uint32_t value = 0;
            const std::from_chars_result end = std::from_chars(digits, digits + length, value);
            return end.ec == std::errc() && end.ptr == digits + length ? Add(value) : Unexpected(std::string(number));
        }
        if (m_state != EState::RootValue || m_member != eVersion || number != "1")
            return Unexpected(std::string(number));
        m_state = EState::RootKey;
        ++m_member;
        return true;
    }
    bool String(const char* text, rapidjson::SizeType length, bool)
    {
        const std::string_view value(text, length);
        switch (m_state)
        {
        case EState::Value:
            return AddText(value);
        case EState::TypedValue:
            return AddTyped(value);
        case EState::RootValue:
            if (m_member == eSum && value.size() == s_digits64 && FromHex(value, m_sum.emplace()))
                break;
            if (m_member == eFormat && value == s_format)
                break;
            [[fallthrough]];
        default:
            return Unexpected(QuoteForMessage(std::string(value)));
        }
        m_state = EState::RootKey;
        ++m_member;
        return true;
    }
    bool StartObject()
    {
        switch (m_state)
        {
        case EState::Begin:
            m_state = EState::RootKey;
            return true;
        case EState::List:
            m_state = EState::Key;
            return true;
        case EState::Value:
            m_state = EState::TypedKey;
            return true;
        default:
            return Unexpected("an object");
        }
    }
    bool Key(const char* text, rapidjson::SizeType length, bool)
    {
        const std::string_view key(text, length);
        switch (m_state)
        {
        case EState::RootKey:
            if (m_member == eMembers || key != s_members[m_member])
                break;
            if (m_member == eSum)
                m_summed = static_cast<std::size_t>(text - m_text) - 1; // up to the quote before the key
            m_state = EState::RootValue;
            return true;
        case EState::Key:
            m_state = EState::Value;
            return TakeName(key);
        case EState::TypedKey:
            if (!TakeType(key))
                break;
            m_state = EState::TypedValue;
            return true;
        default:
            break;
        }
        return Unexpected("the key " + QuoteForMessage(std::string(key)));
    }
    bool EndObject(rapidjson::SizeType)
    {
        if (m_state == EState::EntryEnd)
            m_state = EState::List;
        else if (m_state == EState::TypedEnd)
            m_state = EState::EntryEnd;
        else if (m_state == EState::RootKey && m_member >= eSum)
            m_state = EState::End;
        else
            return Unexpected("the end of the object");
        return true;
    }
    bool StartArray()
    {
        if (m_state != EState::Value && (m_state != EState::RootValue || m_member != eEntries))
            return Unexpected("a list");
        if (m_levels.size() > s_deepestSettings)
            return Fail("expected at most " + std::to_string(s_deepestSettings) + " levels in each other, found more");
        m_levels.push_back({m_name, m_entries.size()});
        m_state = EState::List;
        return true;
    }
    bool EndArray(rapidjson::SizeType)
    {
        const SOpen open = m_levels.back(); // the parser lets no list end that did not begin
        m_levels.pop_back();
        auto level = std::allocate_shared<const SQsLiteLevel>(CKeepingAllocator<SQsLiteLevel>(m_memory),
                                                              m_entries.data() + open.first,
                                                              m_entries.size() - open.first, m_memory.get());
        m_entries.erase(m_entries.begin() + static_cast<std::ptrdiff_t>(open.first), m_entries.end());
        if (m_levels.empty())
        {
            m_root = std::move(level);
            m_state = EState::RootKey;
            ++m_member;
            return true;
        }
        m_entries.push_back({*open.name, std::move(level)});
        m_state = EState::EntryEnd;
        return true;
    }

    const std::string& Fault() const { return m_fault; } // empty while all is right
    const Level& Root() const { return m_root; }
    const std::optional<std::uint64_t>& Sum() const { return m_sum; }
    std::size_t SummedBytes() const { return m_summed; }

private:
    enum class EState
    {
        Begin,
        RootKey,
        RootValue,
        List, // before an entry or the end of the list
        Key,
        Value,
        EntryEnd,
        TypedKey,
        TypedValue,
        TypedEnd,
        End
    };
    enum EMember : std::size_t
    {
        eFormat,
        eVersion,
        eEntries,
        eSum,
        eMembers
    };
    enum class EType
    {
        Unsigned,
        Binary,
        Double
    };
    static constexpr std::array<std::string_view, eMembers> s_members = {"format", "version", "entries", "sum"};

    struct SOpen
    {
        const CSettingsName* name; // null: the root
        std::size_t first;         // of its entries so far
    };

    template <class Value>
    bool Add(Value&& value)
    {
        m_entries.push_back({*m_name, std::forward<Value>(value)});
        m_state = m_state == EState::TypedValue ? EState::TypedEnd : EState::EntryEnd;
        return true;
    }

    bool AddText(std::string_view utf8)
    {
        CQsStringW text;
        return Decode(utf8, text) ? Add(std::make_shared<const CQsStringW>(std::move(text))) : WrongText();
    }

    bool AddTyped(std::string_view digits)
    {
        std::uint64_t number = 0;
        if (m_type == EType::Double && digits.size() == s_digits64 && FromHex(digits, number))
        {
            double value = 0.0;
            std::memcpy(&value, &number, sizeof value);
            return Add(value);
        }
        if (m_type != EType::Binary || digits.size() % 2 != 0)
            return Unexpected(QuoteForMessage(std::string(digits)));
        auto bytes = std::make_shared<SQsLiteLevel::Bytes>(digits.size() / 2);
        for (std::size_t i = 0; i < bytes->size(); ++i)
        {
            if (!FromHex(digits.substr(2 * i, 2), number))
                return Unexpected(QuoteForMessage(std::string(digits)));
            (*bytes)[i] = static_cast<unsigned char>(number);
        }
        return Add(SQsLiteLevel::BytesPointer(std::move(bytes)));
    }

    // Most names stand many times, a few of them alternately: those are found without a hash.
    bool TakeName(std::string_view utf8)
    {
        const std::size_t ends =
            utf8.empty() ? 0 : static_cast<unsigned char>(utf8.front()) * 5u + static_cast<unsigned char>(utf8.back());
        const std::pair<const std::string_view, CSettingsName>*& recent =
            m_recent[(utf8.size() * 11 + ends) % m_recent.size()];
        if (recent == nullptr || recent->first != utf8)
        {
            auto known = m_names.find(utf8);
            if (known == m_names.end())
            {
                CQsStringW name;
                if (!Decode(utf8, name))
                    return WrongText();
                known = m_names.emplace(utf8, CSettingsName(std::move(name), m_memory)).first;
            }
            recent = &*known;
        }
        m_name = &recent->second;
        return true;
    }

    bool TakeType(std::string_view key)
    {
        constexpr std::array<std::string_view, 3> types = {"unsigned", "binary", "double"};
        for (std::size_t i = 0; i < types.size(); ++i)
        {
            if (key == types[i])
            {
                m_type = static_cast<EType>(i);
                return true;
            }
        }
        return false;
    }

    std::string Expected() const
    {
        switch (m_state)
        {
        case EState::Begin:
            return "a settings file, an object";
        case EState::RootKey:
            return m_member < eMembers ? "the key \"" + std::string(s_members[m_member]) + "\"" : "the object's end";
        case EState::RootValue:
            return m_member == eFormat    ? "\"format\" to be \"" + std::string(s_format) + "\""
                   : m_member == eVersion ? std::string("\"version\" to be 1")
                   : m_member == eEntries ? std::string("a list of entries")
                                          : std::string("an end sum of 16 digits");
        case EState::List:
            return "an entry, an object with one key";
        case EState::Key:
            return "the name of an entry";
        case EState::Value:
            return "a number, a text, true, false, a list of entries or a typed value";
        case EState::TypedKey:
            return "the key \"unsigned\", \"binary\" or \"double\"";
        case EState::TypedValue:
            return m_type == EType::Unsigned ? "a whole number from 0 to 4294967295"
                   : m_type == EType::Binary ? "bytes of two digits each"
                                             : "the 16 digits of a double";
        case EState::EntryEnd:
        case EState::TypedEnd:
            return "one key in this object";
        case EState::End:
            break;
        }
        return "the end of the file";
    }

    bool WrongText() { return Fail("expected a text in UTF-8, found other bytes"); }
    bool Unexpected(const std::string& found) { return Fail("expected " + Expected() + ", found " + found); }
    bool Fail(const std::string& fault)
    {
        m_fault = fault;
        return false;
    }

    const char* m_text;
    SettingsMemory m_memory;
    std::pmr::monotonic_buffer_resource m_namesMemory;
    std::pmr::unordered_map<std::string_view, CSettingsName>
        m_names; // by their bytes in the parsed text, which outlives it
    std::array<const std::pair<const std::string_view, CSettingsName>*, 64> m_recent{};
    std::vector<SEntry> m_entries; // of the open levels, one behind the other
    std::vector<SOpen> m_levels;
    const CSettingsName* m_name = nullptr;
    EState m_state = EState::Begin;
    std::size_t m_member = eFormat;
    EType m_type = EType::Unsigned;
    Level m_root;
    std::optional<std::uint64_t> m_sum;
    std::size_t m_summed = 0;
    std::string m_fault;
};

// Null with the fault; `fits` says whether the end sum does. A file without one was edited by hand and fits.
Level Parse(const std::string& text, bool& fits, SJsonFault& fault)
{
    std::string parsed(text); // the parser decodes texts in their place
    rapidjson::InsituStringStream stream(parsed.data());
    CBuilder builder(parsed.data(), parsed.size());
    rapidjson::Reader reader;
    constexpr unsigned flags = rapidjson::kParseInsituFlag | rapidjson::kParseNumbersAsStringsFlag;
    const rapidjson::ParseResult result = reader.Parse<flags>(stream, builder);
    if (!builder.Fault().empty())
    {
        fault = {JsonLineAt(text, stream.Tell()), builder.Fault()};
        return nullptr;
    }
    if (result.IsError())
    {
        fault = JsonSyntaxFault(text, result.Code(), result.Offset());
        return nullptr;
    }
    if (stream.Tell() != text.size()) // the parser takes a zero byte for the end
    {
        fault = {JsonLineAt(text, stream.Tell()), "expected text, found a zero byte"};
        return nullptr;
    }
    const std::uint64_t sum = builder.Sum() ? Crc64(text.data(), builder.SummedBytes()) : 0;
    fits = !builder.Sum() || (*builder.Sum() == sum && text.back() == '\n');
    if (!fits)
        fault = {JsonLineAt(text, text.size() - 1), "expected the end sum " + Hex64(sum) + " and a line end, found " +
                                                        Hex64(*builder.Sum()) + ": the file was cut or altered"};
    return builder.Root();
}

// -------------------------------------------------------------------------------------------------------------- files

// The last file that was read or written whole.
struct SKept
{
    CQsMutex lock;
    std::shared_ptr<const std::string> text QS_GUARDED_BY(lock);
    Level root QS_GUARDED_BY(lock);
};

SKept& Kept()
{
    static SKept& kept = *new SKept; // never destroyed: threads may read files until the process ends
    return kept;
}

void Keep(std::string&& text, const Level& root)
{
    constexpr std::size_t longest = std::size_t{32} << 20; // a larger one is not worth its memory
    if (text.size() > longest)
        return;
    auto shared = std::make_shared<const std::string>(std::move(text));
    Level keptRoot = root;
    SKept& kept = Kept();
    const CQsScopedLock<CQsMutex> guard(kept.lock);
    kept.text.swap(shared); // what was kept goes after the lock
    kept.root.swap(keptRoot);
}

Level KeptFor(const std::string& text)
{
    std::shared_ptr<const std::string> keptText;
    Level root;
    {
        SKept& kept = Kept();
        const CQsScopedLock<CQsMutex> guard(kept.lock);
        keptText = kept.text;
        root = kept.root;
    }
    return keptText != nullptr && *keptText == text ? root : nullptr;
}

struct SRead
{
    ESettingsFile state = ESettingsFile::Missing;
    bool fits = true; // of Whole: the end sum does
    std::string text;
    Level root;
    std::string error;
};

SRead ReadFile(const std::string& path)
{
    namespace fs = std::filesystem;
    SRead read;
    if (!ReadFileContents(path, s_longestSettings, read.text, read.error))
    {
        std::error_code ignored;
        const fs::file_status status = fs::status(fs::u8path(path), ignored);
        const bool tooLong =
            fs::is_regular_file(status) && fs::file_size(fs::u8path(path), ignored) > s_longestSettings;
        read.state = status.type() == fs::file_type::not_found ? ESettingsFile::Missing
                     : tooLong && !ignored                     ? ESettingsFile::Damaged
                                                               : ESettingsFile::Unreadable;
        return read;
    }
    read.root = KeptFor(read.text);
    if (read.root == nullptr)
    {
        SJsonFault fault;
        read.root = Parse(read.text, read.fits, fault);
        if (read.root == nullptr || !read.fits)
            read.error = fault.InFile(path);
    }
    read.state = read.root != nullptr ? ESettingsFile::Whole : ESettingsFile::Damaged;
    return read;
}

bool KeepAside(const std::string& path, const std::string& why, std::string& error)
{
    std::string kept;
    if (!QsPlatform::KeepFileAside(path, ".damaged", kept, error))
        return false;
    DiagOutputExW(L"Settings", __LINE__, L"%hs; kept as %hs", why.c_str(), kept.c_str());
    return true;
}

} // namespace

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

Level ParseSettings(const std::string& text, bool check, SJsonFault& fault)
{
    bool fits = false;
    Level root = Parse(text, fits, fault);
    return fits || !check ? root : nullptr;
}

ESettingsFile ReadSettingsFile(const std::string& path, bool check, Level& root, std::string& error)
{
    SRead read = ReadFile(path);
    if (read.state == ESettingsFile::Whole && !read.fits && check)
        read.state = ESettingsFile::Damaged;
    if (read.state != ESettingsFile::Whole)
    {
        error = read.error;
        return read.state;
    }
    root = read.root;
    if (read.fits)
        Keep(std::move(read.text), read.root);
    return ESettingsFile::Whole;
}

bool SaveSettingsFile(const std::string& path, const Level& root, bool compact, bool sync, bool backup,
                      std::string& error)
{
    const QsPlatform::EFlush flush = sync ? QsPlatform::EFlush::ToDisk : QsPlatform::EFlush::ToSystem;
    const SRead old = ReadFile(path);
    if (old.state == ESettingsFile::Unreadable)
    {
        error = old.error;
        return false;
    }
    constexpr std::size_t leastReserve = std::size_t{1} << 16;
    std::string text = WriteSettings(*root, compact, old.text.size() + leastReserve, error);
    if (text.empty())
    {
        error = path + ": " + error;
        return false;
    }
    if ((old.state == ESettingsFile::Damaged || !old.fits) && !KeepAside(path, old.error, error))
        return false;
    if (backup && old.state == ESettingsFile::Whole &&
        !QsPlatform::ReplaceFileContents(path + ".bak", old.text.data(), old.text.size(), flush, error))
        return false;
    if (!QsPlatform::ReplaceFileContents(path, text.data(), text.size(), flush, error))
        return false;
    Keep(std::move(text), root);
    return true;
}

} // namespace QsStandalone

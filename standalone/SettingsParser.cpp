// The parser of settings files.
#include "standalone/Crc64.h"
#include "standalone/SettingsFile.h"
#include "standalone/SettingsText.h"

#include <rapidjson/reader.h>

#include <array>
#include <charconv>
#include <cmath>
#include <cstring>
#include <memory_resource>
#include <optional>
#include <unordered_map>

namespace QsStandalone {

namespace {

using Level = SQsLiteLevel::Level;
using SEntry = SQsLiteLevel::SEntry;

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
            if (m_member == eFormat && value == s_settingsFormat)
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
            return m_member == eFormat    ? "\"format\" to be \"" + std::string(s_settingsFormat) + "\""
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

} // namespace

Level ParseSettings(const std::string& text, bool& fits, SJsonFault& fault)
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

} // namespace QsStandalone

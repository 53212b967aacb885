#include "standalone/JsonText.h"

#include "host/QsSystem.h"

#include <rapidjson/encodings.h>
#include <rapidjson/error/error.h>
#include <rapidjson/reader.h>
#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>

#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstddef>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <set>
#include <system_error>

namespace QsStandalone {

namespace {

constexpr std::size_t longestFile = std::size_t{4} << 20;

std::string NumberText(double number)
{
    char buffer[32];
    const std::to_chars_result result = std::to_chars(std::begin(buffer), std::end(buffer), number);
    return {buffer, result.ptr};
}

// Input stream of the reader that counts lines as it goes.
class CLineStream
{
public:
    using Ch = char;

    explicit CLineStream(const std::string& text) : m_text(text) {}

    Ch Peek() const { return m_position < m_text.size() ? m_text[m_position] : '\0'; }
    Ch Take()
    {
        const Ch character = Peek();
        if (m_position < m_text.size())
            ++m_position;
        if (character == '\n')
            ++m_line;
        return character;
    }
    std::size_t Tell() const { return m_position; }
    unsigned Line() const { return m_line; }

    // The reader's template names these, but only parses in place would call them.
    Ch* PutBegin() { return nullptr; }
    void Put(Ch) {}
    void Flush() {}
    std::size_t PutEnd(Ch*) { return 0; }

private:
    const std::string& m_text;
    std::size_t m_position = 0;
    unsigned m_line = 1;
};

// Takes the reader's events and builds the tree. A handler answers false to end the parse.
class CTreeBuilder
{
public:
    CTreeBuilder(const CLineStream& stream, SJsonValue& root, SJsonFault& fault)
        : m_stream(stream), m_root(root), m_fault(fault)
    {}

    bool Null() { return Add(SJsonValue::Kind::Null) != nullptr; }
    bool Bool(bool flag)
    {
        Add(SJsonValue::Kind::Flag)->flag = flag;
        return true;
    }
    // Numbers come as they stand in the file: the library reads a zero with many decimals, or with an exponent below
    // -22, as any other number.
    bool Int(int) { return false; }
    bool Uint(unsigned) { return false; }
    bool Int64(std::int64_t) { return false; }
    bool Uint64(std::uint64_t) { return false; }
    bool Double(double) { return false; }
    bool RawNumber(const char* digits, rapidjson::SizeType length, bool)
    {
        return QS_StringToDouble(std::wstring(digits, digits + length).c_str(),
                                 Add(SJsonValue::Kind::Number)->number) ||
               Fail("expected a number that a double can hold, found " + QuoteForMessage(std::string(digits, length)));
    }
    bool String(const char* text, rapidjson::SizeType length, bool)
    {
        std::string& added = Add(SJsonValue::Kind::Text)->text;
        added.assign(text, length);
        return IsWhole(added);
    }
    bool StartObject() { return Open(SJsonValue::Kind::Object); }
    bool Key(const char* text, rapidjson::SizeType length, bool)
    {
        SLevel& level = m_levels.back();
        level.value->members.push_back({std::string(text, length), m_stream.Line(), {}});
        const std::string& key = level.value->members.back().key;
        if (!IsWhole(key))
            return false;
        return level.keys.insert(key).second ||
               Fail("expected each key once in an object, found " + QuoteForMessage(key) + " again");
    }
    bool EndObject(rapidjson::SizeType) { return Close(); }
    bool StartArray() { return Open(SJsonValue::Kind::List); }
    bool EndArray(rapidjson::SizeType) { return Close(); }

    bool HasFailed() const { return m_failed; }

private:
    struct SLevel
    {
        SJsonValue* value;
        std::set<std::string> keys;
    };

    SJsonValue* Add(SJsonValue::Kind kind)
    {
        SJsonValue* value = &m_root;
        if (!m_levels.empty())
        {
            SJsonValue& parent = *m_levels.back().value;
            if (parent.kind == SJsonValue::Kind::List)
                value = &parent.items.emplace_back();
            else
                value = &parent.members.back().value;
        }
        value->kind = kind;
        value->line = m_stream.Line();
        return value;
    }

    // The library lets the second half of a surrogate pair through where the first is not there, as three bytes that
    // are no UTF-8. Everything else has been checked.
    bool IsWhole(const std::string& text)
    {
        for (std::size_t i = text.find('\xED'); i != std::string::npos; i = text.find('\xED', i + 1))
            if (static_cast<unsigned char>(text[i + 1]) >= 0xA0)
                return Fail("expected a whole \\u escape in a text, found the second half of a pair");
        return true;
    }

    bool Open(SJsonValue::Kind kind)
    {
        if (m_levels.size() == s_deepestJson)
            return Fail("expected nesting of at most " + std::to_string(s_deepestJson) + " levels, found more");
        m_levels.push_back({Add(kind), {}});
        return true;
    }

    bool Close()
    {
        m_levels.pop_back();
        return true;
    }

    bool Fail(const std::string& text)
    {
        m_fault = {m_stream.Line(), text};
        m_failed = true;
        return false;
    }

    const CLineStream& m_stream;
    SJsonValue& m_root;
    SJsonFault& m_fault;
    std::vector<SLevel> m_levels;
    bool m_failed = false;
};

std::string ExpectedAt(rapidjson::ParseErrorCode code)
{
    switch (code)
    {
    case rapidjson::kParseErrorDocumentEmpty:
        return "a JSON object";
    case rapidjson::kParseErrorDocumentRootNotSingular:
        return "the end of the file";
    case rapidjson::kParseErrorObjectMissName:
        return "a key in quotes";
    case rapidjson::kParseErrorObjectMissColon:
        return "\":\" after a key";
    case rapidjson::kParseErrorObjectMissCommaOrCurlyBracket:
        return "\",\" or \"}\" after a member of an object";
    case rapidjson::kParseErrorArrayMissCommaOrSquareBracket:
        return "\",\" or \"]\" after an item of a list";
    case rapidjson::kParseErrorStringUnicodeEscapeInvalidHex:
    case rapidjson::kParseErrorStringUnicodeSurrogateInvalid:
        return "a whole \\u escape in a text";
    case rapidjson::kParseErrorStringEscapeInvalid:
        return "an escape that JSON knows in a text";
    case rapidjson::kParseErrorStringMissQuotationMark:
        return "the quote that ends a text";
    case rapidjson::kParseErrorStringInvalidEncoding:
        return "a text without control characters";
    case rapidjson::kParseErrorNumberTooBig:
        return "a number that a double can hold";
    case rapidjson::kParseErrorNumberMissFraction:
        return "digits after the decimal point";
    case rapidjson::kParseErrorNumberMissExponent:
        return "digits of an exponent";
    case rapidjson::kParseErrorValueInvalid:
        return "a JSON value";
    default:
        return "JSON";
    }
}

// The word or the character that stands there.
std::string FoundAt(const std::string& text, std::size_t position)
{
    if (position >= text.size())
        return "the end of the file";
    std::size_t end = position;
    while (end < text.size() && std::string(" \t\r\n,:[]{}\"").find(text[end]) == std::string::npos)
        ++end;
    return QuoteForMessage(text.substr(position, std::max<std::size_t>(end - position, 1)));
}

bool CheckEncoding(const std::string& text, SJsonFault& fault)
{
    CLineStream stream(text);
    CLineStream discarded(text);
    while (stream.Tell() < text.size())
    {
        const unsigned line = stream.Line();
        const bool zero = stream.Peek() == '\0';
        if (!zero && rapidjson::UTF8<>::Validate(stream, discarded))
            continue;
        fault = {line, zero ? "expected text, found a zero byte" : "expected text in UTF-8, found other bytes"};
        return false;
    }
    return true;
}

void Write(const SJsonValue& value, rapidjson::Writer<rapidjson::StringBuffer>& writer)
{
    const auto length = [](const std::string& text) { return static_cast<rapidjson::SizeType>(text.size()); };
    constexpr double exactIntegers = 9007199254740992.0;
    switch (value.kind)
    {
    case SJsonValue::Kind::Null:
        writer.Null();
        break;
    case SJsonValue::Kind::Flag:
        writer.Bool(value.flag);
        break;
    case SJsonValue::Kind::Number:
        if (std::floor(value.number) == value.number && std::fabs(value.number) <= exactIntegers)
            writer.Int64(static_cast<std::int64_t>(value.number));
        else
            writer.Double(value.number);
        break;
    case SJsonValue::Kind::Text:
        writer.String(value.text.c_str(), length(value.text));
        break;
    case SJsonValue::Kind::List:
        writer.StartArray();
        for (const SJsonValue& item : value.items)
            Write(item, writer);
        writer.EndArray();
        break;
    case SJsonValue::Kind::Object:
        writer.StartObject();
        for (const SJsonValue::SMember& member : value.members)
        {
            writer.Key(member.key.c_str(), length(member.key));
            Write(member.value, writer);
        }
        writer.EndObject();
        break;
    }
}

} // namespace

const SJsonValue* SJsonValue::Find(const char* key) const
{
    for (const SMember& member : members)
        if (member.key == key)
            return &member.value;
    return nullptr;
}

std::string SJsonValue::Describe() const
{
    switch (kind)
    {
    case Kind::Null:
        return "null";
    case Kind::Flag:
        return flag ? "true" : "false";
    case Kind::Number:
        return NumberText(number);
    case Kind::Text:
        return QuoteForMessage(text);
    case Kind::List:
        return "a list";
    case Kind::Object:
        break;
    }
    return "an object";
}

std::string QuoteForMessage(const std::string& text)
{
    constexpr std::size_t longest = 60;
    std::string quoted = "\"";
    for (const char character : text.substr(0, longest))
        quoted += static_cast<unsigned char>(character) < 0x20 || character == 0x7F ? '?' : character;
    if (text.size() > longest)
    {
        // Not in the middle of a character.
        while ((static_cast<unsigned char>(text[quoted.size() - 1]) & 0xC0) == 0x80 && quoted.size() > 1)
            quoted.pop_back();
        quoted += "...";
    }
    return quoted + "\"";
}

unsigned JsonLineAt(const std::string& text, std::size_t position)
{
    const auto end = text.begin() + static_cast<std::ptrdiff_t>(std::min(position, text.size()));
    return 1 + static_cast<unsigned>(std::count(text.begin(), end, '\n'));
}

SJsonFault JsonSyntaxFault(const std::string& text, int code, std::size_t position)
{
    const auto parseCode = static_cast<rapidjson::ParseErrorCode>(code);
    return {JsonLineAt(text, position),
            "expected " + ExpectedAt(parseCode) + ", found " +
                (parseCode == rapidjson::kParseErrorDocumentEmpty ? "an empty file" : FoundAt(text, position))};
}

bool ReadJsonFile(const std::string& path, SJsonValue& root, SJsonFault& fault)
{
    std::error_code ignored;
    const std::filesystem::path name = std::filesystem::u8path(path);
    const std::filesystem::file_status status = std::filesystem::status(name, ignored);
    if (std::filesystem::exists(status) && !std::filesystem::is_regular_file(status)) // a pipe would be waited for
    {
        fault = {1, "expected a file that can be read, found something else"};
        return false;
    }
    std::ifstream file(name, std::ios::binary);
    if (!file)
    {
        fault = {1, "expected a file that can be read, found none"};
        return false;
    }
    std::string text;
    char block[16384];
    do
    {
        file.read(block, sizeof block);
        text.append(block, static_cast<std::size_t>(file.gcount()));
    } while (file && text.size() <= longestFile);
    if (file.bad())
    {
        fault = {1, "expected a file that can be read, found something else"};
        return false;
    }
    if (text.size() > longestFile)
    {
        fault = {1, "expected a file of at most " + std::to_string(longestFile >> 20) + " MiB, found a longer one"};
        return false;
    }
    return ParseJson(text, root, fault);
}

bool ParseJson(const std::string& text, SJsonValue& root, SJsonFault& fault)
{
    if (!CheckEncoding(text, fault))
        return false;
    CLineStream stream(text);
    if (text.compare(0, 3, "\xEF\xBB\xBF") == 0)
        for (int i = 0; i < 3; ++i)
            stream.Take();
    root = {};
    CTreeBuilder builder(stream, root, fault);
    rapidjson::Reader reader;
    constexpr unsigned flags =
        rapidjson::kParseCommentsFlag | rapidjson::kParseNumbersAsStringsFlag | rapidjson::kParseIterativeFlag;
    if (!reader.Parse<flags>(stream, builder).IsError())
        return true;
    if (!builder.HasFailed())
        fault = JsonSyntaxFault(text, reader.GetParseErrorCode(), reader.GetErrorOffset());
    return false;
}

std::string WriteJson(const SJsonValue& value)
{
    rapidjson::StringBuffer buffer;
    rapidjson::Writer<rapidjson::StringBuffer> writer(buffer);
    Write(value, writer);
    return buffer.GetString();
}

} // namespace QsStandalone

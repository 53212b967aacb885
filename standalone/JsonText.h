// JSON text as a tree that knows the line of every value, for files that people write: a complaint must name the place.
//
// Beyond JSON, comments are allowed. A key that stands twice in one object, and nesting deeper than 64, are errors.
#pragma once

#include <string>
#include <utility>
#include <vector>

namespace QsStandalone {

struct SJsonValue
{
    enum class Kind
    {
        Null,
        Flag,
        Number,
        Text,
        List,
        Object
    };
    struct SMember;

    Kind kind = Kind::Null;
    unsigned line = 0;
    bool flag = false;
    double number = 0.0;
    std::string text; // UTF-8
    std::vector<SJsonValue> items;
    std::vector<SMember> members; // in the order of the file

    const SJsonValue* Find(const char* key) const; // null when there is no such member
    std::string Describe() const;                  // for a message: short, in one line
};

struct SJsonValue::SMember
{
    std::string key;
    unsigned line = 0;
    SJsonValue value;
};

struct SJsonFault
{
    unsigned line = 1;
    std::string text; // "expected ..., found ..."

    std::string InFile(const std::string& path) const { return path + ":" + std::to_string(line) + ": " + text; }
};

constexpr unsigned s_deepestJson = 64;

// False, with the fault, when the file cannot be read or is no such JSON.
bool ReadJsonFile(const std::string& path, SJsonValue& root, SJsonFault& fault);
bool ParseJson(const std::string& text, SJsonValue& root, SJsonFault& fault);
// The fault of a parse by the library: its error code and the byte at which it stopped.
SJsonFault JsonSyntaxFault(const std::string& text, int code, std::size_t position);
unsigned JsonLineAt(const std::string& text, std::size_t position);
// Compact JSON of the tree. Whole numbers are written without a fraction.
std::string WriteJson(const SJsonValue& value);
// Text for a message: in quotes, control characters replaced, cut after some 60 bytes.
std::string QuoteForMessage(const std::string& text);

} // namespace QsStandalone

// What a rig file and the content of a device database may hold: the one table that the checks follow and the
// documentation shows.
#pragma once

#include "host/QsHostApi.h"
#include "standalone/JsonText.h"

#include <string>
#include <vector>

namespace QsStandalone {

struct SRigKey
{
    enum class Type
    {
        Text, // minimum and maximum bound its length in bytes
        TextList,
        AnyText, // they bound its length in characters; control characters are allowed, null is not
        Flag,
        Number,          // minimum and maximum bound its value
        Whole,           // the same, without a fraction
        WholeListOrText, // such numbers, or any text
        Choice,
        Object,     // of the kind `object`
        ObjectList, // of such objects, in the order of the file
        AnyObject
    };

    const char* owner; // kind of object that the key stands in
    const char* key;
    Type type;
    const char* unit;
    bool required;
    const char* defaultValue; // as JSON, or in words where only the reader can tell; empty when required
    double minimum;
    double maximum;
    const char* choices; // separated by "|"
    const char* object;
    const char* meaning;
};

constexpr const char* s_rigRoot = "rig";
constexpr const char* s_databaseRoot = "databaseFile";

const std::vector<SRigKey>& RigKeys();
const SRigKey* FindRigKey(const std::string& owner, const std::string& key);

// What the key's value must be, as it stands in messages: "a number from 0 to 60000 ms".
std::string RigKeyExpectation(const SRigKey& key);

// Checks the value of a key, or an object of a kind, and everything below it by the table; false with the first fault.
bool CheckRigValue(const SJsonValue& value, const SRigKey& key, SJsonFault& fault);
bool CheckRigObject(const SJsonValue& value, const std::string& kind, SJsonFault& fault);

// The table as Markdown, for docs/formats.md; a test holds the two together.
QS_HOST_API std::string RigSchemaMarkdown();

} // namespace QsStandalone

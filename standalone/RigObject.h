// An object of a JSON file whose keys the table has checked; a key that is absent has the table's default.
#pragma once

#include "host/QsSystem.h"
#include "standalone/JsonText.h"

#include <cstdint>
#include <string>
#include <vector>

namespace QsStandalone {

class CRigObject
{
public:
    CRigObject(const SJsonValue& value, const char* kind) : m_value(value), m_kind(kind) {}

    const SJsonValue& Value() const { return m_value; }
    unsigned LineOf(const char* key) const;

    bool Flag(const char* key) const { return Get(key).flag; }
    double Number(const char* key) const { return Get(key).number; }
    std::uint32_t Whole(const char* key) const { return static_cast<std::uint32_t>(Number(key)); }
    qs_int32 Signed(const char* key) const { return static_cast<qs_int32>(Number(key)); }
    std::string Text(const char* key) const { return Get(key).text; }
    std::vector<SJsonValue> List(const char* key) const { return Get(key).items; }
    const SJsonValue* Find(const char* key) const { return m_value.Find(key); }

private:
    SJsonValue Get(const char* key) const;

    const SJsonValue& m_value;
    const char* m_kind;
};

} // namespace QsStandalone

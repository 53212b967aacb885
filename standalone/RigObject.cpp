#include "standalone/RigObject.h"

#include "standalone/RigSchema.h"

namespace QsStandalone {

unsigned CRigObject::LineOf(const char* key) const
{
    const SJsonValue* found = m_value.Find(key);
    return found ? found->line : m_value.line;
}

SJsonValue CRigObject::Get(const char* key) const
{
    if (const SJsonValue* found = m_value.Find(key))
        return *found;
    SJsonValue value;
    SJsonFault fault;
    const SRigKey* rule = FindRigKey(m_kind, key);
    // A default in words means: the empty value.
    if (rule && !ParseJson(rule->defaultValue, value, fault))
        value = {};
    return value;
}

} // namespace QsStandalone

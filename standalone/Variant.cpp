// The tree of named values.
#include "host/QsSystem.h"

#include <limits>

namespace {

const CQsVariant& DefaultValue()
{
    static const CQsVariant value;
    return value;
}

} // namespace

CQsVariant::CQsVariant(double value, const wchar_t* name) : m_type(Type::Double), m_name(name), m_double(value) {}
CQsVariant::CQsVariant(bool value, const wchar_t* name) : m_type(Type::Bool), m_name(name), m_bool(value) {}
CQsVariant::CQsVariant(std::uint32_t value, const wchar_t* name)
    : m_type(Type::Unsigned), m_name(name), m_unsigned(value)
{}

bool CQsVariant::EnableTypeChange(bool enable)
{
    const bool previous = m_typeChange;
    m_typeChange = enable;
    return previous;
}

void CQsVariant::ClearList()
{
    if (m_type != Type::List && !m_typeChange)
        return;
    m_type = Type::List;
    m_items.clear();
}

void CQsVariant::Append(const CQsVariant& item)
{
    if (m_type != Type::List && !m_typeChange)
        return;
    CQsVariant copy(item); // the item may be this list or stand in it
    m_type = Type::List;
    m_items.push_back(std::move(copy));
}

const CQsVariant& CQsVariant::GetItem(std::size_t index) const
{
    return index < m_items.size() ? m_items[index] : DefaultValue();
}

const CQsVariant* CQsVariant::FindItem(const wchar_t* name) const
{
    for (const CQsVariant& item : m_items)
        if (item.m_name == name)
            return &item;
    return nullptr;
}

const CQsVariant& CQsVariant::operator[](const wchar_t* name) const
{
    const CQsVariant* const item = FindItem(name);
    return item != nullptr ? *item : DefaultValue();
}

double CQsVariant::ToDouble() const
{
    switch (m_type)
    {
    case Type::Double:
        return m_double;
    case Type::Bool:
        return m_bool ? 1.0 : 0.0;
    case Type::Unsigned:
        return m_unsigned;
    case Type::List:
        break;
    }
    return 0.0;
}

bool CQsVariant::ToBool() const
{
    switch (m_type)
    {
    case Type::Double:
        return m_double != 0.0;
    case Type::Bool:
        return m_bool;
    case Type::Unsigned:
        return m_unsigned != 0;
    case Type::List:
        break;
    }
    return false;
}

std::uint32_t CQsVariant::ToUnsigned() const
{
    constexpr std::uint32_t most = std::numeric_limits<std::uint32_t>::max();
    switch (m_type)
    {
    case Type::Double:
        if (!std::isfinite(m_double) || m_double <= 0.0)
            return 0;
        return m_double >= most ? most : static_cast<std::uint32_t>(m_double);
    case Type::Bool:
        return m_bool ? 1 : 0;
    case Type::Unsigned:
        return m_unsigned;
    case Type::List:
        break;
    }
    return 0;
}

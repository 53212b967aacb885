// The flat keyed store with levels: its writer and its reader.
#include "host/QsSystem.h"

#include <algorithm>
#include <cstring>
#include <memory>
#include <variant>

struct SQsLiteLevel
{
    using Bytes = std::vector<unsigned char>;
    using Level = std::unique_ptr<SQsLiteLevel>; // a stable address: writers and readers point to the level they are in
    struct SEntry
    {
        CQsStringW name;
        std::variant<double, bool, std::uint32_t, Bytes, Level> value;
    };
    std::vector<SEntry> entries;
};

namespace {

bool IsLevel(const SQsLiteLevel::SEntry& entry)
{
    return std::holds_alternative<SQsLiteLevel::Level>(entry.value);
}

template <class Value>
void Set(SQsLiteLevel& level, const wchar_t* key, Value value)
{
    for (SQsLiteLevel::SEntry& entry : level.entries)
    {
        if (!IsLevel(entry) && entry.name == key)
        {
            entry.value = std::move(value);
            return;
        }
    }
    level.entries.push_back({CQsStringW(key), std::move(value)});
}

const SQsLiteLevel::SEntry* FindValue(const SQsLiteLevel& level, const wchar_t* key)
{
    for (const SQsLiteLevel::SEntry& entry : level.entries)
        if (!IsLevel(entry) && entry.name == key)
            return &entry;
    return nullptr;
}

SQsLiteLevel::Level CopyOf(const SQsLiteLevel& level);

SQsLiteLevel::SEntry CopyOf(const SQsLiteLevel::SEntry& entry)
{
    if (const auto* const level = std::get_if<SQsLiteLevel::Level>(&entry.value))
        return {entry.name, CopyOf(**level)};
    if (const auto* const bytes = std::get_if<SQsLiteLevel::Bytes>(&entry.value))
        return {entry.name, *bytes};
    if (const auto* const number = std::get_if<double>(&entry.value))
        return {entry.name, *number};
    if (const auto* const flag = std::get_if<bool>(&entry.value))
        return {entry.name, *flag};
    return {entry.name, std::get<std::uint32_t>(entry.value)};
}

SQsLiteLevel::Level CopyOf(const SQsLiteLevel& level)
{
    auto copy = std::make_unique<SQsLiteLevel>();
    copy->entries.reserve(level.entries.size());
    for (const SQsLiteLevel::SEntry& entry : level.entries)
        copy->entries.push_back(CopyOf(entry));
    return copy;
}

} // namespace

// ------------------------------------------------------------------------------------------------------------ writer

CQsLiteVariantW::CQsLiteVariantW() : m_root(new SQsLiteLevel), m_path{m_root} {}

CQsLiteVariantW::~CQsLiteVariantW()
{
    delete m_root;
}

void CQsLiteVariantW::SetDouble(const wchar_t* key, double value)
{
    Set(*m_path.back(), key, value);
}

void CQsLiteVariantW::SetBool(const wchar_t* key, bool value)
{
    Set(*m_path.back(), key, value);
}

void CQsLiteVariantW::SetUnsigned(const wchar_t* key, std::uint32_t value)
{
    Set(*m_path.back(), key, value);
}

void CQsLiteVariantW::SetBinary(const wchar_t* key, const void* bytes, std::size_t count)
{
    const auto* const first = static_cast<const unsigned char*>(bytes);
    Set(*m_path.back(), key, first != nullptr ? SQsLiteLevel::Bytes(first, first + count) : SQsLiteLevel::Bytes());
}

void CQsLiteVariantW::OpenLevel(const wchar_t* name)
{
    auto level = std::make_unique<SQsLiteLevel>();
    SQsLiteLevel* const opened = level.get();
    m_path.back()->entries.push_back({CQsStringW(name), std::move(level)});
    m_path.push_back(opened);
}

void CQsLiteVariantW::CloseLevel()
{
    if (m_path.size() > 1)
        m_path.pop_back();
}

// ------------------------------------------------------------------------------------------------------------ reader

CQsLiteVariantR::CQsLiteVariantR() : m_root(new SQsLiteLevel), m_path{m_root} {}
CQsLiteVariantR::CQsLiteVariantR(const CQsLiteVariantW& writer)
    : m_root(CopyOf(*writer.m_root).release()), m_path{m_root}
{}

CQsLiteVariantR::~CQsLiteVariantR()
{
    delete m_root;
}

double CQsLiteVariantR::GetDouble(const wchar_t* key, double defaultValue) const
{
    const SQsLiteLevel::SEntry* const entry = FindValue(*m_path.back(), key);
    if (entry == nullptr)
        return defaultValue;
    if (const auto* const number = std::get_if<double>(&entry->value))
        return *number;
    if (const auto* const number = std::get_if<std::uint32_t>(&entry->value))
        return *number;
    if (const auto* const flag = std::get_if<bool>(&entry->value))
        return *flag ? 1.0 : 0.0;
    return defaultValue;
}

bool CQsLiteVariantR::GetBool(const wchar_t* key, bool defaultValue) const
{
    const SQsLiteLevel::SEntry* const entry = FindValue(*m_path.back(), key);
    if (entry == nullptr)
        return defaultValue;
    if (const auto* const flag = std::get_if<bool>(&entry->value))
        return *flag;
    if (const auto* const number = std::get_if<std::uint32_t>(&entry->value))
        return *number != 0;
    return defaultValue;
}

qs_int32 CQsLiteVariantR::GetInt(const wchar_t* key, qs_int32 defaultValue) const
{
    const SQsLiteLevel::SEntry* const entry = FindValue(*m_path.back(), key);
    if (entry == nullptr)
        return defaultValue;
    if (const auto* const number = std::get_if<std::uint32_t>(&entry->value))
        return static_cast<qs_int32>(*number);
    if (const auto* const flag = std::get_if<bool>(&entry->value))
        return *flag ? 1 : 0;
    return defaultValue;
}

std::size_t CQsLiteVariantR::GetBinary(const wchar_t* key, void* bytes, std::size_t count) const
{
    const SQsLiteLevel::SEntry* const entry = FindValue(*m_path.back(), key);
    const auto* const stored = entry != nullptr ? std::get_if<SQsLiteLevel::Bytes>(&entry->value) : nullptr;
    if (stored == nullptr)
        return 0;
    const std::size_t copied = std::min(count, stored->size());
    if (bytes != nullptr && copied > 0)
        std::memcpy(bytes, stored->data(), copied);
    return stored->size();
}

std::size_t CQsLiteVariantR::GetEntryCount() const
{
    return m_path.back()->entries.size();
}

CQsStringW CQsLiteVariantR::GetEntryName(std::size_t index) const
{
    const auto& entries = m_path.back()->entries;
    return index < entries.size() ? entries[index].name : CQsStringW();
}

bool CQsLiteVariantR::EnterLevel(const wchar_t* name)
{
    for (const SQsLiteLevel::SEntry& entry : m_path.back()->entries)
    {
        if (IsLevel(entry) && entry.name == name)
        {
            m_path.push_back(std::get<SQsLiteLevel::Level>(entry.value).get());
            return true;
        }
    }
    return false;
}

void CQsLiteVariantR::LeaveLevel()
{
    if (m_path.size() > 1)
        m_path.pop_back();
}

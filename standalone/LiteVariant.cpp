// The flat keyed store with levels: its writer and its reader.
#include "host/QsSystem.h"
#include "standalone/SettingsFile.h"
#include "standalone/SettingsTree.h"

#include <algorithm>
#include <cstring>
#include <exception>
#include <memory>
#include <string>

using QsStandalone::CSettingsName;
using QsStandalone::ESettingsFile;

namespace {

using SEntry = SQsLiteLevel::SEntry;
using EKind = SQsLiteLevel::EKind;
using Level = SQsLiteLevel::Level;

constexpr qs_int32 statusMissing = -13;
constexpr const wchar_t* s_unit = L"Settings";

void Set(SQsLiteLevel& level, const wchar_t* key, SQsLiteLevel::Value value)
{
    CQsStringW name(key);
    const std::size_t index = level.Find(name, EKind::Value);
    if (index != SQsLiteLevel::npos)
        level.SetValue(index, std::move(value));
    else
        level.Add({CSettingsName(std::move(name)), std::move(value)});
}

const SEntry* FindEntry(const SQsLiteLevel& level, const CQsStringW& name, EKind kind)
{
    const std::size_t index = level.Find(name, kind);
    return index != SQsLiteLevel::npos ? &level.All()[index] : nullptr;
}

// The value of a key as it is stored, or null when it is missing or of another type.
template <class Value>
const Value* FindValue(const SQsLiteLevel& level, const wchar_t* key)
{
    const SEntry* const entry = FindEntry(level, key, EKind::Value);
    return entry != nullptr ? std::get_if<Value>(&entry->value) : nullptr;
}

// A writer goes on changing its levels, so nothing is shared with it.
Level CopyOf(const SQsLiteLevel& level)
{
    auto copy = std::make_shared<SQsLiteLevel>(level);
    for (std::size_t i = 0; i < copy->All().size(); ++i)
        if (const auto* const inner = std::get_if<Level>(&copy->All()[i].value))
            copy->SetValue(i, CopyOf(**inner));
    return copy;
}

// Whether the level is a list: it has an unnamed value, or an unnamed level without levels in it. An unnamed level that
// holds others is a level like those with names.
bool IsList(const SQsLiteLevel& level)
{
    const auto isElement = [](const SEntry& entry)
    {
        const auto* const inner = std::get_if<Level>(&entry.value);
        return entry.name.Text().IsEmpty() &&
               (inner == nullptr || std::none_of((*inner)->All().begin(), (*inner)->All().end(),
                                                 [](const SEntry& nested) { return nested.IsLevel(); }));
    };
    return std::any_of(level.All().begin(), level.All().end(), isElement);
}

// `own` with what `other` has beyond it; `own` itself when that is nothing.
Level Merged(const Level& own, const Level& other)
{
    if (own == other || other->All().empty() || IsList(*own))
        return own;
    if (own->All().empty())
        return other;
    std::shared_ptr<SQsLiteLevel> merged;
    const auto changed = [&]() -> SQsLiteLevel&
    {
        if (merged == nullptr)
            merged = std::make_shared<SQsLiteLevel>(*own);
        return *merged;
    };
    for (const SEntry& entry : other->All())
    {
        if (own->Find(entry.name, EKind::Any) == SQsLiteLevel::npos)
        {
            changed().Add(entry);
            continue;
        }
        const std::size_t index = own->Find(entry.name, EKind::Level);
        // Of several levels of one name the first meets the first; the others are there already, by name.
        if (!entry.IsLevel() || index == SQsLiteLevel::npos ||
            &entry != &other->All()[other->Find(entry.name, EKind::Level)])
            continue;
        const Level& inner = std::get<Level>(own->All()[index].value);
        Level mergedInner = Merged(inner, std::get<Level>(entry.value));
        if (mergedInner != inner)
            changed().SetValue(index, std::move(mergedInner));
    }
    return merged != nullptr ? Level(std::move(merged)) : own;
}

// `level` with another entry at the path; null when there is none. Names may hold backslashes themselves, so a name
// ends at any backslash before which an entry is called like that.
Level Replaced(const Level& level, const std::wstring& path, std::size_t begin, const SEntry& replacement)
{
    for (std::size_t end = path.find(L'\\', begin);; end = path.find(L'\\', end + 1))
    {
        const bool last = end == std::wstring::npos;
        const CQsStringW name(path.substr(begin, last ? end : end - begin));
        std::size_t index = level->Find(name, EKind::Level);
        if (last && index == SQsLiteLevel::npos)
            index = level->Find(name, EKind::Any);
        if (index != SQsLiteLevel::npos)
        {
            SEntry entry = replacement;
            if (!last)
            {
                const SEntry& outer = level->All()[index];
                entry = {outer.name, Replaced(std::get<Level>(outer.value), path, end + 1, replacement)};
            }
            if (last || std::get<Level>(entry.value) != nullptr)
            {
                auto copy = std::make_shared<SQsLiteLevel>(*level);
                copy->SetEntry(index, std::move(entry));
                return copy;
            }
        }
        if (last)
            return nullptr;
    }
}

std::string PathOf(const wchar_t* path)
{
    return CQsStringW(path).ToUtf8();
}

} // namespace

// ------------------------------------------------------------------------------------------------------------ writer

CQsLiteVariantW::CQsLiteVariantW() : m_root(std::make_shared<SQsLiteLevel>()), m_path{m_root.get()} {}
CQsLiteVariantW::~CQsLiteVariantW() = default;

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
    Set(*m_path.back(), key,
        std::make_shared<const SQsLiteLevel::Bytes>(first != nullptr ? SQsLiteLevel::Bytes(first, first + count)
                                                                     : SQsLiteLevel::Bytes()));
}

void CQsLiteVariantW::SetString(const wchar_t* key, const CQsStringW& value)
{
    Set(*m_path.back(), key, std::make_shared<const CQsStringW>(value));
}

void CQsLiteVariantW::OpenLevel(const wchar_t* name)
{
    auto level = std::make_shared<SQsLiteLevel>();
    SQsLiteLevel* const opened = level.get();
    m_path.back()->Add({CSettingsName(CQsStringW(name)), Level(std::move(level))});
    m_path.push_back(opened);
}

void CQsLiteVariantW::CloseLevel()
{
    if (m_path.size() > 1)
        m_path.pop_back();
}

// ------------------------------------------------------------------------------------------------------------ reader

CQsLiteVariantR::CQsLiteVariantR() : m_root(std::make_shared<const SQsLiteLevel>()), m_path{m_root.get()} {}
CQsLiteVariantR::CQsLiteVariantR(const CQsLiteVariantW& writer) : m_root(CopyOf(*writer.m_root)), m_path{m_root.get()}
{}
CQsLiteVariantR::~CQsLiteVariantR() = default;

double CQsLiteVariantR::GetDouble(const wchar_t* key, double defaultValue) const
{
    const SEntry* const entry = FindEntry(*m_path.back(), key, EKind::Value);
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
    const SEntry* const entry = FindEntry(*m_path.back(), key, EKind::Value);
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
    const SEntry* const entry = FindEntry(*m_path.back(), key, EKind::Value);
    if (entry == nullptr)
        return defaultValue;
    if (const auto* const number = std::get_if<std::uint32_t>(&entry->value))
        return static_cast<qs_int32>(*number);
    if (const auto* const flag = std::get_if<bool>(&entry->value))
        return *flag ? 1 : 0;
    return defaultValue;
}

CQsStringW CQsLiteVariantR::GetString(const wchar_t* key, const CQsStringW& defaultValue) const
{
    const auto* const text = FindValue<SQsLiteLevel::Text>(*m_path.back(), key);
    return text != nullptr ? **text : defaultValue;
}

std::size_t CQsLiteVariantR::GetBinary(const wchar_t* key, void* bytes, std::size_t count) const
{
    const auto* const stored = FindValue<SQsLiteLevel::BytesPointer>(*m_path.back(), key);
    if (stored == nullptr)
        return 0;
    const std::size_t copied = std::min(count, (*stored)->size());
    if (bytes != nullptr && copied > 0)
        std::memcpy(bytes, (*stored)->data(), copied);
    return (*stored)->size();
}

std::size_t CQsLiteVariantR::GetEntryCount() const
{
    return m_path.back()->All().size();
}

CQsStringW CQsLiteVariantR::GetEntryName(std::size_t index) const
{
    const SQsLiteLevel::Entries& entries = m_path.back()->All();
    return index < entries.size() ? entries[index].name.Text() : CQsStringW();
}

bool CQsLiteVariantR::EnterLevel(const wchar_t* name)
{
    return EnterEntry(m_path.back()->Find(CQsStringW(name), EKind::Level));
}

bool CQsLiteVariantR::EnterEntry(std::size_t index)
{
    const SQsLiteLevel::Entries& entries = m_path.back()->All();
    if (index >= entries.size() || !entries[index].IsLevel())
        return false;
    m_path.push_back(std::get<Level>(entries[index].value).get());
    return true;
}

void CQsLiteVariantR::LeaveLevel()
{
    if (m_path.size() > 1)
        m_path.pop_back();
}

qs_int32 CQsLiteVariantR::LoadFromFile(const wchar_t* path, bool bCheck, bool bMissingIsEmpty)
{
    std::string error;
    try
    {
        Level root;
        const ESettingsFile state = QsStandalone::ReadSettingsFile(PathOf(path), bCheck, root, error);
        if (state == ESettingsFile::Missing && bMissingIsEmpty)
            root = std::make_shared<const SQsLiteLevel>();
        if (root != nullptr)
        {
            std::vector<const SQsLiteLevel*> levels{root.get()};
            m_root = std::move(root);
            m_path.swap(levels);
            return QS_OK;
        }
        if (state == ESettingsFile::Missing)
            return statusMissing; // no fault and no line: a first start has no settings yet
    }
    catch (const std::exception& e) // no memory
    {
        error = PathOf(path) + ": cannot be read: " + e.what();
    }
    DiagOutputExW(s_unit, __LINE__, L"%hs", error.c_str());
    return QS_ERR_FAIL;
}

qs_int32 CQsLiteVariantR::SaveToFile(const wchar_t* path, bool bCompact, bool bSync, bool bBackup) const
{
    std::string error;
    try
    {
        if (QsStandalone::SaveSettingsFile(PathOf(path), m_root, bCompact, bSync, bBackup, error))
            return QS_OK;
    }
    catch (const std::exception& e) // no memory
    {
        error = PathOf(path) + ": cannot be written: " + e.what();
    }
    DiagOutputExW(s_unit, __LINE__, L"%hs", error.c_str());
    return QS_ERR_FAIL;
}

void CQsLiteVariantR::Merge(const CQsLiteVariantR& other)
{
    m_root = Merged(m_root, other.m_root);
    m_path.assign(1, m_root.get());
}

qs_int32 CQsLiteVariantR::Replace(const wchar_t* path, const CQsLiteVariantR& node)
{
    if (node.m_root->All().empty())
        return QS_ERR_FAIL;
    const std::wstring names = CQsStringW(path).Std();
    Level replaced =
        !names.empty() && names.front() == L'\\' ? Replaced(m_root, names, 1, node.m_root->All().front()) : nullptr;
    if (replaced == nullptr)
        return statusMissing;
    m_root = std::move(replaced);
    m_path.assign(1, m_root.get());
    return QS_OK;
}

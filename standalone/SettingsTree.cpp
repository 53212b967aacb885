#include "standalone/SettingsTree.h"

#include "platform/Utf16.h"

#include <iterator>

namespace {

constexpr std::size_t mostWithoutSlots = 8;

// Of the UTF-16 units, as equality goes by them.
std::size_t HashOf(const CQsStringW& text)
{
    std::uint64_t hash = 0xcbf29ce484222325u;
    const auto mix = [&hash](std::uint32_t unit) { hash = (hash ^ unit) * 0x100000001b3u; };
    for (const wchar_t character : text.Std())
    {
        const auto code = static_cast<std::uint32_t>(character);
        if (sizeof(wchar_t) == 2 || code <= 0xFFFF)
            mix(code & 0xFFFF);
        else
            for (const char16_t unit : QsToUtf16(std::wstring(1, character)))
                mix(unit);
    }
    return static_cast<std::size_t>(hash ^ (hash >> 32));
}

bool Matches(const SQsLiteLevel::SEntry& entry, SQsLiteLevel::EKind kind)
{
    return kind == SQsLiteLevel::EKind::Any || entry.IsLevel() == (kind == SQsLiteLevel::EKind::Level);
}

// A name to look for that has not been made one.
struct SSought
{
    const CQsStringW& text;
    std::size_t hash;
};

bool IsNamed(const SQsLiteLevel::SEntry& entry, const SSought& name)
{
    return entry.name.Hash() == name.hash && entry.name.Text() == name.text;
}

bool IsNamed(const SQsLiteLevel::SEntry& entry, const QsStandalone::CSettingsName& name)
{
    return entry.name == name;
}

std::size_t HashOf(const SSought& name)
{
    return name.hash;
}

std::size_t HashOf(const QsStandalone::CSettingsName& name)
{
    return name.Hash();
}

} // namespace

QsStandalone::CSettingsName::SData::SData(CQsStringW name) : text(std::move(name)), hash(HashOf(text)) {}

QsStandalone::CSettingsName::CSettingsName(CQsStringW text) : m_data(std::make_shared<const SData>(std::move(text))) {}
QsStandalone::CSettingsName::CSettingsName(CQsStringW text, const SettingsMemory& memory)
    : m_data(std::allocate_shared<const SData>(CKeepingAllocator<SData>(memory), std::move(text)))
{}

SQsLiteLevel::SQsLiteLevel(SEntry* first, std::size_t count, std::pmr::memory_resource* memory)
    : m_entries(std::make_move_iterator(first), std::make_move_iterator(first + count), memory)
{
    MakeSlots();
}

void SQsLiteLevel::MakeSlots()
{
    m_slots.clear();
    m_slotsInUse = 0;
    if (m_entries.size() > mostWithoutSlots)
        for (std::size_t i = 0; i < m_entries.size(); ++i)
            Enter(i);
}

void SQsLiteLevel::SetEntry(std::size_t index, SEntry entry)
{
    m_entries[index] = std::move(entry);
    MakeSlots();
}

void SQsLiteLevel::Add(SEntry entry)
{
    m_entries.push_back(std::move(entry));
    if (m_slots.empty())
        MakeSlots();
    else
        Enter(m_entries.size() - 1);
}

std::size_t SQsLiteLevel::Find(const QsStandalone::CSettingsName& name, EKind kind) const
{
    return FindIn(name, kind);
}

std::size_t SQsLiteLevel::Find(const CQsStringW& name, EKind kind) const
{
    return FindIn(SSought{name, HashOf(name)}, kind);
}

template <class Name>
std::size_t SQsLiteLevel::FindIn(const Name& name, EKind kind) const
{
    if (m_slots.empty())
    {
        for (std::size_t i = 0; i < m_entries.size(); ++i)
            if (Matches(m_entries[i], kind) && IsNamed(m_entries[i], name))
                return i;
        return npos;
    }
    std::size_t found = npos;
    for (std::size_t slot = HashOf(name) & (m_slots.size() - 1); m_slots[slot] != 0;
         slot = (slot + 1) & (m_slots.size() - 1))
    {
        const std::size_t index = m_slots[slot] - 1;
        if (index < found && Matches(m_entries[index], kind) && IsNamed(m_entries[index], name))
            found = index;
    }
    return found;
}

// The slot of the first entry of the same name and kind, or the free one for it.
std::size_t SQsLiteLevel::Slot(std::size_t index) const
{
    const SEntry& entry = m_entries[index];
    std::size_t slot = entry.name.Hash() & (m_slots.size() - 1);
    while (m_slots[slot] != 0)
    {
        const SEntry& other = m_entries[m_slots[slot] - 1];
        if (other.IsLevel() == entry.IsLevel() && other.name == entry.name)
            break;
        slot = (slot + 1) & (m_slots.size() - 1);
    }
    return slot;
}

void SQsLiteLevel::Enter(std::size_t index)
{
    constexpr std::size_t leastSlots = 32;
    if (m_slots.empty())
        m_slots.resize(leastSlots);
    if ((m_slotsInUse + 1) * 2 > m_slots.size())
    {
        std::vector<std::uint32_t> positions;
        positions.swap(m_slots);
        m_slots.resize(positions.size() * 2);
        for (const std::uint32_t position : positions)
            if (position != 0)
                m_slots[Slot(position - 1)] = position;
    }
    const std::size_t slot = Slot(index);
    if (m_slots[slot] != 0)
        return;
    m_slots[slot] = static_cast<std::uint32_t>(index + 1);
    ++m_slotsInUse;
}

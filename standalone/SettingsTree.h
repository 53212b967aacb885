// Levels of the lite variants' store.
//
// A level that a reader holds is never changed: readers, and the file that was read last, share levels, and what is
// changed is made anew from the changed level up.
#pragma once

#include "host/QsSystem.h"

#include <cstddef>
#include <cstdint>
#include <memory>
#include <memory_resource>
#include <utility>
#include <variant>
#include <vector>

namespace QsStandalone {

// Memory for the many small parts of a file, which is given back when the last of them is gone.
using SettingsMemory = std::shared_ptr<std::pmr::memory_resource>;

// Allocator that keeps the memory alive for as long as what it allocated.
template <class T>
class CKeepingAllocator
{
public:
    using value_type = T;

    explicit CKeepingAllocator(SettingsMemory memory) : m_memory(std::move(memory)) {}
    template <class U>
    CKeepingAllocator(const CKeepingAllocator<U>& other) : m_memory(other.Memory())
    {}

    T* allocate(std::size_t count) { return static_cast<T*>(m_memory->allocate(count * sizeof(T), alignof(T))); }
    void deallocate(T* memory, std::size_t count) { m_memory->deallocate(memory, count * sizeof(T), alignof(T)); }
    const SettingsMemory& Memory() const { return m_memory; }

    template <class U>
    bool operator==(const CKeepingAllocator<U>& other) const
    {
        return m_memory == other.Memory();
    }
    template <class U>
    bool operator!=(const CKeepingAllocator<U>& other) const
    {
        return m_memory != other.Memory();
    }

private:
    SettingsMemory m_memory;
};

// Name of an entry; copies share the text.
class CSettingsName
{
public:
    explicit CSettingsName(CQsStringW text);
    CSettingsName(CQsStringW text, const SettingsMemory& memory);

    const CQsStringW& Text() const { return m_data->text; }
    std::size_t Hash() const { return m_data->hash; }
    const void* Identity() const { return m_data.get(); } // equal: the names are equal
    bool operator==(const CSettingsName& other) const
    {
        return m_data == other.m_data || (Hash() == other.Hash() && Text() == other.Text());
    }

private:
    struct SData
    {
        explicit SData(CQsStringW name);

        CQsStringW text;
        std::size_t hash;
    };
    std::shared_ptr<const SData> m_data;
};

} // namespace QsStandalone

struct SQsLiteLevel
{
    using Bytes = std::vector<unsigned char>;
    using BytesPointer = std::shared_ptr<const Bytes>;
    using Text = std::shared_ptr<const CQsStringW>;
    using Level = std::shared_ptr<const SQsLiteLevel>;
    using Value = std::variant<double, bool, std::uint32_t, BytesPointer, Text, Level>;

    struct SEntry
    {
        QsStandalone::CSettingsName name;
        Value value;

        bool IsLevel() const { return std::holds_alternative<Level>(value); }
    };
    enum class EKind
    {
        Value,
        Level,
        Any
    };
    static constexpr std::size_t npos = static_cast<std::size_t>(-1);

    using Entries = std::pmr::vector<SEntry>; // a copy is in ordinary memory

    SQsLiteLevel() = default;
    // Moves the entries in; `memory` must live as long as the level.
    SQsLiteLevel(SEntry* first, std::size_t count, std::pmr::memory_resource* memory);

    const Entries& All() const { return m_entries; }
    void Add(SEntry entry); // behind the others
    // A value in place of a value, a level in place of a level.
    void SetValue(std::size_t index, Value value) { m_entries[index].value = std::move(value); }
    // Of another name or kind, too.
    void SetEntry(std::size_t index, SEntry entry);

    // First entry of that name and kind, or npos.
    std::size_t Find(const QsStandalone::CSettingsName& name, EKind kind) const;
    std::size_t Find(const CQsStringW& name, EKind kind) const;

private:
    template <class Name>
    std::size_t FindIn(const Name& name, EKind kind) const;
    std::size_t Slot(std::size_t index) const;
    void MakeSlots();
    void Enter(std::size_t index);

    Entries m_entries;
    // Of a level with many entries: positions, from 1, of the first value and the first level of each name, at the
    // place of their hash or the next free one. 0: free. A power of two in size, at most half of it in use.
    std::vector<std::uint32_t> m_slots;
    std::size_t m_slotsInUse = 0;
};

// Ordered set of pointers that is read without a lock while it may change.
//
// Readers get an immutable, sorted version that stays valid as long as the set lives, so a callback may add or remove
// entries of the set that is being fired. Versions are kept and used again when the same content comes back; their
// number is bounded by the number of different contents, which for callbacks that come and go is small.
#pragma once

#include "platform/ThreadSafety.h"

#include <algorithm>
#include <atomic>
#include <functional>
#include <memory>
#include <utility>
#include <vector>

template <class Pointer>
class CQsSnapshotSet
{
public:
    using Version = std::vector<Pointer>;

    CQsSnapshotSet() { Publish(Version()); }

    // Null, and an entry that is there already / not there, change nothing. [any thread]
    void Insert(Pointer entry)
    {
        if (entry == nullptr)
            return;
        const CQsScopedLock<CQsMutex> lock(m_lock);
        Version version = Snapshot();
        const auto position = std::lower_bound(version.begin(), version.end(), entry, std::less<Pointer>());
        if (position != version.end() && *position == entry)
            return;
        version.insert(position, entry);
        Publish(std::move(version));
    }

    void Erase(Pointer entry)
    {
        const CQsScopedLock<CQsMutex> lock(m_lock);
        Version version = Snapshot();
        const auto position = std::lower_bound(version.begin(), version.end(), entry, std::less<Pointer>());
        if (position == version.end() || *position != entry)
            return;
        version.erase(position);
        Publish(std::move(version));
    }

    void Clear()
    {
        const CQsScopedLock<CQsMutex> lock(m_lock);
        Publish(Version());
    }

    // In ascending pointer order. [any thread]
    const Version& Snapshot() const { return *m_current.load(std::memory_order_acquire); }

    bool Contains(Pointer entry) const
    {
        const Version& version = Snapshot();
        return std::binary_search(version.begin(), version.end(), entry, std::less<Pointer>());
    }

private:
    void Publish(Version version) QS_REQUIRES(m_lock)
    {
        auto known = std::find_if(m_versions.begin(), m_versions.end(),
                                  [&version](const auto& candidate) { return *candidate == version; });
        if (known == m_versions.end())
            known = m_versions.insert(m_versions.end(), std::make_unique<const Version>(std::move(version)));
        m_current.store(known->get(), std::memory_order_release);
    }

    CQsMutex m_lock;
    std::vector<std::unique_ptr<const Version>> m_versions QS_GUARDED_BY(m_lock);
    std::atomic<const Version*> m_current{nullptr};
};

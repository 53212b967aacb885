// What the parts of a beampath's device share: its table of sub-beampaths, and the folds over their statuses.
#pragma once

#include "beampath/StimulationDeviceAggregator.h"
#include "beampath/StimulationDeviceProxy.h"

#include <algorithm>
#include <functional>

// The sub-beampaths as they were at one moment, in ascending order of ids. Holds a reference on each device, so that an
// operation that walks the table may go on while a rebuild replaces it.
struct CQsStimulationDeviceAggregator::STable
{
    struct SEntry
    {
        qs_int32 id = 0;
        CQsStimulationDeviceProxy* pProxy = nullptr; // null: the place of a sub-beampath that is gone
    };

    STable() = default;
    ~STable()
    {
        for (const SEntry& entry : entries)
            CQsRTTI::Release(entry.pProxy);
    }
    STable(const STable&) = delete;
    STable& operator=(const STable&) = delete;

    // Takes over a reference.
    void Append(qs_int32 id, CQsStimulationDeviceProxy* proxy) { entries.push_back({id, proxy}); }
    bool Has(qs_int32 id) const
    {
        return std::any_of(entries.begin(), entries.end(), [id](const SEntry& entry) { return entry.id == id; });
    }
    bool Has(const CQsStimulationDeviceProxy& proxy) const
    {
        return std::any_of(entries.begin(), entries.end(),
                           [&proxy](const SEntry& entry) { return entry.pProxy == &proxy; });
    }
    // Of the devices that are there, in order, up to the first that says yes.
    template <class Ask>
    bool Any(Ask ask) const
    {
        return std::any_of(entries.begin(), entries.end(),
                           [&ask](const SEntry& entry) { return entry.pProxy != nullptr && ask(*entry.pProxy); });
    }
    template <class Visit>
    void ForEach(Visit visit) const
    {
        for (const SEntry& entry : entries)
            if (entry.pProxy != nullptr)
                visit(*entry.pProxy);
    }

    std::vector<SEntry> entries;
};

// From 0. A device whose answer `selects` against the result so far is asked again, and the second answer is kept.
template <class Selects, class Ask>
int CQsStimulationDeviceAggregator::FoldStatus(Selects selects, Ask ask) const
{
    int result = QS_OK;
    Table()->ForEach(
        [&](IQsStimulationDevice& device)
        {
            if (selects(ask(device), result))
                result = ask(device);
        });
    return result;
}

template <class Ask>
int CQsStimulationDeviceAggregator::LowestStatus(Ask ask) const
{
    return FoldStatus(std::less<int>(), ask);
}

// The same, but a device that is as low as the lowest so far is asked again too.
template <class Ask>
int CQsStimulationDeviceAggregator::LastLowestStatus(Ask ask) const
{
    return FoldStatus(std::less_equal<int>(), ask);
}

// Filter changers of a saved key: written out, and read once more in another way.
#pragma once

#include "calibration/StimulationDeviceCalibration.h"

#include <algorithm>
#include <string>
#include <vector>

namespace QsFuzz {

using Changers = std::vector<SQsConfigItem::SFilterChanger>;

inline bool SameChangers(const Changers& a, const Changers& b)
{
    return std::equal(a.begin(), a.end(), b.begin(), b.end(),
                      [](const SQsConfigItem::SFilterChanger& x, const SQsConfigItem::SFilterChanger& y)
                      { return x.sKey == y.sKey && x.sName == y.sName && x.sPosition == y.sPosition; });
}

// The entries with all their marks.
inline CQsStringW KeyOf(const Changers& changers)
{
    CQsStringW text;
    for (const SQsConfigItem::SFilterChanger& changer : changers)
        text += L"$K" + changer.sKey + L"$N" + changer.sName + L"$P" + changer.sPosition;
    return text;
}

// One character after the other: what stands before the first mark belongs to nothing, and only the mark that comes
// next in the order key, name, position, key ... is one.
inline Changers ChangersByHand(const std::wstring& text)
{
    Changers changers;
    if (text.empty())
        return changers;
    std::wstring parts[3];
    int part = -1;
    const auto put = [&]
    {
        changers.push_back({CQsStringW(parts[0]), CQsStringW(parts[1]), CQsStringW(parts[2])});
        for (std::wstring& each : parts)
            each.clear();
    };
    for (std::size_t i = 0; i < text.size(); ++i)
    {
        if (text[i] == L'$' && i + 1 < text.size() && text[i + 1] == L"KNPK"[part + 1])
        {
            if (part == 2)
                put();
            part = part == 2 ? 0 : part + 1;
            ++i;
        }
        else if (part >= 0)
            parts[part] += text[i];
    }
    put();
    return changers;
}

} // namespace QsFuzz

// Filter changers of a saved key.
#include "calibration/StimulationDeviceCalibration.h"
#include "fuzz/Fuzz.h"

#include "fuzz/FilterChangers.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    const CQsStringW text = CQsStringW::FromUtf8(QsFuzz::Text(data, size));
    SQsConfigItem item;
    QS_LAW(item.SetFilterChangers(text) == QS_OK);
    QS_LAW(QsFuzz::SameChangers(item.vecFilterChangers, QsFuzz::ChangersByHand(text.Std())));

    // One for each "$K" that begins an entry, one for a text without any; their texts are disjoint parts of it.
    std::size_t characters = 0;
    for (const SQsConfigItem::SFilterChanger& changer : item.vecFilterChangers)
        characters += changer.sKey.GetLength() + changer.sName.GetLength() + changer.sPosition.GetLength();
    QS_LAW(item.vecFilterChangers.size() <= 1 + text.GetLength() / 2);
    QS_LAW(characters <= text.GetLength());
    QS_LAW(item.vecFilterChangers.empty() == text.IsEmpty());

    // Written out whole they read back the same, and a second text adds to what is there.
    const CQsStringW whole = QsFuzz::KeyOf(item.vecFilterChangers);
    SQsConfigItem again;
    again.SetFilterChangers(whole);
    QS_LAW(QsFuzz::SameChangers(again.vecFilterChangers, item.vecFilterChangers));
    again.SetFilterChangers(whole);
    auto twice = item.vecFilterChangers;
    twice.insert(twice.end(), item.vecFilterChangers.begin(), item.vecFilterChangers.end());
    QS_LAW(QsFuzz::SameChangers(again.vecFilterChangers, twice));
    SQsConfigItem joined;
    joined.SetFilterChangers(whole + whole);
    QS_LAW(QsFuzz::SameChangers(joined.vecFilterChangers, twice));
    return 0;
}

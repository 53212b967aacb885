// Keys of saved calibrations: a configuration string, taken apart for display.
#include "calibration/StimulationDeviceCalibration.h"
#include "fuzz/FilterChangers.h"
#include "fuzz/Fuzz.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <limits>

namespace {

bool Same(const SQsConfigItem& a, const SQsConfigItem& b)
{
    return QsFuzz::SameChangers(a.vecFilterChangers, b.vecFilterChangers) && a.sObjective == b.sObjective &&
           a.sZoom == b.sZoom && a.sCamera == b.sCamera && a.sRotation == b.sRotation && a.iORBAPort == b.iORBAPort &&
           a.bORBAPort == b.bORBAPort;
}

// An item that holds something everywhere, none of it from a key.
SQsConfigItem FullItem()
{
    SQsConfigItem item;
    item.vecFilterChangers.push_back({L"kept key", L"kept name", L"kept position"});
    item.sObjective = item.sZoom = item.sCamera = item.sRotation = L"kept";
    item.iORBAPort = -77;
    item.bORBAPort = true;
    return item;
}

// --- the numbers of a key by the C library, in the C locale

// The number that the text begins with after blanks, in plain characters; empty when there is none.
std::string NumberText(const std::wstring& text, bool bReal)
{
    std::size_t i = 0;
    const auto at = [&](std::size_t k) { return k < text.size() ? text[k] : L'\0'; };
    const auto isDigit = [&](std::size_t k) { return at(k) >= L'0' && at(k) <= L'9'; };
    while (at(i) == L' ' || (at(i) >= L'\t' && at(i) <= L'\r'))
        ++i;
    std::string number;
    const auto take = [&] { number += static_cast<char>(at(i++)); };
    const auto takeDigits = [&]
    {
        while (isDigit(i))
            take();
    };
    if (at(i) == L'-' || at(i) == L'+')
        take();
    if (!isDigit(i) && !(bReal && at(i) == L'.' && isDigit(i + 1)))
        return {};
    takeDigits();
    if (!bReal)
        return number;
    if (at(i) == L'.')
    {
        take();
        takeDigits();
    }
    const std::size_t sign = at(i + 1) == L'-' || at(i + 1) == L'+' ? 1 : 0;
    if ((at(i) == L'e' || at(i) == L'E') && isDigit(i + 1 + sign))
    {
        for (std::size_t k = 0; k < 1 + sign; ++k)
            take();
        takeDigits();
    }
    return number;
}

CQsStringW Hundredths(const std::wstring& text, const wchar_t* unit)
{
    const std::string number = NumberText(text, true);
    double value = number.empty() ? 0.0 : std::strtod(number.c_str(), nullptr);
    if (!std::isfinite(value))
        value = 0.0;
    char digits[512];
    std::snprintf(digits, sizeof digits, "%.2f", value);
    return CQsStringW::FromUtf8(digits) + unit;
}

std::int32_t Port(const std::wstring& text)
{
    const std::string number = NumberText(text, false);
    if (number.empty())
        return 0;
    const long long value = std::strtoll(number.c_str(), nullptr, 10); // at its limits when there are too many digits
    return static_cast<std::int32_t>(std::clamp<long long>(value, std::numeric_limits<std::int32_t>::min(),
                                                           std::numeric_limits<std::int32_t>::max()));
}

// --- the whole key once more, token by token from a list

std::vector<std::wstring> TokensOf(const std::wstring& key)
{
    std::vector<std::wstring> tokens(1);
    for (const wchar_t c : key)
    {
        if (c == L'#')
            tokens.emplace_back();
        else
            tokens.back() += c;
    }
    tokens.erase(std::remove(tokens.begin(), tokens.end(), std::wstring()), tokens.end());
    return tokens;
}

void ParseByHand(const std::wstring& key, SQsConfigItem& item)
{
    const std::vector<std::wstring> tokens = TokensOf(key);
    if (tokens.empty())
        return;
    item.vecFilterChangers.clear();
    item.sObjective = item.sZoom = item.sCamera = item.sRotation = L"<none>";
    for (const std::wstring& token : tokens)
    {
        const std::wstring value = token.substr(1);
        if (value.empty())
            continue;
        if (token[0] == L'C')
            item.sCamera = CQsStringW(value);
        else if (token[0] == L'O')
            item.sObjective = CQsStringW(value);
        else if (token[0] == L'R')
            item.sRotation = Hundredths(value, L"");
        else if (token[0] == L'Z')
            item.sZoom = Hundredths(value, L"x");
        else if (token[0] == L'L')
        {
            item.iORBAPort = Port(value);
            item.bORBAPort = true;
        }
        else if (token[0] == L'F')
        {
            const QsFuzz::Changers more = QsFuzz::ChangersByHand(value);
            item.vecFilterChangers.insert(item.vecFilterChangers.end(), more.begin(), more.end());
        }
    }
}

// --- writing an item out again

CQsStringW KeyOf(const SQsConfigItem& item)
{
    CQsStringW key = L"#F" + QsFuzz::KeyOf(item.vecFilterChangers) + L"#O" + item.sObjective + L"#C" + item.sCamera;
    if (item.sRotation != L"<none>")
        key += L"#R" + item.sRotation;
    if (item.sZoom != L"<none>")
        key += L"#Z" + item.sZoom;
    if (item.bORBAPort)
        key += CQsStringW::Format(L"#L%d", item.iORBAPort);
    return key;
}

// The snapshot that a parsed key describes, and its text.
CQsStringW SnapshotOf(const SQsConfigItem& item)
{
    CQsStimulationDeviceConfiguration snapshot;
    snapshot.AddCamera(item.sCamera);
    snapshot.AddObjective(item.sObjective);
    for (const SQsConfigItem::SFilterChanger& changer : item.vecFilterChangers)
        snapshot.AddFilterChanger(changer.sKey, changer.sName, QS_wtoi(changer.sPosition.c_str()));
    double number = 0.0;
    if (QS_StringToDouble(item.sRotation.c_str(), number))
        snapshot.SetCameraRotation(number);
    if (QS_StringToDouble(item.sZoom.c_str(), number))
        snapshot.AddManualZoom(number);
    snapshot.AddConnectionPort(item.iORBAPort);
    snapshot.SetORBAConnected(item.bORBAPort);
    return snapshot.GetConfigurationString();
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    static CQsStimulationDeviceCalibration calibration(nullptr);
    const CQsStringW key = CQsStringW::FromUtf8(QsFuzz::Text(data, size));
    const auto parse = [](const CQsStringW& text, SQsConfigItem item = {})
    {
        QS_LAW(calibration.ParseConfig(text, item) == QS_OK);
        return item;
    };
    const SQsConfigItem item = parse(key);

    // As the other reading has it, whatever the item held before.
    SQsConfigItem byHand;
    ParseByHand(key.Std(), byHand);
    QS_LAW(Same(item, byHand));
    SQsConfigItem kept = FullItem();
    ParseByHand(key.Std(), kept);
    QS_LAW(Same(parse(key, FullItem()), kept));
    SQsConfigItem reset = FullItem();
    reset.Reset();
    ParseByHand(key.Std(), reset);
    SQsConfigItem afterReset = FullItem();
    afterReset.Reset();
    QS_LAW(Same(parse(key, afterReset), reset));

    // A key that is a text of the item itself.
    SQsConfigItem own = FullItem();
    own.sCamera = key;
    QS_LAW(calibration.ParseConfig(own.sCamera, own) == QS_OK);
    if (!TokensOf(key.Std()).empty())
        QS_LAW(Same(own, kept));

    // Empty tokens mean nothing.
    QS_LAW(Same(parse(L"##" + key + L"#"), item));
    QS_LAW(item.vecFilterChangers.size() <= key.GetLength());

    // What is shown, written out as a key, shows the same.
    const SQsConfigItem again = parse(KeyOf(item));
    QS_LAW(Same(again, item));

    // The snapshot's text is a key of the same hardware. The first text may still differ from the later ones: in its
    // digits behind the hundredths, and in entries whose name is the word for "nothing chosen". A name ends at a null
    // character there.
    if (key.Std().find(L'\0') != std::wstring::npos)
        return 0;
    const CQsStringW first = SnapshotOf(item);
    const SQsConfigItem fromFirst = parse(first);
    QS_LAW(fromFirst.sObjective == item.sObjective && fromFirst.sCamera == item.sCamera);
    QS_LAW(fromFirst.bORBAPort == item.bORBAPort && fromFirst.iORBAPort == item.iORBAPort);
    QS_LAW(fromFirst.vecFilterChangers.size() <= item.vecFilterChangers.size());
    const CQsStringW second = SnapshotOf(fromFirst);
    QS_LAW(SnapshotOf(parse(second)) == second);
    return 0;
}

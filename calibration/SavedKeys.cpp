// Saved keys, taken apart again.
#include "calibration/StimulationDeviceCalibration.h"

#include <algorithm>

namespace {

double NumberOf(const CQsStringW& text)
{
    double value = 0.0;
    QS_StringToDouble(text.c_str(), value);
    return value;
}

// Characters [from, to) of the text, as far as it has them.
CQsStringW Cut(const CQsStringW& text, std::size_t from, std::size_t to)
{
    const std::size_t first = std::min(from, text.GetLength());
    const std::size_t end = std::clamp(to, first, text.GetLength());
    return CQsStringW(text.c_str() + first, end - first);
}

// First place of the mark at or after `from`; the text's length when there is none.
std::size_t FindOrEnd(const CQsStringW& text, const wchar_t* mark, std::size_t from)
{
    return std::min(text.Find(mark, from), text.GetLength());
}

} // namespace

SQsConfigItem::SQsConfigItem()
{
    Reset();
}

void SQsConfigItem::Reset()
{
    vecFilterChangers.clear();
    const CQsStringW none = QS_GetTranslation(L"<none>", __FILE__);
    sObjective = none;
    sZoom = none;
    sCamera = none;
    sRotation = none;
}

int SQsConfigItem::SetFilterChangers(const CQsStringW& text)
{
    const std::size_t length = text.GetLength();
    std::size_t s = 0;
    while (s != length)
    {
        const std::size_t k = FindOrEnd(text, L"$K", s);
        const std::size_t n = FindOrEnd(text, L"$N", k);
        const std::size_t p = FindOrEnd(text, L"$P", n);
        s = FindOrEnd(text, L"$K", p);
        vecFilterChangers.push_back({Cut(text, k + 2, n), Cut(text, n + 2, p), Cut(text, p + 2, s)});
    }
    return QS_OK;
}

int CQsStimulationDeviceCalibration::ParseConfig(const CQsStringW& sKey, SQsConfigItem& item)
{
    const std::wstring key = sKey.Std(); // a copy: the key may be a text of the item
    bool bReset = false;
    for (std::size_t begin = key.find_first_not_of(L'#'); begin != std::wstring::npos;)
    {
        const std::size_t end = std::min(key.find(L'#', begin), key.size());
        if (!bReset)
            item.Reset(); // only a key with a token replaces what the item holds
        bReset = true;
        if (end - begin >= 2)
        {
            const CQsStringW value(key.c_str() + begin + 1, end - begin - 1);
            switch (key[begin])
            {
            case L'C':
                item.sCamera = value;
                break;
            case L'F':
                item.SetFilterChangers(value);
                break;
            case L'L': // also the list of lights: then the port is 0, since what follows is no number
                item.iORBAPort = QS_wtoi(value.c_str());
                item.bORBAPort = true;
                break;
            case L'O':
                item.sObjective = value;
                break;
            case L'R':
                item.sRotation = CQsStringW::Format(L"%.2f", NumberOf(value));
                break;
            case L'Z':
                item.sZoom = CQsStringW::Format(L"%.2fx", NumberOf(value));
                break;
            default: // microscope and multilasers are not shown
                break;
            }
        }
        begin = key.find_first_not_of(L'#', end);
    }
    return QS_OK;
}

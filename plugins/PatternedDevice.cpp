#include "plugins/PatternedDevice.h"

#include "plugins/PatternImage.h"

#include <cstring>

namespace {

constexpr int statusNullArgument = -4;

// Mirrors of at least half the full brightness are on.
SQsRLEPicBuf LitMirrors(const SPatternImage& image)
{
    SQsRLEPicBuf picture;
    picture.uiWidth = image.width;
    picture.uiHeight = image.height;
    for (std::uint32_t y = 0; y < image.height; ++y)
    {
        const std::uint8_t* row = &image.pixels[std::size_t{y} * image.width];
        for (std::uint32_t x = 0; x < image.width; ++x)
        {
            if (row[x] < 128)
                continue;
            if (x > 0 && row[x - 1] >= 128)
                ++picture.runs.back().uiCount;
            else
                picture.runs.push_back({y, x, 1});
        }
    }
    return picture;
}

} // namespace

IQsInterface* CQsSimPatternedDevice::QueryInterface(const char* name)
{
    if (name == nullptr || std::strcmp(name, "IQsStimulationDeviceEx") != 0)
        return CQsSimulatedDevice::QueryInterface(name);
    AddRef();
    return static_cast<IQsStimulationDeviceEx*>(this);
}

int CQsSimPatternedDevice::AddPatternFromImage(const wchar_t* imageFile, const wchar_t* patternName, bool loadOneToOne,
                                               bool overwriteExisting)
{
    if (!imageFile || !patternName)
        return statusNullArgument;
    const CQsStringW file(imageFile);
    const CQsStringW name(patternName);
    return Journaled([&] { return "AddPatternFromImage(" + file.ToUtf8() + ", " + name.ToUtf8() + ")"; },
                     [&] { return AddPattern(file, name, loadOneToOne, overwriteExisting); });
}

int CQsSimPatternedDevice::AddPattern(const CQsStringW& file, const CQsStringW& name, bool oneToOne, bool overwrite)
{
    if (name.IsEmpty())
        return Refuse(file, "expected a name of the pattern, found none");
    SPatternImage image;
    std::string error;
    if (!ReadPatternImage(file.ToUtf8(), image, error))
        return Refuse(file, error);
    SPatternImage placed;
    if (!PlacePatternImage(image, static_cast<std::uint32_t>(m_chip.cx), static_cast<std::uint32_t>(m_chip.cy),
                           oneToOne, placed))
        return Refuse(file, "expected an image of at most " + std::to_string(m_chip.cx) + " x " +
                                std::to_string(m_chip.cy) + " pixels one to one, found a larger one");
    SAreas pattern;
    pattern.patternName = name;
    pattern.onChip = true;
    pattern.picture = LitMirrors(placed);
    if (!KeepPattern(std::move(pattern), overwrite))
        return Refuse(file, "expected a name of its own, found a pattern of that name");
    return QS_OK;
}

int CQsSimPatternedDevice::Refuse(const CQsStringW& file, const std::string& reason) const
{
    DiagOutputExW(L"SimulatedDevices", __LINE__, L"%hs::AddPatternFromImage(%s) - %hs, QS_ERR_FAIL",
                  GetClass()->GetName(), file.c_str(), reason.c_str());
    return QS_ERR_FAIL;
}

// Simulated device that fires patterns shot by shot, with a chip of 1024 x 768 mirrors. It also takes patterns from
// image files.
#include "device/ClassRegistration.h"
#include "host/QsPluginManager.h"
#include "plugins/PatternImage.h"
#include "plugins/SimulatedDevice.h"

#include <cstring>

namespace {

constexpr std::uint32_t chipWidth = 1024;
constexpr std::uint32_t chipHeight = 768;
constexpr int statusNullArgument = -4;

SSimulatedDeviceSettings PatternDefaults()
{
    SSimulatedDeviceSettings settings;
    settings.name = "CQsSimPatternDevice";
    settings.displayName = "Simulated pattern device";
    settings.mode = IQsStimulationDevice::s_modeRepeatedPatterns;
    settings.kinds = {IQsStimulationDevice::eStimContinuous, IQsStimulationDevice::eStimTimed,
                      IQsStimulationDevice::eStimRepeatedPatterns};
    settings.areas = 1;
    settings.exposureMs = 20.0;
    return settings;
}

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

class CQsSimPatternDevice : public CQsSimulatedDevice, public IQsStimulationDeviceEx
{
public:
    CQsSimPatternDevice();

    const CQsClassInfo* GetClass() const override { return CQsSimulatedDevice::GetClass(); }
    IQsInterface* QueryInterface(const char* name) override;

    // The pattern becomes one more area of the device. -4 for a null argument; -9 for an empty name, for a name that is
    // taken and not to be overwritten, and for an image that cannot be read or, one to one, does not fit the chip: the
    // log says which. Then nothing changes.
    int AddPatternFromImage(const wchar_t* imageFile, const wchar_t* patternName, bool loadOneToOne,
                            bool overwriteExisting) override;

private:
    int AddPattern(const CQsStringW& file, const CQsStringW& name, bool oneToOne, bool overwrite);
    int Refuse(const CQsStringW& file, const std::string& reason) const;
};

QS_REGISTER_STIMULATION_CLASS(CQsSimPatternDevice, "Simulated pattern device");

CQsSimPatternDevice::CQsSimPatternDevice() : CQsSimulatedDevice(sm_classCQsSimPatternDevice, PatternDefaults()) {}

IQsInterface* CQsSimPatternDevice::QueryInterface(const char* name)
{
    if (name == nullptr || std::strcmp(name, "IQsStimulationDeviceEx") != 0)
        return CQsSimulatedDevice::QueryInterface(name);
    AddRef();
    return static_cast<IQsStimulationDeviceEx*>(this);
}

int CQsSimPatternDevice::AddPatternFromImage(const wchar_t* imageFile, const wchar_t* patternName, bool loadOneToOne,
                                             bool overwriteExisting)
{
    if (!imageFile || !patternName)
        return statusNullArgument;
    const CQsStringW file(imageFile);
    const CQsStringW name(patternName);
    return Journaled([&] { return "AddPatternFromImage(" + file.ToUtf8() + ", " + name.ToUtf8() + ")"; },
                     [&] { return AddPattern(file, name, loadOneToOne, overwriteExisting); });
}

int CQsSimPatternDevice::AddPattern(const CQsStringW& file, const CQsStringW& name, bool oneToOne, bool overwrite)
{
    if (name.IsEmpty())
        return Refuse(file, "expected a name of the pattern, found none");
    SPatternImage image;
    std::string error;
    if (!ReadPatternImage(file.ToUtf8(), image, error))
        return Refuse(file, error);
    SPatternImage placed;
    if (!PlacePatternImage(image, chipWidth, chipHeight, oneToOne, placed))
        return Refuse(file, "expected an image of at most 1024 x 768 pixels one to one, found a larger one");
    SAreas pattern;
    pattern.patternName = name;
    pattern.picture = LitMirrors(placed);
    if (!KeepPattern(std::move(pattern), overwrite))
        return Refuse(file, "expected a name of its own, found a pattern of that name");
    return QS_OK;
}

int CQsSimPatternDevice::Refuse(const CQsStringW& file, const std::string& reason) const
{
    DiagOutputExW(L"SimulatedDevices", __LINE__, L"CQsSimPatternDevice::AddPatternFromImage(%s) - %hs, QS_ERR_FAIL",
                  file.c_str(), reason.c_str());
    return QS_ERR_FAIL;
}

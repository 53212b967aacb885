#include "plugins/Camera.h"

#include "device/ClassRegistration.h"
#include "host/QsDMApi.h"
#include "plugins/SettingsReader.h"

#include <algorithm>
#include <cstring>

namespace {

constexpr double longestSide = 8192.0;
constexpr double farthest = 100000.0; // [px]

bool IsOneOf(double value, std::initializer_list<double> values)
{
    return std::find(values.begin(), values.end(), value) != values.end();
}

// What is wrong with a state of a camera of that sensor; null when nothing is.
const char* Fault(const SQsCameraState& state, const CQsSizeBase<int>& sensor)
{
    if (!IsOneOf(state.dRotation, {0.0, 90.0, 180.0, 270.0}))
        return "expected a rotation of 0, 90, 180 or 270 degrees";
    if (!IsOneOf(state.iBinning, {1.0, 2.0, 4.0, 8.0}))
        return "expected a binning of 1, 2, 4 or 8";
    const CQsRectBase<int>& region = state.rcRegion;
    const bool whole = region.Width() == 0 && region.Height() == 0;
    const bool inside = region.left >= 0 && region.left < region.right && region.right <= sensor.cx &&
                        region.top >= 0 && region.top < region.bottom && region.bottom <= sensor.cy;
    if (!whole && !inside)
        return "expected a region on the sensor";
    const CQsSizeBase<int> image = ImageSize(state, sensor);
    return image.cx > 0 && image.cy > 0 ? nullptr : "expected a region of at least one binned pixel";
}

void ReadOptics(CQsSettingsReader& reader, SOptics& optics)
{
    reader.Number("rotationDeg", optics.rotationDeg, -360.0, 360.0);
    reader.Flag("flip", optics.flip);
    reader.Number("scale", optics.scale, 0.01, 100.0);
    reader.Number("shear", optics.shear, -10.0, 10.0);
    reader.Number("aspect", optics.aspect, 0.01, 100.0);
    reader.Number("dx", optics.dx, -farthest, farthest);
    reader.Number("dy", optics.dy, -farthest, farthest);
}

void ReadSensor(CQsSettingsReader& reader, SSensor& sensor)
{
    reader.Whole("width", sensor.width, 2.0, longestSide);
    reader.Whole("height", sensor.height, 2.0, longestSide);
    // The middle of a sensor is taken as half its sides in whole pixels.
    if (sensor.width % 2 != 0)
        reader.Complain("width", "an even number");
    if (sensor.height % 2 != 0)
        reader.Complain("height", "an even number");
    reader.Number("blurPx", sensor.blurPx, 0.0, 50.0);
    reader.Number("photons", sensor.photons, 0.0, 1e6);
    reader.Number("background", sensor.background, 0.0, 1e6);
    reader.Number("readNoise", sensor.readNoise, 0.0, 1e4);
    reader.Whole("dust", sensor.dust, 0.0, 10000.0);
    reader.Whole("seed", sensor.seed, 0.0, 4294967295.0);
}

void ReadState(CQsSettingsReader& reader, const SSensor& sensor, SQsCameraState& state)
{
    reader.Whole("rotation", state.dRotation, 0.0, 270.0);
    reader.Flag("flipped", state.bFlipped);
    reader.Whole("binning", state.iBinning, 1.0, 8.0);
    std::vector<int> region;
    reader.WholeList("region", region, 0.0, longestSide);
    if (!region.empty() && region.size() != 4)
        reader.Complain("region", "a list of left, top, right and bottom");
    else if (!region.empty())
        state.rcRegion = {region[0], region[1], region[2], region[3]};
    const char* const fault = Fault(state, {sensor.width, sensor.height});
    if (fault)
        reader.Complain("rotation, binning, region", fault);
}

SCameraSettings CameraSettings(const CQsClassInfo& info)
{
    SCameraSettings settings;
    ReadCameraSettings(info, settings);
    return settings;
}

} // namespace

bool ReadCameraSettings(const CQsClassInfo& info, SCameraSettings& settings,
                        const std::function<void(CQsSettingsReader&)>& readMore)
{
    const SCameraSettings defaults = settings;
    const bool right = ReadHostSettings(info.GetName(),
                                        [&](CQsSettingsReader& reader)
                                        {
                                            reader.Text("name", settings.name);
                                            reader.Flag("connected", settings.connected);
                                            ReadSensor(reader, settings.sensor);
                                            reader.Object("optics", [&settings](CQsSettingsReader& optics)
                                                          { ReadOptics(optics, settings.optics); });
                                            reader.Objects("objectives",
                                                           [&settings](const std::string& name, CQsSettingsReader& one)
                                                           {
                                                               SObjectiveOptics& objective = settings.objectives[name];
                                                               one.Number("scale", objective.scale, 0.01, 100.0);
                                                               one.Number("dx", objective.dx, -farthest, farthest);
                                                               one.Number("dy", objective.dy, -farthest, farthest);
                                                           });
                                            ReadState(reader, settings.sensor, settings.state);
                                            if (readMore)
                                                readMore(reader);
                                        });
    if (!right)
        settings = defaults;
    return right;
}

QS_REGISTER_CLASS(CQsSimCamera, "IQsGrabberCamera", "Simulated camera");

CQsSimCamera::CQsSimCamera() : CQsSimCamera(sm_classCQsSimCamera, CameraSettings(sm_classCQsSimCamera)) {}

CQsSimCamera::CQsSimCamera(const CQsClassInfo& info, const SCameraSettings& settings)
    : m_class(info), m_settings(settings), m_name(CQsStringW::FromUtf8(settings.name)), m_simulation(settings.sensor),
      m_state(settings.state)
{}

IQsInterface* CQsSimCamera::QueryInterface(const char* name)
{
    if (name == nullptr || std::strcmp(name, "IQsGrabberCamera") != 0)
        return nullptr;
    AddRef();
    return static_cast<IQsGrabberCamera*>(this);
}

SQsCameraState CQsSimCamera::GetState() const
{
    const CQsScopedLock<CQsMutex> guard(m_lock);
    return m_state;
}

int CQsSimCamera::SetState(const SQsCameraState& state)
{
    const char* const fault = Fault(state, SensorSize());
    if (fault)
    {
        DiagOutputExW(
            L"SimulatedDevices", __LINE__,
            L"CQsSimCamera::SetState(%s) - %hs, found %g degrees, binning %d, region %d %d %d %d, QS_ERR_FAIL",
            m_name.c_str(), fault, state.dRotation, state.iBinning, state.rcRegion.left, state.rcRegion.top,
            state.rcRegion.right, state.rcRegion.bottom);
        return QS_ERR_FAIL;
    }
    const CQsScopedLock<CQsMutex> guard(m_lock);
    m_state = state;
    return QS_OK;
}

int CQsSimCamera::GetFormat(SQsGrabberFormatDesc& format)
{
    if (!m_settings.connected)
        return QS_ERR_FAIL;
    const SQsCameraState state = GetState();
    SQsGrabberFormatDesc result;
    result.sName = result.sUserName = CQsStringW::Format(L"16 bit, binning %d", state.iBinning);
    result.size = ImageSize(state, SensorSize());
    result.binning = {state.iBinning, state.iBinning};
    result.fx = result.fy = state.iBinning;
    result.rcSensor = {0, 0, SensorSize().cx, SensorSize().cy};
    format = result;
    return QS_OK;
}

int CQsSimCamera::GetFormatValue(SQsGrabberFormatValue& value)
{
    if (!m_settings.connected)
        return QS_ERR_FAIL;
    const SQsCameraState state = GetState();
    SQsGrabberFormatValue result;
    result.sName = result.sUserName = CQsStringW::Format(L"16 bit, binning %d", state.iBinning);
    result.rcFormat = {0, 0, SensorSize().cx, SensorSize().cy};
    const bool whole = state.rcRegion.Width() == 0;
    result.rcRegion = whole ? result.rcFormat : state.rcRegion;
    value = result;
    return QS_OK;
}

int CQsSimCamera::GetFlipReference(double& a, double& b, double& c, double& d)
{
    if (!m_settings.connected)
        return QS_ERR_FAIL;
    a = 1.0;
    b = 0.0;
    c = 0.0;
    d = GetState().bFlipped ? -1.0 : 1.0;
    return QS_OK;
}

Affine CQsSimCamera::TrueMapping() const
{
    const auto found = m_settings.objectives.find(DMApi::Hardware_Get().sObjective.ToUtf8());
    return SensorFromMirrors(m_settings.optics,
                             found != m_settings.objectives.end() ? found->second : SObjectiveOptics(),
                             m_settings.sensor);
}

int CQsSimCamera::Grab(SQsGrabberImage& image)
{
    if (!m_settings.connected)
        return QS_ERR_FAIL;
    SQsCameraState state;
    std::uint64_t frame = 0;
    {
        const CQsScopedLock<CQsMutex> guard(m_lock);
        state = m_state;
        frame = m_frames++;
    }
    image = DeliverImage(m_simulation.Expose(CQsOpticalBench::Seen(m_name), TrueMapping(), frame), state, SensorSize());
    return QS_OK;
}

CQsStringW CQsSimCamera::GetCameraDescription()
{
    return CQsStringW::Format(L"%hs, %d x %d pixels", m_class.GetName(), SensorSize().cx, SensorSize().cy);
}

CQsStringW CQsSimCamera::GetSerialNumber()
{
    return CQsStringW::Format(L"SIM-%u", m_settings.sensor.seed);
}

// Simulated galvanometer scanner: visits points of its field while its light is on.
//
// Of every set of areas it keeps the points in the frame of its field, worked out with the full-field zoom of the
// moment at which the areas were given: the points of the scan area, then the ends of every line of the lit pixels,
// which lie in the image that was acquired with the scan area. StimulationAreaGet answers them as the points of the
// scan area.
#include "device/ClassRegistration.h"
#include "device/ScanAreaGeometry.h"
#include "plugins/SimulatedDevice.h"

#include <algorithm>
#include <cmath>

namespace {

using Point = CQsPointBase<double>;
using ScanArea = IQsStimulationDevice::SQsScanAreaDesc;
using Geometry = IQsStimulationDevice::SQsScanAreaHelper;

SSimulatedDeviceSettings GalvoSettings(const CQsClassInfo& info)
{
    SSimulatedDeviceSettings settings;
    settings.name = "CQsSimGalvoDevice";
    settings.displayName = "Simulated galvanometer scanner";
    settings.kinds = {IQsStimulationDevice::eStimContinuous, IQsStimulationDevice::eStimTimed};
    return ReadDeviceSettings(info.GetName(), settings);
}

std::vector<Point> VisitedPoints(const ScanArea& scanArea, const SQsRLEPicBuf& picture, CQsSizeBase<int> size)
{
    const double zoom = QsFullFieldZoom();
    std::vector<Point> visited;
    for (const Point& point : scanArea.Points)
    {
        visited.emplace_back();
        Geometry::ConvertFCSPointAreaToAbsoluteArea(point, visited.back(), &scanArea, zoom);
    }
    for (const SQsRLEPicBuf::SRun& run : picture.runs)
    {
        // The image's frame counts from the corner of the first pixel; the beam goes from centre to centre.
        const Point ends[2] = {{run.uiFirst + 0.5, run.uiRow + 0.5},
                               {run.uiFirst + run.uiCount - 0.5, run.uiRow + 0.5}};
        for (const Point& end : ends)
        {
            visited.emplace_back();
            Geometry::ConvertPointImgToPointArea(visited.back(), end, &scanArea, size, zoom);
        }
    }
    return visited;
}

} // namespace

class CQsSimGalvoDevice : public CQsSimulatedDevice
{
public:
    CQsSimGalvoDevice();
    ~CQsSimGalvoDevice() override;

protected:
    void AcceptAreas(SAreas& areas) override;
    int PrepareLight() override; // -9 without a point to visit, and for one that is no number
    bool LightComesOn(std::string& text) override;

private:
    CQsMutex m_pathLock;
    std::string
        m_path QS_GUARDED_BY(m_pathLock); // what the next light visits, for the journal; empty: nothing may be lit
};

QS_REGISTER_STIMULATION_CLASS(CQsSimGalvoDevice, "Simulated galvanometer scanner");

CQsSimGalvoDevice::CQsSimGalvoDevice()
    : CQsSimulatedDevice(sm_classCQsSimGalvoDevice, GalvoSettings(sm_classCQsSimGalvoDevice))
{}

CQsSimGalvoDevice::~CQsSimGalvoDevice()
{
    SwitchOff();
}

void CQsSimGalvoDevice::AcceptAreas(SAreas& areas)
{
    const CQsSizeBase<int> ofPicture = {static_cast<int>(areas.picture.uiWidth),
                                        static_cast<int>(areas.picture.uiHeight)};
    const bool known = areas.format.size.cx > 0 && areas.format.size.cy > 0;
    areas.scanArea.Points = VisitedPoints(areas.scanArea, areas.picture, known ? areas.format.size : ofPicture);
    areas.hasScanArea = true;
}

int CQsSimGalvoDevice::PrepareLight()
{
    std::vector<Point> path;
    for (const SAreas& areas : Areas())
        path.insert(path.end(), areas.scanArea.Points.begin(), areas.scanArea.Points.end());
    const bool finite = std::all_of(
        path.begin(), path.end(), [](const Point& point) { return std::isfinite(point.x) && std::isfinite(point.y); });
    const bool wholeField = path.empty() && PresetAreas() != 0;
    if (!finite || (path.empty() && !wholeField))
    {
        DiagOutputExW(L"SimulatedDevices", __LINE__, L"%s - %hs, QS_ERR_FAIL", GetUniqueName().c_str(),
                      finite ? "there is no area to scan" : "a point to visit is not a number");
        const CQsScopedLock<CQsMutex> guard(m_pathLock);
        m_path.clear();
        return QS_ERR_FAIL;
    }
    std::string text = wholeField ? "the whole field" : std::to_string(path.size()) + " points";
    for (const Point& point : path)
        text += CQsStringW::Format(L" (%.6f, %.6f)", point.x, point.y).ToUtf8();
    const CQsScopedLock<CQsMutex> guard(m_pathLock);
    m_path = text;
    return QS_OK;
}

bool CQsSimGalvoDevice::LightComesOn(std::string& text)
{
    const CQsScopedLock<CQsMutex> guard(m_pathLock);
    text = m_path;
    return !m_path.empty();
}

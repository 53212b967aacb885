// `map point|rect|roi`: the same place on the camera's or scanner's image, in the scanner's field, and on the chip.

#include "device/ScanAreaGeometry.h"
#include "host/QsPluginManager.h"
#include "stimhost/CalibratedDevice.h"
#include "stimhost/Commands.h"
#include "stimhost/RoiText.h"
#include "stimhost/ScanAreaText.h"
#include "stimhost/Session.h"
#include "stimhost/Text.h"

#include <QFile>

#include <algorithm>
#include <filesystem>

namespace Stimhost {

namespace {

using SHelper = IQsStimulationDevice::SQsScanAreaHelper;

// What the frames depend on.
struct SFrames
{
    std::optional<CCalibratedDevice> device; // where the chip is asked for
    SView view;
    bool hasScanArea = false;
    IQsStimulationDevice::SQsScanAreaDesc scanArea;
    double referenceZoom = 1.0;
    CMatrix3 chipFromImage = s_identity3;
    CMatrix3 imageFromChip = s_identity3;

    CQsSizeBase<int> Size() const { return view.format.size; }

    CPoint ToImage(const std::string& from, const CPoint& point) const
    {
        CPoint image = point;
        if (from == "area")
            SHelper::ConvertPointAreaToPointImg(point, image, &scanArea, Size(), referenceZoom);
        else if (from == "chip")
            image = Mapped(imageFromChip, point);
        return image;
    }
    CPoint FromImage(const std::string& to, const CPoint& image) const
    {
        CPoint point = image;
        if (to == "area")
            SHelper::ConvertPointImgToPointArea(point, image, &scanArea, Size(), referenceZoom);
        else if (to == "chip")
            point = Mapped(chipFromImage, image);
        return point;
    }
};

int Refuse(const std::string& error, int code = eExitBadUse)
{
    Complain(error);
    return code;
}

// The image of the device's camera, or of the rig's first one where nothing is said of a chip.
std::optional<int> FindImage(const SOptions& options, CSession& session, bool needsChip, SFrames& frames)
{
    std::string error;
    CCalibratedDevice device;
    if (CCalibratedDevice::Find(*session.Manager(), options.device, device, error))
    {
        frames.device = device;
        device.FollowHardware();
        if (device.View(frames.view, error))
            return std::nullopt;
        return Refuse(error, eExitFailed);
    }
    if (needsChip || options.device)
        return Refuse(error);
    const std::vector<CQsStringW> names = CQsGrabberManager::CameraNames();
    const std::shared_ptr<IQsGrabberCamera> camera(
        names.empty() ? nullptr : CQsGrabberManager::FindCamera(names.front()), SReleaser());
    if (camera == nullptr)
        return Refuse(session.Rig().path + ": expected a rig with a camera, found none");
    SQsGrabberFormatValue value;
    if (camera->GetFormat(frames.view.format) != QS_OK || camera->GetFormatValue(value) != QS_OK)
        return Refuse(ToUtf8(names.front()) + ": the camera does not answer", eExitFailed);
    frames.view.region = value.rcRegion;
    return std::nullopt;
}

std::optional<int> FindFrames(const SOptions& options, CSession& session, SFrames& frames)
{
    std::string error;
    SScanArea scan;
    if (!options.scanArea.empty() && !ReadScanArea(options.scanArea, scan, error))
        return Refuse("--scan-area: " + error);
    const bool needsChip = options.from == "chip" || options.to == "chip";
    if (const std::optional<int> code = FindImage(options, session, needsChip, frames))
        return code;
    frames.hasScanArea = !options.scanArea.empty();
    frames.scanArea = scan.area;
    if (scan.referenceZoom > 0.0)
        frames.referenceZoom = scan.referenceZoom;
    else // the scanner knows; nobody answers where there is none
        CQsPluginManager::AppRntm_HandleEvent(L"ConfocalV4Event_GetFullFOVSDKZoom", 0, 0, &frames.referenceZoom);
    if (!needsChip)
        return std::nullopt;
    const std::optional<CMatrix3> chipFromImage =
        frames.device->ChipFromImage(frames.view, frames.hasScanArea ? &frames.scanArea : nullptr);
    const std::optional<CMatrix3> inverse = chipFromImage ? Inverse(*chipFromImage) : std::nullopt;
    if (!inverse)
        return Refuse(frames.device->Name() + " has no usable calibration; state " + StateText(frames.device->State()),
                      eExitFailed);
    frames.chipFromImage = *chipFromImage;
    frames.imageFromChip = *inverse;
    return std::nullopt;
}

// What a mapping prints beside its points.
struct SExtra
{
    std::optional<IQsStimulationDevice::SQsScanAreaDesc> scanArea; // that a rectangle stands for
    std::optional<std::uint64_t> mirrors;                          // that a region lights
};

void PrintMapping(const SOptions& options, const SFrames& frames, const std::vector<CPoint>& from,
                  const SExtra& extra = {})
{
    std::vector<CPoint> to;
    for (const CPoint& point : from)
        to.push_back(frames.FromImage(options.to, frames.ToImage(options.from, point)));
    const bool onChip = options.to == "chip";
    const CQsSizeBase<int> chip = onChip ? frames.device->Calibrated().GetChipSize() : CQsSizeBase<int>();

    CJson json;
    json.Object().Integer("version", 1).Text("from", options.from).Text("to", options.to);
    json.Array("imageSize").Whole(frames.view.Width()).Whole(frames.view.Height()).EndArray();
    json.Real("referenceZoom", frames.referenceZoom).Array("points");
    constexpr std::size_t width = 16;
    std::string text = Padded(options.from + " x", width, true) + Padded("y", width, true) +
                       Padded(options.to + " x", width, true) + Padded("y", width, true) + "\n";
    for (std::size_t i = 0; i < from.size(); ++i)
    {
        json.Object().Pair("from", from[i].x, from[i].y).Pair("to", to[i].x, to[i].y);
        if (onChip)
            json.Flag("onChip", IsOnChip(to[i], chip));
        json.EndObject();
        for (const double number : {from[i].x, from[i].y, to[i].x, to[i].y})
            text += Padded(Number(number, 6), width, true);
        text += std::string(onChip && !IsOnChip(to[i], chip) ? "  beside the chip" : "") + "\n";
    }
    json.EndArray();
    const CQsRectBase<double> bounds = Bounds(to);
    const double sides[] = {bounds.left, bounds.top, bounds.right, bounds.bottom};
    json.Reals("bounds", sides, 4);
    if (onChip)
        json.Integer("state", frames.device->State()).Text("stateName", StateName(frames.device->State()));
    if (extra.scanArea)
    {
        const auto& area = *extra.scanArea;
        json.Object("scanArea").Real("zoom", area.dZoom).Real("angle", area.dAngle).Real("x", area.dXOffset);
        json.Real("y", area.dYOffset).Real("aspect", area.dScanAreaAspect).EndObject();
        text += "scan area zoom=" + Exact(area.dZoom) + ",angle=" + Exact(area.dAngle) + ",x=" + Exact(area.dXOffset) +
                ",y=" + Exact(area.dYOffset) + ",aspect=" + Exact(area.dScanAreaAspect) + "\n";
    }
    if (extra.mirrors)
    {
        json.Integer("mirrors", static_cast<long long>(*extra.mirrors));
        text += std::to_string(*extra.mirrors) + " mirrors\n";
    }
    if (onChip)
        text += "calibration state " + StateText(frames.device->State()) + "\n";
    json.EndObject();
    Print(options.json ? json.Take() : text);
}

bool ReadRoiOrFile(const std::string& place, SRoi& roi, std::string& error)
{
    constexpr qint64 longest = 4 << 20;
    std::error_code ignored;
    if (!std::filesystem::is_regular_file(place, ignored))
        return ReadRoi(place, roi, error);
    QFile file(QString::fromStdString(place));
    if (!file.open(QIODevice::ReadOnly) || file.size() > longest)
    {
        error = place + ": expected a file of at most 4 MiB that can be read";
        return false;
    }
    if (ReadRoi(file.readAll().toStdString(), roi, error))
        return true;
    error = place + ": " + error;
    return false;
}

} // namespace

int MapPoint(const SOptions& options, CSession& session)
{
    const std::optional<CPoint> point = ReadPoint(options.place);
    if (!point)
        return Refuse("expected a point as X,Y, found \"" + options.place + "\"");
    SFrames frames;
    if (const std::optional<int> code = FindFrames(options, session, frames))
        return *code;
    PrintMapping(options, frames, {*point});
    return eExitDone;
}

int MapRect(const SOptions& options, CSession& session)
{
    const std::optional<std::vector<double>> sides = ReadNumbers(options.place, 4);
    if (!sides || !((*sides)[2] > (*sides)[0]) || !((*sides)[3] > (*sides)[1]))
        return Refuse("expected a rectangle as L,T,R,B with something between its sides, found \"" + options.place +
                      "\"");
    SFrames frames;
    if (const std::optional<int> code = FindFrames(options, session, frames))
        return *code;
    const CQsRectBase<double> rect{(*sides)[0], (*sides)[1], (*sides)[2], (*sides)[3]};
    SExtra extra;
    IQsStimulationDevice::SQsScanAreaDesc area;
    if (options.from == "image" && options.to == "area" &&
        SHelper::ConvertRectToScanArea(&area, rect, 0.0, &frames.scanArea, frames.Size(), frames.referenceZoom,
                                       SHelper::eScanAreaModeAspect) == QS_OK)
        extra.scanArea = area;
    PrintMapping(options, frames,
                 {{rect.left, rect.top}, {rect.right, rect.top}, {rect.right, rect.bottom}, {rect.left, rect.bottom}},
                 extra);
    return eExitDone;
}

int MapRoi(const SOptions& options, CSession& session)
{
    std::string error;
    SRoi roi;
    if (!ReadRoiOrFile(options.place, roi, error))
        return Refuse(error);
    SFrames frames;
    if (const std::optional<int> code = FindFrames(options, session, frames))
        return *code;
    SExtra extra;
    if (options.from == "image")
    {
        SQsRLEPicBuf picture;
        if (!Rasterise(roi, frames.view.Width(), frames.view.Height(), picture, error))
            return Refuse(error);
        // The mirrors are the device's to choose, so it is asked for them.
        SQsRLEPicBuf mirrors;
        if (options.to == "chip" &&
            frames.device->Device().StimulationAreaSet({}, picture, frames.hasScanArea ? &frames.scanArea : nullptr,
                                                       frames.view.format, frames.view.region) == QS_OK &&
            frames.device->Calibrated().GetChipPicture(mirrors) == QS_OK)
            extra.mirrors = PixelCount(mirrors);
    }
    constexpr unsigned segments = 32;
    PrintMapping(options, frames, Outline(roi, segments), extra);
    return eExitDone;
}

} // namespace Stimhost

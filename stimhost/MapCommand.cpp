// `map point|rect|roi`: the same place on the camera's or scanner's image, in the scanner's field, and on the chip.

#include "device/ScanAreaGeometry.h"
#include "host/QsPluginManager.h"
#include "stimhost/CalibratedDevice.h"
#include "stimhost/Commands.h"
#include "stimhost/RoiText.h"
#include "stimhost/SavedCalibrations.h"
#include "stimhost/ScanAreaText.h"
#include "stimhost/Session.h"
#include "stimhost/Text.h"

#include <QFile>

#include <algorithm>
#include <cmath>
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

    // None where the result is no pair of finite numbers.
    std::optional<CPoint> Map(const std::string& from, const std::string& to, const CPoint& point) const
    {
        int status = QS_OK;
        CPoint image = point;
        if (from == "area")
            status = SHelper::ConvertPointAreaToPointImg(point, image, &scanArea, Size(), referenceZoom);
        else if (from == "chip")
            image = Mapped(imageFromChip, point);
        CPoint result = image;
        if (to == "area" && status == QS_OK)
            status = SHelper::ConvertPointImgToPointArea(result, image, &scanArea, Size(), referenceZoom);
        else if (to == "chip")
            result = Mapped(chipFromImage, image);
        if (status != QS_OK || !std::isfinite(result.x) || !std::isfinite(result.y))
            return std::nullopt;
        return result;
    }

    // Both directions between image and chip; false when there is no such mapping.
    bool MapToChip(const IQsStimulationDevice::SQsScanAreaDesc* area)
    {
        const std::optional<CMatrix3> there = device->ChipFromImage(view, area);
        const std::optional<CMatrix3> back = there ? Inverse(*there) : std::nullopt;
        chipFromImage = there.value_or(s_identity3);
        imageFromChip = back.value_or(s_identity3);
        return back.has_value();
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
    if (frames.MapToChip(frames.hasScanArea ? &frames.scanArea : nullptr))
        return std::nullopt;
    const std::string& name = frames.device->Name();
    if (frames.hasScanArea && frames.MapToChip(nullptr))
        return Refuse("--scan-area: expected one that can be mapped to the chip of " + name + ", found \"" +
                      options.scanArea + "\"");
    const std::string fault = FaultOfSaved(*frames.device);
    if (!fault.empty())
        return Refuse(fault);
    return Refuse(name + " has no usable calibration; state " + StateText(frames.device->State()), eExitFailed);
}

// What a mapping prints beside its points.
struct SExtra
{
    struct STurnedRect // turned about its centre
    {
        CQsRectBase<double> rect;
        double angle = 0.0; // [rad]
    };

    std::optional<IQsStimulationDevice::SQsScanAreaDesc> scanArea; // that a rectangle stands for
    std::optional<IQsStimulationDevice::SQsScanAreaDesc> cropArea; // its crop is the one that a rectangle stands for
    std::optional<STurnedRect> scanAreaRect;                       // of --scan-area, on the image of the full field
    std::optional<STurnedRect> cropRect;                           // of its crop, likewise
    std::optional<std::uint64_t> mirrors;                          // that a region lights
};

bool IsFinite(const SExtra::STurnedRect& turned)
{
    const double numbers[] = {turned.rect.left, turned.rect.top, turned.rect.right, turned.rect.bottom, turned.angle};
    return std::all_of(std::begin(numbers), std::end(numbers), [](double number) { return std::isfinite(number); });
}

bool IsFinite(const IQsStimulationDevice::SQsScanAreaDesc& area)
{
    const double numbers[] = {area.dZoom,       area.dAngle,          area.dXOffset,
                              area.dYOffset,    area.dScanAreaAspect, area.dCropZoom,
                              area.dCropAspect, area.dCropXOffset,    area.dCropYOffset};
    return std::all_of(std::begin(numbers), std::end(numbers), [](double number) { return std::isfinite(number); });
}

constexpr SHelper::EScanAreaMode s_mode = SHelper::eScanAreaModeAspect;

// Scan area, and crop of the one given, that a rectangle of the image stands for. False when there are none.
bool FindAreas(const SFrames& frames, const CQsRectBase<double>& rect, SExtra& extra)
{
    IQsStimulationDevice::SQsScanAreaDesc area;
    if (SHelper::ConvertRectToScanArea(&area, rect, 0.0, &frames.scanArea, frames.Size(), frames.referenceZoom,
                                       s_mode) != QS_OK ||
        !IsFinite(area))
        return false;
    extra.scanArea = area;
    if (!frames.scanArea.bIsCrop)
        return true;
    area = frames.scanArea;
    if (SHelper::ConvertRectToCropArea(&area, rect, 0.0, &frames.scanArea, frames.Size(), frames.referenceZoom,
                                       s_mode) != QS_OK ||
        !IsFinite(area))
        return false;
    extra.cropArea = area;
    return true;
}

// Where the scan area that is given, and its crop, lie on the image of the full field. False when nowhere.
bool FindRects(const SFrames& frames, SExtra& extra)
{
    const IQsStimulationDevice::SQsScanAreaDesc fullField;
    SExtra::STurnedRect turned;
    if (SHelper::ConvertScanAreaToRect(&frames.scanArea, turned.rect, turned.angle, &fullField, frames.Size(),
                                       frames.referenceZoom, s_mode) != QS_OK ||
        !IsFinite(turned))
        return false;
    extra.scanAreaRect = turned;
    if (!frames.scanArea.bIsCrop)
        return true;
    if (SHelper::ConvertCropAreaToRect(&frames.scanArea, turned.rect, turned.angle, &fullField, frames.Size(),
                                       frames.referenceZoom, s_mode) != QS_OK ||
        !IsFinite(turned))
        return false;
    extra.cropRect = turned;
    return true;
}

void WriteRect(CJson& json, std::string& text, const char* key, const char* title, const SExtra::STurnedRect& turned)
{
    const double sides[] = {turned.rect.left, turned.rect.top, turned.rect.right, turned.rect.bottom};
    const double degrees = turned.angle * 180.0 / 3.14159265358979323846;
    json.Object(key).Reals("bounds", sides, 4).Real("angle", degrees).EndObject();
    text += title;
    for (const double& side : sides)
        text += (&side == sides ? " " : ",") + Number(side, 6);
    text += " turned by " + Number(degrees, 6) + " deg, on the image of the full field\n";
}

// The exit code.
int PrintMapping(const SOptions& options, const SFrames& frames, const std::vector<CPoint>& from,
                 const SExtra& extra = {})
{
    std::vector<CPoint> to;
    for (const CPoint& point : from)
    {
        const std::optional<CPoint> mapped = frames.Map(options.from, options.to, point);
        if (!mapped)
            return Refuse("expected finite numbers in the frame \"" + options.to + "\" for the point " +
                              Exact(point.x) + "," + Exact(point.y) + " of the frame \"" + options.from +
                              "\", found none",
                          eExitFailed);
        to.push_back(*mapped);
    }
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
    if (extra.cropArea)
    {
        const auto& area = *extra.cropArea;
        json.Object("cropArea").Real("zoom", area.dCropZoom).Real("aspect", area.dCropAspect);
        json.Real("x", area.dCropXOffset).Real("y", area.dCropYOffset).EndObject();
        text += "crop      crop-zoom=" + Exact(area.dCropZoom) + ",crop-aspect=" + Exact(area.dCropAspect) +
                ",crop-x=" + Exact(area.dCropXOffset) + ",crop-y=" + Exact(area.dCropYOffset) + "\n";
    }
    if (extra.scanAreaRect)
        WriteRect(json, text, "scanAreaRect", "scan area", *extra.scanAreaRect);
    if (extra.cropRect)
        WriteRect(json, text, "cropRect", "crop     ", *extra.cropRect);
    if (extra.mirrors)
    {
        json.Integer("mirrors", static_cast<long long>(*extra.mirrors));
        text += std::to_string(*extra.mirrors) + " mirrors\n";
    }
    if (onChip)
        text += "calibration state " + StateText(frames.device->State()) + "\n";
    json.EndObject();
    Print(options.json ? json.Take() : text);
    return eExitDone;
}

bool ReadRoiOrFile(const std::string& place, SRoi& roi, std::string& error)
{
    constexpr qint64 longest = 4 << 20;
    std::error_code ignored;
    if (!std::filesystem::is_regular_file(std::filesystem::u8path(place), ignored))
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
    return PrintMapping(options, frames, {*point});
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
    if (options.from == "image" && options.to == "area" && !FindAreas(frames, rect, extra))
        return Refuse("expected a rectangle that is a scan area, found \"" + options.place + "\"", eExitFailed);
    if (options.from == "area" && options.to == "image" && frames.hasScanArea && !FindRects(frames, extra))
        return Refuse("--scan-area: expected one that lies somewhere on the image, found \"" + options.scanArea + "\"",
                      eExitFailed);
    return PrintMapping(
        options, frames,
        {{rect.left, rect.top}, {rect.right, rect.top}, {rect.right, rect.bottom}, {rect.left, rect.bottom}}, extra);
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
        if (options.to == "chip")
        {
            int status = frames.device->Device().StimulationAreaSet(
                {}, picture, frames.hasScanArea ? &frames.scanArea : nullptr, frames.view.format, frames.view.region);
            if (status == QS_OK)
                status = frames.device->Calibrated().GetChipPicture(mirrors);
            if (status != QS_OK)
                return Refuse(frames.device->Name() + " does not take the region, status " + std::to_string(status),
                              eExitFailed);
            extra.mirrors = PixelCount(mirrors);
        }
    }
    constexpr unsigned segments = 32;
    return PrintMapping(options, frames, Outline(roi, segments), extra);
}

} // namespace Stimhost

// Geometry: points of an image one by one, and the rebuild of a calibration's mappings.
#include "bench/Paired.h"
#include "calibration/StimulationDeviceCalibration.h"
#include "device/ScanAreaGeometry.h"

#include <Eigen/Geometry>

#include <cblas.h>

#include <cmath>
#include <random>

namespace {

using namespace QsBench;

constexpr std::size_t pointCount = 1000000;

// A scan area with everything: zoom, angle, offsets, aspect and crop.
IQsStimulationDevice::SQsScanAreaDesc RichArea()
{
    IQsStimulationDevice::SQsScanAreaDesc area;
    area.dZoom = 2.0;
    area.dAngle = 30.0;
    area.dXOffset = 0.1;
    area.dYOffset = -0.2;
    area.dScanAreaAspect = 1.25;
    area.bIsCrop = true;
    area.dCropXOffset = 0.25;
    area.dCropYOffset = -0.4;
    area.dCropZoom = 2.0;
    area.dCropAspect = 1.5;
    return area;
}

// The same arithmetic with everything that does not depend on the point taken out of the loop.
class CHoistedByHand
{
public:
    CHoistedByHand(const IQsStimulationDevice::SQsScanAreaDesc& C, CQsSizeBase<int> size, double dZ0)
        : m_frame(size.cx * C.dCropZoom, size.cy * C.dCropZoom * C.dCropAspect),
          m_shift(m_frame.x() * 0.5 * C.dCropXOffset + (m_frame.x() - size.cx) * 0.5,
                  m_frame.y() * 0.5 * C.dCropYOffset + (m_frame.y() - size.cy) * 0.5),
          m_half(m_frame / 2.0), m_zoom(C.dZoom / dZ0, C.dZoom / dZ0 * C.dScanAreaAspect),
          m_rotation(Eigen::Rotation2Dd(C.dAngle * 3.1415926535898 / 180.0).toRotationMatrix()),
          m_offset(C.dXOffset, C.dYOffset)
    {}

    Eigen::Vector2d operator()(const Eigen::Vector2d& image) const
    {
        const Eigen::Vector2d p = 2.0 * (image.array() + m_shift - m_half) / m_frame / m_zoom;
        return m_rotation * p + m_offset;
    }

private:
    Eigen::Array2d m_frame;
    Eigen::Array2d m_shift;
    Eigen::Array2d m_half;
    Eigen::Array2d m_zoom;
    Eigen::Matrix2d m_rotation;
    Eigen::Vector2d m_offset;
};

void PointsOneByOne(benchmark::State& state)
{
    using Helper = IQsStimulationDevice::SQsScanAreaHelper;
    const IQsStimulationDevice::SQsScanAreaDesc area = RichArea();
    const CQsSizeBase<int> size{512, 512};
    std::mt19937_64 random(1);
    std::uniform_real_distribution<double> pixel(0.0, 512.0);
    std::vector<CQsPointBase<double>> image(pointCount);
    std::vector<Eigen::Vector2d> bareImage(pointCount);
    for (std::size_t i = 0; i < pointCount; ++i)
    {
        image[i] = {pixel(random), pixel(random)};
        bareImage[i] = {image[i].x, image[i].y};
    }
    std::vector<CQsPointBase<double>> points(pointCount);
    std::vector<Eigen::Vector2d> barePoints(pointCount);

    const auto ours = [&]
    {
        const double t0 = NowNs();
        for (std::size_t i = 0; i < pointCount; ++i)
            Helper::ConvertPointImgToPointArea(points[i], image[i], &area, size, 1.25);
        return (NowNs() - t0) / pointCount;
    };
    const auto limit = [&]
    {
        const double t0 = NowNs();
        const CHoistedByHand convert(area, size, 1.25);
        for (std::size_t i = 0; i < pointCount; ++i)
            barePoints[i] = convert(bareImage[i]);
        return (NowNs() - t0) / pointCount;
    };
    const SSamples samples = MeasurePairs(state, ours, limit);
    for (std::size_t i = 0; i < pointCount; ++i)
    {
        if (std::abs(points[i].x - barePoints[i].x()) > 1e-12 || std::abs(points[i].y - barePoints[i].y()) > 1e-12)
            return Fail(state, "the two disagree about a point");
    }
    ReportMedians(samples, "image point to area point, one of a million", "Eigen, hoisted by hand", 1.5);
}
BENCHMARK(PointsOneByOne)->Iterations(15)->UseManualTime();

void MappingRebuild(benchmark::State& state)
{
    constexpr unsigned repetitions = 2000;
    const std::vector<double> camToDMD = {0.98, 0.05, 12.5, -0.04, 1.02, -7.25, 0.0, 0.0, 1.0};
    CQsStimulationDeviceCalibration calibration(nullptr);
    calibration.SetCameraRotationCurrent(30.0);
    calibration.SetCalibrationCamToDMD(camToDMD);

    std::vector<double> rotation;
    std::vector<double> flip;
    std::vector<double> translation;
    calibration.GetRotationMatrix(rotation);
    calibration.GetFlipMatrix(flip);
    calibration.GetTranslationVector(translation);
    double bareMapping[9] = {};
    double bareInverse[9] = {};
    const auto multiply = [](const double* a, const double* b, double* out)
    { cblas_dgemm(CblasRowMajor, CblasNoTrans, CblasNoTrans, 3, 3, 3, 1.0, a, 3, b, 3, 0.0, out, 3); };

    const auto ours = [&] { return TimeEach(repetitions, [&] { calibration.UpdateMapping(); }); };
    const auto limit = [&]
    {
        return TimeEach(repetitions,
                        [&]
                        {
                            double y[3];
                            cblas_dgemv(CblasRowMajor, CblasNoTrans, 3, 3, 1.0, rotation.data(), 3, translation.data(),
                                        1, 0.0, y, 1);
                            double T[9] = {1, 0, -std::abs(y[0]), 0, 1, -std::abs(y[1]), 0, 0, 1};
                            double flipped[9];
                            double turned[9];
                            double toUnrotated[9];
                            multiply(flip.data(), T, flipped);
                            multiply(rotation.data(), flipped, turned);
                            T[2] = translation[0];
                            T[5] = translation[1];
                            multiply(T, turned, toUnrotated);
                            multiply(camToDMD.data(), toUnrotated, bareMapping);
                            CQsMKL_API::InvertMatrix(bareInverse, bareMapping, 3);
                        });
    };
    const SSamples samples = MeasurePairs(state, ours, limit);
    std::vector<double> mapping;
    std::vector<double> inverse;
    calibration.GetMappingCamToDMD(mapping);
    calibration.GetMappingDMDToCam(inverse);
    for (std::size_t i = 0; i < 9; ++i)
    {
        if (std::abs(mapping[i] - bareMapping[i]) > 1e-9 || std::abs(inverse[i] - bareInverse[i]) > 1e-9)
            return Fail(state, "the two disagree about the mapping");
    }
    ReportMedians(samples, "rebuild of a calibration's mappings", "its CBLAS calls and one inverse", 1.3);
}
BENCHMARK(MappingRebuild)->Iterations(200)->UseManualTime();

} // namespace

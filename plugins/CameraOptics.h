// What a simulated camera makes of the light of a chip: the true mapping, blur, noise and dust on its sensor, and the
// image that it delivers of the sensor.
//
// Frames
//   DMD     mirrors; the centre of mirror (x, y) is the point (x, y), its sides are half a mirror away
//   sensor  pixels, counted from the corner of the first one; the centre of pixel (x, y) is (x + 0.5, y + 0.5)
#pragma once

#include "host/QsGrabber.h"
#include "plugins/OpticalBench.h"

#include <Eigen/Core>

#include <cstdint>
#include <vector>

using Affine = Eigen::Matrix<double, 2, 3>; // of columns (x, y, 1)

// sensor <- DMD: point = rotation * scale * (1 shear; 0 aspect) * (flip of y) * mirror + (dx, dy)
struct SOptics
{
    double rotationDeg = 0.0;
    bool flip = false;
    double scale = 0.625; // sensor pixels of a mirror
    double shear = 0.0;
    double aspect = 1.0;
    double dx = 0.3125; // of the centre of mirror (0, 0) [px]
    double dy = 0.3125;
};

// Change of the true mapping by an objective: about the centre of the sensor, then moved.
struct SObjectiveOptics
{
    double scale = 1.0;
    double dx = 0.0; // [px]
    double dy = 0.0;
};

struct SSensor
{
    int width = 640; // [px]
    int height = 480;
    double blurPx = 1.0;       // standard deviation of the Gaussian
    double photons = 2000.0;   // signal of a pixel that is lit all over
    double background = 100.0; // of every pixel
    double readNoise = 2.0;    // standard deviation
    int dust = 0;              // dark spots
    std::uint32_t seed = 1;
};

Affine SensorFromMirrors(const SOptics& optics, const SObjectiveOptics& objective, const SSensor& sensor);

class CQsSensorSimulation
{
public:
    explicit CQsSensorSimulation(const SSensor& sensor);

    // Grey values of the sensor, row by row. The same of the same light, mapping, seed and number of the frame.
    // [any thread]
    std::vector<std::uint16_t> Expose(const std::vector<ChipLight>& lights, const Affine& sensorFromMirrors,
                                      std::uint64_t frame) const;

private:
    void AddDust();

    const SSensor m_sensor;
    std::vector<float> m_passes; // part of the light that the dust lets pass, of each pixel; empty: all of it
};

// Size of the image that a camera in that state delivers, and where the image of the region lies in that of the sensor.
CQsRectBase<int> RegionInImage(const SQsCameraState& state, const CQsSizeBase<int>& sensor);
CQsSizeBase<int> ImageSize(const SQsCameraState& state, const CQsSizeBase<int>& sensor);
// Turned, mirrored, cut to the region and binned: pixels move, nothing is interpolated; a binned pixel has the mean.
SQsGrabberImage DeliverImage(const std::vector<std::uint16_t>& pixels, const SQsCameraState& state,
                             const CQsSizeBase<int>& sensor);

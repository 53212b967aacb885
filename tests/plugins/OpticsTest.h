// The simulated microscope of the optics tests: a camera, a micromirror device, and what both must do by the laws of
// their geometry, worked out here a second time and in another way.
#pragma once

#include "SimulatedDevicesTest.h"

#include "calibration/CalibratedDevice.h"
#include "standalone/HostControl.h"

#include <array>

namespace QsTest {

struct SReleaseCamera
{
    void operator()(IQsGrabberCamera* camera) const { CQsRTTI::Release(camera); }
};
using CameraPtr = std::unique_ptr<IQsGrabberCamera, SReleaseCamera>;

// A camera of that class with these settings, not yet one of the grabber manager's; null when it cannot be made.
CameraPtr MakeCamera(const std::string& settings, const std::string& className = "CQsSimCamera");

// A micromirror device with its second interface; both null when it cannot be made.
struct SMicromirror
{
    explicit SMicromirror(const std::string& settings = "{}");
    ~SMicromirror();

    DevicePtr device;
    IQsCalibratedStimulationDevice* calibrated = nullptr; // with a reference of its own
};

// Cameras of the grabber manager, gone with the object.
class CCameras
{
public:
    ~CCameras() { QsStandalone::RemoveCameras(); }
    // Adds a camera with these settings; the pointer stays valid while the object lives.
    IQsGrabberCamera* Add(const std::string& settings, const std::string& className = "CQsSimCamera");

private:
    std::vector<CameraPtr> m_cameras;
};

struct SPoint
{
    double x = 0.0;
    double y = 0.0;
};

// x' = a x + b y + c, y' = d x + e y + f
struct SAffine
{
    double a = 1.0, b = 0.0, c = 0.0;
    double d = 0.0, e = 1.0, f = 0.0;

    SPoint operator()(const SPoint& p) const { return {a * p.x + b * p.y + c, d * p.x + e * p.y + f}; }
    SAffine Inverse() const;
    double Area() const { return std::abs(a * e - b * d); } // of a unit square
    std::vector<double> Matrix() const { return {a, b, c, d, e, f, 0.0, 0.0, 1.0}; }
};

// Image point, the centre of a pixel, from a point of the sensor counted from its corner.
SPoint ImageFromSensor(const SPoint& sensorPoint, const SQsCameraState& state, const CQsSizeBase<int>& sensor);
SPoint SensorFromImage(const SPoint& imagePoint, const SQsCameraState& state, const CQsSizeBase<int>& sensor);

// Every rotation, flip, region and binning; the regions lie on a sensor of at least 640 x 480.
std::vector<SQsCameraState> AllCameraStates();
std::string Text(const SQsCameraState& state); // for messages

SQsRLEPicBuf Mirrors(unsigned width, unsigned height, const std::vector<SQsRLEPicBuf::SRun>& runs);
// Lit pixels of a picture.
SQsRLEPicBuf Rectangle(const CQsSizeBase<int>& size, const CQsRectBase<int>& lit);

SQsGrabberImage Grab(IQsGrabberCamera& camera);
// Centre of the light above a background, and all of it.
struct SSpot
{
    SPoint centre;
    double light = 0.0;
};
SSpot Spot(const SQsGrabberImage& image, double background = 0.0);
double Mean(const SQsGrabberImage& image);
double Variance(const SQsGrabberImage& image);
double ThirdMoment(const SQsGrabberImage& image); // central

// Areas of the image that the camera delivers now.
int SetArea(IQsStimulationDevice& device, IQsGrabberCamera& camera, const SQsRLEPicBuf& picture,
            const IQsStimulationDevice::SQsScanAreaDesc* scanArea = nullptr);

// Whether the journal has a light of the device at all.
bool HasLit(const std::string& device);
// What the journal says of the last light of the device; empty: nothing.
std::string LastLight(const std::string& device);

} // namespace QsTest

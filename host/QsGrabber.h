// The host's grabber manager: cameras, and the descriptions of their formats.
//
// A camera's sensor has a frame of its own: camera pixels, origin at the sensor's top left corner, y down. What the
// camera delivers is the image: the sensor turned by the camera's rotation about its centre, then, where the camera is
// flipped, mirrored top to bottom, cut to the region and binned.
#pragma once

#include "host/QsSystem.h"

#include <cstdint>
#include <vector>

// Format of a camera's frames. Real-valued fields read -1.0 where the camera gives no value.
struct SQsGrabberFormatDesc
{
    CQsStringW sName;
    CQsStringW sUserName;
    CQsSizeBase<int> size;     // frame [px]
    CQsSizeBase<int> binning;  // camera pixels in one frame pixel
    double dPixelSizeX = -1.0; // [um]
    double dPixelSizeY = -1.0; // [um]
    double fx = -1.0;          // horizontal chip scale [camera px per image px]
    double fy = -1.0;          // vertical chip scale [camera px per image px]
    CQsRectBase<int> rcSensor; // sensor rectangle [camera px]
};

// The format that a camera runs in. Real-valued fields read -1.0 where the camera gives no value.
struct SQsGrabberFormatValue
{
    CQsStringW sName;
    CQsStringW sUserName;
    double dExposureMs = -1.0;
    double dGain = -1.0;
    CQsRectBase<int> rcFormat; // the whole frame, whatever the region is [camera px]
    CQsRectBase<int> rcRegion; // part of the sensor that is read out [camera px]
};

// Description of a camera, filled by its provider. Texts are bounded copies: at most 64, 128, 64 and 64 characters with
// the terminating zero, longer ones are cut.
struct SQsGrabberCameraDesc01
{
    static constexpr std::uint8_t s_confocal = 0x40; // bit of uiFlags: a confocal scanner

    wchar_t wszName[64];
    wchar_t wszDescription[128];
    wchar_t wszSerialNumber[64];
    wchar_t wszFirmware[64];
    std::uint8_t uiFlags;
};

// One camera behind a grabber.
class IQsGenericProvider
{
public:
    virtual CQsStringW GetCameraName() = 0;
    virtual CQsStringW GetCameraDescription() = 0;
    virtual CQsStringW GetSerialNumber() = 0;
    virtual CQsStringW GetFirmware() = 0;
    virtual std::uint8_t GetCameraFlags() = 0; // SQsGrabberCameraDesc01::uiFlags

    // Fills the description from the operations above; every byte of it is written. Returns 0. [any thread]
    QS_HOST_API int CameraGet_WRP(SQsGrabberCameraDesc01& description);

protected:
    ~IQsGenericProvider() = default;
};

// A grabber of one or several cameras. Holds its providers as plain pointers; null entries are allowed.
class QS_HOST_API CQsGenericProviderGrabber
{
public:
    virtual ~CQsGenericProviderGrabber();

    virtual unsigned SecGrabber_GetCount() const { return static_cast<unsigned>(m_providers.size()); }
    virtual IQsGenericProvider* SecGrabber_GetProvider_Low(unsigned index) const // null beyond the count
    {
        return index < m_providers.size() ? m_providers[index] : nullptr;
    }
    void AddProvider(IQsGenericProvider* provider) { m_providers.push_back(provider); }

private:
    std::vector<IQsGenericProvider*> m_providers;
};

// How a camera is mounted and what it reads out.
struct SQsCameraState
{
    double dRotation = 0.0;    // [deg] of the image against the sensor: 0, 90, 180 or 270
    bool bFlipped = false;     // top to bottom, after the rotation
    int iBinning = 1;          // 1, 2, 4 or 8
    CQsRectBase<int> rcRegion; // part of the sensor [camera px]; empty: all of it
};

// Grey values of one frame, row by row. The point (x, y) of an image is the centre of the pixel of column x and row y.
struct SQsGrabberImage
{
    std::uint32_t uiWidth = 0;  // [image px]
    std::uint32_t uiHeight = 0; // [image px]
    std::vector<std::uint16_t> pixels;
};

// A camera, found by querying an object for "IQsGrabberCamera". [any thread]
class IQsGrabberCamera : virtual public IQsInterface
{
public:
    virtual CQsStringW GetName() const = 0;
    virtual SQsCameraState GetState() const = 0;
    // 0; -9, and nothing changed, for a state that the camera cannot take (the log says why).
    virtual int SetState(const SQsCameraState& state) = 0;

    // Format of the images of now: `size` the image, `rcSensor` the whole sensor, `binning` and fx, fy the binning,
    // `rcRegion` what is read out. Always 0 for a camera that is there, else -9 and the outputs unchanged.
    virtual int GetFormat(SQsGrabberFormatDesc& format) = 0;
    virtual int GetFormatValue(SQsGrabberFormatValue& value) = 0; // rcFormat the whole sensor
    // Axes of the image against those of the unflipped one, as a 2x2 matrix (a b; c d). 0, or -9 without a camera.
    virtual int GetFlipReference(double& a, double& b, double& c, double& d) = 0;

    // One frame of what is lit now. 0; -9, and the image unchanged, when the camera is not there.
    virtual int Grab(SQsGrabberImage& image) = 0;
};

// The grabber manager's cameras. [any thread]
class QS_HOST_API CQsGrabberManager
{
public:
    // The camera of that name with one more reference, which the caller releases; null when there is none.
    static IQsGrabberCamera* FindCamera(const CQsStringW& name);
    static std::vector<CQsStringW> CameraNames(); // in the order of adding
};

// Simulated camera: delivers what the devices of this module light at the moment of the grab, as it falls onto its
// sensor through the true optics of its settings.
//
// The turned, flipped, cut and binned image is made of the sensor's pixels as host/QsGrabber.h says; a binned pixel has
// the mean of its pixels, and what is left over at the right and bottom of the region is left out.
#pragma once

#include "platform/ThreadSafety.h"
#include "plugins/CameraOptics.h"

#include <map>
#include <string>

class CQsSettingsReader;

struct SCameraSettings
{
    std::string name = "Simulated camera";
    bool connected = true;
    SSensor sensor;
    SOptics optics;
    std::map<std::string, SObjectiveOptics> objectives; // by the host's name; another one changes nothing
    SQsCameraState state;                               // at first
};

// The settings that the host holds for the class, over the defaults; `readMore` asks for what the class has beyond
// them. False, and the defaults, where they are malformed.
bool ReadCameraSettings(const CQsClassInfo& info, SCameraSettings& settings,
                        const std::function<void(CQsSettingsReader&)>& readMore = {});

class CQsSimCamera : public IQsGrabberCamera, public IQsGenericProvider, public CQsClass
{
public:
    CQsSimCamera();

    // CQsClass
    const CQsClassInfo* GetClass() const override { return &m_class; }
    IQsInterface* QueryInterface(const char* name) override; // "IQsGrabberCamera"

    // IQsGrabberCamera
    CQsStringW GetName() const override { return m_name; }
    SQsCameraState GetState() const override;
    int SetState(const SQsCameraState& state) override;
    int GetFormat(SQsGrabberFormatDesc& format) override;
    int GetFormatValue(SQsGrabberFormatValue& value) override;
    int GetFlipReference(double& a, double& b, double& c, double& d) override;
    int Grab(SQsGrabberImage& image) override;

    // IQsGenericProvider
    CQsStringW GetCameraName() override { return m_name; }
    CQsStringW GetCameraDescription() override;
    CQsStringW GetSerialNumber() override;
    CQsStringW GetFirmware() override { return L"1.0"; }
    std::uint8_t GetCameraFlags() override { return 0; }

protected:
    CQsSimCamera(const CQsClassInfo& info, const SCameraSettings& settings);

private:
    CQsSizeBase<int> SensorSize() const { return {m_settings.sensor.width, m_settings.sensor.height}; }
    Affine TrueMapping() const; // sensor <- DMD through the objective of now

    const CQsClassInfo& m_class;
    const SCameraSettings m_settings;
    const CQsStringW m_name;
    const CQsSensorSimulation m_simulation;

    mutable CQsMutex m_lock;
    SQsCameraState m_state QS_GUARDED_BY(m_lock);
    std::uint64_t m_frames QS_GUARDED_BY(m_lock) = 0; // grabbed so far
};

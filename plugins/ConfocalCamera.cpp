// Simulated confocal scanner on the side of the grabber: a camera that is flagged as confocal and answers the question
// for the zoom of its full field.
#include "device/ClassRegistration.h"
#include "host/QsDMApi.h"
#include "plugins/Camera.h"
#include "plugins/SettingsReader.h"

#include <cwchar>

namespace {

constexpr const wchar_t* fullFieldZoomEvent = L"ConfocalV4Event_GetFullFOVSDKZoom";

struct SConfocalSettings
{
    SCameraSettings camera;
    double fullFieldZoom = 1.0;
};

SConfocalSettings ReadSettings(const CQsClassInfo& info)
{
    SConfocalSettings defaults;
    defaults.camera.name = "Simulated confocal scanner";
    defaults.camera.sensor.width = defaults.camera.sensor.height = 512;
    SConfocalSettings settings = defaults;
    const bool right = ReadCameraSettings(info, settings.camera,
                                          [&settings](CQsSettingsReader& reader)
                                          { reader.Number("fullFieldZoom", settings.fullFieldZoom, 0.01, 100.0); });
    return right ? settings : defaults;
}

} // namespace

class CQsSimConfocalCamera : public CQsSimCamera, public IQsDMApiPluginNotification
{
public:
    CQsSimConfocalCamera();
    ~CQsSimConfocalCamera() override;

    std::uint8_t GetCameraFlags() override { return SQsGrabberCameraDesc01::s_confocal; }

    // IQsDMApiPluginNotification
    unsigned AppRntm_HandleEvent(const wchar_t* eventName, void* context) override;

private:
    explicit CQsSimConfocalCamera(const SConfocalSettings& settings);

    const double m_fullFieldZoom;
};

QS_REGISTER_CLASS(CQsSimConfocalCamera, "IQsGrabberCamera", "Simulated confocal scanner");

CQsSimConfocalCamera::CQsSimConfocalCamera() : CQsSimConfocalCamera(ReadSettings(sm_classCQsSimConfocalCamera)) {}

CQsSimConfocalCamera::CQsSimConfocalCamera(const SConfocalSettings& settings)
    : CQsSimCamera(sm_classCQsSimConfocalCamera, settings.camera), m_fullFieldZoom(settings.fullFieldZoom)
{
    if (!settings.camera.connected)
        return;
    DMApi::AppRntm_RegisterConsumer(this);
    DMApi::AppRntm_RegisterEvent(this, fullFieldZoomEvent);
}

CQsSimConfocalCamera::~CQsSimConfocalCamera()
{
    DMApi::AppRntm_UnregisterConsumer(this);
}

unsigned CQsSimConfocalCamera::AppRntm_HandleEvent(const wchar_t* eventName, void* context)
{
    if (context != nullptr && std::wcscmp(eventName, fullFieldZoomEvent) == 0)
        *static_cast<double*>(context) = m_fullFieldZoom;
    return 0;
}

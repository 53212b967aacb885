#include "OpticsTest.h"

#include "device/ChipTransformations.h"

using namespace QsTest;

namespace {

using Transformations = IQsStimulationDevice::SQsTransformationHelper;

const char* const confocalClass = "CQsSimConfocalCamera";
const wchar_t* const zoomEvent = L"ConfocalV4Event_GetFullFOVSDKZoom";

double AskedZoom(unsigned& told)
{
    double zoom = 1.0;
    told = CQsPluginManager::AppRntm_HandleEvent(zoomEvent, 0, 0, &zoom);
    return zoom;
}

} // namespace

TEST(SimulatedConfocalCamera, IsWhatMakesAGrabberConfocal)
{
    const CameraPtr plain = MakeCamera(R"({"name": "plain"})");
    const CameraPtr confocal = MakeCamera(R"({"name": "scanner", "seed": 12})", confocalClass);
    auto* plainProvider = dynamic_cast<IQsGenericProvider*>(plain.get());
    auto* confocalProvider = dynamic_cast<IQsGenericProvider*>(confocal.get());
    ASSERT_NE(nullptr, plainProvider);
    ASSERT_NE(nullptr, confocalProvider);
    CQsGenericProviderGrabber grabber;
    EXPECT_FALSE(Transformations::IsConfocal(&grabber));
    grabber.AddProvider(nullptr);
    grabber.AddProvider(plainProvider);
    EXPECT_FALSE(Transformations::IsConfocal(&grabber));
    grabber.AddProvider(confocalProvider);
    EXPECT_TRUE(Transformations::IsConfocal(&grabber));

    SQsGrabberCameraDesc01 description;
    ASSERT_EQ(0, confocalProvider->CameraGet_WRP(description));
    EXPECT_STREQ(L"scanner", description.wszName);
    EXPECT_STREQ(L"SIM-12", description.wszSerialNumber);
    EXPECT_EQ(0x40, description.uiFlags);
    ASSERT_EQ(0, plainProvider->CameraGet_WRP(description));
    EXPECT_STREQ(L"plain", description.wszName);
    EXPECT_EQ(0, description.uiFlags);
}

TEST(SimulatedConfocalCamera, AnswersForTheZoomOfItsFullFieldWhileItIsThere)
{
    unsigned told = 7;
    EXPECT_EQ(1.0, AskedZoom(told));
    EXPECT_EQ(0u, told);
    {
        const CameraPtr confocal = MakeCamera(R"({"fullFieldZoom": 0.5})", confocalClass);
        EXPECT_EQ(0.5, AskedZoom(told));
        EXPECT_EQ(1u, told);
        EXPECT_EQ(1u, CQsPluginManager::AppRntm_HandleEvent(zoomEvent, 0, 0, nullptr)); // nothing to write to
        double other = unwritten;
        EXPECT_EQ(0u, CQsPluginManager::AppRntm_HandleEvent(L"another event", 0, 0, &other));
        EXPECT_EQ(unwritten, other);
    }
    EXPECT_EQ(1.0, AskedZoom(told));
    EXPECT_EQ(0u, told);
    const CameraPtr unplugged = MakeCamera(R"({"fullFieldZoom": 0.5, "connected": false})", confocalClass);
    EXPECT_EQ(1.0, AskedZoom(told));
}

// A scan area of half the field at its right: the zoom of the full field says how far to the right an offset of a half
// is. Of an image point x on 512 pixels the full field's place is u = (x + 0.5) / 512; the area's middle is
// c = 0.5 + 0.5 * 0.5 / zoom of the full field, and the transformation gives (u - 0.5) / 2 + c.
TEST(SimulatedConfocalCamera, ChangesTheWayFromTheImageToTheChip)
{
    IQsStimulationDevice::SQsScanAreaDesc scanArea;
    scanArea.dZoom = 2.0;
    scanArea.dXOffset = 0.5;
    for (const double zoom : {1.0, 0.5, 0.8})
    {
        const CameraPtr confocal =
            MakeCamera(CQsStringW::Format(L"{\"fullFieldZoom\": %g}", zoom).ToUtf8(), confocalClass);
        SQsGrabberFormatDesc format;
        ASSERT_EQ(0, confocal->GetFormat(format));
        ASSERT_EQ(512, format.size.cx);
        ASSERT_EQ(512, format.size.cy);
        double m[9];
        std::fill_n(m, 9, unwritten);
        ASSERT_EQ(0, Transformations::CalcTransformImgToChip(format, 0.0, &scanArea, nullptr, true, m));
        const double offset = (0.5 / 512.0 - 0.5) / 2.0 + 0.5;
        const double expected[9] = {1.0 / 1024.0, 0.0, offset + 0.25 / zoom, 0.0, 1.0 / 1024.0, offset, 0.0, 0.0, 1.0};
        for (int i = 0; i < 9; ++i)
            EXPECT_NEAR(expected[i], m[i], 1e-12) << zoom << ", element " << i;
        // Without the question the scan area does not count.
        ASSERT_EQ(0, Transformations::CalcTransformImgToChip(format, 0.0, &scanArea, nullptr, false, m));
        EXPECT_NEAR(1.0 / 512.0, m[0], 1e-15);
        EXPECT_NEAR(0.5 / 512.0, m[2], 1e-15);
    }
}

// A micromirror device against the image of a scanner: the same scan area, up to the device's mirrors.
TEST(SimulatedConfocalCamera, IsWhatAMicromirrorDeviceMapsItsScanAreasThrough)
{
    CCameras cameras;
    IQsGrabberCamera* confocal = cameras.Add(R"({"name": "scanner", "fullFieldZoom": 0.5})", confocalClass);
    const SMicromirror mirrors(R"({"camera": "scanner"})");
    // Mirrors twice as fine as the pixels.
    mirrors.calibrated->GetCalibration().SetCalibrationCamToDMD({2.0, 0.0, -0.5, 0.0, 2.0, -0.5, 0.0, 0.0, 1.0});
    SQsGrabberFormatDesc format;
    ASSERT_EQ(0, confocal->GetFormat(format));
    IQsStimulationDevice::SQsScanAreaDesc scanArea;
    double m[9];
    // The whole field is what an image without a scan area shows.
    for (const IQsStimulationDevice::SQsScanAreaDesc* area : {static_cast<decltype(&scanArea)>(nullptr), &scanArea})
    {
        std::fill_n(m, 9, unwritten);
        ASSERT_EQ(0, mirrors.calibrated->GetImageToChip(format, area, {}, m));
        EXPECT_NEAR(2.0, m[0], 1e-9);
        EXPECT_NEAR(0.5, m[2], 1e-9); // the centre of the first pixel, 0.5, is 2 * 0.5 - 0.5
    }
    scanArea.dZoom = 2.0;
    scanArea.dXOffset = 0.5;
    ASSERT_EQ(0, mirrors.calibrated->GetImageToChip(format, &scanArea, {}, m));
    // By the law of the test before: 512 * ((0.5 / 512 - 0.5) / 2 + 0.5 + 0.25 / 0.5), times 2, less 0.5.
    EXPECT_NEAR(1.0, m[0], 1e-9);
    EXPECT_NEAR(2.0 * (0.25 - 128.0 + 512.0) - 0.5, m[2], 1e-9);
    EXPECT_NEAR(2.0 * (0.25 - 128.0 + 256.0) - 0.5, m[5], 1e-9);
}

TEST(SimulatedConfocalCamera, HasItsDefaultsWhenItsSettingsAreWrong)
{
    for (const char* settings : {R"({"fullFieldZoom": 0})", R"({"fullFieldZoom": "1"})", R"({"fullfieldZoom": 1})"})
    {
        QsStandalone::TakeSettingsFaults();
        const CameraPtr confocal = MakeCamera(settings, confocalClass);
        EXPECT_EQ(1u, QsStandalone::TakeSettingsFaults().size()) << settings;
        EXPECT_TRUE(confocal->GetName() == L"Simulated confocal scanner");
        unsigned told = 0;
        EXPECT_EQ(1.0, AskedZoom(told));
    }
}

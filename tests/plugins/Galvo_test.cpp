#include "OpticsTest.h"

#include "tests/support/LogCapture.h"

#include <limits>

using namespace QsTest;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::StartsWith;

namespace {

using ScanArea = IQsStimulationDevice::SQsScanAreaDesc;

const char* const name = "CQsSimGalvoDevice";
constexpr CQsSizeBase<int> size = {400, 200};

// What the device visits for these areas.
std::vector<CQsPointBase<double>> Visited(IQsStimulationDevice& device, const SQsRLEPicBuf& picture,
                                          const ScanArea* scanArea)
{
    SQsGrabberFormatDesc format;
    format.size = size;
    EXPECT_EQ(0, device.StimulationAreaSet({}, picture, scanArea, format, {}));
    ScanArea answer;
    answer.dZoom = unwritten;
    EXPECT_EQ(0, device.StimulationAreaGet(nullptr, nullptr, &answer, nullptr, nullptr, nullptr));
    EXPECT_EQ(scanArea ? scanArea->dZoom : 1.0, answer.dZoom);
    return answer.Points;
}

void ExpectPoint(double x, double y, const CQsPointBase<double>& point)
{
    EXPECT_NEAR(x, point.x, 1e-12);
    EXPECT_NEAR(y, point.y, 1e-12);
}

} // namespace

TEST(SimulatedGalvo, VisitsTheEndsOfEveryLineInItsField)
{
    const DevicePtr device = MakeDevice(name);
    // Pixels 100 to 299 of row 50: the centres are 100.5 and 299.5, of 400 and 200 pixels for a field from -1 to 1.
    const std::vector<CQsPointBase<double>> points = Visited(*device, Mirrors(400, 200, {{50, 100, 200}}), nullptr);
    ASSERT_EQ(2u, points.size());
    ExpectPoint(100.5 / 200.0 - 1.0, 50.5 / 100.0 - 1.0, points[0]);
    ExpectPoint(299.5 / 200.0 - 1.0, 50.5 / 100.0 - 1.0, points[1]);
    // The same pixels seen through a scan area: half the field, with its middle at (0.5, -0.25).
    ScanArea half;
    half.dZoom = 2.0;
    half.dXOffset = 0.5;
    half.dYOffset = -0.25;
    const std::vector<CQsPointBase<double>> zoomed = Visited(*device, Mirrors(400, 200, {{50, 100, 200}}), &half);
    ASSERT_EQ(2u, zoomed.size());
    ExpectPoint((100.5 / 200.0 - 1.0) / 2.0 + 0.5, (50.5 / 100.0 - 1.0) / 2.0 - 0.25, zoomed[0]);
}

TEST(SimulatedGalvo, CountsInTheZoomOfTheFullField)
{
    const DevicePtr device = MakeDevice(name);
    const CameraPtr scanner = MakeCamera(R"({"fullFieldZoom": 0.5})", "CQsSimConfocalCamera");
    ScanArea area; // its zoom of 1 is twice that of the full field, so it shows half as much
    const std::vector<CQsPointBase<double>> points = Visited(*device, Mirrors(400, 200, {{50, 100, 1}}), &area);
    ASSERT_EQ(2u, points.size());
    ExpectPoint((100.5 / 200.0 - 1.0) * 0.5, (50.5 / 100.0 - 1.0) * 0.5, points[0]);
}

TEST(SimulatedGalvo, VisitsThePointsOfTheScanAreaFirst)
{
    const DevicePtr device = MakeDevice(name);
    ScanArea area;
    area.dZoom = 4.0;
    area.dXOffset = 0.25;
    area.Points = {{1.0, -1.0}, {0.0, 0.0}}; // relative to the area: its right top corner, its middle
    const std::vector<CQsPointBase<double>> points = Visited(*device, Mirrors(400, 200, {{0, 0, 400}}), &area);
    ASSERT_EQ(4u, points.size());
    ExpectPoint(0.5, -0.25, points[0]);
    ExpectPoint(0.25, 0.0, points[1]);
    EXPECT_EQ(0, device->StimulationBegin(Request(2, 1.0)));
    EXPECT_THAT(LastLight(name), StartsWith("4 points (0.500000, -0.250000) (0.250000, 0.000000) ("));
    EXPECT_THAT(QsStandalone::CQsJournal::LitDevices(), IsEmpty());
}

TEST(SimulatedGalvo, RefusesToScanNothingAndWhatIsNoPoint)
{
    const DevicePtr device = MakeDevice(name);
    const auto refused = [&device](const char* reason)
    {
        const CLogCapture log;
        EXPECT_EQ(-9, device->StimulationAreaUpload());
        EXPECT_EQ(-9, device->StimulationBegin(Request(1)));
        EXPECT_FALSE(HasLit(name));
        for (const std::wstring& line : log.Of(L"SimulatedDevices"))
            EXPECT_THAT(CQsStringW(line).ToUtf8(), HasSubstr(reason));
        EXPECT_EQ(2u, log.Of(L"SimulatedDevices").size());
    };
    refused("there is no area to scan");
    ScanArea flat;
    flat.dScanAreaAspect = 0.0;
    Visited(*device, Mirrors(400, 200, {{50, 100, 1}}), &flat);
    refused("a point to visit is not a number");
    Visited(*device, Mirrors(400, 200, {{50, 100, 1}}), nullptr);
    EXPECT_EQ(0, device->StimulationAreaUpload());
    EXPECT_EQ(0, device->StimulationBegin(Request(1)));
    EXPECT_TRUE(HasLit(name));
    EXPECT_EQ(0, device->StimulationEnd(nullptr, nullptr, 0));
}

TEST(SimulatedGalvo, HasTheDefaultsOfItsClass)
{
    const DevicePtr device = MakeDevice(name);
    EXPECT_TRUE(device->GetUniqueName() == L"CQsSimGalvoDevice");
    EXPECT_TRUE(device->GetLocalizedStringForUI(0) == L"Simulated galvanometer scanner");
    EXPECT_EQ(3u, device->StimulationModeGet());
    EXPECT_EQ(-2, device->StimulationBegin(Request(3)));
    const DevicePtr preset = MakeDevice(name, R"({"name": "preset", "areas": 1})");
    EXPECT_EQ(0, preset->StimulationBegin(Request(2, 1.0)));
    EXPECT_EQ("the whole field", LastLight("preset"));
}

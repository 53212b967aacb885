#include "SimulatedDevicesTest.h"

#include "standalone/ClassRecords.h"
#include "standalone/DeviceManager.h"
#include "standalone/DiagnosticLog.h"
#include "standalone/HostControl.h"
#include "tests/support/TemporaryFolder.h"

#include <atomic>
#include <future>
#include <thread>

using namespace QsTest;
using QsStandalone::CQsJournal;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

const char* const patternClass = "CQsSimPatternDevice";
const char* const genericClass = "CQsSimGenericDevice";

std::wstring Wide(const std::string& text)
{
    return CQsStringW::FromUtf8(text).Std();
}

} // namespace

TEST(SimulatedDevices, StandInTheRecordsOfTheirModule)
{
    const QsStandalone::SModuleFile file = QsStandalone::ReadModuleFile(QS_SIMULATED_DEVICES);
    EXPECT_EQ("", file.error);
    std::vector<std::string> classes;
    for (const QsStandalone::SClassRecord& record : file.classes)
    {
        classes.push_back(record.className + ": " + record.friendlyName);
        ASSERT_EQ(9u, record.parents.size());
        const bool isCamera = record.className.find("Camera") != std::string::npos;
        EXPECT_EQ(isCamera ? "IQsGrabberCamera" : "IQsStimulationDevice", record.parents[0]);
        EXPECT_EQ(1, record.version);
    }
    EXPECT_THAT(classes,
                testing::UnorderedElementsAre(
                    "CQsSimPatternDevice: Simulated pattern device", "CQsSimConfocalDevice: Simulated confocal device",
                    "CQsSimGenericDevice: Simulated device", "CQsSimMicromirrorDevice: Simulated micromirror device",
                    "CQsSimGalvoDevice: Simulated galvanometer scanner", "CQsSimCamera: Simulated camera",
                    "CQsSimConfocalCamera: Simulated confocal scanner"));
}

TEST(SimulatedDevices, HaveTheDefaultsOfTheirClass)
{
    const DevicePtr pattern = MakeDevice(patternClass);
    EXPECT_TRUE(pattern->GetUniqueName() == L"CQsSimPatternDevice");
    EXPECT_TRUE(pattern->GetLocalizedStringForUI(0) == L"Simulated pattern device");
    EXPECT_TRUE(pattern->GetLocalizedStringForUI(1).IsEmpty());
    EXPECT_EQ(7u, pattern->StimulationModeGet());
    EXPECT_EQ(1u, pattern->StimulationAreaGetCount());
    EXPECT_EQ(20.0, pattern->GetStimulationExposureTimeCombined(0));
    EXPECT_TRUE(pattern->IsVisible());
    EXPECT_TRUE(pattern->IsHWConnected());
    EXPECT_EQ(IQsStimulationDevice::eStimDevGeneric, pattern->GetStimulationDeviceType());

    const DevicePtr confocal = MakeDevice("CQsSimConfocalDevice");
    EXPECT_TRUE(confocal->GetUniqueName() == L"CQsStimulationDeviceV4New");
    EXPECT_EQ(3u, confocal->StimulationModeGet());
    const DevicePtr generic = MakeDevice(genericClass);
    EXPECT_TRUE(generic->GetUniqueName() == L"CQsSimGenericDevice");
    EXPECT_EQ(3u, generic->StimulationModeGet());
}

TEST(SimulatedDevices, TakeTheirSettings)
{
    const DevicePtr device = MakeDevice(patternClass, R"({"name": "DMD \u00e4", "displayName": "Mirrors", "areas": 4,
        "exposureMs": 12.5, "visible": false, "connected": false, "mode": 5, "logicalIds": [20, 21],
        "physicalIds": [120]})");
    EXPECT_TRUE(device->GetUniqueName() == L"DMD \u00E4");
    EXPECT_TRUE(device->GetLocalizedStringForUI(0) == L"Mirrors");
    EXPECT_EQ(4u, device->StimulationAreaGetCount());
    EXPECT_FALSE(device->IsVisible());
    EXPECT_FALSE(device->IsHWConnected());
    EXPECT_EQ(5u, device->StimulationModeGet());
    double exposure = unwritten;
    EXPECT_EQ(0, device->GetStimulationExposureTime(&exposure, 3));
    EXPECT_EQ(12.5, exposure);
    EXPECT_EQ(-4, device->GetStimulationExposureTime(nullptr, 0));

    // The physical device that the settings do not name is the host's.
    std::string error;
    ASSERT_TRUE(QsStandalone::CQsDeviceManager::AddLogicalDevice({21, 321, 0}, error)) << error;
    SQsStimulationDeviceInfo info;
    info.vecLogDevIds = {1};
    info.vecPhysDevIds = {2};
    EXPECT_EQ(0, device->GetStimulationDeviceInfo(info));
    EXPECT_THAT(info.vecLogDevIds, ElementsAre(1u, 20u, 21u));
    EXPECT_THAT(info.vecPhysDevIds, ElementsAre(2u, 120u, 321u));
}

TEST(SimulatedDevices, WithoutALogicalDeviceHaveNoIdentity)
{
    SQsStimulationDeviceInfo info;
    EXPECT_EQ(-12, MakeDevice(genericClass)->GetStimulationDeviceInfo(info));
    EXPECT_THAT(info.vecLogDevIds, IsEmpty());
    EXPECT_THAT(info.vecPhysDevIds, IsEmpty());
}

TEST(SimulatedDevices, PutOneLineIntoTheLogAndHaveTheirDefaultsWhenTheSettingsAreWrong)
{
    for (const char* settings :
         {"", "[]", "{", "{\"exposureMS\": 1}", "{\"areas\": 1.5}", "{\"areas\": -1}", "{\"visible\": 0}",
          "{\"exposureMs\": 1e9}", "{\"kinds\": [4]}", "{\"throws\": \"never\"}", "{\"fireFault\": {\"at\": 1}}",
          "{\"fireFault\": 3}", "{\"name\": 3, \"displayName\": 4}", "{\"beginStatus\": \"-9\"}"})
    {
        QsStandalone::CQsDiagnosticLog::ToMemory(false);
        QsStandalone::CQsDiagnosticLog::ToMemory(true);
        const DevicePtr device = MakeDevice(patternClass, settings);
        std::vector<std::string> lines;
        for (const QsStandalone::SLogLine& line : QsStandalone::CQsDiagnosticLog::MemoryLines())
            if (line.unit == L"SimulatedDevices")
                lines.push_back(line.text.ToUtf8());
        ASSERT_EQ(1u, lines.size()) << settings;
        EXPECT_THAT(lines[0], testing::StartsWith("Settings of CQsSimPatternDevice - "));
        EXPECT_THAT(lines[0], testing::EndsWith("; the defaults are used"));
        EXPECT_TRUE(device->GetUniqueName() == L"CQsSimPatternDevice") << settings;
        EXPECT_EQ(1u, device->StimulationAreaGetCount()) << settings;
    }
}

TEST(SimulatedDevices, AnswerForTheInterfacesThatTheyHave)
{
    const DevicePtr pattern = MakeDevice(patternClass);
    ASSERT_EQ(1u, QsStandalone::ReferenceCount(pattern.get()));
    IQsInterface* extended = CQsRTTI::Query(pattern.get(), "IQsStimulationDeviceEx");
    EXPECT_NE(nullptr, dynamic_cast<IQsStimulationDeviceEx*>(extended));
    EXPECT_EQ(2u, QsStandalone::ReferenceCount(pattern.get()));
    CQsRTTI::Release(extended);
    for (const char* name : {"IQsInterface", "iqsstimulationdevice", ""})
        EXPECT_EQ(nullptr, CQsRTTI::Query(pattern.get(), name)) << name;
    EXPECT_EQ(nullptr, CQsRTTI::Query(MakeDevice(genericClass).get(), "IQsStimulationDeviceEx"));
    EXPECT_EQ(1u, QsStandalone::ReferenceCount(pattern.get()));
}

TEST(SimulatedDevices, AreGoneAfterTheLastRelease)
{
    const std::size_t before = QsStandalone::LiveObjectCount();
    {
        const DevicePtr device = MakeDevice(genericClass);
        EXPECT_EQ(before + 1, QsStandalone::LiveObjectCount());
        EXPECT_EQ(0, device->StimulationBegin(Request(1)));
    }
    EXPECT_EQ(before, QsStandalone::LiveObjectCount());
    EXPECT_THAT(CQsJournal::LitDevices(), IsEmpty()); // also the light that nobody ended
}

TEST(SimulatedPatterns, LightEachShotForItsExposureAndReportEveryTime)
{
    const DevicePtr device = MakeDevice(patternClass, R"({"name": "P", "exposureMs": 10, "beginMs": 5})");
    const double start = QS_GetTimeCounter();
    EXPECT_EQ(0, device->StimulationBegin(Request(3, 0.0, 2)));
    EXPECT_GE(QS_GetTimeCounter() - start, 5.0);
    EXPECT_THAT(Pulses("P"), IsEmpty());
    double begin = unwritten;
    double end = unwritten;
    EXPECT_EQ(0, device->StimulationFire(Request(3), &begin, &end));
    EXPECT_EQ(0, device->StimulationFire(Request(3), nullptr, nullptr));
    EXPECT_THAT(CQsJournal::LitDevices(), IsEmpty());
    double begins[3] = {unwritten, unwritten, unwritten};
    double ends[3] = {unwritten, unwritten, unwritten};
    EXPECT_EQ(0, device->StimulationEnd(begins, ends, 3));

    const std::vector<SPulse> pulses = Pulses("P");
    ASSERT_EQ(2u, pulses.size());
    EXPECT_EQ(begins[0], begin);
    EXPECT_EQ(ends[0], end);
    for (std::size_t i = 0; i < pulses.size(); ++i)
    {
        EXPECT_GE(pulses[i].off - pulses[i].on, 10.0) << i;
        EXPECT_LE(begins[i], pulses[i].on) << i;
        EXPECT_GE(ends[i], pulses[i].off) << i;
    }
    EXPECT_GE(begins[1], ends[0]);
    EXPECT_EQ(-1.0, begins[2]);
    EXPECT_EQ(-1.0, ends[2]);
}

TEST(SimulatedPatterns, WriteNoMoreTimesThanTheArraysHold)
{
    const DevicePtr device = MakeDevice(patternClass, R"({"exposureMs": 0})");
    EXPECT_EQ(0, device->StimulationBegin(Request(3, 0.0, 2)));
    EXPECT_EQ(0, device->StimulationFire(Request(3), nullptr, nullptr));
    EXPECT_EQ(0, device->StimulationFire(Request(3), nullptr, nullptr));
    double begins[2] = {unwritten, unwritten};
    EXPECT_EQ(0, device->StimulationEnd(begins, nullptr, 1));
    EXPECT_GE(begins[0], 0.0);
    EXPECT_EQ(unwritten, begins[1]);
    double end = unwritten;
    EXPECT_EQ(0, device->StimulationEnd(nullptr, &end, 1)); // a second end has no times any more
    EXPECT_EQ(-1.0, end);
}

TEST(SimulatedPatterns, FireOnlyInsideAStimulationOfPatterns)
{
    const DevicePtr device = MakeDevice(patternClass, R"({"name": "P"})");
    for (const std::uint32_t kind : {0u, 1u})
    {
        if (kind != 0)
        {
            EXPECT_EQ(0, device->StimulationBegin(Request(kind)));
        }
        double begin = unwritten;
        double end = unwritten;
        EXPECT_EQ(-9, device->StimulationFire(Request(3), &begin, &end)) << kind;
        EXPECT_EQ(-1.0, begin);
        EXPECT_EQ(-1.0, end);
    }
    EXPECT_EQ(0, device->StimulationEnd(nullptr, nullptr, 0));
    EXPECT_EQ(-9, device->StimulationFire(Request(3), nullptr, nullptr));
}

TEST(SimulatedPatterns, StopTheShotAndAllLaterOnesAtAnAbort)
{
    const DevicePtr device = MakeDevice(patternClass, R"({"name": "P", "exposureMs": 60000})");
    EXPECT_EQ(0, device->StimulationBegin(Request(3, 0.0, 2)));
    const double start = QS_GetTimeCounter();
    std::future<int> fired =
        std::async(std::launch::async, [&] { return device->StimulationFire(Request(3), nullptr, nullptr); });
    ASSERT_TRUE(Eventually([] { return !CQsJournal::LitDevices().empty(); }));
    EXPECT_EQ(0, device->StimulationAbort());
    EXPECT_THAT(CQsJournal::LitDevices(), IsEmpty()); // not only when the shot has woken up
    EXPECT_EQ(-9, fired.get());
    EXPECT_LT(QS_GetTimeCounter() - start, generousMs);
    EXPECT_EQ(-9, device->StimulationFire(Request(3), nullptr, nullptr));
    EXPECT_EQ(1u, Pulses("P").size());
    double begins[2] = {unwritten, unwritten};
    double ends[2] = {unwritten, unwritten};
    EXPECT_EQ(0, device->StimulationEnd(begins, ends, 2));
    EXPECT_GE(begins[0], 0.0);
    EXPECT_GE(ends[0], begins[0]);
    EXPECT_EQ(-1.0, begins[1]);

    const DevicePtr quick = MakeDevice(patternClass, R"({"name": "Q", "exposureMs": 1})");
    EXPECT_EQ(0, quick->StimulationAbort()); // outside a stimulation
    EXPECT_EQ(0, quick->StimulationAbort());
    EXPECT_EQ(0, quick->StimulationBegin(Request(3, 0.0, 1)));
    EXPECT_EQ(0, quick->StimulationFire(Request(3), nullptr, nullptr));
}

TEST(SimulatedDevices, AreLitUntilTheEndOfAContinuousStimulation)
{
    const DevicePtr device = MakeDevice(genericClass, R"({"name": "G"})");
    EXPECT_EQ(0, device->StimulationBegin(Request(1)));
    EXPECT_THAT(CQsJournal::LitDevices(), ElementsAre("G"));
    double begin = unwritten;
    double end = unwritten;
    EXPECT_EQ(0, device->StimulationEnd(&begin, &end, 1));
    EXPECT_THAT(CQsJournal::LitDevices(), IsEmpty());
    const std::vector<SPulse> pulses = Pulses("G");
    ASSERT_EQ(1u, pulses.size());
    EXPECT_LE(begin, pulses[0].on);
    EXPECT_GE(end, pulses[0].off);
}

TEST(SimulatedDevices, GoDarkAtAnAbortOfAContinuousStimulation)
{
    const DevicePtr device = MakeDevice(genericClass, R"({"name": "G"})");
    EXPECT_EQ(0, device->StimulationBegin(Request(1)));
    EXPECT_EQ(0, device->StimulationAbort());
    EXPECT_THAT(CQsJournal::LitDevices(), IsEmpty());
    EXPECT_EQ(0, device->StimulationEnd(nullptr, nullptr, 0));
    EXPECT_EQ(1u, Pulses("G").size());
}

TEST(SimulatedDevices, AreLitForTheDurationOfATimedStimulation)
{
    const DevicePtr device = MakeDevice("CQsSimConfocalDevice", R"({"name": "C"})");
    EXPECT_EQ(0, device->StimulationBegin(Request(2, 30.0)));
    EXPECT_THAT(CQsJournal::LitDevices(), IsEmpty());
    double begin = unwritten;
    double end = unwritten;
    EXPECT_EQ(0, device->StimulationEnd(&begin, &end, 1));
    const std::vector<SPulse> pulses = Pulses("C");
    ASSERT_EQ(1u, pulses.size());
    EXPECT_GE(pulses[0].off - pulses[0].on, 30.0);
    EXPECT_LT(pulses[0].off - pulses[0].on, generousMs);
    EXPECT_GE(end - begin, 30.0);
}

TEST(SimulatedDevices, EndATimedStimulationAtAnAbort)
{
    const DevicePtr device = MakeDevice(genericClass, R"({"name": "G"})");
    const double start = QS_GetTimeCounter();
    std::future<int> begun =
        std::async(std::launch::async, [&] { return device->StimulationBegin(Request(2, longMs)); });
    ASSERT_TRUE(Eventually([] { return !CQsJournal::LitDevices().empty(); }));
    EXPECT_EQ(0, device->StimulationAbort());
    EXPECT_EQ(0, begun.get());
    EXPECT_LT(QS_GetTimeCounter() - start, generousMs);
    EXPECT_THAT(CQsJournal::LitDevices(), IsEmpty());
    EXPECT_EQ(1u, Pulses("G").size());
}

TEST(SimulatedDevices, StayDarkWhenTheAbortComesWhileTheyPrepare)
{
    const DevicePtr device = MakeDevice(genericClass, R"({"name": "G", "beginMs": 60000})");
    std::future<int> begun = std::async(std::launch::async, [&] { return device->StimulationBegin(Request(1)); });
    ASSERT_TRUE(Eventually([] { return CQsJournal::Count() > 0; }));
    ASSERT_TRUE(Eventually(
        [&]
        {
            // The abort counts from the moment at which the begin has started its work.
            device->StimulationAbort();
            return begun.wait_for(std::chrono::milliseconds(1)) == std::future_status::ready;
        }));
    EXPECT_EQ(-9, begun.get());
    EXPECT_THAT(Pulses("G"), IsEmpty());
}

TEST(SimulatedDevices, RefuseKindsThatTheyDoNotTake)
{
    const DevicePtr device = MakeDevice(genericClass, R"({"name": "G", "kinds": [2]})");
    for (const std::uint32_t kind : {0u, 1u, 3u, 4u})
        EXPECT_EQ(-2, device->StimulationBegin(Request(kind, longMs))) << kind;
    EXPECT_THAT(Pulses("G"), IsEmpty());
    EXPECT_EQ(0, device->StimulationBegin(Request(2, 0.0)));
    EXPECT_EQ(1u, Pulses("G").size());
}

TEST(SimulatedDevices, KeepTheAreasThatTheyAreGiven)
{
    const DevicePtr device = MakeDevice(patternClass, R"({"areas": 4})");
    EXPECT_TRUE(device->StimulationAreaIsUpToDate());
    EXPECT_EQ(0, device->StimulationROIPrepare(3));
    EXPECT_EQ(-9, device->StimulationROIPrepare(4));

    SQsRLEPicBuf picture;
    picture.uiWidth = 8;
    picture.uiHeight = 2;
    picture.runs = {{1, 2, 3}};
    IQsStimulationDevice::SQsScanAreaDesc scanArea;
    scanArea.dZoom = 2.5;
    SQsGrabberFormatDesc format;
    format.sName = L"full";
    const std::vector<CQsRoiObject> regions = {CQsRoiObject(4, 0), CQsRoiObject(1, -1)};
    EXPECT_EQ(0, device->StimulationAreaSet(regions, picture, &scanArea, format, {1, 2, 3, 4}));
    EXPECT_EQ(2u, device->StimulationAreaGetCount());
    EXPECT_FALSE(device->StimulationAreaIsUpToDate());
    EXPECT_EQ(0, device->StimulationAreaUpload());
    EXPECT_TRUE(device->StimulationAreaIsUpToDate());
    EXPECT_EQ(0,
              device->StimulationAreaAppendAsPattern({CQsRoiObject(2, 2)}, picture, &scanArea, format, {5, 6, 7, 8}));
    EXPECT_FALSE(device->StimulationAreaIsUpToDate());

    std::vector<CQsRoiObject> regionsOut(9);
    SQsRLEPicBuf pictureOut;
    IQsStimulationDevice::SQsScanAreaDesc scanAreaOut;
    SQsGrabberFormatDesc formatOut;
    CQsRectBase<int> regionOut;
    std::uint64_t mask = 99;
    EXPECT_EQ(0, device->StimulationAreaGet(&regionsOut, &pictureOut, &scanAreaOut, &formatOut, &regionOut, &mask));
    ASSERT_EQ(3u, regionsOut.size());
    EXPECT_EQ(4u, regionsOut[0].GetKind());
    EXPECT_EQ(2u, regionsOut[2].GetKind());
    ASSERT_EQ(1u, pictureOut.runs.size());
    EXPECT_EQ(3u, pictureOut.runs[0].uiCount);
    EXPECT_EQ(2.5, scanAreaOut.dZoom);
    EXPECT_TRUE(formatOut.sName == L"full");
    EXPECT_EQ(8, regionOut.bottom);
    EXPECT_EQ(5u, mask); // patterns 0 and 2
    EXPECT_EQ(0, device->StimulationAreaGet(nullptr, nullptr, nullptr, nullptr, nullptr, nullptr));

    // Without a scan area the caller's record stays.
    EXPECT_EQ(0, device->StimulationAreaSet({}, {}, nullptr, format, {}));
    EXPECT_EQ(0u, device->StimulationAreaGetCount());
    EXPECT_EQ(0, device->StimulationAreaGet(nullptr, nullptr, &scanAreaOut, nullptr, nullptr, nullptr));
    EXPECT_EQ(2.5, scanAreaOut.dZoom);
}

TEST(SimulatedPatterns, TakePatternsFromImages)
{
    const CTemporaryFolder folder;
    const DevicePtr device = MakeDevice(patternClass, R"({"areas": 0})");
    IQsInterface* answer = CQsRTTI::Query(device.get(), "IQsStimulationDeviceEx");
    auto* extended = dynamic_cast<IQsStimulationDeviceEx*>(answer);
    ASSERT_NE(nullptr, extended);
    const std::wstring small = Wide(folder.Write("sm\xC3\xA4ll.pgm", "P2 4 2 255\n0 200 200 0\n0 0 0 0\n"));

    EXPECT_EQ(0, extended->AddPatternFromImage(small.c_str(), L"stripe", true, false));
    EXPECT_EQ(1u, device->StimulationAreaGetCount());
    EXPECT_FALSE(device->StimulationAreaIsUpToDate());
    SQsRLEPicBuf picture;
    EXPECT_EQ(0, device->StimulationAreaGet(nullptr, &picture, nullptr, nullptr, nullptr, nullptr));
    EXPECT_EQ(1024u, picture.uiWidth);
    EXPECT_EQ(768u, picture.uiHeight);
    ASSERT_EQ(1u, picture.runs.size());
    EXPECT_EQ(0u, picture.runs[0].uiRow);
    EXPECT_EQ(1u, picture.runs[0].uiFirst);
    EXPECT_EQ(2u, picture.runs[0].uiCount);

    // A name that is taken is refused, or overwritten where that is wanted: then scaled, half the chip's width is lit
    // in the upper half of its rows.
    EXPECT_EQ(-9, extended->AddPatternFromImage(small.c_str(), L"stripe", false, false));
    EXPECT_EQ(0, extended->AddPatternFromImage(small.c_str(), L"stripe", false, true));
    EXPECT_EQ(1u, device->StimulationAreaGetCount());
    EXPECT_EQ(0, device->StimulationAreaGet(nullptr, &picture, nullptr, nullptr, nullptr, nullptr));
    ASSERT_EQ(384u, picture.runs.size());
    EXPECT_EQ(383u, picture.runs.back().uiRow);
    EXPECT_EQ(256u, picture.runs.back().uiFirst);
    EXPECT_EQ(512u, picture.runs.back().uiCount);
    EXPECT_EQ(0, extended->AddPatternFromImage(small.c_str(), L"Stripe", false, false)); // another name
    EXPECT_EQ(2u, device->StimulationAreaGetCount());
    CQsRTTI::Release(answer);
}

TEST(SimulatedPatterns, RefuseImagesThatCannotServeAndChangeNothing)
{
    const CTemporaryFolder folder;
    const DevicePtr device = MakeDevice(patternClass, R"({"areas": 0})");
    IQsInterface* answer = CQsRTTI::Query(device.get(), "IQsStimulationDeviceEx");
    auto* extended = dynamic_cast<IQsStimulationDeviceEx*>(answer);
    ASSERT_NE(nullptr, extended);
    const std::wstring good = Wide(folder.Write("good.pgm", "P2 1 1 1\n1\n"));
    const std::wstring damaged = Wide(folder.Write("damaged.pgm", "P5 100 100 255\nabc"));
    const std::wstring wide = Wide(folder.Write("wide.pbm", "P1 1025 1\n" + std::string(1025, '0')));
    const std::wstring huge = Wide(folder.Write("huge.pgm", "P5 100000 100000 255\nabc"));

    EXPECT_EQ(-4, extended->AddPatternFromImage(nullptr, L"x", false, false));
    EXPECT_EQ(-4, extended->AddPatternFromImage(good.c_str(), nullptr, false, false));
    EXPECT_EQ(-9, extended->AddPatternFromImage(good.c_str(), L"", false, false));
    EXPECT_EQ(-9, extended->AddPatternFromImage(Wide(folder.File("none.pgm")).c_str(), L"x", false, false));
    EXPECT_EQ(-9, extended->AddPatternFromImage(Wide(folder.Path()).c_str(), L"x", false, false));
    EXPECT_EQ(-9, extended->AddPatternFromImage(damaged.c_str(), L"x", false, false));
    EXPECT_EQ(-9, extended->AddPatternFromImage(huge.c_str(), L"x", false, false));
    EXPECT_EQ(-9, extended->AddPatternFromImage(wide.c_str(), L"x", true, false));
    EXPECT_EQ(0u, device->StimulationAreaGetCount());
    EXPECT_TRUE(device->StimulationAreaIsUpToDate());
    EXPECT_EQ(0, extended->AddPatternFromImage(wide.c_str(), L"x", false, false)); // it can be scaled
    CQsRTTI::Release(answer);
}

TEST(SimulatedDevices, RefuseWorkWhileNotConnected)
{
    const DevicePtr device = MakeDevice(genericClass, R"({"name": "G", "connected": false})");
    EXPECT_EQ(-9, device->StimulationBegin(Request(1)));
    EXPECT_EQ(-9, device->StimulationReady(true, true));
    EXPECT_EQ(-9, device->StimulationAreaUpload());
    CQsStringW reason(L"untouched");
    EXPECT_FALSE(device->StimulationIsReady(true, &reason));
    EXPECT_TRUE(reason == L"The device is not connected.");
    EXPECT_FALSE(device->StimulationIsReady(true, nullptr));
    CQsStringW message;
    EXPECT_EQ(-9, device->StimulationValidate(nullptr, message));
    EXPECT_TRUE(message == reason);
    EXPECT_THAT(Pulses("G"), IsEmpty());

    const DevicePtr connected = MakeDevice(genericClass);
    CQsStringW kept(L"untouched");
    EXPECT_TRUE(connected->StimulationIsReady(true, &kept));
    EXPECT_EQ(0, connected->StimulationValidate(nullptr, kept));
    EXPECT_TRUE(kept == L"untouched");
}

TEST(SimulatedDevices, LeaveNoLightHoweverAbortsFall)
{
    const DevicePtr device = MakeDevice(patternClass, R"({"name": "P", "exposureMs": 1})");
    std::atomic<bool> over{false};
    std::vector<std::thread> aborting;
    for (int t = 0; t < 2; ++t)
        aborting.emplace_back(
            [&]
            {
                while (!over)
                {
                    device->StimulationAbort();
                    std::this_thread::yield();
                }
            });
    for (int i = 0; i < 60; ++i)
    {
        device->StimulationBegin(Request(1 + static_cast<std::uint32_t>(i) % 3, 1.0, 2));
        device->StimulationFire(Request(3), nullptr, nullptr);
        double times[2] = {unwritten, unwritten};
        EXPECT_EQ(0, device->StimulationEnd(times, nullptr, 2));
        EXPECT_NE(unwritten, times[1]);
        EXPECT_THAT(CQsJournal::LitDevices(), IsEmpty());
    }
    over = true;
    for (std::thread& thread : aborting)
        thread.join();
    for (const SPulse& pulse : Pulses("P"))
        EXPECT_GE(pulse.off, pulse.on);
}

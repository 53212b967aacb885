// How the device of a beampath folds the answers of its sub-beampaths' devices into one. The devices answer differently
// when they are asked a second time, so that both the answer that counts and the number of questions show.
#include "tests/support/BeampathFixture.h"

#include <array>
#include <ostream>

using namespace QsTest;
using ::testing::Each;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

namespace {

using Answers = std::vector<std::vector<double>>; // of each device: the first and the second
using Calls = std::vector<unsigned>;              // to each device

struct SFold
{
    Answers answers;
    double result;
    Calls calls;
};

struct SOperation
{
    std::string name;
    std::function<int(Aggregator&)> ask;
};

void PrintTo(const SOperation& operation, std::ostream* stream)
{
    *stream << operation.name;
}

int Set(Aggregator& beampath)
{
    return beampath.StimulationAreaSet(std::vector<CQsRoiObject>(2), {}, nullptr, {}, {});
}

// Operations whose result is the lowest status, and that ask a device again whose status is lower than the lowest.
const std::vector<SOperation> s_askedAgainWhenLower = {
    {"StimulationAreaAppendAsPattern",
     [](Aggregator& b) { return b.StimulationAreaAppendAsPattern(std::vector<CQsRoiObject>(2), {}, nullptr, {}, {}); }},
    {"StimulationReady", [](Aggregator& b) { return b.StimulationReady(true, false); }},
    {"StimulationFire", [](Aggregator& b) { return b.StimulationFire(Request(), nullptr, nullptr); }},
    {"StimulationAbort", [](Aggregator& b) { return b.StimulationAbort(); }},
    {"StimulationROIPrepare", [](Aggregator& b) { return b.StimulationROIPrepare(4); }},
    {"StimulationValidate",
     [](Aggregator& b)
     {
         CQsStringW message;
         return b.StimulationValidate(nullptr, message);
     }},
    {"GetStimulationDeviceInfo", [](Aggregator& b)
     {
         SQsStimulationDeviceInfo info;
         return b.GetStimulationDeviceInfo(info);
     }}};

SFold FromVector(const Json& vector)
{
    SFold fold;
    for (const Json& device : Member(Member(vector, "input"), "answers").GetArray())
    {
        std::vector<double> answers;
        for (const Json& answer : device.GetArray())
            answers.push_back(ToDouble(answer));
        fold.answers.push_back(answers);
    }
    fold.result = ToDouble(Member(Member(vector, "output"), "result"));
    for (const Json& calls : Member(Member(vector, "output"), "calls").GetArray())
        fold.calls.push_back(calls.GetUint());
    return fold;
}

std::vector<SFold> WithVectors(const char* function, std::vector<SFold> folds)
{
    for (const Json* const vector : VectorsOf(function))
        folds.push_back(FromVector(*vector));
    return folds;
}

} // namespace

class Folds : public BeampathTest
{
public:
    // Asks the same beampath about every fold of as many devices as it has.
    template <class Ask>
    void Expect(const std::vector<SFold>& folds, Ask ask, bool bResult = true)
    {
        const Devices devices = MakeBeampath(2);
        const std::size_t alone = 1;
        unsigned checked = 0;
        for (const std::size_t count : {devices.size(), alone})
        {
            if (count == alone) // the second sub-beampath is gone; its place is not asked
            {
                SetMerged(s_beampath, "[51]");
                Rebuild();
            }
            for (const SFold& fold : folds)
            {
                if (fold.answers.size() != count)
                    continue;
                SCOPED_TRACE(::testing::PrintToString(fold.answers));
                for (std::size_t i = 0; i < devices.size(); ++i)
                    devices[i]->Answer(i < count ? fold.answers[i] : std::vector<double>{-99});
                const double result = static_cast<double>(ask(BeampathDevice()));
                if (bResult)
                {
                    EXPECT_EQ(fold.result, result);
                }
                for (std::size_t i = 0; i < devices.size(); ++i)
                    EXPECT_EQ(i < count ? fold.calls[i] : 0u, devices[i]->Asked()) << "device " << i;
                ++checked;
            }
            for (CScriptedDevice* const device : devices)
                device->Answer({}); // a rebuild asks what they are
        }
        EXPECT_EQ(folds.size(), checked);
    }
};

class StatusFolds : public Folds, public ::testing::WithParamInterface<SOperation>
{};

// ---------------------------------------------------------------------------------------------------------- statuses

TEST_P(StatusFolds, GivesTheLowestAndAsksADeviceAgainThatIsLower)
{
    Expect(WithVectors("status fold <", {{{{0, -9}, {0, -9}}, 0, {1, 1}}, // nobody is lower than 0
                                         {{{-2, 0}}, 0, {2}}, // the second answer counts, also where it is better
                                         {{{-2, -5}, {-3, -1}}, -5, {2, 1}},
                                         {{{-2, -1}, {-2, -7}}, -7, {2, 2}},
                                         {{{5, 5}, {-1, 3}}, 3, {1, 2}},
                                         {{{1, 1}}, 0, {1}}}),
           GetParam().ask);
}

INSTANTIATE_TEST_SUITE_P(Operations, StatusFolds, ::testing::ValuesIn(s_askedAgainWhenLower),
                         [](const auto& operation) { return operation.param.name; });

TEST_F(Folds, OfTheSequencerAskADeviceAgainThatIsAsLowAsTheLowest)
{
    Expect(WithVectors("status fold <=", {{{{0, -9}, {0, -1}}, -9, {2, 1}},
                                          {{{-2, 0}, {0, -3}}, -3, {2, 2}},
                                          {{{-1, 4}, {3, -8}}, -8, {2, 2}},
                                          {{{1, 1}}, 0, {1}}}),
           [](Aggregator& beampath) { return beampath.HWSequencerEnable(true); });
}

TEST_F(Folds, OfTheSequencerTellEveryHealthyDeviceTwice)
{
    const Devices devices = MakeBeampath(2);
    EXPECT_EQ(0, BeampathDevice().HWSequencerEnable(true));
    for (const CScriptedDevice* const device : devices)
        EXPECT_THAT(device->log.Entries(), ElementsAre("HWSequencerEnable(true)", "HWSequencerEnable(true)"));
}

TEST_F(Folds, OfTheAreasAskADeviceAgainThatIsAsLowAsTheLowest)
{
    Expect(WithVectors("status fold <=",
                       {{{{0, -9}, {0, -1}}, 0, {2, 1}}, {{{-2, 0}, {0, -3}}, 0, {2, 2}}, {{{1, 1}}, 0, {1}}}),
           &Set, false);
}

TEST_F(Folds, OfTheAreasSayThatItSucceededWhateverTheDevicesSay)
{
    const Devices devices = MakeBeampath(2);
    devices[0]->Answer({-5});
    devices[1]->Answer({-9, 3});
    EXPECT_EQ(0, Set(BeampathDevice()));
}

// A sub-beampath answers an upload with 0 whatever its device says, so that nobody is asked again.
TEST_F(Folds, OfAnUploadAskEveryDeviceOnceAndSayThatItSucceeded)
{
    const Devices devices = MakeBeampath(2);
    devices[0]->Answer({-5});
    EXPECT_EQ(0, BeampathDevice().StimulationAreaUpload());
    for (const CScriptedDevice* const device : devices)
        EXPECT_THAT(device->log.Entries(), ElementsAre("StimulationAreaUpload()"));
}

TEST_F(Folds, HandTheArgumentsOn)
{
    const Devices devices = MakeBeampath(2);
    Aggregator& beampath = BeampathDevice();
    beampath.HWSequencerEnable(false);
    beampath.StimulationReady(false, true);
    beampath.StimulationROIPrepare(4);
    beampath.StimulationFire(OfKind(3), nullptr, nullptr);
    for (const CScriptedDevice* const device : devices)
        EXPECT_THAT(device->log.Entries(),
                    ElementsAre("HWSequencerEnable(false)", "HWSequencerEnable(false)", "StimulationReady(false, true)",
                                "StimulationROIPrepare(4)", "StimulationFire(3)"));
}

TEST_F(Folds, LeaveTheCallersRecordOfIdsAlone)
{
    MakeBeampath(2);
    SQsStimulationDeviceInfo info{{1}, {2}};
    EXPECT_EQ(0, BeampathDevice().GetStimulationDeviceInfo(info));
    EXPECT_THAT(info.vecLogDevIds, ElementsAre(1u));
    EXPECT_THAT(info.vecPhysDevIds, ElementsAre(2u));
}

TEST_F(Folds, OfAFireLeaveTheTimesToTheDevices)
{
    const Devices devices = MakeBeampath(2);
    devices[0]->fireTimes = {10.0, 20.0};
    devices[1]->fireTimes = {30.0, 40.0};
    double begin = s_unwritten;
    double end = s_unwritten;
    EXPECT_EQ(0, BeampathDevice().StimulationFire(OfKind(3), &begin, &end));
    // Every device writes into them; the last one's stay.
    EXPECT_EQ(30.0, begin);
    EXPECT_EQ(40.0, end);
}

TEST_F(Folds, OfAValidationGiveTheMessageThatADeviceWrote)
{
    const Devices devices = MakeBeampath(2);
    devices[1]->sMessage = L"no such pattern";
    devices[1]->Answer({-9});
    CQsStringW message;
    EXPECT_EQ(-9, BeampathDevice().StimulationValidate(nullptr, message));
    EXPECT_EQ(L"no such pattern", message);
}

// ----------------------------------------------------------------------------------------------------------- numbers

TEST_F(Folds, OfTheAcquisitionsExposureGiveTheLongestAndAskADeviceAgainThatIsAsLong)
{
    Expect({{{{5, 3}, {4, 9}}, 9, {2, 2}},
            {{{5, 5}, {5, 2}}, 2, {2, 2}},
            {{{5, 5}, {4, 4}}, 5, {2, 1}},
            {{{0, 0}, {0, 0}}, 0, {2, 2}},
            {{{-1, 7}}, 0, {1}},
            {{{0, 6}}, 6, {2}}},
           [](Aggregator& beampath) { return beampath.GetAcquisitionExposureTime(); });
}

TEST_F(Folds, OfTheModeGiveTheHighestOfThreeOrMoreAndAskADeviceAgainThatIsHigher)
{
    Expect({{{{3, 9}, {1, 9}}, 3, {1, 1}}, // as high as the highest so far is not asked again
            {{{7, 7}, {3, 3}}, 7, {2, 1}},
            {{{7, 2}, {3, 5}}, 5, {2, 2}},
            {{{7, 8}, {7, 7}}, 8, {2, 1}},
            {{{4294967294.0, 4294967294.0}, {7, 7}}, 4294967294.0, {2, 1}}, // compared without a sign
            {{{0, 0}}, 3, {1}}},
           [](Aggregator& beampath) { return beampath.StimulationModeGet(); });
}

TEST_F(Folds, OfTheModeAskOnlyTheOneInModeSevenTwiceAmongThree)
{
    const Devices devices = MakeBeampath(3);
    devices[0]->Answer({3});
    devices[1]->Answer({7});
    devices[2]->Answer({1});
    EXPECT_EQ(7u, BeampathDevice().StimulationModeGet());
    EXPECT_EQ(1u, devices[0]->Asked());
    EXPECT_EQ(2u, devices[1]->Asked());
    EXPECT_EQ(1u, devices[2]->Asked());
}

TEST_F(Folds, OfTheCombinedExposureGiveTheSum)
{
    const Devices devices = MakeBeampath(3);
    devices[0]->Answer({1.5});
    devices[1]->Answer({20.0});
    devices[2]->Answer({0.25});
    EXPECT_EQ(21.75, BeampathDevice().GetStimulationExposureTimeCombined(6));
    for (const CScriptedDevice* const device : devices)
    {
        EXPECT_EQ(1u, device->Asked());
        EXPECT_EQ(6u, device->exposureIndex);
    }
}

TEST_F(Folds, OfTheExposuresTakeTheGreatestIntoEveryEighthElement)
{
    const Devices devices = MakeBeampath(2);
    devices[0]->exposures = {1.0, 20.0, 3.0};
    devices[1]->exposures = {10.0, 2.0, -4.0};
    devices[1]->Answer({-9}); // its status is not looked at
    std::array<double, 18> times;
    times.fill(s_unwritten);
    times[0] = 5.0;
    times[8] = 100.0; // longer than what the devices say
    times[16] = 0.5;
    EXPECT_EQ(0, BeampathDevice().GetStimulationExposureTime(times.data(), 3));
    EXPECT_EQ(10.0, times[0]);
    EXPECT_EQ(100.0, times[8]);
    EXPECT_EQ(3.0, times[16]);
    for (std::size_t i = 0; i < times.size(); ++i)
    {
        if (i % 8 != 0)
        {
            EXPECT_EQ(s_unwritten, times[i]) << i;
        }
    }
    for (const CScriptedDevice* const device : devices)
    {
        EXPECT_EQ(3u, device->exposureCount);
        EXPECT_TRUE(device->bExposureArray);
        EXPECT_EQ(1u, device->queries.Count("GetStimulationExposureTime()"));
    }
}

TEST_F(Folds, OfTheExposuresHandTheDevicesZeroes)
{
    class CReading : public CScriptedDevice
    {
    public:
        using CScriptedDevice::CScriptedDevice;
        std::vector<double> got;
        int GetStimulationExposureTime(double* pdExposure, unsigned int index) override
        {
            got.assign(pdExposure, pdExposure + index);
            pdExposure[0] = 8.0; // not to be seen by the next device
            return 0;
        }
    };
    auto& a = Simple<CReading>(L"A");
    auto& b = Simple<CReading>(L"B");
    PutOn(51, a);
    PutOn(52, b);
    MakeBeampathOf({L"", L""});
    std::array<double, 9> times;
    times.fill(7.0);
    EXPECT_EQ(0, BeampathDevice().GetStimulationExposureTime(times.data(), 2));
    EXPECT_THAT(a.got, ElementsAre(0.0, 0.0));
    EXPECT_THAT(b.got, ElementsAre(0.0, 0.0));
}

TEST_F(Folds, OfTheExposuresAskNobodyForACountOfZero)
{
    const Devices devices = MakeBeampath(2);
    double time = s_unwritten;
    EXPECT_EQ(0, BeampathDevice().GetStimulationExposureTime(&time, 0));
    EXPECT_EQ(s_unwritten, time);
    for (const CScriptedDevice* const device : devices)
        EXPECT_EQ(0u, device->queries.Count("GetStimulationExposureTime()"));
}

TEST_F(Folds, OfTheExposuresAskTheDevicesAlsoWithoutAnArray)
{
    const Devices devices = MakeBeampath(2);
    EXPECT_EQ(0, BeampathDevice().GetStimulationExposureTime(nullptr, 2));
    for (const CScriptedDevice* const device : devices)
    {
        EXPECT_EQ(1u, device->queries.Count("GetStimulationExposureTime()"));
        EXPECT_EQ(2u, device->exposureCount);
    }
}

// ---------------------------------------------------------------------------------------------------------- yes or no

TEST_F(Folds, SayConnectedWhenAllAreAndVisibleWhenOneIs)
{
    const Devices devices = MakeBeampath(2);
    Aggregator& beampath = BeampathDevice();
    for (const bool first : {false, true})
    {
        for (const bool second : {false, true})
        {
            devices[0]->bConnected = first;
            devices[1]->bConnected = second;
            EXPECT_EQ(first && second, beampath.IsHWConnected()) << first << second;
            devices[0]->bVisible = first;
            devices[1]->bVisible = second;
            EXPECT_EQ(first || second, beampath.IsVisible()) << first << second;
        }
    }
}

TEST_F(Folds, OfASupportedFeatureStopAtTheFirstDeviceThatHasIt)
{
    const Devices devices = MakeBeampath(3);
    devices[1]->supportedFeatures = {5};
    devices[2]->supportedFeatures = {5};
    EXPECT_TRUE(BeampathDevice().IsFeatureSupported(5));
    EXPECT_EQ(1u, devices[0]->queries.Count("IsFeatureSupported()"));
    EXPECT_EQ(1u, devices[1]->queries.Count("IsFeatureSupported()"));
    EXPECT_EQ(0u, devices[2]->queries.Count("IsFeatureSupported()"));
    EXPECT_FALSE(BeampathDevice().IsFeatureSupported(6));
}

TEST_F(Folds, OfAnEnabledFeatureAskEveryDevice)
{
    const Devices devices = MakeBeampath(3);
    devices[0]->enabledFeatures = {5};
    EXPECT_TRUE(BeampathDevice().IsFeatureEnabled(5));
    for (const CScriptedDevice* const device : devices)
        EXPECT_EQ(1u, device->queries.Count("IsFeatureEnabled()"));
    EXPECT_FALSE(BeampathDevice().IsFeatureEnabled(6));
}

TEST_F(Folds, OfTheAreasBeingUpToDateStopAtTheFirstDeviceThatSaysNo)
{
    const Devices devices = MakeBeampath(3);
    EXPECT_TRUE(BeampathDevice().StimulationAreaIsUpToDate());
    for (CScriptedDevice* const device : devices)
        device->Answer({device == devices[1] ? 0.0 : 1.0});
    EXPECT_FALSE(BeampathDevice().StimulationAreaIsUpToDate());
    EXPECT_EQ(1u, devices[0]->Asked());
    EXPECT_EQ(1u, devices[1]->Asked());
    EXPECT_EQ(0u, devices[2]->Asked());
}

TEST_F(Folds, OfReadinessStopAtTheFirstDeviceThatSaysNoAndGiveItsReason)
{
    const Devices devices = MakeBeampath(3);
    CQsStringW reason = L"untouched";
    EXPECT_TRUE(BeampathDevice().StimulationIsReady(true, nullptr));
    for (CScriptedDevice* const device : devices)
    {
        device->sReason = L"reason of " + device->sName;
        device->Answer({device == devices[1] ? 0.0 : 1.0});
    }
    EXPECT_FALSE(BeampathDevice().StimulationIsReady(true, &reason));
    EXPECT_EQ(L"reason of B", reason);
    EXPECT_EQ(1u, devices[0]->Asked());
    EXPECT_EQ(1u, devices[1]->Asked());
    EXPECT_EQ(0u, devices[2]->Asked());
}

// -------------------------------------------------------------------------------------------------- what asks nobody

TEST_F(Folds, AnswerForTheBeampathWhereADeviceMustNotBeAsked)
{
    const Devices devices = MakeBeampath(2);
    Aggregator& beampath = BeampathDevice();
    for (CScriptedDevice* const device : devices)
    {
        device->queries.Clear();
        device->eType = IQsStimulationDevice::eStimDevShutter;
    }
    EXPECT_EQ(L"P", beampath.GetUniqueName());
    EXPECT_TRUE(beampath.GetLocalizedStringForUI(0).IsEmpty());
    EXPECT_EQ(IQsStimulationDevice::eStimDevGeneric, beampath.GetStimulationDeviceType());
    EXPECT_EQ(-2, beampath.SetActive(true));
    EXPECT_EQ(-2, beampath.SetActive(false));
    EXPECT_EQ(0u, beampath.StimulationAreaGetCount());
    std::uint64_t mask = 9;
    EXPECT_EQ(0, beampath.StimulationAreaGet(nullptr, nullptr, nullptr, nullptr, nullptr, &mask));
    EXPECT_EQ(0u, mask);
    EXPECT_EQ(nullptr, beampath.GetLaserPowerControl());
    for (const CScriptedDevice* const device : devices)
    {
        EXPECT_THAT(device->log.Entries(), IsEmpty());
        EXPECT_THAT(device->queries.Entries(), IsEmpty());
    }
}

// ------------------------------------------------------------------------------------------------------------- areas

TEST_F(Folds, GiveEveryDeviceTheAreasAndKeepACopy)
{
    const Devices devices = MakeBeampath(2);
    const std::vector<CQsRoiObject> regions = {{4, 0}, {4, 2}, {4, 3}, {4, -1}, {4, 64}, {3, 1}};
    SQsRLEPicBuf picture;
    picture.uiWidth = 5;
    IQsStimulationDevice::SQsScanAreaDesc scanArea;
    scanArea.dZoom = 2.5;
    SQsGrabberFormatDesc format;
    format.sName = L"binned";
    const CQsRectBase<int> camera{1, 2, 3, 4};
    Aggregator& beampath = BeampathDevice();
    ASSERT_EQ(0, beampath.StimulationAreaSet(regions, picture, &scanArea, format, camera));
    for (const CScriptedDevice* const device : devices)
    {
        EXPECT_THAT(device->log.Entries(), ElementsAre("StimulationAreaSet(6)", "StimulationAreaSet(6)"));
        EXPECT_EQ(5u, device->area.pictureWidth);
        EXPECT_EQ(&scanArea, device->area.pScanArea);
        EXPECT_EQ(L"binned", device->area.formatName);
        EXPECT_EQ(4, device->area.bottom);
    }
    EXPECT_EQ(6u, beampath.StimulationAreaGetCount());

    // Without a scan area the devices get none and the kept one stays.
    ASSERT_EQ(0, beampath.StimulationAreaSet(regions, picture, nullptr, format, camera));
    EXPECT_EQ(nullptr, devices[0]->area.pScanArea);
    IQsStimulationDevice::SQsScanAreaDesc kept;
    std::uint64_t mask = ~std::uint64_t{0};
    ASSERT_EQ(0, beampath.StimulationAreaGet(nullptr, nullptr, &kept, nullptr, nullptr, &mask));
    EXPECT_EQ(2.5, kept.dZoom);
    EXPECT_EQ(0b101u, mask); // regions of kind 4 with the pattern indices 0 and 2
}

TEST_F(Folds, KeepTheAreasThatTheDevicesRefuse)
{
    const Devices devices = MakeBeampath(2);
    devices[0]->Answer({-5});
    EXPECT_EQ(0, Set(BeampathDevice()));
    EXPECT_EQ(2u, BeampathDevice().StimulationAreaGetCount());
}

TEST_F(Folds, GiveAPatternToEveryDeviceOnceAndKeepNothingOfIt)
{
    const Devices devices = MakeBeampath(2);
    EXPECT_EQ(0, BeampathDevice().StimulationAreaAppendAsPattern(std::vector<CQsRoiObject>(2), {}, nullptr, {}, {}));
    for (const CScriptedDevice* const device : devices)
        EXPECT_THAT(device->log.Entries(), ElementsAre("StimulationAreaAppendAsPattern(2)"));
    EXPECT_EQ(0u, BeampathDevice().StimulationAreaGetCount());
}

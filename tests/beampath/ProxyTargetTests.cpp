// How a sub-beampath finds its device in the database, keeps it and gives it back, and that every operation is the
// device's.
#include "tests/support/BeampathFixture.h"
#include "tests/support/SystemFaults.h"

#include <array>
#include <future>
#include <limits>

using namespace QsTest;
using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

using EStage = SDatabaseFault::EStage;

class ProxyTarget : public BeampathTest
{
public:
    // Sub-beampath 51, "part" for the user, with the device of that name.
    CScriptedDevice& Target(const wchar_t* name = L"A")
    {
        Off(51, "internal");
        Content().beampaths.back().userName = "part";
        CScriptedDevice& device = DeviceOn(51, name);
        Write();
        M().Update();
        Look();
        ClearLogs();
        return device;
    }
    void Look() { EXPECT_EQ(0, m_proxy->SetStimulationSubbeampathId(51)); }
    // The name of the device that answers, or of the sub-beampath where there is none.
    std::string Answering() { return m_proxy->GetUniqueName().ToUtf8(); }
    std::string NameForUser() { return m_proxy->GetLocalizedStringForUI(0).ToUtf8(); }

protected:
    SOwn<Proxy> m_proxy = (M(), MakeProxy());
    CWatchdog m_watchdog{"a sub-beampath"};
};

// ---------------------------------------------------------------------------------------------------------- finding

TEST_F(ProxyTarget, IsTheDeviceOfTheSubbeampath)
{
    const CScriptedDevice& device = Target();
    EXPECT_EQ("A", Answering());
    EXPECT_EQ(4u, QsStandalone::ReferenceCount(const_cast<CScriptedDevice*>(&device))); // and of the proxy
    EXPECT_EQ(51, m_proxy->GetStimulationSubbeampathId());
}

TEST_F(ProxyTarget, IsLookedUpByTheHostsIdOfTheDevice)
{
    const CScriptedDevice& device = Target();
    const std::uint32_t logDevId = device.info.vecLogDevIds[0];
    CHostCalls::Log().Clear();
    Look();
    EXPECT_THAT(CHostCalls::Log().Entries(),
                ElementsAre("LogDev_GetIdByDBId(" + std::to_string(DatabaseId(logDevId)) + ")",
                            "LogDev_GetPhysDevId(" + std::to_string(logDevId) + ")"));
}

TEST_F(ProxyTarget, IsOneOfTheFourTypesThatStimulate)
{
    Off(51, "part");
    CScriptedDevice& device = Simple<CScriptedDevice>(L"A");
    for (const qs_int32 type : {0, 1, 2, 3, 4, 7, 8, 9, 10, 11, -1})
    {
        SCOPED_TRACE(type);
        Content().configurations.clear();
        PutOn(51, device, type);
        Write();
        M().Update();
        const auto proxy = MakeProxy();
        EXPECT_EQ(0, proxy->SetStimulationSubbeampathId(51));
        const bool bStimulates = type == 1 || type == 2 || type == 8 || type == 10;
        EXPECT_EQ(bStimulates ? "A" : "StimulationDeviceProxy_51", proxy->GetUniqueName().ToUtf8());
    }
}

TEST_F(ProxyTarget, IsTheOneWithTheLowestAddressOfSeveral)
{
    Off(51, "part");
    // By two logical devices, and by one that two devices drive.
    CScriptedDevice& a = DeviceOn(51, L"A", 10);
    CScriptedDevice& b = DeviceOn(51, L"B", 1);
    CScriptedDevice& c = Simple<CScriptedDevice>(L"C");
    c.info.vecLogDevIds = b.info.vecLogDevIds;
    Write();
    M().Update();
    Look();
    CScriptedDevice* const expected = std::min({&a, &b, &c}, [](IQsStimulationDevice* left, IQsStimulationDevice* right)
                                               { return std::less<IQsStimulationDevice*>()(left, right); });
    EXPECT_EQ(expected->sName.ToUtf8(), Answering());
    for (CScriptedDevice* const device : {&a, &b, &c})
        EXPECT_EQ(device == expected ? 4u : 3u, QsStandalone::ReferenceCount(device));
    Look();
    EXPECT_EQ(expected->sName.ToUtf8(), Answering());
}

TEST_F(ProxyTarget, IsNoneForALogicalDeviceThatTheHostDoesNotKnow)
{
    Off(51, "part");
    PutLogicalDeviceOn(51, 4711);
    Content().logicalIds.clear();
    CScriptedDevice& device = Simple<CScriptedDevice>(L"A");
    device.info.vecLogDevIds = {0};
    Write();
    M().Update();
    Look();
    EXPECT_EQ("StimulationDeviceProxy_51", Answering());
}

TEST_F(ProxyTarget, IsNoneWithoutARowAndTheSubbeampathIsConnected)
{
    Look();
    EXPECT_EQ("StimulationDeviceProxy_51", Answering());
    EXPECT_TRUE(m_proxy->IsHWConnected());
    EXPECT_TRUE(m_proxy->IsVisible());
    EXPECT_THAT(Reports(), IsEmpty());
}

TEST_F(ProxyTarget, NeedsNoDatabaseForAnIdThatStandsForNone)
{
    CScriptedDevice& device = Target();
    Fail(EStage::Exec, L"CQsStimulationDeviceProxy::SetStimulationSubbeampathId");
    for (const qs_int32 id : {0, -3})
    {
        EXPECT_EQ(0, m_proxy->SetStimulationSubbeampathId(id));
        EXPECT_EQ(id, m_proxy->GetStimulationSubbeampathId());
        EXPECT_EQ("A", Answering()); // the device stays
    }
    EXPECT_THAT(Reports(), IsEmpty());
    EXPECT_EQ(4u, QsStandalone::ReferenceCount(&device));
}

// ---------------------------------------------------------------------------------------------------------- keeping

TEST_F(ProxyTarget, IsReferredToOnceHoweverOftenItIsLookedUp)
{
    CScriptedDevice& device = Target();
    for (int i = 0; i < 3; ++i)
        Look();
    EXPECT_EQ(4u, QsStandalone::ReferenceCount(&device));
    m_proxy.reference.reset();
    EXPECT_EQ(3u, QsStandalone::ReferenceCount(&device));
}

// The only reference to the device may be the sub-beampath's own.
TEST_F(ProxyTarget, SurvivesALookupThatFindsItAgain)
{
    auto alive = std::make_shared<std::atomic<int>>(1);
    Off(51, "part");
    const std::uint32_t logDevId = NewLogicalDevice();
    PutLogicalDeviceOn(51, DatabaseId(logDevId));
    Write();
    auto device = Ref<CScriptedDevice>::Make(L"A");
    device->pAlive = alive;
    device->info.vecLogDevIds = {logDevId};
    ASSERT_EQ(0, M().RegisterSimpleStimulationDevice(device.get()));
    M().Update();
    Look();
    ASSERT_EQ(0, M().UnregisterSimpleStimulationDevice(device.get()));
    device = Ref<CScriptedDevice>();
    EXPECT_EQ(1, *alive);
    Look(); // finds nobody
    EXPECT_EQ(1, *alive);
    EXPECT_EQ("A", Answering());
    M().Update();
    Look();
    EXPECT_EQ(1, *alive);
    m_proxy.reference.reset();
    EXPECT_EQ(0, *alive);
}

// Lookups by id must not hand out a device that its last owner has just let go.
TEST_F(ProxyTarget, IsNotADeviceThatWasUnregistered)
{
    Off(51, "part");
    const std::uint32_t logDevId = NewLogicalDevice();
    PutLogicalDeviceOn(51, DatabaseId(logDevId));
    Write();
    auto alive = std::make_shared<std::atomic<int>>(1);
    auto device = Ref<CScriptedDevice>::Make(L"A");
    device->pAlive = alive;
    device->info.vecLogDevIds = {logDevId};
    CScriptedDevice* const pointer = device.get();
    ASSERT_EQ(0, M().RegisterSimpleStimulationDevice(pointer));
    M().Update();
    ASSERT_EQ(0, M().UnregisterSimpleStimulationDevice(pointer));
    std::set<IQsStimulationDevice*> found;
    EXPECT_EQ(-9, M().GetStimulationDevicesForLogDevId(logDevId, found));
    EXPECT_EQ(-9, M().GetReferencedDevicesForLogDevId(logDevId, found));
    Look(); // no Update in between
    EXPECT_EQ("StimulationDeviceProxy_51", Answering());
    device = Ref<CScriptedDevice>();
    M().Update();
    EXPECT_EQ(0, *alive);
}

TEST_F(ProxyTarget, IsExchangedForTheOneThatTheDatabaseNamesNow)
{
    CScriptedDevice& a = Target();
    CScriptedDevice& b = Simple<CScriptedDevice>(L"B");
    Content().configurations.clear();
    PutOn(51, b);
    Write();
    M().Update();
    Look();
    EXPECT_EQ("B", Answering());
    EXPECT_EQ(3u, QsStandalone::ReferenceCount(&a));
    EXPECT_EQ(4u, QsStandalone::ReferenceCount(&b));
}

TEST_F(ProxyTarget, StaysWhenTheDatabaseDoesNotNameItAnyMore)
{
    CScriptedDevice& device = Target();
    Change([](SDatabaseContent& content) { content.configurations.clear(); });
    Look();
    EXPECT_EQ("A", Answering());
    EXPECT_EQ(4u, QsStandalone::ReferenceCount(&device));
}

TEST_F(ProxyTarget, StaysWhenTheDatabaseFails)
{
    CScriptedDevice& a = Target();
    CScriptedDevice& b = Simple<CScriptedDevice>(L"B");
    Content().configurations.clear();
    PutOn(51, b);
    Content().beampaths.back().userName = "renamed";
    Write();
    M().Update();
    for (const EStage stage : {EStage::Connection, EStage::Prepare, EStage::Exec})
    {
        SCOPED_TRACE(static_cast<int>(stage));
        CQsDeviceDatabase::ClearReports();
        Fail(stage, L"CQsStimulationDeviceProxy::SetStimulationSubbeampathId");
        Look();
        EXPECT_EQ("A", Answering());
        EXPECT_EQ(stage == EStage::Connection ? 0u : 1u, CQsDeviceDatabase::Reports().size());
    }
    EXPECT_EQ(4u, QsStandalone::ReferenceCount(&a));
    EXPECT_EQ(3u, QsStandalone::ReferenceCount(&b));
    FailNothing();
    Look();
    EXPECT_EQ("B", Answering());
}

// The device is found before the name is asked for.
TEST_F(ProxyTarget, IsExchangedAlsoWhenTheNameCannotBeRead)
{
    Target();
    CScriptedDevice& b = Simple<CScriptedDevice>(L"B");
    Content().configurations.clear();
    PutOn(51, b);
    Write();
    M().Update();
    Fail(EStage::Exec, L"CQsStimulationDeviceProxy::SetStimulationSubbeampathId", "COALESCE");
    Look();
    EXPECT_EQ(1u, CQsDeviceDatabase::Reports().size());
    EXPECT_EQ("B", Answering());
}

// ------------------------------------------------------------------------------------------- the sub-beampath's name

TEST_F(ProxyTarget, IsNamedAfterTheSubbeampathsNameForTheUserWhereThereIsNone)
{
    Off(51, "internal");
    Content().beampaths.back().userName = "Pfad \xC3\xA4";
    Off(52, "internal");
    Write();
    Look();
    EXPECT_EQ("Stimulation Device for Beampath Pfad \xC3\xA4", NameForUser());
    EXPECT_EQ("Stimulation Device for Beampath Pfad \xC3\xA4", m_proxy->GetLocalizedStringForUI(5).ToUtf8());
    EXPECT_EQ(0, m_proxy->SetStimulationSubbeampathId(52));
    EXPECT_EQ("Stimulation Device for Beampath internal", NameForUser());
    EXPECT_EQ(0, m_proxy->SetStimulationSubbeampathId(53)); // no such row
    EXPECT_EQ("Stimulation Device for Beampath ", NameForUser());
}

TEST_F(ProxyTarget, KeepsTheSubbeampathsNameWhenTheDatabaseFails)
{
    Off(51, "internal");
    Write();
    Look();
    for (const EStage stage : {EStage::Connection, EStage::Prepare, EStage::Exec})
    {
        Fail(stage, L"CQsStimulationDeviceProxy::SetStimulationSubbeampathId");
        Look();
        EXPECT_EQ("Stimulation Device for Beampath internal", NameForUser());
    }
}

TEST_F(ProxyTarget, IsNamedInTheUsersLanguageWhereThereIsNone)
{
    const std::string path = Folder() + "/words.json";
    {
        std::FILE* const file = std::fopen(path.c_str(), "w");
        ASSERT_NE(nullptr, file);
        std::fputs("{\"Stimulation Device for Beampath %s\": \"Geraet von %s (100%)\"}", file);
        std::fclose(file);
    }
    std::string error;
    ASSERT_TRUE(QsStandalone::LoadTranslations(path, error)) << error;
    Off(51, "100%s");
    Write();
    Look();
    EXPECT_EQ("Geraet von 100%s (100%)", NameForUser());
    QsStandalone::ClearTranslations();
}

// -------------------------------------------------------------------------------------------------------- forwarding

TEST_F(ProxyTarget, AnswersWhatTheDeviceIs)
{
    CScriptedDevice& device = Target();
    device.bConnected = false;
    device.bVisible = false;
    EXPECT_FALSE(m_proxy->IsHWConnected());
    EXPECT_FALSE(m_proxy->IsVisible());
    device.eType = IQsStimulationDevice::eStimDevShutter;
    EXPECT_EQ(IQsStimulationDevice::eStimDevShutter, m_proxy->GetStimulationDeviceType());
    device.sDisplayName = L"Laser";
    EXPECT_EQ(L"Laser", m_proxy->GetLocalizedStringForUI(0));
    EXPECT_TRUE(m_proxy->GetLocalizedStringForUI(1).IsEmpty());
    device.supportedFeatures = {9};
    device.enabledFeatures = {8};
    EXPECT_TRUE(m_proxy->IsFeatureSupported(9));
    EXPECT_FALSE(m_proxy->IsFeatureSupported(1));
    EXPECT_TRUE(m_proxy->IsFeatureEnabled(8));
    EXPECT_FALSE(m_proxy->IsFeatureEnabled(1));
    device.pLaserPower = reinterpret_cast<IQsLaserPowerControl*>(&device);
    EXPECT_EQ(device.pLaserPower, m_proxy->GetLaserPowerControl());
    SQsStimulationDeviceInfo info{{1}, {2}};
    EXPECT_EQ(0, m_proxy->GetStimulationDeviceInfo(info));
    EXPECT_THAT(info.vecLogDevIds, ElementsAre(1u, device.info.vecLogDevIds[0]));
    EXPECT_THAT(info.vecPhysDevIds, ElementsAre(2u, device.info.vecPhysDevIds[0]));
    device.iInfoResult = -12;
    EXPECT_EQ(-12, m_proxy->GetStimulationDeviceInfo(info));
}

TEST_F(ProxyTarget, AnswersTheDevicesNumbers)
{
    CScriptedDevice& device = Target();
    device.Answer({12.5});
    EXPECT_EQ(12.5, m_proxy->GetAcquisitionExposureTime());
    EXPECT_EQ(12.5, m_proxy->GetStimulationExposureTimeCombined(6));
    EXPECT_EQ(6u, device.exposureIndex);
    device.Answer({7});
    EXPECT_EQ(7u, m_proxy->StimulationModeGet());
    EXPECT_EQ(7u, m_proxy->StimulationAreaGetCount());
    device.exposures = {1.0, 2.0};
    device.Answer({-6});
    std::array<double, 3> times{s_unwritten, s_unwritten, s_unwritten};
    EXPECT_EQ(-6, m_proxy->GetStimulationExposureTime(times.data(), 2));
    EXPECT_THAT(times, ElementsAre(1.0, 2.0, s_unwritten));
    EXPECT_EQ(-6, m_proxy->GetStimulationExposureTime(nullptr, 9));
    EXPECT_FALSE(device.bExposureArray);
    EXPECT_EQ(9u, device.exposureCount);
}

TEST_F(ProxyTarget, GivesTheDevicesStatusOfEveryOperationButTheUpload)
{
    CScriptedDevice& device = Target();
    device.Answer({-7});
    const std::vector<CQsRoiObject> regions(2);
    SQsRLEPicBuf picture;
    picture.uiWidth = 5;
    const IQsStimulationDevice::SQsScanAreaDesc scanArea;
    SQsGrabberFormatDesc format;
    format.sName = L"binned";
    const CQsRectBase<int> camera{1, 2, 3, 4};
    CQsStringW text;
    std::uint64_t mask = 9;
    EXPECT_EQ(-7, m_proxy->SetActive(true));
    EXPECT_EQ(-7, m_proxy->HWSequencerEnable(true));
    EXPECT_EQ(-7, m_proxy->StimulationAreaSet(regions, picture, &scanArea, format, camera));
    EXPECT_EQ(&scanArea, device.area.pScanArea);
    EXPECT_EQ(5u, device.area.pictureWidth);
    EXPECT_EQ(L"binned", device.area.formatName);
    EXPECT_EQ(4, device.area.bottom);
    EXPECT_EQ(-7, m_proxy->StimulationAreaGet(nullptr, nullptr, nullptr, nullptr, nullptr, &mask));
    EXPECT_EQ(6u, mask);
    EXPECT_EQ(-7, m_proxy->StimulationAreaAppendAsPattern(regions, picture, nullptr, format, camera));
    EXPECT_EQ(nullptr, device.area.pScanArea);
    EXPECT_EQ(0, m_proxy->StimulationAreaUpload());
    EXPECT_EQ(-7, m_proxy->StimulationReady(true, false));
    double begin = s_unwritten;
    double end = s_unwritten;
    device.fireTimes = {3.0, 4.0};
    EXPECT_EQ(-7, m_proxy->StimulationFire(OfKind(3), &begin, &end));
    EXPECT_EQ(3.0, begin);
    EXPECT_EQ(4.0, end);
    EXPECT_EQ(-7, m_proxy->StimulationAbort());
    EXPECT_EQ(-7, m_proxy->StimulationROIPrepare(4));
    device.sMessage = L"too long";
    EXPECT_EQ(-7, m_proxy->StimulationValidate(nullptr, text));
    EXPECT_EQ(L"too long", text);
    EXPECT_THAT(device.log.Entries(),
                ElementsAre("SetActive(true)", "HWSequencerEnable(true)", "StimulationAreaSet(2)",
                            "StimulationAreaAppendAsPattern(2)", "StimulationAreaUpload()",
                            "StimulationReady(true, false)", "StimulationFire(3)", "StimulationAbort()",
                            "StimulationROIPrepare(4)", "StimulationValidate()"));
}

TEST_F(ProxyTarget, AnswersTheDevicesYesAndNo)
{
    CScriptedDevice& device = Target();
    device.sReason = L"cold";
    device.Answer({0});
    CQsStringW reason;
    EXPECT_FALSE(m_proxy->StimulationAreaIsUpToDate());
    EXPECT_FALSE(m_proxy->StimulationIsReady(true, &reason));
    EXPECT_EQ(L"cold", reason);
    device.Answer({1});
    EXPECT_TRUE(m_proxy->StimulationAreaIsUpToDate());
    EXPECT_TRUE(m_proxy->StimulationIsReady(true, nullptr));
}

TEST_F(ProxyTarget, BeginsAndEndsOnTheDevice)
{
    CScriptedDevice& device = Target();
    LogEverything();
    device.iBeginResult = -5;
    device.iEndResult = -6;
    device.endTimes = {{1.0, 2.0}, {3.0, 4.0}};
    Request request = OfKind(2, 12.5, 0xFFFFFFF8u);
    request.uiReserved = 77;
    EXPECT_EQ(-5, m_proxy->StimulationBegin(request));
    EXPECT_EQ(0xFFFFFFF8u, device.LastRequest().uiGroupMask);
    EXPECT_EQ(77u, device.LastRequest().uiReserved);
    EXPECT_EQ(-5, m_proxy->StimulationBegin(Continuous()));
    std::array<double, 3> begins{s_unwritten, s_unwritten, s_unwritten};
    std::array<double, 3> ends = begins;
    EXPECT_EQ(-6, m_proxy->StimulationEnd(begins.data(), ends.data(), 2));
    EXPECT_THAT(begins, ElementsAre(1.0, 3.0, s_unwritten));
    EXPECT_THAT(ends, ElementsAre(2.0, 4.0, s_unwritten));
    // The end of a device is its own to announce.
    EXPECT_THAT(Log().Entries(),
                ElementsAre("A: StimulationBegin(2, 12.5)", "A: StimulationBegin(1, 0)", "A: StimulationEnd(2)"));
}

TEST_F(ProxyTarget, IsNotAskedForAKindThatItCannotBe)
{
    CScriptedDevice& device = Target();
    ForgetLines();
    for (const unsigned kind : {0u, 3u, 4u})
        EXPECT_EQ(-9, m_proxy->StimulationBegin(OfKind(kind, 10.0)));
    const std::string line =
        "CQsStimulationDeviceProxy::StimulationBegin: Entered default case for Stimulation Begin...";
    EXPECT_THAT(Lines(s_proxyUnit), ElementsAre(line, line, line));
    EXPECT_THAT(device.log.Entries(), IsEmpty());
}

TEST_F(ProxyTarget, IsNotTheInterfaceThatTheSubbeampathAnswersWith)
{
    Target();
    auto& object = dynamic_cast<CQsClass&>(*m_proxy.reference);
    IQsInterface* const answer = object.QueryInterface("IQsStimulationDevice");
    EXPECT_EQ(static_cast<IQsInterface*>(m_proxy.reference.get()), answer);
    CQsRTTI::Release(answer);
    EXPECT_EQ(nullptr, object.QueryInterface("IQsStimulationDeviceEx"));
}

// ------------------------------------------------------------------------------------------------- beside each other

TEST_F(ProxyTarget, IsInsideOneOperationAtATimeButForTheAbort)
{
    CScriptedDevice& device = Target();
    device.bBeginBlocks = true;
    auto begin = std::async(std::launch::async, [this] { return m_proxy->StimulationBegin(Phase(600000.0)); });
    ASSERT_TRUE(device.log.WaitFor("StimulationBegin(2, 600000)"));
    auto prepare = std::async(std::launch::async, [this] { return m_proxy->StimulationROIPrepare(4); });
    EXPECT_EQ(std::future_status::timeout, prepare.wait_for(std::chrono::milliseconds(50)));
    EXPECT_EQ(0, m_proxy->StimulationAbort());
    EXPECT_EQ(0, begin.get());
    EXPECT_EQ(0, prepare.get());
    EXPECT_THAT(device.log.Entries(),
                ElementsAre("StimulationBegin(2, 600000)", "StimulationAbort()", "StimulationROIPrepare(4)"));
}

TEST_F(ProxyTarget, IsExchangedWithTheNextOperationWhileItIsBusy)
{
    CScriptedDevice& a = Target();
    CScriptedDevice& b = Simple<CScriptedDevice>(L"B");
    a.bBeginBlocks = true;
    auto begin = std::async(std::launch::async, [this] { return m_proxy->StimulationBegin(Phase(600000.0)); });
    ASSERT_TRUE(a.log.WaitFor("StimulationBegin(2, 600000)"));
    Content().configurations.clear();
    PutOn(51, b);
    Write();
    M().Update();
    auto look = std::async(std::launch::async, [this] { return m_proxy->SetStimulationSubbeampathId(51); });
    ASSERT_EQ(std::future_status::ready, look.wait_for(s_patience));
    EXPECT_EQ(0, look.get());
    // The abort reaches the one that is lit.
    EXPECT_EQ(0, m_proxy->StimulationAbort());
    EXPECT_EQ(0, begin.get());
    EXPECT_GE(a.log.Count("StimulationAbort()"), 1u);
    EXPECT_EQ("B", Answering());
    EXPECT_EQ(0, m_proxy->StimulationEnd(nullptr, nullptr, 0));
    EXPECT_FALSE(a.IsLit());
    EXPECT_EQ(3u, QsStandalone::ReferenceCount(&a));
    EXPECT_EQ(4u, QsStandalone::ReferenceCount(&b));
}

TEST_F(ProxyTarget, ThatIsLitIsAbortedWithTheOneThatItWasExchangedFor)
{
    CScriptedDevice& a = Target();
    CScriptedDevice& b = Simple<CScriptedDevice>(L"B");
    ASSERT_EQ(0, m_proxy->StimulationBegin(Continuous()));
    Content().configurations.clear();
    PutOn(51, b);
    Write();
    M().Update();
    Look();
    EXPECT_EQ("B", Answering());
    ASSERT_TRUE(a.IsLit());
    EXPECT_EQ(0, m_proxy->StimulationAbort());
    EXPECT_FALSE(a.IsLit());
    EXPECT_EQ(1u, b.log.Count("StimulationAbort()"));
    EXPECT_EQ(0, m_proxy->StimulationEnd(nullptr, nullptr, 0));
    EXPECT_EQ(3u, QsStandalone::ReferenceCount(&a));
}

TEST_F(ProxyTarget, ThatIsLitAndFoundAgainIsEndedOnceAndNotAborted)
{
    CScriptedDevice& device = Target();
    device.endTimes = {{1.0, 2.0}};
    device.iEndResult = -6;
    ASSERT_EQ(0, m_proxy->StimulationBegin(Continuous()));
    Look();
    EXPECT_TRUE(device.IsLit());
    double begin = s_unwritten;
    double end = s_unwritten;
    EXPECT_EQ(-6, m_proxy->StimulationEnd(&begin, &end, 1));
    EXPECT_EQ(1.0, begin);
    EXPECT_EQ(2.0, end);
    EXPECT_THAT(device.log.Entries(), ElementsAre("StimulationBegin(1, 0)", "StimulationEnd(1)"));
    EXPECT_EQ(4u, QsStandalone::ReferenceCount(&device));
}

TEST_F(ProxyTarget, ThatIsLitIsPutOutWhenTheSubbeampathGoes)
{
    CScriptedDevice& device = Target();
    ASSERT_EQ(0, m_proxy->StimulationBegin(Continuous()));
    ASSERT_TRUE(device.IsLit());
    m_proxy.reference.reset();
    EXPECT_FALSE(device.IsLit());
    EXPECT_EQ(3u, QsStandalone::ReferenceCount(&device));
}

TEST_F(ProxyTarget, ThatHasEndedIsLeftAloneWhenTheSubbeampathGoes)
{
    CScriptedDevice& device = Target();
    ASSERT_EQ(0, m_proxy->StimulationBegin(Continuous()));
    ASSERT_EQ(0, m_proxy->StimulationEnd(nullptr, nullptr, 0));
    device.log.Clear();
    m_proxy.reference.reset();
    EXPECT_THAT(device.log.Entries(), IsEmpty());
}

TEST_F(ProxyTarget, MayBeAskedOnManyThreadsWhileItIsExchanged)
{
    CScriptedDevice& a = Target();
    CScriptedDevice& b = Simple<CScriptedDevice>(L"B");
    // Both logical devices stand on the sub-beampath; which device drives them changes with every update.
    Content().configurations.clear();
    PutOn(51, b);
    Write();
    M().Update();
    std::atomic<bool> bDone{false};
    std::vector<std::thread> threads;
    threads.emplace_back(
        [&]
        {
            while (!bDone)
                m_proxy->StimulationAbort();
        });
    threads.emplace_back(
        [&]
        {
            while (!bDone)
            {
                m_proxy->StimulationBegin(Continuous());
                m_proxy->StimulationEnd(nullptr, nullptr, 0);
                m_proxy->GetUniqueName();
            }
        });
    const std::vector<std::uint32_t> ids = b.info.vecLogDevIds;
    for (int i = 0; i < 60; ++i)
    {
        // Update asks the devices on this thread.
        (i % 2 == 0 ? a : b).info.vecLogDevIds = ids;
        (i % 2 == 0 ? b : a).info.vecLogDevIds.clear();
        M().Update();
        Look();
        m_watchdog.Step();
    }
    bDone = true;
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(0, m_proxy->StimulationEnd(nullptr, nullptr, 0));
    EXPECT_FALSE(a.IsLit());
    EXPECT_FALSE(b.IsLit());
    m_proxy.reference.reset();
    EXPECT_EQ(3u, QsStandalone::ReferenceCount(&a));
    EXPECT_EQ(3u, QsStandalone::ReferenceCount(&b));
}

// --------------------------------------------------------------------------------------------- a plain light path

TEST_F(ProxyTarget, IsNotNeededForAWaitAsLongAsTheReferenceValuesSay)
{
    Look();
    CHostCalls::ShortenAllWaits();
    const auto waited = [this](double duration) -> DWORD
    {
        CHostCalls::ForgetWaits();
        EXPECT_EQ(0, m_proxy->StimulationBegin(Phase(duration)));
        const std::vector<SWaitCall> waits = CHostCalls::Waits();
        EXPECT_LE(waits.size(), 1u);
        return waits.empty() ? 0 : waits[0].milliseconds; // no wait is a wait of no length
    };
    for (const Json* const vector : VectorsOf("wait ms"))
    {
        SCOPED_TRACE(Member(*vector, "id").GetString());
        EXPECT_EQ(Member(*vector, "output").GetUint(), waited(ToDouble(Member(*vector, "input"))));
    }
    EXPECT_EQ(0u, waited(0.49));
    EXPECT_EQ(0u, waited(-5.0));
    EXPECT_EQ(0u, waited(-std::numeric_limits<double>::infinity()));
    EXPECT_EQ(0u, waited(std::numeric_limits<double>::quiet_NaN()));
    EXPECT_EQ(100u, waited(100.49));
    EXPECT_NE(INFINITE, waited(1e300));
}

TEST_F(ProxyTarget, ThatIsFoundDuringTheWaitDoesNotKeepAnAbortFromEndingIt)
{
    Off(51, "part");
    Write();
    Look();
    auto begin = std::async(std::launch::async, [this] { return m_proxy->StimulationBegin(Phase(600000.0)); });
    ASSERT_TRUE(Eventually([] { return !CHostCalls::WaitsOf(600000).empty(); }));
    CScriptedDevice& device = DeviceOn(51, L"A");
    Write();
    M().Update();
    auto look = std::async(std::launch::async, [this] { return m_proxy->SetStimulationSubbeampathId(51); });
    ASSERT_EQ(std::future_status::ready, look.wait_for(s_patience));
    EXPECT_EQ(std::future_status::timeout, begin.wait_for(std::chrono::seconds(0)));
    EXPECT_EQ(0, m_proxy->StimulationAbort());
    ASSERT_EQ(std::future_status::ready, begin.wait_for(s_patience));
    EXPECT_EQ(0, begin.get());
    EXPECT_EQ("A", Answering());
    EXPECT_EQ(0u, device.log.Count("StimulationBegin(2, 600000)"));
}

TEST_F(ProxyTarget, IsNotNeededByASubbeampathWithoutAnEventToWaitWith)
{
    FailEventCreations(1);
    auto proxy = MakeProxy();
    const std::uint64_t closed = ClosedHandles();
    EXPECT_EQ(0, proxy->SetStimulationSubbeampathId(51));
    EXPECT_EQ(0, proxy->StimulationBegin(Phase(5.0)));
    EXPECT_EQ(0, proxy->StimulationAbort());
    EXPECT_EQ(0, proxy->StimulationEnd(nullptr, nullptr, 0));
    proxy.reference.reset();
    EXPECT_EQ(closed, ClosedHandles());
}

// A command function of the host may come back to the sub-beampath on another thread.
TEST_F(ProxyTarget, IsNotNeededForAnEndWhoseCommandAsksBack)
{
    static Proxy* s_proxy;
    static std::atomic<bool> s_bConnected;
    Look();
    s_proxy = m_proxy.device;
    s_bConnected = false;
    M().AddCallbackForStimulationOCCommand(
        [](unsigned) { s_bConnected = std::async(std::launch::async, [] { return s_proxy->IsHWConnected(); }).get(); });
    EXPECT_EQ(0, m_proxy->StimulationEnd(nullptr, nullptr, 1));
    EXPECT_TRUE(s_bConnected);
}

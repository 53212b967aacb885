// A calibration's life: construction, copies, the camera, the snapshots and the state.
#include "tests/calibration/CalibrationTest.h"

#include <cmath>
#include <limits>
#include <new>
#include <thread>

using namespace QsTest;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

namespace {

using CalibrationState = CalibrationTest;
using CalibrationCopy = CalibrationTest;
using CameraRotation = CalibrationTest;

TEST_F(CalibrationState, BeginsWithIdentitiesAndTheStateInvalid)
{
    // Memory that held something else.
    alignas(Calibration) unsigned char memory[sizeof(Calibration)];
    std::fill(std::begin(memory), std::end(memory), static_cast<unsigned char>(0xA5));
    auto* const calibration = new (memory) Calibration(nullptr);
    for (Calibration* const c : {calibration, &m_calibration})
    {
        for (const Getter getter : {&Calibration::GetCalibrationCamToDMD, &Calibration::GetCalibrationDMDToCam,
                                    &Calibration::GetMappingCamToDMD, &Calibration::GetMappingDMDToCam,
                                    &Calibration::GetRotationMatrix, &Calibration::GetFlipMatrix})
            EXPECT_EQ(Identity(), Get(*c, getter));
        EXPECT_THAT(Translation(*c), ElementsAre(0, 0, 0));
        EXPECT_EQ(0.0, c->GetCameraRotationCurrent());
        EXPECT_EQ(eCalibrationStateInvalid, c->GetCurrentCalibrationState());
        const CQsRectBase<int> roi = c->GetCameraROI();
        EXPECT_EQ(0, roi.left + roi.top + roi.right + roi.bottom);
        EXPECT_EQ(L"#F#O#R0.000000#L#Mi#M#C", c->GetConfigurationStringCurrent());
        EXPECT_EQ(L"#F#O#R0.000000#L#Mi#M#C", c->GetConfigurationStringCalibrated());
        EXPECT_FALSE(IsCalibratedValid(*c));
    }
    calibration->~Calibration();
}

TEST_F(CalibrationState, ConstructionAsksForTheWatchedTypesAndNothingElse)
{
    EXPECT_THAT(m_owner.calls.Entries(), ElementsAre("GetWatchedDeviceTypes"));
    EXPECT_THAT(m_owner.states, IsEmpty());
}

// What the owner watches goes to the snapshots that are built from saved keys; those of the calibration itself watch
// everything.
TEST_F(CalibrationState, TheOwnersWatchedTypesDoNotReachItsOwnSnapshots)
{
    m_owner.watched = {eWatchedCamera};
    Calibration calibration(&m_owner);
    EXPECT_EQ(L"#F#O#R0.000000#L#Mi#M#C", calibration.GetConfigurationStringCurrent());
    EXPECT_EQ(L"#F#O#R0.000000#L#Mi#M#C", calibration.GetConfigurationStringCalibrated());
}

TEST_F(CalibrationState, IsThatOfTheHardwareOfNowAgainstTheCalibrated)
{
    m_owner.states.clear();
    EXPECT_EQ(0, m_calibration.UpdateCalibrationState());
    EXPECT_EQ(eCalibrationStateInvalid, m_calibration.GetCurrentCalibrationState());

    FillCurrent(m_calibration, Microscope());
    CQsStimulationDeviceConfiguration* const calibrated = m_calibration.AccessConfigurationCalibrated();
    Microscope().Fill(*calibrated);
    m_calibration.UnaccessConfigurationCalibrated(calibrated);
    EXPECT_EQ(0, m_calibration.UpdateCalibrationState());

    SHardware hardware = Microscope();
    hardware.objective = L"Plan 40x";
    FillCurrent(m_calibration, hardware);
    EXPECT_EQ(eCalibrationStateIdentical, m_calibration.GetCurrentCalibrationState()); // until it is updated
    EXPECT_EQ(0, m_calibration.UpdateCalibrationState());

    // The flags of the hardware of now decide what counts.
    hardware.watched = Without(eWatchedObjective);
    FillCurrent(m_calibration, hardware);
    EXPECT_EQ(0, m_calibration.UpdateCalibrationState());

    EXPECT_THAT(m_owner.states, ElementsAre(eCalibrationStateInvalid, eCalibrationStateIdentical,
                                            eCalibrationStateChanged, eCalibrationStateIdentical));
}

TEST_F(CalibrationState, EveryUpdateTellsTheOwnerAlsoWithoutAChange)
{
    m_calibration.UpdateCalibrationState();
    m_calibration.UpdateCalibrationState();
    EXPECT_EQ(2u, m_owner.states.size());
    m_calibration.SetCalibrationState(eCalibrationStateNone);
    m_calibration.SetCalibrationState(eCalibrationStateNone);
    EXPECT_EQ(4u, m_owner.states.size());
}

TEST_F(CalibrationState, IsStoredBeforeTheOwnerIsTold)
{
    EQsCalibrationState seen = eCalibrationStateInvalid;
    m_owner.onCall = [&](const std::string&) { seen = m_calibration.GetCurrentCalibrationState(); };
    EXPECT_EQ(0, m_calibration.SetCalibrationState(eCalibrationStateChanged));
    EXPECT_EQ(eCalibrationStateChanged, seen);
    EXPECT_EQ(eCalibrationStateChanged, m_owner.states.back());
}

TEST_F(CalibrationState, WithoutAnOwnerIsStoredAllTheSame)
{
    EXPECT_EQ(0, m_orphan.SetCalibrationState(eCalibrationStateIdentical));
    EXPECT_EQ(eCalibrationStateIdentical, m_orphan.GetCurrentCalibrationState());
    EXPECT_EQ(0, m_orphan.UpdateCalibrationState());
    EXPECT_EQ(eCalibrationStateInvalid, m_orphan.GetCurrentCalibrationState());
}

TEST_F(CalibrationState, MatricesAndCorrectionsDoNotChangeIt)
{
    m_calibration.SetCalibrationCamToDMD(CamToDMD());
    m_calibration.SetCalibrationDMDToCam(DMDToCam());
    m_calibration.SetCameraRotationCurrent(45.0);
    m_calibration.UpdateRotationMatrix();
    m_calibration.UpdateFlipMatrix();
    m_calibration.UpdateTranslationVector();
    m_calibration.UpdateMapping();
    EXPECT_EQ(0u, m_owner.calls.Count("OnCalibrationStateChanged"));
}

TEST_F(CalibrationState, KeepsTheRegionAndTheScanArea)
{
    EXPECT_EQ(0, m_calibration.SetCameraROI({1, -2, 3, 4}));
    const CQsRectBase<int> roi = m_calibration.GetCameraROI();
    EXPECT_EQ(1, roi.left);
    EXPECT_EQ(-2, roi.top);
    EXPECT_EQ(3, roi.right);
    EXPECT_EQ(4, roi.bottom);
    IQsStimulationDevice::SQsScanAreaDesc desc;
    desc.dZoom = 2.5;
    desc.bIsCrop = true;
    desc.Points = {{1.0, 2.0}};
    EXPECT_EQ(0, m_calibration.SetScanAreaDesc(desc));
    desc.dZoom = 7.0; // the caller's, not the kept one
    const IQsStimulationDevice::SQsScanAreaDesc kept = m_calibration.GetScanAreaDesc();
    EXPECT_EQ(2.5, kept.dZoom);
    EXPECT_TRUE(kept.bIsCrop);
    ASSERT_EQ(1u, kept.Points.size());
    EXPECT_EQ(2.0, kept.Points[0].y);
    EXPECT_EQ(Identity(), MappingC2D(m_calibration)); // neither counts for the mapping
}

TEST_F(CalibrationState, TheAccessesReachTheTwoSnapshots)
{
    CQsStimulationDeviceConfiguration* const current = m_calibration.AccessConfigurationCurrent();
    CQsStimulationDeviceConfiguration* const calibrated = m_calibration.AccessConfigurationCalibrated();
    ASSERT_NE(nullptr, current);
    ASSERT_NE(nullptr, calibrated);
    EXPECT_NE(current, calibrated);
    current->AddCamera(L"now");
    calibrated->AddCamera(L"then");
    m_calibration.UnaccessConfigurationCalibrated(nullptr); // the pointer is not read
    m_calibration.UnaccessConfigurationCurrent(nullptr);
    EXPECT_EQ(L"#F#O#R0.000000#L#Mi#M#Cnow", m_calibration.GetConfigurationStringCurrent());
    EXPECT_EQ(L"#F#O#R0.000000#L#Mi#M#Cthen", m_calibration.GetConfigurationStringCalibrated());
}

// ----------------------------------------------------------------------------------------------------- camera rotation

TEST_F(CameraRotation, IsNormalisedAndReachesMatrixMappingAndSnapshot)
{
    m_calibration.SetCalibrationCamToDMD(CamToDMD());
    EXPECT_EQ(0, m_calibration.SetCameraRotationCurrent(450.0));
    EXPECT_EQ(90.0, m_calibration.GetCameraRotationCurrent());
    EXPECT_EQ(1.0, Rotation(m_calibration)[3]);
    // [0.98 0.05; -0.04 1.02] times (0 -1; 1 0)
    const Matrix mapping = MappingC2D(m_calibration);
    EXPECT_NEAR(0.05, mapping[0], 1e-12);
    EXPECT_NEAR(-0.98, mapping[1], 1e-12);
    EXPECT_EQ(L"#F#O#R90.000000#L#Mi#M#C", m_calibration.GetConfigurationStringCurrent());
    EXPECT_EQ(L"#F#O#R0.000000#L#Mi#M#C", m_calibration.GetConfigurationStringCalibrated());
}

TEST_F(CameraRotation, ReachesTheSnapshotToTheLastBit)
{
    for (const double degrees : {33.3, -10.1, 1e9 + 0.3, -1e-13})
    {
        m_calibration.SetCameraRotationCurrent(degrees);
        CQsStimulationDeviceConfiguration alike; // brought into one turn twice: here, and by the snapshot
        alike.SetCameraRotation(m_calibration.GetCameraRotationCurrent());
        CQsStimulationDeviceConfiguration* const current = m_calibration.AccessConfigurationCurrent();
        EXPECT_EQ(alike.GetCameraRotation(), current->GetCameraRotation()) << degrees;
        m_calibration.UnaccessConfigurationCurrent(current);
    }
}

TEST_F(CameraRotation, ThatStaysIsWrittenIntoTheSnapshotAndUpdatesNothing)
{
    m_calibration.SetCameraRotationCurrent(450.0);
    CQsStimulationDeviceConfiguration* const current = m_calibration.AccessConfigurationCurrent();
    current->SetCameraRotation(10.0);
    current->SetValid(false);
    m_calibration.UnaccessConfigurationCurrent(current);
    m_owner.calls.Clear();
    const CLogCapture log;
    EXPECT_EQ(0, m_calibration.SetCameraRotationCurrent(90.0));
    EXPECT_THAT(log.Of(s_unit), IsEmpty());
    EXPECT_THAT(m_owner.calls.Entries(), IsEmpty()); // neither the flip nor the state
    EXPECT_EQ(L"#F#O#R90.000000#L#Mi#M#C", m_calibration.GetConfigurationStringCurrent());
    CQsStimulationDeviceConfiguration* const written = m_calibration.AccessConfigurationCurrent();
    EXPECT_TRUE(written->IsValid());
    m_calibration.UnaccessConfigurationCurrent(written);
}

TEST_F(CameraRotation, OfZeroAtFirstIsWrittenIntoTheSnapshotToo)
{
    EXPECT_EQ(0, m_calibration.SetCameraRotationCurrent(0.0));
    CQsStimulationDeviceConfiguration turned;
    turned.SetCameraRotation(1.0);
    CQsStimulationDeviceConfiguration* const current = m_calibration.AccessConfigurationCurrent();
    EXPECT_EQ(eCalibrationStateInvalid, current->CompareSuggestState(turned)); // known, and another one
    m_calibration.UnaccessConfigurationCurrent(current);
}

TEST_F(CameraRotation, ChangesTheFlipFirst)
{
    m_owner.calls.Clear();
    m_owner.flip[3] = -1.0;
    const CLogCapture log;
    m_calibration.SetCameraRotationCurrent(90.0);
    EXPECT_THAT(m_owner.calls.Entries(), ElementsAre("GetCameraFlipReference"));
    EXPECT_EQ(-1.0, Flip(m_calibration)[4]);
    const std::vector<std::wstring> texts = log.Of(s_unit);
    ASSERT_LE(1u, texts.size());
    EXPECT_EQ(0u, texts[0].find(L"CQsStimulationDeviceCalibration::UpdateFlipMatrix"));
}

TEST_F(CameraRotation, IsTakenAlsoWhenTheOwnerDoesNotTellTheFlip)
{
    m_owner.flipStatus = -9;
    EXPECT_EQ(0, m_calibration.SetCameraRotationCurrent(90.0));
    EXPECT_EQ(90.0, m_calibration.GetCameraRotationCurrent());
    EXPECT_EQ(1.0, Rotation(m_calibration)[3]);
    EXPECT_EQ(Identity(), Flip(m_calibration));
    EXPECT_EQ(L"#F#O#R90.000000#L#Mi#M#C", m_calibration.GetConfigurationStringCurrent());
}

// The state follows at the next update of it, and not here.
TEST_F(CameraRotation, DoesNotUpdateTheState)
{
    FillCurrent(m_calibration, Microscope());
    CQsStimulationDeviceConfiguration* const calibrated = m_calibration.AccessConfigurationCalibrated();
    Microscope().Fill(*calibrated);
    m_calibration.UnaccessConfigurationCalibrated(calibrated);
    m_calibration.UpdateCalibrationState();
    ASSERT_EQ(eCalibrationStateIdentical, m_calibration.GetCurrentCalibrationState());
    m_calibration.SetCameraRotationCurrent(10.0);
    EXPECT_EQ(eCalibrationStateIdentical, m_calibration.GetCurrentCalibrationState());
    EXPECT_EQ(1u, m_owner.states.size());
    m_calibration.UpdateCalibrationState();
    EXPECT_EQ(eCalibrationStateInvalid, m_calibration.GetCurrentCalibrationState());
}

// One that is no number differs from itself: each call updates.
TEST_F(CameraRotation, ThatIsNoNumberUpdatesEachTime)
{
    const double nan = std::numeric_limits<double>::quiet_NaN();
    m_owner.calls.Clear();
    m_calibration.SetCameraRotationCurrent(nan);
    m_calibration.SetCameraRotationCurrent(nan);
    EXPECT_EQ(2u, m_owner.calls.Count("GetCameraFlipReference"));
    EXPECT_TRUE(std::isnan(m_calibration.GetCameraRotationCurrent()));
    m_calibration.SetCameraRotationCurrent(0.0);
    EXPECT_EQ(3u, m_owner.calls.Count("GetCameraFlipReference"));
    EXPECT_EQ(Identity(), Rotation(m_calibration));
}

// ------------------------------------------------------------------------------------------------------------- copies

TEST_F(CalibrationCopy, HasEveryMember)
{
    m_calibration.SetCalibrationCamToDMD(CamToDMD());
    m_calibration.SetCalibrationDMDToCam(DMDToCam());
    m_owner.frame = {0, 0, 200, 100};
    m_owner.flip[3] = -1.0;
    m_calibration.SetCameraRotationCurrent(30.0);
    m_calibration.UpdateTranslationVector();
    m_calibration.SetCameraROI({1, 2, 3, 4});
    IQsStimulationDevice::SQsScanAreaDesc desc;
    desc.dZoom = 2.5;
    m_calibration.SetScanAreaDesc(desc);
    SHardware hardware = Microscope();
    hardware.watched = Without(eWatchedMicroscope);
    FillCurrent(m_calibration, hardware);
    CQsStimulationDeviceConfiguration* const calibrated = m_calibration.AccessConfigurationCalibrated();
    calibrated->AddCamera(L"then");
    m_calibration.UnaccessConfigurationCalibrated(calibrated);
    m_calibration.SetCalibrationState(eCalibrationStateChanged);

    Calibration copy(m_calibration);
    Calibration assigned(nullptr);
    Calibration& result = assigned = m_calibration;
    EXPECT_EQ(&assigned, &result);
    for (Calibration* const c : {&copy, &assigned})
    {
        for (const Getter getter :
             {&Calibration::GetCalibrationCamToDMD, &Calibration::GetCalibrationDMDToCam,
              &Calibration::GetMappingCamToDMD, &Calibration::GetMappingDMDToCam, &Calibration::GetRotationMatrix,
              &Calibration::GetFlipMatrix, &Calibration::GetTranslationVector})
            EXPECT_EQ(Get(m_calibration, getter), Get(*c, getter));
        EXPECT_EQ(30.0, c->GetCameraRotationCurrent());
        EXPECT_EQ(4, c->GetCameraROI().bottom);
        EXPECT_EQ(2.5, c->GetScanAreaDesc().dZoom);
        EXPECT_EQ(eCalibrationStateChanged, c->GetCurrentCalibrationState());
        EXPECT_EQ(L"#F$KFW1$NGFP$P2#OPlan 20x#R90.000000#L#M#Z1.500000#CCam", c->GetConfigurationStringCurrent());
        EXPECT_EQ(L"#F#O#R0.000000#L#Mi#M#Cthen", c->GetConfigurationStringCalibrated());
        // The owner, too.
        const std::size_t told = m_owner.states.size();
        c->UpdateCalibrationState();
        EXPECT_EQ(told + 1, m_owner.states.size());
    }
    // Of their own from then on.
    copy.SetCalibrationCamToDMD(Identity());
    EXPECT_EQ(CamToDMD(), CalibrationC2D(m_calibration));
    const Calibration& itself = assigned;
    assigned = itself;
    EXPECT_EQ(CamToDMD(), CalibrationC2D(assigned));
}

// The owner's watched types and the name of the loaded calibration are members that only loading shows.
TEST_F(CalibrationCopy, LoadsWithWhatItsSourceWatchesAndHasLoaded)
{
    m_owner.watched = {eWatchedObjective};
    Calibration source(&m_owner);
    FillCurrent(source, Microscope());
    WriteSaved(m_owner, {{L"#OPlan 20x#R90.0#F$KFW1$NGFP$P2#Z1.5#CCam"}});
    bool bChanged = false;
    ASSERT_EQ(0, source.LoadCalibration(bChanged));
    EXPECT_TRUE(bChanged);
    EXPECT_EQ(L"#OPlan 20x#CCam", source.GetConfigurationStringCalibrated());
    Calibration copy(source);
    EXPECT_EQ(0, copy.LoadCalibration(bChanged));
    EXPECT_FALSE(bChanged);
    EXPECT_EQ(L"#OPlan 20x#CCam", copy.GetConfigurationStringCalibrated());
}

TEST_F(CalibrationCopy, HasLocksOfItsOwn)
{
    const std::size_t before = CLockCalls::Live();
    CQsStimulationDeviceConfiguration* const current = m_calibration.AccessConfigurationCurrent();
    CQsStimulationDeviceConfiguration* const calibrated = m_calibration.AccessConfigurationCalibrated();
    {
        Calibration copy(m_calibration);           // of locks that are held
        EXPECT_EQ(before + 6, CLockCalls::Live()); // three and those of three snapshots
        std::thread thread(
            [&copy]
            {
                CQsStimulationDeviceConfiguration* const own = copy.AccessConfigurationCurrent();
                own->AddCamera(L"copy");
                copy.UnaccessConfigurationCurrent(own);
                copy.UpdateCalibrationState();
                copy.GetConfigurationStringCalibrated();
            });
        thread.join();
        EXPECT_EQ(L"", current->GetCamera());
    }
    m_calibration.UnaccessConfigurationCalibrated(calibrated);
    m_calibration.UnaccessConfigurationCurrent(current);
    EXPECT_EQ(before, CLockCalls::Live());
}

} // namespace

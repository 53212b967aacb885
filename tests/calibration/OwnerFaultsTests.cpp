// An owner whose operations throw: a failed status, the locks free, nothing changed, and one line in the log.
#include "tests/calibration/CalibrationTest.h"

using namespace QsTest;
using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;

namespace {

class ThrowingOwner : public CalibrationTest
{
protected:
    ThrowingOwner()
    {
        m_calibration.SetCalibrationCamToDMD(CamToDMD());
        m_calibration.SetCalibrationDMDToCam(DMDToCam());
        m_owner.frame = {0, 0, 100, 60};
        m_owner.flip[3] = -1.0;
        m_calibration.UpdateFlipMatrix();
        m_calibration.UpdateTranslationVector();
        FillCurrent(m_calibration, Microscope());
        m_before = MappingC2D(m_calibration);
    }
    ~ThrowingOwner() override { m_owner.throwing.clear(); }

    void ExpectUnchanged()
    {
        EXPECT_EQ(CamToDMD(), CalibrationC2D(m_calibration));
        EXPECT_EQ(DMDToCam(), CalibrationD2C(m_calibration));
        EXPECT_EQ(m_before, MappingC2D(m_calibration));
        EXPECT_THAT(CLockCalls::Held(), IsEmpty());
        EXPECT_EQ(0u, QsStandalone::DeviceManagerLock().depth);
    }

    Matrix m_before;
};

TEST_F(ThrowingOwner, OfTheFormatChangesNothing)
{
    m_owner.throwing = "GetCameraFormat";
    m_owner.frame = {0, 0, 10, 10};
    EXPECT_EQ(-9, m_calibration.UpdateTranslationVector());
    EXPECT_THAT(Translation(m_calibration), ElementsAre(50, 30, 1));
    ExpectUnchanged();
}

TEST_F(ThrowingOwner, OfTheFlipHasFailedLikeOneThatSaysSo)
{
    m_owner.throwing = "GetCameraFlipReference";
    EXPECT_EQ(-9, m_calibration.UpdateFlipMatrix());
    EXPECT_EQ(Identity(), Flip(m_calibration));
    EXPECT_EQ(CamToDMD(), CalibrationC2D(m_calibration));
    EXPECT_EQ(0, m_calibration.SetCameraRotationCurrent(45.0));
    EXPECT_EQ(45.0, m_calibration.GetCameraRotationCurrent());
    EXPECT_THAT(CLockCalls::Held(), IsEmpty());
}

TEST_F(ThrowingOwner, OfTheStateLeavesItStored)
{
    m_owner.throwing = "OnCalibrationStateChanged";
    m_calibration.SetCalibrationState(eCalibrationStateIdentical);
    EXPECT_EQ(eCalibrationStateIdentical, m_calibration.GetCurrentCalibrationState());
    m_calibration.UpdateCalibrationState();
    EXPECT_EQ(eCalibrationStateInvalid, m_calibration.GetCurrentCalibrationState());
    ExpectUnchanged();
}

TEST_F(ThrowingOwner, OfTheStateDoesNotKeepACalibrationFromBeingLoaded)
{
    WriteSaved(m_owner, {{L"#F$KFW1$NGFP$P2#OPlan 20x#R90.0#Z1.5#CCam", Matrix(9, 2.0), Matrix(9, 3.0)}});
    m_owner.throwing = "OnCalibrationStateChanged";
    bool bChanged = false;
    EXPECT_EQ(0, m_calibration.LoadCalibration(bChanged));
    EXPECT_TRUE(bChanged);
    EXPECT_EQ(3.0, CalibrationC2D(m_calibration)[0]);
    EXPECT_EQ(3u, m_owner.states.size());
}

TEST_F(ThrowingOwner, OfTheWatchedTypesIsConstructedAllTheSame)
{
    m_owner.throwing = "GetWatchedDeviceTypes";
    Calibration calibration(&m_owner);
    EXPECT_EQ(Identity(), MappingC2D(calibration));
    EXPECT_THAT(CLockCalls::Held(), IsEmpty());
    EXPECT_EQ(0, calibration.UpdateFlipMatrix()); // it has its owner
}

// Each of the three names that say where the calibrations are: without it nothing is written anywhere.
TEST_F(ThrowingOwner, OfANameSavesNothing)
{
    ASSERT_EQ(0, m_calibration.SaveCalibrationMatrices(L"before"));
    const std::string contents = ContentsOf(File());
    for (const char* const name : {"GetCalibrationFileName", "GetCalibrationSectionName", "GetCalibrationDeviceName"})
    {
        m_owner.throwing = name;
        EXPECT_GT(0, m_calibration.SaveCalibrationMatrices(L"key")) << name;
        EXPECT_EQ(contents, ContentsOf(File())) << name;
        ExpectUnchanged();
    }
}

TEST_F(ThrowingOwner, OfANameFindsNothing)
{
    ASSERT_EQ(0, m_calibration.SaveCalibrationMatrices(L"key"));
    for (const char* const name : {"GetCalibrationFileName", "GetCalibrationSectionName", "GetCalibrationDeviceName"})
    {
        m_owner.throwing = name;
        CQsStringW key = L"key";
        EXPECT_EQ(-13, m_calibration.FindCalibration(key)) << name;
        SQsConfigItem item;
        EXPECT_EQ(-13, m_calibration.FindFirstCalibrationForCamera(L"<none>", item)) << name;
        EXPECT_EQ(0, m_calibration.GetNumberOfSavedCalibrationConfigurations()) << name;
        ExpectUnchanged();
        EXPECT_EQ(-13, m_calibration.LoadCalibrationMatrices(L"key")) << name;
        EXPECT_EQ(Identity(), CalibrationC2D(m_calibration)); // as for a key that is not there
        m_calibration.SetCalibrationCamToDMD(CamToDMD());
        m_calibration.SetCalibrationDMDToCam(DMDToCam());
        bool bChanged = true;
        EXPECT_EQ(-13, m_calibration.LoadCalibration(bChanged)) << name;
        EXPECT_TRUE(bChanged);
        m_calibration.SetCalibrationCamToDMD(CamToDMD());
        m_calibration.SetCalibrationDMDToCam(DMDToCam());
        m_owner.throwing.clear();
        EXPECT_EQ(0, m_calibration.FindCalibration(key)) << name; // nothing is damaged
    }
}

TEST_F(ThrowingOwner, OfANameClearsNothingInTheFile)
{
    ASSERT_EQ(0, m_calibration.SaveCalibrationMatrices(L"key"));
    const std::string contents = ContentsOf(File());
    for (const char* const name : {"GetCalibrationFileName", "GetCalibrationSectionName", "GetCalibrationDeviceName"})
    {
        m_owner.throwing = name;
        m_calibration.ClearAllCalibrationMatrices();
        EXPECT_EQ(contents, ContentsOf(File())) << name;
        EXPECT_THAT(CLockCalls::Held(), IsEmpty());
    }
}

TEST_F(ThrowingOwner, OfEverythingNeverThrowsThrough)
{
    m_owner.throwing = "all";
    const CLogCapture log(QsStandalone::ELogLevel::Normal);
    bool bChanged = false;
    CQsStringW key = L"#OA#R1#CB";
    SQsConfigItem item;
    EXPECT_NO_THROW({
        Calibration calibration(&m_owner);
        calibration.SetCameraRotationCurrent(90.0);
        calibration.UpdateFlipMatrix();
        calibration.UpdateTranslationVector();
        calibration.UpdateCalibrationState();
        calibration.SaveCalibrationMatrices(key);
        calibration.LoadCalibrationMatrices(key);
        calibration.LoadCalibrationMatrices(L"");
        calibration.FindCalibration(key);
        calibration.FindFirstCalibrationForCamera(L"Cam", item);
        calibration.GetNumberOfSavedCalibrationConfigurations();
        calibration.LoadCalibration(bChanged);
        calibration.ClearAllCalibrationMatrices();
    });
    EXPECT_THAT(CLockCalls::Held(), IsEmpty());
    // Each one is told, with the operation and the reason.
    EXPECT_THAT(log.Of(s_unit), Contains(CQsStringW(L"CQsStimulationDeviceCalibration: exception out of "
                                                    L"GetCameraFormat: the device is gone")
                                             .Std()));
}

} // namespace

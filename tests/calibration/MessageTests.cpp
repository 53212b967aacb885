// What the log says, and only at its detailed level.
#include "tests/calibration/CalibrationTest.h"

using namespace QsTest;
using QsStandalone::ELogLevel;
using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

namespace {

using Message = CalibrationTest;

const std::wstring s_class = L"CQsStimulationDeviceCalibration::";
const std::wstring s_identity = L"[\t1.00,\t0.00,\t0.00\n\t0.00,\t1.00,\t0.00\n\t0.00,\t0.00,\t1.00\t]";
const std::wstring s_measured = L"[\t0.98,\t0.05,\t12.50\n\t-0.04,\t1.02,\t-7.25\n\t0.00,\t0.00,\t1.00\t]";
const std::wstring s_turned = L"[\t-0.00,\t-1.00,\t0.00\n\t1.00,\t-0.00,\t0.00\n\t0.00,\t0.00,\t1.00\t]";

std::wstring Back(const std::wstring& matrix)
{
    return s_class + L"UpdateMapping: Mapping matrix DMD -> Camera updated to:\n" + matrix;
}
std::wstring Forth(const std::wstring& matrix)
{
    return s_class + L"UpdateMapping: Mapping matrix Camera -> DMD updated to:\n" + matrix;
}

TEST_F(Message, OfEveryUpdateHasItsWholeText)
{
    CLogCapture log;
    m_calibration.UpdateMapping();
    EXPECT_THAT(log.Of(s_unit), ElementsAre(Back(s_identity), Forth(s_identity)));

    log.Forget();
    m_owner.flip[3] = -1.0;
    m_calibration.UpdateFlipMatrix();
    const std::wstring flipped = L"[\t1.00,\t0.00,\t0.00\n\t0.00,\t-1.00,\t0.00\n\t0.00,\t0.00,\t1.00\t]";
    ASSERT_EQ(3u, log.Of(s_unit).size());
    EXPECT_EQ(s_class + L"UpdateFlipMatrix: Flip matrix updated to:\n" + flipped, log.Of(s_unit)[0]);
    EXPECT_EQ(0u, log.Of(s_unit)[1].find(s_class + L"UpdateMapping: Mapping matrix DMD -> Camera updated to:\n["));
    EXPECT_EQ(Forth(flipped), log.Of(s_unit)[2]);

    m_owner.flip[3] = 1.0;
    m_calibration.UpdateFlipMatrix();
    log.Forget();
    m_calibration.SetCameraRotationCurrent(90.0);
    ASSERT_EQ(6u, log.Of(s_unit).size());
    EXPECT_EQ(s_class + L"UpdateFlipMatrix: Flip matrix updated to:\n" + s_identity, log.Of(s_unit)[0]);
    EXPECT_EQ(s_class + L"UpdateRotationMatrix: Rotation matrix updated to:\n" + s_turned, log.Of(s_unit)[3]);
    EXPECT_EQ(Forth(s_turned), log.Of(s_unit)[5]);

    log.Forget();
    m_owner.frame = {0, 0, 2047, 1535};
    m_calibration.UpdateTranslationVector();
    ASSERT_EQ(3u, log.Of(s_unit).size());
    EXPECT_EQ(s_class + L"UpdateTranslationVector: Translation vector updated to:\n[\t1023.00,\t767.00,\t1.00\t]",
              log.Of(s_unit)[0]);
}

TEST_F(Message, OfTheSettersHasItsWholeText)
{
    const CLogCapture log;
    m_calibration.SetCalibrationCamToDMD(CamToDMD());
    // By hand: the determinant is 1.0016; (1.02 -0.05; 0.04 0.98) / 1.0016, and minus that times (12.5, -7.25).
    const std::wstring inverse = L"[\t1.02,\t-0.05,\t-13.09\n\t0.04,\t0.98,\t6.59\n\t0.00,\t0.00,\t1.00\t]";
    std::vector<std::wstring> texts = log.Of(s_unit);
    ASSERT_EQ(3u, texts.size());
    // The last row of the inverse may come out as -0.
    for (std::size_t at = texts[1].rfind(L"-0.00"); at != std::wstring::npos; at = texts[1].rfind(L"-0.00"))
        texts[1].erase(at, 1);
    EXPECT_THAT(
        texts, ElementsAre(s_class + L"SetCalibrationCamToDMD: Calibration matrix Camera -> DMD set to:\n" + s_measured,
                           Back(inverse), Forth(s_measured)));
}

TEST_F(Message, OfTheOtherSetterHasItsWholeText)
{
    const CLogCapture log;
    m_calibration.SetCalibrationDMDToCam(CamToDMD());
    EXPECT_THAT(
        log.Of(s_unit),
        ElementsAre(s_class + L"SetCalibrationDMDToCam: Calibration matrix DMD -> Camera set to:\n" + s_measured,
                    Back(s_identity), Forth(s_identity)));
}

TEST_F(Message, OfASingularCalibrationStandsBeforeTheMappings)
{
    const CLogCapture log;
    m_calibration.SetCalibrationCamToDMD(Matrix(9, 0.0));
    const std::wstring zero = L"[\t0.00,\t0.00,\t0.00\n\t0.00,\t0.00,\t0.00\n\t0.00,\t0.00,\t0.00\t]";
    EXPECT_THAT(log.Of(s_unit),
                ElementsAre(s_class + L"SetCalibrationCamToDMD: Calibration matrix Camera -> DMD set to:\n" + zero,
                            s_class + L"UpdateMapping: Very bad calibration.", Back(s_identity), Forth(zero)));
}

TEST_F(Message, OfAFlipThatFailedIsLeftOut)
{
    m_owner.flipStatus = 1;
    const CLogCapture log;
    m_calibration.UpdateFlipMatrix();
    EXPECT_THAT(log.Of(s_unit), ElementsAre(Back(s_identity), Forth(s_identity)));
}

TEST_F(Message, IsNotWrittenWhenTheOwnerDoesNotTellItsFormat)
{
    m_owner.formatStatus = 1;
    const CLogCapture log;
    m_calibration.UpdateTranslationVector();
    EXPECT_THAT(log.Of(s_unit), IsEmpty());
}

TEST_F(Message, OfMatricesOfAnotherLengthAreLeftOut)
{
    const CLogCapture log;
    m_calibration.SetCalibrationDMDToCam({1, 2, 3, 4});
    EXPECT_THAT(log.Of(s_unit), ElementsAre(Back(s_identity), Forth(s_identity))); // only of the mapping
}

TEST_F(Message, OfSavingAndLoadingNamesTheKey)
{
    const std::wstring key = L"#OPlan 20x \u65E5%s#CCam";
    CLogCapture log;
    ASSERT_EQ(0, m_calibration.SaveCalibrationMatrices(CQsStringW(key)));
    EXPECT_THAT(log.Of(s_unit),
                ElementsAre(s_class + L"SaveCalibrationMatrices: Saving calibration matrix D2C and C2D for: " + key));

    log.Forget();
    ASSERT_EQ(0, m_calibration.LoadCalibrationMatrices(CQsStringW(key)));
    std::vector<std::wstring> texts = log.Of(s_unit);
    ASSERT_EQ(8u, texts.size()); // and those of the two setters, three each
    EXPECT_EQ(s_class + L"LoadCalibrationMatrices: Loading calibration matrix D2C and C2D for: " + key, texts[0]);
    EXPECT_EQ(s_class + L"LoadCalibrationMatrices: Succesfully read the calibration data:", texts[1]);
    EXPECT_EQ(s_class + L"SetCalibrationCamToDMD: Calibration matrix Camera -> DMD set to:\n" + s_identity, texts[2]);
    EXPECT_EQ(s_class + L"SetCalibrationDMDToCam: Calibration matrix DMD -> Camera set to:\n" + s_identity, texts[5]);

    log.Forget();
    EXPECT_EQ(-13, m_calibration.LoadCalibrationMatrices(L"other"));
    texts = log.Of(s_unit);
    ASSERT_EQ(7u, texts.size());
    EXPECT_EQ(s_class + L"LoadCalibrationMatrices: Loading calibration matrix D2C and C2D for: other", texts[0]);

    log.Forget();
    CQsStringW found(key);
    ASSERT_EQ(0, m_calibration.FindCalibration(found));
    CQsStringW shortened = L"#OPlan 20x \u65E5%s#R90.0#CCam";
    ASSERT_EQ(0, m_calibration.FindCalibration(shortened));
    CQsStringW missing = L"other";
    ASSERT_EQ(-13, m_calibration.FindCalibration(missing));
    const std::wstring available = s_class + L"FindCalibration: Calibration available...";
    EXPECT_THAT(log.Of(s_unit), ElementsAre(available, available));
}

TEST_F(Message, OfTheChosenCalibrationNamesItTheHardwareAndTheState)
{
    WriteSaved(m_owner, {{L"#F$KFW1$NGFP$P2#OPlan 20x#R90.0#Z1.5#CCam"}});
    FillCurrent(m_calibration, Microscope());
    const CLogCapture log;
    bool bChanged = false;
    ASSERT_EQ(0, m_calibration.LoadCalibration(bChanged));
    EXPECT_THAT(log.Of(s_unit),
                Contains(s_class + L"LoadCalibration: Loaded calibration with configuration string "
                                   L"#F$KFW1$NGFP$P2#OPlan 20x#R90.000000#L#Mi#M#Z1.500000#CCam, current configuration "
                                   L"#F$KFW1$NGFP$P2#OPlan 20x#R90.000000#L#MiTi#M#Z1.500000#CCam, current calibration "
                                   L"state: 1"));
}

// Every detailed text that the class can write, written once.
TEST_F(Message, IsOneOfTheReferenceTexts)
{
    std::vector<std::wstring> beginnings;
    for (const std::wstring& text : Texts())
        if (text.find(s_class) == 0)
            beginnings.push_back(text.substr(0, text.find(L'%')));
    ASSERT_EQ(13u, beginnings.size());

    const CLogCapture log;
    m_calibration.SetCalibrationCamToDMD(Matrix(9, 0.0));
    m_calibration.SetCalibrationDMDToCam(DMDToCam());
    m_calibration.SetCameraRotationCurrent(90.0);
    m_calibration.UpdateTranslationVector();
    m_calibration.SaveCalibrationMatrices(L"#OObj#CCam");
    CQsStringW key = L"#OObj#CCam";
    m_calibration.FindCalibration(key);
    CQsStimulationDeviceConfiguration* const current = m_calibration.AccessConfigurationCurrent();
    current->Clear();
    current->AddObjective(L"Obj");
    current->AddCamera(L"Cam");
    m_calibration.UnaccessConfigurationCurrent(current);
    bool bChanged = false;
    m_calibration.LoadCalibration(bChanged);
    std::vector<std::size_t> seen(beginnings.size());
    for (const std::wstring& text : log.Of(s_unit))
    {
        bool bKnown = false;
        for (std::size_t i = 0; i < beginnings.size(); ++i)
        {
            if (text.find(beginnings[i]) != 0)
                continue;
            bKnown = true;
            ++seen[i];
        }
        EXPECT_TRUE(bKnown) << CQsStringW(text);
    }
    for (std::size_t i = 0; i < beginnings.size(); ++i)
        EXPECT_LT(0u, seen[i]) << CQsStringW(beginnings[i]);
}

TEST_F(Message, IsWrittenAtTheDetailedLevelOnly)
{
    for (const ELogLevel level : {ELogLevel::Off, ELogLevel::Normal})
    {
        const CLogCapture log(level);
        m_calibration.SetCalibrationCamToDMD(Matrix(9, 0.0));
        m_calibration.SetCalibrationDMDToCam(DMDToCam());
        m_calibration.SetCameraRotationCurrent(level == ELogLevel::Off ? 90.0 : 80.0);
        m_calibration.UpdateTranslationVector();
        EXPECT_EQ(0, m_calibration.SaveCalibrationMatrices(L"#OObj#CCam"));
        EXPECT_EQ(0, m_calibration.LoadCalibrationMatrices(L"#OObj#CCam"));
        CQsStringW key = L"#OObj#CCam";
        m_calibration.FindCalibration(key);
        FillCurrent(m_calibration, Microscope());
        bool bChanged = false;
        m_calibration.LoadCalibration(bChanged);
        m_calibration.ClearAllCalibrationMatrices();
        EXPECT_THAT(log.Of(s_unit), IsEmpty());
    }
}

TEST_F(Message, NumbersAreWrittenWhateverTheirSize)
{
    const CLogCapture log;
    m_calibration.SetCalibrationDMDToCam({1e300, -1e300, 0, 0, 0, 0, 0, 0, 0});
    ASSERT_LE(1u, log.Of(s_unit).size());
    EXPECT_LT(600u, log.Of(s_unit)[0].size()); // two numbers of 301 digits
}

} // namespace

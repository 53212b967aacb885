// Saved calibrations: saving, loading, finding, counting and clearing them.
#include "tests/calibration/CalibrationTest.h"

#include <cmath>
#include <cstring>
#include <limits>
#include <random>

using namespace QsTest;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

namespace {

class SavedCalibrations : public CalibrationTest
{
protected:
    int Save(const std::wstring& key, const Matrix& camToDMD = CamToDMD(), const Matrix& dmdToCam = DMDToCam())
    {
        m_calibration.SetCalibrationCamToDMD(camToDMD);
        m_calibration.SetCalibrationDMDToCam(dmdToCam);
        return m_calibration.SaveCalibrationMatrices(CQsStringW(key));
    }
    int Load(const std::wstring& key)
    {
        // Neither of the two matrices of before may stay.
        m_calibration.SetCalibrationCamToDMD(Matrix(9, 7.0));
        m_calibration.SetCalibrationDMDToCam(Matrix(9, 7.0));
        return m_calibration.LoadCalibrationMatrices(CQsStringW(key));
    }
    std::vector<std::wstring> Keys() { return CSettings(m_owner).Keys(); }
};

bool SameBits(const Matrix& a, const Matrix& b, std::size_t count)
{
    return a.size() >= count && b.size() >= count && std::memcmp(a.data(), b.data(), count * sizeof(double)) == 0;
}

// ---------------------------------------------------------------------------------------------------- save and load

TEST_F(SavedCalibrations, LieInTheFileAsSixUnnamedEntriesUnderTheirKey)
{
    const std::wstring key = L"#F$KFW1$NGFP$P2#OPlan 20x#R90.000000#L#MiTi#M#Z1.500000#CCam";
    ASSERT_EQ(0, Save(key));
    CSettings settings(m_owner);
    ASSERT_TRUE(settings.IsOpen());
    CQsLiteVariantR& tree = settings.Tree();
    ASSERT_EQ(1u, tree.GetEntryCount());
    ASSERT_TRUE(tree.EnterLevel(L"Calibration"));
    ASSERT_EQ(1u, tree.GetEntryCount());
    EXPECT_EQ(CQsStringW(key), tree.GetEntryName(0));
    ASSERT_TRUE(tree.EnterLevel(key.c_str()));
    ASSERT_EQ(6u, tree.GetEntryCount());
    for (std::size_t i = 0; i < 6; ++i)
    {
        EXPECT_EQ(L"", tree.GetEntryName(i));
        ASSERT_TRUE(tree.EnterEntry(i));
        EXPECT_EQ(2u, tree.GetEntryCount());
        EXPECT_EQ(DMDToCam()[i], tree.GetDouble(L"m_pdCalibrationMatrixDMDToCam", s_unwritten));
        EXPECT_EQ(CamToDMD()[i], tree.GetDouble(L"m_pdCalibrationMatrixCamToDMD", s_unwritten));
        tree.LeaveLevel();
    }
}

TEST_F(SavedCalibrations, ComeBackBitForBitWithAnAffineLastRow)
{
    const double nan = std::numeric_limits<double>::quiet_NaN();
    const double inf = std::numeric_limits<double>::infinity();
    const Matrix a = {0.1, 1.0 / 3.0, 1e-300, -0.0, 5e-324, 1e308, 42.0, 43.0, 44.0};
    const Matrix b = {nan, inf, -inf, std::nextafter(1.0, 2.0), -1e-310, 12345.678, 0.5, 0.25, 0.125};
    ASSERT_EQ(0, Save(L"key", a, b));
    EXPECT_EQ(0, Load(L"key"));
    EXPECT_TRUE(SameBits(a, CalibrationC2D(m_calibration), 6));
    EXPECT_TRUE(SameBits(b, CalibrationD2C(m_calibration), 6));
    for (const Matrix& matrix : {CalibrationC2D(m_calibration), CalibrationD2C(m_calibration)})
        EXPECT_THAT(Matrix(matrix.begin() + 6, matrix.end()), ElementsAre(0, 0, 1));
}

TEST_F(SavedCalibrations, OfAnyBitsComeBackInANewCalibration)
{
    std::mt19937_64 random(11);
    const auto any = [&random]
    {
        Matrix matrix(9);
        for (double& element : matrix)
        {
            const std::uint64_t bits = random();
            std::memcpy(&element, &bits, sizeof element);
            if (std::isnan(element))
                element = 1.0; // the payload of a NaN is not a number's
        }
        return matrix;
    };
    for (int i = 0; i < 60; ++i)
    {
        const Matrix a = any();
        const Matrix b = any();
        const std::wstring key = L"#OObj " + std::to_wstring(i % 7) + L"#CCam";
        ASSERT_EQ(0, Save(key, a, b));
        Calibration another(&m_owner);
        ASSERT_EQ(0, another.LoadCalibrationMatrices(CQsStringW(key)));
        ASSERT_TRUE(SameBits(a, CalibrationC2D(another), 6)) << i;
        ASSERT_TRUE(SameBits(b, CalibrationD2C(another), 6)) << i;
    }
    EXPECT_EQ(7u, Keys().size());
}

TEST_F(SavedCalibrations, LoadingRefreshesTheMapping)
{
    ASSERT_EQ(0, Save(L"key"));
    EXPECT_EQ(0, Load(L"key"));
    EXPECT_EQ(CamToDMD(), MappingC2D(m_calibration));
    EXPECT_EQ(-13, Load(L"other"));
    EXPECT_EQ(Identity(), MappingC2D(m_calibration));
}

TEST_F(SavedCalibrations, ASecondKeyKeepsTheFirst)
{
    ASSERT_EQ(0, Save(L"first"));
    ASSERT_EQ(0, Save(L"second", {1, 2, 3, 4, 5, 6, 0, 0, 1}));
    EXPECT_THAT(Keys(), testing::UnorderedElementsAre(L"first", L"second"));
    EXPECT_EQ(0, Load(L"first"));
    EXPECT_TRUE(SameBits(CamToDMD(), CalibrationC2D(m_calibration), 9));
    EXPECT_EQ(0, Load(L"second"));
    EXPECT_THAT(CalibrationC2D(m_calibration), ElementsAre(1, 2, 3, 4, 5, 6, 0, 0, 1));
}

TEST_F(SavedCalibrations, SavingAKeyAgainReplacesItsSixEntries)
{
    ASSERT_EQ(0, Save(L"other"));
    ASSERT_EQ(0, Save(L"key"));
    for (int i = 0; i < 3; ++i)
    {
        ASSERT_EQ(0, Save(L"key", Matrix(9, i), Matrix(9, -i)));
        CSettings settings(m_owner);
        EXPECT_THAT(settings.Keys(), testing::UnorderedElementsAre(L"key", L"other"));
        ASSERT_TRUE(settings.Tree().EnterLevel(L"Calibration") && settings.Tree().EnterLevel(L"key"));
        EXPECT_EQ(6u, settings.Tree().GetEntryCount());
        EXPECT_EQ(0, Load(L"key"));
        EXPECT_EQ(i, CalibrationC2D(m_calibration)[0]);
        EXPECT_EQ(-i, CalibrationD2C(m_calibration)[5]);
    }
    EXPECT_EQ(0, Load(L"other"));
    EXPECT_EQ(12.5, CalibrationC2D(m_calibration)[2]);
}

// Hardware of which nothing is watched has the empty text.
TEST_F(SavedCalibrations, SavingUnderTheEmptyKeyKeepsTheOthers)
{
    ASSERT_EQ(0, Save(L"key"));
    Save(L"", Matrix(9, 2.0));
    Save(L"", Matrix(9, 3.0));
    EXPECT_EQ(0, Load(L"key"));
    EXPECT_TRUE(SameBits(CamToDMD(), CalibrationC2D(m_calibration), 9));
}

// A device that has no names yet must not cost another one its calibrations.
TEST_F(SavedCalibrations, SavingUnderAnEmptySectionOrDeviceKeepsTheOthers)
{
    ASSERT_EQ(0, Save(L"key"));
    m_owner.section = L"";
    Save(L"key", Matrix(9, 2.0));
    m_owner.section = L"Devices";
    m_owner.device = L"";
    Save(L"key", Matrix(9, 3.0));
    m_owner.device = L"Mirrors";
    EXPECT_EQ(0, Load(L"key"));
    EXPECT_TRUE(SameBits(CamToDMD(), CalibrationC2D(m_calibration), 9));
}

TEST_F(SavedCalibrations, KeepTheKeysOfAnyNames)
{
    const std::vector<std::wstring> keys = {
        L"#OPlan \"20x\"#R0.000000#CCam",
        L"a\nb\r\tc",
        L"<level>&amp;'",
        L"\U0001F52C\u65E5\u672C",
        L"back\\slash/slash",
        L" blanks ",
        L"{\"json\": [1]}",
        std::wstring(5000, L'x'),
    };
    for (std::size_t i = 0; i < keys.size(); ++i)
        ASSERT_EQ(0, Save(keys[i], Matrix(9, static_cast<double>(i))));
    EXPECT_THAT(Keys(), testing::UnorderedElementsAreArray(keys));
    for (std::size_t i = 0; i < keys.size(); ++i)
    {
        EXPECT_EQ(0, Load(keys[i])) << i;
        EXPECT_EQ(static_cast<double>(i), CalibrationC2D(m_calibration)[0]);
        CQsStringW key(keys[i]);
        EXPECT_EQ(0, m_calibration.FindCalibration(key)) << i;
    }
}

TEST_F(SavedCalibrations, OfAnotherDeviceOrSectionStay)
{
    ASSERT_EQ(0, Save(L"key"));
    m_owner.device = L"Other mirrors";
    EXPECT_EQ(-13, Load(L"key"));
    ASSERT_EQ(0, Save(L"key", Matrix(9, 2.0)));
    m_owner.section = L"Other section";
    EXPECT_EQ(-13, Load(L"key"));
    ASSERT_EQ(0, Save(L"key", Matrix(9, 3.0)));
    m_calibration.ClearAllCalibrationMatrices();
    EXPECT_EQ(-13, Load(L"key"));
    m_owner.section = L"Devices";
    EXPECT_EQ(0, Load(L"key"));
    EXPECT_EQ(2.0, CalibrationC2D(m_calibration)[0]);
    m_owner.device = L"Mirrors";
    EXPECT_EQ(0, Load(L"key"));
    EXPECT_EQ(0.98, CalibrationC2D(m_calibration)[0]);
}

TEST_F(SavedCalibrations, OtherSettingsOfTheFileStay)
{
    CQsLiteVariantW writer;
    writer.SetDouble(L"version", 3.5);
    writer.OpenLevel(L"Devices");
    writer.OpenLevel(L"Mirrors");
    writer.SetString(L"serial", L"42");
    writer.OpenLevel(L"Definition");
    writer.SetBool(L"enabled", true);
    ASSERT_EQ(0, CQsLiteVariantR(writer).SaveToFile(m_owner.file.c_str(), false, true, false));
    const auto expectOthers = [this]
    {
        CQsLiteVariantR tree;
        ASSERT_EQ(0, tree.LoadFromFile(m_owner.file.c_str(), true, false));
        EXPECT_EQ(3.5, tree.GetDouble(L"version", 0.0));
        ASSERT_TRUE(tree.EnterLevel(L"Devices") && tree.EnterLevel(L"Mirrors"));
        EXPECT_EQ(L"42", tree.GetString(L"serial", L""));
        ASSERT_TRUE(tree.EnterLevel(L"Definition"));
        EXPECT_TRUE(tree.GetBool(L"enabled", false));
    };
    ASSERT_EQ(0, Save(L"key"));
    expectOthers();
    m_calibration.ClearAllCalibrationMatrices();
    expectOthers();
    ASSERT_EQ(0, Save(L"key"));
    expectOthers();
}

TEST_F(SavedCalibrations, AnUnreadableFileIsReplaced)
{
    m_folder.Write("settings.qs", "this is no settings file");
    EXPECT_EQ(-13, Load(L"key"));
    EXPECT_EQ(Identity(), CalibrationC2D(m_calibration));
    EXPECT_EQ("this is no settings file", ContentsOf(File())); // a reader leaves it
    EXPECT_EQ(0, Save(L"key"));
    EXPECT_EQ(0, Load(L"key"));
    EXPECT_TRUE(SameBits(CamToDMD(), CalibrationC2D(m_calibration), 9));
}

// What could not be read may be readable tomorrow.
TEST_F(SavedCalibrations, AnUnreadableFileIsKeptBesideTheNewOne)
{
    m_folder.Write("settings.qs", "this is no settings file");
    ASSERT_EQ(0, Save(L"key"));
    std::size_t kept = 0;
    for (const auto& entry : std::filesystem::directory_iterator(m_folder.Path()))
        kept += ContentsOf(entry.path().string()) == "this is no settings file";
    EXPECT_EQ(1u, kept);
}

TEST_F(SavedCalibrations, AFileThatCannotBeWrittenFailsAndChangesNothing)
{
    m_owner.file = CQsStringW::FromUtf8(m_folder.File("missing/settings.qs"));
    EXPECT_EQ(-9, Save(L"key"));
    EXPECT_FALSE(std::filesystem::exists(m_folder.File("missing")));
    m_owner.file = CQsStringW::FromUtf8(m_folder.Path()); // a folder
    EXPECT_EQ(-9, Save(L"key"));
    EXPECT_TRUE(SameBits(CamToDMD(), CalibrationC2D(m_calibration), 9));
    EXPECT_EQ(-13, Load(L"key"));
}

TEST_F(SavedCalibrations, AMatrixOfFewerThanSixElementsIsNotSaved)
{
    for (const std::size_t length : {0u, 4u, 5u})
    {
        EXPECT_EQ(-9, Save(L"key", Matrix(length, 1.0)));
        EXPECT_EQ(-9, Save(L"key", CamToDMD(), Matrix(length, 1.0)));
    }
    EXPECT_FALSE(std::filesystem::exists(File()));
    EXPECT_EQ(0, Save(L"key", Matrix(6, 1.0), Matrix(7, 2.0)));
    EXPECT_EQ(0, Load(L"key"));
    EXPECT_THAT(CalibrationC2D(m_calibration), ElementsAre(1, 1, 1, 1, 1, 1, 0, 0, 1));
}

TEST_F(SavedCalibrations, AKeyThatIsNotThereInstallsIdentities)
{
    EXPECT_EQ(-13, Load(L"key")); // no file
    EXPECT_EQ(Identity(), CalibrationC2D(m_calibration));
    EXPECT_EQ(Identity(), CalibrationD2C(m_calibration));
    ASSERT_EQ(0, Save(L"key"));
    EXPECT_EQ(-13, Load(L"Key"));
    EXPECT_EQ(Identity(), CalibrationC2D(m_calibration));
    EXPECT_EQ(Identity(), CalibrationD2C(m_calibration));
    EXPECT_EQ(Identity(), MappingC2D(m_calibration));
    EXPECT_EQ(Identity(), MappingD2C(m_calibration));
}

TEST_F(SavedCalibrations, TheEmptyKeyUpdatesTheCorrectionsAndInstallsIdentities)
{
    ASSERT_EQ(0, Save(L"key"));
    m_owner.flip[3] = -1.0;
    m_owner.frame = {0, 0, 100, 60};
    m_owner.calls.Clear();
    EXPECT_EQ(0, Load(L""));
    EXPECT_EQ(Identity(), CalibrationC2D(m_calibration));
    EXPECT_EQ(Identity(), CalibrationD2C(m_calibration));
    EXPECT_EQ(-1.0, Flip(m_calibration)[4]);
    EXPECT_THAT(Translation(m_calibration), ElementsAre(50, 30, 1));
    EXPECT_THAT(MappingC2D(m_calibration), AreNear({1, 0, 0, 0, -1, 60, 0, 0, 1}, 1e-12, 3));
    EXPECT_THAT(m_owner.calls.Entries(), ElementsAre("GetCameraFlipReference", "GetCameraFormat"));
}

// The corrections of a key stay what they are; only the empty one asks for them.
TEST_F(SavedCalibrations, LoadingAKeyAsksForNoCorrection)
{
    ASSERT_EQ(0, Save(L"key"));
    m_owner.calls.Clear();
    EXPECT_EQ(0, Load(L"key"));
    EXPECT_EQ(0u, m_owner.calls.Count("GetCameraFlipReference") + m_owner.calls.Count("GetCameraFormat") +
                      m_owner.calls.Count("OnCalibrationStateChanged"));
}

TEST_F(SavedCalibrations, MissingEntriesAndValuesReadZero)
{
    CQsLiteVariantW writer;
    for (const wchar_t* const level : {L"Devices", L"Mirrors", L"Definition", L"Calibration", L"key"})
        writer.OpenLevel(level);
    for (int i = 0; i < 4; ++i)
    {
        writer.OpenLevel(L"");
        if (i != 1)
            writer.SetDouble(L"m_pdCalibrationMatrixDMDToCam", 10.0 + i);
        if (i != 2)
            writer.SetDouble(L"m_pdCalibrationMatrixCamToDMD", 20.0 + i);
        writer.CloseLevel();
    }
    ASSERT_EQ(0, CQsLiteVariantR(writer).SaveToFile(m_owner.file.c_str(), false, true, false));
    EXPECT_EQ(0, Load(L"key"));
    EXPECT_THAT(CalibrationD2C(m_calibration), ElementsAre(10, 0, 12, 13, 0, 0, 0, 0, 1));
    EXPECT_THAT(CalibrationC2D(m_calibration), ElementsAre(20, 21, 0, 23, 0, 0, 0, 0, 1));
}

TEST_F(SavedCalibrations, EntriesBeyondTheSixthAreNotRead)
{
    WriteSaved(m_owner, {{L"key"}});
    CQsLiteVariantW writer;
    for (const wchar_t* const level : {L"Devices", L"Mirrors", L"Definition", L"Calibration", L"key"})
        writer.OpenLevel(level);
    for (int i = 0; i < 9; ++i)
    {
        writer.OpenLevel(L"");
        writer.SetDouble(L"m_pdCalibrationMatrixDMDToCam", i);
        writer.SetDouble(L"m_pdCalibrationMatrixCamToDMD", -i);
        writer.CloseLevel();
    }
    ASSERT_EQ(0, CQsLiteVariantR(writer).SaveToFile(m_owner.file.c_str(), false, true, false));
    EXPECT_EQ(0, Load(L"key"));
    EXPECT_THAT(CalibrationD2C(m_calibration), ElementsAre(0, 1, 2, 3, 4, 5, 0, 0, 1));
}

TEST_F(SavedCalibrations, AMissingLevelIsNotFound)
{
    // Each file lacks one more level, or has a value in its place.
    const std::vector<const wchar_t*> levels = {L"Devices", L"Mirrors", L"Definition", L"Calibration", L"key"};
    for (std::size_t depth = 0; depth < levels.size(); ++depth)
    {
        for (const bool bValue : {false, true})
        {
            CQsLiteVariantW writer;
            for (std::size_t i = 0; i < depth; ++i)
                writer.OpenLevel(levels[i]);
            if (bValue)
                writer.SetString(levels[depth], L"");
            ASSERT_EQ(0, CQsLiteVariantR(writer).SaveToFile(m_owner.file.c_str(), false, true, false));
            EXPECT_EQ(-13, Load(L"key")) << depth << bValue;
            EXPECT_EQ(Identity(), CalibrationC2D(m_calibration));
            CQsStringW key = L"key";
            EXPECT_EQ(-13, m_calibration.FindCalibration(key)) << depth << bValue;
            SQsConfigItem item;
            EXPECT_EQ(-13, m_calibration.FindFirstCalibrationForCamera(L"Cam", item)) << depth << bValue;
            EXPECT_EQ(0, m_calibration.GetNumberOfSavedCalibrationConfigurations());
            bool bChanged = true;
            EXPECT_EQ(-13, m_calibration.LoadCalibration(bChanged)) << depth << bValue;
            EXPECT_TRUE(bChanged); // not written
        }
    }
}

TEST_F(SavedCalibrations, AreNotThereWithoutAnOwner)
{
    EXPECT_EQ(-12, m_orphan.SaveCalibrationMatrices(L"key"));
    m_orphan.SetCalibrationCamToDMD(CamToDMD());
    EXPECT_EQ(-12, m_orphan.LoadCalibrationMatrices(L"key"));
    EXPECT_EQ(-12, m_orphan.LoadCalibrationMatrices(L""));
    EXPECT_EQ(CamToDMD(), CalibrationC2D(m_orphan)); // nothing is installed
    CQsStringW key = L"#OA#R90.0#CB";
    EXPECT_EQ(-13, m_orphan.FindCalibration(key));
    SQsConfigItem item;
    EXPECT_EQ(-13, m_orphan.FindFirstCalibrationForCamera(L"Cam", item));
    EXPECT_EQ(0, m_orphan.GetNumberOfSavedCalibrationConfigurations());
    m_orphan.ClearAllCalibrationMatrices();
    EXPECT_EQ(CamToDMD(), CalibrationC2D(m_orphan));
    for (const bool before : {false, true})
    {
        bool bChanged = before;
        EXPECT_EQ(-13, m_orphan.LoadCalibration(bChanged));
        EXPECT_EQ(before, bChanged);
    }
    EXPECT_EQ(CamToDMD(), CalibrationC2D(m_orphan));
}

// --------------------------------------------------------------------------------------------------------------- find

TEST_F(SavedCalibrations, AreFoundUnderTheirExactKey)
{
    ASSERT_EQ(0, Save(L"#OObj#R90.000000#CCam"));
    CQsStringW key = L"#OObj#R90.000000#CCam";
    EXPECT_EQ(0, m_calibration.FindCalibration(key));
    EXPECT_EQ(L"#OObj#R90.000000#CCam", key);
}

TEST_F(SavedCalibrations, KeysThatAreNotThereLoseTheirRotationAsInTheReferenceValues)
{
    ASSERT_EQ(0, Save(L"nothing of these"));
    for (const Json* const vector : VectorsOf("FindCalibration.cut"))
    {
        CQsStringW key(ToWide(Member(*vector, "input")));
        EXPECT_EQ(-13, m_calibration.FindCalibration(key)) << Member(*vector, "id").GetString();
        EXPECT_EQ(ToWide(Member(*vector, "output")), key.Std()) << Member(*vector, "id").GetString();
    }
}

TEST_F(SavedCalibrations, AreFoundWithoutTheRotationToo)
{
    ASSERT_EQ(0, Save(L"#F#OObj#Z1.5#CCam"));
    CQsStringW key = L"#F#OObj#R90.000000#Z1.5#CCam";
    EXPECT_EQ(0, m_calibration.FindCalibration(key));
    EXPECT_EQ(L"#F#OObj#Z1.5#CCam", key);
    ASSERT_EQ(0, Save(L"#F#OObj"));
    key = L"#F#OObj#R90.000000"; // at the end
    EXPECT_EQ(0, m_calibration.FindCalibration(key));
    EXPECT_EQ(L"#F#OObj", key);
    key = L"#F#OObj#R#Z1.5#CCam"; // the bare letter
    EXPECT_EQ(0, m_calibration.FindCalibration(key));
    EXPECT_EQ(L"#F#OObj#Z1.5#CCam", key);
}

TEST_F(SavedCalibrations, OnlyTheFirstRotationOfAKeyIsCut)
{
    ASSERT_EQ(0, Save(L"#OA#R2#CB"));
    CQsStringW key = L"#OA#R1#R2#CB";
    EXPECT_EQ(0, m_calibration.FindCalibration(key));
    EXPECT_EQ(L"#OA#R2#CB", key);
    key = L"#OA#R1#R3#CB";
    EXPECT_EQ(-13, m_calibration.FindCalibration(key));
    EXPECT_EQ(L"#OA#R3#CB", key);
}

TEST_F(SavedCalibrations, AKeyThatIsNotFoundStaysShortenedOrAsItWas)
{
    ASSERT_EQ(0, Save(L"key"));
    CQsStringW key = L"#OA#R1#CB";
    EXPECT_EQ(-13, m_calibration.FindCalibration(key));
    EXPECT_EQ(L"#OA#CB", key);
    key = L"#OA#rR1#CB";
    EXPECT_EQ(-13, m_calibration.FindCalibration(key));
    EXPECT_EQ(L"#OA#rR1#CB", key);
}

// Without the file there is nothing to look for, and the key is not shortened.
TEST_F(SavedCalibrations, AreNotFoundWithoutTheFile)
{
    CQsStringW key = L"#OA#R1#CB";
    EXPECT_EQ(-13, m_calibration.FindCalibration(key));
    EXPECT_EQ(L"#OA#R1#CB", key);
    EXPECT_FALSE(std::filesystem::exists(File()));
}

// --------------------------------------------------------------------------------------------------- first of a camera

TEST_F(SavedCalibrations, TheFirstOfACameraIsTheFirstInTheFile)
{
    WriteSaved(m_owner, {{L"#OA#CX"}, {L"#OB#R1.0#CCam"}, {L"#OC#R2.0#CCam"}});
    SQsConfigItem item;
    EXPECT_EQ(0, m_calibration.FindFirstCalibrationForCamera(L"Cam", item));
    EXPECT_EQ(L"B", item.sObjective);
    EXPECT_EQ(L"1.00", item.sRotation);
    EXPECT_EQ(L"Cam", item.sCamera);
    EXPECT_EQ(0, m_calibration.FindFirstCalibrationForCamera(L"X", item));
    EXPECT_EQ(L"A", item.sObjective);
    EXPECT_EQ(L"<none>", item.sRotation); // nothing of the key before
}

TEST_F(SavedCalibrations, WithoutOneOfTheCameraTheItemIsThatOfTheLast)
{
    WriteSaved(m_owner, {{L"#OA#CX"}, {L"#OB#R1.0#CCam"}, {L"#OC#R2.0#CZ"}});
    SQsConfigItem item;
    EXPECT_EQ(-13, m_calibration.FindFirstCalibrationForCamera(L"cam", item));
    EXPECT_EQ(L"C", item.sObjective);
    EXPECT_EQ(L"Z", item.sCamera);
}

TEST_F(SavedCalibrations, AKeyWithoutACameraIsThatOfNone)
{
    WriteSaved(m_owner, {{L"#OA#C"}});
    SQsConfigItem item;
    EXPECT_EQ(-13, m_calibration.FindFirstCalibrationForCamera(L"", item));
    EXPECT_EQ(0, m_calibration.FindFirstCalibrationForCamera(L"<none>", item));
    EXPECT_EQ(L"A", item.sObjective);
}

// The caller's item is used for one key after the other, and a port stays in it.
TEST_F(SavedCalibrations, ThePortOfAnEarlierKeyStaysInTheCallersItem)
{
    WriteSaved(m_owner, {{L"#L3#CX"}, {L"#OB#CCam"}});
    SQsConfigItem item;
    EXPECT_EQ(0, m_calibration.FindFirstCalibrationForCamera(L"Cam", item));
    EXPECT_EQ(3, item.iORBAPort);
    EXPECT_TRUE(item.bORBAPort);
}

TEST_F(SavedCalibrations, WithoutAnySavedTheItemStays)
{
    SQsConfigItem item;
    item.sCamera = L"before";
    EXPECT_EQ(-13, m_calibration.FindFirstCalibrationForCamera(L"before", item));
    WriteSaved(m_owner, {});
    EXPECT_EQ(-13, m_calibration.FindFirstCalibrationForCamera(L"before", item));
    EXPECT_EQ(L"before", item.sCamera);
}

TEST_F(SavedCalibrations, TheCameraMayBeATextOfTheItem)
{
    WriteSaved(m_owner, {{L"#OA#CX"}, {L"#OB#CCam"}});
    SQsConfigItem item;
    item.sCamera = L"Cam";
    EXPECT_EQ(0, m_calibration.FindFirstCalibrationForCamera(item.sCamera, item));
    EXPECT_EQ(L"B", item.sObjective);
}

// ------------------------------------------------------------------------------------------------------ number and
// clear

TEST_F(SavedCalibrations, AreNotCounted)
{
    EXPECT_EQ(0, m_calibration.GetNumberOfSavedCalibrationConfigurations());
    for (const wchar_t* const key : {L"1", L"2", L"3", L"4", L"5"})
        ASSERT_EQ(0, Save(key));
    m_owner.calls.Clear();
    EXPECT_EQ(0, m_calibration.GetNumberOfSavedCalibrationConfigurations());
    EXPECT_EQ(1u, m_owner.calls.Count("GetCalibrationFileName")); // it reads the file all the same
    EXPECT_EQ(5u, Keys().size());
}

TEST_F(SavedCalibrations, ClearingLeavesOneEmptyValueAndIdentities)
{
    FillCurrent(m_calibration, Microscope());
    const std::wstring key = m_calibration.GetConfigurationStringCurrent().Std();
    ASSERT_EQ(0, Save(key));
    ASSERT_EQ(0, Save(L"another"));
    bool bChanged = false;
    ASSERT_EQ(0, m_calibration.LoadCalibration(bChanged));
    ASSERT_TRUE(IsCalibratedValid(m_calibration));
    m_owner.states.clear();

    m_calibration.ClearAllCalibrationMatrices();
    {
        CSettings settings(m_owner);
        ASSERT_TRUE(settings.IsOpen());
        EXPECT_EQ(1u, settings.Tree().GetEntryCount());
        EXPECT_EQ(L"Calibration", settings.Tree().GetEntryName(0));
        EXPECT_FALSE(settings.Tree().EnterLevel(L"Calibration"));
        EXPECT_EQ(L"", settings.Tree().GetString(L"Calibration", L"missing"));
    }
    EXPECT_FALSE(IsCalibratedValid(m_calibration));
    EXPECT_EQ(L"#F#O#R0.000000#L#Mi#M#C", m_calibration.GetConfigurationStringCalibrated());
    EXPECT_EQ(Identity(), CalibrationC2D(m_calibration));
    EXPECT_EQ(Identity(), CalibrationD2C(m_calibration));
    EXPECT_EQ(eCalibrationStateInvalid, m_calibration.GetCurrentCalibrationState());
    EXPECT_EQ(3u, m_owner.states.size()); // as a load tells it
    EXPECT_EQ(-13, m_calibration.LoadCalibrationMatrices(CQsStringW(key)));

    m_calibration.ClearAllCalibrationMatrices(); // of nothing
    ASSERT_EQ(0, Save(key));
    EXPECT_THAT(Keys(), ElementsAre(key));
    EXPECT_EQ(0, Load(key));
    EXPECT_TRUE(SameBits(CamToDMD(), CalibrationC2D(m_calibration), 9));
    EXPECT_EQ(0, m_calibration.LoadCalibration(bChanged));
}

TEST_F(SavedCalibrations, ClearingWithoutAFileMakesNone)
{
    m_calibration.SetCalibrationCamToDMD(CamToDMD());
    m_calibration.ClearAllCalibrationMatrices();
    EXPECT_FALSE(std::filesystem::exists(File()));
    EXPECT_EQ(Identity(), CalibrationC2D(m_calibration));
    EXPECT_EQ(3u, m_owner.states.size());
}

TEST_F(SavedCalibrations, ClearingLeavesAnUnreadableFileAsItIs)
{
    m_folder.Write("settings.qs", "no settings");
    m_calibration.ClearAllCalibrationMatrices();
    EXPECT_EQ("no settings", ContentsOf(File()));
}

} // namespace

// Which saved calibration is loaded for the hardware of now, and what is left when none fits.
#include "tests/calibration/CalibrationTest.h"
#include "tests/calibration/Translations.h"

#include <filesystem>

using namespace QsTest;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

namespace {

class Choice : public CalibrationTest
{
protected:
    // Saves one calibration for each key, told apart by the shift of camera to DMD: 1, 2, 3 ...
    void Saved(const std::vector<std::wstring>& keys)
    {
        std::vector<SSaved> saved;
        for (const std::wstring& key : keys)
        {
            const double number = static_cast<double>(saved.size() + 1);
            saved.push_back({key, {1, 0, -number, 0, 1, 0, 0, 0, 1}, {1, 0, number, 0, 1, 0, 0, 0, 1}});
        }
        WriteSaved(m_owner, saved);
    }
    // Number of the loaded one; 0: the identity, -1: anything else.
    int Loaded()
    {
        const Matrix matrix = CalibrationC2D(m_calibration);
        const int number = static_cast<int>(matrix[2]);
        const bool bWhole =
            matrix == Matrix({1, 0, double(number), 0, 1, 0, 0, 0, 1}) && CalibrationD2C(m_calibration)[2] == -number;
        return bWhole ? number : -1;
    }
    SHardware Plain() const // hardware that keys can hold whole
    {
        SHardware hardware;
        hardware.objective = L"Obj";
        hardware.camera = L"Cam";
        hardware.rotation = 90.0;
        hardware.bRotationSet = true;
        hardware.watched = Everything();
        return hardware;
    }
    int Load()
    {
        m_owner.states.clear();
        return m_calibration.LoadCalibration(m_bChanged);
    }

    bool m_bChanged = false;
};

TEST_F(Choice, AgreesWithEveryReferenceValue)
{
    for (const Json* const vector : VectorsOf("LoadCalibration.choice"))
    {
        const char* const id = Member(*vector, "id").GetString();
        const Json& input = Member(*vector, "input");
        const Json& output = Member(*vector, "output");
        m_owner.watched.clear();
        for (const Json& type : Member(input, "watched").GetArray())
            m_owner.watched.push_back(static_cast<EQsWatchedDeviceType>(type.GetInt()));
        Calibration calibration(&m_owner);
        FillCurrent(calibration, HardwareOf(Member(input, "current_snapshot")));
        EXPECT_EQ(ToWide(Member(output, "current")), calibration.GetConfigurationStringCurrent().Std()) << id;
        std::vector<SSaved> saved;
        for (const Json& key : Member(input, "saved").GetArray())
        {
            saved.push_back({ToWide(key)});
            saved.back().camToDMD[2] = static_cast<double>(saved.size());
        }
        WriteSaved(m_owner, saved);
        const Matrix before = {3, 0, 0, 0, 3, 0, 0, 0, 1};
        calibration.SetCalibrationCamToDMD(before);

        const CLogCapture log;
        bool bChanged = false;
        const int status = calibration.LoadCalibration(bChanged);
        const int best = Member(output, "best").GetInt();
        const std::wstring bestKey = ToWide(Member(output, "bestKey"));
        if (best > eCalibrationStateInvalid)
        {
            EXPECT_EQ(0, status) << id;
            EXPECT_TRUE(bChanged) << id;
            const auto chosen = static_cast<std::size_t>(CalibrationC2D(calibration)[2]);
            ASSERT_TRUE(chosen >= 1 && chosen <= saved.size()) << id;
            EXPECT_EQ(bestKey, saved[chosen - 1].key) << id;
            EXPECT_EQ(Member(output, "stateAfter").GetInt(), calibration.GetCurrentCalibrationState()) << id;
            const std::wstring name = ToWide(Member(output, "loadedName"));
            EXPECT_EQ(name, calibration.GetConfigurationStringCalibrated().Std()) << id;
            std::size_t told = 0;
            for (const std::wstring& text : log.Of(s_unit))
                told += text.find(L"configuration string " + name + L", current configuration " +
                                  ToWide(Member(output, "current")) + L", current") != std::wstring::npos;
            EXPECT_EQ(1u, told) << id;
        }
        else
        {
            EXPECT_FALSE(bChanged) << id;
            if (output.HasMember("stateAfter"))
            {
                EXPECT_EQ(Member(output, "stateAfter").GetInt(), calibration.GetCurrentCalibrationState()) << id;
            }
            EXPECT_FALSE(IsCalibratedValid(calibration)) << id; // as it was
            EXPECT_EQ(best == eCalibrationStateInvalid ? before : Identity(), CalibrationC2D(calibration)) << id;
        }
    }
}

TEST_F(Choice, TheExactKeyIsTakenAndTheWalkEnds)
{
    Saved({L"#F#OObj#R90.0#L#Mi#M#CCam", L"#F#OObj#R90.000000#L#Mi#M#CCam"});
    FillCurrent(m_calibration, Plain());
    EXPECT_EQ(0, Load());
    EXPECT_EQ(1, Loaded()); // identical as well, and the first
    EXPECT_EQ(eCalibrationStateIdentical, m_calibration.GetCurrentCalibrationState());
    EXPECT_EQ(L"#F#OObj#R90.000000#L#Mi#M#CCam", m_calibration.GetConfigurationStringCalibrated());

    Saved({L"#F#OOther#R90.000000#L#Mi#M#CCam", L"#F#OObj#R90.000000#L#Mi#M#CCam", L"#F#OObj#R90.0#L#Mi#M#CCam"});
    EXPECT_EQ(0, Load());
    EXPECT_EQ(2, Loaded());
}

// A key that names lights is matched by its text although the snapshot that it stands for has none: it is taken, and
// the state says afterwards what the key could not hold.
TEST_F(Choice, WhatAKeyCannotHoldShowsInTheState)
{
    SHardware hardware = Plain();
    hardware.microscope = L"Ti";
    Saved({L"#F#OObj#R90.000000#L#MiTi#M#CCam"});
    FillCurrent(m_calibration, hardware);
    EXPECT_EQ(0, Load());
    EXPECT_EQ(1, Loaded());
    EXPECT_EQ(eCalibrationStateChanged, m_calibration.GetCurrentCalibrationState());
    EXPECT_EQ(L"#F#OObj#R90.000000#L#Mi#M#CCam", m_calibration.GetConfigurationStringCalibrated());

    hardware = Plain();
    hardware.rotation = 33.333;
    Saved({L"#F#OObj#R33.333000#L#Mi#M#CCam"});
    FillCurrent(m_calibration, hardware);
    EXPECT_EQ(0, Load());
    EXPECT_EQ(1, Loaded());
    EXPECT_EQ(eCalibrationStateInvalid, m_calibration.GetCurrentCalibrationState()); // 33.33
    EXPECT_EQ(L"#F#OObj#R33.330000#L#Mi#M#CCam", m_calibration.GetConfigurationStringCalibrated());

    hardware = Plain();
    hardware.multilasers = {{L"U", 1}};
    Saved({L"#F#OObj#R90.000000#L#Mi#MKUM1#CCam"});
    FillCurrent(m_calibration, hardware);
    EXPECT_EQ(0, Load());
    EXPECT_EQ(eCalibrationStateChanged, m_calibration.GetCurrentCalibrationState());
}

TEST_F(Choice, TheClosestIsTakenAndOfEquallyCloseOnesTheFirst)
{
    FillCurrent(m_calibration, Plain());
    const std::wstring camera = L"#F#OObj#R90.0#CX";
    const std::wstring objective = L"#F#OX#R90.0#CCam";
    const std::wstring unknown = L"#F#OObj#CCam";
    const std::wstring identical = L"#F#OObj#R90.0#CCam";
    struct SCase
    {
        std::vector<std::wstring> keys;
        int loaded;
        EQsCalibrationState state;
    };
    const SCase cases[] = {
        {{camera, objective, unknown, identical}, 4, eCalibrationStateIdentical},
        {{identical, unknown, objective, camera}, 1, eCalibrationStateIdentical},
        {{objective, unknown, camera, unknown}, 2, eCalibrationStateRotationUnknown},
        {{unknown, objective, unknown + L"#"}, 1, eCalibrationStateRotationUnknown},
        {{camera, objective, objective + L"#"}, 2, eCalibrationStateChanged},
        {{camera, camera + L"#", unknown}, 3, eCalibrationStateRotationUnknown},
    };
    for (const SCase& one : cases)
    {
        Saved(one.keys);
        EXPECT_EQ(0, Load());
        EXPECT_EQ(one.loaded, Loaded()) << CQsStringW(one.keys[0]);
        EXPECT_EQ(one.state, m_calibration.GetCurrentCalibrationState()) << CQsStringW(one.keys[0]);
    }
}

TEST_F(Choice, EveryPartThatAKeyHoldsIsCompared)
{
    SHardware hardware = Plain();
    hardware.filterChangers = {{L"W", L"G", 2}, {L"V", L"R", -1}};
    hardware.zoom = 1.25;
    hardware.bConnected = true;
    hardware.port = 3;
    hardware.watched = Without(eWatchedLights); // whose mark would stand for port 0
    FillCurrent(m_calibration, hardware);
    const std::wstring key = L"#F$KV$NR$P-1$KW$NG$P2#OObj#R90.0#L3#Z1.25#CCam";
    const auto stateOf = [&](const std::wstring& from, const std::wstring& to)
    {
        std::wstring other = key;
        const std::size_t at = other.find(from);
        EXPECT_NE(std::wstring::npos, at);
        other.replace(at, from.size(), to);
        Saved({other});
        Load();
        return m_calibration.GetCurrentCalibrationState();
    };
    EXPECT_EQ(eCalibrationStateIdentical, stateOf(L"", L""));
    EXPECT_EQ(eCalibrationStateChanged, stateOf(L"$P2", L"$P3"));
    EXPECT_EQ(eCalibrationStateIdentical, stateOf(L"$P2", L"$P2nd")); // its leading digits
    EXPECT_EQ(eCalibrationStateChanged, stateOf(L"$NG", L"$NH"));
    EXPECT_EQ(eCalibrationStateChanged, stateOf(L"$KV", L"$KU"));
    EXPECT_EQ(eCalibrationStateChanged, stateOf(L"$KW$NG$P2", L""));
    EXPECT_EQ(eCalibrationStateChanged, stateOf(L"Obj", L"obj"));
    EXPECT_EQ(eCalibrationStateChanged, stateOf(L"#L3", L"#L4"));
    EXPECT_EQ(eCalibrationStateChanged, stateOf(L"#L3", L""));
    EXPECT_EQ(eCalibrationStateChanged, stateOf(L"1.25", L"1.26"));
    EXPECT_EQ(eCalibrationStateChanged, stateOf(L"#Z1.25", L""));
    EXPECT_EQ(eCalibrationStateRotationUnknown, stateOf(L"#R90.0", L""));
    EXPECT_EQ(eCalibrationStateIdentical, stateOf(L"90.0", L"450.0")); // one turn more
}

// The snapshot of a key has the type set of the owner, the comparison follows that of the hardware of now.
TEST_F(Choice, TheHardwareOfNowDecidesWhatCounts)
{
    m_owner.watched = {eWatchedCamera};
    m_calibration = Calibration(&m_owner);
    FillCurrent(m_calibration, Plain());
    Saved({L"#F#OX#R90.0#CCam"});
    EXPECT_EQ(0, Load());
    EXPECT_EQ(eCalibrationStateChanged, m_calibration.GetCurrentCalibrationState());
    EXPECT_EQ(L"", m_calibration.GetConfigurationStringCalibrated()); // of the owner's set

    SHardware hardware = Plain();
    hardware.watched = {eWatchedCamera};
    FillCurrent(m_calibration, hardware);
    EXPECT_EQ(0, Load());
    EXPECT_EQ(eCalibrationStateIdentical, m_calibration.GetCurrentCalibrationState());
}

TEST_F(Choice, ThePortOfOneKeyDoesNotReachTheNext)
{
    FillCurrent(m_calibration, Plain());
    Saved({L"#F#OObj#R90.0#L3#CCam", L"#F#OObj#R90.0#CCam"});
    EXPECT_EQ(0, Load());
    EXPECT_EQ(2, Loaded());
    EXPECT_EQ(eCalibrationStateIdentical, m_calibration.GetCurrentCalibrationState());
}

TEST_F(Choice, TheTranslatedNoneIsNoCameraAndNoObjective)
{
    const CTranslations german(R"({"<none>": "<keine>"})");
    SHardware hardware = Plain();
    hardware.objective.clear();
    hardware.camera.clear();
    FillCurrent(m_calibration, hardware);
    Saved({L"#F#R90.0#Z0"});
    EXPECT_EQ(0, Load());
    EXPECT_EQ(1, Loaded());
    EXPECT_EQ(eCalibrationStateIdentical, m_calibration.GetCurrentCalibrationState());
}

// Only what differs in camera or in the known rotation: the calibration of before stays, and the state says so.
TEST_F(Choice, OfAnotherCameraOrRotationKeepsTheCalibrationOfBefore)
{
    FillCurrent(m_calibration, Plain());
    Saved({L"#F#OObj#R90.0#CCam"});
    ASSERT_EQ(0, Load());
    ASSERT_EQ(1, Loaded());
    m_bChanged = true;
    for (const wchar_t* const key : {L"#F#OObj#R45.0#CCam", L"#F#OObj#R90.0#CX"})
    {
        Saved({L"#F#OObj#R45.0#CX", key});
        Load();
        EXPECT_TRUE(m_bChanged); // not written
        EXPECT_EQ(1, Loaded());
        EXPECT_TRUE(IsCalibratedValid(m_calibration));
        EXPECT_EQ(L"#F#OObj#R90.000000#L#Mi#M#CCam", m_calibration.GetConfigurationStringCalibrated());
        EXPECT_EQ(eCalibrationStateIdentical, m_calibration.GetCurrentCalibrationState()); // of what stayed
    }
    SHardware turned = Plain();
    turned.rotation = 10.0;
    FillCurrent(m_calibration, turned);
    Load();
    EXPECT_EQ(1, Loaded());
    EXPECT_EQ(eCalibrationStateInvalid, m_calibration.GetCurrentCalibrationState());
}

TEST_F(Choice, WithNothingSavedBecomesTheIdentity)
{
    FillCurrent(m_calibration, Plain());
    Saved({L"#F#OObj#R90.0#CCam"});
    ASSERT_EQ(0, Load());
    m_owner.frame = {0, 0, 100, 60};
    m_owner.flip[3] = -1.0;
    for (const bool bFile : {true, false})
    {
        m_calibration.SetCalibrationCamToDMD(CamToDMD());
        m_bChanged = true;
        if (bFile)
            Saved({});
        else
            std::filesystem::remove(File());
        EXPECT_EQ(-13, Load());
        EXPECT_TRUE(m_bChanged); // not written
        EXPECT_EQ(Identity(), CalibrationC2D(m_calibration));
        EXPECT_EQ(Identity(), CalibrationD2C(m_calibration));
        EXPECT_FALSE(IsCalibratedValid(m_calibration));
        EXPECT_EQ(L"#F#O#R0.000000#L#Mi#M#C", m_calibration.GetConfigurationStringCalibrated());
        EXPECT_EQ(eCalibrationStateInvalid, m_calibration.GetCurrentCalibrationState());
        EXPECT_THAT(Translation(m_calibration), ElementsAre(50, 30, 1));
        EXPECT_EQ(-1.0, Flip(m_calibration)[4]);
        EXPECT_EQ(L"#F#OObj#R90.000000#L#Mi#M#CCam", m_calibration.GetConfigurationStringCurrent()); // stays
    }
}

TEST_F(Choice, AnInvalidHardwareOfNowKeepsTheCalibrationOfBefore)
{
    m_calibration.SetCalibrationCamToDMD(CamToDMD());
    Saved({L"#OObj#CCam"});
    Load();
    EXPECT_EQ(CamToDMD(), CalibrationC2D(m_calibration));
    EXPECT_EQ(eCalibrationStateInvalid, m_calibration.GetCurrentCalibrationState());
}

// An exact text matches also when the hardware of now is not valid.
TEST_F(Choice, TheExactKeyCountsBeforeValidity)
{
    SHardware hardware = Plain();
    hardware.bValid = false;
    FillCurrent(m_calibration, hardware);
    Saved({L"#F#OObj#R90.000000#L#Mi#M#CCam"});
    EXPECT_EQ(0, Load());
    EXPECT_EQ(1, Loaded());
    EXPECT_EQ(eCalibrationStateInvalid, m_calibration.GetCurrentCalibrationState());
}

TEST_F(Choice, ChangedIsTrueFirstAndFalseOnARepeat)
{
    FillCurrent(m_calibration, Plain());
    Saved({L"#F#OObj#R90.0#CCam"});
    EXPECT_EQ(0, Load());
    EXPECT_TRUE(m_bChanged);
    EXPECT_EQ(0, Load());
    EXPECT_FALSE(m_bChanged);
    // Another text of the same snapshot has the same name.
    Saved({L"#CCam#OObj#R90.00"});
    EXPECT_EQ(0, Load());
    EXPECT_FALSE(m_bChanged);
    Saved({L"#F#OX#R90.0#CCam"});
    EXPECT_EQ(0, Load());
    EXPECT_TRUE(m_bChanged);
    EXPECT_EQ(0, Load());
    EXPECT_FALSE(m_bChanged);
}

// The name of the last one that was adopted stays while nothing fits.
// Another program clears the file after the choice: what was chosen cannot be read any more, and its hardware is not
// taken for the one that the matrices of now belong to.
TEST_F(Choice, OfACalibrationThatIsGoneWhenItIsLoadedAdoptsNothing)
{
    Saved({L"#F#OObj#R90.000000#L#Mi#M#CCam"});
    FillCurrent(m_calibration, Plain());
    m_calibration.SetCalibrationCamToDMD({3, 0, 0, 0, 3, 0, 0, 0, 1});
    int asked = 0;
    m_owner.onCall = [&](const std::string& operation)
    {
        if (operation == "GetCalibrationFileName" && ++asked == 2)
            std::filesystem::remove(File());
    };
    bool bChanged = true; // kept: nothing is adopted
    EXPECT_EQ(-13, m_calibration.LoadCalibration(bChanged));
    m_owner.onCall = nullptr;
    EXPECT_EQ(2, asked);
    EXPECT_TRUE(bChanged);
    EXPECT_EQ(Identity(), CalibrationC2D(m_calibration));
    EXPECT_FALSE(IsCalibratedValid(m_calibration));
    EXPECT_EQ(eCalibrationStateInvalid, m_calibration.GetCurrentCalibrationState());
}

TEST_F(Choice, TheSameCalibrationAfterAClearIsNoOther)
{
    FillCurrent(m_calibration, Plain());
    Saved({L"#F#OObj#R90.0#CCam"});
    ASSERT_EQ(0, Load());
    m_calibration.ClearAllCalibrationMatrices();
    Saved({L"#F#OObj#R90.0#CCam"});
    m_bChanged = true;
    EXPECT_EQ(0, Load());
    EXPECT_FALSE(m_bChanged);
    EXPECT_EQ(1, Loaded());
}

TEST_F(Choice, TellsTheOwnerTheStateThreeTimes)
{
    FillCurrent(m_calibration, Plain());
    Saved({L"#F#OObj#R90.0#CCam"});
    Load();
    EXPECT_THAT(m_owner.states,
                ElementsAre(eCalibrationStateInvalid, eCalibrationStateIdentical, eCalibrationStateIdentical));
    Load();
    EXPECT_THAT(m_owner.states,
                ElementsAre(eCalibrationStateIdentical, eCalibrationStateIdentical, eCalibrationStateIdentical));
    Saved({});
    Load();
    EXPECT_THAT(m_owner.states,
                ElementsAre(eCalibrationStateIdentical, eCalibrationStateIdentical, eCalibrationStateInvalid));
}

TEST_F(Choice, RefreshesEveryCorrection)
{
    FillCurrent(m_calibration, Plain());
    Saved({L"#F#OObj#R90.0#CCam"});
    m_owner.frame = {0, 0, 100, 60};
    m_owner.flip[3] = -1.0;
    const CLogCapture log;
    EXPECT_EQ(0, Load());
    EXPECT_THAT(Translation(m_calibration), ElementsAre(50, 30, 1));
    EXPECT_EQ(-1.0, Flip(m_calibration)[4]);
    EXPECT_THAT(MappingC2D(m_calibration), AreNear({1, 0, 1, 0, -1, 60, 0, 0, 1}, 1e-12, 3));
    EXPECT_THAT(log.Of(s_unit), testing::Contains(testing::HasSubstr(L"::UpdateRotationMatrix: ")));
}

// Neither failing correction keeps the calibration from being loaded.
TEST_F(Choice, LoadsAlsoWhenTheCameraDoesNotTellItsState)
{
    FillCurrent(m_calibration, Plain());
    Saved({L"#F#OObj#R90.0#CCam"});
    m_owner.flipStatus = m_owner.formatStatus = -9;
    EXPECT_EQ(0, Load());
    EXPECT_EQ(1, Loaded());
}

TEST_F(Choice, WhatWasSavedUnderTheHardwareOfNowIsFoundAgain)
{
    SHardware hardware = Plain();
    hardware.filterChangers = {{L"W", L"G", 2}};
    hardware.zoom = 1.5;
    FillCurrent(m_calibration, hardware);
    m_calibration.SetCalibrationCamToDMD(CamToDMD());
    m_calibration.SetCalibrationDMDToCam(DMDToCam());
    ASSERT_EQ(0, m_calibration.SaveCalibrationMatrices(m_calibration.GetConfigurationStringCurrent()));
    Calibration restarted(&m_owner);
    FillCurrent(restarted, hardware);
    EXPECT_EQ(0, restarted.LoadCalibration(m_bChanged));
    EXPECT_EQ(eCalibrationStateIdentical, restarted.GetCurrentCalibrationState());
    EXPECT_EQ(CamToDMD(), CalibrationC2D(restarted));
    EXPECT_EQ(DMDToCam(), CalibrationD2C(restarted));
}

} // namespace

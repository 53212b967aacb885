// What a snapshot holds, and when it is valid.
#include "tests/calibration/Snapshots.h"

#include <gmock/gmock.h>

#include <cmath>
#include <functional>
#include <limits>
#include <random>

using namespace QsTest;
using CSnapshot = CQsStimulationDeviceConfiguration;

namespace {

void ExpectEmpty(CSnapshot& snapshot)
{
    EXPECT_FALSE(snapshot.IsValid());
    EXPECT_EQ(0, snapshot.GetORBAPort());
    EXPECT_FALSE(snapshot.IsORBAConnected());
    EXPECT_EQ(0.0, snapshot.GetManualZoom());
    EXPECT_EQ(0.0, snapshot.GetCameraRotation());
    EXPECT_EQ(L"", snapshot.GetCamera());
    EXPECT_EQ(L"#F#O#R0.000000#L#Mi#M#C", snapshot.GetConfigurationString());
}

TEST(Snapshot, IsEmptyAndInvalidAtFirst)
{
    CSnapshot snapshot;
    ExpectEmpty(snapshot);
    // Both constructors; the memory held something else before.
    alignas(CSnapshot) unsigned char memory[sizeof(CSnapshot)];
    std::fill(std::begin(memory), std::end(memory), static_cast<unsigned char>(0xA5));
    auto* const other = new (memory) CSnapshot(Everything());
    ExpectEmpty(*other);
    other->~CSnapshot();
}

TEST(Snapshot, WatchesWhatItIsConstructedWith)
{
    CSnapshot snapshot({eWatchedMicroscope, eWatchedManualZoom});
    Microscope().Fill(snapshot); // sets the watched parts, too
    snapshot.SetWatchedDeviceTypes({eWatchedMicroscope});
    EXPECT_EQ(L"#MiTi", snapshot.GetConfigurationString());
    CSnapshot none((std::set<EQsWatchedDeviceType>()));
    EXPECT_EQ(L"", none.GetConfigurationString());
    CSnapshot rotation({eWatchedCameraRotation});
    EXPECT_EQ(L"#R0.000000", rotation.GetConfigurationString());
}

TEST(Snapshot, EveryOperationThatStoresSomethingMakesItValid)
{
    const std::vector<std::function<void(CSnapshot&)>> operations = {
        [](CSnapshot& s) { s.AddCamera(L""); },
        [](CSnapshot& s) { s.AddObjective(L""); },
        [](CSnapshot& s) { s.AddMicroscope(L""); },
        [](CSnapshot& s) { s.AddLight(L""); },
        [](CSnapshot& s) { s.AddFilterChanger(L"", L"", 0); },
        [](CSnapshot& s) { s.AddMultilaser(L"", 0); },
        [](CSnapshot& s) { s.AddManualZoom(0.0); },
        [](CSnapshot& s) { s.AddConnectionPort(0); },
        [](CSnapshot& s) { s.SetORBAConnected(false); },
        [](CSnapshot& s) { s.SetCameraRotation(0.0); },
        [](CSnapshot& s) { s.SetValid(true); },
    };
    for (std::size_t i = 0; i < operations.size(); ++i)
    {
        CSnapshot snapshot;
        operations[i](snapshot);
        EXPECT_TRUE(snapshot.IsValid()) << i;
        operations[i](snapshot); // also when nothing is new
        EXPECT_TRUE(snapshot.IsValid()) << i;
        snapshot.SetValid(false);
        EXPECT_FALSE(snapshot.IsValid()) << i;
        snapshot.SetWatchedDeviceTypes(Everything());
        EXPECT_FALSE(snapshot.IsValid()) << i;
    }
}

TEST(Snapshot, SingleValuesAreReplacedAndListsGrow)
{
    CSnapshot snapshot;
    Microscope().Fill(snapshot);
    snapshot.AddCamera(L"C2");
    snapshot.AddObjective(L"O2");
    snapshot.AddMicroscope(L"M2");
    snapshot.AddManualZoom(2.5);
    snapshot.AddConnectionPort(7);
    snapshot.AddConnectionPort(-9);
    snapshot.SetORBAConnected(true);
    snapshot.SetCameraRotation(12.0);
    snapshot.AddLight(L"L2");
    snapshot.AddLight(L"L1");
    snapshot.AddFilterChanger(L"FW1", L"GFP", 3);
    snapshot.AddMultilaser(L"U", 1);
    snapshot.AddMultilaser(L"U", 2);
    EXPECT_EQ(L"#F$KFW1$NGFP$P2$KFW1$NGFP$P3#OO2#R12.000000#L-9#LKL1KL2#MiM2#MKUM1KUM2#Z2.500000#CC2",
              snapshot.GetConfigurationString());
    EXPECT_EQ(-9, snapshot.GetORBAPort());
    EXPECT_TRUE(snapshot.IsORBAConnected());
    EXPECT_EQ(2.5, snapshot.GetManualZoom());
    EXPECT_EQ(12.0, snapshot.GetCameraRotation());
    EXPECT_EQ(L"C2", snapshot.GetCamera());
    EXPECT_EQ(L"C2", std::as_const(snapshot).GetCamera());
}

TEST(Snapshot, ClearEmptiesEverythingAndKeepsWhatIsWatched)
{
    SHardware hardware = Microscope();
    hardware.lights = {L"L"};
    hardware.multilasers = {{L"U", 1}};
    hardware.bConnected = true;
    hardware.port = 3;
    CSnapshot snapshot;
    hardware.Fill(snapshot);
    snapshot.Clear();
    ExpectEmpty(snapshot);

    hardware.watched = {eWatchedObjective};
    hardware.Fill(snapshot);
    snapshot.Clear();
    EXPECT_EQ(L"#O#C", snapshot.GetConfigurationString());
}

// A camera that has told its rotation once does not pass for one of an unknown rotation.
TEST(Snapshot, ClearKeepsThatARotationWasGiven)
{
    CSnapshot cleared;
    cleared.SetCameraRotation(45.0);
    cleared.Clear();
    EXPECT_EQ(0.0, cleared.GetCameraRotation());
    cleared.SetValid(true);
    CSnapshot other;
    other.SetCameraRotation(45.0);
    EXPECT_EQ(eCalibrationStateInvalid, cleared.CompareSuggestState(other));
    EXPECT_EQ(eCalibrationStateInvalid, other.CompareSuggestState(cleared));
    CSnapshot never;
    never.SetValid(true);
    EXPECT_EQ(eCalibrationStateRotationUnknown, never.CompareSuggestState(other));
}

TEST(Snapshot, ACopyHasEveryPart)
{
    SHardware hardware = Microscope();
    hardware.lights = {L"L"};
    hardware.multilasers = {{L"U", 1}};
    hardware.bConnected = true;
    hardware.port = 3;
    hardware.watched = Without(eWatchedReserved);
    CSnapshot source;
    hardware.Fill(source);
    CSnapshot copy(source);
    CSnapshot assigned({eWatchedReserved});
    assigned.AddLight(L"gone");
    CSnapshot& result = assigned = source;
    EXPECT_EQ(&assigned, &result);
    for (CSnapshot* const snapshot : {&copy, &assigned})
    {
        EXPECT_EQ(source.GetConfigurationString(), snapshot->GetConfigurationString());
        EXPECT_TRUE(snapshot->IsValid());
        EXPECT_EQ(eCalibrationStateIdentical, snapshot->CompareSuggestState(source));
        EXPECT_EQ(3, snapshot->GetORBAPort());
        // That the rotation was given is copied, too.
        CSnapshot turned;
        SHardware turnedHardware = hardware;
        turnedHardware.rotation = 91.0;
        turnedHardware.Fill(turned);
        EXPECT_EQ(eCalibrationStateInvalid, snapshot->CompareSuggestState(turned));
        // It is of its own.
        snapshot->AddLight(L"another");
        EXPECT_EQ(eCalibrationStateChanged, snapshot->CompareSuggestState(source));
    }
    source.SetValid(false);
    assigned = source;
    EXPECT_FALSE(assigned.IsValid());
}

TEST(Snapshot, AssignedToItselfStaysAsItIs)
{
    CSnapshot snapshot;
    Microscope().Fill(snapshot);
    CSnapshot& same = snapshot;
    snapshot = same;
    EXPECT_EQ(L"#F$KFW1$NGFP$P2#OPlan 20x#R90.000000#L#MiTi#M#Z1.500000#CCam", snapshot.GetConfigurationString());
}

TEST(Snapshot, RotationAgreesWithEveryReferenceValue)
{
    for (const Json* const vector : VectorsOf("SetCameraRotation"))
    {
        CSnapshot snapshot;
        snapshot.SetCameraRotation(ToDouble(Member(*vector, "input")));
        const double expected = ToDouble(Member(*vector, "output"));
        EXPECT_NEAR(expected, snapshot.GetCameraRotation(), 1e-9 * std::abs(expected))
            << Member(*vector, "id").GetString();
    }
}

TEST(Snapshot, RotationIsKeptWithinOneTurn)
{
    CSnapshot snapshot;
    const auto kept = [&snapshot](double degrees)
    {
        snapshot.SetCameraRotation(degrees);
        return snapshot.GetCameraRotation();
    };
    EXPECT_EQ(270.0, kept(-90.0));
    EXPECT_EQ(0.0, kept(720.0));
    EXPECT_EQ(0.0, kept(-360.0));
    EXPECT_EQ(90.0, kept(450.0));
    EXPECT_EQ(359.5, kept(359.5));
    EXPECT_EQ(359.5, kept(-0.5));
    // Not 0: a hair below a whole turn.
    EXPECT_GT(360.0, kept(-1e-13));
    EXPECT_LT(359.9999999999998, kept(-1e-13));
    EXPECT_EQ(0.0, kept(-1e-20)); // 360 - 1e-20 is 360
    EXPECT_TRUE(std::isnan(kept(std::numeric_limits<double>::infinity())));
    EXPECT_TRUE(std::isnan(kept(std::numeric_limits<double>::quiet_NaN())));
}

TEST(Snapshot, RotationIsCongruentToWhatWasGiven)
{
    std::mt19937_64 random(20);
    std::uniform_real_distribution<double> exponent(-20.0, 12.0);
    CSnapshot snapshot;
    for (int i = 0; i < 600000; ++i)
    {
        const double degrees = std::pow(10.0, exponent(random)) * ((random() & 1) != 0 ? 1.0 : -1.0);
        snapshot.SetCameraRotation(degrees);
        const double kept = snapshot.GetCameraRotation();
        ASSERT_LE(0.0, kept) << degrees;
        ASSERT_GT(360.0, kept) << degrees;
        // The remainder is exact; the turn that is added to it rounds once, by at most 2^-45.
        const long double turned = static_cast<long double>(kept) - std::remainder(degrees, 360.0);
        ASSERT_LE(std::abs(std::remainder(turned, 360.0L)), 6e-14L) << degrees;
    }
}

} // namespace

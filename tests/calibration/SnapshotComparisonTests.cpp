// Whether two snapshots are equal, and what state that makes.
#include "tests/calibration/Snapshots.h"

#include <gmock/gmock.h>

#include <functional>
#include <limits>
#include <memory>

using namespace QsTest;
using CSnapshot = CQsStimulationDeviceConfiguration;

namespace {

constexpr double s_nan = std::numeric_limits<double>::quiet_NaN();

struct SPair
{
    SHardware left = Microscope();
    SHardware right = Microscope();

    bool AreEqual() const
    {
        CSnapshot a, b;
        left.Fill(a);
        right.Fill(b);
        return a.Equals(b);
    }
    EQsCalibrationState State() const
    {
        CSnapshot a, b;
        left.Fill(a);
        right.Fill(b);
        return a.CompareSuggestState(b);
    }
};

TEST(SnapshotComparison, AgreesWithEveryReferenceValue)
{
    for (const Json* const vector : VectorsOf("CompareSuggestState"))
    {
        const Json& input = Member(*vector, "input");
        SPair pair;
        pair.left = HardwareOf(Member(input, "this"));
        pair.right = HardwareOf(Member(input, "other"));
        const Json& output = Member(*vector, "output");
        EXPECT_EQ(Member(output, "equals").GetBool(), pair.AreEqual()) << Member(*vector, "id").GetString();
        EXPECT_EQ(Member(output, "state").GetInt(), pair.State()) << Member(*vector, "id").GetString();
    }
}

TEST(SnapshotComparison, EqualHardwareIsIdentical)
{
    const SPair pair;
    EXPECT_TRUE(pair.AreEqual());
    EXPECT_EQ(eCalibrationStateIdentical, pair.State());
}

TEST(SnapshotComparison, ASnapshotThatIsNotValidEqualsNothing)
{
    for (const unsigned valid : {0u, 1u, 2u})
    {
        SPair pair;
        pair.left.bValid = (valid & 1u) != 0;
        pair.right.bValid = (valid & 2u) != 0;
        EXPECT_FALSE(pair.AreEqual()) << valid;
        EXPECT_EQ(eCalibrationStateInvalid, pair.State()) << valid;
    }
    CSnapshot snapshot;
    EXPECT_FALSE(snapshot.Equals(snapshot)); // not even itself
}

TEST(SnapshotComparison, EveryPartCountsOnlyWhenItIsWatched)
{
    struct SPart
    {
        EQsWatchedDeviceType type;
        std::function<void(SHardware&)> change;
        EQsCalibrationState state;
    };
    const std::vector<SPart> parts = {
        {eWatchedObjective, [](SHardware& h) { h.objective = L"plan 20x"; }, eCalibrationStateChanged},
        {eWatchedMicroscope, [](SHardware& h) { h.microscope = L"Ti "; }, eCalibrationStateChanged},
        {eWatchedFilterChangers, [](SHardware& h) { h.filterChangers[0].key = L"fw1"; }, eCalibrationStateChanged},
        {eWatchedFilterChangers, [](SHardware& h) { h.filterChangers[0].name = L"RFP"; }, eCalibrationStateChanged},
        {eWatchedFilterChangers, [](SHardware& h) { h.filterChangers[0].position = 3; }, eCalibrationStateChanged},
        {eWatchedFilterChangers, [](SHardware& h) { h.filterChangers.clear(); }, eCalibrationStateChanged},
        {eWatchedFilterChangers,
         [](SHardware& h) {
             h.filterChangers.push_back({L"Z", L"Z", 1});
         },
         eCalibrationStateChanged},
        {eWatchedLights, [](SHardware& h) { h.lights = {L"Lamp"}; }, eCalibrationStateChanged},
        {eWatchedLights,
         [](SHardware& h) {
             h.multilasers = {{L"U", 1}};
         },
         eCalibrationStateChanged},
        {eWatchedManualZoom, [](SHardware& h) { h.zoom = 1.5000000000000002; }, eCalibrationStateChanged},
        {eWatchedManualZoom, [](SHardware& h) { h.zoom = s_nan; }, eCalibrationStateChanged},
        {eWatchedCamera, [](SHardware& h) { h.camera = L"cam"; }, eCalibrationStateInvalid},
        {eWatchedCameraRotation, [](SHardware& h) { h.rotation = 90.0000000000001; }, eCalibrationStateInvalid},
        {eWatchedCameraRotation, [](SHardware& h) { h.rotation = s_nan; }, eCalibrationStateInvalid},
    };
    for (std::size_t i = 0; i < parts.size(); ++i)
    {
        const SPart& part = parts[i];
        SPair pair;
        part.change(pair.right);
        EXPECT_FALSE(pair.AreEqual()) << i;
        EXPECT_EQ(part.state, pair.State()) << i;
        std::swap(pair.left, pair.right);
        EXPECT_FALSE(pair.AreEqual()) << i;
        EXPECT_EQ(part.state, pair.State()) << i;

        pair.left.watched = {part.type};
        pair.right.watched.clear();
        EXPECT_FALSE(pair.AreEqual()) << i << ": what the other one watches does not count";
        EXPECT_EQ(part.state, pair.State()) << i;

        pair.left.watched = Without(part.type);
        pair.right.watched = Everything();
        EXPECT_TRUE(pair.AreEqual()) << i << ": what the other one watches does not count";
        EXPECT_EQ(eCalibrationStateIdentical, pair.State()) << i;
    }
}

TEST(SnapshotComparison, TheListsDifferAlsoWhenOnlyOneEntryOfSeveralDoes)
{
    SPair pair;
    pair.left.lights = {L"A", L"B"};
    pair.right.lights = {L"A", L"C"};
    pair.left.watched = {eWatchedLights};
    EXPECT_EQ(eCalibrationStateChanged, pair.State());
    pair.right.lights = {L"B", L"A"}; // the order of adding does not count
    EXPECT_EQ(eCalibrationStateIdentical, pair.State());
    pair.left.multilasers = {{L"U", 1}, {L"V", 2}};
    pair.right.multilasers = {{L"U", 1}, {L"V", 3}};
    EXPECT_EQ(eCalibrationStateChanged, pair.State());
    pair.right.multilasers = {{L"U", 1}, {L"W", 2}};
    EXPECT_EQ(eCalibrationStateChanged, pair.State());
    pair.right.multilasers = {{L"V", 2}, {L"U", 1}};
    EXPECT_EQ(eCalibrationStateIdentical, pair.State());
}

TEST(SnapshotComparison, MinusZeroIsZero)
{
    SPair pair;
    pair.left.zoom = 0.0;
    pair.right.zoom = -0.0;
    EXPECT_TRUE(pair.AreEqual());
}

// The illuminator counts by its ports alone, as soon as one of the two is connected.
TEST(SnapshotComparison, OneConnectedIlluminatorEqualsTheOtherOnTheSamePort)
{
    for (const bool bLeft : {false, true})
    {
        SPair pair;
        pair.left.bConnected = bLeft;
        pair.right.bConnected = !bLeft;
        pair.left.port = pair.right.port = 3;
        EXPECT_TRUE(pair.AreEqual());
        EXPECT_EQ(eCalibrationStateIdentical, pair.State());
        pair.right.port = 0;
        EXPECT_FALSE(pair.AreEqual());
        EXPECT_EQ(eCalibrationStateChanged, pair.State());
    }
}

TEST(SnapshotComparison, PortsOfIlluminatorsThatAreNotConnectedDoNotCount)
{
    SPair pair;
    pair.left.port = 3;
    pair.right.port = 4;
    EXPECT_TRUE(pair.AreEqual());
    pair.left.bConnected = pair.right.bConnected = true;
    EXPECT_FALSE(pair.AreEqual());
    EXPECT_EQ(eCalibrationStateChanged, pair.State());
}

// What else differs makes the state, as long as the other illuminator is not in the same condition.
TEST(SnapshotComparison, TheConditionOfTheIlluminatorComesBeforeTheRotation)
{
    SPair pair;
    pair.left.port = pair.right.port = 3;
    pair.left.bConnected = true; // equal ports: equal so far
    pair.right.rotation = 45.0;
    EXPECT_FALSE(pair.AreEqual());
    EXPECT_EQ(eCalibrationStateChanged, pair.State());
    pair.right.bConnected = true;
    EXPECT_EQ(eCalibrationStateInvalid, pair.State());
    pair.right.bConnected = pair.left.bConnected = false;
    pair.right.port = 9; // of none that is connected
    EXPECT_EQ(eCalibrationStateInvalid, pair.State());
}

TEST(SnapshotComparison, ARotationThatWasNeverGivenIsUnknown)
{
    SPair pair;
    pair.left.bRotationSet = false;
    EXPECT_FALSE(pair.AreEqual());
    EXPECT_EQ(eCalibrationStateRotationUnknown, pair.State());
    std::swap(pair.left, pair.right);
    EXPECT_EQ(eCalibrationStateRotationUnknown, pair.State());
    // Both read 0: equal, given or not.
    pair.left.rotation = 0.0;
    EXPECT_TRUE(pair.AreEqual());
    EXPECT_EQ(eCalibrationStateIdentical, pair.State());
    // Another part comes first.
    pair.left.rotation = 90.0;
    pair.left.objective = L"x";
    EXPECT_EQ(eCalibrationStateChanged, pair.State());
    pair.left.camera = L"x";
    EXPECT_EQ(eCalibrationStateInvalid, pair.State());
}

// Every combination of validity, watched parts, parts that differ, illuminators and rotations, against the rules
// written down in another shape: as masks of the parts and a rank of what differs.
TEST(SnapshotComparison, FollowsItsRulesInEveryCombination)
{
    struct SRotations
    {
        bool bLeftSet, bRightSet;
        double left, right;
    };
    const SRotations rotations[] = {
        {false, false, 0, 0}, {true, false, 0, 0},  {false, true, 0, 0},  {true, false, 45, 0},
        {false, true, 0, 45}, {true, true, 45, 45}, {true, true, 45, 90}, {true, true, s_nan, s_nan},
    };
    constexpr unsigned s_camera = 1u << eWatchedCamera;
    constexpr unsigned s_rotation = 1u << eWatchedCameraRotation;
    // Bits of "parts": the watched types, with bit 7 standing for the multilasers.
    constexpr unsigned s_multilasers = 0x80;

    std::vector<std::set<EQsWatchedDeviceType>> watchedSets(256);
    for (unsigned mask = 0; mask < 256; ++mask)
        for (const EQsWatchedDeviceType type : Everything())
            if ((mask >> type & 1u) != 0)
                watchedSets[mask].insert(type);

    SHardware base = Microscope();
    base.lights = {L"L"};
    base.multilasers = {{L"U", 1}};
    std::size_t seen[5] = {};
    for (const SRotations& rotation : rotations)
    {
        struct SOther
        {
            CSnapshot snapshot;
            unsigned differing = 0; // parts
            bool bConnected = false;
            bool bOtherPort = false;
            bool bValid = false;
        };
        std::vector<std::unique_ptr<SOther>> others;
        const bool bRotationsDiffer = !(rotation.left == rotation.right);
        for (unsigned parts = 0; parts < 256; ++parts)
        {
            if ((parts & s_rotation) != 0)
                continue;
            for (unsigned bits = 0; bits < 5; ++bits)
            {
                SHardware hardware = base;
                hardware.objective += (parts >> eWatchedObjective & 1u) != 0 ? L"!" : L"";
                hardware.microscope += (parts >> eWatchedMicroscope & 1u) != 0 ? L"!" : L"";
                hardware.camera += (parts & s_camera) != 0 ? L"!" : L"";
                hardware.filterChangers[0].position += (parts >> eWatchedFilterChangers & 1u) != 0 ? 1 : 0;
                hardware.lights[0] += (parts >> eWatchedLights & 1u) != 0 ? L"!" : L"";
                hardware.zoom += (parts >> eWatchedManualZoom & 1u) != 0 ? 1.0 : 0.0;
                hardware.multilasers[0].second += (parts & s_multilasers) != 0 ? 1u : 0u;
                hardware.rotation = rotation.right;
                hardware.bRotationSet = rotation.bRightSet;
                hardware.bValid = bits != 4;
                hardware.bConnected = (bits & 1u) != 0;
                hardware.port = 5 + static_cast<int>(bits >> 1 & 1u);
                auto other = std::make_unique<SOther>();
                hardware.Fill(other->snapshot);
                other->differing = parts | (bRotationsDiffer ? s_rotation : 0);
                other->bConnected = hardware.bConnected;
                other->bOtherPort = hardware.port != 5;
                other->bValid = hardware.bValid;
                others.push_back(std::move(other));
            }
        }
        for (const unsigned left : {0u, 1u, 2u})
        {
            SHardware hardware = base;
            hardware.bConnected = left == 1;
            hardware.port = 5;
            hardware.rotation = rotation.left;
            hardware.bRotationSet = rotation.bLeftSet;
            hardware.bValid = left != 2;
            CSnapshot snapshot;
            hardware.Fill(snapshot);
            for (unsigned watched = 0; watched < 256; ++watched)
            {
                if (left == 2 && watched % 16 != 15)
                    continue; // not valid is not valid whatever is watched
                snapshot.SetWatchedDeviceTypes(watchedSets[watched]);
                // Lights and multilasers share a flag; the reserved one counts for nothing.
                const unsigned counting =
                    (watched & 0x7Fu) | ((watched >> eWatchedLights & 1u) != 0 ? s_multilasers : 0);
                for (const std::unique_ptr<SOther>& other : others)
                {
                    const unsigned differing = other->differing & counting;
                    const bool bLeftConnected = left == 1;
                    const bool bEitherConnected = bLeftConnected || other->bConnected;
                    const bool bUsable = left != 2 && other->bValid;
                    const bool bEqual = bUsable && differing == 0 && !(bEitherConnected && other->bOtherPort);
                    const bool bStrictlyOther = bLeftConnected != other->bConnected ||
                                                (bLeftConnected && other->bConnected && other->bOtherPort);
                    EQsCalibrationState expected = eCalibrationStateIdentical;
                    if (!bEqual)
                    {
                        // From the weakest reason to the strongest.
                        expected = rotation.bLeftSet && rotation.bRightSet ? eCalibrationStateInvalid
                                                                           : eCalibrationStateRotationUnknown;
                        if (bStrictlyOther || (differing & ~(s_camera | s_rotation)) != 0)
                            expected = eCalibrationStateChanged;
                        if (!bUsable || (differing & s_camera) != 0)
                            expected = eCalibrationStateInvalid;
                    }
                    ++seen[expected];
                    ASSERT_EQ(bEqual, snapshot.Equals(other->snapshot))
                        << "watched " << watched << " parts " << other->differing << " left " << left;
                    ASSERT_EQ(expected, snapshot.CompareSuggestState(other->snapshot))
                        << "watched " << watched << " parts " << other->differing << " left " << left;
                }
            }
        }
    }
    for (const EQsCalibrationState state : {eCalibrationStateInvalid, eCalibrationStateChanged,
                                            eCalibrationStateRotationUnknown, eCalibrationStateIdentical})
        EXPECT_LT(1000u, seen[state]);
}

} // namespace

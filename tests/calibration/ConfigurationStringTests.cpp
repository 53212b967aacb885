// The text that calibrations are saved under.
#include "tests/calibration/Snapshots.h"
#include "tests/calibration/Translations.h"
#include "tests/support/DecimalComma.h"

#include <gmock/gmock.h>

#include <cfloat>
#include <cmath>
#include <limits>

using namespace QsTest;

namespace {

std::wstring TextOf(const SHardware& hardware)
{
    CQsStimulationDeviceConfiguration snapshot;
    hardware.Fill(snapshot);
    return snapshot.GetConfigurationString().Std();
}

TEST(ConfigurationString, AgreesWithEveryReferenceValue)
{
    for (const Json* const vector : VectorsOf("GetConfigurationString"))
    {
        SHardware hardware = HardwareOf(Member(*vector, "input"));
        std::wstring expected = ToWide(Member(*vector, "output"));
        // The number of a multilaser is written as a signed one; the reference prints what does not fit unsigned.
        for (auto& multilaser : hardware.multilasers)
        {
            if (multilaser.second <= 0x7FFFFFFFu)
                continue;
            const std::wstring own = L"K" + multilaser.first + L"M" + std::to_wstring(multilaser.second);
            ASSERT_NE(std::wstring::npos, expected.find(own));
            expected.replace(expected.find(own), own.size(), L"K" + multilaser.first + L"M1");
            multilaser.second = 1;
        }
        EXPECT_EQ(expected, TextOf(hardware)) << Member(*vector, "id").GetString();
    }
}

TEST(ConfigurationString, OfAnEmptySnapshotHasAllPartsButTheZoom)
{
    CQsStimulationDeviceConfiguration snapshot;
    EXPECT_EQ(L"#F#O#R0.000000#L#Mi#M#C", snapshot.GetConfigurationString());
}

TEST(ConfigurationString, NamesEveryPartInItsPlace)
{
    EXPECT_EQ(L"#F$KFW1$NGFP$P2#OPlan 20x#R90.000000#L#MiTi#M#Z1.500000#CCam", TextOf(Microscope()));
}

TEST(ConfigurationString, OfEverythingAtOnce)
{
    SHardware hardware = Microscope();
    hardware.filterChangers = {{L"W2", L"B", 1}, {L"W1", L"A", 7}};
    hardware.lights = {L"LED", L"Arc"};
    hardware.multilasers = {{L"U", 2}, {L"T", 3}};
    hardware.bConnected = true;
    hardware.port = 3;
    EXPECT_EQ(L"#F$KW1$NA$P7$KW2$NB$P1#OPlan 20x#R90.000000#L3#LKArcKLED#MiTi#MKTM3KUM2#Z1.500000#CCam",
              TextOf(hardware));
}

// Every subset of the watched parts, put together from the parts' own texts.
TEST(ConfigurationString, HoldsExactlyTheWatchedParts)
{
    SHardware hardware = Microscope();
    hardware.lights = {L"Arc"};
    hardware.multilasers = {{L"T", 3}};
    hardware.bConnected = true;
    hardware.port = -4;
    for (unsigned mask = 0; mask < 256; ++mask)
    {
        const auto is = [mask](EQsWatchedDeviceType type) { return (mask >> type & 1u) != 0; };
        hardware.watched.clear();
        for (const EQsWatchedDeviceType type : Everything())
            if (is(type))
                hardware.watched.insert(type);
        std::wstring expected;
        expected += is(eWatchedFilterChangers) ? L"#F$KFW1$NGFP$P2" : L"";
        expected += is(eWatchedObjective) ? L"#OPlan 20x" : L"";
        expected += is(eWatchedCameraRotation) ? L"#R90.000000" : L"";
        expected += L"#L-4"; // whatever is watched
        expected += is(eWatchedLights) ? L"#LKArc" : L"";
        expected += is(eWatchedMicroscope) ? L"#MiTi" : L"";
        expected += is(eWatchedLights) ? L"#MKTM3" : L"";
        expected += is(eWatchedManualZoom) ? L"#Z1.500000" : L"";
        expected += is(eWatchedObjective) ? L"#CCam" : L"";
        EXPECT_EQ(expected, TextOf(hardware)) << mask;
    }
}

TEST(ConfigurationString, TheCameraFollowsTheObjectiveAndNotItsOwnFlag)
{
    SHardware hardware = Microscope();
    hardware.watched = {eWatchedCamera};
    EXPECT_EQ(L"", TextOf(hardware));
    hardware.watched = {eWatchedObjective};
    EXPECT_EQ(L"#OPlan 20x#CCam", TextOf(hardware));
}

TEST(ConfigurationString, TheLightsAndMultilasersLeaveTheirMarksWhenThereAreNone)
{
    SHardware hardware;
    hardware.watched = {eWatchedLights};
    EXPECT_EQ(L"#L#M", TextOf(hardware));
}

TEST(ConfigurationString, TheRotationIsWrittenEvenWhenNoneWasGiven)
{
    SHardware hardware;
    hardware.watched = {eWatchedCameraRotation};
    EXPECT_EQ(L"#R0.000000", TextOf(hardware));
}

TEST(ConfigurationString, AConnectedIlluminatorIsWrittenWhenNothingIsWatched)
{
    SHardware hardware;
    hardware.bConnected = true;
    hardware.port = 12;
    EXPECT_EQ(L"#L12", TextOf(hardware));
    hardware.bConnected = false;
    EXPECT_EQ(L"", TextOf(hardware));
}

TEST(ConfigurationString, OnlyAPositiveZoomIsWritten)
{
    SHardware hardware;
    hardware.watched = {eWatchedManualZoom};
    const auto of = [&hardware](double zoom)
    {
        hardware.zoom = zoom;
        return TextOf(hardware);
    };
    EXPECT_EQ(L"", of(0.0));
    EXPECT_EQ(L"", of(-0.0));
    EXPECT_EQ(L"", of(-1.5));
    EXPECT_EQ(L"", of(std::numeric_limits<double>::quiet_NaN()));
    EXPECT_EQ(L"#Z0.000000", of(DBL_MIN));
    EXPECT_EQ(L"#Z0.333333", of(1.0 / 3.0));
    // All digits in front of the point: 10^15, exactly.
    EXPECT_EQ(L"#Z1000000000000000.000000", of(1e15));
}

// Just below 0 the rotation is kept just below 360 and written rounded up.
TEST(ConfigurationString, ARotationJustBelowZeroReadsThreeHundredAndSixty)
{
    SHardware hardware;
    hardware.watched = {eWatchedCameraRotation};
    hardware.bRotationSet = true;
    hardware.rotation = -1e-13;
    EXPECT_EQ(L"#R360.000000", TextOf(hardware));
}

TEST(ConfigurationString, NumbersIgnoreTheLocale)
{
    const CDecimalComma comma;
    ASSERT_TRUE(comma.IsSet());
    EXPECT_EQ(L"#F$KFW1$NGFP$P2#OPlan 20x#R90.000000#L#MiTi#M#Z1.500000#CCam", TextOf(Microscope()));
}

TEST(ConfigurationString, NamesAreWrittenWhole)
{
    SHardware hardware;
    hardware.watched = Everything();
    hardware.objective = L"Pl\u00E4n 20\u00D7 \u65E5\u672C \U0001F52C"; // beyond the code page and the basic plane
    hardware.microscope = L"%s%n \"quoted\"\nline";
    hardware.camera = L"a#b$c\\d";
    hardware.lights = {std::wstring(1000, L'L')};
    EXPECT_EQ(L"#F#O" + hardware.objective + L"#R0.000000#LK" + hardware.lights[0] + L"#Mi" + hardware.microscope +
                  L"#M#C" + hardware.camera,
              TextOf(hardware));
}

TEST(ConfigurationString, EntriesStandInTheOrderOfTheirCodeUnits)
{
    SHardware hardware;
    hardware.watched = {eWatchedLights};
    // U+1F52C is D83D DD2C in UTF-16 and therefore before U+FF21.
    hardware.lights = {L"\uFF21", L"ba", L"b", L"\U0001F52C", L"B", L"", L"\u00E4"};
    EXPECT_EQ(L"#LKKBKbKbaK\u00E4K\U0001F52CK\uFF21#M", TextOf(hardware));
}

TEST(ConfigurationString, FilterChangersAreOrderedByKeyThenNameThenPosition)
{
    SHardware hardware;
    hardware.watched = {eWatchedFilterChangers};
    hardware.filterChangers = {{L"b", L"a", 5}, {L"a", L"b", 10}, {L"a", L"b", 9}, {L"a", L"c", -1}, {L"A", L"z", 3}};
    EXPECT_EQ(L"#F$KA$Nz$P3$Ka$Nb$P9$Ka$Nb$P10$Ka$Nc$P-1$Kb$Na$P5", TextOf(hardware));
}

TEST(ConfigurationString, MultilasersAreOrderedByNameThenNumber)
{
    SHardware hardware;
    hardware.watched = {eWatchedLights};
    hardware.multilasers = {{L"b", 1}, {L"a", 10}, {L"a", 9}, {L"A", 11}};
    EXPECT_EQ(L"#L#MKAM11KaM9KaM10KbM1", TextOf(hardware));
}

TEST(ConfigurationString, EqualEntriesStandOnce)
{
    SHardware hardware;
    hardware.watched = {eWatchedFilterChangers, eWatchedLights};
    hardware.lights = {L"A", L"A"};
    hardware.multilasers = {{L"U", 1}, {L"U", 1}};
    hardware.filterChangers = {{L"W", L"G", 1}, {L"W", L"G", 1}};
    EXPECT_EQ(L"#F$KW$NG$P1#LKA#MKUM1", TextOf(hardware));
}

TEST(ConfigurationString, ANameThatSaysNoneIsWrittenEmpty)
{
    SHardware hardware;
    hardware.watched = Everything();
    hardware.filterChangers = {{L"<none>", L"G", 1}, {L"W", L"<none>", 2}};
    hardware.lights = {L"<none>"};
    hardware.multilasers = {{L"<none>", 2}};
    hardware.objective = hardware.microscope = hardware.camera = L"<none>";
    // They are ordered as they are, "<" before "W".
    EXPECT_EQ(L"#F$K$NG$P1$KW$N$P2#O#R0.000000#LK#Mi#MKM2#C", TextOf(hardware));
}

TEST(ConfigurationString, OnlyTheTranslatedNoneCountsWhereThereIsOne)
{
    const CTranslations german(R"({"<none>": "<keine>"})");
    SHardware hardware;
    hardware.watched = {eWatchedObjective};
    hardware.objective = L"<keine>";
    hardware.camera = L"<none>";
    EXPECT_EQ(L"#O#C<none>", TextOf(hardware));
    hardware.camera = L"<keine> "; // the whole name
    EXPECT_EQ(L"#O#C<keine> ", TextOf(hardware));
}

TEST(ConfigurationString, DoesNotDependOnValidity)
{
    SHardware hardware = Microscope();
    hardware.bValid = false;
    EXPECT_EQ(TextOf(Microscope()), TextOf(hardware));
}

} // namespace

// Saved keys, parsed for display.
#include "tests/calibration/CalibrationTest.h"
#include "tests/calibration/Translations.h"
#include "tests/support/DecimalComma.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <random>

using namespace QsTest;

namespace {

class ParseConfig : public ::testing::Test
{
protected:
    SQsConfigItem Parsed(const std::wstring& key)
    {
        SQsConfigItem item;
        EXPECT_EQ(0, m_calibration.ParseConfig(CQsStringW(key), item));
        return item;
    }

    Calibration m_calibration{nullptr};
};

using Changers = std::vector<std::vector<std::wstring>>;

Changers ChangersOf(const SQsConfigItem& item)
{
    Changers changers;
    for (const SQsConfigItem::SFilterChanger& changer : item.vecFilterChangers)
        changers.push_back({changer.sKey.Std(), changer.sName.Std(), changer.sPosition.Std()});
    return changers;
}

Changers SetChangers(const std::wstring& text)
{
    SQsConfigItem item;
    EXPECT_EQ(0, item.SetFilterChangers(CQsStringW(text)));
    return ChangersOf(item);
}

// Every field holds something that no key of these tests yields.
SQsConfigItem Poisoned()
{
    SQsConfigItem item;
    item.vecFilterChangers.push_back({L"k", L"n", L"p"});
    item.sObjective = L"o";
    item.sZoom = L"z";
    item.sCamera = L"c";
    item.sRotation = L"r";
    item.iORBAPort = 77;
    item.bORBAPort = true;
    return item;
}

void ExpectPoisoned(const SQsConfigItem& item)
{
    EXPECT_EQ(Changers({{L"k", L"n", L"p"}}), ChangersOf(item));
    EXPECT_EQ(L"o", item.sObjective);
    EXPECT_EQ(L"z", item.sZoom);
    EXPECT_EQ(L"c", item.sCamera);
    EXPECT_EQ(L"r", item.sRotation);
    EXPECT_EQ(77, item.iORBAPort);
    EXPECT_TRUE(item.bORBAPort);
}

TEST_F(ParseConfig, AgreesWithEveryReferenceValue)
{
    for (const Json* const vector : VectorsOf("ParseConfig"))
    {
        const char* const id = Member(*vector, "id").GetString();
        const Json& output = Member(*vector, "output");
        SQsConfigItem item;
        EXPECT_EQ(Member(output, "status").GetInt(),
                  m_calibration.ParseConfig(CQsStringW(ToWide(Member(*vector, "input"))), item))
            << id;
        Changers changers;
        for (const Json& changer : Member(output, "filters").GetArray())
            changers.push_back({ToWide(changer[0]), ToWide(changer[1]), ToWide(changer[2])});
        EXPECT_EQ(changers, ChangersOf(item)) << id;
        EXPECT_EQ(ToWide(Member(output, "objective")), item.sObjective.Std()) << id;
        EXPECT_EQ(ToWide(Member(output, "zoom")), item.sZoom.Std()) << id;
        EXPECT_EQ(ToWide(Member(output, "camera")), item.sCamera.Std()) << id;
        EXPECT_EQ(ToWide(Member(output, "rotation")), item.sRotation.Std()) << id;
        EXPECT_EQ(Member(output, "port").GetInt(), item.iORBAPort) << id;
        EXPECT_EQ(Member(output, "portPresent").GetBool(), item.bORBAPort) << id;
    }
}

TEST_F(ParseConfig, ReadsEveryPartOfAKey)
{
    const SQsConfigItem item = Parsed(L"#F$KFW1$NGFP$P2#OPlan 20x#R90.000000#L#MiTi#M#Z1.500000#CCam");
    EXPECT_EQ(Changers({{L"FW1", L"GFP", L"2"}}), ChangersOf(item));
    EXPECT_EQ(L"Plan 20x", item.sObjective);
    EXPECT_EQ(L"90.00", item.sRotation);
    EXPECT_EQ(L"1.50x", item.sZoom);
    EXPECT_EQ(L"Cam", item.sCamera);
    EXPECT_EQ(0, item.iORBAPort);
    EXPECT_FALSE(item.bORBAPort);
}

TEST_F(ParseConfig, WithoutATokenLeavesTheItemAsItIs)
{
    for (const wchar_t* const key : {L"", L"#", L"###"})
    {
        SQsConfigItem item = Poisoned();
        EXPECT_EQ(0, m_calibration.ParseConfig(key, item));
        ExpectPoisoned(item);
    }
}

// One token is enough, also one that says nothing.
TEST_F(ParseConfig, WithATokenResetsTheItemButForThePort)
{
    for (const wchar_t* const key : {L"X", L"#X", L"##Xyz##", L"#C#O#R#Z#F#L"})
    {
        SQsConfigItem item = Poisoned();
        EXPECT_EQ(0, m_calibration.ParseConfig(key, item));
        EXPECT_TRUE(item.vecFilterChangers.empty());
        for (const CQsStringW* const text : {&item.sObjective, &item.sZoom, &item.sCamera, &item.sRotation})
            EXPECT_EQ(L"<none>", *text) << key;
        EXPECT_EQ(77, item.iORBAPort); // what a caller has put there
        EXPECT_TRUE(item.bORBAPort);
    }
}

TEST_F(ParseConfig, ResetLeavesThePort)
{
    SQsConfigItem item = Poisoned();
    item.Reset();
    EXPECT_TRUE(item.vecFilterChangers.empty());
    EXPECT_EQ(L"<none>", item.sObjective);
    EXPECT_EQ(77, item.iORBAPort);
    EXPECT_TRUE(item.bORBAPort);
}

TEST_F(ParseConfig, AnItemSaysNoneInTheUsersLanguage)
{
    const CTranslations german(R"({"<none>": "<keine>"})");
    const SQsConfigItem item;
    for (const CQsStringW* const text : {&item.sObjective, &item.sZoom, &item.sCamera, &item.sRotation})
        EXPECT_EQ(L"<keine>", *text);
    EXPECT_EQ(0, item.iORBAPort);
    EXPECT_FALSE(item.bORBAPort);
}

TEST_F(ParseConfig, SkipsEmptyAndOneCharacterTokens)
{
    const SQsConfigItem item = Parsed(L"##C##O#F#R#Z#L#M#Cx");
    EXPECT_EQ(L"x", item.sCamera);
    EXPECT_EQ(L"<none>", item.sObjective);
    EXPECT_EQ(L"<none>", item.sRotation);
    EXPECT_EQ(L"<none>", item.sZoom);
    EXPECT_FALSE(item.bORBAPort);
}

TEST_F(ParseConfig, TheLastTokenOfAKindCountsAndFilterChangersAddUp)
{
    const SQsConfigItem item = Parsed(L"#Ca#Cb#F$KA$NB$P1#F$KC$ND$P2#L3#L4");
    EXPECT_EQ(L"b", item.sCamera);
    EXPECT_EQ(Changers({{L"A", L"B", L"1"}, {L"C", L"D", L"2"}}), ChangersOf(item));
    EXPECT_EQ(4, item.iORBAPort);
}

TEST_F(ParseConfig, AKeyNeedsNoMarkAtItsBeginning)
{
    EXPECT_EQ(L"Cam", Parsed(L"CCam#OObj").sCamera);
    EXPECT_EQ(L"Obj", Parsed(L"CCam#OObj").sObjective);
}

TEST_F(ParseConfig, LettersAreCaseSensitiveAndOthersAreIgnored)
{
    const SQsConfigItem item = Parsed(L"#cx#ox#r1#z1#l1#f$KA$NB$P1#MiTi#MKUM1#Xx# Cx");
    EXPECT_EQ(L"<none>", item.sCamera);
    EXPECT_EQ(L"<none>", item.sObjective);
    EXPECT_EQ(L"<none>", item.sRotation);
    EXPECT_EQ(L"<none>", item.sZoom);
    EXPECT_FALSE(item.bORBAPort);
    EXPECT_TRUE(item.vecFilterChangers.empty());
}

// The list of lights begins with the same letter, and what follows is no number.
TEST_F(ParseConfig, AKeyThatListsLightsNamesPortZero)
{
    const SQsConfigItem item = Parsed(L"#F#O#R0.000000#L3#LKLamp#Mi#M#C");
    EXPECT_EQ(0, item.iORBAPort);
    EXPECT_TRUE(item.bORBAPort);
    const SQsConfigItem without = Parsed(L"#F#O#R0.000000#L3#L#Mi#M#C");
    EXPECT_EQ(3, without.iORBAPort);
    EXPECT_TRUE(without.bORBAPort);
}

TEST_F(ParseConfig, ReadsTheLeadingDigitsOfThePort)
{
    EXPECT_EQ(-5, Parsed(L"#L-5").iORBAPort);
    EXPECT_EQ(12, Parsed(L"#L12abc").iORBAPort);
    EXPECT_EQ(0, Parsed(L"#Labc").iORBAPort);
    EXPECT_TRUE(Parsed(L"#Labc").bORBAPort);
}

TEST_F(ParseConfig, NumbersAreReadAsFarAsTheyGoAndWrittenWithTwoDecimals)
{
    EXPECT_EQ(L"33.33", Parsed(L"#R33.333").sRotation);
    EXPECT_EQ(L"66.67", Parsed(L"#R66.6667").sRotation);
    EXPECT_EQ(L"-1.50", Parsed(L"#R-1.5deg").sRotation);
    EXPECT_EQ(L"0.00", Parsed(L"#Rdeg").sRotation);
    EXPECT_EQ(L"1.50x", Parsed(L"#Z1.5").sZoom);
    EXPECT_EQ(L"0.00x", Parsed(L"#Zzoom").sZoom);
    EXPECT_EQ(L"1000000.00x", Parsed(L"#Z1e6").sZoom);
}

TEST_F(ParseConfig, NumbersIgnoreTheLocale)
{
    const CDecimalComma comma;
    ASSERT_TRUE(comma.IsSet());
    const SQsConfigItem item = Parsed(L"#R90.25#Z1.75");
    EXPECT_EQ(L"90.25", item.sRotation);
    EXPECT_EQ(L"1.75x", item.sZoom);
    EXPECT_EQ(L"1.00x", Parsed(L"#Z1,75").sZoom);
}

TEST_F(ParseConfig, TheKeyMayBeATextOfTheItem)
{
    SQsConfigItem item;
    item.sCamera = L"#OObj#CCam";
    EXPECT_EQ(0, m_calibration.ParseConfig(item.sCamera, item));
    EXPECT_EQ(L"Obj", item.sObjective);
    EXPECT_EQ(L"Cam", item.sCamera);
}

// ---------------------------------------------------------------------------------------------------- filter changers

TEST_F(ParseConfig, ReadsFilterChangersInTheirOrder)
{
    EXPECT_EQ(Changers(), SetChangers(L""));
    EXPECT_EQ(Changers({{L"A", L"B", L"1"}}), SetChangers(L"$KA$NB$P1"));
    EXPECT_EQ(Changers({{L"B", L"", L"-1"}, {L"A", L"C D", L""}, {L"", L"", L"3"}}),
              SetChangers(L"$KB$N$P-1$KA$NC D$P$K$N$P3"));
}

TEST_F(ParseConfig, AddsToTheFilterChangersThatAreThere)
{
    SQsConfigItem item;
    item.SetFilterChangers(L"$KA$NB$P1");
    EXPECT_EQ(0, item.SetFilterChangers(L"$KC$ND$P2"));
    EXPECT_EQ(Changers({{L"A", L"B", L"1"}, {L"C", L"D", L"2"}}), ChangersOf(item));
    EXPECT_EQ(0, item.SetFilterChangers(L""));
    EXPECT_EQ(2u, item.vecFilterChangers.size());
}

// What is missing is cut where the searches end, and the walk ends with the text.
TEST_F(ParseConfig, CutsFilterChangersThatAreNotWhole)
{
    EXPECT_EQ(Changers({{L"abc", L"", L""}}), SetChangers(L"$Kabc"));
    EXPECT_EQ(Changers({{L"", L"", L""}}), SetChangers(L"abc"));
    EXPECT_EQ(Changers({{L"", L"", L""}}), SetChangers(L"$"));
    EXPECT_EQ(Changers({{L"", L"", L""}}), SetChangers(L"$K"));
    EXPECT_EQ(Changers({{L"A", L"B", L""}}), SetChangers(L"$KA$NB"));
    EXPECT_EQ(Changers({{L"A$P1", L"", L""}}), SetChangers(L"$KA$P1"));
    EXPECT_EQ(Changers({{L"A", L"", L""}}), SetChangers(L"$KA$N"));
    EXPECT_EQ(Changers({{L"A", L"B", L""}}), SetChangers(L"$KA$NB$P"));
    // The searches go on from mark to mark: the first key takes the second's name.
    EXPECT_EQ(Changers({{L"A$KB", L"C", L"1"}}), SetChangers(L"$KA$KB$NC$P1"));
    EXPECT_EQ(Changers({{L"A", L"B$KC$ND", L"1"}}), SetChangers(L"$KA$NB$KC$ND$P1"));
    EXPECT_EQ(Changers({{L"3", L"", L""}}), SetChangers(L"$N1$P2$K3"));
    EXPECT_EQ(Changers({{L"A", L"B", L"1"}, {L"", L"", L""}}), SetChangers(L"$KA$NB$P1$K"));
    EXPECT_EQ(Changers({{L"A", L"B", L"1$N2$P3"}}), SetChangers(L"$KA$NB$P1$N2$P3"));
}

// Any text ends, in no more entries than it has marks, but for the one that every text makes.
TEST_F(ParseConfig, EndsForEveryText)
{
    std::mt19937_64 random(7);
    static const wchar_t* const s_pieces[] = {L"$K", L"$N", L"$P", L"$", L"#", L"K", L"N", L"x", L"#F", L"1"};
    for (int i = 0; i < 100000; ++i)
    {
        std::wstring text;
        for (std::size_t n = random() % 12; n > 0; --n)
            text += s_pieces[random() % std::size(s_pieces)];
        const std::size_t entries = SetChangers(text).size();
        std::size_t marks = 0;
        for (std::size_t at = text.find(L"$K"); at != std::wstring::npos; at = text.find(L"$K", at + 2))
            ++marks;
        ASSERT_LE(entries, std::max<std::size_t>(marks, 1)) << CQsStringW(text);
        ASSERT_EQ(text.empty(), entries == 0) << CQsStringW(text);
        Parsed(text);
    }
}

// --------------------------------------------------------------------------------------------------------- round trip

std::wstring Printed(const char* format, double value)
{
    char text[400];
    std::snprintf(text, sizeof text, format, value);
    return CQsStringW::FromUtf8(text).Std();
}

// What a snapshot's text says is what the parser finds, for names without the marks # and $.
TEST_F(ParseConfig, FindsWhatASnapshotHasWritten)
{
    std::mt19937_64 random(8);
    static const wchar_t* const s_pieces[] = {L"A",  L"b",      L" ",      L"K",      L"N",          L"P", L"\"",
                                              L"\n", L"\t",     L"\u00E4", L"\u65E5", L"\U0001F52C", L"1", L"%s",
                                              L"\\", L"<none>", L"Mi",     L"C",      L"/",          L"."};
    const auto name = [&random]
    {
        std::wstring text;
        for (std::size_t n = random() % 5; n > 0; --n)
            text += s_pieces[random() % std::size(s_pieces)];
        return text;
    };
    const auto shown = [](const std::wstring& text) { return text == L"<none>" ? std::wstring() : text; };
    const auto orNone = [&shown](const std::wstring& text) { return shown(text).empty() ? L"<none>" : text; };
    const auto number = [&random](double scale) { return scale * static_cast<double>(random() % 2000003) / 2000003.0; };
    for (int i = 0; i < 200000; ++i)
    {
        SHardware hardware;
        std::set<std::tuple<std::u16string, std::u16string, int>> ordered; // the set's order, in code units
        for (std::size_t n = random() % 4; n > 0; --n)
            hardware.filterChangers.push_back({name(), name(), static_cast<int>(random() % 7) - 3});
        for (std::size_t n = random() % 3; n > 0; --n)
            hardware.lights.push_back(name());
        for (std::size_t n = random() % 3; n > 0; --n)
            hardware.multilasers.emplace_back(name(), static_cast<unsigned>(random() % 5));
        hardware.objective = name();
        hardware.microscope = name();
        hardware.camera = name();
        hardware.zoom = random() % 3 == 0 ? 0.0 : number(20.0);
        hardware.rotation = number(360.0);
        hardware.bRotationSet = random() % 4 != 0;
        hardware.bConnected = (random() & 1) != 0;
        hardware.port = static_cast<int>(random() % 9) - 4;
        hardware.watched = Everything();
        CQsStimulationDeviceConfiguration snapshot;
        hardware.Fill(snapshot);
        const CQsStringW text = snapshot.GetConfigurationString();
        const SQsConfigItem item = Parsed(text.Std());

        const auto units = [](const std::wstring& wide)
        {
            std::u16string result;
            for (const wchar_t c : wide)
            {
                const auto code = static_cast<std::uint32_t>(c);
                if (code >= 0x10000u)
                    result += static_cast<char16_t>(0xD800u + ((code - 0x10000u) >> 10));
                result += static_cast<char16_t>(code >= 0x10000u ? 0xDC00u + ((code - 0x10000u) & 0x3FFu) : code);
            }
            return result;
        };
        std::sort(hardware.filterChangers.begin(), hardware.filterChangers.end(),
                  [&](const auto& a, const auto& b)
                  {
                      return std::make_tuple(units(a.key), units(a.name), a.position) <
                             std::make_tuple(units(b.key), units(b.name), b.position);
                  });
        Changers changers;
        for (const SHardware::SFilterChanger& changer : hardware.filterChangers)
        {
            if (ordered.emplace(units(changer.key), units(changer.name), changer.position).second)
                changers.push_back({shown(changer.key), shown(changer.name), std::to_wstring(changer.position)});
        }
        ASSERT_EQ(changers, ChangersOf(item)) << text;
        ASSERT_EQ(orNone(hardware.objective), item.sObjective.Std()) << text;
        ASSERT_EQ(orNone(hardware.camera), item.sCamera.Std()) << text;
        // Six decimals in the text, two in the item: rounded twice.
        const double rotation = hardware.bRotationSet ? hardware.rotation : 0.0;
        ASSERT_EQ(Printed("%.2f", std::strtod(CQsStringW(Printed("%f", rotation)).ToUtf8().c_str(), nullptr)),
                  item.sRotation.Std())
            << text;
        ASSERT_EQ(
            hardware.zoom > 0.0
                ? Printed("%.2fx", std::strtod(CQsStringW(Printed("%f", hardware.zoom)).ToUtf8().c_str(), nullptr))
                : L"<none>",
            item.sZoom.Std())
            << text;
        const bool bLights = !hardware.lights.empty();
        ASSERT_EQ(hardware.bConnected || bLights, item.bORBAPort) << text;
        ASSERT_EQ(bLights || !hardware.bConnected ? 0 : hardware.port, item.iORBAPort) << text;
    }
}

} // namespace

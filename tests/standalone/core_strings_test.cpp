#include "host/QsSystem.h"
#include "tests/support/DecimalComma.h"

#include <gmock/gmock.h>

#include <clocale>
#include <cstdio>
#include <limits>
#include <string>

namespace {

CQsStringW Wide(const char* utf8)
{
    return CQsStringW::FromUtf8(utf8);
}

std::string Narrow(const CQsStringW& text)
{
    return text.ToUtf8();
}

} // namespace

TEST(StringOrder, IsByCodeUnitWithThePrefixFirst)
{
    EXPECT_EQ(CQsStringW(L"abc").Compare(L"abc"), 0);
    EXPECT_LT(CQsStringW(L"ab").Compare(L"abc"), 0);
    EXPECT_GT(CQsStringW(L"abc").Compare(L"ab"), 0);
    EXPECT_LT(CQsStringW(L"ABC").Compare(L"abc"), 0); // case counts: 0x41 < 0x61
    EXPECT_LT(CQsStringW(L"").Compare(L"a"), 0);
    EXPECT_TRUE(CQsStringW(L"abc") != L"ABC");
    EXPECT_TRUE(CQsStringW(L"Z") < CQsStringW(L"a"));
}

TEST(StringOrder, SortsCharactersBeyondTheBasicPlaneAsTheirSurrogates)
{
    // U+10000 is D800 DC00, which stands before FFFD and E000 but behind D7FF.
    const CQsStringW beyond(L"\U00010000");
    EXPECT_LT(beyond.Compare(L"\uFFFD"), 0);
    EXPECT_LT(beyond.Compare(L"\uE000"), 0);
    EXPECT_GT(beyond.Compare(L"\uD7FF"), 0);
    EXPECT_GT(CQsStringW(L"\uFFFD").Compare(beyond), 0);
    EXPECT_LT(beyond.Compare(L"\U00010001"), 0); // same first unit, the second decides
    EXPECT_LT(beyond.Compare(L"\U00010400"), 0); // D801
    EXPECT_EQ(beyond.Compare(L"\U00010000"), 0);
    EXPECT_LT(CQsStringW(L"x\U00010000").Compare(L"x\U00010000a"), 0);
}

TEST(StringOrder, TakesTwoLoneSurrogatesForTheCharacterThatTheyMake)
{
    const wchar_t pair[] = {static_cast<wchar_t>(0xD800), static_cast<wchar_t>(0xDC00), 0};
    EXPECT_EQ(CQsStringW(pair).Compare(L"\U00010000"), 0);
    const wchar_t half[] = {static_cast<wchar_t>(0xD800), 0};
    EXPECT_LT(CQsStringW(half).Compare(L"\U00010000"), 0);
    EXPECT_EQ(Narrow(CQsStringW(pair)), "\xF0\x90\x80\x80");
}

TEST(String, TakesNullForTheEmptyText)
{
    const wchar_t* const none = nullptr;
    EXPECT_TRUE(CQsStringW(none).IsEmpty());
    EXPECT_TRUE(CQsStringW(none, 5).IsEmpty());
    EXPECT_EQ(CQsStringW().Compare(none), 0);
    EXPECT_EQ((CQsStringW(L"a") += none), CQsStringW(L"a"));
    EXPECT_EQ(CQsStringW(L"abc").Find(none, 1), 1u);
}

TEST(String, FindsConcatenatesAndCuts)
{
    const CQsStringW text(L"abcabc");
    EXPECT_EQ(text.Find(L"bc"), 1u);
    EXPECT_EQ(text.Find(L"bc", 2), 4u);
    EXPECT_EQ(text.Find(L"cb"), CQsStringW::npos);
    EXPECT_EQ(text.Find(L""), 0u);
    EXPECT_EQ(text.Left(2), CQsStringW(L"ab"));
    EXPECT_EQ(text.Left(99), text);
    EXPECT_EQ(CQsStringW(L"a") + CQsStringW(L"b"), CQsStringW(L"ab"));
}

TEST(Utf8, SurvivesTheRoundTrip)
{
    const std::string text = "a\xC3\xA9\xE2\x82\xAC\xF0\x9F\x94\xA6z"; // 1, 2, 3 and 4 bytes
    const CQsStringW wide = CQsStringW::FromUtf8(text);
    EXPECT_EQ(wide, CQsStringW(L"a\u00E9\u20AC\U0001F526z"));
    EXPECT_EQ(Narrow(wide), text);
}

TEST(Utf8, ReplacesWhatIsMalformedAndDropsNothing)
{
    EXPECT_EQ(Wide("a\xFFz"), CQsStringW(L"a\uFFFDz"));
    EXPECT_EQ(Wide("a\xC3"), CQsStringW(L"a\uFFFD"));                             // cut off
    EXPECT_EQ(Wide("\xE2\x82z"), CQsStringW(L"\uFFFDz"));                         // cut off, then more
    EXPECT_EQ(Wide("\xC0\xAF"), CQsStringW(L"\uFFFD\uFFFD"));                     // overlong
    EXPECT_EQ(Wide("\xED\xA0\x80"), CQsStringW(L"\uFFFD\uFFFD\uFFFD"));           // a surrogate
    EXPECT_EQ(Wide("\xF4\x90\x80\x80"), CQsStringW(L"\uFFFD\uFFFD\uFFFD\uFFFD")); // beyond U+10FFFF
    const wchar_t lone[] = {L'a', static_cast<wchar_t>(0xDC00), L'z', static_cast<wchar_t>(0xD800), 0};
    EXPECT_EQ(Narrow(CQsStringW(lone)), "a\xEF\xBF\xBDz\xEF\xBF\xBD");
}

TEST(Format, TakesTextsAsWideOrNarrowByTheirConversion)
{
    EXPECT_EQ(CQsStringW::Format(L"%s|%ls|%hs|%S|%c|%lc|%hc", L"wide\u20AC", L"w", "n\xE2\x82\xAC", "s", L'\u20AC',
                                 L'b', 'c'),
              CQsStringW(L"wide\u20AC|w|n\u20AC|s|\u20AC|b|c"));
    EXPECT_EQ(CQsStringW::Format(L"[%5s][%-5hs][%.2s][%.*hs]", L"ab", "ab", L"abc", 1, "xyz"),
              CQsStringW(L"[   ab][ab   ][ab][x]"));
    const wchar_t open[] = {L'a', L'b'}; // not terminated
    EXPECT_EQ(CQsStringW::Format(L"%.2s", open), CQsStringW(L"ab"));
}

TEST(Format, PrintsNullTextsAndUnknownConversionsAsTheyStand)
{
    EXPECT_EQ(CQsStringW::Format(L"%s %hs", static_cast<const wchar_t*>(nullptr), static_cast<const char*>(nullptr)),
              CQsStringW(L"(null) (null)"));
    EXPECT_EQ(CQsStringW::Format(L"%q %5.2y %d%%", 7), CQsStringW(L"%q %5.2y 7%"));
    EXPECT_EQ(CQsStringW::Format(L"end %"), CQsStringW(L"end %"));
    EXPECT_EQ(CQsStringW::Format(L"end %-08l"), CQsStringW(L"end %-08l"));
    EXPECT_EQ(CQsStringW::Format(nullptr), CQsStringW());
}

TEST(Format, WritesIntegers)
{
    EXPECT_EQ(CQsStringW::Format(L"%d %i %u %x %X %#x %#X %#x", -1, 42, 4000000000u, 255u, 255u, 255u, 171u, 0u),
              CQsStringW(L"-1 42 4000000000 ff FF 0xff 0XAB 0"));
    EXPECT_EQ(CQsStringW::Format(L"[%5d][%-5d][%05d][%+d][% d][%.3d][%05.2d][%.0d]", 42, 42, -42, 42, 42, 7, 7, 0),
              CQsStringW(L"[   42][42   ][-0042][+42][ 42][007][   07][]"));
    EXPECT_EQ(CQsStringW::Format(L"[%*d][%*d][%#06x]", 4, 7, -4, 7, 255u), CQsStringW(L"[   7][7   ][0x00ff]"));
    EXPECT_EQ(CQsStringW::Format(L"%d %lld %I64d %I32d", std::numeric_limits<int>::min(),
                                 std::numeric_limits<long long>::min(), std::numeric_limits<long long>::max(), 3),
              CQsStringW(L"-2147483648 -9223372036854775808 9223372036854775807 3"));
    EXPECT_EQ(CQsStringW::Format(L"%zu %ld %lu %hhd %hu", std::size_t{5}, -6l, 7ul, 0x1FF, 0x1FFFF),
              CQsStringW(L"5 -6 7 -1 65535"));
}

TEST(Format, WritesRealNumbers)
{
    EXPECT_EQ(CQsStringW::Format(L"%f %.2f %.0f %#.0f %e %.1E %g %G %g", 1.5, 2.25, 3.0, 3.0, 12345.678, 0.00012,
                                 0.0001, 1e-10, 1e20),
              CQsStringW(L"1.500000 2.25 3 3. 1.234568e+04 1.2E-04 0.0001 1E-10 1e+20"));
    EXPECT_EQ(CQsStringW::Format(L"[%8.2f][%-8.2f][%08.2f][%+.1f][% .1f][%.*f]", 3.14, 3.14, -3.14, 2.0, 2.0, 3, 0.5),
              CQsStringW(L"[    3.14][3.14    ][-0003.14][+2.0][ 2.0][0.500]"));
    EXPECT_EQ(CQsStringW::Format(L"%#g %#.3g %#g %f", 1.0, 100.0, 1e-5, -0.0),
              CQsStringW(L"1.00000 100. 1.00000e-05 -0.000000"));
    const double infinite = std::numeric_limits<double>::infinity();
    EXPECT_EQ(CQsStringW::Format(L"%f %F [%06.1f] %e", infinite, infinite, -infinite,
                                 std::numeric_limits<double>::quiet_NaN()),
              CQsStringW(L"inf INF [  -inf] nan"));
    EXPECT_EQ(CQsStringW::Format(L"%Lf", 1.5L), CQsStringW(L"1.500000"));
}

TEST(Format, WritesEveryDigitOfAnAddress)
{
    const CQsStringW text = CQsStringW::Format(L"%p", reinterpret_cast<void*>(std::uintptr_t{0xAB}));
    EXPECT_EQ(text, CQsStringW((std::wstring(2 * sizeof(void*) - 2, L'0') + L"AB")));
}

TEST(Format, KnowsNoLimitOfLength)
{
    const std::wstring part(100000, L'x');
    EXPECT_EQ(CQsStringW::Format(L"<%s>", part.c_str()).GetLength(), 100002u);
    // 1e308 has 309 digits before the point; 400 stand behind it.
    EXPECT_EQ(CQsStringW::Format(L"%.400f", 1e308).GetLength(), 309u + 1u + 400u);
    EXPECT_EQ(CQsStringW::Format(L"%70000d", 1).GetLength(), 70000u);
}

// Digits by the C library, which the formatter does not use, in the locale where both must agree.
TEST(Format, AgreesWithTheCLibraryOnNumbers)
{
    const double numbers[] = {0.0, 1.0, -2.5, 1e-300, 1.7976931348623157e308, 123456789.123456789, 0.1, 9.995, 5e-324};
    const char* const formats[] = {"%f",    "%.3f",     "%e",       "%.10e", "%g",    "%.12g", "%#g",
                                   "%#.4g", "%+012.4f", "%-15.2e|", "%.0e",  "%#.0e", "%G"};
    for (const char* const format : formats)
    {
        for (const double number : numbers)
        {
            char expected[512];
            std::snprintf(expected, sizeof expected, format, number);
            EXPECT_EQ(Narrow(CQsStringW::Format(Wide(format).c_str(), number)), expected) << format << " of " << number;
        }
    }
}

TEST(Numbers, DoNotFollowTheLocale)
{
    const QsTest::CDecimalComma locale;
    ASSERT_TRUE(locale.IsSet()); // the C library writes a comma now
    EXPECT_EQ(CQsStringW::Format(L"%.2f %g %e %d", 1.5, 0.25, 1.0, 1234567),
              CQsStringW(L"1.50 0.25 1.000000e+00 1234567"));
    double value = -77.0;
    EXPECT_TRUE(QS_StringToDouble(L"2.75", value));
    EXPECT_EQ(value, 2.75);
    EXPECT_TRUE(QS_StringToDouble(L"2,75", value));
    EXPECT_EQ(value, 2.0);
}

TEST(StringToDouble, TakesTheNumberThatTheTextBeginsWith)
{
    const struct
    {
        const wchar_t* text;
        double value;
    } cases[] = {{L"90.00", 90.0}, {L"1.50x", 1.5},  {L"  -2.5", -2.5}, {L"+3", 3.0},
                 {L".5", 0.5},     {L"5.", 5.0},     {L"1e3", 1000.0},  {L"1e", 1.0},
                 {L"1e+x", 1.0},   {L"\t7", 7.0},    {L"0x10", 0.0},    {L"1.2.3", 1.2},
                 {L"-0", 0.0},     {L"1e-400", 0.0}, {L"5-3", 5.0},     {L"-1e-999", 0.0}};
    for (const auto& c : cases)
    {
        double value = -77.0;
        EXPECT_TRUE(QS_StringToDouble(c.text, value)) << Narrow(c.text);
        EXPECT_EQ(value, c.value) << Narrow(c.text);
    }
}

TEST(StringToDouble, LeavesTheValueWhenThereIsNoNumber)
{
    const wchar_t* const texts[] = {L"<none>", L"",    L"   ", L"inf", L"-inf", L"nan", L"infinity", L"x1",
                                    L"-",      L"+-1", L".",   L"e5",  L".e5",  L"--1", L"1e400",    L"-1e999999999999",
                                    nullptr};
    for (const wchar_t* const text : texts)
    {
        double value = -77.0;
        EXPECT_FALSE(QS_StringToDouble(text, value)) << Narrow(text);
        EXPECT_EQ(value, -77.0) << Narrow(text);
    }
}

TEST(WideToInt, TakesLeadingDigitsAndSaturates)
{
    EXPECT_EQ(QS_wtoi(L"12"), 12);
    EXPECT_EQ(QS_wtoi(L"-1"), -1);
    EXPECT_EQ(QS_wtoi(L" +7x"), 7);
    EXPECT_EQ(QS_wtoi(L"KLamp"), 0);
    EXPECT_EQ(QS_wtoi(L""), 0);
    EXPECT_EQ(QS_wtoi(nullptr), 0);
    EXPECT_EQ(QS_wtoi(L"2147483647"), 2147483647);
    EXPECT_EQ(QS_wtoi(L"2147483648"), 2147483647);
    EXPECT_EQ(QS_wtoi(L"-2147483648"), std::numeric_limits<int>::min());
    EXPECT_EQ(QS_wtoi(L"-99999999999999999999999"), std::numeric_limits<int>::min());
}

#include "device/StimulationDevice.h"

#include <gmock/gmock.h>

#include <array>
#include <utility>

using Desc = IQsStimulationDevice::SQsScanAreaDesc;
using testing::ElementsAre;
using testing::ElementsAreArray;

namespace {

// Every field differs from its default and from every other.
Desc Sample()
{
    Desc d;
    d.dZoom = 2.0;
    d.dAngle = 30.0;
    d.dXOffset = 0.25;
    d.dYOffset = -0.5;
    d.dScanAreaAspect = 1.25;
    d.bIsCrop = true;
    d.dCropXOffset = 0.125;
    d.dCropYOffset = -0.375;
    d.dCropZoom = 4.0;
    d.dCropAspect = 1.5;
    d.Points = {{1.0, -2.5}, {0.5, 3.0}, {-0.0, 1e-300}};
    d.uiTag = 77;
    return d;
}

void ExpectScalars(const Desc& expected, const Desc& d)
{
    EXPECT_EQ(expected.dZoom, d.dZoom);
    EXPECT_EQ(expected.dAngle, d.dAngle);
    EXPECT_EQ(expected.dXOffset, d.dXOffset);
    EXPECT_EQ(expected.dYOffset, d.dYOffset);
    EXPECT_EQ(expected.dScanAreaAspect, d.dScanAreaAspect);
    EXPECT_EQ(expected.bIsCrop, d.bIsCrop);
    EXPECT_EQ(expected.dCropXOffset, d.dCropXOffset);
    EXPECT_EQ(expected.dCropYOffset, d.dCropYOffset);
    EXPECT_EQ(expected.dCropZoom, d.dCropZoom);
    EXPECT_EQ(expected.dCropAspect, d.dCropAspect);
}

std::vector<std::pair<double, double>> Points(const Desc& d)
{
    std::vector<std::pair<double, double>> points;
    for (const auto& p : d.Points)
        points.emplace_back(p.x, p.y);
    return points;
}

void ExpectSame(const Desc& expected, const Desc& d)
{
    ExpectScalars(expected, d);
    EXPECT_EQ(Points(expected), Points(d));
    EXPECT_EQ(expected.uiTag, d.uiTag);
}

const std::vector<std::wstring> s_scalarKeys = {L"dZoom",           L"dAngle",      L"dXOffset",    L"dYOffset",
                                                L"dScanAreaAspect", L"bIsCrop",     L"dCropZoom",   L"dCropXOffset",
                                                L"dCropYOffset",    L"dCropAspect", L"uiPointCoint"};

std::vector<std::wstring> Names(const CQsVariant& v)
{
    std::vector<std::wstring> names;
    for (std::size_t i = 0; i < v.GetCount(); ++i)
        names.push_back(v.GetItem(i).GetName().Std());
    return names;
}

std::vector<std::wstring> Names(const CQsLiteVariantR& r)
{
    std::vector<std::wstring> names;
    for (std::size_t i = 0; i < r.GetEntryCount(); ++i)
        names.push_back(r.GetEntryName(i).Std());
    return names;
}

// A tree that loads, without points.
CQsVariant Loadable()
{
    CQsVariant v;
    v.Append(CQsVariant(3.0, L"dZoom"));
    v.Append(CQsVariant(2.0, L"dCropAspect"));
    return v;
}

CQsVariant WithCount(std::uint32_t count)
{
    CQsVariant v = Loadable();
    v.Append(CQsVariant(count, L"uiPointCoint"));
    return v;
}

} // namespace

TEST(ScanAreaDesc, StartsAsTheFullFieldWithoutCropAndPoints)
{
    const Desc d;
    EXPECT_EQ(1.0, d.dZoom);
    EXPECT_EQ(0.0, d.dAngle);
    EXPECT_EQ(0.0, d.dXOffset);
    EXPECT_EQ(0.0, d.dYOffset);
    EXPECT_EQ(1.0, d.dScanAreaAspect);
    EXPECT_FALSE(d.bIsCrop);
    EXPECT_EQ(0.0, d.dCropXOffset);
    EXPECT_EQ(0.0, d.dCropYOffset);
    EXPECT_EQ(1.0, d.dCropZoom);
    EXPECT_EQ(1.0, d.dCropAspect);
    EXPECT_TRUE(d.Points.empty());
    EXPECT_EQ(0u, d.uiTag);
}

TEST(ScanAreaDesc, CopiesAndMovesCarryEveryField)
{
    const Desc original = Sample();
    Desc copy(original);
    ExpectSame(original, copy);
    Desc assigned;
    assigned = original;
    ExpectSame(original, assigned);
    Desc moved(std::move(copy));
    ExpectSame(original, moved);
    Desc moveAssigned;
    moveAssigned = std::move(moved);
    ExpectSame(original, moveAssigned);

    Desc& self = moveAssigned;
    moveAssigned = self;
    ExpectSame(original, moveAssigned);
}

TEST(ScanAreaDesc, DeclaresTheCropOffsetsBeforeTheCropZoom)
{
    const Desc d;
    const auto at = [&](const double& field)
    { return reinterpret_cast<const char*>(&field) - reinterpret_cast<const char*>(&d); };
    EXPECT_LT(at(d.dCropXOffset), at(d.dCropYOffset));
    EXPECT_LT(at(d.dCropYOffset), at(d.dCropZoom));
    EXPECT_LT(at(d.dCropZoom), at(d.dCropAspect));
}

TEST(ScanAreaDesc, SavesADefaultRecordAsElevenNamedItemsInTheirOrder)
{
    CQsVariant v;
    ASSERT_EQ(0, Desc().SaveToVariant(v));
    EXPECT_THAT(Names(v), ElementsAreArray(s_scalarKeys));
    EXPECT_EQ(CQsVariant::Type::Double, v.GetItem(0).GetType());
    EXPECT_EQ(CQsVariant::Type::Bool, v.GetItem(5).GetType());
    EXPECT_EQ(CQsVariant::Type::Unsigned, v.GetItem(10).GetType());
    EXPECT_EQ(0u, v.GetItem(10).ToUnsigned());
}

TEST(ScanAreaDesc, SavesEachFieldUnderItsOwnKey)
{
    const Desc d = Sample();
    CQsVariant v;
    ASSERT_EQ(0, d.SaveToVariant(v));
    EXPECT_EQ(d.dZoom, v[L"dZoom"].ToDouble());
    EXPECT_EQ(d.dAngle, v[L"dAngle"].ToDouble());
    EXPECT_EQ(d.dXOffset, v[L"dXOffset"].ToDouble());
    EXPECT_EQ(d.dYOffset, v[L"dYOffset"].ToDouble());
    EXPECT_EQ(d.dScanAreaAspect, v[L"dScanAreaAspect"].ToDouble());
    EXPECT_TRUE(v[L"bIsCrop"].ToBool());
    EXPECT_EQ(d.dCropZoom, v[L"dCropZoom"].ToDouble());
    EXPECT_EQ(d.dCropXOffset, v[L"dCropXOffset"].ToDouble());
    EXPECT_EQ(d.dCropYOffset, v[L"dCropYOffset"].ToDouble());
    EXPECT_EQ(d.dCropAspect, v[L"dCropAspect"].ToDouble());
    EXPECT_EQ(3u, v[L"uiPointCoint"].ToUnsigned());
}

TEST(ScanAreaDesc, SavesPointsAfterTheCountXBeforeY)
{
    CQsVariant v;
    ASSERT_EQ(0, Sample().SaveToVariant(v));
    std::vector<std::wstring> expected = s_scalarKeys;
    for (const wchar_t* name : {L"dPoint0x", L"dPoint0y", L"dPoint1x", L"dPoint1y", L"dPoint2x", L"dPoint2y"})
        expected.emplace_back(name);
    EXPECT_THAT(Names(v), ElementsAreArray(expected));
    EXPECT_EQ(0.5, v[L"dPoint1x"].ToDouble());
    EXPECT_EQ(3.0, v[L"dPoint1y"].ToDouble());
}

TEST(ScanAreaDesc, SavingReplacesWhatTheTreeHeld)
{
    CQsVariant v;
    v.Append(CQsVariant(5.0, L"dZoom"));
    v.Append(CQsVariant(5.0, L"somethingElse"));
    ASSERT_EQ(0, Desc().SaveToVariant(v));
    EXPECT_THAT(Names(v), ElementsAreArray(s_scalarKeys));
    EXPECT_EQ(1.0, v[L"dZoom"].ToDouble());
}

TEST(ScanAreaDesc, SavingReplacesAValueByAListWhateverItsTypeChangeSetting)
{
    CQsVariant v(4.0, L"area");
    ASSERT_EQ(0, Desc().SaveToVariant(v));
    EXPECT_EQ(CQsVariant::Type::List, v.GetType());
    EXPECT_THAT(Names(v), ElementsAreArray(s_scalarKeys));
}

TEST(ScanAreaDesc, SavingLeavesTheTypeChangeSettingAsItWas)
{
    for (const bool before : {false, true})
    {
        CQsVariant v;
        v.EnableTypeChange(before);
        ASSERT_EQ(0, Sample().SaveToVariant(v));
        EXPECT_EQ(before, v.EnableTypeChange(before));
    }
}

TEST(ScanAreaDesc, ATreeGivesBackWhatWasSavedButTheTag)
{
    const Desc saved = Sample();
    CQsVariant v;
    ASSERT_EQ(0, saved.SaveToVariant(v));
    Desc loaded;
    loaded.uiTag = 5;
    loaded.Points = {{9.0, 9.0}};
    ASSERT_EQ(0, loaded.LoadFromVariant(v));
    ExpectScalars(saved, loaded);
    EXPECT_EQ(Points(saved), Points(loaded));
    EXPECT_EQ(5u, loaded.uiTag);
}

TEST(ScanAreaDesc, RefusesATreeWithoutAMandatoryKeyAndKeepsTheRecord)
{
    for (const wchar_t* only : {L"dZoom", L"dCropAspect"})
    {
        CQsVariant v;
        v.Append(CQsVariant(3.0, only));
        v.Append(CQsVariant(std::uint32_t{0}, L"uiPointCoint"));
        Desc d = Sample();
        EXPECT_EQ(-9, d.LoadFromVariant(v));
        ExpectSame(Sample(), d);
    }
    Desc d = Sample();
    EXPECT_EQ(-9, d.LoadFromVariant(CQsVariant()));
    EXPECT_EQ(-9, d.LoadFromVariant(CQsVariant(1.0, L"dZoom")));
    ExpectSame(Sample(), d);
}

TEST(ScanAreaDesc, AMissingScalarReadsAsTheTreesDefaultNotAsTheRecords)
{
    Desc d = Sample();
    ASSERT_EQ(0, d.LoadFromVariant(Loadable()));
    EXPECT_EQ(3.0, d.dZoom);
    EXPECT_EQ(2.0, d.dCropAspect);
    EXPECT_EQ(0.0, d.dAngle);
    EXPECT_EQ(0.0, d.dScanAreaAspect);
    EXPECT_FALSE(d.bIsCrop);
    EXPECT_EQ(0.0, d.dCropZoom);
}

TEST(ScanAreaDesc, AMissingCountMeansNoPoints)
{
    CQsVariant v = Loadable();
    v.Append(CQsVariant(1.0, L"dPoint0x"));
    v.Append(CQsVariant(2.0, L"dPoint0y"));
    Desc d = Sample();
    ASSERT_EQ(0, d.LoadFromVariant(v));
    EXPECT_TRUE(d.Points.empty());
}

TEST(ScanAreaDesc, SkipsPointsWithOneCoordinateMissing)
{
    CQsVariant withoutY = WithCount(2);
    withoutY.Append(CQsVariant(1.0, L"dPoint0x"));
    withoutY.Append(CQsVariant(2.0, L"dPoint0y"));
    withoutY.Append(CQsVariant(3.0, L"dPoint1x"));
    Desc d;
    ASSERT_EQ(0, d.LoadFromVariant(withoutY));
    EXPECT_THAT(Points(d), ElementsAre(std::make_pair(1.0, 2.0)));

    CQsVariant withoutX = WithCount(2);
    withoutX.Append(CQsVariant(2.0, L"dPoint0y"));
    withoutX.Append(CQsVariant(3.0, L"dPoint1x"));
    withoutX.Append(CQsVariant(4.0, L"dPoint1y"));
    ASSERT_EQ(0, d.LoadFromVariant(withoutX));
    EXPECT_THAT(Points(d), ElementsAre(std::make_pair(3.0, 4.0)));
}

TEST(ScanAreaDesc, PointsAtOrBeyondTheCountAreLeftOut)
{
    CQsVariant v = WithCount(2);
    for (const wchar_t* name : {L"dPoint1x", L"dPoint1y", L"dPoint2x", L"dPoint2y"})
        v.Append(CQsVariant(1.0, name));
    Desc d;
    ASSERT_EQ(0, d.LoadFromVariant(v));
    EXPECT_EQ(1u, d.Points.size());
}

TEST(ScanAreaDesc, TakesPointsInOrderOfTheirIndexWhereverTheyStand)
{
    CQsVariant v = WithCount(11);
    v.Append(CQsVariant(10.0, L"dPoint10y"));
    v.Append(CQsVariant(2.0, L"dPoint2x"));
    v.Append(CQsVariant(1.0, L"dPoint10x"));
    v.Append(CQsVariant(20.0, L"dPoint2y"));
    Desc d;
    ASSERT_EQ(0, d.LoadFromVariant(v));
    EXPECT_THAT(Points(d), ElementsAre(std::make_pair(2.0, 20.0), std::make_pair(1.0, 10.0)));
}

TEST(ScanAreaDesc, OfItemsOfOneNameTheFirstCounts)
{
    CQsVariant v = WithCount(1);
    v.Append(CQsVariant(1.0, L"dPoint0x"));
    v.Append(CQsVariant(2.0, L"dPoint0x"));
    v.Append(CQsVariant(3.0, L"dPoint0y"));
    v.Append(CQsVariant(4.0, L"dPoint0y"));
    Desc d;
    ASSERT_EQ(0, d.LoadFromVariant(v));
    EXPECT_THAT(Points(d), ElementsAre(std::make_pair(1.0, 3.0)));
}

TEST(ScanAreaDesc, ADamagedCountNeitherHangsNorLosesPointsBeyondAGap)
{
    CQsVariant v = WithCount(4294967295u);
    v.Append(CQsVariant(5.0, L"dPoint5x"));
    v.Append(CQsVariant(50.0, L"dPoint5y"));
    v.Append(CQsVariant(6.0, L"dPoint2147483647x"));
    v.Append(CQsVariant(60.0, L"dPoint2147483647y"));
    Desc d;
    ASSERT_EQ(0, d.LoadFromVariant(v));
    EXPECT_THAT(Points(d), ElementsAre(std::make_pair(5.0, 50.0), std::make_pair(6.0, 60.0)));
}

TEST(ScanAreaDesc, ANegativeCountMeansNoPoints)
{
    CQsVariant v = Loadable();
    v.Append(CQsVariant(-3.0, L"uiPointCoint"));
    v.Append(CQsVariant(1.0, L"dPoint0x"));
    v.Append(CQsVariant(2.0, L"dPoint0y"));
    Desc d = Sample();
    ASSERT_EQ(0, d.LoadFromVariant(v));
    EXPECT_TRUE(d.Points.empty());
}

TEST(ScanAreaDesc, NamesThatSavingDoesNotWriteAreNoPoints)
{
    CQsVariant v = WithCount(100);
    for (const wchar_t* index : {L"05", L"+5", L" 5", L"-5", L"5 ", L"", L"99999999999", L"5x"})
    {
        v.Append(CQsVariant(1.0, (CQsStringW(L"dPoint") + CQsStringW(index) + L"x").c_str()));
        v.Append(CQsVariant(1.0, (CQsStringW(L"dPoint") + CQsStringW(index) + L"y").c_str()));
    }
    for (const wchar_t* name : {L"dpoint7x", L"dPoint7X", L"dPoint7y", L"dPoint", L"d"})
        v.Append(CQsVariant(1.0, name));
    Desc d;
    ASSERT_EQ(0, d.LoadFromVariant(v));
    EXPECT_TRUE(d.Points.empty());
}

TEST(ScanAreaDesc, SavesADefaultRecordToAStoreWithElevenKeysAndNoPoints)
{
    CQsLiteVariantW w;
    ASSERT_EQ(0, Desc().SaveToLiteVariant(w));
    EXPECT_THAT(Names(CQsLiteVariantR(w)), ElementsAreArray(s_scalarKeys));
}

TEST(ScanAreaDesc, SavesPointsToAStoreAsOneLittleEndianBlock)
{
    Desc d;
    d.Points = {{1.0, -2.5}, {0.5, 3.0}, {0.0, 1.0}};
    CQsLiteVariantW w;
    ASSERT_EQ(0, d.SaveToLiteVariant(w));
    const CQsLiteVariantR r(w);
    std::vector<std::wstring> expected = s_scalarKeys;
    expected.emplace_back(L"Points");
    EXPECT_THAT(Names(r), ElementsAreArray(expected));
    EXPECT_EQ(3, r.GetInt(L"uiPointCoint", -1));

    // By hand: 1.0 is 3FF0..., -2.5 is C004..., 0.5 is 3FE0..., 3.0 is 4008..., least significant byte first.
    const std::array<unsigned char, 48> bytes = {0, 0, 0, 0, 0, 0, 0xF0, 0x3F, 0, 0, 0, 0, 0, 0, 0x04, 0xC0, //
                                                 0, 0, 0, 0, 0, 0, 0xE0, 0x3F, 0, 0, 0, 0, 0, 0, 0x08, 0x40, //
                                                 0, 0, 0, 0, 0, 0, 0,    0,    0, 0, 0, 0, 0, 0, 0xF0, 0x3F};
    std::array<unsigned char, 64> stored{};
    stored.fill(0xAA);
    r.GetBinary(L"Points", stored.data(), stored.size());
    EXPECT_TRUE(std::equal(bytes.begin(), bytes.end(), stored.begin()));
    EXPECT_EQ(0xAA, stored[48]); // and not a byte more
}

TEST(ScanAreaDesc, AStoreGivesBackWhatWasSavedButTheTag)
{
    Desc saved = Sample();
    saved.Points.clear();
    for (int i = 0; i < 1000; ++i)
        saved.Points.push_back({i * 0.25, -i * 1.5});
    CQsLiteVariantW w;
    ASSERT_EQ(0, saved.SaveToLiteVariant(w));
    CQsLiteVariantR r(w);
    Desc loaded;
    loaded.uiTag = 5;
    ASSERT_EQ(0, loaded.LoadFromLiteVariant(r));
    ExpectScalars(saved, loaded);
    EXPECT_EQ(Points(saved), Points(loaded));
    EXPECT_EQ(5u, loaded.uiTag);
}

TEST(ScanAreaDesc, AnEmptyStoreKeepsTheScalarsAndEmptiesThePoints)
{
    CQsLiteVariantR r;
    Desc d = Sample();
    ASSERT_EQ(0, d.LoadFromLiteVariant(r));
    ExpectScalars(Sample(), d);
    EXPECT_TRUE(d.Points.empty());
}

TEST(ScanAreaDesc, APartialStoreKeepsTheRest)
{
    CQsLiteVariantW w;
    w.SetDouble(L"dAngle", 45.0);
    w.SetBool(L"bIsCrop", false);
    w.SetDouble(L"dCropYOffset", 0.75);
    CQsLiteVariantR r(w);
    Desc d = Sample();
    ASSERT_EQ(0, d.LoadFromLiteVariant(r));
    Desc expected = Sample();
    expected.dAngle = 45.0;
    expected.bIsCrop = false;
    expected.dCropYOffset = 0.75;
    ExpectScalars(expected, d);
}

TEST(ScanAreaDesc, ADamagedStoreYieldsNoPoints)
{
    const std::array<unsigned char, 32> block{};
    const auto load = [&](std::uint32_t count, std::size_t bytes)
    {
        CQsLiteVariantW w;
        w.SetUnsigned(L"uiPointCoint", count);
        if (bytes > 0)
            w.SetBinary(L"Points", block.data(), bytes);
        CQsLiteVariantR r(w);
        Desc d = Sample();
        EXPECT_EQ(0, d.LoadFromLiteVariant(r));
        ExpectScalars(Sample(), d);
        return d.Points.size();
    };
    EXPECT_EQ(0u, load(4294967295u, 32)); // reads as -1
    EXPECT_EQ(0u, load(2147483648u, 32)); // reads as the most negative number
    EXPECT_EQ(0u, load(2147483647u, 32)); // a block of 32 GiB
    EXPECT_EQ(0u, load(2, 31));
    EXPECT_EQ(0u, load(2, 16));
    EXPECT_EQ(0u, load(2, 0));
    EXPECT_EQ(0u, load(0, 32));
    EXPECT_EQ(2u, load(2, 32));
    EXPECT_EQ(1u, load(1, 32)); // a longer block is no damage
}

#include "host/QsSystem.h"

#include <gmock/gmock.h>

#include <array>
#include <limits>

TEST(Variant, KeepsItemsInOrderAndFindsTheFirstOfAName)
{
    CQsVariant list;
    list.Append(CQsVariant(1.5, L"b"));
    list.Append(CQsVariant(true, L"a"));
    list.Append(CQsVariant(std::uint32_t{7}, L"b"));
    ASSERT_EQ(list.GetCount(), 3u);
    EXPECT_EQ(list.GetItem(0).GetName(), L"b");
    EXPECT_EQ(list.GetItem(1).GetType(), CQsVariant::Type::Bool);
    EXPECT_EQ(list.GetItem(2).GetType(), CQsVariant::Type::Unsigned);
    ASSERT_NE(list.FindItem(L"b"), nullptr);
    EXPECT_EQ(list.FindItem(L"b")->ToDouble(), 1.5);
    EXPECT_EQ(list.FindItem(L"B"), nullptr);
    EXPECT_EQ(list[L"a"].ToBool(), true);
}

TEST(Variant, ReadsAbsentNamesAsTheDefaultValue)
{
    CQsVariant list;
    list.Append(CQsVariant(5.0, L"there"));
    EXPECT_EQ(list[L"absent"].ToDouble(), 0.0);
    EXPECT_EQ(list[L"absent"].ToUnsigned(), 0u);
    EXPECT_FALSE(list[L"absent"].ToBool());
    EXPECT_EQ(list.GetItem(1).ToDouble(), 0.0);
    EXPECT_EQ(list.GetItem(1).GetCount(), 0u);
    EXPECT_EQ(list[L"there"][L"deeper"].ToDouble(), 0.0);
}

TEST(Variant, FindsNamesAtTheFirstLevelOnly)
{
    CQsVariant inner;
    inner.Append(CQsVariant(1.0, L"inside"));
    CQsVariant outer;
    outer.Append(inner);
    EXPECT_EQ(outer.FindItem(L"inside"), nullptr);
    EXPECT_EQ(outer.GetItem(0).FindItem(L"inside")->ToDouble(), 1.0);
}

TEST(Variant, ConvertsBetweenItsTypes)
{
    EXPECT_EQ(CQsVariant(std::uint32_t{4000000000u}, L"").ToDouble(), 4e9);
    EXPECT_EQ(CQsVariant(true, L"").ToDouble(), 1.0);
    EXPECT_TRUE(CQsVariant(-0.5, L"").ToBool());
    EXPECT_FALSE(CQsVariant(0.0, L"").ToBool());
    EXPECT_EQ(CQsVariant(2.9, L"").ToUnsigned(), 2u);
    EXPECT_EQ(CQsVariant(-1.0, L"").ToUnsigned(), 0u);
    EXPECT_EQ(CQsVariant(std::numeric_limits<double>::quiet_NaN(), L"").ToUnsigned(), 0u);
    EXPECT_EQ(CQsVariant(std::numeric_limits<double>::infinity(), L"").ToUnsigned(), 0u);
    EXPECT_EQ(CQsVariant(1e12, L"").ToUnsigned(), 0xFFFFFFFFu);
    EXPECT_EQ(CQsVariant(4294967295.0, L"").ToUnsigned(), 0xFFFFFFFFu);
    EXPECT_EQ(CQsVariant(true, L"").ToUnsigned(), 1u);
}

TEST(Variant, TurnsAValueIntoAListOnlyWhereTypesMayChange)
{
    CQsVariant value(3.0, L"v");
    value.ClearList();
    value.Append(CQsVariant(1.0, L"x"));
    EXPECT_EQ(value.GetType(), CQsVariant::Type::Double);
    EXPECT_EQ(value.ToDouble(), 3.0);
    EXPECT_EQ(value.GetCount(), 0u);

    EXPECT_FALSE(value.EnableTypeChange(true));
    EXPECT_TRUE(value.EnableTypeChange(true));
    value.ClearList();
    EXPECT_EQ(value.GetType(), CQsVariant::Type::List);
    value.Append(CQsVariant(1.0, L"x"));
    EXPECT_EQ(value.GetCount(), 1u);
    EXPECT_TRUE(value.EnableTypeChange(false));
    value.ClearList();
    EXPECT_EQ(value.GetCount(), 0u);
    EXPECT_EQ(value.GetName(), L"v");
}

TEST(Variant, MayBeAppendedToItself)
{
    CQsVariant list;
    list.Append(CQsVariant(1.0, L"x"));
    list.Append(list);
    ASSERT_EQ(list.GetCount(), 2u);
    EXPECT_EQ(list.GetItem(1).GetCount(), 1u);
}

TEST(LiteVariant, KeepsTheOrderOfSettingAndReplacesInPlace)
{
    CQsLiteVariantW writer;
    writer.SetDouble(L"b", 1.0);
    writer.SetBool(L"a", true);
    writer.SetUnsigned(L"b", 9);
    const CQsLiteVariantR reader(writer);
    ASSERT_EQ(reader.GetEntryCount(), 2u);
    EXPECT_EQ(reader.GetEntryName(0), L"b");
    EXPECT_EQ(reader.GetEntryName(1), L"a");
    EXPECT_EQ(reader.GetEntryName(2), L"");
    EXPECT_EQ(reader.GetInt(L"b", -5), 9);
}

TEST(LiteVariant, GivesTheDefaultForWhatIsMissingOrDoesNotConvert)
{
    CQsLiteVariantW writer;
    writer.SetDouble(L"d", 2.5);
    writer.SetUnsigned(L"u", 0xFFFFFFFFu);
    writer.SetBool(L"f", true);
    writer.SetBinary(L"x", "abc", 3);
    const CQsLiteVariantR reader(writer);
    EXPECT_EQ(reader.GetDouble(L"none", -77.0), -77.0);
    EXPECT_EQ(reader.GetInt(L"d", -77), -77);
    EXPECT_EQ(reader.GetDouble(L"x", -77.0), -77.0);
    EXPECT_TRUE(reader.GetBool(L"d", true));
    EXPECT_FALSE(reader.GetBool(L"x", false));
    EXPECT_EQ(reader.GetInt(L"u", 5), -1); // bit by bit
    EXPECT_EQ(reader.GetDouble(L"u", 0.0), 4294967295.0);
    EXPECT_EQ(reader.GetDouble(L"f", 0.0), 1.0);
    EXPECT_EQ(reader.GetInt(L"f", 0), 1);
    EXPECT_TRUE(reader.GetBool(L"u", false));
    EXPECT_EQ(CQsLiteVariantR().GetDouble(L"d", 4.0), 4.0);
}

TEST(LiteVariant, CopiesNoMoreBytesThanAskedAndTellsHowManyThereAre)
{
    CQsLiteVariantW writer;
    writer.SetBinary(L"x", "abcd", 4);
    writer.SetBinary(L"empty", nullptr, 4);
    const CQsLiteVariantR reader(writer);
    std::array<char, 6> bytes{'?', '?', '?', '?', '?', '?'};
    EXPECT_EQ(reader.GetBinary(L"x", bytes.data(), 2), 4u);
    EXPECT_EQ(std::string(bytes.data(), 6), "ab????");
    EXPECT_EQ(reader.GetBinary(L"x", bytes.data(), 6), 4u);
    EXPECT_EQ(std::string(bytes.data(), 6), "abcd??");
    EXPECT_EQ(reader.GetBinary(L"x", nullptr, 0), 4u);
    EXPECT_EQ(reader.GetBinary(L"none", bytes.data(), 6), 0u);
    EXPECT_EQ(reader.GetBinary(L"empty", bytes.data(), 6), 0u);
    EXPECT_EQ(std::string(bytes.data(), 6), "abcd??");
}

TEST(LiteVariant, HoldsLevelsOfEqualNamesBesideEachOther)
{
    CQsLiteVariantW writer;
    writer.CloseLevel(); // nothing at the top
    for (std::uint32_t i = 0; i < 3; ++i)
    {
        writer.OpenLevel(L"");
        writer.SetUnsigned(L"i", i);
        writer.CloseLevel();
    }
    writer.OpenLevel(L"deep");
    writer.OpenLevel(L"deeper");
    writer.SetDouble(L"v", 8.0);

    CQsLiteVariantR reader(writer);
    EXPECT_EQ(reader.GetEntryCount(), 4u);
    EXPECT_FALSE(reader.EnterLevel(L"none"));
    ASSERT_TRUE(reader.EnterLevel(L""));
    EXPECT_EQ(reader.GetInt(L"i", -5), 0); // the first of that name
    reader.LeaveLevel();
    reader.LeaveLevel(); // nothing at the top
    ASSERT_TRUE(reader.EnterLevel(L"deep"));
    ASSERT_TRUE(reader.EnterLevel(L"deeper"));
    EXPECT_EQ(reader.GetDouble(L"v", 0.0), 8.0);
    EXPECT_FALSE(reader.EnterLevel(L"v")); // a value is no level
}

TEST(LiteVariant, ReaderDoesNotSeeWhatTheWriterSetsLater)
{
    CQsLiteVariantW writer;
    writer.SetDouble(L"v", 1.0);
    const CQsLiteVariantR reader(writer);
    writer.SetDouble(L"v", 2.0);
    EXPECT_EQ(reader.GetDouble(L"v", 0.0), 1.0);
}

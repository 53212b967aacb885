// Merging stores and replacing entries of one.
#include "tests/standalone/SettingsTest.h"

using QsTest::CTemporaryFolder;

namespace {

using Nodes = std::vector<SNode>;

SNode Value(const wchar_t* name, double number)
{
    return SNode::Of(name, number);
}

SNode LevelOf(const wchar_t* name, Nodes entries)
{
    return SNode::Of(name, std::move(entries));
}

// `count` unnamed levels of one value each.
Nodes Rows(int count, double first)
{
    Nodes rows;
    for (int i = 0; i < count; ++i)
        rows.push_back(LevelOf(L"", {Value(L"v", first + i)}));
    return rows;
}

class CStore
{
public:
    explicit CStore(const Nodes& entries) : m_reader((Write(m_writer, entries), m_writer)) {}

    CQsLiteVariantR& Reader() { return m_reader; }

private:
    CQsLiteVariantW m_writer;
    CQsLiteVariantR m_reader;
};

void ExpectMerged(const Nodes& own, const Nodes& other, const Nodes& expected)
{
    CStore store(own);
    CStore added(other);
    store.Reader().Merge(added.Reader());
    EXPECT_EQ("", Difference(store.Reader(), expected));
    EXPECT_EQ("", Difference(added.Reader(), other)); // unchanged
    store.Reader().Merge(added.Reader());
    EXPECT_EQ("", Difference(store.Reader(), expected)) << "merged again";
}

TEST(SettingsMerge, AddsWhatIsMissingBehindWhatIsThereInItsOrder)
{
    ExpectMerged({Value(L"b", 1), Value(L"a", 2)}, {Value(L"c", 3), Value(L"a", 4), LevelOf(L"d", {Value(L"x", 5)})},
                 {Value(L"b", 1), Value(L"a", 2), Value(L"c", 3), LevelOf(L"d", {Value(L"x", 5)})});
    ExpectMerged({}, {Value(L"a", 1), LevelOf(L"", {})}, {Value(L"a", 1), LevelOf(L"", {})});
    ExpectMerged({Value(L"a", 1)}, {}, {Value(L"a", 1)});
    ExpectMerged({}, {}, {});
}

TEST(SettingsMerge, MergesLevelsOfOneName)
{
    ExpectMerged({LevelOf(L"s", {LevelOf(L"d", {Value(L"x", 1)}), Value(L"y", 2)})},
                 {LevelOf(L"s", {LevelOf(L"d", {Value(L"x", 3), Value(L"z", 4)}), Value(L"w", 5)})},
                 {LevelOf(L"s", {LevelOf(L"d", {Value(L"x", 1), Value(L"z", 4)}), Value(L"y", 2), Value(L"w", 5)})});
}

TEST(SettingsMerge, LeavesSixEntriesSix)
{
    // A key that both hold keeps the six of this store; one that only the other holds comes with its six.
    ExpectMerged({LevelOf(L"C", {LevelOf(L"key", Rows(6, 0))})},
                 {LevelOf(L"C", {LevelOf(L"key", Rows(6, 100)), LevelOf(L"other", Rows(6, 200))})},
                 {LevelOf(L"C", {LevelOf(L"key", Rows(6, 0)), LevelOf(L"other", Rows(6, 200))})});
    // However many each of them has.
    ExpectMerged({LevelOf(L"key", Rows(2, 0))}, {LevelOf(L"key", Rows(6, 100))}, {LevelOf(L"key", Rows(2, 0))});
    ExpectMerged({LevelOf(L"key", {})}, {LevelOf(L"key", Rows(6, 100))}, {LevelOf(L"key", Rows(6, 100))});
    // Nor does anything named come among the unnamed ones.
    ExpectMerged({LevelOf(L"key", Rows(2, 0))}, {LevelOf(L"key", {Value(L"x", 1)})}, {LevelOf(L"key", Rows(2, 0))});
    ExpectMerged(Rows(2, 0), {Value(L"x", 1)}, Rows(2, 0));
    // An unnamed value makes a list, too.
    ExpectMerged({LevelOf(L"key", {Value(L"", 1)})}, {LevelOf(L"key", Rows(2, 0))}, {LevelOf(L"key", {Value(L"", 1)})});
}

TEST(SettingsMerge, KeepsAValueThatMeetsALevelAndTheOtherWayRound)
{
    ExpectMerged({Value(L"a", 1)}, {LevelOf(L"a", {Value(L"x", 2)})}, {Value(L"a", 1)});
    ExpectMerged({LevelOf(L"a", {Value(L"x", 2)})}, {Value(L"a", 1)}, {LevelOf(L"a", {Value(L"x", 2)})});
}

TEST(SettingsMerge, TakesSeveralLevelsOfOneNameOverTogetherAndMergesOnlyTheFirst)
{
    const Nodes twice{LevelOf(L"a", {Value(L"x", 1)}), LevelOf(L"a", {Value(L"y", 2)})};
    ExpectMerged({Value(L"b", 0)}, twice, {Value(L"b", 0), twice[0], twice[1]});
    ExpectMerged({LevelOf(L"a", {Value(L"z", 3)})}, twice, {LevelOf(L"a", {Value(L"z", 3), Value(L"x", 1)})});
}

TEST(SettingsMerge, WithItselfChangesNothing)
{
    for (std::uint64_t seed = 1; seed <= 100; ++seed)
    {
        const Nodes entries = CRandomStore(seed).Entries(4, 9);
        ExpectMerged(entries, entries, entries);
        CStore store(entries);
        store.Reader().Merge(store.Reader());
        EXPECT_EQ("", Difference(store.Reader(), entries));
    }
}

TEST(SettingsMerge, ClosesEveryLevel)
{
    CStore store({LevelOf(L"a", {Value(L"x", 1)})});
    ASSERT_TRUE(store.Reader().EnterLevel(L"a"));
    store.Reader().Merge(CStore({Value(L"b", 2)}).Reader()); // which is gone afterwards
    EXPECT_EQ("", Difference(store.Reader(), {LevelOf(L"a", {Value(L"x", 1)}), Value(L"b", 2)}));
}

TEST(SettingsMerge, OfStoresThatShareAFileLeavesBothWhole)
{
    const CTemporaryFolder folder;
    const Nodes entries{LevelOf(L"a", Rows(20, 0)), Value(L"b", 1)};
    ASSERT_EQ(0, Save(CStore(entries).Reader(), folder.File("file")));
    CQsLiteVariantR first, second;
    ASSERT_EQ(0, Load(first, folder.File("file")));
    ASSERT_EQ(0, Load(second, folder.File("file")));
    first.Merge(CStore({Value(L"c", 2)}).Reader());
    EXPECT_EQ("", Difference(second, entries));
    EXPECT_EQ("", Difference(first, {entries[0], entries[1], Value(L"c", 2)}));
    ASSERT_EQ(0, Load(second, folder.File("file")));
    EXPECT_EQ("", Difference(second, entries));
}

TEST(SettingsMerge, OfTenThousandKeysKeepsThemAll)
{
    Nodes keys, expected{LevelOf(L"k5", Rows(6, -1))};
    for (int i = 0; i < 10000; ++i)
    {
        keys.push_back(LevelOf((L"k" + std::to_wstring(i)).c_str(), Rows(6, i)));
        if (i != 5)
            expected.push_back(keys.back());
    }
    ExpectMerged({LevelOf(L"C", {expected[0]})}, {LevelOf(L"C", keys)}, {LevelOf(L"C", expected)});
}

// --------------------------------------------------------------------------------------------------------- replacing

qs_int32 Replace(CStore& store, const wchar_t* path, const Nodes& node)
{
    return store.Reader().Replace(path, CStore(node).Reader());
}

TEST(SettingsReplace, PutsTheFirstEntryInThePlaceOfAnother)
{
    CStore store({Value(L"a", 1), LevelOf(L"s", {Value(L"x", 2), LevelOf(L"C", Rows(6, 0)), Value(L"y", 3)})});
    ASSERT_TRUE(store.Reader().EnterLevel(L"s"));
    SNode text = SNode::Of(L"C", SNode::EType::Text);
    EXPECT_EQ(0, Replace(store, L"\\s\\C", {text, Value(L"further", 9)}));
    EXPECT_EQ("", Difference(store.Reader(), {Value(L"a", 1), LevelOf(L"s", {Value(L"x", 2), text, Value(L"y", 3)})}));
    // A value is replaced as well, also by a level and by an entry of another name.
    EXPECT_EQ(0, Replace(store, L"\\s\\C", {LevelOf(L"D", Rows(1, 5))}));
    EXPECT_EQ(0, Replace(store, L"\\a", {Value(L"b", 4)}));
    EXPECT_EQ("",
              Difference(store.Reader(),
                         {Value(L"b", 4), LevelOf(L"s", {Value(L"x", 2), LevelOf(L"D", Rows(1, 5)), Value(L"y", 3)})}));
    EXPECT_TRUE(store.Reader().EnterLevel(L"s"));
    EXPECT_TRUE(store.Reader().EnterLevel(L"D")); // found by its new name
    EXPECT_FALSE(store.Reader().EnterLevel(L"C"));
}

TEST(SettingsReplace, ChangesNothingWithoutSuchAnEntry)
{
    const Nodes entries{Value(L"a", 1), LevelOf(L"s", {Value(L"x", 2)})};
    CStore store(entries);
    for (const wchar_t* const path :
         {L"\\none", L"\\s\\none", L"\\a\\x", L"\\s\\x\\y", L"\\", L"", L"a", L"s\\x", L"\\s\\"})
        EXPECT_EQ(-13, Replace(store, path, {Value(L"n", 3)})) << CQsStringW(path).ToUtf8();
    EXPECT_EQ(-13, Replace(store, nullptr, {Value(L"n", 3)}));
    EXPECT_EQ(-9, Replace(store, L"\\a", {}));
    EXPECT_EQ("", Difference(store.Reader(), entries));
}

TEST(SettingsReplace, FindsNamesWithBackslashesAndEmptyOnes)
{
    CStore store({LevelOf(L"a", {Value(L"x", 1)}), LevelOf(L"a\\b", {LevelOf(L"", {Value(L"c\\", 2)})})});
    EXPECT_EQ(0, Replace(store, L"\\a\\b\\\\c\\", {Value(L"n", 3)}));
    EXPECT_EQ("", Difference(store.Reader(),
                             {LevelOf(L"a", {Value(L"x", 1)}), LevelOf(L"a\\b", {LevelOf(L"", {Value(L"n", 3)})})}));
}

TEST(SettingsReplace, LeavesStoresThatShareTheFileAlone)
{
    const CTemporaryFolder folder;
    Nodes many;
    for (int i = 0; i < 40; ++i)
        many.push_back(LevelOf(std::to_wstring(i).c_str(), Rows(2, i)));
    ASSERT_EQ(0, Save(CStore({LevelOf(L"C", many)}).Reader(), folder.File("file")));
    CQsLiteVariantR first, second;
    ASSERT_EQ(0, Load(first, folder.File("file")));
    ASSERT_EQ(0, Load(second, folder.File("file")));
    EXPECT_EQ(0, first.Replace(L"\\C\\7", CStore({Value(L"seven", 7)}).Reader()));
    EXPECT_EQ("", Difference(second, {LevelOf(L"C", many)}));
    many[7] = Value(L"seven", 7);
    EXPECT_EQ("", Difference(first, {LevelOf(L"C", many)}));
    ASSERT_TRUE(first.EnterLevel(L"C"));
    EXPECT_FALSE(first.EnterLevel(L"7"));
    EXPECT_EQ(7.0, first.GetDouble(L"seven", 0.0));
}

} // namespace

// Content of a device database: its JSON, its way into a database and out, and what contradicts itself.
#include "tests/standalone/DatabaseTest.h"

#include "standalone/Rig.h"

#include <algorithm>
#include <random>
#include <tuple>

using QsTest::ContentsOf;
using QsTest::CTemporaryFolder;

namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

// Every field but the line, which belongs to a file.
auto Fields(const SDatabaseContent::SUser& row)
{
    return std::tie(row.id, row.name);
}
auto Fields(const SDatabaseContent::SSetup& row)
{
    return std::tie(row.id, row.name);
}
auto Fields(const SDatabaseContent::SHWConfig& row)
{
    return std::tie(row.id, row.setup, row.name);
}
auto Fields(const SDatabaseContent::SBeampath& row)
{
    return std::tie(row.id, row.setup, row.name, row.userName, row.type, row.onByDefault, row.order, row.merged);
}
auto Fields(const SDatabaseContent::SHWConfigBeampath& row)
{
    return std::tie(row.hwConfig, row.beampath, row.behaviour);
}
auto Fields(const SDatabaseContent::SConfiguration& row)
{
    return std::tie(row.beampath, row.logicalDevice, row.type);
}
auto Fields(const SDatabaseContent::SLogicalId& row)
{
    return std::tie(row.databaseId, row.logDevId);
}
auto Fields(const SDatabaseContent::SParameter& row)
{
    return std::tie(row.name, row.setup, row.user, row.text);
}

template <class Row>
void ExpectEqualRows(const char* what, std::vector<Row> expected, std::vector<Row> found, bool bSorted)
{
    const auto less = [](const Row& a, const Row& b) { return Fields(a) < Fields(b); };
    if (bSorted)
    {
        std::sort(expected.begin(), expected.end(), less);
        std::sort(found.begin(), found.end(), less);
    }
    ASSERT_EQ(expected.size(), found.size()) << what;
    for (std::size_t i = 0; i < expected.size(); ++i)
        EXPECT_TRUE(Fields(expected[i]) == Fields(found[i])) << what << " " << i;
}

// `bSorted`: a database keeps no order of rows.
void ExpectEqual(const SDatabaseContent& expected, const SDatabaseContent& found, bool bSorted)
{
    ExpectEqualRows("users", expected.users, found.users, bSorted);
    ExpectEqualRows("setups", expected.setups, found.setups, bSorted);
    ExpectEqualRows("hwConfigs", expected.hwConfigs, found.hwConfigs, bSorted);
    ExpectEqualRows("beampaths", expected.beampaths, found.beampaths, bSorted);
    ExpectEqualRows("hwConfigBeampaths", expected.hwConfigBeampaths, found.hwConfigBeampaths, bSorted);
    ExpectEqualRows("configurations", expected.configurations, found.configurations, bSorted);
    ExpectEqualRows("logicalIds", expected.logicalIds, found.logicalIds, bSorted);
    ExpectEqualRows("parameters", expected.parameters, found.parameters, bSorted);
}

const char* const s_oddTexts[] = {"",
                                  "P",
                                  "it's \"quoted\" \\ back",
                                  "'; DROP TABLE dev_Setup; --",
                                  "tab\tline\nbell\a",
                                  "\xC3\xA9\xE2\x82\xAC",
                                  "\xF0\x9F\x94\xAC\xF4\x8F\xBF\xBF",
                                  "// no comment /* */",
                                  ":iSetupID ? $1 %s"};

// Content of random rows that a database takes, with odd texts; from a seed.
SDatabaseContent RandomContent(unsigned seed)
{
    std::mt19937 random(seed);
    const auto below = [&random](unsigned count) { return static_cast<qs_int32>(random() % count); };
    const auto text = [&below] { return std::string(s_oddTexts[below(std::size(s_oddTexts))]); };
    const auto anyInt = [&random] { return static_cast<qs_int32>(random()); };
    SDatabaseContent content;
    for (qs_int32 id = 1; id <= 3; ++id)
    {
        content.users.push_back({id * 7, text()});
        content.setups.push_back({id == 3 ? 2147483647 : id, text()});
        content.hwConfigs.push_back({id + 100, content.setups[random() % content.setups.size()].id, text()});
    }
    const char* const mergedTexts[] = {"[1,2]", "[1, 2]", "[]", "", "no list", "[-1,2147483647]", "[1.5]", "{\"a\":1}"};
    for (qs_int32 id = 1; id <= 6; ++id)
    {
        SDatabaseContent::SBeampath beampath{id,       content.setups[random() % content.setups.size()].id,
                                             text(),   std::nullopt,
                                             anyInt(), below(2) == 1,
                                             anyInt(), std::nullopt,
                                             0};
        if (below(2) == 1)
            beampath.userName = text();
        if (below(2) == 1)
            beampath.merged = mergedTexts[below(std::size(mergedTexts))];
        content.beampaths.push_back(beampath);
        SDatabaseContent::SHWConfigBeampath row{101 + below(3), id, std::nullopt};
        if (below(2) == 1)
            row.behaviour = anyInt();
        content.hwConfigBeampaths.push_back(row);
        content.configurations.push_back({id, 1 + below(90), anyInt(), 0});
        content.logicalIds.push_back({id, static_cast<std::uint32_t>(random() | 1u)});
        content.parameters.push_back({text() + std::to_string(id), anyInt(), anyInt(), text() + text()});
    }
    return content;
}

std::string DatabaseFileText(const std::string& content)
{
    return "{\"format\": \"stimulation-database\", \"version\": 1,\n\"deviceDatabase\": " + content + "}\n";
}

SDatabaseContent Read(const std::string& path)
{
    SDatabaseContent content;
    std::string error;
    EXPECT_TRUE(ReadDatabaseContent(path, content, error)) << error;
    return content;
}

std::vector<std::string> Check(const SDatabaseContent& content, const std::vector<std::uint32_t>& driven = {})
{
    const std::vector<std::string> lines = CheckDatabaseContent(content, driven);
    EXPECT_THAT(lines, testing::Each(IsOneLine()));
    return lines;
}

} // namespace

TEST(DatabaseJson, HasEveryField)
{
    const CTemporaryFolder folder;
    const SDatabaseContent content = Read(folder.Write("d.json", DatabaseFileText(R"({
"users": [{"id": 4, "name": "Ann"}],
"setups": [{"id": 3, "name": "Confocal"}],
"hwConfigs": [{"id": 30, "setup": 3, "name": "Day"}],
"beampaths": [
  {"id": 20, "setup": 3, "name": "P", "userName": "Shown", "type": 1, "onByDefault": false, "order": -5,
   "merged": [21, 22]},
  {"id": 21, "setup": 3, "name": "Q", "merged": "[ 1 ]"}],
"hwConfigBeampaths": [{"hwConfig": 30, "beampath": 20, "behaviour": 0}, {"hwConfig": 30, "beampath": 21}],
"configurations": [{"beampath": 20, "logicalDevice": 70, "type": 10}, {"beampath": 20, "logicalDevice": 71}],
"logicalIds": [{"databaseId": 70, "logDevId": 4294967295}],
"parameters": [{"name": "k", "setup": 3, "user": 4, "text": "a\nb"}, {"name": "k", "text": ""}]
})")));
    SDatabaseContent expected;
    expected.users = {{4, "Ann"}};
    expected.setups = {{3, "Confocal"}};
    expected.hwConfigs = {{30, 3, "Day"}};
    expected.beampaths = {{20, 3, "P", std::string("Shown"), 1, false, -5, std::string("[21,22]"), 0},
                          {21, 3, "Q", std::nullopt, 2, true, 0, std::string("[ 1 ]"), 0}};
    expected.hwConfigBeampaths = {{30, 20, 0}, {30, 21, std::nullopt}};
    expected.configurations = {{20, 70, 10, 0}, {20, 71, 1, 0}};
    expected.logicalIds = {{70, 4294967295u}};
    expected.parameters = {{"k", 3, 4, "a\nb"}, {"k", 0, 0, ""}};
    ExpectEqual(expected, content, false);
    EXPECT_EQ(7u, content.beampaths[0].line);
    EXPECT_EQ(9u, content.beampaths[1].line);
    EXPECT_EQ(11u, content.configurations[0].line);
}

TEST(DatabaseJson, OfTheDocumentationIsRight)
{
    const std::string documentation = ContentsOf(QS_SOURCE "/docs/formats.md");
    const std::size_t format = documentation.find("\"format\": \"stimulation-database\"");
    ASSERT_NE(std::string::npos, format);
    const std::size_t begin = documentation.rfind("```json\n", format) + 8;
    const CTemporaryFolder folder;
    const SDatabaseContent content =
        Read(folder.Write("d.json", documentation.substr(begin, documentation.find("```", begin) - begin)));
    EXPECT_EQ(3u, content.beampaths.size());
    EXPECT_THAT(Check(content, {1}), IsEmpty());
}

TEST(DatabaseJson, MayBeEmpty)
{
    const CTemporaryFolder folder;
    ExpectEqual({}, Read(folder.Write("d.json", DatabaseFileText("{}"))), false);
}

TEST(DatabaseJson, MayStandInARig)
{
    const CTemporaryFolder folder;
    const std::string rig = folder.Write("rig.json", R"({"format": "stimulation-rig", "version": 1,
 "shutters": [{"id": 1, "name": "S", "databaseId": 70}],
 "deviceDatabase": {"setups": [{"id": 3, "name": "Confocal"}]}})");
    SDatabaseContent expected;
    expected.setups = {{3, "Confocal"}};
    ExpectEqual(expected, Read(rig), false);
    SRig read;
    std::string error;
    EXPECT_TRUE(ReadRig(rig, read, error)) << error;
}

TEST(DatabaseJson, IsMissedInARigWithoutIt)
{
    const CTemporaryFolder folder;
    const std::string rig = folder.Write("rig.json", "\n{\"format\": \"stimulation-rig\", \"version\": 1}");
    SDatabaseContent content = SmallContent();
    std::string error;
    EXPECT_FALSE(ReadDatabaseContent(rig, content, error));
    EXPECT_EQ(rig + ":2: expected the key \"deviceDatabase\" in this object, found none", error);
    ExpectEqual(SmallContent(), content, false); // unchanged
}

TEST(DatabaseJson, ThatIsWrongIsRefusedWithItsPlace)
{
    const CTemporaryFolder folder;
    struct SCase
    {
        std::string text;
        std::string message;
    };
    const auto of = [](const char* key, const char* row)
    { return DatabaseFileText(std::string("{\"") + key + "\":\n[" + row + "]}"); };
    const std::string text255(255, 'x');
    for (
        const SCase& wrong : {
            SCase{"", ":1: expected a JSON object, found an empty file"},
            SCase{"{\"format\": \"something\"}",
                  ":1: expected \"format\" to be \"stimulation-database\", found \"something\""},
            SCase{"{\"format\": \"stimulation-database\", \"version\": 2}",
                  ":1: expected \"version\" to be the number 1"},
            SCase{"[]", ":1: expected an object of the keys format, version, deviceDatabase, found a list"},
            SCase{DatabaseFileText("[]"), ":2: expected \"deviceDatabase\" to be an object, found a list"},
            SCase{DatabaseFileText("{\"tables\": []}"), ":2: expected one of the keys users, setups,"},
            SCase{of("users", "{\"id\": 0, \"name\": \"x\"}"),
                  ":3: expected \"id\" to be a whole number from 1 to 2147483647"},
            SCase{of("users", "{\"id\": 1.5, \"name\": \"x\"}"), ":3: expected \"id\" to be a whole number"},
            SCase{of("users", "{\"id\": 2147483648, \"name\": \"x\"}"), ":3: expected \"id\" to be a whole number"},
            SCase{of("users", "{\"id\": 1}"), ":3: expected the key \"name\" in this object, found none"},
            SCase{of("users", ("{\"id\": 1, \"name\": \"x" + text255 + "\"}").c_str()),
                  ":3: expected \"name\" to be a text of 0 to 255 characters, none of them null"},
            SCase{of("users", "{\"id\": 1, \"name\": \"a\\u0000b\"}"),
                  ":3: expected \"name\" to be a text of 0 to 255"},
            SCase{
                of("beampaths", "{\"id\": 1, \"setup\": 1, \"name\": \"x\", \"merged\": [1,\n\"2\"]}"),
                ":4: expected every item of \"merged\" to be a whole number from -2147483648 to 2147483647, found \"2\""},
            SCase{
                of("beampaths", "{\"id\": 1, \"setup\": 1, \"name\": \"x\", \"merged\": 5}"),
                ":3: expected \"merged\" to be a list of whole numbers from -2147483648 to 2147483647, or a text, found 5"},
            SCase{of("beampaths", "{\"id\": 1, \"setup\": 1, \"name\": \"x\", \"onByDefault\": 1}"),
                  ":3: expected \"onByDefault\" to be true or false, found 1"},
            SCase{of("hwConfigBeampaths", "{\"hwConfig\": 1, \"beampath\": 1, \"behaviour\": null}"),
                  ":3: expected \"behaviour\" to be a whole number"},
            SCase{of("logicalIds", "{\"databaseId\": 1, \"logDevId\": 4294967296}"),
                  ":3: expected \"logDevId\" to be a whole number from 1 to 4294967295"},
            SCase{of("parameters", "7"), ":3: expected an object of the keys name, setup, user, text, found 7"},
        })
    {
        const std::string path = folder.Write("d.json", wrong.text);
        SDatabaseContent content = SmallContent();
        std::string error;
        EXPECT_FALSE(ReadDatabaseContent(path, content, error)) << wrong.text;
        EXPECT_THAT(error, testing::StartsWith(path + wrong.message));
        EXPECT_THAT(error, IsOneLine());
        ExpectEqual(SmallContent(), content, false);
    }
    SDatabaseContent content;
    std::string error;
    EXPECT_FALSE(ReadDatabaseContent(folder.File("missing.json"), content, error));
    EXPECT_THAT(error, HasSubstr("missing.json:1: expected a file that can be read"));
}

TEST(DatabaseJson, ReadsBackAsItWasWritten)
{
    const CTemporaryFolder folder;
    for (unsigned seed = 1; seed <= 60; ++seed)
    {
        SCOPED_TRACE(seed);
        const SDatabaseContent content = RandomContent(seed);
        const std::string json = DatabaseContentJson(content);
        EXPECT_EQ('\n', json.back());
        ExpectEqual(content, Read(folder.Write("d.json", json)), false);
    }
    SDatabaseContent longest;
    longest.users = {{1, std::string(255 * 2, '\xC3')}};
    for (std::size_t i = 1; i < longest.users[0].name.size(); i += 2)
        longest.users[0].name[i] = '\xA9';
    longest.parameters = {{"k", 0, 0, std::string(3000000, '\'')}};
    ExpectEqual(longest, Read(folder.Write("d.json", DatabaseContentJson(longest))), false);
}

TEST(DatabaseJson, ShowsMergedBeampathsAsAListWhereItCan)
{
    SDatabaseContent content;
    content.beampaths = {{1, 1, "a", std::nullopt, 2, true, 0, std::string("[4,-5]"), 0},
                         {2, 1, "b", std::nullopt, 2, true, 0, std::string("[4, 5]"), 0},
                         {3, 1, "c", std::nullopt, 2, true, 0, std::string("[4.5]"), 0}};
    const std::string json = DatabaseContentJson(content);
    EXPECT_THAT(json, HasSubstr("\"merged\":[4,-5]}"));
    EXPECT_THAT(json, HasSubstr("\"merged\":\"[4, 5]\"}"));
    EXPECT_THAT(json, HasSubstr("\"merged\":\"[4.5]\"}"));
}

using DatabaseTransfer = DatabaseTest;
INSTANTIATE_ON_DATABASES(DatabaseTransfer);

TEST_P(DatabaseTransfer, BringsOutWhatWasPutIn)
{
    for (unsigned seed = 1; seed <= 12; ++seed)
    {
        SCOPED_TRACE(seed);
        const SDatabaseContent content = RandomContent(seed);
        Import(content); // replaces what was there
        SDatabaseContent found;
        std::string error;
        ASSERT_TRUE(ExportDatabase(Address(), found, error)) << error;
        ExpectEqual(content, found, true);
    }
    Import({});
    SDatabaseContent found;
    std::string error;
    ASSERT_TRUE(ExportDatabase(Address(), found, error)) << error;
    ExpectEqual({}, found, true);
    EXPECT_EQ(0u, CQsDeviceDatabase::ConnectionCount());
}

TEST_P(DatabaseTransfer, TakesTheLongestTexts)
{
    SDatabaseContent content = SmallContent();
    std::string name; // 255 characters of four bytes
    for (int i = 0; i < 255; ++i)
        name += "\xF0\x9F\x94\xAC";
    content.setups[0].name = name;
    content.beampaths[0].name = name;
    content.parameters = {{name, 3, 4, std::string(3000000, '\\')}};
    Import(content);
    SDatabaseContent found;
    std::string error;
    ASSERT_TRUE(ExportDatabase(Address(), found, error)) << error;
    ExpectEqual(content, found, true);
}

TEST_P(DatabaseTransfer, ThatFailsLeavesTheDatabaseAsItWas)
{
    Import(SmallContent());
    SDatabaseContent wrong = RandomContent(3);
    wrong.parameters.push_back(wrong.parameters.front()); // the last rows that are written
    std::string error;
    EXPECT_FALSE(ImportDatabase(Address(), wrong, error));
    EXPECT_THAT(error, IsOneLine());
    EXPECT_THAT(error, HasSubstr(DeviceDatabaseText(Address())));
    SDatabaseContent found = RandomContent(4);
    ASSERT_TRUE(ExportDatabase(Address(), found, error)) << error;
    ExpectEqual(SmallContent(), found, true);
}

TEST_P(DatabaseTransfer, NeedsADatabaseWithASchema)
{
    const CTestDatabase empty(GetParam());
    std::string error;
    EXPECT_FALSE(ImportDatabase(empty.Setup(), SmallContent(), error));
    EXPECT_THAT(error, IsOneLine());
    SDatabaseContent found = SmallContent();
    EXPECT_FALSE(ExportDatabase(empty.Setup(), found, error));
    EXPECT_THAT(error, IsOneLine());
    ExpectEqual(SmallContent(), found, false); // unchanged
}

TEST_P(DatabaseTransfer, IsSeenByConnectionsThatAreOpen)
{
    Open();
    CQsStringW text;
    EXPECT_EQ(-13, DeviceDBAppHelper::LoadParam(L"key", text, nullptr, 3, 4));
    Import(SmallContent());
    EXPECT_EQ(0, DeviceDBAppHelper::LoadParam(L"key", text, nullptr, 3, 4));
    EXPECT_EQ(L"[1,2]", text);
}

// --- contradictions

TEST(DatabaseCheck, FindsNothingInWhatIsRight)
{
    EXPECT_THAT(Check({}), IsEmpty());
    EXPECT_THAT(Check(SmallContent()), IsEmpty());
    EXPECT_THAT(Check(SmallContent(), {7, 4294967295u}), IsEmpty());
    SDatabaseContent content = SmallContent();
    content.parameters.push_back({"key", 0, 0, ""}); // no setup, no user
    content.beampaths[1].merged = "[]";
    content.beampaths[2].merged = "[22]";                                                 // itself
    content.beampaths.push_back({40, 6, "P", std::nullopt, 2, true, 0, std::nullopt, 0}); // same name, other setup
    content.beampaths.push_back({41, 3, "P", std::nullopt, 1, true, 0, std::nullopt, 0}); // other kind
    EXPECT_THAT(Check(content), IsEmpty());
}

TEST(DatabaseCheck, NamesMergedBeampathsThatCannotBe)
{
    SDatabaseContent content = SmallContent();
    content.beampaths[0].line = 12;
    content.beampaths[0].merged = "[21,99]";
    EXPECT_THAT(Check(content), ElementsAre("line 12: beampath 20: expected the id of a beampath to merge, found 99"));
    content.beampaths[0].merged = "[21,22]";
    content.beampaths[2].setup = 6;
    EXPECT_THAT(Check(content),
                ElementsAre("line 12: beampath 20: expected a beampath of setup 3 to merge, found 22 of setup 6"));
    content = SmallContent();
    for (const char* merged : {"", "21", "{}", "[21", "[\"21\"]", "[21.5]", "[21,null]", "[3000000000]", "[21] x"})
    {
        content.beampaths[0].merged = merged;
        const std::vector<std::string> lines = Check(content);
        ASSERT_EQ(1u, lines.size()) << merged;
        EXPECT_THAT(lines[0], testing::StartsWith(
                                  "beampath 20: expected the merged beampaths to be a list of whole numbers, found "));
    }
}

TEST(DatabaseCheck, NamesReferencesToNothing)
{
    SDatabaseContent content = SmallContent();
    content.hwConfigs.push_back({60, 77, "x"});
    content.beampaths.push_back({23, 78, "x", std::nullopt, 1, true, 0, std::nullopt, 9});
    content.hwConfigBeampaths.push_back({79, 21, 1});
    content.hwConfigBeampaths.push_back({30, 80, 1});
    content.configurations.push_back({81, 70, 1, 14});
    content.configurations.push_back({21, 82, 1, 15});
    content.parameters.push_back({"a", 83, 4, ""});
    content.parameters.push_back({"b", 3, 84, ""});
    EXPECT_THAT(
        Check(content),
        ElementsAre("hardware configuration 60: expected the id of a setup, found 77",
                    "line 9: beampath 23: expected the id of a setup, found 78",
                    "hardware configuration 79 for beampath 21: expected the id of a hardware configuration, found 79",
                    "hardware configuration 30 for beampath 80: expected the id of a beampath, found 80",
                    "line 14: logical device 70 on beampath 81: expected the id of a beampath, found 81",
                    "line 15: logical device 82 on beampath 21: expected a database id with a logical device, found 82",
                    "parameter \"a\": expected the id of a setup, found 83",
                    "parameter \"b\": expected the id of a user, found 84"));
}

TEST(DatabaseCheck, NamesHardwareConfigurationsOfAnotherSetup)
{
    SDatabaseContent content = SmallContent();
    content.hwConfigBeampaths.push_back({12, 20, 1});
    EXPECT_THAT(Check(content), ElementsAre("hardware configuration 12 for beampath 20: expected both of one setup, "
                                            "found setups 6 and 3"));
}

TEST(DatabaseCheck, NamesWhatStandsTwice)
{
    SDatabaseContent content = SmallContent();
    const auto repeat = [](auto& rows) { rows.push_back(rows.front()); };
    repeat(content.users);
    repeat(content.setups);
    repeat(content.hwConfigs);
    repeat(content.beampaths);
    repeat(content.logicalIds);
    repeat(content.hwConfigBeampaths);
    repeat(content.configurations);
    repeat(content.parameters);
    EXPECT_THAT(Check(content),
                ElementsAre("expected user 8 once, found it again", "expected setup 6 once, found it again",
                            "expected hardware configuration 50 once, found it again",
                            "expected beampath 20 once, found it again", "expected database id 70 once, found it again",
                            "expected hardware configuration 30 for beampath 20 once, found it again",
                            "expected logical device 70 on beampath 21 with type 1 once, found it again",
                            "expected parameter \"key\" of setup 3 and user 4 once, found it again"));
}

TEST(DatabaseCheck, NamesStimulationBeampathsThatShareAName)
{
    SDatabaseContent content = SmallContent();
    content.beampaths.push_back({40, 3, "P", std::nullopt, 2, false, 9, std::nullopt, 33});
    EXPECT_THAT(
        Check(content),
        ElementsAre("line 33: beampath 40: expected a name of its own among the stimulation beampaths of setup 3, "
                    "found \"P\" as of beampath 20"));
}

TEST(DatabaseCheck, NamesStimulatingDevicesThatNobodyDrives)
{
    SDatabaseContent content = SmallContent();
    content.configurations.push_back({20, 71, 3, 0}); // a kind that does not stimulate
    EXPECT_THAT(Check(content, {7, 8}), ElementsAre("logical device 71 on beampath 22: expected a device that drives "
                                                    "logical device 4294967295, found none"));
    EXPECT_THAT(Check(content), IsEmpty()); // not asked
}

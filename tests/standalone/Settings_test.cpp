// The settings file: what is stored comes back as it was.
#include "standalone/DiagnosticLog.h"
#include "tests/standalone/SettingsTest.h"

#include <QByteArray>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>

#include <array>
#include <cmath>

using QsTest::ContentsOf;
using QsTest::CTemporaryFolder;
using testing::HasSubstr;

namespace {

constexpr double infinity = std::numeric_limits<double>::infinity();

// The end sum by its definition, a bit at a time.
std::string EndSum(const std::string& text)
{
    std::uint64_t sum = ~std::uint64_t{0};
    for (const char character : text)
    {
        sum ^= static_cast<unsigned char>(character);
        for (int bit = 0; bit < 8; ++bit)
            sum = (sum & 1) != 0 ? (sum >> 1) ^ 0xC96C5795D7870F42u : sum >> 1;
    }
    std::array<char, 17> digits{};
    std::snprintf(digits.data(), digits.size(), "%016llx", static_cast<unsigned long long>(~sum));
    return digits.data();
}

void ExpectRoundTrip(const std::vector<SNode>& entries, const std::string& what)
{
    const CTemporaryFolder folder;
    CQsLiteVariantW writer;
    Write(writer, entries);
    CQsLiteVariantR stored(writer);
    ASSERT_EQ("", Difference(stored, entries)) << what;
    for (const bool compact : {false, true})
    {
        const std::string path = folder.File(compact ? "compact" : "indented");
        ASSERT_EQ(0, Save(stored, path, compact)) << what;
        folder.Write("copy", ContentsOf(path) + " "); // never the bytes that were saved: they must be parsed
        CQsLiteVariantR loaded;
        ASSERT_EQ(0, Load(loaded, folder.File("copy"), false)) << what;
        EXPECT_EQ("", Difference(loaded, entries)) << what << (compact ? ", compact" : "");
        ASSERT_EQ(0, Load(loaded, path)) << what;
        EXPECT_EQ("", Difference(loaded, entries)) << what << (compact ? ", compact" : "");
    }
}

TEST(SettingsFile, IsTextAsDocumentedToTheByte)
{
    CQsLiteVariantW writer;
    writer.OpenLevel(L"Lamp \"1\"");
    writer.OpenLevel(L"");
    writer.SetDouble(L"x", 0.1);
    writer.SetDouble(L"y", -0.0);
    writer.CloseLevel();
    writer.OpenLevel(L"");
    writer.CloseLevel();
    writer.CloseLevel();
    writer.SetBool(L"on", true);
    writer.SetUnsigned(L"count", 4294967295u);
    writer.SetBinary(L"bytes", "\x00\xab", 2);
    writer.SetString(L"text", L"\u00e4\n\\");
    writer.SetDouble(L"none", OfBits(0x7ff8000000000001u));
    const CQsLiteVariantR store(writer);

    const CTemporaryFolder folder;
    ASSERT_EQ(0, Save(store, folder.File("file")));
    const std::string head = R"({
  "format": "stimulation-settings",
  "version": 1,
  "entries": [
    {"Lamp \"1\"": [
      {"": [{"x": 0.1}, {"y": -0}]},
      {"": []}
    ]},
    {"on": true},
    {"count": {"unsigned": 4294967295}},
    {"bytes": {"binary": "00ab"}},
    {"text": ")"
                             "\xC3\xA4\\n\\\\"
                             R"("},
    {"none": {"double": "7ff8000000000001"}}
  ],
  )";
    EXPECT_EQ(head + "\"sum\": \"" + EndSum(head) + "\"\n}\n", ContentsOf(folder.File("file")));

    ASSERT_EQ(0, Save(store, folder.File("compact"), true));
    const std::string compact =
        R"({"format":"stimulation-settings","version":1,"entries":[{"Lamp \"1\"":[{"":[{"x":0.1},{"y":-0}]},{"":[]}]},)"
        R"({"on":true},{"count":{"unsigned":4294967295}},{"bytes":{"binary":"00ab"}},{"text":")"
        "\xC3\xA4\\n\\\\"
        R"("},{"none":{"double":"7ff8000000000001"}}],)";
    EXPECT_EQ(compact + "\"sum\":\"" + EndSum(compact) + "\"}\n", ContentsOf(folder.File("compact")));
}

TEST(SettingsFile, HasTheEndSumOfThePublishedDefinition)
{
    EXPECT_EQ("995dc9bbdf1939fa", EndSum("123456789")); // the check value that is published with it
}

TEST(SettingsFile, OfAnEmptyStoreIsNotEmpty)
{
    const CTemporaryFolder folder;
    ASSERT_EQ(0, Save(CQsLiteVariantR(), folder.File("file")));
    const std::string head = "{\n  \"format\": \"stimulation-settings\",\n  \"version\": 1,\n  \"entries\": [],\n  ";
    EXPECT_EQ(head + "\"sum\": \"" + EndSum(head) + "\"\n}\n", ContentsOf(folder.File("file")));
    CQsLiteVariantR loaded;
    EXPECT_EQ(0, Load(loaded, folder.File("file")));
    EXPECT_EQ(0u, loaded.GetEntryCount());
}

TEST(SettingsFile, IsJsonToOtherReaders)
{
    const CTemporaryFolder folder;
    CRandomStore random(3);
    for (int i = 0; i < 50; ++i)
    {
        CQsLiteVariantW writer;
        Write(writer, random.Entries(3, 8));
        ASSERT_EQ(0, Save(CQsLiteVariantR(writer), folder.File("file"), i % 2 == 0));
        QJsonParseError error;
        const QJsonDocument json =
            QJsonDocument::fromJson(QByteArray::fromStdString(ContentsOf(folder.File("file"))), &error);
        ASSERT_EQ(QJsonParseError::NoError, error.error) << error.errorString().toStdString();
        EXPECT_EQ(CQsLiteVariantR(writer).GetEntryCount(), static_cast<std::size_t>(json["entries"].toArray().size()));
    }
}

TEST(SettingsFile, GivesDoublesBackBitForBit)
{
    std::vector<SNode> entries;
    const auto add = [&entries](double number)
    { entries.push_back(SNode::Of(L"k" + std::to_wstring(entries.size()), number)); };
    const double least = std::numeric_limits<double>::denorm_min();
    const double normal = std::numeric_limits<double>::min();
    const double greatest = std::numeric_limits<double>::max();
    for (const double number : {0.0,
                                1.0,
                                0.1,
                                1.0 / 3.0,
                                1e-300,
                                1e22,
                                1e23,
                                123456789012345680.0,
                                9007199254740993.0,
                                5e-324,
                                least,
                                2.0 * least,
                                normal,
                                std::nextafter(normal, 0.0),
                                greatest,
                                std::nextafter(greatest, 0.0),
                                infinity,
                                2.2250738585072011e-308,
                                3.14159265358979,
                                100.0,
                                1e15,
                                1e16,
                                1e17,
                                1e-5,
                                1e-7})
    {
        add(number);
        add(-number);
    }
    for (const std::uint64_t bits : {0x7ff8000000000000u, 0xfff8000000000000u, 0x7ff0000000000001u, 0xfff0000000000001u,
                                     0x7fffffffffffffffu, 0xffffffffffffffffu, 0x7ff4000000000abcu})
        add(OfBits(bits));
    ExpectRoundTrip(entries, "special values");
}

TEST(SettingsFile, GivesRandomDoublesBackBitForBit)
{
    std::mt19937_64 random(11);
    std::uniform_real_distribution<double> ordinary(-1000.0, 1000.0);
    std::vector<SNode> entries;
    for (int level = 0; level < 500; ++level)
    {
        SNode node = SNode::Of(L"", std::vector<SNode>());
        for (int i = 0; i < 500; ++i)
            node.entries.push_back(
                SNode::Of(std::to_wstring(i), i % 5 == 0 ? ordinary(random) : OfBits(random()))); // any bits at all
        entries.push_back(std::move(node));
    }
    ExpectRoundTrip(entries, "random doubles"); // 250000
}

TEST(SettingsFile, GivesRandomStoresBack)
{
    for (std::uint64_t seed = 1; seed <= 300; ++seed)
    {
        CRandomStore random(seed);
        ExpectRoundTrip(random.Entries(4, 9), "seed " + std::to_string(seed));
    }
}

TEST(SettingsFile, TakesEveryCharacterInNamesAndTexts)
{
    std::vector<SNode> names;
    std::wstring all;
    for (std::uint32_t code = 1; code <= 0x10FFFF; code += code < 0x3000 || (code >= 0xD7F0 && code < 0x10010) ? 1 : 61)
    {
        if (sizeof(wchar_t) == 2 && code > 0xFFFF)
            break;
        names.push_back(SNode::Of(std::wstring(1, static_cast<wchar_t>(code)), 1.0));
        if (code < 0xD800 || code > 0xDFFF)
            all += static_cast<wchar_t>(code);
    }
    SNode text = SNode::Of(L"text", SNode::EType::Text);
    text.text = all + L'\0' + all.substr(0, 300) + L'\0' + L"D800" + static_cast<wchar_t>(0xDC00);
    names.push_back(text);
    ExpectRoundTrip(names, "all characters");
}

TEST(SettingsFile, KeepsAPairOfSurrogatesTheCharacterThatItIs)
{
    const CTemporaryFolder folder;
    const CQsStringW pair(std::wstring{static_cast<wchar_t>(0xD83D), static_cast<wchar_t>(0xDE00)});
    CQsLiteVariantW writer;
    writer.SetString(L"text", pair);
    ASSERT_EQ(0, Save(CQsLiteVariantR(writer), folder.File("file")));
    EXPECT_THAT(ContentsOf(folder.File("file")), HasSubstr("\"\xF0\x9F\x98\x80\""));
    CQsLiteVariantR loaded;
    ASSERT_EQ(0, Load(loaded, folder.File("file")));
    EXPECT_TRUE(loaded.GetString(L"text", L"") == pair);
}

TEST(SettingsFile, KeepsLevelsAndValuesOfOneNameAndUnnamedOnesInOrder)
{
    std::vector<SNode> entries;
    entries.push_back(SNode::Of(L"a", std::vector<SNode>{SNode::Of(L"v", 1.0)}));
    entries.push_back(SNode::Of(L"a", 2.0));
    entries.push_back(SNode::Of(L"a", std::vector<SNode>{SNode::Of(L"v", 3.0)}));
    for (int i = 0; i < 6; ++i)
        entries.push_back(SNode::Of(L"", std::vector<SNode>{SNode::Of(L"v", 10.0 + i)}));
    entries.push_back(SNode::Of(L"", 5.0));
    ExpectRoundTrip(entries, "equal names");
}

TEST(SettingsFile, IsReadWithEveryLevelClosed)
{
    const CTemporaryFolder folder;
    CQsLiteVariantW writer;
    writer.OpenLevel(L"a");
    writer.SetDouble(L"v", 1.0);
    CQsLiteVariantR store(writer);
    ASSERT_EQ(0, Save(store, folder.File("file")));
    ASSERT_TRUE(store.EnterLevel(L"a"));
    ASSERT_EQ(0, Load(store, folder.File("file")));
    EXPECT_EQ(L"a", store.GetEntryName(0).Std());
    // What is saved is the whole store, whatever level is open.
    ASSERT_TRUE(store.EnterLevel(L"a"));
    ASSERT_EQ(0, Save(store, folder.File("other")));
    EXPECT_EQ(ContentsOf(folder.File("file")), ContentsOf(folder.File("other")));
    EXPECT_EQ(1.0, store.GetDouble(L"v", 0.0));
}

TEST(SettingsFile, ThatIsMissingIsMinus13OrEmptyWhenAsked)
{
    const CTemporaryFolder folder;
    CQsLiteVariantW writer;
    writer.SetDouble(L"v", 1.0);
    CQsLiteVariantR store(writer);
    QsStandalone::CQsDiagnosticLog::ToMemory(false); // forgets the lines of other tests
    QsStandalone::CQsDiagnosticLog::ToMemory(true);
    EXPECT_EQ(-13, Load(store, folder.File("none")));
    EXPECT_EQ(-13, Load(store, folder.File("none/none")));
    EXPECT_EQ(1.0, store.GetDouble(L"v", 0.0)); // unchanged
    EXPECT_EQ(0, store.LoadFromFile(CQsStringW::FromUtf8(folder.File("none")).c_str(), true, true));
    EXPECT_EQ(0u, store.GetEntryCount());
    // Nobody is told of a fault: a first start has no settings yet.
    EXPECT_EQ(0u, QsStandalone::CQsDiagnosticLog::MemoryLines().size());
}

TEST(SettingsFile, IsAlwaysTheFileOfNow)
{
    const CTemporaryFolder folder;
    const std::string path = folder.File("file");
    CQsLiteVariantW one, two;
    one.SetDouble(L"v", 1.0);
    two.SetDouble(L"v", 2.0);
    ASSERT_EQ(0, Save(CQsLiteVariantR(one), folder.File("one")));
    ASSERT_EQ(0, Save(CQsLiteVariantR(two), folder.File("two")));
    ASSERT_EQ(ContentsOf(folder.File("one")).size(), ContentsOf(folder.File("two")).size());
    const auto time = std::filesystem::last_write_time(folder.File("one"));
    CQsLiteVariantR loaded;
    for (int i = 0; i < 4; ++i)
    {
        // As long as the other and of the same time: only its bytes tell.
        folder.Write("file", ContentsOf(folder.File(i % 2 == 0 ? "one" : "two")));
        std::filesystem::last_write_time(path, time);
        ASSERT_EQ(0, Load(loaded, path));
        EXPECT_EQ(i % 2 == 0 ? 1.0 : 2.0, loaded.GetDouble(L"v", 0.0));
        ASSERT_EQ(0, Load(loaded, path));
        EXPECT_EQ(i % 2 == 0 ? 1.0 : 2.0, loaded.GetDouble(L"v", 0.0));
    }
}

TEST(SettingsFile, EditedByHandIsTakenWithoutItsEndSumAndRefusedWithIt)
{
    const CTemporaryFolder folder;
    CQsLiteVariantR store;
    const std::string head = "{\"format\": \"stimulation-settings\",\"version\": 1,\"entries\": [ {\"v\" : 1.50e0}\n]";
    folder.Write("edited", head + "}");
    ASSERT_EQ(0, Load(store, folder.File("edited")));
    EXPECT_EQ(1.5, store.GetDouble(L"v", 0.0));

    folder.Write("summed", head + ",\"sum\": \"0123456789abcdef\"}\n");
    CQsLiteVariantR other;
    QsStandalone::CQsDiagnosticLog::ToMemory(true);
    EXPECT_EQ(-9, Load(other, folder.File("summed")));
    EXPECT_EQ(0u, other.GetEntryCount());
    EXPECT_EQ(folder.File("summed") + ":2: expected the end sum " + EndSum(head + ",") +
                  " and a line end, found 0123456789abcdef: the file was cut or altered",
              QsStandalone::CQsDiagnosticLog::MemoryLines().back().text.ToUtf8());
    EXPECT_EQ(0, Load(other, folder.File("summed"), false));
    EXPECT_EQ(1.5, other.GetDouble(L"v", 0.0));
    EXPECT_EQ(-9, Load(other, folder.File("summed"))); // having let it through once changes nothing
}

TEST(SettingsFile, KeepsWhatItReplacesWhenAsked)
{
    const CTemporaryFolder folder;
    const CQsStringW path = CQsStringW::FromUtf8(folder.File("file"));
    CQsLiteVariantW writer;
    ASSERT_EQ(0, CQsLiteVariantR(writer).SaveToFile(path.c_str(), false, false, true));
    EXPECT_FALSE(std::filesystem::exists(folder.File("file.bak"))); // there was nothing
    const std::string first = ContentsOf(folder.File("file"));
    for (const double number : {1.0, 2.0})
    {
        const std::string before = ContentsOf(folder.File("file"));
        writer.SetDouble(L"v", number);
        ASSERT_EQ(0, CQsLiteVariantR(writer).SaveToFile(path.c_str(), false, false, true));
        EXPECT_EQ(before, ContentsOf(folder.File("file.bak")));
        EXPECT_NE(before, ContentsOf(folder.File("file")));
    }
}

TEST(Settings, FindLevelsAndValuesAmongThousands)
{
    CQsLiteVariantW writer;
    constexpr int count = 10000;
    for (int i = 0; i < count; ++i)
    {
        writer.OpenLevel(std::to_wstring(i % (count / 2)).c_str()); // each name twice
        writer.SetUnsigned(L"i", static_cast<std::uint32_t>(i));
        writer.CloseLevel();
        writer.OpenLevel(L"");
        writer.SetUnsigned(L"i", static_cast<std::uint32_t>(i));
        writer.CloseLevel();
        writer.SetUnsigned((L"v" + std::to_wstring(i)).c_str(), static_cast<std::uint32_t>(i));
        writer.SetUnsigned(L"17", static_cast<std::uint32_t>(i)); // a value called like a level
    }
    CQsLiteVariantR reader(writer);
    EXPECT_EQ(3u * count + 1, reader.GetEntryCount());
    for (int i = 0; i < count; ++i)
    {
        EXPECT_EQ(i, reader.GetInt((L"v" + std::to_wstring(i)).c_str(), -1));
        EXPECT_EQ(i < count / 2, reader.EnterLevel(std::to_wstring(i).c_str())) << i;
        if (i < count / 2)
        {
            EXPECT_EQ(i, reader.GetInt(L"i", -1)); // the first of the two
            reader.LeaveLevel();
        }
    }
    EXPECT_EQ(count - 1, reader.GetInt(L"17", -1));
    ASSERT_TRUE(reader.EnterLevel(L""));
    EXPECT_EQ(0, reader.GetInt(L"i", -1));
    EXPECT_FALSE(reader.EnterEntry(0)); // a value
    EXPECT_FALSE(reader.EnterEntry(1));
    EXPECT_FALSE(reader.EnterEntry(static_cast<std::size_t>(-1)));
    EXPECT_EQ(0, reader.GetInt(L"i", -1)); // still there
}

} // namespace

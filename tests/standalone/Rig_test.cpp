#include "standalone/Rig.h"

#include "standalone/RigSchema.h"
#include "tests/support/TemporaryFolder.h"

#include <gmock/gmock.h>

#include <algorithm>

using namespace QsStandalone;
using QsTest::ContentsOf;
using QsTest::CTemporaryFolder;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::StartsWith;

namespace {

const std::string head = "{\"format\": \"stimulation-rig\", \"version\": 1";

// The message for a rig of that text, without the path in front of it; empty when it is taken.
std::string Complaint(const std::string& text)
{
    const CTemporaryFolder folder;
    const std::string path = folder.Write("rig.json", text);
    SRig rig;
    rig.name = "untouched";
    std::string error;
    if (ReadRig(path, rig, error))
        return {};
    EXPECT_EQ("untouched", rig.name);
    EXPECT_EQ(path, error.substr(0, path.size()));
    return error.substr(path.size());
}

// Of a rig with this member on its second line.
std::string ComplaintAbout(const std::string& member)
{
    return Complaint(head + ",\n" + member + "}");
}

std::string ShutterWith(const std::string& members)
{
    return "\"shutters\": [{\"id\": 1, \"name\": \"Lamp\",\n" + members + "}]";
}

// One line "rig.json:<line>: expected ..., found ...".
bool IsOneComplaint(const std::string& error, const std::string& path)
{
    if (error.compare(0, path.size() + 1, path + ":") != 0 || error.find('\n') != std::string::npos)
        return false;
    std::size_t at = path.size() + 1;
    const std::size_t digits = at;
    while (at < error.size() && error[at] >= '0' && error[at] <= '9')
        ++at;
    return at > digits && error.compare(at, 11, ": expected ") == 0 && error.find(", found ", at) != std::string::npos;
}

} // namespace

TEST(Rig, ReadsEveryKey)
{
    const CTemporaryFolder folder;
    const std::string path = folder.Write("rig.json", R"({ // a comment
        "format": "stimulation-rig", "version": 1, "name": "Mikroskop \u00e4",
        "moduleFolders": ["modules", ")" QS_SOURCE R"(/x/../y"], "translations": "words.json",
        "shutters": [
            {"id": 4294967295, "physicalId": 101, "databaseId": 11, "name": "Lamp", "openLatencyMs": 4,
             "closeLatencyMs": 3.5, "jitterMs": 0.5, "jitterSeed": 7, "connected": false, "light": false,
             "faults": {"refuse": {"fromCall": 3, "toCall": 4}, "hang": {"atCall": 5, "ms": 1000},
                        "dropOut": {"atCall": 9}}},
            {"id": 2, "name": "Laser", "faults": {"refuse": {"fromCall": 2}}}],
        "stimulationShutters": [{"shutter": 2, "list": "list"}, {"shutter": 4294967295}],
        "logicalDevices": [{"id": 20, "physicalId": 120, "databaseId": 30}, {"id": 21}],
        "devices": [{"class": "CQsA", "list": "static", "name": "A", "settings": {"b": [1, 2.5, "x", null, true]}},
                    {"class": "CQsB"}]
    })");
    SRig rig;
    std::string error;
    ASSERT_TRUE(ReadRig(path, rig, error)) << error;
    EXPECT_EQ(path, rig.path);
    EXPECT_EQ("Mikroskop \xC3\xA4", rig.name);
    EXPECT_THAT(rig.moduleFolders, ElementsAre(folder.File("modules"), QS_SOURCE "/y"));
    EXPECT_EQ(folder.File("words.json"), rig.translations);

    ASSERT_EQ(2u, rig.shutters.size());
    const SShutterSetup& lamp = rig.shutters[0];
    EXPECT_EQ(4294967295u, lamp.logDevId);
    EXPECT_EQ(101u, lamp.physDevId);
    EXPECT_EQ(11, lamp.databaseId);
    EXPECT_EQ("Lamp", lamp.name);
    EXPECT_EQ(4.0, lamp.openLatencyMs);
    EXPECT_EQ(3.5, lamp.closeLatencyMs);
    EXPECT_EQ(0.5, lamp.jitterMs);
    EXPECT_EQ(7u, lamp.jitterSeed);
    EXPECT_FALSE(lamp.connected);
    EXPECT_FALSE(lamp.lightOnWhenOpen);
    EXPECT_EQ(3u, lamp.refuseFromCall);
    EXPECT_EQ(4u, lamp.refuseToCall);
    EXPECT_EQ(5u, lamp.hangAtCall);
    EXPECT_EQ(1000.0, lamp.hangMs);
    EXPECT_EQ(9u, lamp.dropOutAtCall);
    const SShutterSetup& laser = rig.shutters[1];
    EXPECT_EQ(2u, laser.refuseFromCall);
    EXPECT_EQ(SShutterSetup::never, laser.refuseToCall);

    ASSERT_EQ(2u, rig.stimulationShutters.size());
    EXPECT_EQ(2u, rig.stimulationShutters[0].logDevId);
    EXPECT_EQ("list", rig.stimulationShutters[0].list);
    EXPECT_EQ("simple", rig.stimulationShutters[1].list);
    ASSERT_EQ(2u, rig.logicalDevices.size());
    EXPECT_EQ(20u, rig.logicalDevices[0].logDevId);
    EXPECT_EQ(120u, rig.logicalDevices[0].physDevId);
    EXPECT_EQ(30, rig.logicalDevices[0].databaseId);
    EXPECT_EQ(0u, rig.logicalDevices[1].physDevId);
    ASSERT_EQ(2u, rig.devices.size());
    EXPECT_EQ("CQsA", rig.devices[0].className);
    EXPECT_EQ("static", rig.devices[0].list);
    EXPECT_EQ("A", rig.devices[0].name);
    EXPECT_EQ("{\"b\":[1,2.5,\"x\",null,true]}", rig.devices[0].settings);
    EXPECT_EQ("simple", rig.devices[1].list);
    EXPECT_EQ("", rig.devices[1].name);
    EXPECT_EQ("{}", rig.devices[1].settings);
}

TEST(Rig, ReadsCamerasAndWhatTheMicroscopeIsSetTo)
{
    const CTemporaryFolder folder;
    const std::string path = folder.Write("rig.json", head + R"(,
        "cameras": [{"class": "CQsCamera", "name": "Front", "settings": {"width": 640}}, {"class": "CQsCamera"}],
        "microscope": {"name": "Ti", "objective": "Plan 20x", "manualZoom": 1.5, "lights": ["Lamp", "Diode \u00e4"],
                       "filterChangers": [{"key": "FW1", "name": "GFP", "position": 2}, {"key": "FW2"}],
                       "multilasers": [{"name": "488", "number": 4294967295}, {"name": "561"}],
                       "illuminatorPort": -3}})");
    SRig rig;
    std::string error;
    ASSERT_TRUE(ReadRig(path, rig, error)) << error;
    ASSERT_EQ(2u, rig.cameras.size());
    EXPECT_EQ("CQsCamera", rig.cameras[0].className);
    EXPECT_EQ("Front", rig.cameras[0].name);
    EXPECT_EQ("{\"width\":640}", rig.cameras[0].settings);
    EXPECT_EQ("", rig.cameras[1].name);
    EXPECT_EQ("{}", rig.cameras[1].settings);

    const SQsDMApiHardware& hardware = rig.hardware;
    EXPECT_EQ(L"Ti", hardware.sMicroscope.Std());
    EXPECT_EQ(L"Plan 20x", hardware.sObjective.Std());
    EXPECT_EQ(1.5, hardware.dManualZoom);
    EXPECT_THAT(hardware.lights, ElementsAre(CQsStringW(L"Lamp"), CQsStringW(L"Diode \u00e4")));
    ASSERT_EQ(2u, hardware.filterChangers.size());
    EXPECT_EQ(L"FW1", hardware.filterChangers[0].sKey.Std());
    EXPECT_EQ(L"GFP", hardware.filterChangers[0].sName.Std());
    EXPECT_EQ(2, hardware.filterChangers[0].iPosition);
    EXPECT_EQ(L"FW2", hardware.filterChangers[1].sKey.Std());
    EXPECT_EQ(L"", hardware.filterChangers[1].sName.Std());
    EXPECT_EQ(0, hardware.filterChangers[1].iPosition);
    ASSERT_EQ(2u, hardware.multilasers.size());
    EXPECT_EQ(L"488", hardware.multilasers[0].sName.Std());
    EXPECT_EQ(4294967295u, hardware.multilasers[0].uiNumber);
    EXPECT_EQ(0u, hardware.multilasers[1].uiNumber);
    EXPECT_TRUE(hardware.bIlluminatorConnected);
    EXPECT_EQ(-3, hardware.iIlluminatorPort);
}

TEST(Rig, HasNoMicroscopeAndNoIlluminatorUnlessItSaysSo)
{
    const CTemporaryFolder folder;
    std::string error;
    for (const char* const members : {"", ", \"microscope\": {}"})
    {
        SRig rig;
        rig.hardware.bIlluminatorConnected = true;
        rig.hardware.sMicroscope = L"old";
        ASSERT_TRUE(ReadRig(folder.Write("rig.json", head + members + "}"), rig, error)) << error;
        EXPECT_THAT(rig.cameras, IsEmpty());
        EXPECT_TRUE(rig.hardware.sMicroscope.IsEmpty());
        EXPECT_TRUE(rig.hardware.sObjective.IsEmpty());
        EXPECT_EQ(0.0, rig.hardware.dManualZoom);
        EXPECT_THAT(rig.hardware.lights, IsEmpty());
        EXPECT_FALSE(rig.hardware.bIlluminatorConnected);
        EXPECT_EQ(0, rig.hardware.iIlluminatorPort);
    }
}

TEST(Rig, NamesWhatIsWrongWithCamerasAndTheMicroscope)
{
    EXPECT_EQ(":2: expected the key \"class\" in this object, found none", ComplaintAbout("\"cameras\": [{}]"));
    EXPECT_EQ(":2: expected a camera name of its own, found \"a\" as in line 2",
              ComplaintAbout(R"("cameras": [{"class": "C", "name": "a"}, {"class": "D", "name": "a"}])"));
    EXPECT_EQ(":2: expected a filter changer's key of its own, found \"F\" as in line 2",
              ComplaintAbout(R"("microscope": {"filterChangers": [{"key": "F"}, {"key": "F"}]})"));
    EXPECT_EQ(":2: expected \"manualZoom\" to be a number from 0 to 1000, found -1",
              ComplaintAbout(R"("microscope": {"manualZoom": -1})"));
    EXPECT_EQ(":2: expected every item of \"lights\" to be a text of 1 to 100 bytes, found \"\"",
              ComplaintAbout(R"("microscope": {"lights": [""]})"));
    EXPECT_EQ(":2: expected \"illuminatorPort\" to be a whole number from -2147483648 to 2147483647, found 1.5",
              ComplaintAbout(R"("microscope": {"illuminatorPort": 1.5})"));
}

TEST(Rig, GivesAbsentKeysTheDefaultsOfAShutter)
{
    const CTemporaryFolder folder;
    SRig rig;
    rig.devices.resize(3);
    std::string error;
    const std::string path =
        folder.Write("rig.json", "\xEF\xBB\xBF" + head + ", \"shutters\": [{\"id\": 5, \"name\": \"x\"}]}");
    ASSERT_TRUE(ReadRig(path, rig, error)) << error;
    EXPECT_THAT(rig.devices, IsEmpty());
    EXPECT_EQ("", rig.translations);
    ASSERT_EQ(1u, rig.shutters.size());
    const SShutterSetup& shutter = rig.shutters[0];
    const SShutterSetup defaults;
    EXPECT_EQ(defaults.physDevId, shutter.physDevId);
    EXPECT_EQ(defaults.databaseId, shutter.databaseId);
    EXPECT_EQ(defaults.connected, shutter.connected);
    EXPECT_EQ(defaults.lightOnWhenOpen, shutter.lightOnWhenOpen);
    EXPECT_EQ(defaults.openLatencyMs, shutter.openLatencyMs);
    EXPECT_EQ(defaults.closeLatencyMs, shutter.closeLatencyMs);
    EXPECT_EQ(defaults.jitterMs, shutter.jitterMs);
    EXPECT_EQ(defaults.jitterSeed, shutter.jitterSeed);
    EXPECT_EQ(defaults.refuseFromCall, shutter.refuseFromCall);
    EXPECT_EQ(defaults.refuseToCall, shutter.refuseToCall);
    EXPECT_EQ(defaults.hangAtCall, shutter.hangAtCall);
    EXPECT_EQ(defaults.dropOutAtCall, shutter.dropOutAtCall);
}

TEST(Rig, ReadsTheExamples)
{
    for (const char* name : {"demo.json", "beampaths.json", "faults.json"})
    {
        SRig rig;
        std::string error;
        EXPECT_TRUE(ReadRig(std::string(QS_SOURCE "/examples/rigs/") + name, rig, error)) << error;
        EXPECT_GE(rig.shutters.size(), 3u) << name;
        EXPECT_GE(rig.devices.size(), 3u) << name;
    }
}

TEST(Rig, NamesAnUnknownKeyWithItsLine)
{
    EXPECT_EQ(":2: expected one of the keys format, version, name, moduleFolders, shutters, stimulationShutters, "
              "logicalDevices, devices, cameras, microscope, translations, deviceDatabase, found \"shuters\"",
              ComplaintAbout("\"shuters\": []"));
    EXPECT_THAT(ComplaintAbout(ShutterWith("\n\"openLatency\": 3")),
                testing::AllOf(StartsWith(":4: expected one of the keys id, physicalId, "),
                               testing::EndsWith(", found \"openLatency\"")));
}

TEST(Rig, NamesAWrongType)
{
    EXPECT_EQ(":2: expected \"shutters\" to be a list of objects, found an object", ComplaintAbout("\"shutters\": {}"));
    EXPECT_EQ(":3: expected \"connected\" to be true or false, found 1",
              ComplaintAbout(ShutterWith("\"connected\": 1")));
    EXPECT_EQ(":3: expected \"openLatencyMs\" to be a number from 0 to 60000 ms, found \"4\"",
              ComplaintAbout(ShutterWith("\"openLatencyMs\": \"4\"")));
    EXPECT_EQ(":2: expected \"name\" to be a text of 0 to 100 bytes without control characters, found null",
              ComplaintAbout("\"name\": null"));
    EXPECT_EQ(":2: expected an object of the keys id, physicalId, databaseId, found a list",
              ComplaintAbout("\"logicalDevices\": [[]]"));
    EXPECT_EQ(":3: expected every item of \"moduleFolders\" to be a text of 1 to 4096 bytes, found 5",
              ComplaintAbout("\"moduleFolders\": [\"a\",\n5]"));
    EXPECT_EQ(":1: expected an object of the keys format, version, name, moduleFolders, shutters, stimulationShutters, "
              "logicalDevices, devices, cameras, microscope, translations, deviceDatabase, found a list",
              Complaint("[]"));
    EXPECT_EQ(":2: expected \"settings\" to be an object, found a list",
              ComplaintAbout("\"devices\": [{\"class\": \"A\", \"settings\": []}]"));
}

TEST(Rig, NamesAMissingKey)
{
    EXPECT_EQ(":1: expected the key \"format\" in this object, found none", Complaint("{}"));
    EXPECT_EQ(":1: expected the key \"version\" in this object, found none",
              Complaint("{\"format\": \"stimulation-rig\"}"));
    EXPECT_EQ(":3: expected the key \"name\" in this object, found none",
              ComplaintAbout("\"shutters\": [\n{\"id\": 1}]"));
}

TEST(Rig, NamesAnotherFormatOrVersion)
{
    EXPECT_EQ(":1: expected \"format\" to be \"stimulation-rig\", found \"rig\"", Complaint("{\"format\": \"rig\"}"));
    EXPECT_EQ(":1: expected \"version\" to be the number 1, found 2",
              Complaint("{\"format\": \"stimulation-rig\", \"version\": 2}"));
}

TEST(Rig, NamesANumberThatIsImpossible)
{
    EXPECT_EQ(":3: expected \"openLatencyMs\" to be a number from 0 to 60000 ms, found -1",
              ComplaintAbout(ShutterWith("\"openLatencyMs\": -1")));
    EXPECT_EQ(":2: expected \"id\" to be a whole number from 1 to 4294967295, found 0",
              ComplaintAbout("\"shutters\": [{\"id\": 0}]"));
    EXPECT_EQ(":2: expected \"id\" to be a whole number from 1 to 4294967295, found 4294967296",
              ComplaintAbout("\"shutters\": [{\"id\": 4294967296}]"));
    EXPECT_EQ(":2: expected \"id\" to be a whole number from 1 to 4294967295, found 1.5",
              ComplaintAbout("\"shutters\": [{\"id\": 1.5}]"));
    EXPECT_EQ(":3: expected a JSON value, found \"NaN\"", ComplaintAbout(ShutterWith("\"jitterMs\": NaN")));
    EXPECT_EQ(":3: expected a JSON value, found \"Infinity\"", ComplaintAbout(ShutterWith("\"jitterMs\": Infinity")));
    EXPECT_THAT(ComplaintAbout(ShutterWith("\"jitterMs\": 1e999")),
                StartsWith(":3: expected a number that a double can hold, found "));
    EXPECT_EQ(":4: expected \"toCall\" to be at least \"fromCall\", 3, found 2",
              ComplaintAbout(ShutterWith("\"faults\": {\"refuse\": {\"fromCall\": 3,\n\"toCall\": 2}}")));
}

TEST(Rig, NamesAListThatIsNotOneOfItsChoices)
{
    EXPECT_EQ(":2: expected \"list\" to be one of \"simple\", \"special\", \"option\", \"static\", found \"statik\"",
              ComplaintAbout("\"devices\": [{\"class\": \"A\", \"list\": \"statik\"}]"));
    EXPECT_EQ(":3: expected \"list\" to be one of \"simple\", \"list\", found \"simple|list\"",
              ComplaintAbout("\"stimulationShutters\": [{\"shutter\": 1,\n\"list\": \"simple|list\"}]"));
}

TEST(Rig, NamesADuplicateWithBothLines)
{
    EXPECT_EQ(":4: expected a logical device id of its own, found 1 as in line 2",
              ComplaintAbout(ShutterWith("\"light\": true") + ",\n\"logicalDevices\": [{\"id\": 1}]"));
    EXPECT_EQ(":3: expected a shutter name of its own, found \"x\" as in line 2",
              ComplaintAbout("\"shutters\": [{\"id\": 1, \"name\": \"x\"},\n{\"id\": 2, \"name\": \"x\"}]"));
    EXPECT_EQ(":3: expected a database id of its own, found 7 as in line 2",
              ComplaintAbout("\"logicalDevices\": [{\"id\": 1, \"databaseId\": 7},\n{\"id\": 2, \"databaseId\": 7}]"));
    EXPECT_EQ(":3: expected a device name of its own, found \"x\" as in line 2",
              ComplaintAbout("\"devices\": [{\"class\": \"A\", \"name\": \"x\"},\n"
                             "{\"class\": \"B\", \"name\": \"x\"}]"));
    EXPECT_EQ(":3: expected a static device's class of its own, found \"A\" as in line 2",
              ComplaintAbout("\"devices\": [{\"class\": \"A\", \"list\": \"static\"},\n"
                             "{\"class\": \"A\", \"list\": \"static\"}]"));
    EXPECT_EQ(":4: expected a shutter of its own, found 1 as in line 4",
              ComplaintAbout(ShutterWith("\"light\": true") +
                             ",\n\"stimulationShutters\": [{\"shutter\": 1}, {\"shutter\": 1}]"));
    EXPECT_EQ("", ComplaintAbout("\"devices\": [{\"class\": \"A\", \"list\": \"static\"}, {\"class\": \"A\"}]"));
    EXPECT_EQ("", ComplaintAbout("\"logicalDevices\": [{\"id\": 1, \"databaseId\": 0},"
                                 "{\"id\": 2, \"databaseId\": 0}]"));
}

TEST(Rig, NamesAKeyThatStandsTwice)
{
    EXPECT_EQ(":3: expected each key once in an object, found \"name\" again",
              ComplaintAbout("\"name\": \"a\",\n\"name\": \"b\""));
    EXPECT_EQ(":3: expected each key once in an object, found \"a\" again",
              ComplaintAbout("\"devices\": [{\"class\": \"A\", \"settings\": {\"a\": 1,\n\"a\": 2}}]"));
}

TEST(Rig, NamesAStimulationShutterThatIsNoShutter)
{
    EXPECT_EQ(":3: expected the id of a shutter of this file, found 9",
              ComplaintAbout("\"logicalDevices\": [{\"id\": 9}],\n\"stimulationShutters\": [{\"shutter\": 9}]"));
}

TEST(Rig, NamesWhereItIsNotJson)
{
    EXPECT_EQ(":1: expected a JSON object, found an empty file", Complaint(""));
    EXPECT_THAT(Complaint("\n  // nothing\n"), testing::EndsWith("expected a JSON object, found an empty file"));
    EXPECT_EQ(":2: expected the end of the file, found \"x\"", Complaint(head + "}\nx"));
    EXPECT_EQ(":2: expected a key in quotes, found \"name\"", Complaint(head + ",\nname: 1}"));
    EXPECT_EQ(":2: expected \":\" after a key, found \"1\"", Complaint(head + ",\n\"name\" 1}"));
    EXPECT_EQ(":2: expected \",\" or \"}\" after a member of an object, found the end of the file",
              Complaint(head + ",\n\"name\": \"x\""));
    EXPECT_EQ(":2: expected \",\" or \"]\" after an item of a list, found \"}\"",
              ComplaintAbout("\"moduleFolders\": [\"a\"}"));
    EXPECT_EQ(":2: expected a JSON value, found \"yes\"", ComplaintAbout("\"name\": yes"));
    EXPECT_THAT(ComplaintAbout("\"name\": \"\\x\""),
                StartsWith(":2: expected an escape that JSON knows in a text, found"));
    EXPECT_THAT(ComplaintAbout("\"name\": \"\\u12"), StartsWith(":2: expected a whole \\u escape in a text, found"));
    EXPECT_THAT(ComplaintAbout("\"name\": \"x"), StartsWith(":2: expected the quote that ends a text, found"));
    EXPECT_THAT(ComplaintAbout("\"name\": \"x\ny\""), StartsWith(":2: expected "));
    EXPECT_THAT(ComplaintAbout("\"name\": 1."), StartsWith(":2: expected digits after the decimal point, found"));
    EXPECT_THAT(ComplaintAbout("\"name\": 1e"), StartsWith(":2: expected digits of an exponent, found"));
}

TEST(Rig, NamesBytesThatAreNoText)
{
    EXPECT_EQ(":2: expected text in UTF-8, found other bytes", ComplaintAbout("\"name\": \"\xE4\""));
    EXPECT_EQ(":2: expected text in UTF-8, found other bytes", ComplaintAbout("// \xC0\xAF overlong"));
    EXPECT_EQ(":2: expected text, found a zero byte", Complaint(head + ",\n" + std::string(1, '\0') + "}"));
    EXPECT_EQ(":2: expected \"name\" to be a text of 0 to 100 bytes without control characters, found \"a?b\"",
              ComplaintAbout("\"name\": \"a\\nb\""));
}

TEST(Rig, NamesNestingThatIsTooDeep)
{
    // The rig, its list, the device and its settings are four levels.
    const auto settings = [](std::size_t depth)
    {
        return "\"devices\": [{\"class\": \"A\", \"settings\":\n{\"a\": " + std::string(depth, '[') +
               std::string(depth, ']') + "}}]";
    };
    EXPECT_EQ("", ComplaintAbout(settings(60)));
    EXPECT_EQ(":3: expected nesting of at most 64 levels, found more", ComplaintAbout(settings(61)));
    EXPECT_EQ(":1: expected nesting of at most 64 levels, found more", Complaint(std::string(100000, '[')));
}

TEST(Rig, NamesAFileThatCannotBeRead)
{
    const CTemporaryFolder folder;
    SRig rig;
    std::string error;
    EXPECT_FALSE(ReadRig(folder.File("none.json"), rig, error));
    EXPECT_EQ(folder.File("none.json") + ":1: expected a file that can be read, found none", error);
    EXPECT_FALSE(ReadRig(folder.Path(), rig, error));
    EXPECT_TRUE(IsOneComplaint(error, folder.Path())) << error;
    const std::string large = folder.Write("large.json", std::string((std::size_t{4} << 20) + 1, ' '));
    EXPECT_FALSE(ReadRig(large, rig, error));
    EXPECT_EQ(large + ":1: expected a file of at most 4 MiB, found a longer one", error);
}

TEST(Rig, CutsWhatItFoundToOneShortLine)
{
    const std::string message = ComplaintAbout("\"format2\": 1, \"" + std::string(5000, 'k') + "\": 1");
    EXPECT_LT(message.size(), 400u);
    // The cut does not split a character: 59 letters and a letter of two bytes that would be the 60th.
    const std::string cut = ComplaintAbout("\"" + std::string(59, 'k') + "\xC3\xA4yyy\": 1");
    EXPECT_THAT(cut, testing::EndsWith("found \"" + std::string(59, 'k') + "...\""));
}

TEST(Rig, ComplainsOnceAboutEveryTruncationAndNeverCrashes)
{
    const std::string demo = ContentsOf(QS_SOURCE "/examples/rigs/demo.json");
    const std::size_t end = demo.rfind('}');
    ASSERT_NE(std::string::npos, end);
    const CTemporaryFolder folder;
    for (std::size_t length = 0; length <= end; ++length)
    {
        const std::string path = folder.Write("rig.json", demo.substr(0, length));
        SRig rig;
        std::string error;
        ASSERT_FALSE(ReadRig(path, rig, error)) << length;
        ASSERT_TRUE(IsOneComplaint(error, path)) << length << ": " << error;
    }
}

TEST(Rig, TakesOrComplainsOnceAboutEveryDamagedByteAndNeverCrashes)
{
    const std::string demo = ContentsOf(QS_SOURCE "/examples/rigs/demo.json");
    ASSERT_FALSE(demo.empty());
    const CTemporaryFolder folder;
    unsigned refused = 0;
    for (std::size_t position = 0; position < demo.size(); ++position)
        for (const unsigned flip : {0x01u, 0x20u, 0x80u})
        {
            std::string damaged = demo;
            damaged[position] = static_cast<char>(static_cast<unsigned char>(damaged[position]) ^ flip);
            const std::string path = folder.Write("rig.json", damaged);
            SRig rig;
            std::string error;
            if (ReadRig(path, rig, error))
                continue;
            ++refused;
            ASSERT_TRUE(IsOneComplaint(error, path)) << position << " ^ " << flip << ": " << error;
        }
    // A byte with its highest bit set is no text, wherever it stands.
    EXPECT_GE(refused, demo.size());
}

TEST(Rig, IsDocumentedByTheTableThatChecksIt)
{
    std::string documentation = ContentsOf(QS_SOURCE "/docs/formats.md");
    EXPECT_NE(std::string::npos, documentation.find(RigSchemaMarkdown())) << RigSchemaMarkdown();
}

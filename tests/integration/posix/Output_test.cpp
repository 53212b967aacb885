// Where the output goes when it does not go to a plain file.
#include "tests/integration/Stimhost.h"

#include <gmock/gmock.h>

#include <filesystem>
#include <future>

#include <sys/stat.h>

using testing::HasSubstr;

namespace fs = std::filesystem;

namespace {

class Output : public StimhostTest
{
protected:
    // Runs stimhost with the shell's redirections.
    SOutcome InShell(const std::string& arguments, const std::string& redirection)
    {
        return RunProgram("/bin/sh", {"-c", "exec " QS_STIMHOST " --registry '" + Path("registry") + "' " + arguments +
                                                " " + redirection});
    }

    std::string Pipe(const std::string& name)
    {
        EXPECT_EQ(0, mkfifo(Path(name).c_str(), 0600));
        return Path(name);
    }
};

} // namespace

TEST_F(Output, ThatIsLostGetsOneLineAndExitCodeTwo)
{
    for (const std::string redirection : {"> /dev/full", ">&-"})
        for (const std::string& arguments :
             {std::string("--help"), std::string("inspect " QS_MODULE), "list --rig " + ShutterRig(),
              "stimulate --duration 10 --rig " + ShutterRig()})
        {
            const SOutcome outcome = InShell(arguments, redirection);
            EXPECT_EQ(2, outcome.exitCode) << arguments << redirection;
            EXPECT_EQ(1u, LineCount(outcome.err)) << arguments << redirection << ": " << outcome.err;
            EXPECT_THAT(outcome.err, HasSubstr("stdout cannot be written: "));
        }
}

TEST_F(Output, DoesNotGoIntoTheLogWhenStdoutIsClosed)
{
    InShell("list --rig " + ShutterRig() + " --log " + Path("host.log"), ">&-");
    EXPECT_THAT(ReadWhole(Path("host.log")), testing::Not(HasSubstr("Recently used")));
}

TEST_F(Output, ReportsGoIntoAPipeAndDoNotReplaceIt)
{
    const std::string pipe = Pipe("report");
    std::future<std::string> read = std::async(std::launch::async, [&] { return ReadWhole(pipe); });
    const SOutcome outcome = Stimhost({"stimulate", "--rig", ShutterRig(), "--duration", "10", "--report", pipe});
    EXPECT_EQ(0, outcome.exitCode) << outcome.err;
    EXPECT_TRUE(fs::is_fifo(pipe));
    EXPECT_EQ(1u, ParsedJson(read.get())["phases"].Size());
}

TEST_F(Output, ThatATruncatedFileWouldHoldLeavesTheOldOne)
{
    const std::string report = File("report.json", "the old one");
    const SOutcome outcome =
        RunProgram("/bin/sh", {"-c", "ulimit -f 1; exec " QS_STIMHOST " --rig '" + ShutterRig() + "' --registry '" +
                                         Path("registry") + "' stimulate --duration 1 --repetitions 20 --report '" +
                                         report + "'"});
    EXPECT_EQ(2, outcome.exitCode) << outcome.err;
    EXPECT_THAT(outcome.err, HasSubstr(report + ": cannot be written"));
    EXPECT_EQ("the old one", ReadWhole(report));
}

// No file may grow, and none be written beyond its first blocks: as on a full disk.
TEST_F(Output, ThatADatabaseHasNoRoomForIsNotSaidToBeStored)
{
    const std::string database = BeampathDatabase();
    ASSERT_EQ(0, Stimhost({"oc", "set", "Both:old", "--rig", BeampathRig(), "--database", database}).exitCode);
    const SOutcome outcome =
        RunProgram("/bin/sh", {"-c", "ulimit -f 1; exec " QS_STIMHOST " --registry '" + Path("registry") + "' --rig '" +
                                         BeampathRig() + "' --database '" + database + "' oc set Late:new"});
    EXPECT_EQ(2, outcome.exitCode) << outcome.err;
    EXPECT_THAT(outcome.err, HasSubstr("\"Late:new\" cannot be stored: "));
    EXPECT_EQ("", outcome.out);
    const SOutcome shown = Stimhost({"oc", "show", "--rig", BeampathRig(), "--database", database, "--json"});
    EXPECT_STREQ("Both:old", ParsedJson(shown.out)["stored"].GetString());
}

TEST_F(Output, PipesInPlaceOfInputAreNotWaitedFor)
{
    const std::string pipe = Pipe("pipe");
    for (const std::vector<std::string>& arguments :
         {std::vector<std::string>{"list", "--rig", pipe}, {"rig", "check", pipe}, {"list", "--log", pipe}})
    {
        const SOutcome outcome = Stimhost(arguments);
        EXPECT_EQ(2, outcome.exitCode) << arguments[1];
        EXPECT_EQ(1u, LineCount(outcome.err)) << outcome.err;
        EXPECT_THAT(outcome.err, HasSubstr(pipe));
    }
}

// A registry that is a file, where a folder is expected.
TEST_F(Output, ThatTheRegistryDoesNotTakeIsNotSaidToBeSaved)
{
    const std::string inTheWay = File("file", "no folder");
    const SOutcome outcome =
        RunProgram(QS_STIMHOST, {"--registry", inTheWay, "--rig", ShutterRig(), "activate", "Shutter_1", "--save"});
    EXPECT_EQ(2, outcome.exitCode);
    EXPECT_EQ(1u, LineCount(outcome.err)) << outcome.err;
    EXPECT_THAT(outcome.err, HasSubstr(inTheWay));
    EXPECT_EQ("", outcome.out);
}

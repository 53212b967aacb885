// Where the output goes when nobody takes it.
#include "platform/Win32.h"
#include "tests/integration/Stimhost.h"

#include <gmock/gmock.h>

using testing::HasSubstr;
using testing::Not;

namespace {

class Output : public StimhostTest
{
protected:
    // Runs stimhost with that in place of its standard output.
    SOutcome Into(HANDLE output, std::vector<std::string> arguments)
    {
        arguments.insert(arguments.begin(), {"--registry", Path("registry")});
        return RunProgram(QS_STIMHOST, arguments, {},
                          [output](QProcess& process)
                          {
                              process.setCreateProcessArgumentsModifier(
                                  [output](QProcess::CreateProcessArguments* start)
                                  {
                                      start->startupInfo->hStdOutput = output;
                                      // A console would take the place of an output that is missing.
                                      start->flags &= ~static_cast<unsigned long>(CREATE_NO_WINDOW);
                                      start->flags |= DETACHED_PROCESS;
                                  });
                          });
    }
};

// It can be read and not be written.
HANDLE OpenNull()
{
    SECURITY_ATTRIBUTES inherited = {sizeof inherited, nullptr, TRUE};
    return CreateFileW(L"NUL", GENERIC_READ, FILE_SHARE_READ, &inherited, OPEN_EXISTING, 0, nullptr);
}

} // namespace

TEST_F(Output, ThatIsLostGetsOneLineAndExitCodeTwo)
{
    const HANDLE unwritable = OpenNull();
    ASSERT_NE(INVALID_HANDLE_VALUE, unwritable);
    for (const HANDLE output : {unwritable, static_cast<HANDLE>(nullptr)})
        for (const std::vector<std::string>& arguments : {std::vector<std::string>{"--help"},
                                                          {"inspect", QS_MODULE},
                                                          {"list", "--rig", ShutterRig()},
                                                          {"stimulate", "--duration", "10", "--rig", ShutterRig()}})
        {
            const SOutcome outcome = Into(output, arguments);
            EXPECT_EQ(2, outcome.exitCode) << arguments[0] << " into " << output;
            EXPECT_EQ(1u, LineCount(outcome.err)) << arguments[0] << " into " << output << ": " << outcome.err;
            EXPECT_THAT(outcome.err, HasSubstr("stdout cannot be written: "));
        }
    CloseHandle(unwritable);
}

TEST_F(Output, DoesNotGoIntoTheLogWhenStdoutIsClosed)
{
    EXPECT_EQ(2, Into(nullptr, {"list", "--rig", ShutterRig(), "--log", Path("host.log")}).exitCode);
    const std::string log = ReadWhole(Path("host.log"));
    EXPECT_THAT(log, HasSubstr("StimulationDeviceManager"));
    EXPECT_THAT(log, Not(HasSubstr("Recently used")));
}

// Other systems have pipes and devices among their files; a name of one is no name of a file here.
TEST_F(Output, DoesNotGoIntoADeviceThatIsNamedInPlaceOfAFile)
{
    const SOutcome outcome = Stimhost({"stimulate", "--rig", ShutterRig(), "--duration", "10", "--report", "NUL"});
    EXPECT_EQ(2, outcome.exitCode);
    EXPECT_EQ(1u, LineCount(outcome.err)) << outcome.err;
    EXPECT_THAT(outcome.err, HasSubstr("NUL: cannot be written"));
}

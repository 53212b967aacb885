// The commands on every kind of device database that this machine has.
#include "tests/integration/Stimhost.h"
#include "tests/support/TestDatabase.h"

#include <gmock/gmock.h>

using testing::AllOf;
using testing::HasSubstr;
using testing::Not;

namespace {

constexpr char s_rig[] = QS_SOURCE "/examples/rigs/beampaths.json";

class CommandsOnDatabase : public StimhostTest, public testing::WithParamInterface<EDatabaseKind>
{
protected:
    CommandsOnDatabase() : m_database(GetParam()) {}

    SOutcome Run(std::vector<std::string> arguments)
    {
        arguments.insert(arguments.end(), {"--database", QsStandalone::DeviceDatabaseText(m_database.Setup())});
        return Stimhost(arguments);
    }

private:
    CTestDatabase m_database;
};

std::string KindOfTest(const testing::TestParamInfo<EDatabaseKind>& info)
{
    return DatabaseKindName(info.param);
}

} // namespace

INSTANTIATE_TEST_SUITE_P(On, CommandsOnDatabase, testing::ValuesIn(DatabaseKinds()), KindOfTest);

TEST_P(CommandsOnDatabase, KeepEveryPromiseOfTheDemo)
{
    ASSERT_EQ(2, Run({"demo", "--out", Path("early")}).exitCode); // nothing has made it yet
    const SOutcome imported = Run({"rig", "import", s_rig});
    ASSERT_EQ(0, imported.exitCode) << imported.err;
    const SOutcome demo = Run({"demo", "--out", Path("results")});
    EXPECT_EQ(0, demo.exitCode) << demo.out << demo.err;
    EXPECT_THAT(demo.out, AllOf(Not(HasSubstr("BROKEN")), Not(HasSubstr("skipped"))));
    EXPECT_EQ("", demo.err);
}

TEST_P(CommandsOnDatabase, FindWhatThoseBeforeThemHaveStored)
{
    ASSERT_EQ(0, Run({"rig", "import", s_rig}).exitCode);
    ASSERT_EQ(0, Run({"oc", "set", "Bleach:488 nm"}).exitCode);
    ASSERT_EQ(0, Run({"groups", "save", "--assign", "0=13", "--assign", "1=14"}).exitCode);
    const SOutcome shown = Run({"groups", "show", "--json"});
    ASSERT_EQ(0, shown.exitCode) << shown.err;
    EXPECT_STREQ("[13,14,11]", ParsedJson(shown.out)["stored"].GetString());
    const SOutcome stimulated = Run({"stimulate", "--duration", "20", "--json"});
    ASSERT_EQ(0, stimulated.exitCode) << stimulated.err;
    EXPECT_STREQ("Bleach", ParsedJson(stimulated.out)["phases"][0]["activeDevice"].GetString());
    EXPECT_EQ(3u, ParsedJson(stimulated.out)["phases"][0]["measured"].Size());
    EXPECT_EQ(0, Run({"rig", "check", s_rig}).exitCode);
}

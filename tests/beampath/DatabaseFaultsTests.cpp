// Every statement on the device database: its text, and what is reported where it cannot be prepared or executed.
#include "tests/support/BeampathFixture.h"

#include "beampath/DeviceStatements.h"

#include <ostream>

using namespace QsTest;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

namespace {

using EStage = SDatabaseFault::EStage;

struct SStatement
{
    const char* name; // of the reference value
    const SQsDeviceStatement* statement;
    const wchar_t* location;
    const char* prepareText;
    const char* execText;
    // Runs it once; its status.
    std::function<int()> run;
};

void PrintTo(const SStatement& statement, std::ostream* stream)
{
    *stream << statement.name;
}

std::string SqlOf(const char* name)
{
    for (const Json* const vector : VectorsOf("sql"))
        if (std::string(Member(*vector, "name").GetString()) == name)
            return Member(*vector, "output").GetString();
    throw std::runtime_error(std::string("no reference value of the statement ") + name);
}

int RunOnAggregator()
{
    return BeampathTest::MakeAggregator()->SetStimulationBPId(BeampathTest::s_beampath);
}

int RunOnProxy()
{
    return BeampathTest::MakeProxy()->SetStimulationSubbeampathId(51);
}

const std::vector<SStatement> s_statements = {
    {"UpdateStimulationBeampaths", &QsDeviceStatements::stimulationBeampaths,
     L"CQsStimulationDeviceManager::UpdateStimulationBeampaths",
     "Obtaining ON stimulation beampaths for current HWConfig - prepare",
     "Obtaining ON Stimulation beampaths for current HWConfig - exec", // a capital S, and above none
     [] { return BeampathTest::M().UpdateStimulationBeampaths(); }},
    {"SetStimulationOC", &QsDeviceStatements::beampathOfStimulationOC, L"CQsStimulationDeviceManager::SetStimulationOC",
     "Obtaining stimulation beampath id for active stimulation OC - prepare",
     "Obtaining stimulation beampath id for active stimulation OC - exec",
     [] { return BeampathTest::M().SetStimulationOC(L"P:C"); }},
    {"SetSystemActiveStimulationOC", &QsDeviceStatements::beampathOfSystemActiveOC,
     L"CQsStimulationDeviceManager::SetSystemActiveStimulationOC",
     "Obtaining beampath id for system active stimulation OC - prepare",
     "Obtaining beampath id for system active stimulation OC - exec",
     [] { return Access::FindSystemActiveBeampath(BeampathTest::M(), L"P:C"); }},
    {"SetStimulationBPId", &QsDeviceStatements::beampathName, L"CQsStimulationDeviceAggregator::SetStimulationBPId",
     "Obtaining stimulation BP name for id - prepare", "Obtaining stimulation BP name for id - exec", &RunOnAggregator},
    {"UpdateAggregatedDevicesAccordingToBPId", &QsDeviceStatements::mergedBeampaths,
     L"CQsStimulationDeviceAggregator::UpdateAggregatedDevicesAccordingToBPId",
     "Obtaining stimulation subbeampaths for beampath aggregator - prepare",
     "Obtaining stimulation subbeampaths for beampath aggregator - exec", &RunOnAggregator},
    {"SetStimulationSubbeampathId.device", &QsDeviceStatements::devicesOfSubbeampath,
     L"CQsStimulationDeviceProxy::SetStimulationSubbeampathId", "Obtaining stimulation device for proxy - prepare",
     "Obtaining stimulation device for proxy - exec", &RunOnProxy},
    {"SetStimulationSubbeampathId.name", &QsDeviceStatements::nameOfSubbeampath,
     L"CQsStimulationDeviceProxy::SetStimulationSubbeampathId",
     "Obtaining stimulation beampath name for proxy - prepare", "Obtaining stimulation beampath name for proxy - exec",
     &RunOnProxy}};

} // namespace

class DatabaseFaults : public BeampathTest, public ::testing::WithParamInterface<SStatement>
{
public:
    DatabaseFaults()
    {
        Off(51, "part");
        On(s_beampath, "P", "[51]");
        Write();
        M();
    }

    // The failure names the statement by its whole text, so that another one, or this one with another end, runs.
    static void FailIt(EStage stage)
    {
        Fail(stage, GetParam().location, stage == EStage::Connection ? std::string() : SqlOf(GetParam().name), 0, 1);
    }
};

TEST_P(DatabaseFaults, StatementIsTheReferenceText)
{
    EXPECT_EQ(SqlOf(GetParam().name), GetParam().statement->sql);
    EXPECT_EQ(' ', SqlOf(GetParam().name).back());
}

TEST_P(DatabaseFaults, StatementRunsWithoutAReport)
{
    GetParam().run();
    EXPECT_THAT(Reports(), IsEmpty());
}

TEST_P(DatabaseFaults, PrepareIsReportedAsAFaultOfTheStructure)
{
    FailIt(EStage::Prepare);
    GetParam().run();
    EXPECT_THAT(Reports(),
                ElementsAre(Report(CQsStringW(GetParam().location).ToUtf8().c_str(), GetParam().prepareText, true)));
}

TEST_P(DatabaseFaults, ExecIsReportedAsAFaultOfTheData)
{
    FailIt(EStage::Exec);
    GetParam().run();
    EXPECT_THAT(Reports(),
                ElementsAre(Report(CQsStringW(GetParam().location).ToUtf8().c_str(), GetParam().execText, false)));
}

TEST_P(DatabaseFaults, ConnectionIsNotReportedAndRunsNothing)
{
    Fail(EStage::Connection, GetParam().location);
    GetParam().run();
    EXPECT_THAT(Reports(), IsEmpty());
}

TEST_P(DatabaseFaults, StatusIsTheOneOfItsOperation)
{
    // A proxy keeps its device and says 0 whatever the database does; an optical configuration that cannot be looked up
    // for want of a connection says 0, too.
    const std::string name = GetParam().name;
    const bool bProxy = name.find("SetStimulationSubbeampathId") == 0;
    FailIt(EStage::Prepare);
    EXPECT_EQ(bProxy ? 0 : -9, GetParam().run());
    M().SetStimulationBeampathsDirty();
    FailIt(EStage::Exec);
    EXPECT_EQ(bProxy ? 0 : -9, GetParam().run());
    Fail(EStage::Connection, GetParam().location);
    EXPECT_EQ(bProxy || name == "SetStimulationOC" ? 0 : -9, GetParam().run());
}

TEST_P(DatabaseFaults, StatementIsRunAgainWhenTheDatabaseIsBack)
{
    FailIt(EStage::Exec);
    GetParam().run();
    FailNothing();
    CQsDeviceDatabase::ClearReports();
    GetParam().run();
    EXPECT_THAT(Reports(), IsEmpty());
    EXPECT_TRUE(HasBeampathDevice(s_beampath));
}

INSTANTIATE_TEST_SUITE_P(Each, DatabaseFaults, ::testing::ValuesIn(s_statements),
                         [](const auto& statement)
                         {
                             std::string name = statement.param.name;
                             name.erase(std::remove(name.begin(), name.end(), '.'), name.end());
                             return name;
                         });

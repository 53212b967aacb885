// The connections of threads to the device database, and the statements that run on them.
#include "tests/standalone/DatabaseTest.h"

#include "beampath/DeviceStatements.h"
#include "standalone/HostControl.h"

#include <QThread>

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <thread>

namespace {

using testing::ElementsAre;
using testing::HasSubstr;

// Holds threads until all have come.
class CMeeting
{
public:
    explicit CMeeting(unsigned expected) : m_missing(expected) {}

    void Come()
    {
        std::unique_lock<std::mutex> lock(m_lock);
        if (--m_missing == 0)
            m_allThere.notify_all();
        m_allThere.wait(lock, [this] { return m_missing == 0; });
    }

private:
    std::mutex m_lock;
    std::condition_variable m_allThere;
    unsigned m_missing;
};

int NumberOf(const DeviceDBApi::CQsAutoDeviceDB& scope, const char* statement)
{
    QSqlQuery query(scope.GetDatabase());
    return query.exec(QString::fromLatin1(statement)) && query.first() ? query.value(0).toInt() : -1;
}

// Runs one of the module's statements on a connection of the calling thread.
std::vector<std::pair<int, std::string>> Rows(const SQsDeviceStatement& statement,
                                              const std::vector<std::pair<const char*, QVariant>>& bindings)
{
    std::vector<std::pair<int, std::string>> rows;
    const DeviceDBApi::CQsAutoDeviceDB scope(L"Rows", 0);
    QSqlQuery query(scope.GetDatabase());
    EXPECT_TRUE(query.prepare(QString::fromLatin1(statement.sql))) << query.lastError().text().toStdString();
    for (const auto& [name, value] : bindings)
        query.bindValue(QString::fromLatin1(name), value);
    EXPECT_TRUE(query.exec()) << query.lastError().text().toStdString();
    while (query.next())
        rows.emplace_back(query.value(0).toInt(), query.value(1).toString().toStdString());
    return rows;
}

} // namespace

TEST(DatabaseConnection, IsNotThereWithoutADatabase)
{
    {
        const DeviceDBApi::CQsAutoDeviceDB scope(L"here", 0);
        EXPECT_FALSE(scope.IsOK());
        EXPECT_STREQ(L"here", scope.GetLocation());
    }
    SetDeviceDatabaseInitialized(true);
    {
        const DeviceDBApi::CQsAutoDeviceDB scope(L"here", 0);
        EXPECT_FALSE(scope.IsOK());
        EXPECT_TRUE(DeviceDBApi::IsInitialized());
    }
    SetDeviceDatabaseInitialized(false);
    EXPECT_FALSE(DeviceDBApi::IsInitialized());
    EXPECT_EQ(0u, CQsDeviceDatabase::ConnectionCount());
}

using DatabaseConnections = OpenDatabaseTest;
INSTANTIATE_ON_DATABASES(DatabaseConnections);

TEST_P(DatabaseConnections, AreMadeWhenAThreadFirstAsksAndThenKept)
{
    EXPECT_EQ(0u, CQsDeviceDatabase::ConnectionCount());
    for (int i = 0; i < 3; ++i)
    {
        const DeviceDBApi::CQsAutoDeviceDB scope(L"here", 0);
        ASSERT_TRUE(scope.IsOK());
        EXPECT_EQ(3, NumberOf(scope, "SELECT COUNT(*) FROM dev_BeamPath"));
        EXPECT_EQ(1u, CQsDeviceDatabase::ConnectionCount());
    }
    EXPECT_EQ(1u, CQsDeviceDatabase::ConnectionCount());
}

TEST_P(DatabaseConnections, AreSharedByTheNestedScopesOfAThread)
{
    const DeviceDBApi::CQsAutoDeviceDB outer(L"outer", 0);
    QSqlQuery query(outer.GetDatabase());
    ASSERT_TRUE(query.exec(QStringLiteral("SELECT iBeamPathID FROM dev_BeamPath ORDER BY iBeamPathID")));
    ASSERT_TRUE(query.next());
    {
        const DeviceDBApi::CQsAutoDeviceDB inner(L"inner", 0);
        ASSERT_TRUE(inner.IsOK());
        EXPECT_EQ(1u, CQsDeviceDatabase::ConnectionCount());
        EXPECT_EQ(0, DeviceDBAppHelper::SaveParam(L"nested", L"text", 3, 4)); // a third, which writes
        EXPECT_EQ(2, NumberOf(inner, "SELECT COUNT(*) FROM dev_Parameter"));
    }
    // The outer query goes on where it was.
    EXPECT_EQ(20, query.value(0).toInt());
    ASSERT_TRUE(query.next());
    EXPECT_EQ(21, query.value(0).toInt());
}

TEST_P(DatabaseConnections, AreGivenBackWhenTheirThreadsEnd)
{
    constexpr unsigned count = 8;
    CMeeting haveOne(count + 1);
    CMeeting counted(count + 1);
    std::vector<std::thread> threads;
    for (unsigned i = 0; i < count; ++i)
        threads.emplace_back(
            [&]
            {
                {
                    const DeviceDBApi::CQsAutoDeviceDB scope(L"thread", 0);
                    EXPECT_TRUE(scope.IsOK());
                    EXPECT_EQ(3, NumberOf(scope, "SELECT COUNT(*) FROM dev_BeamPath"));
                }
                haveOne.Come();
                counted.Come();
            });
    haveOne.Come();
    EXPECT_EQ(count, CQsDeviceDatabase::ConnectionCount()); // one each, also between scopes
    counted.Come();
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(0u, CQsDeviceDatabase::ConnectionCount());
}

TEST_P(DatabaseConnections, AreGivenBackWhenThreadsOfQtEnd)
{
    bool isOK = false;
    std::size_t during = 0;
    QThread* const thread = QThread::create(
        [&]
        {
            const DeviceDBApi::CQsAutoDeviceDB scope(L"thread", 0);
            isOK = scope.IsOK();
            during = CQsDeviceDatabase::ConnectionCount();
        });
    thread->start();
    ASSERT_TRUE(thread->wait(60000));
    delete thread;
    EXPECT_TRUE(isOK);
    EXPECT_EQ(1u, during);
    // Qt calls a thread finished a little before it has ended.
    while (CQsDeviceDatabase::ConnectionCount() != 0)
        std::this_thread::yield();
}

TEST_P(DatabaseConnections, AreGivenBackAfterTheDatabaseWasClosed)
{
    CMeeting haveOne(2);
    CMeeting closed(2);
    std::thread thread(
        [&]
        {
            {
                const DeviceDBApi::CQsAutoDeviceDB scope(L"thread", 0);
                EXPECT_TRUE(scope.IsOK());
            }
            haveOne.Come();
            closed.Come();
            const DeviceDBApi::CQsAutoDeviceDB scope(L"thread", 0);
            EXPECT_FALSE(scope.IsOK());
            EXPECT_EQ(0u, CQsDeviceDatabase::ConnectionCount()); // although the thread lives on
        });
    {
        const DeviceDBApi::CQsAutoDeviceDB scope(L"here", 0);
        EXPECT_TRUE(scope.IsOK());
    }
    haveOne.Come();
    EXPECT_EQ(2u, CQsDeviceDatabase::ConnectionCount());
    CQsDeviceDatabase::Close();
    EXPECT_EQ(1u, CQsDeviceDatabase::ConnectionCount());
    closed.Come();
    thread.join();
}

TEST_P(DatabaseConnections, OfAnOpenScopeOutliveTheClosing)
{
    {
        const DeviceDBApi::CQsAutoDeviceDB scope(L"here", 0);
        ASSERT_TRUE(scope.IsOK());
        CQsDeviceDatabase::Close();
        EXPECT_EQ(3, NumberOf(scope, "SELECT COUNT(*) FROM dev_BeamPath"));
        EXPECT_FALSE(DeviceDBApi::CQsAutoDeviceDB(L"inner", 0).IsOK());
        EXPECT_EQ(3, NumberOf(scope, "SELECT COUNT(*) FROM dev_BeamPath"));
    }
    EXPECT_EQ(0u, CQsDeviceDatabase::ConnectionCount());
}

TEST_P(DatabaseConnections, GoToTheDatabaseThatWasOpenedLast)
{
    const CTestDatabase other(GetParam());
    std::string error;
    ASSERT_TRUE(CQsDeviceDatabase::Create(other.Setup(), error)) << error;
    {
        const DeviceDBApi::CQsAutoDeviceDB scope(L"here", 0);
        EXPECT_EQ(3, NumberOf(scope, "SELECT COUNT(*) FROM dev_BeamPath"));
    }
    ASSERT_TRUE(CQsDeviceDatabase::Open(other.Setup(), error)) << error;
    {
        const DeviceDBApi::CQsAutoDeviceDB scope(L"here", 0);
        EXPECT_EQ(0, NumberOf(scope, "SELECT COUNT(*) FROM dev_BeamPath"));
        EXPECT_EQ(1u, CQsDeviceDatabase::ConnectionCount());
    }
    CQsDeviceDatabase::Close();
}

TEST_P(DatabaseConnections, AreThereAtOnceForAThreadThatHasOne)
{
    constexpr int count = 20000;
    double best = 1e9;
    for (int round = 0; round < 5; ++round)
    {
        const auto begin = std::chrono::steady_clock::now();
        for (int i = 0; i < count; ++i)
        {
            const DeviceDBApi::CQsAutoDeviceDB scope(L"here", 0);
            ASSERT_TRUE(scope.IsOK());
        }
        const std::chrono::duration<double, std::micro> taken = std::chrono::steady_clock::now() - begin;
        best = std::min(best, taken.count() / count);
    }
    RecordProperty("microseconds", std::to_string(best));
    EXPECT_LT(best, 100.0); // opening a connection takes a multiple; how cheap it is, a benchmark tells
}

// A beampath is chosen by setup, by kind, and by the hardware configuration before its own default.
TEST_P(DatabaseConnections, AnswerTheModulesStatementsAlike)
{
    SDatabaseContent content;
    content.setups = {{1, "One"}, {2, "Two"}};
    content.hwConfigs = {{7, 1, "Seven"}, {8, 1, "Eight"}};
    const auto beampath = [&](qs_int32 id, const char* name, qs_int32 type, bool on, qs_int32 order) {
        content.beampaths.push_back({id, 1, name, std::nullopt, type, on, order, std::nullopt, 0});
    };
    beampath(1, "P", 2, true, 5);
    beampath(2, "Q", 0, true, 0);
    beampath(3, "P", 2, true, 9);
    beampath(4, "R", 2, true, 0);
    beampath(5, "S", 2, false, 0);
    beampath(6, "T", 2, false, 0);
    beampath(9, "O", 2, true, 0);
    content.beampaths.back().setup = 2;
    content.hwConfigBeampaths = {{7, 4, 0}, {7, 5, 1}, {8, 1, 0}, {7, 3, std::nullopt}};
    content.beampaths[3].userName = "Shown";
    content.configurations = {{1, 70, 1, 0}, {1, 70, 2, 0}, {1, 71, 3, 0}, {1, 72, 10, 0}, {5, 70, 8, 0}};
    content.beampaths[0].merged = "[4, 5]";
    Import(content);

    using namespace QsDeviceStatements;
    EXPECT_THAT(Rows(stimulationBeampaths, {{":iSetupID", 1}, {":iHWConfigID", 7}}),
                testing::UnorderedElementsAre(std::pair(1, "P"), std::pair(3, "P"), std::pair(5, "S")));
    EXPECT_THAT(Rows(stimulationBeampaths, {{":iSetupID", 1}, {":iHWConfigID", 8}}),
                testing::UnorderedElementsAre(std::pair(3, "P"), std::pair(4, "R")));
    EXPECT_THAT(Rows(stimulationBeampaths, {{":iSetupID", 2}, {":iHWConfigID", 7}}), ElementsAre(std::pair(9, "O")));

    const auto first =
        [](const SQsDeviceStatement& statement, const std::vector<std::pair<const char*, QVariant>>& bindings)
    {
        std::vector<int> ids;
        const DeviceDBApi::CQsAutoDeviceDB scope(L"first", 0);
        QSqlQuery query(scope.GetDatabase());
        query.prepare(QString::fromLatin1(statement.sql));
        for (const auto& [name, value] : bindings)
            query.bindValue(QString::fromLatin1(name), value, QSql::In);
        EXPECT_TRUE(query.exec());
        while (query.next())
            ids.push_back(query.value(0).toInt());
        return ids;
    };
    const QString p = QStringLiteral("P");
    EXPECT_THAT(first(beampathOfStimulationOC, {{":sName", p}, {":iSetupID", 1}, {":eType", 2}}), ElementsAre(1));
    EXPECT_THAT(first(beampathOfStimulationOC, {{":sName", p}, {":iSetupID", 2}, {":eType", 2}}), ElementsAre());
    EXPECT_THAT(first(beampathOfSystemActiveOC, {{":sName", QStringLiteral("Q")}, {":iSetupID", 1}}), ElementsAre(2));
    EXPECT_THAT(first(devicesOfSubbeampath, {{":iBeamPathID", 1}}), testing::UnorderedElementsAre(70, 70, 72));

    const auto text = [](const SQsDeviceStatement& statement, int id)
    {
        const DeviceDBApi::CQsAutoDeviceDB scope(L"text", 0);
        QSqlQuery query(scope.GetDatabase());
        query.prepare(QString::fromLatin1(statement.sql));
        query.bindValue(QStringLiteral(":iBeamPathID"), id, QSql::In);
        EXPECT_TRUE(query.exec());
        return query.first() ? query.value(0).toString().toStdString() : std::string("no row");
    };
    EXPECT_EQ("R", text(beampathName, 4));
    EXPECT_EQ("no row", text(beampathName, 77));
    EXPECT_EQ("[4, 5]", text(mergedBeampaths, 1));
    EXPECT_EQ("", text(mergedBeampaths, 4));
    EXPECT_EQ("Shown", text(nameOfSubbeampath, 4));
    EXPECT_EQ("P", text(nameOfSubbeampath, 1));
}

using DatabaseReports = OpenDatabaseTest;
INSTANTIATE_ON_DATABASES(DatabaseReports);

TEST_P(DatabaseReports, SayWhereAndAtWhatAndInTheDatabasesWords)
{
    {
        const DeviceDBApi::CQsAutoDeviceDB scope(L"CQsSomething::Does", 0);
        QSqlQuery query(scope.GetDatabase());
        EXPECT_FALSE(query.prepare(QStringLiteral("SELECT iNone FROM\ndev_Nowhere")));
        EXPECT_THROW(DeviceDBApi::ReportQueryErrorAndThrowException(query, scope.GetLocation(), L"Doing it - prepare",
                                                                    new DeviceDBApi::DeviceDBStructureE),
                     DeviceDBApi::DeviceDBStructureE);
        QSqlQuery data(scope.GetDatabase());
        EXPECT_FALSE(data.exec(QStringLiteral("INSERT INTO dev_Setup (iSetupID, sName) VALUES (3, 'again')")));
        EXPECT_THROW(DeviceDBApi::ReportQueryErrorAndThrowException(data, scope.GetLocation(), L"Doing it - exec",
                                                                    new DeviceDBApi::DeviceDBDataE),
                     DeviceDBApi::DeviceDBDataE);
    }
    const std::vector<SDatabaseReport> reports = CQsDeviceDatabase::Reports();
    ASSERT_EQ(2u, reports.size());
    EXPECT_EQ(L"CQsSomething::Does", reports[0].location);
    EXPECT_EQ(L"Doing it - prepare", reports[0].text);
    EXPECT_TRUE(reports[0].bStructure);
    EXPECT_THAT(reports[0].error, testing::AnyOf(HasSubstr("dev_Nowhere"), HasSubstr("dev_nowhere")));
    EXPECT_EQ(L"Doing it - exec", reports[1].text);
    EXPECT_FALSE(reports[1].bStructure);
    EXPECT_THAT(reports[1].error, IsOneLine());
    EXPECT_THAT(LogLines(), ElementsAre("CQsSomething::Does: Doing it - prepare: " + reports[0].error,
                                        "CQsSomething::Does: Doing it - exec: " + reports[1].error));
    EXPECT_THAT(LogLines(), testing::Each(IsOneLine()));
    CQsDeviceDatabase::ClearReports();
    EXPECT_TRUE(CQsDeviceDatabase::Reports().empty());
}

TEST_P(DatabaseReports, ThrowACopyInTheObjectsOwnClassAndDeleteTheObject)
{
    struct CSpecialE : DeviceDBApi::DeviceDBDataE
    {
        explicit CSpecialE(int& live) : m_live(&live) { ++*m_live; }
        CSpecialE(const CSpecialE& other) : DeviceDBDataE(other), m_live(other.m_live) { ++*m_live; }
        ~CSpecialE() override { --*m_live; }
        [[noreturn]] void Raise() const override { throw *this; }
        int* m_live;
    };
    const DeviceDBApi::CQsAutoDeviceDB scope(L"here", 0);
    const QSqlQuery query(scope.GetDatabase());
    int live = 0;
    try
    {
        DeviceDBApi::ReportQueryErrorAndThrowException(query, L"here", L"this", new CSpecialE(live));
        FAIL() << "not thrown";
    }
    catch (const DeviceDBApi::DeviceDBE& caught) // the base, thrown out of the library
    {
        EXPECT_NE(nullptr, dynamic_cast<const CSpecialE*>(&caught));
        EXPECT_EQ(1, live); // the copy that was caught
    }
    EXPECT_EQ(0, live);
}

TEST_P(DatabaseReports, KeepTheNewestThousand)
{
    const DeviceDBApi::CQsAutoDeviceDB scope(L"here", 0);
    const QSqlQuery query(scope.GetDatabase());
    CQsDiagnosticLog::ToMemory(false);
    for (int i = 0; i < 1100; ++i)
        EXPECT_THROW(DeviceDBApi::ReportQueryErrorAndThrowException(
                         query, L"here", CQsStringW::Format(L"%d", i).c_str(), new DeviceDBApi::DeviceDBE),
                     DeviceDBApi::DeviceDBE);
    const std::vector<SDatabaseReport> reports = CQsDeviceDatabase::Reports();
    ASSERT_EQ(1000u, reports.size());
    EXPECT_EQ(L"100", reports.front().text);
    EXPECT_EQ(L"1099", reports.back().text);
}

// A server that goes away, comes back, refuses or says nothing. What is the same for a file stands with the other
// tests.
#include "tests/standalone/DatabaseTest.h"
#include "tests/support/PostgresCluster.h"

#include <chrono>
#include <thread>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

namespace {

using testing::Each;
using testing::HasSubstr;
using testing::Not;

class DatabaseServer : public testing::TestWithParam<EDatabaseKind>
{
protected:
    DatabaseServer() { CQsDiagnosticLog::ToMemory(true); }
    ~DatabaseServer() override { CQsDeviceDatabase::Close(); }

    void MakeAndOpen(CPostgresCluster& cluster)
    {
        m_setup = cluster.NewDatabase();
        std::string error;
        ASSERT_TRUE(CQsDeviceDatabase::Create(m_setup, error)) << error;
        ASSERT_TRUE(ImportDatabase(m_setup, SmallContent(), error)) << error;
        ASSERT_TRUE(CQsDeviceDatabase::Open(m_setup, error)) << error;
    }

    static int Save() { return DeviceDBAppHelper::SaveParam(L"key", L"text", 3, 4); }
    static bool IsReachable() { return DeviceDBApi::CQsAutoDeviceDB(L"here", 0).IsOK(); }

    SDeviceDatabaseSetup m_setup;
};

std::vector<EDatabaseKind> ServerKinds()
{
    std::vector<EDatabaseKind> kinds = DatabaseKinds();
    kinds.erase(kinds.begin()); // the file
    return kinds;
}

// Takes connections and never says a word.
class CMuteServer
{
public:
    explicit CMuteServer(unsigned port = 0) : m_socket(socket(AF_INET, SOCK_STREAM, 0))
    {
        const int yes = 1;
        setsockopt(m_socket, SOL_SOCKET, SO_REUSEADDR, &yes, sizeof yes);
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_port = htons(static_cast<std::uint16_t>(port));
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t length = sizeof address;
        EXPECT_EQ(0, bind(m_socket, reinterpret_cast<sockaddr*>(&address), length));
        EXPECT_EQ(0, listen(m_socket, 100));
        EXPECT_EQ(0, getsockname(m_socket, reinterpret_cast<sockaddr*>(&address), &length));
        m_port = ntohs(address.sin_port);
    }
    ~CMuteServer() { close(m_socket); }
    CMuteServer(const CMuteServer&) = delete;
    CMuteServer& operator=(const CMuteServer&) = delete;

    unsigned Port() const { return m_port; }

private:
    int m_socket;
    unsigned m_port = 0;
};

} // namespace

// None where there is no server: the next test says so once for all of them.
INSTANTIATE_TEST_SUITE_P(On, DatabaseServer, testing::ValuesIn(ServerKinds()), KindOfTest);

TEST(PostgreSql, IsInstalledAndAnswers)
{
    if (!IsPostgresInstalled())
        GTEST_SKIP() << "PostgreSQL is not installed: nothing was tested on a server";
    const CTestServerDatabase database;
    QSqlDatabase raw = RawConnection(database.setup, "version");
    ASSERT_TRUE(raw.open()) << raw.lastError().text().toStdString();
    QSqlQuery query(raw);
    ASSERT_TRUE(query.exec(QStringLiteral("SHOW server_version_num")) && query.first());
    EXPECT_GE(query.value(0).toInt(), 120000);
}

TEST_P(DatabaseServer, ThatIsKilledUnderAQueryFailsItAndWorksWhenItIsBack)
{
    CPostgresCluster cluster;
    MakeAndOpen(cluster);
    {
        const DeviceDBApi::CQsAutoDeviceDB scope(L"here", 0);
        QSqlQuery query(scope.GetDatabase());
        ASSERT_TRUE(query.prepare(QStringLiteral("SELECT iSetupID FROM dev_Setup")));
        cluster.Stop();
        EXPECT_FALSE(query.exec());
        EXPECT_THROW(DeviceDBApi::ReportQueryErrorAndThrowException(query, scope.GetLocation(), L"Doing it - exec",
                                                                    new DeviceDBApi::DeviceDBDataE),
                     DeviceDBApi::DeviceDBDataE);
        // The connection is known to be gone now.
        QSqlQuery next(scope.GetDatabase());
        EXPECT_FALSE(next.prepare(QStringLiteral("SELECT 1")));
        EXPECT_THROW(DeviceDBApi::ReportQueryErrorAndThrowException(next, scope.GetLocation(), L"Doing it - prepare",
                                                                    new DeviceDBApi::DeviceDBStructureE),
                     DeviceDBApi::DeviceDBStructureE);
        EXPECT_FALSE(DeviceDBApi::CQsAutoDeviceDB(L"inner", 0).IsOK());
    }
    EXPECT_THAT(LogLines(), Each(IsOneLine()));
    EXPECT_THAT(LogLines(), testing::Contains(HasSubstr("here: Doing it - exec: ")));
    EXPECT_FALSE(IsReachable());
    EXPECT_EQ(-9, Save());
    cluster.Start();
    EXPECT_EQ(0, Save());
    EXPECT_EQ(1u, CQsDeviceDatabase::ConnectionCount());
}

TEST_P(DatabaseServer, ThatIsKilledUnderATransactionKeepsWhatItHad)
{
    CPostgresCluster cluster;
    MakeAndOpen(cluster);
    SDatabaseContent content = SmallContent();
    content.parameters[0].text = std::string(4000000, 'x');
    // Held up by another program's lock until the server is gone.
    auto holder = std::make_unique<CRawConnection>(m_setup);
    holder->Run("BEGIN");
    holder->Run("LOCK TABLE dev_Setup IN ACCESS EXCLUSIVE MODE");
    bool imported = true;
    std::string error;
    std::thread import([&] { imported = ImportDatabase(m_setup, content, error); });
    while (holder->Number("SELECT COUNT(*) FROM pg_locks WHERE NOT granted") == 0)
        std::this_thread::yield();
    cluster.Stop();
    import.join();
    EXPECT_FALSE(imported);
    EXPECT_THAT(error, IsOneLine());
    holder.reset();
    cluster.Start();
    CQsStringW text;
    EXPECT_EQ(0, DeviceDBAppHelper::LoadParam(L"key", text, nullptr, 3, 4));
    EXPECT_EQ(L"[1,2]", text);
}

TEST_P(DatabaseServer, ThatWasRestartedMeanwhileServesTheFirstQuery)
{
    CPostgresCluster cluster(CPostgresCluster::EListen::Loopback);
    MakeAndOpen(cluster);
    EXPECT_EQ(0, Save());
    for (int round = 0; round < 3; ++round)
    {
        cluster.Stop();
        cluster.Start();
        EXPECT_EQ(0, Save()) << round;
    }
    EXPECT_EQ(1u, CQsDeviceDatabase::ConnectionCount());
    EXPECT_TRUE(CQsDeviceDatabase::Reports().empty());
}

TEST_P(DatabaseServer, MayBeGoneAndBackUnderManyThreads)
{
    CPostgresCluster cluster;
    MakeAndOpen(cluster);
    std::atomic<bool> end{false};
    std::atomic<int> done{0};
    std::atomic<int> failed{0};
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; ++i)
        threads.emplace_back(
            [&]
            {
                while (!end)
                {
                    const int status = Save();
                    EXPECT_THAT(status, testing::AnyOf(0, -9));
                    ++(status == 0 ? done : failed);
                }
            });
    for (int round = 0; round < 2; ++round)
    {
        const auto more = [](std::atomic<int>& count)
        {
            for (const int before = count; count < before + 20;)
                std::this_thread::yield();
        };
        more(done);
        cluster.Stop();
        more(failed);
        cluster.Start();
    }
    const int before = done;
    while (done < before + 20)
        std::this_thread::yield();
    end = true;
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(0u, CQsDeviceDatabase::ConnectionCount());
    EXPECT_EQ(0, Save());
}

// The network is well, and the server takes what it is sent: nobody but the host itself can notice.
TEST_P(DatabaseServer, ThatStandsStillFailsTheQueryAndWorksWhenItGoesOn)
{
    CPostgresCluster cluster;
    MakeAndOpen(cluster);
    EXPECT_EQ(0, Save());
    cluster.Freeze();
    const auto begin = std::chrono::steady_clock::now();
    EXPECT_EQ(-9, Save());
    EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(40));
    EXPECT_THAT(LogLines(), testing::Contains(HasSubstr("DeviceDBAppHelper::SaveParam: Saving a parameter - ")));
    cluster.Thaw();
    while (!IsReachable())
        std::this_thread::yield();
    EXPECT_EQ(0, Save());
    EXPECT_EQ(1u, CQsDeviceDatabase::ConnectionCount());
}

TEST_P(DatabaseServer, PutsNothingOnTheTerminal)
{
    CPostgresCluster cluster;
    MakeAndOpen(cluster);
    EXPECT_EQ(0, Save());
    testing::internal::CaptureStderr();
    testing::internal::CaptureStdout();
    {
        const DeviceDBApi::CQsAutoDeviceDB scope(L"here", 0);
        QSqlQuery query(scope.GetDatabase());
        EXPECT_TRUE(query.prepare(QStringLiteral("SELECT iSetupID FROM dev_Setup")));
        cluster.Stop();
        EXPECT_FALSE(query.exec());
        QSqlQuery next(scope.GetDatabase());
        EXPECT_FALSE(next.prepare(QStringLiteral("SELECT 1")));
    }
    EXPECT_EQ(-9, Save());
    cluster.Start();
    EXPECT_EQ(0, Save());
    EXPECT_EQ("", testing::internal::GetCapturedStdout());
    EXPECT_EQ("", testing::internal::GetCapturedStderr());
}

TEST_P(DatabaseServer, ThatRefusesIsSaidInOneLineAtOnce)
{
    CPostgresCluster cluster(CPostgresCluster::EListen::Loopback);
    SDeviceDatabaseSetup setup = cluster.NewDatabase();
    cluster.Stop();
    const auto begin = std::chrono::steady_clock::now();
    std::string error;
    EXPECT_FALSE(CQsDeviceDatabase::Open(setup, error));
    EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(10));
    EXPECT_THAT(error, IsOneLine());
    EXPECT_THAT(error, HasSubstr("refused"));
    EXPECT_THAT(error, Not(HasSubstr(CPostgresCluster::s_password)));
}

TEST_P(DatabaseServer, IsLoggedIntoWithThePasswordThatNoMessageShows)
{
    CPostgresCluster cluster(CPostgresCluster::EListen::Loopback);
    MakeAndOpen(cluster);
    EXPECT_EQ(0, Save());
    CQsDeviceDatabase::Close();
    SDeviceDatabaseSetup wrong = m_setup;
    wrong.password = "hunter2";
    std::string error;
    EXPECT_FALSE(CQsDeviceDatabase::Open(wrong, error));
    EXPECT_THAT(error, IsOneLine());
    EXPECT_THAT(error, HasSubstr("authentication failed"));
    EXPECT_THAT(error, Not(HasSubstr("hunter2")));
    EXPECT_THAT(DeviceDatabaseText(wrong), Not(HasSubstr("hunter2")));
}

// After one long wait scopes fail at once for a while: a rebuild of the beampaths has many.
TEST_P(DatabaseServer, ThatSaysNothingHoldsUpOneScopeAndNotEachOfThem)
{
    CPostgresCluster cluster(CPostgresCluster::EListen::Loopback);
    MakeAndOpen(cluster);
    cluster.Stop();
    {
        const CMuteServer mute(m_setup.port);
        const auto begin = std::chrono::steady_clock::now();
        EXPECT_FALSE(IsReachable());
        const auto first = std::chrono::steady_clock::now();
        EXPECT_GT(first - begin, std::chrono::seconds(1)); // it was given time
        EXPECT_LT(first - begin, std::chrono::seconds(20));
        for (int i = 0; i < 50; ++i)
            EXPECT_FALSE(IsReachable());
        EXPECT_LT(std::chrono::steady_clock::now() - first, std::chrono::seconds(10));
    }
    EXPECT_THAT(LogLines(), Each(HasSubstr("no connection")));
    EXPECT_LT(LogLines().size(), 5u);
    cluster.Start();
    // And then it is asked again.
    while (!IsReachable())
        std::this_thread::yield();
    EXPECT_EQ(0, Save());
}

TEST_P(DatabaseServer, ThatSaysNothingIsNotOpened)
{
    const CMuteServer mute;
    SDeviceDatabaseSetup setup;
    setup.kind = EDatabaseKind::PostgreSql;
    setup.host = "127.0.0.1";
    setup.port = mute.Port();
    setup.database = "devices";
    setup.password = "hunter2";
    std::string error;
    const auto begin = std::chrono::steady_clock::now();
    EXPECT_FALSE(CQsDeviceDatabase::Open(setup, error));
    EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(20));
    EXPECT_THAT(error, IsOneLine());
    EXPECT_THAT(error, Not(HasSubstr("hunter2")));
}

#include "tests/support/PostgresCluster.h"

#include <QProcess>
#include <QSqlDatabase>
#include <QSqlError>
#include <QSqlQuery>
#include <QString>

#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <sstream>
#include <stdexcept>
#include <thread>
#include <vector>

#include <arpa/inet.h>
#include <fcntl.h>
#include <grp.h>
#include <netinet/in.h>
#include <pwd.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

namespace fs = std::filesystem;
using QsStandalone::SDeviceDatabaseSetup;

constexpr auto s_longestWait = std::chrono::seconds(60);

std::string Contents(const fs::path& path)
{
    std::ifstream stream(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(stream), std::istreambuf_iterator<char>()};
}

// Folder of the newest server's programs, of those on the path otherwise; empty when there are none.
fs::path ProgramFolder()
{
    std::error_code ignored;
    const auto hasServer = [&ignored](const fs::path& folder)
    { return fs::exists(folder / "initdb", ignored) && fs::exists(folder / "postgres", ignored); };
    fs::path newest;
    int newestVersion = 0;
    for (const fs::directory_entry& entry : fs::directory_iterator("/usr/lib/postgresql", ignored))
    {
        const int version = std::atoi(entry.path().filename().c_str());
        if (version > newestVersion && hasServer(entry.path() / "bin"))
        {
            newest = entry.path() / "bin";
            newestVersion = version;
        }
    }
    const char* const path = std::getenv("PATH");
    std::istringstream folders(path != nullptr ? path : "");
    for (std::string folder; newest.empty() && std::getline(folders, folder, ':');)
        if (hasServer(folder))
            newest = folder;
    return newest;
}

struct SIdentity
{
    uid_t user = getuid();
    gid_t group = getgid();
};

const SIdentity& ServerIdentity()
{
    static const SIdentity identity = []
    {
        SIdentity own;
        if (own.user != 0)
            return own;
        for (const char* name : {"postgres", "nobody"})
            if (const passwd* const entry = getpwnam(name))
                return SIdentity{entry->pw_uid, entry->pw_gid};
        throw std::runtime_error("no user that the server could run as");
    }();
    return identity;
}

// In the child between fork and exec: nothing here may allocate.
[[noreturn]] void Become(const SIdentity& identity, const char* folder, const char* log, char* const* arguments,
                         bool bEndsWithParent)
{
    const int null = open("/dev/null", O_RDONLY);
    const int file = open(log, O_WRONLY | O_CREAT | O_APPEND, 0666);
    dup2(null, STDIN_FILENO);
    dup2(file, STDOUT_FILENO);
    dup2(file, STDERR_FILENO);
    for (int descriptor = 3; descriptor < 1024; ++descriptor)
        close(descriptor); // a test runner waits for every copy of its pipes
    if (getuid() == 0 && (setgroups(0, nullptr) != 0 || setgid(identity.group) != 0 || setuid(identity.user) != 0))
        _exit(126);
    if (chdir(folder) != 0)
        _exit(126);
    if (bEndsWithParent)
        prctl(PR_SET_PDEATHSIG, SIGQUIT); // after the change of user, which clears it
    else
        setsid();
    execv(arguments[0], arguments);
    _exit(127);
}

pid_t Launch(const fs::path& folder, std::vector<std::string> arguments, bool bEndsWithParent)
{
    const std::string log = folder / "log";
    const SIdentity& identity = ServerIdentity();
    std::vector<char*> pointers;
    for (std::string& argument : arguments)
        pointers.push_back(argument.data());
    pointers.push_back(nullptr);
    const pid_t pid = fork();
    if (pid == 0)
        Become(identity, folder.c_str(), log.c_str(), pointers.data(), bEndsWithParent);
    if (pid < 0)
        throw std::runtime_error("no process for the server");
    return pid;
}

fs::path NewFolder()
{
    std::string name = (fs::temp_directory_path() / "qs_pg_XXXXXX").string();
    if (mkdtemp(name.data()) == nullptr)
        throw std::runtime_error("no temporary folder");
    const SIdentity& identity = ServerIdentity();
    if (getuid() == 0 && chown(name.c_str(), identity.user, identity.group) != 0)
        throw std::runtime_error("no temporary folder for the server's user");
    fs::permissions(name, fs::perms(0755)); // tests look into it
    return name;
}

void InitialiseData(const fs::path& folder)
{
    const fs::path passwordFile = folder / "password";
    std::ofstream(passwordFile) << CPostgresCluster::s_password << '\n';
    const pid_t pid = Launch(folder,
                             {(ProgramFolder() / "initdb").string(), "-D", (folder / "data").string(), "--no-sync",
                              "--auth-local=trust", "--auth-host=scram-sha-256", "-U", CPostgresCluster::s_user,
                              "--pwfile=" + passwordFile.string(), "-E", "UTF8", "--locale=C"},
                             true);
    int status = 0;
    if (waitpid(pid, &status, 0) != pid || status != 0)
        throw std::runtime_error("initdb failed: " + Contents(folder / "log"));
}

void CopyData(const fs::path& from, const fs::path& to)
{
    // The fastest copy that keeps owner and mode.
    if (QProcess::execute(QStringLiteral("cp"), {QStringLiteral("-a"), QString::fromStdString(from.string()),
                                                 QString::fromStdString(to.string())}) != 0)
        throw std::runtime_error("copying the server's data failed");
}

unsigned FreePort()
{
    const int socket = ::socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    const bool known = bind(socket, reinterpret_cast<sockaddr*>(&address), length) == 0 &&
                       getsockname(socket, reinterpret_cast<sockaddr*>(&address), &length) == 0;
    close(socket);
    if (!known)
        throw std::runtime_error("no free port");
    return ntohs(address.sin_port);
}

// The server writes "ready" into its own note when it takes connections.
pid_t StartServer(const fs::path& folder, unsigned port, CPostgresCluster::EListen listen, bool bEndsWithParent)
{
    const bool onLoopback = listen == CPostgresCluster::EListen::Loopback;
    const fs::path note = folder / "data" / "postmaster.pid";
    fs::remove(note);
    const pid_t pid = Launch(folder,
                             {(ProgramFolder() / "postgres").string(),
                              "-D",
                              (folder / "data").string(),
                              "-k",
                              folder.string(),
                              "-p",
                              std::to_string(port),
                              "-h",
                              onLoopback ? "127.0.0.1" : "",
                              "-F",
                              "-c",
                              "max_connections=60",
                              "-c",
                              "autovacuum=off",
                              "-c",
                              "max_wal_senders=0",
                              "-c",
                              "wal_level=minimal",
                              "-c",
                              "full_page_writes=off"},
                             bEndsWithParent);
    const auto end = std::chrono::steady_clock::now() + s_longestWait;
    while (Contents(note).find("\nready") == std::string::npos)
    {
        if (waitpid(pid, nullptr, WNOHANG) == pid)
            throw std::runtime_error("the server does not start: " + Contents(folder / "log"));
        if (std::chrono::steady_clock::now() > end)
            throw std::runtime_error("the server is not ready: " + Contents(folder / "log"));
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    return pid;
}

SDeviceDatabaseSetup SetupIn(const std::string& folder, unsigned port, const std::string& database)
{
    SDeviceDatabaseSetup setup;
    setup.kind = SDeviceDatabaseSetup::EKind::PostgreSql;
    setup.host = folder;
    setup.port = port;
    setup.database = database;
    setup.user = CPostgresCluster::s_user;
    return setup;
}

void RunInMaintenance(const std::string& folder, unsigned port, const std::string& statement)
{
    const QString name = QStringLiteral("maintenance");
    std::string fault;
    {
        QSqlDatabase database = QSqlDatabase::addDatabase(QStringLiteral("QPSQL"), name);
        database.setHostName(QString::fromStdString(folder));
        database.setPort(static_cast<int>(port));
        database.setDatabaseName(QStringLiteral("postgres"));
        database.setUserName(QString::fromLatin1(CPostgresCluster::s_user));
        database.open();
        QSqlQuery query(database);
        if (!query.exec(QString::fromStdString(statement)))
            fault = database.lastError().text().toStdString() + query.lastError().text().toStdString();
    }
    QSqlDatabase::removeDatabase(name);
    if (!fault.empty())
        throw std::runtime_error(statement + ": " + fault);
}

std::string NewDatabaseName()
{
    static std::atomic<unsigned> number{0};
    return "test_" + std::to_string(getpid()) + "_" + std::to_string(++number);
}

// Where the shared server's folder is written down; empty outside a run of all tests.
std::string SharedFolder()
{
    const char* const noteFile = std::getenv("QS_TEST_POSTGRES");
    return noteFile != nullptr ? Contents(noteFile) : std::string();
}

fs::path TemplateIn(const fs::path& folder)
{
    return folder / "template";
}

} // namespace

bool IsPostgresInstalled()
{
    return !ProgramFolder().empty();
}

CPostgresCluster::CPostgresCluster(EListen listen) : m_listen(listen), m_folder(NewFolder())
{
    const std::string shared = SharedFolder();
    if (shared.empty())
        InitialiseData(m_folder);
    else
        CopyData(TemplateIn(shared), fs::path(m_folder) / "data");
    Start();
}

CPostgresCluster::~CPostgresCluster()
{
    Stop();
    std::error_code ignored;
    fs::remove_all(m_folder, ignored);
}

void CPostgresCluster::Stop()
{
    if (m_pid < 0)
        return;
    Thaw(); // a process that stands still does not end
    kill(m_pid, SIGQUIT);
    waitpid(m_pid, nullptr, 0);
    m_pid = -1;
}

void CPostgresCluster::SignalAll(int signal)
{
    const std::string pid = std::to_string(m_pid);
    kill(m_pid, signal); // first, so that it starts no others meanwhile
    std::istringstream children(Contents("/proc/" + pid + "/task/" + pid + "/children"));
    for (pid_t child = 0; children >> child;)
        kill(child, signal);
}

void CPostgresCluster::Freeze()
{
    SignalAll(SIGSTOP);
}

void CPostgresCluster::Thaw()
{
    SignalAll(SIGCONT);
}

void CPostgresCluster::Start()
{
    if (m_listen == EListen::Loopback && m_port == 5432)
        m_port = FreePort();
    if (m_pid < 0)
        m_pid = StartServer(m_folder, m_port, m_listen, true);
}

SDeviceDatabaseSetup CPostgresCluster::NewDatabase()
{
    SDeviceDatabaseSetup setup = SetupIn(m_folder, m_port, NewDatabaseName());
    RunInMaintenance(m_folder, m_port, "CREATE DATABASE " + setup.database);
    if (m_listen == EListen::Loopback)
    {
        setup.host = "127.0.0.1";
        setup.password = s_password;
    }
    return setup;
}

void CPostgresCluster::StartShared(const std::string& noteFile)
{
    StopShared(noteFile);
    if (!IsPostgresInstalled())
        return;
    const fs::path folder = NewFolder();
    InitialiseData(folder);
    CopyData(folder / "data", TemplateIn(folder));
    StartServer(folder, 5432, EListen::Socket, false);
    std::ofstream(noteFile) << folder.string();
}

void CPostgresCluster::StopShared(const std::string& noteFile)
{
    const fs::path folder = Contents(noteFile);
    fs::remove(noteFile);
    if (folder.empty())
        return;
    // The note in the server's own folder names its process while it runs; after a crash another one may have the
    // number.
    const fs::path note = folder / "data" / "postmaster.pid";
    const pid_t pid = static_cast<pid_t>(std::atol(Contents(note).c_str()));
    const std::string command = Contents("/proc/" + std::to_string(pid) + "/cmdline");
    if (pid > 0 && command.find(folder.string()) != std::string::npos)
        kill(pid, SIGQUIT);
    const auto end = std::chrono::steady_clock::now() + s_longestWait;
    while (pid > 0 && fs::exists(note) && kill(pid, 0) == 0 && std::chrono::steady_clock::now() < end)
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    fs::remove_all(folder);
}

CTestServerDatabase::CTestServerDatabase()
{
    const std::string shared = SharedFolder();
    if (shared.empty())
    {
        m_own = std::make_unique<CPostgresCluster>();
        setup = m_own->NewDatabase();
        return;
    }
    setup = SetupIn(shared, 5432, NewDatabaseName());
    RunInMaintenance(setup.host, setup.port, "CREATE DATABASE " + setup.database);
}

CTestServerDatabase::~CTestServerDatabase()
{
    try
    {
        if (m_own == nullptr)
            RunInMaintenance(setup.host, setup.port, "DROP DATABASE " + setup.database + " WITH (FORCE)");
    }
    catch (const std::runtime_error&)
    {
        // It goes with the shared server.
    }
}

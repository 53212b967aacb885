// A PostgreSQL server of the tests' own, in a temporary folder.
//
// The server refuses to run as root; then it runs as the user "postgres" or "nobody". Durability is off: what a test
// stops comes back from its log, not from the disk.
#pragma once

#include "tests/support/TestServerDatabase.h"

#include <string>

#include <sys/types.h>

// Throws std::runtime_error, with the server's words, for anything that does not work.
class CPostgresCluster
{
public:
    static constexpr const char* s_user = "tester";
    static constexpr const char* s_password = "s3cret word%"; // asked for on the loopback address alone

    enum class EListen
    {
        Socket,  // in its folder
        Loopback // also on a port of 127.0.0.1
    };

    // Starts it. It is stopped and removed with the object, and stopped when the process dies.
    explicit CPostgresCluster(EListen listen = EListen::Socket);
    ~CPostgresCluster();
    CPostgresCluster(const CPostgresCluster&) = delete;
    CPostgresCluster& operator=(const CPostgresCluster&) = delete;

    void Stop(); // at once, as a server that is killed; its connections break
    void Start();
    // It stands still, with its connections open, and goes on.
    void Freeze();
    void Thaw();

    // Of a new, empty database: through the socket, or the loopback address with a password.
    QsStandalone::SDeviceDatabaseSetup NewDatabase();

    // For all tests of a run (see tests/CMakeLists.txt): starts a server and writes down where it is; stops the one
    // that was written down, if it still runs, and removes it.
    static void StartShared(const std::string& noteFile);
    static void StopShared(const std::string& noteFile);

private:
    void SignalAll(int signal);

    EListen m_listen;
    std::string m_folder;
    unsigned m_port = 5432;
    pid_t m_pid = -1;
};

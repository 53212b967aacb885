// A database for one test in a PostgreSQL server, where the system has them.
#pragma once

#include "standalone/DeviceDatabase.h"

#include <memory>

// Whether the server's programs are on this machine, and its driver in this build.
bool IsPostgresInstalled();

class CPostgresCluster;

// In the server that all tests of a run share, or in one of its own where none runs.
class CTestServerDatabase
{
public:
    CTestServerDatabase();
    ~CTestServerDatabase();
    CTestServerDatabase(const CTestServerDatabase&) = delete;
    CTestServerDatabase& operator=(const CTestServerDatabase&) = delete;

    QsStandalone::SDeviceDatabaseSetup setup;

private:
    std::unique_ptr<CPostgresCluster> m_own;
};

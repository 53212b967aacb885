// The build for this system has no driver for PostgreSQL.
#include "tests/support/TestServerDatabase.h"

#include <stdexcept>

class CPostgresCluster
{};

bool IsPostgresInstalled()
{
    return false;
}

CTestServerDatabase::CTestServerDatabase()
{
    throw std::logic_error("a test asks for a server that is not installed");
}

CTestServerDatabase::~CTestServerDatabase() = default;

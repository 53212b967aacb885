// A database of its own for one test, of each kind that this machine has.
#pragma once

#include "tests/support/TemporaryFolder.h"
#include "tests/support/TestServerDatabase.h"

#include <memory>
#include <ostream>
#include <string>
#include <vector>

using EDatabaseKind = QsStandalone::SDeviceDatabaseSetup::EKind;

// For tests that run on both; the server is left out where it is not installed.
inline std::vector<EDatabaseKind> DatabaseKinds()
{
    std::vector<EDatabaseKind> kinds = {EDatabaseKind::Sqlite};
    if (IsPostgresInstalled())
        kinds.push_back(EDatabaseKind::PostgreSql);
    return kinds;
}

// Part of a test's name.
inline std::string DatabaseKindName(EDatabaseKind kind)
{
    return kind == EDatabaseKind::Sqlite ? "Sqlite" : "PostgreSql";
}

// How tests with such a parameter are listed.
namespace QsStandalone {
inline void PrintTo(EDatabaseKind kind, std::ostream* stream)
{
    *stream << DatabaseKindName(kind);
}
} // namespace QsStandalone

// A server's database is empty, a file's is a path where nothing is yet.
class CTestDatabase
{
public:
    explicit CTestDatabase(EDatabaseKind kind)
    {
        if (kind == EDatabaseKind::Sqlite)
        {
            m_folder = std::make_unique<QsTest::CTemporaryFolder>();
            m_setup.file = m_folder->File("devices.sqlite");
            return;
        }
        m_server = std::make_unique<CTestServerDatabase>();
        m_setup = m_server->setup;
    }

    const QsStandalone::SDeviceDatabaseSetup& Setup() const { return m_setup; }

private:
    std::unique_ptr<QsTest::CTemporaryFolder> m_folder;
    std::unique_ptr<CTestServerDatabase> m_server;
    QsStandalone::SDeviceDatabaseSetup m_setup;
};

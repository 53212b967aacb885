// What the tests of the device database share.
#pragma once

#include "host/QsDevice.h"
#include "standalone/DatabaseContent.h"
#include "standalone/DeviceDatabase.h"
#include "standalone/DiagnosticLog.h"
#include "tests/support/TestDatabase.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <QSqlError>
#include <QSqlQuery>
#include <QString>
#include <QVariant>

#include <filesystem>
#include <string>

using namespace QsStandalone;

inline std::string KindOfTest(const testing::TestParamInfo<EDatabaseKind>& info)
{
    return DatabaseKindName(info.param);
}

#define INSTANTIATE_ON_DATABASES(suite)                                                                                \
    INSTANTIATE_TEST_SUITE_P(On, suite, testing::ValuesIn(DatabaseKinds()), KindOfTest)

// A connection past the device database, for what the product never writes.
inline QSqlDatabase RawConnection(const SDeviceDatabaseSetup& setup, const std::string& name)
{
    const bool isFile = setup.kind == EDatabaseKind::Sqlite;
    QSqlDatabase database =
        QSqlDatabase::addDatabase(QString::fromLatin1(isFile ? "QSQLITE" : "QPSQL"), QString::fromStdString(name));
    database.setDatabaseName(QString::fromStdString(isFile ? setup.file : setup.database));
    database.setHostName(QString::fromStdString(setup.host));
    database.setPort(static_cast<int>(setup.port));
    database.setUserName(QString::fromStdString(setup.user));
    database.setPassword(QString::fromStdString(setup.password));
    return database;
}

class CRawConnection
{
public:
    explicit CRawConnection(const SDeviceDatabaseSetup& setup) : m_database(RawConnection(setup, "raw"))
    {
        EXPECT_TRUE(m_database.open()) << m_database.lastError().text().toStdString();
    }
    ~CRawConnection()
    {
        m_database = QSqlDatabase();
        QSqlDatabase::removeDatabase(QStringLiteral("raw"));
    }

    void Run(const std::string& statement)
    {
        QSqlQuery query(m_database);
        EXPECT_TRUE(query.exec(QString::fromStdString(statement)))
            << statement << ": " << query.lastError().text().toStdString();
    }
    bool Refuses(const std::string& statement)
    {
        QSqlQuery query(m_database);
        return !query.exec(QString::fromStdString(statement));
    }
    int Number(const std::string& statement)
    {
        QSqlQuery query(m_database);
        const bool there = query.exec(QString::fromStdString(statement)) && query.first();
        EXPECT_TRUE(there) << statement << ": " << query.lastError().text().toStdString();
        return there ? query.value(0).toInt() : -1;
    }

private:
    QSqlDatabase m_database;
};

// Two setups, so that each test can tell one from the other. Ids do not begin at 1 and stand in no order, so that none
// is right by chance.
inline SDatabaseContent SmallContent()
{
    SDatabaseContent content;
    content.users = {{8, "Bo"}, {4, "Ann"}};
    content.setups = {{6, "Confocal"}, {3, "Widefield"}};
    content.hwConfigs = {{50, 6, "Long"}, {31, 3, "Night"}, {30, 3, "Day"}, {12, 6, "Short"}};
    content.beampaths = {{20, 3, "P", std::string("Shown"), 2, true, 0, std::string("[21,22]"), 0},
                         {21, 3, "P1", std::nullopt, 1, true, 0, std::nullopt, 0},
                         {22, 3, "P2", std::nullopt, 1, false, 0, std::nullopt, 0}};
    content.hwConfigBeampaths = {{30, 20, 0}, {31, 20, std::nullopt}};
    content.configurations = {{21, 70, 1, 0}, {22, 71, 10, 0}};
    content.logicalIds = {{70, 7}, {71, 4294967295u}};
    content.parameters = {{"key", 3, 4, "[1,2]"}};
    return content;
}

// One line: what a person reads in a terminal.
MATCHER(IsOneLine, "")
{
    return !arg.empty() && arg.find('\n') == std::string::npos;
}

// The lines that the log has of the device database.
inline std::vector<std::string> LogLines()
{
    std::vector<std::string> lines;
    for (const SLogLine& line : CQsDiagnosticLog::MemoryLines())
        if (line.unit == L"DeviceDB")
            lines.push_back(line.text.ToUtf8());
    return lines;
}

// The text of a parameter that is stored, or the status that says why there is none.
inline std::string Loaded(const wchar_t* name, qs_int32 setup, qs_int32 user)
{
    CQsStringW text(L"unwritten");
    bool found = false;
    const int status = DeviceDBAppHelper::LoadParam(name, text, &found, setup, user);
    EXPECT_EQ(status == 0, found);
    EXPECT_TRUE(status == 0 || text.IsEmpty());
    return status == 0 ? text.ToUtf8() : std::to_string(status);
}

// A file of that name, in a folder of its own, can be made and opened.
inline void ExpectDatabaseMayHaveTheName(const char* name)
{
    const QsTest::CTemporaryFolder folder;
    SDeviceDatabaseSetup setup;
    setup.file = folder.File(name);
    std::string error;
    EXPECT_TRUE(CQsDeviceDatabase::Create(setup, error)) << error;
    EXPECT_TRUE(std::filesystem::exists(std::filesystem::u8path(setup.file))) << name;
    EXPECT_TRUE(CQsDeviceDatabase::Open(setup, error)) << error;
    CQsDeviceDatabase::Close();
}

// A database with the schema and nothing in it; not open.
class DatabaseTest : public testing::TestWithParam<EDatabaseKind>
{
protected:
    DatabaseTest()
    {
        CQsDiagnosticLog::ToMemory(true);
        std::string error;
        EXPECT_TRUE(CQsDeviceDatabase::Create(Address(), error)) << error;
    }
    ~DatabaseTest() override
    {
        CQsDeviceDatabase::SetFaults({});
        CQsDeviceDatabase::CountQueries(false);
        CQsDeviceDatabase::Close();
    }

    const SDeviceDatabaseSetup& Address() const { return m_database.Setup(); }

    void Import(const SDatabaseContent& content)
    {
        std::string error;
        ASSERT_TRUE(ImportDatabase(Address(), content, error)) << error;
    }
    void Open()
    {
        std::string error;
        ASSERT_TRUE(CQsDeviceDatabase::Open(Address(), error)) << error;
    }

private:
    CTestDatabase m_database{GetParam()};
};

// With content, and open.
class OpenDatabaseTest : public DatabaseTest
{
protected:
    OpenDatabaseTest()
    {
        Import(SmallContent());
        Open();
    }
};

// One connection to a device database, and statements on it: what the parts of the device database share.
#pragma once

#include "host/QsSystem.h"
#include "standalone/DatabaseDeadlines.h"
#include "standalone/DeviceDatabase.h"

#include <QSqlDatabase>
#include <QSqlQuery>
#include <QString>
#include <QVariant>

#include <chrono>
#include <cstddef>
#include <initializer_list>
#include <optional>
#include <string>
#include <utility>

class QSqlError;

namespace QsStandalone {

// A connection outside Qt's register of named ones: it ends with its last copy, and no other thread can ask for it.
struct SUnregisteredDatabase : QSqlDatabase
{
    explicit SUnregisteredDatabase(const QString& driver) : QSqlDatabase(driver) {}
    explicit SUnregisteredDatabase(QSqlDriver* driver) : QSqlDatabase(driver) {}
};

// For work on a whole database: making, migrating, import and export.
constexpr auto s_longestTransfer = std::chrono::minutes(2);

// Made, used and destroyed on one thread.
class CDatabaseConnection
{
public:
    CDatabaseConnection() = default;
    ~CDatabaseConnection() { Close(); }
    CDatabaseConnection(const CDatabaseConnection&) = delete;
    CDatabaseConnection& operator=(const CDatabaseConnection&) = delete;

    // `make`: makes the file of a SQLite database where there is none. False, with one line. A server that does not
    // answer is given up after a few seconds.
    bool Open(const SDeviceDatabaseSetup& setup, bool make, std::string& error);
    void Close();
    // False for a connection that broke, also while it was idle. Takes about a microsecond.
    bool IsAlive();
    const QSqlDatabase& Database() const { return m_database; }
    // Around statements: a server that stands still for longer than `limit` breaks the connection. Not nested.
    void BeginUse(std::chrono::milliseconds limit);
    void EndUse();

    static std::size_t Count(); // open ones [any thread]

private:
    void KnowServer();

    QSqlDatabase m_database;
    void* m_server = nullptr; // of the server's client library; null for SQLite
    int m_socket = -1;        // its socket; -1 when it is not known
    std::optional<DatabaseUse> m_use;
    bool m_open = false;
};

// Rolls back at the end of the scope what was not committed.
class CDatabaseTransaction
{
public:
    explicit CDatabaseTransaction(const QSqlDatabase& database);
    ~CDatabaseTransaction();
    CDatabaseTransaction(const CDatabaseTransaction&) = delete;
    CDatabaseTransaction& operator=(const CDatabaseTransaction&) = delete;

    bool Begin(std::string& error);
    bool Commit(std::string& error);

private:
    QSqlDatabase m_database;
    bool m_open = false;
};

using DatabaseBinding = std::pair<const char*, QVariant>; // ":name" and the value

// Runs the statement; false with the database's words.
bool RunStatement(QSqlQuery& query, const char* statement, std::initializer_list<DatabaseBinding> bindings,
                  std::string& error);
// The first column of the first row; `fallback` when there is no row or it is NULL.
bool ReadNumber(const QSqlDatabase& database, const char* statement, std::initializer_list<DatabaseBinding> bindings,
                qs_int32 fallback, qs_int32& number, std::string& error);

std::string DatabaseWords(const QSqlError& error); // in one line
QString ToQString(const std::string& utf8);        // never null, which a database would take for NULL
QString ToQString(const CQsStringW& text);
CQsStringW ToStringW(const QString& text);

} // namespace QsStandalone

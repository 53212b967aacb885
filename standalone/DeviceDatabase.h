// The stand-alone host's device database: SQLite in a file, or a PostgreSQL server that several microscopes share.
//
// One database for each process. Every thread that asks gets a connection of its own, which is given back when the
// thread ends; one that broke is made anew by the next scope. No wait is without an end: a scope has its connection, or
// is not OK, after 3 s, and a server that stands still fails its statements after 7 s. The schema carries a version; an
// older one is migrated when the database is opened.
#pragma once

#include "host/QsHostApi.h"
#include "host/QsSystem.h"

#include <cstddef>
#include <string>
#include <vector>

namespace QsStandalone {

struct SDeviceDatabaseSetup
{
    enum class EKind
    {
        Sqlite,
        PostgreSql
    };

    EKind kind = EKind::Sqlite;
    std::string file; // SQLite: path
    std::string host; // PostgreSQL: name, address, or folder of the server's socket
    unsigned port = 5432;
    std::string database;
    std::string user;
    std::string password;
};

// "sqlite:PATH" or "postgresql://[USER[:PASSWORD]@]HOST[:PORT]/DATABASE" (HOST a socket's folder: percent-encoded).
// False, with one line that says what was expected, for anything else; `setup` is then unchanged.
QS_HOST_API bool ParseDeviceDatabase(const std::string& text, SDeviceDatabaseSetup& setup, std::string& error);
// The same back, without the password, for messages.
QS_HOST_API std::string DeviceDatabaseText(const SDeviceDatabaseSetup& setup);

// What a query's failure was reported with.
struct SDatabaseReport
{
    CQsStringW location;
    CQsStringW text;
    bool bStructure = false; // DeviceDBStructureE was thrown, else DeviceDBDataE
    std::string error;       // the database's own words
};

// A failure that is put on. It takes effect at the matching places after the first `skip` of them, `count` times.
struct SDatabaseFault
{
    enum class EStage
    {
        Connection, // the scope is not OK
        Prepare,
        Exec
    };
    static constexpr unsigned always = 0xFFFFFFFFu;

    EStage stage = EStage::Connection;
    std::wstring location; // of the scope; empty: any
    std::string statement; // part of the statement's text; empty: any; not used for connections
    unsigned skip = 0;
    unsigned count = always;
};

// [any thread] unless said otherwise.
class QS_HOST_API CQsDeviceDatabase
{
public:
    // Makes the schema in a database without one (for SQLite, makes the file). False, with one line, when there is a
    // schema already or the database refuses. Does not open it. [host]
    static bool Create(const SDeviceDatabaseSetup& setup, std::string& error);
    // From now on IsInitialized is true and connections go to this database; the current setup, its first hardware
    // configuration and the first user are the lowest ids, 0 where there are none. False, with one line, for a database
    // that cannot be reached, has no schema, or one newer than this program knows; then nothing changed. [host]
    static bool Open(const SDeviceDatabaseSetup& setup, std::string& error);
    // Back to no database. Connections of other threads are given back when they next ask or end. [host]
    static void Close();
    static bool IsOpen();
    static SDeviceDatabaseSetup Setup();

    // False, with one line, for an id that the database does not have (a hardware configuration: of the current setup).
    // A change of setup first tells the consumers of "QS_MODULEEVENT_DMV2_BEFORE_SETUP_CHANGE" and then takes its first
    // hardware configuration. The manager learns of a change by SetStimulationBeampathsDirty or Update. [host]
    static bool SetCurrentSetup(qs_int32 id, std::string& error);
    static bool SetCurrentHWConfig(qs_int32 id, std::string& error);
    static bool SetCurrentUser(qs_int32 id, std::string& error);

    // --- what tests look at
    static std::vector<SDatabaseReport> Reports(); // since the last ClearReports, the newest thousand
    static void ClearReports();
    static void SetFaults(const std::vector<SDatabaseFault>& faults); // replaces those before; empty: none
    static std::size_t ConnectionCount();                             // open connections of all threads
    static std::size_t QueryCount(); // statements run on connections that were made while faults or counting were on
    static void CountQueries(bool bCount);
};

} // namespace QsStandalone

#include "standalone/DatabaseSchema.h"

#include <vector>

namespace QsStandalone {

namespace {

using Statements = std::vector<const char*>;

// What each version adds to the one before it. A new database runs through all of them, so that it is the same as one
// that was migrated. A version that has been given to users is never changed.
//
// Every statement means the same to both kinds of database. Names are limited because a server's index takes no more
// than 2.7 KB. A configuration's logical device need not be listed: the device manager may know its database id
// otherwise. Parameters outlive the users and setups that they were stored for, and 0 stands for none.
const std::vector<Statements>& Versions()
{
    static const std::vector<Statements> versions = {
        {
            "CREATE TABLE dev_SchemaVersion (iVersion INTEGER NOT NULL PRIMARY KEY)",
            "INSERT INTO dev_SchemaVersion (iVersion) VALUES (1)",
            "CREATE TABLE dev_Setup (iSetupID INTEGER NOT NULL PRIMARY KEY CHECK (iSetupID >= 1), "
            "sName TEXT NOT NULL CHECK (length(sName) <= 255))",
            "CREATE TABLE dev_User (iUserID INTEGER NOT NULL PRIMARY KEY CHECK (iUserID >= 1), "
            "sName TEXT NOT NULL CHECK (length(sName) <= 255))",
            "CREATE TABLE dev_HWConfig (iHWConfigID INTEGER NOT NULL PRIMARY KEY CHECK (iHWConfigID >= 1), "
            "iSetupID INTEGER NOT NULL REFERENCES dev_Setup (iSetupID), "
            "sName TEXT NOT NULL CHECK (length(sName) <= 255))",
            "CREATE TABLE dev_BeamPath (iBeamPathID INTEGER NOT NULL PRIMARY KEY CHECK (iBeamPathID >= 1), "
            "sName TEXT NOT NULL CHECK (length(sName) <= 255), sUserName TEXT, "
            "iSetupID INTEGER NOT NULL REFERENCES dev_Setup (iSetupID), eType INTEGER NOT NULL, "
            "eDefHWCBehaviour INTEGER NOT NULL CHECK (eDefHWCBehaviour IN (0, 1)), iOrderNo INTEGER NOT NULL, "
            "jMergedBeamPathIDs TEXT)",
            "CREATE TABLE dev_HWConfig_BeamPath ("
            "iBeamPathID INTEGER NOT NULL REFERENCES dev_BeamPath (iBeamPathID), "
            "iHWConfigID INTEGER NOT NULL REFERENCES dev_HWConfig (iHWConfigID), eBehaviour INTEGER, "
            "PRIMARY KEY (iBeamPathID, iHWConfigID))",
            "CREATE TABLE dev_LogicalDevice (iLogicalDeviceID INTEGER NOT NULL PRIMARY KEY CHECK (iLogicalDeviceID >= 1), "
            "iLogDevID BIGINT NOT NULL CHECK (iLogDevID BETWEEN 1 AND 4294967295))",
            "CREATE TABLE dev_Configuration ("
            "iBeamPathID INTEGER NOT NULL REFERENCES dev_BeamPath (iBeamPathID), "
            "iLogicalDeviceID INTEGER NOT NULL CHECK (iLogicalDeviceID >= 1), eType INTEGER NOT NULL, "
            "PRIMARY KEY (iBeamPathID, iLogicalDeviceID, eType))",
        },
        {
            "CREATE TABLE dev_Parameter (sName TEXT NOT NULL CHECK (length(sName) <= 255), iSetupID INTEGER NOT NULL, "
            "iUserID INTEGER NOT NULL, sText TEXT NOT NULL, PRIMARY KEY (sName, iSetupID, iUserID))",
            "CREATE INDEX dev_BeamPath_Name ON dev_BeamPath (iSetupID, sName)",
            "CREATE INDEX dev_HWConfig_Setup ON dev_HWConfig (iSetupID)",
        },
    };
    return versions;
}

int PresentVersion()
{
    return static_cast<int>(Versions().size());
}

// From `version`, in the transaction that is open.
bool RunVersionsAfter(const QSqlDatabase& database, int version, std::string& error)
{
    for (std::size_t next = static_cast<std::size_t>(version); next < Versions().size(); ++next)
        for (const char* statement : Versions()[next])
        {
            QSqlQuery query(database);
            if (!RunStatement(query, statement, {}, error))
                return false;
        }
    return true;
}

// `moved` is false when another program was faster.
bool MoveVersion(const QSqlDatabase& database, int from, bool& moved, std::string& error)
{
    // As the first statement it keeps other programs out until the end of the transaction.
    QSqlQuery query(database);
    if (!RunStatement(query, "UPDATE dev_SchemaVersion SET iVersion = :iPresent WHERE iVersion = :iFrom",
                      {{":iPresent", PresentVersion()}, {":iFrom", from}}, error))
        return false;
    moved = query.numRowsAffected() == 1;
    return true;
}

bool Migrate(const QSqlDatabase& database, int from, std::string& error)
{
    CDatabaseTransaction transaction(database);
    bool moved = false;
    return transaction.Begin(error) && MoveVersion(database, from, moved, error) &&
           (!moved || RunVersionsAfter(database, from, error)) && transaction.Commit(error);
}

bool ReadVersion(const QSqlDatabase& database, int& version, std::string& error)
{
    std::string words;
    if (ReadNumber(database, "SELECT MAX(dev_SchemaVersion.iVersion) FROM dev_SchemaVersion", {}, 0, version, words))
        return true;
    error = "expected the schema of a device database, found none (" + words + ")";
    return false;
}

} // namespace

bool MakeDatabaseSchema(const QSqlDatabase& database, std::string& error)
{
    CDatabaseTransaction transaction(database);
    bool moved = false;
    std::string words;
    if (transaction.Begin(words) && RunVersionsAfter(database, 0, words) && MoveVersion(database, 1, moved, words) &&
        transaction.Commit(words))
        return true;
    error = "expected a database that takes the schema of a device database (" + words + ")";
    return false;
}

bool MigrateDatabaseSchema(const QSqlDatabase& database, std::string& error)
{
    int version = 0;
    if (!ReadVersion(database, version, error))
        return false;
    if (version < 1 || version > PresentVersion())
    {
        error = "expected a schema of version 1 to " + std::to_string(PresentVersion()) + ", found " +
                std::to_string(version);
        return false;
    }
    std::string words;
    if (version == PresentVersion() || Migrate(database, version, words))
        return true;
    error = "the schema of version " + std::to_string(version) + " cannot be migrated to version " +
            std::to_string(PresentVersion()) + " (" + words + ")";
    return false;
}

} // namespace QsStandalone

// Content into a device database and out of it.
#include "standalone/DatabaseConnection.h"
#include "standalone/DatabaseContent.h"
#include "standalone/DatabaseSchema.h"

#include <QSqlError>
#include <QVariantList>

namespace QsStandalone {

namespace {

QVariant Optional(const std::optional<std::string>& text)
{
    return text ? QVariant(ToQString(*text)) : QVariant(QVariant::String);
}

QVariant Optional(const std::optional<qs_int32>& number)
{
    return number ? QVariant(*number) : QVariant(QVariant::Int);
}

std::string Text(const QSqlQuery& query, int column)
{
    return query.value(column).toString().toStdString();
}

std::optional<std::string> OptionalText(const QSqlQuery& query, int column)
{
    return query.isNull(column) ? std::optional<std::string>() : Text(query, column);
}

// Rows that refer to others go first out and last in.
constexpr const char* s_deletions[] = {"DELETE FROM dev_Parameter",     "DELETE FROM dev_Configuration",
                                       "DELETE FROM dev_LogicalDevice", "DELETE FROM dev_HWConfig_BeamPath",
                                       "DELETE FROM dev_BeamPath",      "DELETE FROM dev_HWConfig",
                                       "DELETE FROM dev_User",          "DELETE FROM dev_Setup"};

class CImport
{
public:
    CImport(const QSqlDatabase& database, std::string& error) : m_database(database), m_error(error) {}

    bool Run(const SDatabaseContent& content)
    {
        for (const char* deletion : s_deletions)
        {
            QSqlQuery query(m_database);
            if (!RunStatement(query, deletion, {}, m_error))
                return false;
        }
        return InsertMicroscope(content) && InsertBeampaths(content);
    }

private:
    bool InsertMicroscope(const SDatabaseContent& content)
    {
        return Insert("INSERT INTO dev_User (iUserID, sName) VALUES (?, ?)", content.users,
                      [](const SDatabaseContent::SUser& user) {
                          return QVariantList{user.id, ToQString(user.name)};
                      }) &&
               Insert("INSERT INTO dev_Setup (iSetupID, sName) VALUES (?, ?)", content.setups,
                      [](const SDatabaseContent::SSetup& setup) {
                          return QVariantList{setup.id, ToQString(setup.name)};
                      }) &&
               Insert("INSERT INTO dev_HWConfig (iHWConfigID, iSetupID, sName) VALUES (?, ?, ?)", content.hwConfigs,
                      [](const SDatabaseContent::SHWConfig& config) {
                          return QVariantList{config.id, config.setup, ToQString(config.name)};
                      }) &&
               Insert("INSERT INTO dev_LogicalDevice (iLogicalDeviceID, iLogDevID) VALUES (?, ?)", content.logicalIds,
                      [](const SDatabaseContent::SLogicalId& id) {
                          return QVariantList{id.databaseId, static_cast<qlonglong>(id.logDevId)};
                      }) &&
               Insert("INSERT INTO dev_Parameter (sName, iSetupID, iUserID, sText) VALUES (?, ?, ?, ?)",
                      content.parameters,
                      [](const SDatabaseContent::SParameter& parameter) {
                          return QVariantList{ToQString(parameter.name), parameter.setup, parameter.user,
                                              ToQString(parameter.text)};
                      });
    }

    bool InsertBeampaths(const SDatabaseContent& content)
    {
        return Insert("INSERT INTO dev_BeamPath (iBeamPathID, sName, sUserName, iSetupID, eType, eDefHWCBehaviour, "
                      "iOrderNo, jMergedBeamPathIDs) VALUES (?, ?, ?, ?, ?, ?, ?, ?)",
                      content.beampaths,
                      [](const SDatabaseContent::SBeampath& beampath)
                      {
                          return QVariantList{beampath.id,
                                              ToQString(beampath.name),
                                              Optional(beampath.userName),
                                              beampath.setup,
                                              beampath.type,
                                              beampath.onByDefault ? 1 : 0,
                                              beampath.order,
                                              Optional(beampath.merged)};
                      }) &&
               Insert("INSERT INTO dev_HWConfig_BeamPath (iBeamPathID, iHWConfigID, eBehaviour) VALUES (?, ?, ?)",
                      content.hwConfigBeampaths,
                      [](const SDatabaseContent::SHWConfigBeampath& row) {
                          return QVariantList{row.beampath, row.hwConfig, Optional(row.behaviour)};
                      }) &&
               Insert("INSERT INTO dev_Configuration (iBeamPathID, iLogicalDeviceID, eType) VALUES (?, ?, ?)",
                      content.configurations,
                      [](const SDatabaseContent::SConfiguration& row) {
                          return QVariantList{row.beampath, row.logicalDevice, row.type};
                      });
    }

    template <class Row, class Values>
    bool Insert(const char* statement, const std::vector<Row>& rows, Values values)
    {
        QSqlQuery query(m_database);
        bool done = query.prepare(QString::fromLatin1(statement));
        for (std::size_t i = 0; done && i < rows.size(); ++i)
        {
            for (const QVariant& value : values(rows[i]))
                query.addBindValue(value);
            done = query.exec();
        }
        if (!done)
            m_error = DatabaseWords(query.lastError());
        return done;
    }

    const QSqlDatabase m_database;
    std::string& m_error;
};

class CExport
{
public:
    CExport(const QSqlDatabase& database, std::string& error) : m_database(database), m_error(error) {}

    bool Run(SDatabaseContent& content) { return SelectMicroscope(content) && SelectBeampaths(content); }

private:
    bool SelectMicroscope(SDatabaseContent& content)
    {
        return Select("SELECT iUserID, sName FROM dev_User ORDER BY iUserID", content.users,
                      [](const QSqlQuery& row, SDatabaseContent::SUser& user) {
                          user = {row.value(0).toInt(), Text(row, 1)};
                      }) &&
               Select("SELECT iSetupID, sName FROM dev_Setup ORDER BY iSetupID", content.setups,
                      [](const QSqlQuery& row, SDatabaseContent::SSetup& setup) {
                          setup = {row.value(0).toInt(), Text(row, 1)};
                      }) &&
               Select("SELECT iHWConfigID, iSetupID, sName FROM dev_HWConfig ORDER BY iHWConfigID", content.hwConfigs,
                      [](const QSqlQuery& row, SDatabaseContent::SHWConfig& config) {
                          config = {row.value(0).toInt(), row.value(1).toInt(), Text(row, 2)};
                      }) &&
               Select("SELECT iLogicalDeviceID, iLogDevID FROM dev_LogicalDevice ORDER BY iLogicalDeviceID",
                      content.logicalIds,
                      [](const QSqlQuery& row, SDatabaseContent::SLogicalId& id) {
                          id = {row.value(0).toInt(), row.value(1).toUInt()};
                      }) &&
               Select("SELECT sName, iSetupID, iUserID, sText FROM dev_Parameter ORDER BY sName, iSetupID, iUserID",
                      content.parameters,
                      [](const QSqlQuery& row, SDatabaseContent::SParameter& parameter) {
                          parameter = {Text(row, 0), row.value(1).toInt(), row.value(2).toInt(), Text(row, 3)};
                      });
    }

    bool SelectBeampaths(SDatabaseContent& content)
    {
        return Select("SELECT iBeamPathID, iSetupID, sName, sUserName, eType, eDefHWCBehaviour, iOrderNo, "
                      "jMergedBeamPathIDs FROM dev_BeamPath ORDER BY iBeamPathID",
                      content.beampaths,
                      [](const QSqlQuery& row, SDatabaseContent::SBeampath& beampath)
                      {
                          beampath.id = row.value(0).toInt();
                          beampath.setup = row.value(1).toInt();
                          beampath.name = Text(row, 2);
                          beampath.userName = OptionalText(row, 3);
                          beampath.type = row.value(4).toInt();
                          beampath.onByDefault = row.value(5).toInt() == 1;
                          beampath.order = row.value(6).toInt();
                          beampath.merged = OptionalText(row, 7);
                      }) &&
               Select("SELECT iHWConfigID, iBeamPathID, eBehaviour FROM dev_HWConfig_BeamPath ORDER BY iHWConfigID, "
                      "iBeamPathID",
                      content.hwConfigBeampaths,
                      [](const QSqlQuery& row, SDatabaseContent::SHWConfigBeampath& config)
                      {
                          config.hwConfig = row.value(0).toInt();
                          config.beampath = row.value(1).toInt();
                          if (!row.isNull(2))
                              config.behaviour = row.value(2).toInt();
                      }) &&
               Select("SELECT iBeamPathID, iLogicalDeviceID, eType FROM dev_Configuration ORDER BY iBeamPathID, "
                      "iLogicalDeviceID, eType",
                      content.configurations,
                      [](const QSqlQuery& row, SDatabaseContent::SConfiguration& config) {
                          config = {row.value(0).toInt(), row.value(1).toInt(), row.value(2).toInt(), 0};
                      });
    }

    template <class Row, class Read>
    bool Select(const char* statement, std::vector<Row>& rows, Read read)
    {
        QSqlQuery query(m_database);
        query.setForwardOnly(true);
        if (!RunStatement(query, statement, {}, m_error))
            return false;
        while (query.next())
            read(query, rows.emplace_back());
        // The end of the rows, or a file that could not be read any further.
        if (!query.lastError().isValid())
            return true;
        m_error = DatabaseWords(query.lastError());
        return false;
    }

    const QSqlDatabase m_database;
    std::string& m_error;
};

template <class Work>
bool InTransaction(const SDeviceDatabaseSetup& setup, std::string& error, Work work)
{
    CDatabaseConnection connection;
    if (!connection.Open(setup, false, error))
        return false;
    connection.BeginUse(s_longestTransfer);
    const QSqlDatabase& database = connection.Database();
    std::string words;
    bool done = MigrateDatabaseSchema(database, words);
    if (done)
    {
        CDatabaseTransaction transaction(database);
        done = transaction.Begin(words) && work(database, words) && transaction.Commit(words);
    }
    if (!done)
        error = DeviceDatabaseText(setup) + ": " + words;
    return done;
}

// A file shows a transaction one state by itself; a server shows every statement the latest.
bool HoldState(const SDeviceDatabaseSetup& setup, const QSqlDatabase& database, std::string& error)
{
    QSqlQuery query(database);
    return setup.kind == SDeviceDatabaseSetup::EKind::Sqlite ||
           RunStatement(query, "SET TRANSACTION ISOLATION LEVEL REPEATABLE READ", {}, error);
}

} // namespace

bool ImportDatabase(const SDeviceDatabaseSetup& setup, const SDatabaseContent& content, std::string& error)
{
    return InTransaction(setup, error,
                         [&](const QSqlDatabase& database, std::string& words)
                         { return CImport(database, words).Run(content); });
}

bool ExportDatabase(const SDeviceDatabaseSetup& setup, SDatabaseContent& content, std::string& error)
{
    SDatabaseContent read;
    if (!InTransaction(setup, error,
                       [&](const QSqlDatabase& database, std::string& words)
                       { return HoldState(setup, database, words) && CExport(database, words).Run(read); }))
        return false;
    content = std::move(read);
    return true;
}

} // namespace QsStandalone

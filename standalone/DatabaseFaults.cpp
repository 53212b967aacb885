#include "standalone/DatabaseFaults.h"

#include "platform/ThreadSafety.h"
#include "standalone/DatabaseConnection.h"

#include <QSqlDriver>
#include <QSqlError>
#include <QSqlField>
#include <QSqlIndex>
#include <QSqlRecord>
#include <QSqlResult>
#include <QStringList>

#include <algorithm>
#include <atomic>
#include <cwchar>

namespace QsStandalone {

namespace {

using EStage = SDatabaseFault::EStage;

struct SArmedFault
{
    SDatabaseFault fault;
    unsigned matches = 0; // so far
};

struct SFaults
{
    CQsMutex lock;
    std::vector<SArmedFault> faults QS_GUARDED_BY(lock);
};

SFaults& Faults()
{
    static SFaults& faults = *new SFaults; // threads may still ask while the process ends
    return faults;
}

std::atomic<bool> s_faultsOn{false};
std::atomic<bool> s_countingOn{false};
std::atomic<std::size_t> s_queryCount{0};

bool TakesFault(EStage stage, const wchar_t* location, const std::string& statement)
{
    if (!s_faultsOn)
        return false;
    SFaults& faults = Faults();
    const CQsScopedLock<CQsMutex> lock(faults.lock);
    bool takes = false;
    // Each fault counts the places that match it, also those at which another one strikes.
    for (SArmedFault& armed : faults.faults)
    {
        const SDatabaseFault& fault = armed.fault;
        if (fault.stage != stage || (!fault.location.empty() && fault.location != location) ||
            (stage != EStage::Connection && statement.find(fault.statement) == std::string::npos))
            continue;
        const unsigned place = armed.matches++;
        takes = takes ||
                (place >= fault.skip && (fault.count == SDatabaseFault::always || place - fault.skip < fault.count));
    }
    return takes;
}

// Passes everything on to a query of the connection that it stands for.
class CWatchedResult : public QSqlResult
{
public:
    CWatchedResult(const QSqlDriver* watched, QSqlResult* result, const wchar_t* location)
        : QSqlResult(watched), m_query(result), m_location(location)
    {}

    QVariant handle() const override { return m_query.result()->handle(); }

protected:
    bool savePrepare(const QString& statement) override
    {
        setQuery(statement);
        if (TakesFault(EStage::Prepare, m_location, statement.toStdString()))
            return Refuse();
        return m_query.prepare(statement) || Fail();
    }
    bool prepare(const QString& statement) override { return savePrepare(statement); }
    void bindValue(int position, const QVariant& value, QSql::ParamType type) override
    {
        m_query.bindValue(position, value, type);
    }
    void bindValue(const QString& placeholder, const QVariant& value, QSql::ParamType type) override
    {
        m_query.bindValue(placeholder, value, type);
    }
    bool exec() override
    {
        return Execute([this] { return m_query.exec(); });
    }
    bool execBatch(bool arrayBind) override
    {
        return Execute([this, arrayBind]
                       { return m_query.execBatch(arrayBind ? QSqlQuery::ValuesAsColumns : QSqlQuery::ValuesAsRows); });
    }
    bool reset(const QString& statement) override
    {
        setQuery(statement);
        return Execute([this, &statement] { return m_query.exec(statement); });
    }
    bool nextResult() override { return m_query.nextResult() && Settle(); }
    void detachFromResultSet() override { m_query.finish(); }
    void setForwardOnly(bool forward) override
    {
        QSqlResult::setForwardOnly(forward);
        m_query.setForwardOnly(forward);
    }
    void setNumericalPrecisionPolicy(QSql::NumericalPrecisionPolicy policy) override
    {
        QSqlResult::setNumericalPrecisionPolicy(policy);
        m_query.setNumericalPrecisionPolicy(policy);
    }

    bool fetch(int row) override { return Moved(m_query.seek(row)); }
    bool fetchFirst() override { return Moved(m_query.first()); }
    bool fetchNext() override { return Moved(m_query.next()); }
    bool fetchPrevious() override { return Moved(m_query.previous()); }
    bool fetchLast() override { return Moved(m_query.last()); }

    QVariant data(int column) override { return m_query.value(column); }
    bool isNull(int column) override { return m_query.isNull(column); }
    int size() override { return m_query.size(); }
    int numRowsAffected() override { return m_query.numRowsAffected(); }
    QSqlRecord record() const override { return m_query.record(); }
    QVariant lastInsertId() const override { return m_query.lastInsertId(); }

private:
    template <class Run>
    bool Execute(Run run)
    {
        ++s_queryCount;
        if (TakesFault(EStage::Exec, m_location, lastQuery().toStdString()))
            return Refuse();
        return run() ? Settle() : Fail();
    }
    // A statement has run.
    bool Settle()
    {
        setActive(m_query.isActive());
        setSelect(m_query.isSelect());
        setAt(QSql::BeforeFirstRow);
        return true;
    }
    bool Moved(bool there)
    {
        setAt(m_query.at());
        return there;
    }
    bool Refuse()
    {
        setLastError(QSqlError(QString::fromLatin1("a failure that was put on"), QString(), QSqlError::StatementError));
        return false;
    }
    bool Fail()
    {
        setLastError(m_query.lastError());
        return false;
    }

    QSqlQuery m_query;
    const wchar_t* m_location;
};

class CWatchedDriver : public QSqlDriver
{
public:
    CWatchedDriver(const QSqlDatabase& database, const wchar_t* location) : m_database(database), m_location(location)
    {
        setOpen(database.isOpen());
    }

    QSqlResult* createResult() const override { return new CWatchedResult(this, Real()->createResult(), m_location); }
    bool isOpen() const override { return Real()->isOpen(); }
    bool hasFeature(DriverFeature feature) const override { return Real()->hasFeature(feature); }
    bool beginTransaction() override { return Real()->beginTransaction() || Fail(); }
    bool commitTransaction() override { return Real()->commitTransaction() || Fail(); }
    bool rollbackTransaction() override { return Real()->rollbackTransaction() || Fail(); }
    QStringList tables(QSql::TableType type) const override { return Real()->tables(type); }
    QSqlIndex primaryIndex(const QString& table) const override { return Real()->primaryIndex(table); }
    QSqlRecord record(const QString& table) const override { return Real()->record(table); }
    QString formatValue(const QSqlField& field, bool trim) const override { return Real()->formatValue(field, trim); }
    QString escapeIdentifier(const QString& name, IdentifierType type) const override
    {
        return Real()->escapeIdentifier(name, type);
    }
    QVariant handle() const override { return Real()->handle(); }
    // The connection is its thread's, and stays.
    bool open(const QString&, const QString&, const QString&, const QString&, int, const QString&) override
    {
        return false;
    }
    void close() override {}

private:
    QSqlDriver* Real() const { return m_database.driver(); }
    bool Fail()
    {
        setLastError(Real()->lastError());
        return false;
    }

    QSqlDatabase m_database;
    const wchar_t* m_location;
};

} // namespace

bool AreStatementsWatched()
{
    return s_faultsOn || s_countingOn;
}

bool TakesConnectionFault(const wchar_t* location)
{
    return TakesFault(EStage::Connection, location, {});
}

QSqlDatabase WatchedDatabase(const QSqlDatabase& database, const wchar_t* location)
{
    return SUnregisteredDatabase(new CWatchedDriver(database, location));
}

void CQsDeviceDatabase::SetFaults(const std::vector<SDatabaseFault>& faults)
{
    SFaults& armed = Faults();
    const CQsScopedLock<CQsMutex> lock(armed.lock);
    armed.faults.clear();
    for (const SDatabaseFault& fault : faults)
        armed.faults.push_back({fault, 0});
    s_faultsOn = !faults.empty();
}

std::size_t CQsDeviceDatabase::QueryCount()
{
    return s_queryCount;
}

void CQsDeviceDatabase::CountQueries(bool bCount)
{
    s_countingOn = bCount;
}

} // namespace QsStandalone

// The device database of the process: which one it is, the threads' connections to it, and reports of what failed.
#include "standalone/DeviceDatabase.h"

#include "host/QsDevice.h"
#include "host/QsPluginManager.h"
#include "platform/Process.h"
#include "platform/ThreadSafety.h"
#include "platform/ThreadSlot.h"
#include "standalone/DatabaseConnection.h"
#include "standalone/DatabaseFaults.h"
#include "standalone/DatabaseSchema.h"
#include "standalone/DeviceManager.h"
#include "standalone/HostControl.h"

#include <QSqlError>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdlib>
#include <deque>
#include <memory>
#include <thread>

namespace QsStandalone {

namespace {

using Clock = std::chrono::steady_clock;

// A connection that could not be had within this time was waited for in vain: then scopes fail at once for a while
// instead of each waiting anew, since one rebuild of the beampaths has many.
constexpr auto s_slowAttempt = std::chrono::seconds(1);
constexpr auto s_pause = std::chrono::seconds(3);
// A scope has one statement or two; a server that is well has answered, or given each up, by then.
constexpr auto s_longestScope = std::chrono::seconds(6);
constexpr std::size_t s_keptReports = 1000;

struct SCurrent
{
    CQsMutex lock;
    SDeviceDatabaseSetup setup QS_GUARDED_BY(lock);
    std::uint64_t lastEpoch QS_GUARDED_BY(lock) = 0;
    Clock::time_point attemptNotBefore QS_GUARDED_BY(lock);
    std::deque<SDatabaseReport> reports QS_GUARDED_BY(lock);
};

SCurrent& Current()
{
    static SCurrent& current = *new SCurrent; // threads may still ask while the process ends
    return current;
}

std::atomic<bool> s_initialized{false};
// Number of the open database, counted up from 1 by every opening; 0: none is open.
std::atomic<std::uint64_t> s_epoch{0};
std::atomic<qs_int32> s_setupId{0};
std::atomic<qs_int32> s_hwConfigId{0};
std::atomic<qs_int32> s_userId{0};

// A thread's connection, closed when the thread ends.
struct SThreadConnection
{
    CDatabaseConnection connection;
    std::uint64_t epoch = 0; // of the database that it goes to
    unsigned scopes = 0;     // open ones
};

// Objects that are destroyed after the thread's connection may still ask for one.
thread_local bool t_bEnded = false;
std::atomic<bool> s_processEnds{false};

void EndOfThread(void* connection)
{
    t_bEnded = true;
    if (!s_processEnds && !QsPlatform::IsProcessEnding()) // then Qt's own tables of connections may be gone
        delete static_cast<SThreadConnection*>(connection);
}

QsPlatform::CThreadSlot& ConnectionSlot()
{
    static QsPlatform::CThreadSlot& slot = *new QsPlatform::CThreadSlot(&EndOfThread);
    return slot;
}

// The calling thread's; null when it has had none.
SThreadConnection* OwnConnection()
{
    return static_cast<SThreadConnection*>(ConnectionSlot().Get());
}

SThreadConnection& MakeOwnConnection()
{
    if (SThreadConnection* const own = OwnConnection())
        return *own;
    auto made = std::make_unique<SThreadConnection>();
    ConnectionSlot().Set(made.get());
    return *made.release();
}

void SayNoConnection(const wchar_t* location, const std::string& words)
{
    DiagOutputExW(L"DeviceDB", __LINE__, L"%s: no connection to the device database: %hs", location, words.c_str());
}

// Opens the thread's connection anew, to the open database.
bool Connect(SThreadConnection& own, std::uint64_t epoch, const wchar_t* location)
{
    SCurrent& current = Current();
    SDeviceDatabaseSetup setup;
    {
        const CQsScopedLock<CQsMutex> lock(current.lock);
        if (Clock::now() < current.attemptNotBefore)
            return false;
        setup = current.setup;
    }
    std::string error;
    const Clock::time_point begin = Clock::now();
    if (own.connection.Open(setup, false, error))
    {
        own.epoch = epoch;
        return true;
    }
    const Clock::time_point end = Clock::now();
    if (end - begin >= s_slowAttempt)
    {
        const CQsScopedLock<CQsMutex> lock(current.lock);
        current.attemptNotBefore = end + s_pause;
    }
    SayNoConnection(location, error);
    return false;
}

// Scopes that are open on all threads. Qt's own tables of connections go when the process ends; a thread of the pool that
// is in the middle of a query must come out before, and none may come in.
std::atomic<unsigned> s_openScopes{0};

void LeaveDatabaseAtExit()
{
    s_processEnds = true;
    if (QsPlatform::IsProcessEnding()) // no thread will come out any more, and it may hold a lock of Qt or of the database
        return;
    const auto until = std::chrono::steady_clock::now() + std::chrono::seconds(2);
    while (s_openScopes != 0 && std::chrono::steady_clock::now() < until)
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    if (SThreadConnection* const own = OwnConnection(); own != nullptr && own->scopes == 0)
        own->connection.Close();
}

bool EnterScope()
{
    ++s_openScopes; // before the look, so that the end either sees the scope or is seen
    if (!s_processEnds)
        return true;
    --s_openScopes;
    return false;
}

bool HasConnection(SThreadConnection& own, const wchar_t* location)
{
    const std::uint64_t epoch = s_epoch;
    const bool isOutermost = own.scopes == 1;
    // An inner scope goes on with what the outer one has, whose queries may be alive.
    if (!isOutermost)
        return epoch != 0 && own.epoch == epoch && own.connection.IsAlive();
    if (own.epoch != epoch)
    {
        own.connection.Close();
        own.epoch = 0;
    }
    if (epoch == 0)
        return false;
    if ((own.epoch != epoch || !own.connection.IsAlive()) && !Connect(own, epoch, location))
        return false;
    // After Qt has made its tables, so that this runs before they go.
    static const int registered = std::atexit(&LeaveDatabaseAtExit);
    static_cast<void>(registered);
    own.connection.BeginUse(s_longestScope);
    return true;
}

struct SLoaded
{
    qs_int32 setupId = 0;
    qs_int32 hwConfigId = 0;
    qs_int32 userId = 0;
    std::vector<std::pair<int, std::uint32_t>> logicalIds; // database id and logical device
};

bool FirstHWConfig(const QSqlDatabase& database, qs_int32 setupId, qs_int32& id, std::string& error)
{
    return ReadNumber(database, "SELECT MIN(iHWConfigID) FROM dev_HWConfig WHERE iSetupID = :iSetupID",
                      {{":iSetupID", setupId}}, 0, id, error);
}

bool Load(const QSqlDatabase& database, SLoaded& loaded, std::string& error)
{
    if (!ReadNumber(database, "SELECT MIN(iSetupID) FROM dev_Setup", {}, 0, loaded.setupId, error) ||
        !FirstHWConfig(database, loaded.setupId, loaded.hwConfigId, error) ||
        !ReadNumber(database, "SELECT MIN(iUserID) FROM dev_User", {}, 0, loaded.userId, error))
        return false;
    QSqlQuery query(database);
    if (!RunStatement(query, "SELECT iLogicalDeviceID, iLogDevID FROM dev_LogicalDevice ORDER BY iLogicalDeviceID", {},
                      error))
        return false;
    while (query.next())
        loaded.logicalIds.emplace_back(query.value(0).toInt(), query.value(1).toUInt());
    return true;
}

// Whether the current database has the id.
bool IsThere(const wchar_t* location, const char* statement, std::initializer_list<DatabaseBinding> bindings,
             const std::string& expected, qs_int32 id, std::string& error)
{
    const DeviceDBApi::CQsAutoDeviceDB scope(location, 0);
    if (!scope.IsOK())
    {
        error = "no connection to the device database";
        return false;
    }
    qs_int32 count = 0;
    if (!ReadNumber(scope.GetDatabase(), statement, bindings, 0, count, error))
        return false;
    if (count == 0)
        error = "expected the id of " + expected + ", found " + std::to_string(id);
    return count != 0;
}

} // namespace

void SetDeviceDatabaseInitialized(bool initialized)
{
    s_initialized = initialized;
}

bool CQsDeviceDatabase::Create(const SDeviceDatabaseSetup& setup, std::string& error)
{
    CDatabaseConnection connection;
    if (!connection.Open(setup, true, error))
        return false;
    connection.BeginUse(s_longestTransfer);
    if (MakeDatabaseSchema(connection.Database(), error))
        return true;
    error = DeviceDatabaseText(setup) + ": " + error;
    return false;
}

bool CQsDeviceDatabase::Open(const SDeviceDatabaseSetup& setup, std::string& error)
{
    SLoaded loaded;
    {
        CDatabaseConnection connection;
        if (!connection.Open(setup, false, error))
            return false;
        connection.BeginUse(s_longestTransfer);
        if (!MigrateDatabaseSchema(connection.Database(), error) || !Load(connection.Database(), loaded, error) ||
            !CQsDeviceManager::SetDatabaseIds(loaded.logicalIds, error))
        {
            error = DeviceDatabaseText(setup) + ": " + error;
            return false;
        }
    }
    SCurrent& current = Current();
    const CQsScopedLock<CQsMutex> lock(current.lock);
    current.setup = setup;
    current.attemptNotBefore = {};
    s_setupId = loaded.setupId;
    s_hwConfigId = loaded.hwConfigId;
    s_userId = loaded.userId;
    s_epoch = ++current.lastEpoch;
    s_initialized = true;
    return true;
}

void CQsDeviceDatabase::Close()
{
    {
        SCurrent& current = Current();
        const CQsScopedLock<CQsMutex> lock(current.lock);
        s_initialized = false;
        s_epoch = 0;
        s_setupId = 0;
        s_hwConfigId = 0;
        s_userId = 0;
        current.setup = {};
    }
    std::string ignored; // taking ids back contradicts nothing
    CQsDeviceManager::SetDatabaseIds({}, ignored);
    if (SThreadConnection* const own = OwnConnection(); own != nullptr && own->scopes == 0)
        own->connection.Close();
}

bool CQsDeviceDatabase::IsOpen()
{
    return s_epoch != 0;
}

SDeviceDatabaseSetup CQsDeviceDatabase::Setup()
{
    SCurrent& current = Current();
    const CQsScopedLock<CQsMutex> lock(current.lock);
    return current.setup;
}

bool CQsDeviceDatabase::SetCurrentSetup(qs_int32 id, std::string& error)
{
    constexpr const wchar_t* location = L"CQsDeviceDatabase::SetCurrentSetup";
    if (!IsThere(location, "SELECT COUNT(*) FROM dev_Setup WHERE iSetupID = :iSetupID", {{":iSetupID", id}},
                 "a setup of the device database", id, error))
        return false;
    if (id == s_setupId)
        return true;
    qs_int32 hwConfigId = 0;
    {
        const DeviceDBApi::CQsAutoDeviceDB scope(location, 0);
        if (!scope.IsOK() || !FirstHWConfig(scope.GetDatabase(), id, hwConfigId, error))
            return false;
    }
    // Consumers save what belongs to the setup that still is the current one.
    CQsPluginManager::AppRntm_HandleEvent(L"QS_MODULEEVENT_DMV2_BEFORE_SETUP_CHANGE", 0, 0, nullptr);
    s_setupId = id;
    s_hwConfigId = hwConfigId;
    return true;
}

bool CQsDeviceDatabase::SetCurrentHWConfig(qs_int32 id, std::string& error)
{
    const qs_int32 setupId = s_setupId;
    if (!IsThere(L"CQsDeviceDatabase::SetCurrentHWConfig",
                 "SELECT COUNT(*) FROM dev_HWConfig WHERE iHWConfigID = :iHWConfigID AND iSetupID = :iSetupID",
                 {{":iHWConfigID", id}, {":iSetupID", setupId}},
                 "a hardware configuration of setup " + std::to_string(setupId), id, error))
        return false;
    s_hwConfigId = id;
    return true;
}

bool CQsDeviceDatabase::SetCurrentUser(qs_int32 id, std::string& error)
{
    if (!IsThere(L"CQsDeviceDatabase::SetCurrentUser", "SELECT COUNT(*) FROM dev_User WHERE iUserID = :iUserID",
                 {{":iUserID", id}}, "a user of the device database", id, error))
        return false;
    s_userId = id;
    return true;
}

std::vector<SDatabaseReport> CQsDeviceDatabase::Reports()
{
    SCurrent& current = Current();
    const CQsScopedLock<CQsMutex> lock(current.lock);
    return {current.reports.begin(), current.reports.end()};
}

void CQsDeviceDatabase::ClearReports()
{
    SCurrent& current = Current();
    const CQsScopedLock<CQsMutex> lock(current.lock);
    current.reports.clear();
}

std::size_t CQsDeviceDatabase::ConnectionCount()
{
    return CDatabaseConnection::Count();
}

} // namespace QsStandalone

using namespace QsStandalone;

bool DeviceDBApi::IsInitialized()
{
    return s_initialized;
}

qs_int32 DeviceDBApi::GetCurrentSetupID()
{
    return s_setupId;
}

qs_int32 DeviceDBApi::GetCurrentHWConfigID()
{
    return s_hwConfigId;
}

qs_int32 DeviceDBApi::GetCurrentUserID()
{
    return s_userId;
}

DeviceDBApi::DeviceDBE::~DeviceDBE() = default;

void DeviceDBApi::DeviceDBE::Raise() const
{
    throw *this;
}

void DeviceDBApi::DeviceDBStructureE::Raise() const
{
    throw *this;
}

void DeviceDBApi::DeviceDBDataE::Raise() const
{
    throw *this;
}

DeviceDBApi::CQsAutoDeviceDB::CQsAutoDeviceDB(const wchar_t* location, int /*flags*/)
    : m_location(location != nullptr ? location : L"")
{
    if (t_bEnded)
        return;
    SThreadConnection& own = MakeOwnConnection();
    if (!EnterScope())
        return;
    m_bEntered = true;
    ++own.scopes;
    const bool isWatched = AreStatementsWatched();
    if (isWatched && s_epoch != 0 && TakesConnectionFault(m_location))
    {
        SayNoConnection(m_location, "a failure that was put on");
        return;
    }
    m_bOK = HasConnection(own, m_location);
    if (m_bOK)
        m_database = isWatched ? WatchedDatabase(own.connection.Database(), m_location) : own.connection.Database();
}

DeviceDBApi::CQsAutoDeviceDB::~CQsAutoDeviceDB()
{
    m_database = QSqlDatabase();
    if (!m_bEntered)
        return;
    struct SLeave
    {
        ~SLeave() { --s_openScopes; }
    } const leave;
    SThreadConnection* const own = OwnConnection();
    if (own == nullptr || --own->scopes != 0) // null: the thread ends
        return;
    own->connection.EndUse();
    // The database was closed, or another opened, meanwhile.
    if (own->epoch != s_epoch)
        own->connection.Close();
}

void DeviceDBApi::ReportQueryErrorAndThrowException(const QSqlQuery& query, const wchar_t* location,
                                                    const wchar_t* text, DeviceDBE* exception)
{
    const std::unique_ptr<DeviceDBE> owned(exception);
    SDatabaseReport report;
    report.location = location;
    report.text = text;
    report.bStructure = dynamic_cast<DeviceDBStructureE*>(exception) != nullptr;
    report.error = DatabaseWords(query.lastError());
    DiagOutputExW(L"DeviceDB", __LINE__, L"%s: %s: %hs", report.location.c_str(), report.text.c_str(),
                  report.error.c_str());
    {
        SCurrent& current = Current();
        const CQsScopedLock<CQsMutex> lock(current.lock);
        current.reports.push_back(report);
        if (current.reports.size() > s_keptReports)
            current.reports.pop_front();
    }
    if (owned != nullptr)
        owned->Raise();
    DeviceDBE().Raise();
}

#include "standalone/DatabaseConnection.h"

#include <QFileInfo>
#include <QLibrary>
#include <QSqlDriver>
#include <QSqlError>
#include <QUrl>
#include <QtGlobal>

#include <atomic>

namespace QsStandalone {

namespace {

std::atomic<std::size_t> s_count{0};

// Long enough for a server at the other end of a building, short enough for a user who waits. A host that is gone is
// noticed by the keep-alives after 5 + 3 * 2 s, data that nobody acknowledges after 5 s, and a statement that waits for
// a lock is given up by the server itself.
constexpr const char* s_serverOptions = "connect_timeout=3;keepalives=1;keepalives_idle=5;keepalives_interval=2;"
                                        "keepalives_count=3;tcp_user_timeout=5000;application_name=stimulation";
constexpr const char* s_statementTimeout = "SET statement_timeout = 3000";
// How long another connection's transaction is waited for.
constexpr const char* s_fileOptions = "QSQLITE_BUSY_TIMEOUT=3000;QSQLITE_OPEN_URI";

// What Qt does not pass on of the server's client library, which its driver has loaded. Null where it is not to be had.
struct SClientLibrary
{
    // Reads what the server has sent meanwhile, without waiting. An idle connection learns in no other way that its
    // server is gone; without it the first query after a restart would fail.
    int (*ReadInput)(void* connection) = nullptr;
    int (*Socket)(const void* connection) = nullptr;
    using NoticeFunction = void (*)(void* context, const char* text);
    NoticeFunction (*SetNoticeFunction)(void* connection, NoticeFunction function, void* context) = nullptr;
};

template <class Function>
void Resolve(const char* symbol, Function& function)
{
    for (const auto& [name, version] : {std::pair("pq", 5), std::pair("libpq", -1)})
        if (function == nullptr)
            function = reinterpret_cast<Function>(QLibrary::resolve(QString::fromLatin1(name), version, symbol));
}

const SClientLibrary& ClientLibrary()
{
    static const SClientLibrary library = []
    {
        SClientLibrary found;
        Resolve("PQconsumeInput", found.ReadInput);
        Resolve("PQsocket", found.Socket);
        Resolve("PQsetNoticeProcessor", found.SetNoticeFunction);
        return found;
    }();
    return library;
}

// What a server says beside its answers, such as that it is about to end, would go to stderr.
void LogNotice(void*, const char* text)
{
    DiagOutputExW(L"PostgreSQL", __LINE__, L"%hs", QString::fromUtf8(text).simplified().toUtf8().constData());
}

// Qt prints on stderr whatever a query meets on a connection that is gone. It is reported as the failed query already.
void LogMessage(QtMsgType, const QMessageLogContext&, const QString& text)
{
    DiagOutputExW(L"Qt", __LINE__, L"%hs", text.simplified().toUtf8().constData());
}

void LogMessagesOfQt()
{
    static const QtMessageHandler before = qInstallMessageHandler(LogMessage);
    static_cast<void>(before);
}

void* ServerHandle(const QSqlDatabase& database)
{
    const QVariant handle = database.driver()->handle();
    if (!handle.isValid() || qstrcmp(handle.typeName(), "PGconn*") != 0)
        return nullptr;
    return *static_cast<void* const*>(handle.data());
}

QSqlDatabase MakeDatabase(const SDeviceDatabaseSetup& setup, bool make, std::string& error)
{
    const bool isFile = setup.kind == SDeviceDatabaseSetup::EKind::Sqlite;
    const QString driver = QString::fromLatin1(isFile ? "QSQLITE" : "QPSQL");
    if (!QSqlDatabase::isDriverAvailable(driver))
    {
        error = "expected Qt's database driver " + driver.toStdString() + ", found none";
        return {};
    }
    SUnregisteredDatabase database(driver);
    if (isFile)
    {
        // As an address, since a plain name would make a file where there is none. It names no host: the library takes
        // none, and reads the path of a shared folder behind it.
        const QString path = QFileInfo(ToQString(setup.file)).absoluteFilePath();
        database.setDatabaseName(QString::fromLatin1(path.startsWith(QLatin1Char('/')) ? "file://" : "file:///") +
                                 QString::fromLatin1(QUrl::toPercentEncoding(path, "/:")) +
                                 QString::fromLatin1(make ? "?mode=rwc" : "?mode=rw"));
        database.setConnectOptions(QString::fromLatin1(s_fileOptions));
    }
    else
    {
        database.setHostName(ToQString(setup.host));
        database.setPort(static_cast<int>(setup.port));
        database.setDatabaseName(ToQString(setup.database));
        database.setUserName(ToQString(setup.user));
        database.setPassword(ToQString(setup.password));
        database.setConnectOptions(QString::fromLatin1(s_serverOptions));
    }
    return database;
}

} // namespace

bool CDatabaseConnection::Open(const SDeviceDatabaseSetup& setup, bool make, std::string& error)
{
    LogMessagesOfQt();
    Close();
    m_database = MakeDatabase(setup, make, error);
    if (!m_database.isValid())
        return false;
    const bool isFile = setup.kind == SDeviceDatabaseSetup::EKind::Sqlite;
    if (!m_database.open())
    {
        error = DeviceDatabaseText(setup) + ": " + DatabaseWords(m_database.lastError());
        m_database = QSqlDatabase();
        return false;
    }
    m_open = true;
    ++s_count;
    QSqlQuery query(m_database);
    // A file's references are only checked by connections that ask for it.
    if (!query.exec(QString::fromLatin1(isFile ? "PRAGMA foreign_keys = ON" : s_statementTimeout)))
    {
        error = DeviceDatabaseText(setup) + ": " + DatabaseWords(query.lastError());
        query = QSqlQuery(QSqlDatabase());
        Close();
        return false;
    }
    if (!isFile)
        KnowServer();
    return true;
}

void CDatabaseConnection::KnowServer()
{
    m_server = ServerHandle(m_database);
    const SClientLibrary& library = ClientLibrary();
    if (m_server == nullptr)
        return;
    if (library.SetNoticeFunction != nullptr)
        library.SetNoticeFunction(m_server, LogNotice, nullptr);
    if (library.Socket == nullptr)
        return;
    m_socket = library.Socket(m_server);
    AddWatchedConnection();
}

void CDatabaseConnection::BeginUse(std::chrono::milliseconds limit)
{
    if (m_socket >= 0)
        m_use = BeginDatabaseUse(m_socket, limit);
}

void CDatabaseConnection::EndUse()
{
    if (m_use)
        EndDatabaseUse(*m_use);
    m_use.reset();
}

void CDatabaseConnection::Close()
{
    EndUse();
    if (m_socket >= 0)
        RemoveWatchedConnection();
    m_socket = -1;
    m_server = nullptr;
    m_database.close();
    m_database = QSqlDatabase();
    if (m_open)
        --s_count;
    m_open = false;
}

bool CDatabaseConnection::IsAlive()
{
    const auto read = m_server != nullptr ? ClientLibrary().ReadInput : nullptr;
    if (read != nullptr)
    {
        // A server says that it ends before it closes the line: the second look finds the line closed.
        read(m_server);
        read(m_server);
    }
    return m_database.isOpen();
}

std::size_t CDatabaseConnection::Count()
{
    return s_count;
}

CDatabaseTransaction::CDatabaseTransaction(const QSqlDatabase& database) : m_database(database) {}

CDatabaseTransaction::~CDatabaseTransaction()
{
    if (m_open)
        m_database.rollback();
}

bool CDatabaseTransaction::Begin(std::string& error)
{
    m_open = m_database.transaction();
    if (!m_open)
        error = DatabaseWords(m_database.lastError());
    return m_open;
}

bool CDatabaseTransaction::Commit(std::string& error)
{
    if (!m_database.commit())
    {
        error = DatabaseWords(m_database.lastError());
        return false;
    }
    m_open = false;
    return true;
}

bool RunStatement(QSqlQuery& query, const char* statement, std::initializer_list<DatabaseBinding> bindings,
                  std::string& error)
{
    const QString text = QString::fromLatin1(statement);
    bool done = false;
    if (bindings.size() == 0)
        done = query.exec(text); // a server prepares no statement that changes the schema
    else if (query.prepare(text))
    {
        for (const auto& [name, value] : bindings)
            query.bindValue(QString::fromLatin1(name), value, QSql::In);
        done = query.exec();
    }
    if (!done)
        error = DatabaseWords(query.lastError());
    return done;
}

bool ReadNumber(const QSqlDatabase& database, const char* statement, std::initializer_list<DatabaseBinding> bindings,
                qs_int32 fallback, qs_int32& number, std::string& error)
{
    QSqlQuery query(database);
    if (!RunStatement(query, statement, bindings, error))
        return false;
    const bool found = query.first() && !query.isNull(0);
    number = found ? query.value(0).toInt() : fallback;
    return true;
}

std::string DatabaseWords(const QSqlError& error)
{
    // Qt itself gives no words for a statement on a connection that is not there any more.
    const QString words = error.text().simplified();
    return words.isEmpty() ? std::string("the connection is gone") : words.toStdString();
}

QString ToQString(const std::string& utf8)
{
    return QString::fromUtf8(utf8.data(), static_cast<int>(utf8.size()));
}

QString ToQString(const CQsStringW& text)
{
    return ToQString(text.ToUtf8());
}

CQsStringW ToStringW(const QString& text)
{
    return CQsStringW::FromUtf8(text.toStdString());
}

} // namespace QsStandalone

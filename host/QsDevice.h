// The host's device library: the device database.
//
// Queries run through Qt's SQL module on the calling thread's own connection; a connection never crosses threads.
#pragma once

#include "host/QsSystem.h"

#include <QSqlDatabase>

class QSqlQuery;

class QS_HOST_API DeviceDBApi
{
public:
    // Whether the host runs on a device database. May change while the host starts. [any thread]
    static bool IsInitialized();

    // The current setup, hardware configuration and user; 0 when there is none. [any thread]
    static qs_int32 GetCurrentSetupID();
    static qs_int32 GetCurrentHWConfigID();
    static qs_int32 GetCurrentUserID();

    // Base of what database code throws. Thrown by value, catch by reference; never leaves a public operation.
    class QS_HOST_API DeviceDBE
    {
    public:
        DeviceDBE() = default;
        DeviceDBE(const DeviceDBE&) = default;
        DeviceDBE& operator=(const DeviceDBE&) = default;
        virtual ~DeviceDBE();

        // Throws a copy of the object in its own class.
        [[noreturn]] virtual void Raise() const;
    };

    // The database's structure is not what was expected: a statement could not be prepared.
    class QS_HOST_API DeviceDBStructureE : public DeviceDBE
    {
    public:
        [[noreturn]] void Raise() const override;
    };

    // A statement failed when it ran.
    class QS_HOST_API DeviceDBDataE : public DeviceDBE
    {
    public:
        [[noreturn]] void Raise() const override;
    };

    // The calling thread's connection for one scope. Scopes nest on one thread. Stays on the thread that made it; no
    // query made from it outlives it.
    class QS_HOST_API CQsAutoDeviceDB
    {
    public:
        // `location` names who asks, for reports, and is kept by pointer. `flags` is 0.
        CQsAutoDeviceDB(const wchar_t* location, int flags);
        ~CQsAutoDeviceDB();
        CQsAutoDeviceDB(const CQsAutoDeviceDB&) = delete;
        CQsAutoDeviceDB& operator=(const CQsAutoDeviceDB&) = delete;

        bool IsOK() const { return m_bOK; } // the connection is there
        const QSqlDatabase& GetDatabase() const { return m_database; }
        const wchar_t* GetLocation() const { return m_location; }

    private:
        const wchar_t* m_location;
        QSqlDatabase m_database;
        bool m_bOK = false;
        bool m_bEntered = false; // counted as open
    };

    // Reports the query's last error with where and at what it happened, deletes `exception` and throws it. [any
    // thread]
    [[noreturn]] static void ReportQueryErrorAndThrowException(const QSqlQuery& query, const wchar_t* location,
                                                               const wchar_t* text, DeviceDBE* exception);
};

// The parameter store of the device database: one text for each name, setup and user.
class QS_HOST_API DeviceDBAppHelper
{
public:
    // 0 with the text; -13, and `value` empty, when nothing is stored; -9, and `value` empty, when the database fails,
    // which is reported. `pbFound` may be null. [any thread]
    static int LoadParam(const wchar_t* name, CQsStringW& value, bool* pbFound, qs_int32 setupId, qs_int32 userId);
    // 0, or -9 when the database fails, which is reported; then what was stored before is still there. [any thread]
    static int SaveParam(const wchar_t* name, const CQsStringW& value, qs_int32 setupId, qs_int32 userId);
};

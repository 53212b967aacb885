// The parameter store of the device database.
#include "host/QsDevice.h"
#include "standalone/DatabaseConnection.h"

using namespace QsStandalone;

namespace {

// A statement in the way that every user of the device database runs one.
void Run(QSqlQuery& query, const DeviceDBApi::CQsAutoDeviceDB& scope, const char* statement, const wchar_t* prepareText,
         const wchar_t* execText, std::initializer_list<DatabaseBinding> bindings)
{
    if (!query.prepare(QString::fromLatin1(statement)))
        DeviceDBApi::ReportQueryErrorAndThrowException(query, scope.GetLocation(), prepareText,
                                                       new DeviceDBApi::DeviceDBStructureE);
    for (const auto& [name, value] : bindings)
        query.bindValue(QString::fromLatin1(name), value, QSql::In);
    if (!query.exec())
        DeviceDBApi::ReportQueryErrorAndThrowException(query, scope.GetLocation(), execText,
                                                       new DeviceDBApi::DeviceDBDataE);
}

} // namespace

int DeviceDBAppHelper::LoadParam(const wchar_t* name, CQsStringW& value, bool* pbFound, qs_int32 setupId,
                                 qs_int32 userId)
{
    constexpr int nothingStored = -13;
    value = CQsStringW();
    if (pbFound != nullptr)
        *pbFound = false;
    const DeviceDBApi::CQsAutoDeviceDB scope(L"DeviceDBAppHelper::LoadParam", 0);
    if (!scope.IsOK())
        return QS_ERR_FAIL;
    try
    {
        QSqlQuery query(scope.GetDatabase());
        Run(query, scope,
            "SELECT dev_Parameter.sText FROM dev_Parameter WHERE dev_Parameter.sName = :sName AND "
            "dev_Parameter.iSetupID = :iSetupID AND dev_Parameter.iUserID = :iUserID ",
            L"Loading a parameter - prepare", L"Loading a parameter - exec",
            {{":sName", ToQString(CQsStringW(name))}, {":iSetupID", setupId}, {":iUserID", userId}});
        if (!query.first())
            return nothingStored;
        value = ToStringW(query.value(0).toString());
    }
    catch (const DeviceDBApi::DeviceDBE&)
    {
        return QS_ERR_FAIL;
    }
    if (pbFound != nullptr)
        *pbFound = true;
    return QS_OK;
}

int DeviceDBAppHelper::SaveParam(const wchar_t* name, const CQsStringW& value, qs_int32 setupId, qs_int32 userId)
{
    // A server cannot keep it, and would take what stands before it for the whole statement.
    if (value.Std().find(L'\0') != std::wstring::npos)
    {
        DiagOutputExW(L"DeviceDB", __LINE__,
                      L"DeviceDBAppHelper::SaveParam: %s: expected a text without null characters",
                      CQsStringW(name).c_str());
        return QS_ERR_FAIL;
    }
    const DeviceDBApi::CQsAutoDeviceDB scope(L"DeviceDBAppHelper::SaveParam", 0);
    if (!scope.IsOK())
        return QS_ERR_FAIL;
    try
    {
        // One statement: another program sees the old text or the new one.
        QSqlQuery query(scope.GetDatabase());
        Run(query, scope,
            "INSERT INTO dev_Parameter (sName, iSetupID, iUserID, sText) VALUES (:sName, :iSetupID, :iUserID, :sText) "
            "ON CONFLICT (sName, iSetupID, iUserID) DO UPDATE SET sText = excluded.sText ",
            L"Saving a parameter - prepare", L"Saving a parameter - exec",
            {{":sName", ToQString(CQsStringW(name))},
             {":iSetupID", setupId},
             {":iUserID", userId},
             {":sText", ToQString(value)}});
    }
    catch (const DeviceDBApi::DeviceDBE&)
    {
        return QS_ERR_FAIL;
    }
    return QS_OK;
}

#include "beampath/DeviceQuery.h"

QSqlQuery QsRunDeviceQuery(const DeviceDBApi::CQsAutoDeviceDB& database, const SQsDeviceStatement& statement,
                           std::initializer_list<QsDeviceBinding> bindings)
{
    QSqlQuery query(database.GetDatabase());
    if (!query.prepare(QString::fromLatin1(statement.sql)))
        DeviceDBApi::ReportQueryErrorAndThrowException(query, database.GetLocation(), statement.prepareText,
                                                       new DeviceDBApi::DeviceDBStructureE);
    for (const QsDeviceBinding& binding : bindings)
        query.bindValue(QString::fromLatin1(binding.first), binding.second, QSql::In);
    if (!query.exec())
        DeviceDBApi::ReportQueryErrorAndThrowException(query, database.GetLocation(), statement.execText,
                                                       new DeviceDBApi::DeviceDBDataE);
    return query;
}

CQsStringW QsQueryText(const QSqlQuery& query, int column)
{
    return CQsStringW(query.value(column).toString().toStdWString());
}

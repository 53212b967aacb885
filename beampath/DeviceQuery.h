// Runs a statement on a scoped connection of the device database.
#pragma once

#include "beampath/DeviceStatements.h"
#include "host/QsDevice.h"

#include <QSqlQuery>
#include <QString>
#include <QVariant>

#include <initializer_list>
#include <utility>

using QsDeviceBinding = std::pair<const char*, QVariant>; // ":name" and the value

// The executed query, in front of its first row. A statement that cannot be prepared or executed is reported, and
// DeviceDBStructureE or DeviceDBDataE thrown. The query must be gone before the connection's scope ends. [any thread]
QSqlQuery QsRunDeviceQuery(const DeviceDBApi::CQsAutoDeviceDB& database, const SQsDeviceStatement& statement,
                           std::initializer_list<QsDeviceBinding> bindings);

// Column of the query's row.
CQsStringW QsQueryText(const QSqlQuery& query, int column);

// Failures that are put on the device database, and the count of its statements.
//
// While either is on, a scope's connection runs through a driver that looks at every statement first; otherwise nothing
// stands between a query and Qt's own driver. [any thread]
#pragma once

#include <QSqlDatabase>

namespace QsStandalone {

bool AreStatementsWatched();
// Whether the scope shall have no connection.
bool TakesConnectionFault(const wchar_t* location);
// The same connection, watched. `location` is kept by pointer.
QSqlDatabase WatchedDatabase(const QSqlDatabase& database, const wchar_t* location);

} // namespace QsStandalone

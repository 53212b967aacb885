// The schema of a device database and its versions.
#pragma once

#include "standalone/DatabaseConnection.h"

#include <string>

namespace QsStandalone {

// Makes the present version of the schema, in one transaction. False, with one line, and nothing changed, when there is
// one already.
bool MakeDatabaseSchema(const QSqlDatabase& database, std::string& error);
// Brings an older schema to the present version, in one transaction. False, with one line, and nothing changed, when
// there is none, or one that is newer than this program.
bool MigrateDatabaseSchema(const QSqlDatabase& database, std::string& error);

} // namespace QsStandalone

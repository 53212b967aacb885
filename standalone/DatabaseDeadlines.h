// Breaks connections to a server that does not answer any more.
//
// The client library waits for an answer without an end. A host that is gone is noticed by the network's time-outs, and
// a statement that takes too long is ended by the server itself; a server that is there and stands still is noticed by
// nobody else. One thread looks once a second, while there are such connections. [any thread]
#pragma once

#include <chrono>
#include <list>

namespace QsStandalone {

struct SDatabaseUse
{
    int socket = -1;
    std::chrono::steady_clock::time_point end;
};
using DatabaseUse = std::list<SDatabaseUse>::iterator;

// Around the life of a connection.
void AddWatchedConnection();
void RemoveWatchedConnection();
// Around the statements on it: a use that lasts longer than `limit` finds its connection closed. The socket must not be
// closed in between.
DatabaseUse BeginDatabaseUse(int socket, std::chrono::milliseconds limit);
void EndDatabaseUse(DatabaseUse use);

} // namespace QsStandalone

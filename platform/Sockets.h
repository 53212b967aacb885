// The one call on sockets that is used.
#pragma once

#ifdef _WIN32
#include <winsock2.h>
#else
#include <sys/socket.h>
#endif

// Ends the connection in both directions. Whoever waits on it, in any thread, finds it closed; the socket stays its
// owner's to close.
inline void QsShutdownSocket(int socket)
{
#ifdef _WIN32
    ::shutdown(static_cast<SOCKET>(socket), SD_BOTH);
#else
    ::shutdown(socket, SHUT_RDWR);
#endif
}

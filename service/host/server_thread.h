// The server thread: start-up's slow half, then the HTTPS server.
#pragma once

#include <cstdint>

namespace stewardry {

// The server thread's entry; the parameter is not used. Runs ServerStartup, then RunServer, which
// doesn't come back: the thread is ended from outside.
std::uint32_t MyThreadFunction(void* parameter);

// The pipes' threads, sockets, WMI log, the first status report, which waits for as long as the
// host has no network connection, and the watch on the wireless link. Nothing is bound before it
// has finished.
void ServerStartup();

}  // namespace stewardry

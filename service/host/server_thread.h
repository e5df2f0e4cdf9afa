// The server thread: the slow part of the start, then the HTTPS server.
#pragma once

#include <cstdint>

namespace stewardry {

// The server thread's entry; the parameter is not used. Runs ServerStartup, then RunServer. Returns
// 0 when the server was asked to stop.
std::uint32_t MyThreadFunction(void* parameter);

// Starts the pipes' threads, the sockets and the WMI log, makes the first status report, and starts
// the watch on the wireless link. The report blocks while the host has no network connection, and
// the listeners are bound after it. Returns after its current step if the server is asked to stop.
void ServerStartup();

}  // namespace stewardry

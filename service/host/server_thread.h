// The server thread: start-up's slow half, then the HTTPS server.
#pragma once

#include <cstdint>

namespace stewardry {

// The server thread's entry; the parameter is not used. Runs ServerStartup, then RunServer. Result
// 0 when the server was asked to stop.
std::uint32_t MyThreadFunction(void* parameter);

// The pipes' threads, sockets, WMI log, the first status report, which waits for as long as the
// host has no network connection, and the watch on the wireless link. Nothing is bound before it
// has finished. A server that is asked to stop meanwhile goes no further than its step.
void ServerStartup();

}  // namespace stewardry

// The facts of this platform that the contract's inline parts and the service need.
#pragma once

namespace platform {

constexpr bool kSelectBeforeEachWait = false;  // an epoll selection holds until it is changed
constexpr bool kQueryEachSocket = false;       // the wait reports which sockets have events

// Without SO_REUSEADDR a listener waits for the connections that linger on its port.
constexpr bool kListenersReuseTheAddress = true;

constexpr char kPathSeparator = '/';   // in the path of the executable
constexpr char kProgramSuffix[] = "";  // of an executable's name
constexpr char kHostSystem[] = "linux";

}  // namespace platform

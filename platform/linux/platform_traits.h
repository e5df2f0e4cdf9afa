// What the contract's inline parts need to know of this platform.
#pragma once

namespace platform {

constexpr bool kSelectBeforeEachWait = false;  // an epoll selection stands until it is changed
constexpr bool kQueryEachSocket = false;       // the wait tells which sockets have news

// Without SO_REUSEADDR a listener waits for the connections that linger on its port.
constexpr bool kListenersReuseTheAddress = true;

constexpr char kPathSeparator = '/';   // in the path of the executable
constexpr char kProgramSuffix[] = "";  // of an executable's name

}  // namespace platform

// What the contract's inline parts need to know of this platform.
#pragma once

namespace platform {

constexpr bool kSelectBeforeEachWait = true;  // re-arming makes Winsock's events level-triggered
constexpr bool kAskEachSocket = true;         // one event for all sockets: each must be asked

// With SO_REUSEADDR another process could take the port of a listener here, and lingering
// connections don't keep anybody from it.
constexpr bool kListenersReuseTheAddress = false;

constexpr char kPathSeparator = '\\';      // in the path of the executable
constexpr char kProgramSuffix[] = ".exe";  // of an executable's name

}  // namespace platform

// Constants of this platform that the contract's inline functions and its callers use.
#pragma once

namespace platform {

constexpr bool kSelectBeforeEachWait = true;  // re-arming makes Winsock's events level-triggered
constexpr bool kQueryEachSocket = true;  // all sockets share one event, so each must be queried

// With SO_REUSEADDR another process could take a listener's port; lingering connections do not keep
// a listener from its port here.
constexpr bool kListenersReuseTheAddress = false;

constexpr char kPathSeparator = '\\';      // in the path of the executable
constexpr char kProgramSuffix[] = ".exe";  // of an executable's name
constexpr char kHostSystem[] = "windows";

}  // namespace platform

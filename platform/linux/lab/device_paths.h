// How the paths of the stand-in's device interfaces begin; the interface's name follows.
#pragma once

namespace platform {

inline constexpr char kMailboxPathPrefix[] = "\\\\?\\mailbox#";
inline constexpr char kBatteryPathPrefix[] = "\\\\?\\battery#";

}  // namespace platform

// The folder in which the Linux stand-ins keep their files: $STEWARDRY_LAB, by default
// /tmp/stewardry-lab, read once from the environment at the first use.
#pragma once

#include <string>

namespace platform {

// How the paths of the stand-in's device interfaces begin; the interface's name follows.
inline constexpr char kMailboxPathPrefix[] = "\\\\?\\mailbox#";
inline constexpr char kBatteryPathPrefix[] = "\\\\?\\battery#";

// Returns the lab folder's path, without a trailing slash.
const std::string& LabFolder();

// Returns a path below it: LabPath("power.txt").
std::string LabPath(const std::string& name);

// Returns the Linux path for a Windows path of the service: "C:\ProgramData\x" is
// "<lab>/ProgramData/x". In any other path only the backslashes are turned.
std::string NativePath(const char* windowsPath);

// Connects to the Unix stream socket `path`; `flags` are those of socket(2). Returns the
// descriptor, which the caller owns, or -1 with errno set.
int ConnectLabSocket(const std::string& path, int flags = 0);

// Binds a Unix datagram socket to the file `name` in the lab folder, in place of one that an
// earlier process has left. Returns false, with errno set, on failure.
bool BindLabSocket(int descriptor, const std::string& name);

// Appends one line to a text file in the lab folder, whole even with other writers.
void AppendLabLine(const std::string& name, const std::string& line);

}  // namespace platform

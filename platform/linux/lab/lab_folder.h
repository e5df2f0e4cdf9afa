// Where the Linux stand-ins keep what they stand in for: one folder, $STEWARDRY_LAB, by default
// /tmp/stewardry-lab, read once from the environment at the first use.
#pragma once

#include <string>

namespace platform {

// The lab folder's path, without a trailing slash.
const std::string& LabFolder();

// A path below it: LabPath("power.txt").
std::string LabPath(const std::string& name);

// The Linux path that a Windows path of the service stands for: "C:\ProgramData\x" is
// "<lab>/ProgramData/x". Any other path only has its backslashes turned.
std::string NativePath(const char* windowsPath);

// Connects to the Unix socket `path`. Gives the descriptor, which is the caller's, or -1 if nobody
// listens there or the path is too long for a socket.
int DialLabSocket(const std::string& path);

// Appends one line to a text file in the lab folder, whole even with other writers.
void AppendLabLine(const std::string& name, const std::string& line);

}  // namespace platform

// Where a file of the service lies for a test that runs on both platforms: a Windows path is one on
// Windows, and stands for a path below the lab folder elsewhere.
#pragma once

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>

namespace stewardry {

inline std::filesystem::path HostPath(std::string windowsPath) {
  const std::filesystem::path path(windowsPath);
  if (path.has_root_name()) return path;
  std::replace(windowsPath.begin(), windowsPath.end(), '\\', '/');
  const char* lab = std::getenv("STEWARDRY_LAB");
  return (lab != nullptr ? lab : "/tmp/stewardry-lab") + windowsPath.substr(2);
}

// The text of a file, its line ends as '\n'; empty if there is none.
inline std::string HostFileText(const std::string& windowsPath) {
  std::ifstream file(HostPath(windowsPath), std::ios::binary);
  std::string text{std::istreambuf_iterator<char>(file), {}};
  std::erase(text, '\r');
  return text;
}

// Takes the file away and sees to its folder.
inline void MakeRoomFor(const std::string& windowsPath) {
  const std::filesystem::path path = HostPath(windowsPath);
  std::filesystem::create_directories(path.parent_path());
  std::filesystem::remove(path);
}

}  // namespace stewardry

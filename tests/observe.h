// What a test on Linux observes of its own process: the platform calls that the gate has traced,
// and the threads, descriptors and child processes that are in use.
#pragma once

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <initializer_list>
#include <iterator>
#include <ostream>
#include <string>
#include <vector>

#include "platform/linux/runtime/gate.h"

// Returns the traced calls of these names, "Name(arguments)" each, in their order.
inline std::vector<std::string> CallsOf(std::initializer_list<std::string> names) {
  std::vector<std::string> calls = platform::gate::Trace();
  std::erase_if(calls, [&](const std::string& call) {
    return std::find(names.begin(), names.end(), call.substr(0, call.find('('))) == names.end();
  });
  return calls;
}
inline std::size_t CountCalls(const std::string& name) { return CallsOf({name}).size(); }

// Counts of what an operation takes and must give back.
struct Holdings {
  std::ptrdiff_t threads, descriptors, children;
  bool operator==(const Holdings&) const = default;
};
inline void PrintTo(const Holdings& held, std::ostream* out) {
  *out << held.threads << " threads, " << held.descriptors << " descriptors, " << held.children
       << " children";
}
inline Holdings Held() {
  const auto entries = [](const char* folder) {
    return std::distance(std::filesystem::directory_iterator(folder), {});
  };
  std::string children;
  for (const auto& task : std::filesystem::directory_iterator("/proc/self/task")) {
    std::ifstream file(task.path() / "children");
    children += std::string{std::istreambuf_iterator<char>(file), {}};
  }
  return {entries("/proc/self/task"), entries("/proc/self/fd"),
          std::count(children.begin(), children.end(), ' ')};
}

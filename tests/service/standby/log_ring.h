// A firmware's log ring for tests, and the text that a capture of it leaves in the file.
#pragma once

#include <cstdio>
#include <cstring>
#include <regex>
#include <string>

#include "service/standby/firmware_log.h"
#include "service/standby/standby_state.h"
#include "tests/host_file.h"

namespace stewardry {

// Fills entry i with "line i".
inline void FillRing(LogRing* ring) {
  for (std::uint32_t i = 0; i < LogRing::kEntries; ++i) {
    auto* text = reinterpret_cast<char*>(&ring->entries[i]);
    std::memset(text, 0, sizeof ring->entries[i]);
    std::snprintf(text, sizeof ring->entries[i], "line %u", i);
  }
}

// Makes the next capture read `ring`, as the first one of the process or a later one.
inline void UseRing(LogRing* ring, std::uint32_t readIndex, std::uint32_t writeIndex, bool first) {
  ring->readIndex = readIndex;
  ring->writeIndex = writeIndex;
  gStandby->gLogBufferAddress = reinterpret_cast<std::uint64_t>(ring);
  gStandby->gLogFirstCapture = first ? 1 : 0;
}

// Returns "line `from`" up to the one before `end`, one a line.
inline std::string Lines(std::uint32_t from, std::uint32_t end) {
  std::string lines;
  for (; from < end; ++from) lines += "line " + std::to_string(from) + "\n";
  return lines;
}

// Returns the text of a capture in the file, its two times as "T".
inline std::string Capture(std::uint32_t readIndex, std::uint32_t writeIndex,
                           const std::string& lines) {
  return "Starting log buffer capture at T\nread pointer: " + std::to_string(readIndex) +
         "\t write pointer: " + std::to_string(writeIndex) + "\n" + lines +
         "Ending log buffer capture at T\n";
}

// Returns the capture file with each "YYYY/MM/DD hh:mm:ss" as "T".
inline std::string CapturedText() {
  static const std::regex time(R"(\d{4}/\d\d/\d\d \d\d:\d\d:\d\d)");
  return std::regex_replace(HostFileText(kFirmwareLogPath), time, "T");
}

}  // namespace stewardry

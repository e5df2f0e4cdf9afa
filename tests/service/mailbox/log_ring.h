// A firmware's log ring for tests, and the text that a capture of it leaves in the file.
#pragma once

#include <cstdio>
#include <cstring>
#include <string>

#include "service/mailbox/firmware_log.h"
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

// Lets the next capture read `ring`, as the first one of the process or a later one.
inline void UseRing(LogRing* ring, std::uint32_t readIndex, std::uint32_t writeIndex, bool first) {
  ring->readIndex = readIndex;
  ring->writeIndex = writeIndex;
  gLogBufferAddress = reinterpret_cast<std::uint64_t>(ring);
  gLogFirstCapture = first ? 1 : 0;
}

// "line `from`" up to the one before `end`, one a line.
inline std::string Lines(std::uint32_t from, std::uint32_t end) {
  std::string lines;
  for (; from < end; ++from) lines += "line " + std::to_string(from) + "\n";
  return lines;
}

// The text of a capture in the file, its two times as "T".
inline std::string Capture(std::uint32_t readIndex, std::uint32_t writeIndex,
                           const std::string& lines) {
  return "Starting log buffer capture at T\nread pointer: " + std::to_string(readIndex) +
         "\t write pointer: " + std::to_string(writeIndex) + "\n" + lines +
         "Ending log buffer capture at T\n";
}

// The capture file with each "YYYY/MM/DD hh:mm:ss" as "T".
inline std::string CapturedText() {
  std::string text = HostFileText(kFirmwareLogPath);
  constexpr char kMark[] = "capture at ";
  for (std::size_t at = 0; (at = text.find(kMark, at)) != std::string::npos;) {
    at += sizeof kMark - 1;
    unsigned part[6];
    if (std::sscanf(text.c_str() + at, "%4u/%2u/%2u %2u:%2u:%2u\n", &part[0], &part[1], &part[2],
                    &part[3], &part[4], &part[5]) == 6)
      text.erase(at, 18)[at] = 'T';
  }
  return text;
}

}  // namespace stewardry

// The firmware's own log: a ring of text lines in memory that the firmware shares with the service.
// These operations request the ring's address from the driver, release the ring, and copy new lines
// to a text file. No flow of the service calls them. Nothing in the ring is trusted: the indexes
// are checked before an entry is read, and a line ends with its entry.
#pragma once

#include <cstddef>
#include <cstdint>

#include "service/diagnostics/log_file.h"

namespace stewardry {

// One line, zero-terminated unless it fills its entry.
struct LogRingEntry {
  std::uint32_t words[32];  // 128 bytes of text
};

// A memory format, little-endian. The firmware writes the entries and `writeIndex`, the service
// `readIndex`. There is no lock; each index is an aligned word, read and written whole. Equal
// indexes mean that there is nothing new.
struct LogRing {
  static constexpr std::uint32_t kEntries = 2048;        // a read index is below it
  static constexpr std::uint32_t kWriteIndexMax = 2047;  // a reader continues there with entry 0
  std::uint32_t readIndex;
  std::uint32_t writeIndex;
  LogRingEntry entries[kEntries];
};
static_assert(sizeof(LogRingEntry) == 128);
static_assert(offsetof(LogRing, readIndex) == 0 && offsetof(LogRing, writeIndex) == 4 &&
              offsetof(LogRing, entries) == 8 && sizeof(LogRing) == 262152);

// The capture file.
inline constexpr char kFirmwareLogPath[] = STEWARDRY_FIXED_LOG_FOLDER "tavrinLogBuffer.log";

// Requests the ring. Keeps the driver's 8-byte answer, or 0 with a log line if that is no aligned
// address; a request that fails changes nothing. Returns 0 once the request was started, 1 after a
// logged failure to start it. Blocks without a time-out. Any thread, but not during a capture.
std::uint32_t WriteLogBuffer();

// Releases the ring: there is no address afterwards, whatever the answer. Fails, returns and blocks
// as WriteLogBuffer does. Any thread, but not during a capture: the driver frees the memory.
std::uint32_t DeAllocateLogBuffer();

// Appends the lines between the read index and the write index to the capture file, with a head and
// a tail that name the time, and moves the read index behind them. Writes a message to the file
// instead if there is no ring or its indexes are invalid. If the file cannot be opened, the ring
// stays as it was and no line is written. One thread at a time.
void CaptureLogBuffer();

}  // namespace stewardry

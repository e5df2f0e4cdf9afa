// The firmware's own log: a ring of text lines in memory that the firmware shares with the service.
// These operations get the ring's address from the driver, give it back, and copy new lines into a
// text file. No flow of the service runs them; they stand ready for a caller. Nothing in the ring
// is trusted: the indexes are checked before an entry is touched, and a line ends with its entry.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>

namespace stewardry {

// One line, zero-terminated unless it fills its entry.
struct LogRingEntry {
  std::uint32_t words[32];  // 128 bytes of text
};

// A memory format, little-endian. The firmware writes entries and `writeIndex`, the service
// `readIndex`; no lock stands between them, and each index is an aligned word, moved whole. Equal
// indexes mean that there is nothing new.
struct LogRing {
  static constexpr std::uint32_t kEntries = 2048;        // a read index is below it
  static constexpr std::uint32_t kWriteIndexMax = 2047;  // also where a reader goes back to entry 0
  std::uint32_t readIndex;
  std::uint32_t writeIndex;
  LogRingEntry entries[kEntries];
};
static_assert(sizeof(LogRingEntry) == 128);
static_assert(offsetof(LogRing, readIndex) == 0 && offsetof(LogRing, writeIndex) == 4 &&
              offsetof(LogRing, entries) == 8 && sizeof(LogRing) == 262152);

// Where the lines go.
inline constexpr char kFirmwareLogPath[] =
    "C:\\ProgramData\\Corvane\\Stewardry\\tavrinLogBuffer.log";

// The ring's address in this process, 0 before it was asked for. Written by the two requests below;
// relaxed, the address alone is passed on.
extern std::atomic<std::uint64_t> gLogBufferAddress;
// 1 once the capture file was emptied in this process.
extern std::atomic<std::uint8_t> gLogFileCreated;
// 1 while the next capture is to start from entry 0. Both flags belong to the thread that captures;
// relaxed.
extern std::atomic<std::uint32_t> gLogFirstCapture;

// Ask for the ring, and give it back. The first keeps the driver's 8-byte answer, or 0 with a log
// line if it is no whole address of a ring; after the second there is no address, whatever the
// answer. A request that fails changes nothing. 0 once the request was started, 1 after a logged
// failure to start it. Both wait for the firmware without a time-out. Any thread, but not while
// another one captures: the driver takes the memory away.
std::uint32_t WriteLogBuffer();
std::uint32_t DeAllocateLogBuffer();

// Appends the lines between the read index and the write index to the capture file, with a head and
// a tail that tell the time, and moves the read index behind them. A ring that isn't there, or
// indexes that make no sense, are written to the file instead. A file that can't be opened loses
// the capture without a word, and leaves the ring as it was. One thread at a time.
void CaptureLogBuffer();

}  // namespace stewardry

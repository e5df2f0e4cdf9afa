// The capture of the firmware's log, on memory of exactly the ring's size. All cases share the
// capture file, so they are rows of one test.
#include "service/standby/firmware_log.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "tests/service/standby/log_ring.h"

namespace stewardry {
namespace {

constexpr char kInvalid[] =
    "Read / write log buffer pointer is pointing to invalid address!!!\nRead pointer is 0x";

struct Row {
  const char* name;
  bool first;
  std::uint32_t readIndex, writeIndex;
  std::string captured;
  std::uint32_t nextIndex;  // the read index afterwards
};

std::vector<Row> Rows() {
  return {
      {"new lines", false, 3, 5, Capture(3, 5, Lines(3, 5)), 5},
      {"wrap", false, 2040, 3, Capture(2040, 3, Lines(2040, 2047) + Lines(0, 3)), 3},
      {"whole ring", false, 0, 2047, Capture(0, 2047, Lines(0, 2047)), 2047},
      {"first capture", true, 100, 150, Capture(0, 150, Lines(0, 50)), 50},
      {"first capture of a wrapped ring", true, 9, 4, Capture(0, 4, Lines(0, 2047) + Lines(0, 4)),
       4},
      {"first capture without new lines", true, 8, 8, Capture(0, 8, "No new data logged\n"), 0},
      {"write index outside", false, 5, 2048, std::string(kInvalid) + "5 write pointer is 0x800\n",
       5},
      {"read index outside", true, 2048, 1, std::string(kInvalid) + "800 write pointer is 0x1\n",
       2048},
  };
}

TEST(FirmwareLog, NewLinesAreCapturedOnce) {
  MakeRoomFor(kFirmwareLogPath);
  const auto ring = std::make_unique<LogRing>();
  FillRing(ring.get());
  for (const Row& row : Rows()) {
    gStandby->gLogFileCreated = 0;
    UseRing(ring.get(), row.readIndex, row.writeIndex, row.first);
    CaptureLogBuffer();
    EXPECT_EQ(CapturedText(), row.captured) << row.name;
    EXPECT_EQ(ring->readIndex, row.nextIndex) << row.name;
    // Indexes outside the ring are no capture.
    const bool captured = row.captured.find("Starting") == 0;
    EXPECT_EQ(gStandby->gLogFirstCapture.load(), row.first && !captured ? 1U : 0U) << row.name;
  }

  // A line that fills its entry ends with it, also the last one of the ring.
  std::memset(&ring->entries[2045], 'x', 2 * sizeof(LogRingEntry));
  std::memset(&ring->entries[2047], 'y', sizeof(LogRingEntry));
  reinterpret_cast<char*>(&ring->entries[2046])[9] = '\n';  // begins no line of its own
  gStandby->gLogFileCreated = 0;
  UseRing(ring.get(), 2045, 2047, false);
  CaptureLogBuffer();
  const std::string full = std::string(128, 'x') + "\n";
  std::string first = Capture(2045, 2047, full + full);
  first[first.rfind("xx\nEnd") + 2 - full.size() + 10] = '?';
  EXPECT_EQ(CapturedText(), first);

  // A later capture appends.
  CaptureLogBuffer();
  const std::string second = first + Capture(2047, 2047, "No new data logged\n");
  EXPECT_EQ(CapturedText(), second);
  gStandby->gLogBufferAddress = 0;
  CaptureLogBuffer();
  EXPECT_EQ(CapturedText(), second + "Log Buffer pointer returned NULL\n");
}

}  // namespace
}  // namespace stewardry

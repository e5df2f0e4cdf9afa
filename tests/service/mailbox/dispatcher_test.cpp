// The dispatcher, on frames in memory.
#include "service/mailbox/dispatcher.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace stewardry {
namespace {

std::vector<std::string> gCalls;  // "name:payload" each

void RecordGuarded(const std::uint8_t* payload, std::uint32_t length) {
  gCalls.push_back("guarded:" + std::string(reinterpret_cast<const char*>(payload), length));
}
void RecordOpen(const std::uint8_t* payload, std::uint32_t length) {
  gCalls.push_back("open:" + std::string(reinterpret_cast<const char*>(payload), length));
}

constexpr FirmwareCommand kTable[] = {
    {0x08, "guarded", nullptr, true, RecordGuarded},
    {0x16, "open", "line", false, RecordOpen},
    {0x26, "logged only", "line", false, nullptr},
};

// Returns the handlers' calls for a frame. The frame is on the heap, so that a sanitizer sees a
// read behind it.
std::vector<std::string> Dispatch(const std::string& frame) {
  SetFirmwareCommands(kTable);
  gCalls.clear();
  const std::vector<std::uint8_t> bytes(frame.begin(), frame.end());
  Processread(static_cast<std::uint32_t>(bytes.size()), bytes.data());
  return gCalls;
}

using Calls = std::vector<std::string>;

TEST(Dispatcher, CodeIsTheByteBeforeTheLast) {
  for (const char last : {'\0', '\1', '\x16', '\xFF'})
    EXPECT_EQ(Dispatch(std::string("ABCDE\x08") + last), Calls{"guarded:ABCDE"});
  const std::string largest(131070, 'p');
  EXPECT_EQ(Dispatch(largest + std::string("\x08\0", 2)), Calls{"guarded:" + largest});
}

TEST(Dispatcher, EmptyPayloadReachesUnguardedCommandsOnly) {
  EXPECT_EQ(Dispatch(std::string("\x08\0", 2)), Calls{});
  EXPECT_EQ(Dispatch(std::string("\x16\0", 2)), Calls{"open:"});
}

TEST(Dispatcher, ShortFramesAndOtherCodesReachNoHandler) {
  for (const std::string frame : {"", "\x16", "x\x26\x16", "x\x15\x16", "x\xFF\x16"})
    EXPECT_EQ(Dispatch(frame), Calls{}) << testing::PrintToString(frame);
}

}  // namespace
}  // namespace stewardry

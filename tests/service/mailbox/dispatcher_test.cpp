#include "service/mailbox/dispatcher.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "service/mailbox/control_codes.h"

namespace stewardry {
namespace {

using Payloads = std::vector<std::string>;
Payloads gHandled;

void KeepPayload(const std::uint8_t* payload, std::uint32_t length) {
  gHandled.emplace_back(reinterpret_cast<const char*>(payload), length);
}

constexpr FirmwareCommand kTable[] = {
    {0x08, "guarded", nullptr, true, KeepPayload},
    {0x16, "open", "line", false, KeepPayload},
    {0x26, "logged only", "line", false, nullptr},
};

// Dispatches a frame and returns the payloads that reached a handler. The frame is on the heap, so
// that a sanitizer reports a read beyond it.
Payloads Dispatch(const std::string& frame) {
  SetFirmwareCommands(kTable);
  gHandled.clear();
  const std::vector<std::uint8_t> bytes(frame.begin(), frame.end());
  Processread(static_cast<std::uint32_t>(bytes.size()), bytes.data());
  return gHandled;
}

TEST(Dispatcher, CodeIsTheByteBeforeTheLast) {
  for (const char last : {'\0', '\1', '\x16', '\xFF'})
    EXPECT_EQ(Dispatch(std::string("ABCDE\x08") + last), Payloads{"ABCDE"});
  const std::string largest(kMaxFrameSize - 2, 'p');
  EXPECT_EQ(Dispatch(largest + std::string("\x08\0", 2)), Payloads{largest});
}

TEST(Dispatcher, EmptyPayloadReachesUnguardedCommandsOnly) {
  EXPECT_EQ(Dispatch(std::string("\x08\0", 2)), Payloads{});
  EXPECT_EQ(Dispatch(std::string("\x16\0", 2)), Payloads{""});
}

TEST(Dispatcher, ShortFramesAndOtherCodesReachNoHandler) {
  for (const char* frame : {"", "\x16", "x\x26\x16", "x\x15\x16", "x\xFF\x16"})
    EXPECT_EQ(Dispatch(frame), Payloads{}) << testing::PrintToString(frame);
}

}  // namespace
}  // namespace stewardry

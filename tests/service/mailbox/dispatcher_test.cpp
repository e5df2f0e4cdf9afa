// The dispatcher, on frames made up in memory.
#include "service/mailbox/dispatcher.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

namespace stewardry {
namespace {

struct Call {
  std::uint8_t code;
  std::string payload;
};
std::vector<Call>* gCalls = nullptr;

template <std::uint8_t Code>
void Record(const std::uint8_t* payload, std::uint32_t length) {
  gCalls->push_back({Code, {reinterpret_cast<const char*>(payload), length}});
}

constexpr FirmwareCommand kTable[] = {
    {0x08, "guarded", nullptr, true, Record<0x08>},
    {0x16, "open", "line", false, Record<0x16>},
    {0x26, "logged only", "line", false, nullptr},
};

class Dispatcher : public ::testing::Test {
 protected:
  void SetUp() override {
    gCalls = &calls_;
    SetFirmwareCommands(kTable);
  }
  void Dispatch(const std::string& frame) {
    // On the heap, so that a sanitizer sees a look beyond the frame.
    const std::vector<std::uint8_t> bytes(frame.begin(), frame.end());
    Processread(static_cast<std::uint32_t>(bytes.size()), bytes.data());
  }
  std::vector<Call> calls_;
};

TEST_F(Dispatcher, TheCodeIsTheByteBeforeTheLastAndTheLastMeansNothing) {
  for (const char last : {'\0', '\1', '\x16', '\xFF'}) {
    calls_.clear();
    Dispatch(std::string("ABCDE\x08") + last);
    ASSERT_EQ(calls_.size(), 1U);
    EXPECT_EQ(calls_[0].payload, "ABCDE");
  }
}

TEST_F(Dispatcher, AnEmptyPayloadStopsGuardedCommandsOnly) {
  Dispatch(std::string("\x08\0", 2));
  EXPECT_TRUE(calls_.empty());
  Dispatch(std::string("\x16\0", 2));
  ASSERT_EQ(calls_.size(), 1U);
  EXPECT_EQ(calls_[0].payload, "");
}

TEST_F(Dispatcher, FramesTooShortForACodeAndUnknownCodesReachNoHandler) {
  Dispatch("");
  Dispatch("\x16");
  for (int code = 0; code < 256; ++code) {
    if (code == 0x08 || code == 0x16) continue;
    Dispatch(std::string("x") + static_cast<char>(code) + '\x16');
  }
  EXPECT_TRUE(calls_.empty());
}

// Every length up to a small bound, and those around the powers of two up to a whole frame.
TEST_F(Dispatcher, FramesOfEveryLengthAreHandledWhole) {
  std::vector<std::size_t> lengths;
  for (std::size_t n = 3; n < 300; ++n) lengths.push_back(n);
  for (std::size_t n = 512; n <= 131072; n *= 2)
    lengths.insert(lengths.end(), {n - 1, n, n + 1 <= 131072 ? n + 1 : n});
  for (const std::size_t length : lengths) {
    calls_.clear();
    std::string frame(length, 'p');
    frame[length - 2] = '\x08';
    Dispatch(frame);
    ASSERT_EQ(calls_.size(), 1U) << length;
    EXPECT_EQ(calls_[0].payload.size(), length - 2);
  }
}

}  // namespace
}  // namespace stewardry

// The contract of a pipe's client end, with the lab's server at the other end.
#include "platform/pipe.h"

#include <gtest/gtest.h>

#include <string>
#include <thread>

#include "lab/local/served_pipe.h"
#include "platform/error.h"
#include "platform/thread.h"

namespace platform {
namespace {

constexpr std::uint32_t kBound = 60'000;  // milliseconds; ends a hung test

class PipeContract : public ::testing::Test {
 protected:
  void SetUp() override { ASSERT_TRUE(server_.Open(name_, &problem_)) << problem_; }
  Pipe Open() const { return OpenPipe(("\\\\.\\pipe\\" + name_).c_str(), kShareWrite); }
  std::thread Ask(const std::string& question) {
    return std::thread([this, question] {
      const auto bound = std::chrono::steady_clock::now() + std::chrono::minutes(1);
      EXPECT_TRUE(server_.Ask(question, bound, &answer_, &problem_)) << problem_;
    });
  }

  const std::string name_ = "StewardryTest" + std::to_string(GetCurrentProcessId());
  lab::ServedPipe server_;
  std::string answer_, problem_;
};

TEST_F(PipeContract, UnservedPipeIsNotFound) {
  EXPECT_FALSE(OpenPipe(R"(\\.\pipe\StewardryUnserved)", kShareWrite));
  EXPECT_EQ(LastError(), kErrorFileNotFound);
}

TEST_F(PipeContract, ReadsReturnEachByteOnce) {
  for (const std::string& question : {std::string(), std::string(10'000, 'q')}) {
    Pipe pipe = Open();
    ASSERT_TRUE(pipe);
    std::thread client = Ask(question);
    std::string received;
    std::uint32_t count = 0;
    for (char next[3]; !received.ends_with('\0') && ReadFile(pipe, next, 3, &count);)
      received.append(next, count);
    EXPECT_EQ(received, question + '\0');
    EXPECT_TRUE(WriteFile(pipe, "yes\r\n", 5, kBound, &count));
    pipe.Reset();
    client.join();
    EXPECT_EQ(answer_, "yes");
  }
}

TEST_F(PipeContract, WriteWithoutAReaderEndsAndTheServerIsKnown) {
  const Pipe pipe = Open();
  ASSERT_TRUE(pipe);
  const std::string bytes(lab::kMoreThanAPipeHolds, 'b');
  std::uint32_t count = 0, server = 0;
  EXPECT_FALSE(WriteFile(pipe, bytes.data(), lab::kMoreThanAPipeHolds, 20, &count));
  EXPECT_EQ(LastError(), kErrorOperationAborted);
  EXPECT_LT(count, bytes.size());
  EXPECT_TRUE(GetNamedPipeServerProcessId(pipe, &server));
  EXPECT_EQ(server, GetCurrentProcessId());
}

// The server closes after an answer of 4096 bytes.
TEST_F(PipeContract, ClosedPipeReturnsTheRestAndThenItsEnd) {
  const Pipe pipe = Open();
  ASSERT_TRUE(pipe);
  std::thread client = Ask("5");
  const std::string answer = std::string(4094, 'a') + "\r\n";
  std::uint32_t count = 0;
  EXPECT_TRUE(WriteFile(pipe, answer.data(), 4096, kBound, &count));
  client.join();
  char all[8];
  EXPECT_TRUE(ReadFile(pipe, all, sizeof all, &count));
  EXPECT_EQ(std::string(all, count), std::string("5\0", 2));
  EXPECT_FALSE(ReadFile(pipe, all, sizeof all, &count));
  EXPECT_EQ(LastError(), kErrorBrokenPipe);
  EXPECT_EQ(count, 0U);
}

}  // namespace
}  // namespace platform

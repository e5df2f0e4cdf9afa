// The contract of a pipe's client end on both platforms, with the lab's server at the other end.
#include "platform/pipe.h"

#include <gtest/gtest.h>

#include <string>
#include <thread>

#include "lab/local/served_pipe.h"
#include "platform/error.h"
#include "platform/thread.h"

namespace platform {
namespace {

constexpr std::uint32_t kBound = 60'000;  // ends a hung test; no expectation

// A pipe that the lab serves, and the service's end of it.
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
  EXPECT_FALSE(OpenPipe(R"(\\.\pipe\StewardryNobody)", kShareWrite));
  EXPECT_EQ(LastError(), kErrorFileNotFound);
}

TEST_F(PipeContract, ReadsGiveEachByteOnce) {
  for (const std::string& question : {std::string(), std::string(10'000, 'q')}) {
    Pipe pipe = Open();
    ASSERT_TRUE(pipe);
    std::thread asker = Ask(question);
    std::string heard;
    std::uint32_t count = 0;
    for (char next[3]; !heard.ends_with('\0') && ReadFile(pipe, next, 3, &count);)
      heard.append(next, count);
    EXPECT_EQ(heard, question + '\0');
    EXPECT_TRUE(WriteFile(pipe, "yes\r\n", 5, kBound, &count));
    pipe.Reset();
    asker.join();
    EXPECT_EQ(answer_, "yes");
  }
}

TEST_F(PipeContract, WriteThatNobodyReadsEndsAndItsServerIsKnown) {
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

// The server hangs up after an answer of 4096 bytes.
TEST_F(PipeContract, ClosedPipeGivesWhatIsLeftAndThenItsEnd) {
  const Pipe pipe = Open();
  ASSERT_TRUE(pipe);
  std::thread asker = Ask("5");
  const std::string answer = std::string(4094, 'a') + "\r\n";
  std::uint32_t count = 0;
  EXPECT_TRUE(WriteFile(pipe, answer.data(), 4096, kBound, &count));
  asker.join();
  char all[8];
  EXPECT_TRUE(ReadFile(pipe, all, sizeof all, &count));
  EXPECT_EQ(std::string(all, count), std::string("5\0", 2));
  EXPECT_FALSE(ReadFile(pipe, all, sizeof all, &count));
  EXPECT_EQ(LastError(), kErrorBrokenPipe);
  EXPECT_EQ(count, 0U);
}

}  // namespace
}  // namespace platform

// What both platforms hold of a pipe's client end, with the lab's server at the other.
#include "platform/pipe.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <thread>

#include "lab/tray/served_pipe.h"
#include "platform/error.h"
#include "platform/thread.h"

namespace platform {
namespace {

constexpr std::uint32_t kShareWrite = 2;

// A pipe that the lab serves, and the service's end of it.
class PipeContract : public ::testing::Test {
 protected:
  void SetUp() override { ASSERT_TRUE(server_.Open(name_, &problem_)) << problem_; }
  Pipe Open() const { return OpenPipe(("\\\\.\\pipe\\" + name_).c_str(), kShareWrite); }
  bool Ask(const std::string& question, std::chrono::milliseconds patience) {
    return server_.Ask(question, std::chrono::steady_clock::now() + patience, &answer_, &problem_);
  }

  const std::string name_ = "StewardryTest" + std::to_string(GetCurrentProcessId());
  lab::ServedPipe server_;
  std::string answer_, problem_;
};

TEST_F(PipeContract, APipeThatNobodyServesOpens) {
  EXPECT_FALSE(OpenPipe(R"(\\.\pipe\StewardryNobody)", kShareWrite));
  EXPECT_EQ(LastError(), kErrorFileNotFound);
}

TEST_F(PipeContract, AReadLosesBytesTakesTooManyOrMissesTheEnd) {
  for (const std::string& question :
       {std::string("5"), std::string(), std::string(10'000, 'q'), std::string("again")}) {
    Pipe pipe = Open();
    ASSERT_TRUE(pipe);
    std::thread asker([&] { EXPECT_TRUE(Ask(question, std::chrono::seconds(20))) << problem_; });
    std::string heard;
    std::uint32_t count = 0;
    char next[4] = {'#', '#', '#', '#'};
    while ((heard.empty() || heard.back() != 0) && ReadFile(pipe, next, 3, &count))
      heard.append(next, std::min(count, 3U));
    EXPECT_EQ(heard, question + '\0');
    EXPECT_EQ(next[3], '#');
    EXPECT_TRUE(WriteFile(pipe, "yes\r\n", 5, &count));
    EXPECT_EQ(count, 5U);
    pipe.Reset();
    asker.join();
    EXPECT_EQ(answer_, "yes");
  }
}

TEST_F(PipeContract, AServerThatHasHungUpIsWaitedFor) {
  const Pipe pipe = Open();
  ASSERT_TRUE(pipe);
  EXPECT_FALSE(Ask("5", std::chrono::milliseconds(100))) << "asks, gives up and hangs up";
  char all[8];
  std::uint32_t count = 77;
  EXPECT_TRUE(ReadFile(pipe, all, sizeof all, &count)) << "what was said before is still there";
  EXPECT_EQ(count, 2U);
  EXPECT_FALSE(ReadFile(pipe, all, sizeof all, &count));
  EXPECT_EQ(LastError(), kErrorBrokenPipe);
  EXPECT_EQ(count, 0U);
}

}  // namespace
}  // namespace platform

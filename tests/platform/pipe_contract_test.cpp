// What both platforms hold of a pipe's client end, with the lab's server at the other.
#include "platform/pipe.h"

#include <gtest/gtest.h>

#include <thread>

#include "lab/tray/served_pipe.h"
#include "platform/error.h"
#include "platform/thread.h"

namespace platform {
namespace {

constexpr std::uint32_t kShareWrite = 2;

TEST(PipeContract, APipeThatNobodyServesOpens) {
  EXPECT_FALSE(OpenPipe(R"(\\.\pipe\StewardryNobody)", kShareWrite));
  EXPECT_EQ(LastError(), kErrorFileNotFound);
}

TEST(PipeContract, AReadLosesBytesTakesTooManyOrMissesTheEnd) {
  const std::string name = "StewardryTest" + std::to_string(GetCurrentProcessId());
  std::string problem, answer;
  lab::ServedPipe server;
  ASSERT_TRUE(server.Open(name, &problem)) << problem;
  const std::string longQuestion(10'000, 'q');
  for (const std::string& question : {std::string("5"), std::string(), longQuestion}) {
    std::thread asker([&] {
      const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
      EXPECT_TRUE(server.Ask(question, deadline, &answer, &problem)) << problem;
    });
    const Pipe pipe = OpenPipe(("\\\\.\\pipe\\" + name).c_str(), kShareWrite);
    EXPECT_TRUE(pipe);
    std::string heard;
    std::uint32_t count = 0;
    char next[4] = {'#', '#', '#', '#'};
    while (pipe && ReadFile(pipe, next, 3, &count)) {
      ASSERT_LE(count, 3U);
      heard.append(next, count);
      if (heard.back() == 0) break;
    }
    EXPECT_EQ(heard, question + '\0');
    EXPECT_EQ(next[3], '#');
    EXPECT_TRUE(WriteFile(pipe, "yes\r\n", 5, &count));
    EXPECT_EQ(count, 5U);
    const_cast<Pipe&>(pipe).Reset();
    asker.join();
    EXPECT_EQ(answer, "yes");
  }
}

TEST(PipeContract, AServerThatHasHungUpIsWaitedFor) {
  const std::string name = "StewardryTest" + std::to_string(GetCurrentProcessId());
  std::string problem, answer;
  lab::ServedPipe server;
  ASSERT_TRUE(server.Open(name, &problem)) << problem;
  std::thread asker([&] {  // gives up at once, and with that hangs up
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(500);
    EXPECT_FALSE(server.Ask("5", deadline, &answer, &problem));
  });
  const Pipe pipe = OpenPipe(("\\\\.\\pipe\\" + name).c_str(), kShareWrite);
  asker.join();
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

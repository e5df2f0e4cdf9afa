// Binding, the server loop and its budget, on the real ports of a network of the test's own.
#include "service/gateway/listeners.h"

#include <gtest/gtest.h>

#include <sys/wait.h>

#include <filesystem>

#include "tests/own_network.h"
#include "tests/service/mailbox_fixture.h"
#include "tests/tcp_client.h"

namespace stewardry {
namespace {

std::uint8_t RefuseAll(Selector*, Handler* handler, std::uint32_t mask, std::uint64_t) {
  if ((mask & (SELECTOR_REMOVE | SELECTOR_DESTROY)) == 0) return 0;
  (void)Sock_Close(handler->sock);
  LeaveKVMPort();
  delete handler;
  return 1;
}
constexpr PortCallback kCallbacks[] = {{22, RefuseAll}, {664, RefuseAll}};

class Listeners : public MailboxTest {
 protected:
  void SetUp() override {
    if (!EnterOwnNetwork()) GTEST_SKIP() << "may not make a network namespace";
    MailboxTest::SetUp();
    SetPortCallbacks(kCallbacks);
    gHttpsRebindCount = 1;
    gKvmRebindCount = 1;
  }
};

TEST_F(Listeners, AFailedBindSaysItsLineAndLeavesNothingOpen) {
  struct Row {
    const char* call;
    std::uint32_t port;
    const char* line;
  };
  constexpr Row kRows[] = {{"socket", 664, "Sock create failed for 664"},
                           {"listen", 22, "Sock create failed for 22"},
                           {"ioctlsocket", 664, "Set blocking failed for 664"},
                           {"none", 665, "Unhandled port used 665"}};
  Selector selector;
  ASSERT_EQ(Selector_Init(&selector), RESULT_OK);
  LogInfo("The log's own descriptors are open from here on");
  const Holdings before = Held();
  for (const Row& row : kRows) {
    gate::Arm();
    gate::FailNext(row.call, 10013);
    EXPECT_FALSE(BindListener(&selector, row.port)) << row.call;
    EXPECT_TRUE(Logged(row.line)) << row.line;
    EXPECT_EQ(Held(), before) << row.call;
  }
  EXPECT_TRUE(BindListener(&selector, 664));
  EXPECT_TRUE(Logged("Bind to port 664 successful"));
  Selector_Destroy(&selector);
}

// 20 binds in a process: the first and 19 rebinds, each after one refused knock.
TEST_F(Listeners, EveryRefusedKnockCostsOneRebindAndTheLastEndsTheKvmThread) {
  const platform::Thread server = platform::CreateThread(RunKVMServer, nullptr);
  for (std::size_t knock = 1; knock <= 20; ++knock) {
    ASSERT_TRUE(
        Eventually([&] { return CountOf(Messages(), "Bind to port 22 successful") == knock; }));
    TcpClient client(22);
    EXPECT_TRUE(client.SeesEnd());
  }
  EXPECT_EQ(platform::WaitForSingleObject(server, 10'000), 0U);
  EXPECT_EQ(CountOf(Messages(), "Selector run failed\n"), 20U);
  EXPECT_EQ(CountOf(Messages(), "Should not reach here. Distroy selector and rebind."), 20U);
  EXPECT_FALSE(TcpClient(22).Connected());
  EXPECT_EQ(gHttpsRebindCount.load(), 1);
}

TEST_F(Listeners, ATakenPortSpendsTheBudgetAtOnceAndEndsTheProcessWithZero) {
  const int taken = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(664);
  ASSERT_EQ(::bind(taken, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
  ASSERT_EQ(::listen(taken, 1), 0);
  const pid_t child = ::fork();
  if (child == 0) {
    RunServer();
    ::_exit(9);
  }
  int status = -1;
  ASSERT_EQ(::waitpid(child, &status, 0), child);
  EXPECT_EQ(status, 0);
  EXPECT_EQ(CountOf(Messages(), "HTTPS binding failed"), 20U);
  EXPECT_EQ(CountOf(Messages(), "After HTTPS port binding, proceed to selector run"), 20U);
  ::close(taken);
}

}  // namespace
}  // namespace stewardry

#include "service/gateway/listeners.h"

#include <gtest/gtest.h>

#include <tuple>

#include "service/gateway/connection.h"
#include "service/gateway/gateway_state.h"
#include "tests/fresh_state.h"
#include "tests/own_network.h"
#include "tests/service/mailbox_fixture.h"
#include "tests/tcp_client.h"

namespace stewardry {
namespace {

// Accepts and closes each connection. Every second one is refused; the others end the run with
// RESULT_OK.
std::uint8_t RefuseEverySecond(Selector* selector, Handler* handler, std::uint32_t mask,
                               std::uint64_t) {
  static int accepted = 0;
  if ((mask & (SELECTOR_REMOVE | SELECTOR_DESTROY)) != 0) {
    { const ClosingHandler closing(handler); }
    LeaveKVMPort();
    return 1;
  }
  ConnectionSock sock(nullptr);
  RemoteAddress peer;
  if ((mask & SELECTOR_READ) == 0 || sock.Accept(handler->sock, &peer) != RESULT_OK) return 1;
  Selector_StopRunning(selector);
  return ++accepted % 2 != 0 ? 1 : 0;
}
constexpr PortCallback kCallbacks[] = {{22, RefuseEverySecond}, {664, RefuseEverySecond}};

class Listeners : public MailboxTest {
 protected:
  void SetUp() override {
    if (!EnterOwnNetwork()) GTEST_SKIP() << "may not make a network namespace";
    Renew(&gGateway);
    MailboxTest::SetUp();
    SetPortCallbacks(kCallbacks);
  }
};

TEST_F(Listeners, FailedBindLogsItsLineAndLeavesNothingOpen) {
  Selector selector, none;
  ASSERT_EQ(Selector_Init(&selector), RESULT_OK);
  const std::tuple<const char*, std::uint32_t, Selector*, const char*> kRows[] = {
      {"setsockopt", 664, &selector, "Sock create failed for 664"},
      {"listen", 22, &selector, "Sock create failed for 22"},
      {"ioctlsocket", 664, &selector, "Set blocking failed for 664"},
      {"none", 665, &selector, "Unhandled port used 665"},
      {"none", 664, &none, "Add handler failed for 664"}};
  LogInfo("The log's own descriptors are open from here on");
  const Holdings before = Held();
  for (const auto& [call, port, owner, line] : kRows) {
    gate::FailNext(call, 10013);
    EXPECT_FALSE(BindListener(owner, port)) << line;
    EXPECT_TRUE(Logged(line)) << line;
    EXPECT_EQ(Held(), before) << line;
  }
  Selector_Destroy(&selector);
}

TEST_F(Listeners, ServerRunsOnAfterAGoodRunAndRebindsAfterAFailedOneWithinItsBudget) {
  gGateway->gKvmRebindCount = kRebindBudget - 1;
  const platform::Thread server = platform::CreateThread(RunKVMServer, nullptr);
  for (std::size_t i = 0; i < 4; ++i) {
    ASSERT_TRUE(
        Eventually([&] { return CountOf(Messages(), "Bind to port 22 successful") == 1 + i / 2; }));
    TcpClient client(22);
    EXPECT_TRUE(client.Connected() && client.SeesEnd()) << i;
  }
  EXPECT_EQ(platform::WaitForSingleObject(server, 60'000), 0U);
  EXPECT_EQ(CountOf(Messages(), "Selector run failed\n"), 2U);
  EXPECT_FALSE(TcpClient(22).Connected());
  EXPECT_EQ(CountOf(LabText("eventlog.txt"), "type=2 id=0x80020010 [QuillonSvc]"), 1U);
  EXPECT_EQ(gGateway->gHttpsRebindCount.load(), 1) << "the other server's budget";
}

}  // namespace
}  // namespace stewardry

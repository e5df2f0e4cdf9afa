// The agent's launch, watch and messages, on the gate's trace and with real child processes.
#include "service/kvm/agent.h"

#include <gtest/gtest.h>

#include <csignal>
#include <regex>

#include "tests/service/mailbox_fixture.h"

namespace stewardry {
namespace {

constexpr char kSideLog[] = "C:\\ProgramData\\Corvane\\Stewardry\\tavrinKeyboardMouseLog.log";

class AgentTest : public MailboxTest {
 protected:
  void TearDown() override {
    TerminateKVMAgentThread();
    EndAgent();
    MailboxTest::TearDown();
  }
  static void EndAgent() {
    if (*gKvmAgentProcess) (void)platform::TerminateProcess(*gKvmAgentProcess, 0);
    gKvmAgentProcess->Reset();
  }
  static void ExpectInSideLog(const std::string& pattern) {
    EXPECT_TRUE(std::regex_search(FileText(kSideLog), std::regex(pattern))) << FileText(kSideLog);
  }
};

TEST_F(AgentTest, LaunchLogsItsStepsInOrder) {
  // The last winlogon in any case counts.
  Put("processes.txt", "300 winlogon.exe\n1 WINLOGON.EXE\n4 winlogon.exe.mui\n5 winlogon\n");
  ASSERT_TRUE(LaunchKVMAgent());
  EXPECT_TRUE(IsProcessRunning(gKvmAgentPid.load()));
  ExpectInSideLog(
      "Application .*KVM_Agent\n.*Session Id 0x1\n.*WindowsLogonPID 0x1\n"
      ".*Process Handle retrieved successfully using Windows Logon PID: 0x.*\n"
      ".*CreateEnvironmentBlock success\n.*CreateProcessAsUser success\n"
      ".*Destroy Environment Block success\n");
  EXPECT_TRUE(Logged("KVM_Agent PID: " + std::to_string(gKvmAgentPid.load())));
  EXPECT_TRUE(
      CallsOf({"CreateProcessAsUserA"}).back().ends_with(",0x408,block,Winsta0\\Default,5)"));
}

TEST_F(AgentTest, FailedStepIsLoggedAndDecidesTheLaunch) {
  struct Row {
    const char* call;
    std::uint32_t error;
    std::uint64_t skip;
    bool launched;
    const char* sideLine;
  };
  constexpr Row kRows[] = {
      {"CreateToolhelp32Snapshot", 5, 0, false, "WindowsLogonPID 0x0\n"},
      {"OpenProcess", 5, 1, false, "WindowsLogonPID 0x[1-9a-f]"},
      {"DuplicateTokenEx", 5, 0, false, "Process Handle retrieved"},
      {"CreateProcessAsUserA", 2, 0, false, "CreateProcessAsUser failed 2\n"},
      {"CreateProcessAsUserA", 233, 0, true, "skip skip skip\n"},
      {"SetTokenInformation", 5, 0, true, "CreateProcessAsUser success\n"},
      {"CreateEnvironmentBlock", 5, 0, true, "CreateProcessAsUser winlogon 2 getlastError: 0\n"},
      {"OpenProcess", 5, 0, true, "Step 1 Open Process failed\n"},
      {"OpenProcessToken", 5, 0, true, "Step 2 Open Process Token failed\n"},
      {"AdjustTokenPrivileges", 5, 0, true, "Step 4 Adjust Token Privileges Value failed\n"},
      {"WTSGetActiveConsoleSessionId", 5, 0, true, "Session Id 0xffffffff\n"},
  };
  for (const Row& row : kRows) {
    SCOPED_TRACE(row.sideLine);
    EndAgent();
    gKvmAgentPid.store(77);
    std::filesystem::remove(platform::NativePath(kSideLog));
    gate::FailNext(row.call, row.error, row.skip);
    EXPECT_EQ(LaunchKVMAgent(), row.launched);
    ExpectInSideLog(row.sideLine);
    const bool runs = row.launched && row.error != 233;
    EXPECT_EQ(static_cast<bool>(*gKvmAgentProcess), runs);
    EXPECT_EQ(gKvmAgentPid.load() != 77, runs);
  }
  EXPECT_FALSE(Getsessionusertokenwin(nullptr, 1));
  ExpectInSideLog("User Token is NULL\n");
}

TEST_F(AgentTest, WatchReplacesADeadAgentOnly) {
  ASSERT_TRUE(LaunchKVMAgent());
  const std::uint32_t first = gKvmAgentPid.load();
  *gKvmAgentThread = platform::CreateThread(WatchKVMAgent, nullptr);
  EXPECT_TRUE(Eventually([&] { return Logged("KVM Agent PID: " + std::to_string(first)); }));
  EXPECT_EQ(gKvmAgentPid.load(), first);
  ASSERT_EQ(::kill(static_cast<pid_t>(first), SIGKILL), 0);  // the watch owns its handle now
  EXPECT_TRUE(Eventually([] { return Logged("KVM Agent Launched again"); }));
  TerminateKVMAgentThread();
  EXPECT_FALSE(*gKvmAgentThread);
  EXPECT_NE(gKvmAgentPid.load(), first);
  EXPECT_TRUE(IsProcessRunning(gKvmAgentPid.load()));
  EXPECT_FALSE(IsProcessRunning(first));
  EXPECT_EQ(CountCalls("TerminateThread"), 0U);
}

// Reads what one connection sends until its end.
std::string TakeMessage(int listener) {
  const int peer = ::accept(listener, nullptr, nullptr);
  std::string text(64, '\0');
  text.resize(static_cast<std::size_t>(::recv(peer, text.data(), text.size(), MSG_WAITALL)));
  ::close(peer);
  return text;
}

TEST_F(AgentTest, MessageIsSentWholeOrLostAtOnce) {
  WriteToAgentPipe(kAgentMousePipe, "no listener", 11);
  const int agent = ListenUnix(lab() + "/pipe/KVMAgentPipe");
  TerminateAgentOverPipe();
  EXPECT_EQ(TakeMessage(agent), "Terminate");
  ::close(agent);
  const int hung = ListenUnix(lab() + "/pipe/KVMAgentKeyboard", 0);
  for (int i = 0; i < 50; ++i) WriteToAgentPipe(kAgentKeyboardPipe, "0123456789abcdef", 16);
  EXPECT_EQ(TakeMessage(hung), "0123456789abcdef");
  ::close(hung);
}

}  // namespace
}  // namespace stewardry

#include "service/kvm/agent.h"

#include <gtest/gtest.h>

#include <csignal>
#include <regex>

#include "service/kvm/keyboard_pump.h"
#include "service/kvm/kvm_state.h"
#include "service/kvm/shared_region.h"
#include "tests/fresh_state.h"
#include "tests/service/mailbox_fixture.h"

namespace stewardry {
namespace {

using std::chrono_literals::operator""s;

constexpr char kSideLog[] = "C:\\ProgramData\\Corvane\\Stewardry\\tavrinKeyboardMouseLog.log";

class AgentTest : public MailboxTest {
 protected:
  AgentTest() { Renew(&gKvm); }
  void TearDown() override {
    TerminateKVMAgentThread();
    EndAgent();
    MailboxTest::TearDown();
  }
  static void EndAgent() {
    if (gKvm->gKvmAgentProcess) (void)platform::TerminateProcess(gKvm->gKvmAgentProcess, 0);
    gKvm->gKvmAgentProcess.Reset();
  }
  static void ExpectInSideLog(const std::string& pattern) {
    EXPECT_TRUE(std::regex_search(FileText(kSideLog), std::regex(pattern))) << FileText(kSideLog);
  }
};

TEST_F(AgentTest, LaunchLogsItsStepsInOrder) {
  // The last winlogon in any case counts.
  Put("processes.txt", "99999999 winlogon.exe\n" + std::to_string(::getpid()) +
                           " WINLOGON.EXE\n4 winlogon.exe.mui\n5 winlogon\n");
  ASSERT_TRUE(LaunchKVMAgent());
  EXPECT_TRUE(IsProcessRunning(gKvm->gKvmAgentPid.load()));
  ExpectInSideLog(
      "Application .*KVM_Agent\n.*Session Id 0x1\n.*WindowsLogonPID 0x[1-9a-f].*\n"
      ".*Process Handle retrieved successfully using Windows Logon PID: 0x.*\n"
      ".*CreateEnvironmentBlock success\n.*CreateProcessAsUser success\n"
      ".*Destroy Environment Block success\n");
  EXPECT_TRUE(Logged("KVM_Agent PID: " + std::to_string(gKvm->gKvmAgentPid.load())));
  EXPECT_TRUE(std::regex_match(
      CallsOf({"CreateProcessAsUserA"}).back(),
      std::regex(R"(CreateProcessAsUserA\((/.*/KVM_Agent),\1,0x408,block,Winsta0\\Default,5\))")));
}

TEST_F(AgentTest, FailedStepIsLoggedAndDecidesTheLaunch) {
  struct Row {
    const char* call;
    std::uint32_t error;
    bool every;
    bool launched;
    const char* sideLine;
  };
  constexpr Row kRows[] = {
      {"GetModuleFileNameA", 122, false, false, "^$"},
      {"CreateToolhelp32Snapshot", 5, false, false, "WindowsLogonPID 0x0\n"},
      {"OpenProcess", 5, true, false, "WindowsLogonPID 0x0\n"},
      {"GetTokenInformation", 5, true, false, "WindowsLogonPID 0x0\n"},
      {"DuplicateTokenEx", 5, false, false, "Process Handle retrieved"},
      {"CreateProcessAsUserA", 2, false, false, "CreateProcessAsUser failed 2\n"},
      {"CreateProcessAsUserA", 233, false, true, "skip skip skip\n"},
      {"SetTokenInformation", 5, false, true, "CreateProcessAsUser success\n"},
      {"CreateEnvironmentBlock", 5, false, true,
       "CreateProcessAsUser winlogon 2 getlastError: 0\n"},
      {"OpenProcess", 5, false, true, "Step 1 Open Process failed\n"},
      {"OpenProcessToken", 5, false, true, "Step 2 Open Process Token failed\n"},
      {"AdjustTokenPrivileges", 5, false, true, "Step 4 Adjust Token Privileges Value failed\n"},
      {"WTSGetActiveConsoleSessionId", 5, false, true, "Session Id 0xffffffff\n"},
  };
  for (const Row& row : kRows) {
    SCOPED_TRACE(row.sideLine);
    EndAgent();
    gKvm->gKvmAgentPid.store(77);
    std::filesystem::remove(platform::NativePath(kSideLog));
    gate::Arm();
    row.every ? gate::FailEvery(row.call, row.error) : gate::FailNext(row.call, row.error);
    EXPECT_EQ(LaunchKVMAgent(), row.launched);
    ExpectInSideLog(row.sideLine);
    const bool runs = row.launched && row.error != 233;
    EXPECT_EQ(static_cast<bool>(gKvm->gKvmAgentProcess), runs);
    EXPECT_EQ(gKvm->gKvmAgentPid.load() != 77, runs);
  }
  EXPECT_FALSE(Getsessionusertokenwin(nullptr, 1));
  ExpectInSideLog("User Token is NULL\n");
}

TEST_F(AgentTest, WatchReplacesADeadAgentOnly) {
  ASSERT_TRUE(LaunchKVMAgent());
  const std::uint32_t first = gKvm->gKvmAgentPid.load();
  ASSERT_TRUE(gKvm->gKvmAgentThread.Start(WatchKVMAgent));
  EXPECT_TRUE(Eventually([&] { return Logged("KVM Agent PID: " + std::to_string(first)); }));
  EXPECT_EQ(gKvm->gKvmAgentPid.load(), first);
  ASSERT_EQ(::kill(static_cast<pid_t>(first), SIGKILL), 0);  // the watch owns its handle now
  EXPECT_TRUE(Eventually([] { return Logged("KVM Agent Launched again"); }));
  // Two seconds between its checks, however short a sleep is.
  const auto checks = [] { return CountOf(Messages(), "KVM Agent PID: "); };
  const auto start = std::chrono::steady_clock::now();
  const std::size_t before = checks();
  gate::FailEvery("Sleep(50)", gate::kFinishAtOnce);
  EXPECT_TRUE(Eventually([] { return CountCalls("Sleep") >= 400; }));
  gate::Arm();
  const std::size_t more = checks() - before;
  EXPECT_LE(more, 1 + (std::chrono::steady_clock::now() - start) / 2s);
  TerminateKVMAgentThread();
  EXPECT_FALSE(gKvm->gKvmAgentThread.Exists());
  EXPECT_NE(gKvm->gKvmAgentPid.load(), first);
  EXPECT_TRUE(IsProcessRunning(gKvm->gKvmAgentPid.load()));
  EXPECT_FALSE(IsProcessRunning(first));
  EXPECT_EQ(CountCalls("TerminateThread"), 0U);
}

// Each poll of a ring that stays empty is followed by one of these waits.
TEST_F(AgentTest, PumpRestsAtOnceAndAgainAfterAnEntry) {
  const auto region = std::make_unique<SharedRegion>();
  gKvm->KeyBoardBufferVirtualAddress = reinterpret_cast<std::uint64_t>(region.get());
  ASSERT_TRUE(gKvm->gKeyboardThread.Start(ProcessKeyboardEvents));
  EXPECT_TRUE(Eventually([] { return CountCalls("SetWaitableTimer") >= 2; }));
  std::atomic_ref(region->keyboard.writeIndex).store(1, std::memory_order_release);
  EXPECT_TRUE(Eventually([] {
    std::string waits;
    for (const std::string& call : CallsOf({"SetWaitableTimer"})) waits += call.substr(16);
    return waits.find("(1000)(1000)(50)(100)(200)(400)(800)(1000)(1000)") != std::string::npos;
  }));
  TerminateKeyboardThread();
  EXPECT_EQ(CountCalls("TerminateThread"), 0U) << "a stop during a rest must be seen";
}

// Reads what one connection sends until its end.
std::string TakeMessage(int listener) {
  const int peer = ::accept(listener, nullptr, nullptr);
  std::string text(64, '\0');
  text.resize(static_cast<std::size_t>(::recv(peer, text.data(), text.size(), MSG_WAITALL)));
  ::close(peer);
  return text;
}

// Starts a process of another user, which serves the listener's pipe. The caller ends it.
pid_t ServeAsAnotherUser(int listener) {
  const pid_t child = ::fork();
  if (child == 0) {
    // A second listen makes this process the server of the pipe.
    if (::setresuid(65534, 65534, 65534) == 0 && ::listen(listener, 8) == 0) ::raise(SIGSTOP);
    ::_exit(1);
  }
  int status = 0;
  EXPECT_TRUE(::waitpid(child, &status, WUNTRACED) == child && WIFSTOPPED(status));
  return child;
}

TEST_F(AgentTest, OnlyTheOwnUsersProcessesReceiveKeysAndCountAsWinlogon) {
  if (::geteuid() != 0) GTEST_SKIP() << "may not become another user";
  const int listener = ListenUnix(lab() + "/pipe/KVMAgentKeyboard");
  const pid_t other = ServeAsAnotherUser(listener);
  for (const pid_t id : {::getpid(), other})
    std::ofstream(lab() + "/processes.txt", std::ios::app) << id << " winlogon.exe\n";
  EXPECT_EQ(FindWinlogonPid(), platform::GetCurrentProcessId());
  WriteToAgentPipe(kAgentKeyboardPipe, "password", 8);
  EXPECT_EQ(TakeMessage(listener), "");
  EXPECT_EQ(CountCalls("WriteFile"), 0U);
  gKvm->gKvmAgentPid = static_cast<std::uint32_t>(other);  // as if the launch had started it
  WriteToAgentPipe(kAgentKeyboardPipe, "key", 3);
  EXPECT_TRUE(Eventually([&] { return TakeMessage(listener) == "key"; }));
  ::kill(other, SIGKILL);
  ::waitpid(other, nullptr, 0);
  ::close(listener);
}

TEST_F(AgentTest, MessageIsSentWholeOrDroppedAtOnce) {
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

// The agent's launch, watch and messages, on the gate's trace and with real child processes.
#include "service/kvm/agent.h"

#include <gtest/gtest.h>

#include <csignal>
#include <regex>

#include "tests/service/mailbox_fixture.h"

namespace stewardry {
namespace {

using std::chrono_literals::operator""s;

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
  Put("processes.txt", "99999999 winlogon.exe\n" + std::to_string(::getpid()) +
                           " WINLOGON.EXE\n4 winlogon.exe.mui\n5 winlogon\n");
  ASSERT_TRUE(LaunchKVMAgent());
  EXPECT_TRUE(IsProcessRunning(gKvmAgentPid.load()));
  ExpectInSideLog(
      "Application .*KVM_Agent\n.*Session Id 0x1\n.*WindowsLogonPID 0x[1-9a-f].*\n"
      ".*Process Handle retrieved successfully using Windows Logon PID: 0x.*\n"
      ".*CreateEnvironmentBlock success\n.*CreateProcessAsUser success\n"
      ".*Destroy Environment Block success\n");
  EXPECT_TRUE(Logged("KVM_Agent PID: " + std::to_string(gKvmAgentPid.load())));
  EXPECT_TRUE(std::regex_match(
      CallsOf({"CreateProcessAsUserA"}).back(),
      std::regex(R"(CreateProcessAsUserA\((/.*/KVM_Agent),\1,0x408,block,Winsta0\\Default,5\))")));
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
      {"GetModuleFileNameA", 122, 0, false, "^$"},
      {"CreateToolhelp32Snapshot", 5, 0, false, "WindowsLogonPID 0x0\n"},
      {"OpenProcess", 5, 1, false, "WindowsLogonPID 0x0\n"},
      {"GetTokenInformation", 5, 0, false, "WindowsLogonPID 0x0\n"},
      {"OpenProcess", 5, 2, false, "WindowsLogonPID 0x[1-9a-f]"},
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
  // Two seconds between its looks, however short a sleep is.
  const auto looks = [&] { return CountOf(Messages(), "KVM Agent PID: "); };
  const std::size_t before = looks();
  const auto start = std::chrono::steady_clock::now();
  gate::FailEvery("Sleep(50)", gate::kFinishAtOnce);
  EXPECT_TRUE(Eventually([] { return CountCalls("Sleep") >= 400; }));
  gate::Arm();
  EXPECT_LE(looks() - before, 1 + (std::chrono::steady_clock::now() - start) / 2s);
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

// A process of another user, and what it is given on a pipe that it serves.
class Stranger {
 public:
  explicit Stranger(const std::string& path) : listener_(ListenUnix(path)) {
    int ready[2];
    EXPECT_EQ(::pipe(ready), 0);
    id_ = ::fork();
    if (id_ == 0) {
      constexpr uid_t kNobody = 65534;
      // To listen again names the process that serves from now on.
      if (::setresuid(kNobody, kNobody, kNobody) == 0 && ::listen(listener_, 8) == 0)
        (void)!::write(ready[1], "r", 1);
      for (;;) ::pause();
    }
    char byte;
    ::close(ready[1]);
    EXPECT_EQ(::read(ready[0], &byte, 1), 1);
    ::close(ready[0]);
  }
  Stranger(const Stranger&) = delete;
  Stranger& operator=(const Stranger&) = delete;
  ~Stranger() {
    ::kill(id_, SIGKILL);
    ::waitpid(id_, nullptr, 0);
    ::close(listener_);
  }
  std::string Id() const { return std::to_string(id_); }
  std::string TakeMessage() const { return stewardry::TakeMessage(listener_); }

 private:
  int listener_;
  pid_t id_;
};

TEST_F(AgentTest, StrangerIsNeitherSentAKeyNorTakenForWinlogon) {
  if (::geteuid() != 0) GTEST_SKIP() << "may not become another user";
  const Stranger stranger(lab() + "/pipe/KVMAgentKeyboard");
  Put("processes.txt",
      std::to_string(::getpid()) + " winlogon.exe\n" + stranger.Id() + " winlogon.exe\n");
  EXPECT_EQ(FindWinlogonPid(), platform::GetCurrentProcessId());
  WriteToAgentPipe(kAgentKeyboardPipe, "password", 8);
  EXPECT_EQ(stranger.TakeMessage(), "");
  EXPECT_EQ(CallsOf({"WriteFile"}).size(), 0U);
  gKvmAgentPid =
      static_cast<std::uint32_t>(std::stoul(stranger.Id()));  // the agent that was started
  WriteToAgentPipe(kAgentKeyboardPipe, "key", 3);
  EXPECT_TRUE(Eventually([&] { return stranger.TakeMessage() == "key"; }));
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

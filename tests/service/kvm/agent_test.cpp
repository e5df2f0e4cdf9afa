// The agent's launch, watch and messages, on the gate's trace and with real child processes.
#include "service/kvm/agent.h"

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <string>
#include <thread>

#include "platform/event.h"
#include "tests/service/mailbox_fixture.h"

namespace stewardry {
namespace {

constexpr char kSideLog[] = "C:\\ProgramData\\Corvane\\Stewardry\\tavrinKeyboardMouseLog.log";

class AgentTest : public MailboxTest {
 protected:
  void TearDown() override {
    TerminateKVMAgentThread();
    EndAgent();
    gKvmAgentPid.store(0);
    MailboxTest::TearDown();
  }

  static void EndAgent() {
    if (*gKvmAgentProcess) (void)platform::TerminateProcess(*gKvmAgentProcess, 0);
    gKvmAgentProcess->Reset();
  }
  static std::string SideText() { return FileText(kSideLog); }
};

TEST_F(AgentTest, TheLaunchLeavesOutAStepOrAHandle) {
  ASSERT_TRUE(LaunchKVMAgent());
  EXPECT_TRUE(IsProcessRunning(gKvmAgentPid.load()));
  const std::string side = SideText();
  std::size_t at = 0;
  for (const char* line : {"Application ", "KVM_Agent\n", "Session Id 0x1\n", "WindowsLogonPID 0x",
                           "Process Handle retrieved successfully using Windows Logon PID: 0x",
                           "CreateEnvironmentBlock success\n", "CreateProcessAsUser success\n",
                           "Destroy Environment Block success\n"}) {
    const std::size_t found = side.find(line, at);
    ASSERT_NE(found, std::string::npos) << line << " in " << side;
    at = found;
  }
  EXPECT_TRUE(Logged("KVM_Agent PID: " + std::to_string(gKvmAgentPid.load())));
  const std::string agent =
      std::filesystem::read_symlink("/proc/self/exe").parent_path() / "KVM_Agent";
  bool asGiven = false;
  for (const std::string& call : gate::Trace())
    asGiven |= call == "CreateProcessAsUserA(" + agent + ",0x408,block,Winsta0\\Default,5)";
  EXPECT_TRUE(asGiven);
}

TEST_F(AgentTest, AFailedStepGoesUnsaidOrCountsAsALaunch) {
  struct Row {
    const char* call;
    std::uint32_t error;
    std::uint64_t skip;
    bool launched;
    const char* sideLine;
  };
  constexpr Row kRows[] = {
      {"CreateToolhelp32Snapshot", 5, 0, false, "WindowsLogonPID 0x0\n"},
      {"Process32First", 5, 0, false, "WindowsLogonPID 0x0\n"},
      {"OpenProcess", 5, 1, false, "WindowsLogonPID 0x"},
      {"OpenProcessToken", 5, 1, false, "Process Handle retrieved"},
      {"DuplicateTokenEx", 5, 0, false, "Process Handle retrieved"},
      {"CreateProcessAsUserA", 2, 0, false, " ++++++ CreateProcessAsUser failed 2\n"},
      {"CreateProcessAsUserA", 233, 0, true, "skip skip skip\n"},
      {"SetTokenInformation", 5, 0, true, "CreateProcessAsUser success\n"},
      {"CreateEnvironmentBlock", 5, 0, true,
       " ++++++ CreateProcessAsUser winlogon 2 getlastError: 0\n"},
      {"OpenProcess", 5, 0, true, "Step 1 Open Process failed\n"},
      {"OpenProcessToken", 5, 0, true, "Step 2 Open Process Token failed\n"},
      {"LookupPrivilegeValueA", 5, 0, true, "Step 3 Lookup Privilege Value failed\n"},
      {"AdjustTokenPrivileges", 5, 0, true, "Step 4 Adjust Token Privileges Value failed\n"},
      {"WTSGetActiveConsoleSessionId", 5, 0, true, "Session Id 0xffffffff\n"},
  };
  for (const Row& row : kRows) {
    EndAgent();
    gKvmAgentPid.store(77);
    std::filesystem::remove(platform::NativePath(kSideLog));
    gate::Arm();
    gate::FailNext(row.call, row.error, row.skip);
    EXPECT_EQ(LaunchKVMAgent(), row.launched) << row.call << ' ' << row.error;
    EXPECT_NE(SideText().find(row.sideLine), std::string::npos) << row.call << ": " << SideText();
    const bool kept = row.launched && row.error != 233;
    EXPECT_EQ(static_cast<bool>(*gKvmAgentProcess), kept) << row.call;
    EXPECT_EQ(gKvmAgentPid.load() == 77, !kept) << row.call;
  }
  EXPECT_FALSE(Getsessionusertokenwin(nullptr, 1));
  EXPECT_NE(SideText().find("User Token is NULL\n"), std::string::npos);
}

TEST_F(AgentTest, AnotherWinlogonThanTheLastIsTaken) {
  std::ofstream(lab() + "/processes.txt")
      << "4 System\n300 WINLOGON.EXE\n1 winlogon.exe\n5 x.exe\n";
  EXPECT_EQ(FindWinlogonPid(), 1u);
  std::ofstream(lab() + "/processes.txt") << "4 winlogon.exe.mui\n5 winlogon\n";
  EXPECT_EQ(FindWinlogonPid(), 0u);
  EXPECT_FALSE(LaunchKVMAgent());
}

TEST_F(AgentTest, ADeadAgentStaysAwayOrALiveOneIsDoubled) {
  ASSERT_TRUE(LaunchKVMAgent());
  const std::uint32_t first = gKvmAgentPid.load();
  *gKvmAgentThread = platform::CreateThread(WatchKVMAgent, nullptr);
  ASSERT_TRUE(*gKvmAgentThread);
  EXPECT_TRUE(Eventually([&] { return Logged("KVM Agent PID: " + std::to_string(first)); }));
  EXPECT_EQ(gKvmAgentPid.load(), first);
  ASSERT_EQ(::kill(static_cast<pid_t>(first), SIGKILL), 0);  // its handle is the watch's now
  EXPECT_TRUE(Eventually([&] { return gKvmAgentPid.load() != first; }));
  EXPECT_TRUE(Eventually([] { return Logged("KVM Agent Launched again"); }));
  TerminateKVMAgentThread();
  EXPECT_FALSE(*gKvmAgentThread);
  EXPECT_FALSE(gStopKVMAgentThread.load());
  EXPECT_TRUE(IsProcessRunning(gKvmAgentPid.load()));
  EXPECT_FALSE(IsProcessRunning(first));
  for (const std::string& call : gate::Trace()) EXPECT_NE(call.rfind("TerminateThread(", 0), 0u);
}

// A socket in a pipe's place. `backlog` as listen takes it.
class PipeServer {
 public:
  PipeServer(const std::string& lab, const std::string& name, int backlog) {
    std::filesystem::create_directories(lab + "/pipe");
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    (lab + "/pipe/" + name).copy(address.sun_path, sizeof address.sun_path - 1);
    fd_ = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    EXPECT_EQ(::bind(fd_, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
    EXPECT_EQ(::listen(fd_, backlog), 0);
  }
  PipeServer(const PipeServer&) = delete;
  ~PipeServer() { ::close(fd_); }
  // What one connection says until its end.
  std::string Take() {
    const int peer = ::accept(fd_, nullptr, nullptr);
    std::string text(64, '\0');
    std::size_t size = 0;
    for (ssize_t n; (n = ::recv(peer, text.data() + size, text.size() - size, 0)) > 0;)
      size += static_cast<std::size_t>(n);
    ::close(peer);
    return text.substr(0, size);
  }

 private:
  int fd_;
};

TEST_F(AgentTest, AMessageIsTornOrWaitsForAHungAgent) {
  WriteToAgentPipe(kAgentMousePipe, "nobody is there", 15);
  {
    PipeServer pipe(lab(), "KVMAgentPipe", 4);
    TerminateAgentOverPipe();
    EXPECT_EQ(pipe.Take(), "Terminate");
  }
  PipeServer hung(lab(), "KVMAgentKeyboard", 0);  // never accepts
  for (int i = 0; i < 50; ++i) WriteToAgentPipe(kAgentKeyboardPipe, "0123456789abcdef", 16);
  EXPECT_EQ(hung.Take(), "0123456789abcdef");
}

}  // namespace
}  // namespace stewardry

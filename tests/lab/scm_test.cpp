// The service manager's stand-in: its rules in memory, and the real program with a fake service.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/time.h>

#include <fstream>
#include <optional>

#include "lab/firmware/local_socket.h"
#include "lab/scm/client.h"
#include "lab/scm/controls.h"
#include "lab/scm/line_stream.h"
#include "tests/lab/lab_process.h"

namespace {

using labtest::LabFolder;
using labtest::LabProcess;

TEST(ScmControls, WordsBecomeTheRecordsOfTheHandler) {
  struct Row {
    const char* words;
    std::uint32_t control;
    std::uint32_t eventType;
    const char* data;
  };
  const Row kRows[] = {
      {"stop", 1, 0, "-"},
      {"interrogate", 4, 0, "-"},
      {"preshutdown", 15, 0, "-"},
      {"control 200", 200, 0, "-"},
      {"session unlock", 14, 8, "0800000001000000"},
      {"power acdc 1", 13, 0x8013, "599a3e5dd5e9004ba6bdff34ff5165480400000001000000"},
      {"power battery 258", 13, 0x8013, "4180ada75ab4ae4c87a3eecbb468a9e10400000002010000"},
      {"power presence 0 --force", 13, 0x8013, "1d8a6e7827b44443920709e70bdcbea90400000000000000"},
  };
  for (const Row& row : kRows) {
    const auto control = scm::ParseControl(scm::Words(row.words));
    ASSERT_TRUE(control) << row.words;
    EXPECT_EQ(control->control, row.control) << row.words;
    EXPECT_EQ(control->eventType, row.eventType) << row.words;
    EXPECT_EQ(control->data, row.data) << row.words;
  }
  for (const char* bad : {"", "stop now", "power acdc", "power acdc x", "power fan 1", "session",
                          "session away", "control -1", "control 4294967296", "start"}) {
    EXPECT_FALSE(scm::ParseControl(scm::Words(bad))) << bad;
  }
}

TEST(ScmControls, DeliversOnlyWhatTheServiceAccepts) {
  struct Row {
    const char* words;
    std::uint32_t state;
    std::uint32_t accepted;
    std::uint32_t refusal;
  };
  const Row kRows[] = {
      {"stop", scm::kRunning, 0x101, 0},
      {"stop", scm::kRunning, 0x100, 1061},
      {"stop", scm::kStartPending, 0, 1061},
      {"stop", scm::kStopPending, 0x1, 1061},
      {"stop", scm::kStopped, 0x1, 1062},
      {"preshutdown", scm::kRunning, 0x101, 0},
      {"preshutdown", scm::kRunning, 0x1, 1061},
      {"interrogate", scm::kRunning, 0, 0},
      {"session lock", scm::kRunning, 0x101, 1061},
      {"session lock", scm::kRunning, 0x181, 0},
      {"session lock --force", scm::kRunning, 0x101, 0},
      {"session lock --force", scm::kStopped, 0x101, 1062},
      {"power acdc 0", scm::kRunning, 0x141, 0},
      {"power battery 0", scm::kRunning, 0x141, 1061},  // not registered for
      {"power battery 0 --force", scm::kRunning, 0x101, 0},
      {"control 13", scm::kRunning, 0x101, 1061},
  };
  const std::vector<std::string> settings = {"{5d3e9a59-e9d5-4b00-a6bd-ff34ff516548}"};
  for (const Row& row : kRows) {
    scm::Status status;
    status.state = row.state;
    status.accepted = row.accepted;
    const auto control = scm::ParseControl(scm::Words(row.words));
    ASSERT_TRUE(control);
    EXPECT_EQ(scm::Refusal(*control, status, settings), row.refusal) << row.words << row.state;
    EXPECT_EQ(scm::Refusal(*control, std::nullopt, settings), 1062u) << row.words;
  }
}

TEST(ScmControls, StatusIsSevenNumbers) {
  const auto status = scm::ParseStatus("16 4 257 0 0 7 4294967295");
  ASSERT_TRUE(status);
  EXPECT_EQ(scm::DescribeStatus(*status),
            "SERVICE_RUNNING, accepts 0x101, exit 0/0, check point 7, wait hint 4294967295");
  for (const char* bad :
       {"", "16 4 257 0 0 7", "16 4 257 0 0 7 8 9", "16 4 x 0 0 7 8", "16 4 -1 0 0 7 8"}) {
    EXPECT_FALSE(scm::ParseStatus(bad)) << bad;
  }
}

// The service's end of the manager's socket, spoken by the test; the process that the manager
// started only waits until the test lets it go.
class ScmTest : public ::testing::Test {
 protected:
  ScmTest() {
    EXPECT_EQ(mkfifo(Gate().c_str(), 0600), 0);
    manager.emplace(std::vector<std::string>{SCM_PATH, "start", "/bin/sh", "-c",
                                             "read line < " + Gate() + "; exit $line"});
    EXPECT_TRUE(manager->Prints("started /bin/sh"));
  }
  std::string Gate() const { return folder.Path() + "/gate"; }
  void LetGo(int exitCode) { std::ofstream(Gate()) << exitCode << "\n"; }

  scm::LineStream Connect() {
    lab::Descriptor socket = lab::ConnectLocal(folder.Path() + "/scm");
    EXPECT_TRUE(socket);
    const timeval patience{10, 0};
    setsockopt(socket.Get(), SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof(patience));
    return scm::LineStream(std::move(socket));
  }
  static void Send(scm::LineStream* stream, const std::string& line) {
    stream->Send(line);
    EXPECT_TRUE(stream->Flush());
  }
  // The next line; with a quiet or closed connection an empty one.
  static std::string Next(scm::LineStream* stream) {
    for (int tries = 0; tries < 2; tries++) {
      if (auto line = stream->Line()) return *line;
      if (!stream->Read()) break;
    }
    return stream->Line().value_or("");
  }

  LabFolder folder;
  std::optional<LabProcess> manager;
};

TEST_F(ScmTest, StopWaitsForStoppedAndTheExitCodeIsTheChilds) {
  scm::LineStream service = Connect();
  Send(&service, "SERVICE QuillonSvc");
  Send(&service, "STATUS 16 4 257 0 0 0 0");
  ASSERT_TRUE(manager->Prints("status: SERVICE_RUNNING"));
  LabProcess client({SCM_PATH, "stop"});
  EXPECT_EQ(Next(&service), "CONTROL 1 0 -");
  Send(&service, "STATUS 16 3 1 0 0 1 0");
  Send(&service, "RESULT 0");
  EXPECT_TRUE(client.Prints("RESULT 0"));
  Send(&service, "STATUS 16 1 0 0 0 0 0");
  Send(&service, "STATUS 16 3 1 0 0 2 0");  // a late report doesn't bring it back
  EXPECT_EQ(client.ExitCode(), 0);
  EXPECT_NE(client.Output().find("states: SERVICE_STOP_PENDING, SERVICE_STOPPED\n"),
            std::string::npos)
      << client.Output();
  LabProcess again({SCM_PATH, "stop"});
  EXPECT_EQ(again.ExitCode(), 1);
  EXPECT_NE(again.Output().find("1062"), std::string::npos);
  LetGo(7);
  EXPECT_EQ(manager->ExitCode(), 7);
}

TEST_F(ScmTest, ControlsComeOneAtATimeAndTheirResultsToTheirClients) {
  LabProcess early({SCM_PATH, "interrogate"});
  EXPECT_EQ(early.ExitCode(), 1);
  EXPECT_NE(early.Output().find("1062"), std::string::npos);
  scm::LineStream service = Connect();
  Send(&service, "SERVICE QuillonSvc");
  Send(&service, "POWERSETTING {5D3E9A59-E9D5-4B00-A6BD-FF34FF516548}");
  Send(&service, "STATUS 16 4 257 0 0 0 0");
  Send(&service, "gibberish");
  ASSERT_TRUE(manager->Prints("not understood from the service"));
  LabProcess refused({SCM_PATH, "session", "lock"});
  EXPECT_EQ(refused.ExitCode(), 1);
  EXPECT_NE(refused.Output().find("1061"), std::string::npos);
  LabProcess first({SCM_PATH, "interrogate"});
  EXPECT_EQ(Next(&service), "CONTROL 4 0 -");
  LabProcess second({SCM_PATH, "session", "lock", "--force"});
  LabProcess shown({SCM_PATH, "status"});
  EXPECT_EQ(shown.ExitCode(), 0);  // answered while a control is on its way
  EXPECT_NE(shown.Output().find("power setting {5D3E9A59"), std::string::npos);
  Send(&service, "RESULT 0");
  EXPECT_EQ(first.ExitCode(), 0);
  EXPECT_EQ(Next(&service), "CONTROL 14 7 0800000001000000");
  Send(&service, "RESULT 120");
  EXPECT_EQ(second.ExitCode(), 1);
  EXPECT_NE(second.Output().find("RESULT 120"), std::string::npos);
  LetGo(0);
  EXPECT_EQ(manager->ExitCode(), 0);
}

TEST_F(ScmTest, SignalStopsTheServiceAndASecondKillsIt) {
  scm::LineStream service = Connect();
  Send(&service, "SERVICE QuillonSvc");
  Send(&service, "STATUS 16 4 257 0 0 0 0");
  ASSERT_TRUE(manager->Prints("status: SERVICE_RUNNING"));
  manager->Signal(SIGTERM);
  EXPECT_EQ(Next(&service), "CONTROL 1 0 -");
  manager->Signal(SIGTERM);
  EXPECT_EQ(manager->ExitCode(), 128 + SIGKILL);
}

TEST_F(ScmTest, ClientIsToldWhenTheServiceGoesWithoutAnAnswer) {
  {
    scm::LineStream service = Connect();
    Send(&service, "SERVICE QuillonSvc");
    Send(&service, "STATUS 16 4 257 0 0 0 0");
    ASSERT_TRUE(manager->Prints("status: SERVICE_RUNNING"));
    LabProcess client({SCM_PATH, "preshutdown"});
    EXPECT_EQ(Next(&service), "CONTROL 15 0 -");
    service = Connect();  // the old connection goes
    EXPECT_EQ(client.ExitCode(), 1);
    EXPECT_NE(client.Output().find("1062"), std::string::npos);
  }
  LetGo(0);
  EXPECT_EQ(manager->ExitCode(), 0);
}

TEST(ScmStart, FindsTheInstalledProgram) {
  LabFolder folder;
  EXPECT_EQ(scm::InstalledProgram(), "");
  mkdir((folder.Path() + "/services").c_str(), 0700);
  std::ofstream(folder.Path() + "/services/QuillonSvc")
      << "name=QuillonSvc\nbinaryPath=\"/a b/quillonsvc\"\nstartType=2\n";
  EXPECT_EQ(scm::InstalledProgram(), "/a b/quillonsvc");
  LabProcess missing({SCM_PATH, "start", "/no/such/program"});
  EXPECT_EQ(missing.ExitCode(), 1);
  LabProcess alone({SCM_PATH, "stop"});
  EXPECT_EQ(alone.ExitCode(), 1);
}

}  // namespace

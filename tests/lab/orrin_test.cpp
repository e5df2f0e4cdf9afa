// The real simulator, connected to a mailbox end of the test's own. The end-to-end tests cover its
// answers to the service and to real clients; this file has the cases that those cannot produce.
#include <filesystem>
#include <fstream>
#include <optional>

#include "lab/firmware/core/frames.h"
#include "lab/firmware/core/link.h"
#include "tests/lab/lab_process.h"
#include "tests/lab_folder_fixture.h"

namespace {

using orrin::Bytes;

class MailboxEnd {
 public:
  explicit MailboxEnd(const std::string& path) : socket_(lab::ConnectLocal(path)) {
    EXPECT_TRUE(socket_);
  }
  // Returns the body of the next message; empty if the link has ended.
  Bytes NextBody() {
    lablink::Head head;
    if (!Receive(&head, sizeof head)) return {};
    Bytes body(head.length);
    return Receive(body.data(), body.size()) ? body : Bytes{};
  }

 private:
  bool Receive(void* to, std::size_t size) {
    return size == 0 || recv(socket_.Get(), to, size, MSG_WAITALL) == static_cast<ssize_t>(size);
  }
  lab::Descriptor socket_;
};

class OrrinTest : public LabTest {
 protected:
  void SetUp() override {
    LabTest::SetUp();
    orrin_.emplace(std::vector<std::string>{ORRIN_PATH});
    EXPECT_TRUE(orrin_->Prints("listening on "));
  }
  const std::string socketPath_ = lab() + "/mailbox/mailbox0";
  std::optional<LabProcess> orrin_;
};

TEST_F(OrrinTest, ScriptRunsOnTheSocketOfAKilledProcess) {
  LabProcess second({ORRIN_PATH});
  EXPECT_TRUE(second.Prints("is served by another program"));
  EXPECT_EQ(second.ExitCode(), 1);
  orrin_.reset();
  ASSERT_TRUE(std::filesystem::exists(socketPath_));
  std::ofstream(lab() + "/script") << "# a comment\nwait has connected\ndash hi\nnonsense\nquit";
  LabProcess scripted({ORRIN_PATH, "--script", lab() + "/script"});
  ASSERT_TRUE(scripted.Prints("listening on "));
  MailboxEnd end(socketPath_);
  EXPECT_EQ(end.NextBody(), (Bytes{'h', 'i', orrin::kDashData, 0}));
  EXPECT_TRUE(scripted.Prints("unknown command \"nonsense\""));
  EXPECT_EQ(scripted.ExitCode(), 0);
}

}  // namespace

// The real simulator, joined to a mailbox end of the test's own. Its answers to the service and to
// foreign clients are covered by the end-to-end tests; here is what those cannot bring about.
#include <filesystem>
#include <fstream>
#include <optional>

#include "lab/firmware/frames.h"
#include "lab/firmware/link.h"
#include "lab/firmware/operations.h"
#include "tests/lab/lab_process.h"
#include "tests/lab_folder_fixture.h"

namespace {

using orrin::Bytes;
using orrin::ByteView;

struct Message {
  lablink::Head head{};  // all zero if the link has ended
  Bytes body;
};

class MailboxEnd {
 public:
  explicit MailboxEnd(const std::string& path) : socket_(lab::ConnectLocal(path)) {
    EXPECT_TRUE(socket_);
  }
  Message Next() {
    Message message;
    if (!Receive(&message.head, sizeof(message.head))) return {};
    message.body.resize(message.head.length);
    return Receive(message.body.data(), message.body.size()) ? message : Message{};
  }
  // Sends a request. Returns its answer, which must come next.
  Message Answer(std::uint32_t code, std::uint32_t outputSize, ByteView input = {}) {
    const lablink::Head head{lablink::kMagic, lablink::kRequest, ++lastId_, code,
                             static_cast<std::uint32_t>(sizeof outputSize + input.size())};
    std::string bytes(reinterpret_cast<const char*>(&head), sizeof head);
    bytes.append(reinterpret_cast<const char*>(&outputSize), sizeof outputSize);
    bytes.append(input.begin(), input.end());
    EXPECT_EQ(send(socket_.Get(), bytes.data(), bytes.size(), MSG_NOSIGNAL),
              static_cast<ssize_t>(bytes.size()));
    const Message message = Next();
    EXPECT_EQ(message.head.kind, lablink::kComplete);
    EXPECT_EQ(message.head.id, lastId_);
    return message;
  }

 private:
  bool Receive(void* to, std::size_t size) {
    return size == 0 || recv(socket_.Get(), to, size, MSG_WAITALL) == static_cast<ssize_t>(size);
  }
  lab::Descriptor socket_;
  std::uint64_t lastId_ = 100;
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

TEST_F(OrrinTest, AnswerIsNoLongerThanTheRequestsOutput) {
  MailboxEnd end(socketPath_);
  EXPECT_EQ(end.Answer(orrin::kGetTavrinVersion, 10).body.size(), 10u);
  EXPECT_EQ(end.Answer(0x9C41A404, 0).head.word, 1u);
  EXPECT_TRUE(orrin_->Prints("unknown control code 0x9c41a404"));
  EXPECT_EQ(end.Answer(orrin::kWriteOsInfo, 0, Bytes(803)).head.word, 87u);
  EXPECT_TRUE(orrin_->Prints("WriteOsInfo: wrong input size, 803 bytes for 804"));
}

TEST_F(OrrinTest, ScriptRunsOnASocketThatAKilledProcessLeft) {
  LabProcess second({ORRIN_PATH});
  EXPECT_TRUE(second.Prints("is served by another program"));
  EXPECT_EQ(second.ExitCode(), 1);
  orrin_.reset();
  ASSERT_TRUE(std::filesystem::exists(socketPath_));
  std::ofstream(lab() + "/script") << "# a comment\nwait has connected\ndash hi\nnonsense\nquit";
  LabProcess scripted({ORRIN_PATH, "--script", lab() + "/script"});
  ASSERT_TRUE(scripted.Prints("listening on "));
  MailboxEnd end(socketPath_);
  EXPECT_EQ(end.Next().body, (Bytes{'h', 'i', orrin::kDashData, 0}));
  EXPECT_TRUE(scripted.Prints("unknown command \"nonsense\""));
  EXPECT_EQ(scripted.ExitCode(), 0);
}

}  // namespace

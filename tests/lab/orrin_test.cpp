// The real simulator, with a mailbox end of the test's own.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <cstring>
#include <filesystem>
#include <fstream>
#include <optional>

#include "lab/firmware/frames.h"
#include "lab/firmware/link.h"
#include "lab/firmware/local_socket.h"
#include "lab/firmware/operations.h"
#include "lab/firmware/records.h"
#include "tests/lab/lab_process.h"
#include "tests/lab/tls_client.h"

namespace {

using labtest::LabFolder;
using labtest::LabProcess;
using labtest::TlsClient;
using orrin::Bytes;
using orrin::ByteView;

struct Message {
  lablink::Head head;
  Bytes body;
};

class MailboxEnd {
 public:
  explicit MailboxEnd(const LabFolder& folder)
      : socket_(lab::ConnectLocal(folder.Path() + "/mailbox/mailbox0")) {
    EXPECT_TRUE(socket_);
    const timeval patience{10, 0};
    setsockopt(socket_.Get(), SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof(patience));
  }
  void Send(std::uint32_t kind, std::uint64_t id, std::uint32_t word, ByteView body = {}) {
    const lablink::Head head{lablink::kMagic, kind, id, word,
                             static_cast<std::uint32_t>(body.size())};
    SendRaw({reinterpret_cast<const std::uint8_t*>(&head), sizeof(head)});
    SendRaw(body);
  }
  void SendRaw(ByteView bytes) {
    EXPECT_EQ(send(socket_.Get(), bytes.data(), bytes.size(), MSG_NOSIGNAL),
              static_cast<ssize_t>(bytes.size()));
  }
  void Request(std::uint64_t id, std::uint32_t code, std::uint32_t outputSize, ByteView input) {
    Bytes body(sizeof(outputSize));
    std::memcpy(body.data(), &outputSize, sizeof(outputSize));
    body.insert(body.end(), input.begin(), input.end());
    Send(lablink::kRequest, id, code, body);
  }
  // The next message; nothing when the link has ended or stays quiet for ten seconds.
  std::optional<Message> Next() {
    Message message;
    if (!Receive(&message.head, sizeof(message.head))) return std::nullopt;
    message.body.resize(message.head.length);
    if (!Receive(message.body.data(), message.body.size())) return std::nullopt;
    return message;
  }

 private:
  bool Receive(void* to, std::size_t size) {
    return size == 0 || recv(socket_.Get(), to, size, MSG_WAITALL) == static_cast<ssize_t>(size);
  }
  lab::Descriptor socket_;
};

class OrrinTest : public ::testing::Test {
 protected:
  OrrinTest() { EXPECT_TRUE(orrin.Prints("listening on ")); }
  // A request's answer, which must come next.
  Message Answer(MailboxEnd* end, std::uint32_t code, std::uint32_t outputSize,
                 ByteView input = {}) {
    end->Request(++lastId, code, outputSize, input);
    auto message = end->Next();
    EXPECT_TRUE(message && message->head.kind == lablink::kComplete && message->head.id == lastId);
    return message.value_or(Message{});
  }

  LabFolder folder;
  LabProcess orrin{{ORRIN_PATH}};
  std::uint64_t lastId = 100;
};

TEST_F(OrrinTest, RelaysTlsAndIdentify) {
  MailboxEnd end(folder);
  end.Send(lablink::kOpen, 1, 1);
  end.Send(lablink::kOpen, 2, 0);
  for (std::uint64_t i = 1; i <= 10; i++) end.Send(lablink::kRead, i, lablink::kMaxFrame);
  EXPECT_TRUE(orrin.Prints("ten reads armed"));
  orrin::IpRecord announcement{};
  announcement.localPort = orrin::kDashPort;
  announcement.endMarker = orrin::kEndMarker;
  EXPECT_EQ(Answer(&end, orrin::kSendIpInfo, 0, orrin::BytesOf(announcement)).head.word, 0u);

  TlsClient client;
  client.Say(
      "POST /wsman HTTP/1.1\r\nHost: h\r\nContent-Length: 104\r\nConnection: close\r\n\r\n"
      "<e xmlns:i='http://schemas.dmtf.org/wbem/wsman/identity/1/wsmanidentity.xsd'><b><i:Identify"
      "/></b>   </e>");
  std::size_t framesOfLastWrite = 0;
  for (Bytes out = client.TakeOutput(); !client.WasClosed(); out = client.TakeOutput()) {
    if (!out.empty()) end.Request(++lastId, orrin::kWriteDashPacket, 0, out);
    const auto message = end.Next();
    ASSERT_TRUE(message);
    if (message->head.kind != lablink::kFrame) continue;
    ASSERT_GE(message->body.size(), 2u);
    EXPECT_EQ(message->body[message->body.size() - 2], orrin::kDashData);
    client.Receive(ByteView(message->body).first(message->body.size() - 2));
    framesOfLastWrite++;
  }
  EXPECT_GE(framesOfLastWrite, 2u);
  EXPECT_EQ(client.ServerName(), "orrin");
  EXPECT_NE(client.Heard().find("<i:ProductVersion>2.4.1.0<"), std::string::npos);
  EXPECT_TRUE(orrin.Prints("TLS handshake (ClientHello)"));

  const std::uint16_t port = orrin::kDashPort;
  (void)Answer(&end, orrin::kSendCloseSocket, 0, orrin::BytesOf(port));
  EXPECT_TRUE(orrin.Prints("the DASH connection has ended, port (664)"));
}

TEST_F(OrrinTest, AnswersWithNoMoreThanTheRequestTakes) {
  MailboxEnd end(folder);
  orrin.Type("version 7.7");
  orrin.Type("provision off");
  orrin.Type("kvmstatus 1200");
  orrin.Type("status 2");
  orrin.Type("unknown 0x22");  // tells that the lines before it have run
  const auto frame = end.Next();
  ASSERT_TRUE(frame);
  EXPECT_EQ(frame->body, (Bytes{0x22, 0}));
  const Message version = Answer(&end, orrin::kGetTavrinVersion, 80);
  const auto record = orrin::ReadRecord<orrin::VersionRecord>(version.body);
  ASSERT_TRUE(record);
  EXPECT_STREQ(record->version, "7.7");
  EXPECT_NE(record->provisionStatus, 2u);
  EXPECT_EQ(record->kvmStatus, 1200u);
  EXPECT_EQ(Answer(&end, orrin::kGetTavrinVersion, 10).body.size(), 10u);
  EXPECT_EQ(Answer(&end, orrin::kGetOrrinStatus, 1).body, Bytes{2});
  const Message region = Answer(&end, orrin::kWriteLogBuffer, 16);
  EXPECT_EQ(region.body.size(), 16u);
  EXPECT_NE(Bytes(region.body.begin(), region.body.begin() + 8), Bytes(8));
  EXPECT_EQ(Answer(&end, orrin::kWriteDashPacket, 99, Bytes(3)).body.size(), 0u);
  EXPECT_EQ(Answer(&end, 0x9C41A404, 0).head.word, 1u);
  EXPECT_TRUE(orrin.Prints("unknown control code 0x9c41a404"));
  EXPECT_EQ(Answer(&end, orrin::kWriteOsInfo, 0, Bytes(803)).head.word, 87u);
  EXPECT_TRUE(orrin.Prints("WriteOsInfo: wrong input size, 803 bytes for 804"));
}

TEST_F(OrrinTest, ViewerSeesTheScreenAndItsKeysGoIntoTheRing) {
  MailboxEnd end(folder);
  end.Send(lablink::kOpen, 1, 1);
  end.Request(1, orrin::kInitializePointers, 16, {});
  for (const std::uint32_t ring : {0u, 32768u}) {
    const auto poke = end.Next();
    ASSERT_TRUE(poke && poke->head.kind == lablink::kPoke && poke->head.word == ring);
    EXPECT_EQ(poke->body, Bytes(8));
  }
  EXPECT_NE(end.Next().value_or(Message{}).body, Bytes(16));
  orrin::IpRecord announcement{};
  announcement.localPort = orrin::kKvmPort;
  (void)Answer(&end, orrin::kSendIpInfo, 0, orrin::BytesOf(announcement));
  const Bytes version = end.Next().value_or(Message{}).body;
  EXPECT_EQ(Bytes(version.end() - 2, version.end()), (Bytes{orrin::kKvmData, 0}));
  EXPECT_EQ(orrin::TextOf(ByteView(version).first(version.size() - 2)), "RFB 003.008\n");

  const std::string_view says("RFB 003.008\n\1\1\4\1\0\0\0\0\0A", 22);
  (void)Answer(&end, orrin::kWriteKvmPacket, 0, orrin::ViewOf(says));
  std::vector<Message> pokes;
  while (pokes.size() < 2) {
    const auto message = end.Next();
    ASSERT_TRUE(message);
    if (message->head.kind == lablink::kPoke) pokes.push_back(*message);
  }
  EXPECT_EQ(pokes[0].head.word, 8u);
  EXPECT_EQ(pokes[0].body, (Bytes{0x41, 0, 0, 0x80}));
  EXPECT_EQ(pokes[1].head.word, 0u);
  EXPECT_EQ(pokes[1].body, (Bytes{1, 0, 0, 0}));
  EXPECT_TRUE(orrin.Prints("key 0x0041 'A' pressed"));

  const std::uint16_t port = orrin::kKvmPort;
  (void)Answer(&end, orrin::kSendCloseSocket, 0, orrin::BytesOf(port));
  EXPECT_TRUE(orrin.Prints("KVM: session ended"));
  orrin.Type("kvm region withhold");
  orrin.Type("kvm index keyboard");
  EXPECT_TRUE(orrin.Prints("keyboard writes at 1 next, 0 events wait"));
  EXPECT_EQ(Answer(&end, orrin::kInitializePointers, 16).body, Bytes(16));
}

TEST_F(OrrinTest, SilenceHoldsAndFailureCounts) {
  MailboxEnd end(folder);
  const Bytes up = {1, 0, 0, 0};
  orrin.Type("fail WriteTavrinStatus 31 1");
  orrin.Type("silence GetOrrinStatus on");
  orrin.Type("frame 00 22 00");
  ASSERT_TRUE(end.Next());
  EXPECT_EQ(Answer(&end, orrin::kWriteTavrinStatus, 0, up).head.word, 31u);
  EXPECT_EQ(Answer(&end, orrin::kWriteTavrinStatus, 0, up).head.word, 0u);
  end.Request(1, orrin::kGetOrrinStatus, 1, {});
  end.Request(2, orrin::kGetOrrinStatus, 1, {});
  end.Send(lablink::kCancel, 1, 0);
  EXPECT_TRUE(orrin.Prints("CANCEL of request 1, which was held"));
  EXPECT_EQ(Answer(&end, orrin::kWriteTavrinStatus, 0, up).head.word, 0u);  // not held
  orrin.Type("silence off");
  const auto answered = end.Next();
  ASSERT_TRUE(answered);
  EXPECT_EQ(answered->head.id, 2u);
  orrin.Type("inventory");
  EXPECT_TRUE(orrin.Prints("\"reports\":{\"serviceStatus\":2,"));  // the failed one doesn't count
}

TEST_F(OrrinTest, DropsAMalformedLinkAndServesTheNext) {
  {
    MailboxEnd end(folder);
    end.SendRaw(Bytes(24, 0xAA));
    EXPECT_FALSE(end.Next());
    EXPECT_TRUE(orrin.Prints("the mailbox end has gone: malformed head"));
  }
  {
    MailboxEnd end(folder);
    end.Send(lablink::kRequest, 1, orrin::kGetOrrinStatus, Bytes(3));  // no whole output size
    EXPECT_FALSE(end.Next());
    EXPECT_TRUE(orrin.Prints("the mailbox end has gone: malformed request"));
  }
  MailboxEnd end(folder);
  EXPECT_EQ(Answer(&end, orrin::kGetOrrinStatus, 1).body, Bytes{1});
  orrin.Type("drop");
  EXPECT_FALSE(end.Next());
}

TEST_F(OrrinTest, RecordsOfTheVocabularyHaveTheirLayout) {
  MailboxEnd end(folder);
  orrin.Type("trust 10.1.2.3 5900");
  EXPECT_EQ(end.Next().value_or(Message{}).body,
            (Bytes{10, 1, 2, 3, 0x0C, 0x17, 0, 0, orrin::kKvmIpPortInfo, 0}));
  orrin.Type("subscribe listener 8443 /events https");
  const auto frame = end.Next();
  ASSERT_TRUE(frame && frame->body.size() == 2062);
  EXPECT_STREQ(reinterpret_cast<const char*>(frame->body.data()), "listener");
  EXPECT_STREQ(reinterpret_cast<const char*>(frame->body.data()) + 1024, "/events");
  EXPECT_EQ(Bytes(frame->body.begin() + 2052, frame->body.end()),
            (Bytes{0xFB, 0x20, 0, 0, 1, 0, 0, 0, orrin::kIndicationSubscribe, 0}));
  orrin.Type("unsubscribe");
  Bytes none(2062);
  none[2060] = orrin::kIndicationSubscribe;
  EXPECT_EQ(end.Next().value_or(Message{}).body, none);
  orrin.Type("poke 0 65535 aa bb");  // one byte past the region
  EXPECT_TRUE(orrin.Prints("wrong arguments; usage: poke"));
  orrin.Type("poke 0 65535 aa");
  EXPECT_EQ(end.Next().value_or(Message{}).head.word, 65535u);
}

TEST(OrrinStart, EndsCleanlyAndRefusesASecondOfItsKind) {
  LabFolder folder;
  LabProcess first({ORRIN_PATH});
  ASSERT_TRUE(first.Prints("listening on "));
  LabProcess second({ORRIN_PATH});
  EXPECT_TRUE(second.Prints("is served by another program"));
  EXPECT_EQ(second.ExitCode(), 1);
  first.Signal(SIGTERM);
  EXPECT_EQ(first.ExitCode(), 0);
  EXPECT_FALSE(std::filesystem::exists(folder.Path() + "/mailbox/mailbox0"));
}

TEST(OrrinStart, RunsItsScriptOverAStaleSocket) {
  LabFolder folder;
  {
    LabProcess killed({ORRIN_PATH});
    ASSERT_TRUE(killed.Prints("listening on "));
  }
  ASSERT_TRUE(std::filesystem::exists(folder.Path() + "/mailbox/mailbox0"));
  const std::string script = folder.Path() + "/script";
  std::ofstream(script) << "# waits for the host\nwait has connected\ndash hi\nnonsense\nquit";
  LabProcess scripted({ORRIN_PATH, "--script", script});
  ASSERT_TRUE(scripted.Prints("listening on "));
  MailboxEnd end(folder);
  EXPECT_EQ(end.Next().value_or(Message{}).body, (Bytes{'h', 'i', orrin::kDashData, 0}));
  EXPECT_EQ(scripted.ExitCode(), 0);
  EXPECT_NE(scripted.Output().find("unknown command \"nonsense\""), std::string::npos);
}

}  // namespace

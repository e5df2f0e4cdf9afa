#include "lab/firmware/dash_session.h"

#include <gtest/gtest.h>

#include "lab/firmware/frames.h"
#include "tests/lab/tls_client.h"

namespace orrin {
namespace {

using labtest::TlsClient;

// Keeps what the session sends, in order; a command is told from bytes by `command`.
class RecordedOutput : public DashOutput {
 public:
  struct Item {
    std::uint8_t command;
    Bytes bytes;
  };
  void SendDashBytes(ByteView bytes) override {
    EXPECT_LE(bytes.size(), kMaxPayload);
    items.push_back({kDashData, {bytes.begin(), bytes.end()}});
  }
  void SendCommand(std::uint8_t code) override { items.push_back({code, {}}); }
  bool HasRoom() const override { return items.size() < room; }
  void Say(const std::string&) override {}

  std::vector<Item> items;
  std::size_t room = SIZE_MAX;
};

class DashSessionTest : public ::testing::Test {
 protected:
  // Carries bytes both ways until neither side has any.
  void Exchange() {
    while (true) {
      const Bytes out = client.TakeOutput();
      if (out.empty() && output.items.empty()) return;
      for (const auto& item : std::exchange(output.items, {})) client.Receive(item.bytes);
      if (!out.empty()) session.Receive(out);
    }
  }

  TlsContext context;
  Inventory inventory;
  std::string version = "9.9";
  RecordedOutput output;
  DashSession session{context, PageFacts{inventory, version}, output};
  TlsClient client;
};

std::string Post(const std::string& target, const std::string& body, const std::string& fields) {
  return "POST " + target + " HTTP/1.1\r\nHost: h\r\n" + fields +
         "Content-Length: " + std::to_string(body.size()) + "\r\n\r\n" + body;
}

TEST_F(DashSessionTest, PowerCommandStandsBetweenOlderAnswersAndItsOwnReply) {
  const std::string power =
      "<e><Action>http://schemas.dmtf.org/wbem/wscim/1/cim-schema/2/CIM_PowerManagementService/"
      "RequestPowerStateChange</Action><PowerState>8</PowerState></e>";
  Exchange();
  client.Say("GET / HTTP/1.1\r\nHost: h\r\n\r\n" + Post("/wsman", power, "Connection: close\r\n"));
  session.Receive(client.TakeOutput());
  ASSERT_EQ(output.items.size(), 3u);
  EXPECT_EQ(output.items[0].command, kDashData);
  EXPECT_EQ(output.items[1].command, kShutdown);
  EXPECT_EQ(output.items[2].command, kDashData);
  client.Receive(output.items[0].bytes);
  EXPECT_NE(client.Heard().find("\"os\":null"), std::string::npos);
  EXPECT_EQ(client.Heard().find("ReturnValue"), std::string::npos);
  client.Receive(output.items[2].bytes);
  EXPECT_NE(client.Heard().find("<p:ReturnValue>0<"), std::string::npos);
  EXPECT_TRUE(client.WasClosed());  // the whole reply and the close in one frame
}

TEST_F(DashSessionTest, LongAnswerWaitsForRoomAndLosesNothing) {
  Exchange();
  output.room = 2;
  client.Say("GET /bytes/1000003 HTTP/1.1\r\nHost: h\r\n\r\n");
  session.Receive(client.TakeOutput());
  std::size_t rounds = 0;
  while (!output.items.empty()) {
    EXPECT_LE(output.items.size(), 3u);
    for (const auto& item : std::exchange(output.items, {})) client.Receive(item.bytes);
    session.Pump();
    rounds++;
  }
  EXPECT_GT(rounds, 2u);
  EXPECT_FALSE(session.IsWaitingForRoom());
  const std::string& heard = client.Heard();
  const std::size_t start = heard.find("\r\n\r\n") + 4;
  ASSERT_EQ(heard.size() - start, 1000003u);
  std::size_t wrong = 0;
  for (std::size_t i = 0; i < 1000003; i++) {
    wrong += static_cast<std::uint8_t>(heard[start + i]) != PatternByte(i);
  }
  EXPECT_EQ(wrong, 0u);
}

TEST_F(DashSessionTest, CiphertextByteByByteIsTheSame) {
  client.Say(Post("/echo", "twelve bytes", "Content-Type: a/b\r\n"));
  for (int round = 0; round < 4; round++) {
    for (std::uint8_t byte : client.TakeOutput()) session.Receive({&byte, 1});
    for (const auto& item : std::exchange(output.items, {})) client.Receive(item.bytes);
  }
  EXPECT_TRUE(client.Heard().ends_with("\r\n\r\ntwelve bytes")) << client.Heard();
  EXPECT_NE(client.Heard().find("Content-Type: a/b\r\n"), std::string::npos);
}

TEST_F(DashSessionTest, HeadHasTheLengthAndNoBody) {
  client.Say("HEAD /bytes/77 HTTP/1.1\r\nHost: h\r\n\r\n");
  Exchange();
  EXPECT_TRUE(client.Heard().ends_with("Content-Length: 77\r\n\r\n")) << client.Heard();
  client.Say("GET /nowhere HTTP/1.1\r\nHost: h\r\n\r\n");
  Exchange();
  EXPECT_NE(client.Heard().find("HTTP/1.1 404 "), std::string::npos);
  EXPECT_FALSE(client.WasClosed());
}

TEST_F(DashSessionTest, ContinueComesBeforeTheBody) {
  client.Say("POST /echo HTTP/1.1\r\nHost: h\r\nExpect: 100-continue\r\nContent-Length: 1\r\n\r\n");
  Exchange();
  EXPECT_EQ(client.Heard(), "HTTP/1.1 100 Continue\r\n\r\n");
  client.Say("x");
  Exchange();
  EXPECT_TRUE(client.Heard().ends_with("\r\n\r\nx"));
}

TEST_F(DashSessionTest, MalformedRequestIsAnsweredAndClosed) {
  client.Say("nonsense\r\n\r\n");
  Exchange();
  EXPECT_TRUE(client.Heard().starts_with("HTTP/1.1 400 "));
  EXPECT_TRUE(client.WasClosed());
  session.Receive(Bytes(10));  // nothing more comes of it
  EXPECT_TRUE(output.items.empty());
}

TEST_F(DashSessionTest, BytesThatAreNotTlsEndTheSession) {
  session.Receive(ViewOf("GET / HTTP/1.0\r\n\r\n"));
  session.Receive(client.TakeOutput());
  EXPECT_FALSE(session.IsWaitingForRoom());
  for (const auto& item : output.items) client.Receive(item.bytes);
  EXPECT_TRUE(client.Heard().empty());
}

}  // namespace
}  // namespace orrin

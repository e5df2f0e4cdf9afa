// Indications on the gate's trace: the calls of the HTTP layer in their order, the effect of each
// failure, and invalid records. The end-to-end tests check what a listener receives.
#include "service/actions/indications.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <tuple>
#include <vector>

#include "service/actions/actions_state.h"
#include "tests/fresh_state.h"
#include "tests/service/mailbox_fixture.h"

namespace stewardry {
namespace {

const std::uint8_t* Bytes(const void* record) { return static_cast<const std::uint8_t*>(record); }

class Indications : public MailboxTest {
 protected:
  Indications() { Renew(&gActions); }
  // Returns the record of the subscription.
  static IndicationSubscription Subscribe(const std::string& host, const std::string& path,
                                          std::uint32_t port = 8080) {
    IndicationSubscription record{};
    host.copy(record.host, sizeof record.host);
    path.copy(record.path, sizeof record.path);
    record.port = port;
    record.secure = 1;
    IndicationSubscribe(Bytes(&record), sizeof record);
    return record;
  }
  // Returns the calls of the HTTP layer for an event, then what the event prints. `failing` fails
  // with 12345; the send fails with 12029, so that nothing leaves the test.
  static std::vector<std::string> Post(const std::string& event, const char* failing = "none") {
    gate::Arm();
    gate::FailNext("WinHttpSendRequest", 12029);
    gate::FailNext(failing, 12345);
    testing::internal::CaptureStdout();
    IndicationEvent(Bytes(event.data()), static_cast<std::uint32_t>(event.size()));
    std::vector<std::string> calls = gate::Trace();
    std::erase_if(calls, [](const std::string& call) { return !call.starts_with("WinHttp"); });
    calls.push_back(testing::internal::GetCapturedStdout());
    return calls;
  }
};

TEST_F(Indications, PostMakesItsCallsInOrderAndClosesEachHandleThatItOpened) {
  Subscribe("console", "/events");
  const std::vector<std::string> steps = {
      "WinHttpOpen(WinHTTP Example/1.0)",
      "WinHttpSetTimeouts(10000,10000,10000,10000)",
      "WinHttpConnect(console,8080)",
      "WinHttpOpenRequest(POST,/events,0x800000)",
      "WinHttpAddRequestHeaders(Host: console:8080\r\nContent-Type: "
      "application/soap+xml;charset=UTF-8\r\nAccept: */*\r\nContent-Length: 5\r\n)",
      "WinHttpSetOption(31,0x3100)",
      "WinHttpSendRequest(5,40000)"};
  const std::tuple<const char*, std::size_t, std::size_t, const char*> kRows[] = {
      {"none", 7, 3, "Error 12029 Request not sent.\n"},
      {"WinHttpOpen", 1, 0, "Error 12345 Session not established.\n"},
      {"WinHttpSetTimeouts", 7, 3, "Error 12029 Request not sent.\n"},
      {"WinHttpConnect", 3, 1, "Error 12345 Connection not attempted.\n"},
      {"WinHttpOpenRequest", 4, 2, "Error 12345 Request not opened.\n"},
      {"WinHttpAddRequestHeaders", 7, 3, "Error 12029 Request not sent.\n"},
      {"WinHttpSetOption", 6, 3, "Error 12345 Options not set.\n"}};
  for (const auto& [failing, made, closes, printed] : kRows) {
    std::vector<std::string> expected = steps;
    expected.resize(made);
    expected.resize(made + closes, "WinHttpCloseHandle()");
    expected.push_back(printed);
    if (failing == std::string("WinHttpAddRequestHeaders"))  // they go with the request
      expected[6] = "WinHttpSendRequest(5,40000,headers)";
    EXPECT_EQ(Post("event", failing), expected) << failing;
  }
  EXPECT_EQ(gActions->gIndicationSubscribed.load(), 1) << "a failed post leaves the subscription";
}

TEST_F(Indications, RecordOfAnyLengthIsReadWithinItsBounds) {
  const IndicationSubscription record = Subscribe("console", "/events", 1);
  std::vector<std::uint8_t> longer(Bytes(&record), Bytes(&record) + sizeof record);
  longer.resize(70'000, 0xFF);
  for (const std::size_t length : {0UL, 1UL, 1024UL, 1025UL, sizeof record - 1, longer.size()}) {
    const std::vector<std::uint8_t> payload(longer.data(), longer.data() + length);
    gActions->gIndicationSubscribed = 2;
    IndicationSubscribe(payload.data(), static_cast<std::uint32_t>(length));
    EXPECT_EQ(gActions->gIndicationSubscribed.load(), length > 1024 ? 1 : 0) << length;
  }
  EXPECT_TRUE(Logged("Send size is 1025, so subscribing to console"));
  EXPECT_EQ(std::memcmp(&gActions->gIndicationSubscription, &record, sizeof record), 0);
  Subscribe("another", "");  // without a path: unsubscribes, and the stored record stays
  EXPECT_EQ(gActions->gIndicationSubscribed.load(), 0);
  EXPECT_STREQ(gActions->gIndicationSubscription.host, "console");
}

TEST_F(Indications, InvalidListenerIsRefused) {
  const std::string kHost = "the host is no name and no address", kPort = "the port is none",
                    kPath = "control characters in the path",
                    kLong = "the host is too long for a header", kOf1024(1024, 'h');
  const std::tuple<std::string, std::string, std::uint32_t, std::string> kRows[] = {
      {"", "/", 80, kHost},         {"a\r\nX: y", "/", 80, kHost}, {"user@host", "/", 80, kHost},
      {"host", "/\x7F", 80, kPath}, {"host", "/a\tb", 80, kPath},  {"host", "/", 65536, kPort},
      {kOf1024, kOf1024, 80, kLong}};
  for (const auto& [host, path, port, why] : kRows) {
    const std::size_t before = CountOf(Messages(), "Indication not posted: " + why);
    Subscribe(host, path, port);
    EXPECT_EQ(Post("event"), std::vector<std::string>{""});
    EXPECT_EQ(CountOf(Messages(), "Indication not posted: " + why), before + 1) << host;
  }
  EXPECT_TRUE(Logged("Send size is 2060, so subscribing to a??X: y"));
  Subscribe("h\xF6st", "/", 0);  // port 0 is the scheme's
  EXPECT_EQ(Post("event").at(2), "WinHttpConnect(h\xC3\xB6st,443)");
  Subscribe(kOf1024, kOf1024);
  EXPECT_EQ(std::strlen(gActions->gIndicationSubscription.host), 1023U)
      << "a text ends at its field";
  EXPECT_EQ(std::strlen(gActions->gIndicationSubscription.path), 1023U);
}

}  // namespace
}  // namespace stewardry

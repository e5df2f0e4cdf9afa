// Indications on the gate's trace: what is asked of the HTTP layer and in which order, what each
// failure leaves, and records that no firmware should send. Whether a listener gets what it should
// is shown end to end.
#include "service/actions/indications.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "tests/service/mailbox_fixture.h"

namespace stewardry {
namespace {

const std::uint8_t* Bytes(const void* record) { return static_cast<const std::uint8_t*>(record); }

class Indications : public MailboxTest {
 protected:
  void SetUp() override {
    MailboxTest::SetUp();
    gIndicationSubscription = {};
    gIndicationSubscribed = 0;
  }
  static IndicationSubscription Record(const std::string& host, const std::string& path,
                                       std::uint32_t port = 8080, std::uint32_t secure = 0) {
    IndicationSubscription record{};
    host.copy(record.host, sizeof record.host);
    path.copy(record.path, sizeof record.path);
    record.port = port;
    record.secure = secure;
    return record;
  }
  static void Subscribe(const IndicationSubscription& record) {
    IndicationSubscribe(Bytes(&record), sizeof record);
  }
  static void Event(const std::string& text) {
    IndicationEvent(Bytes(text.data()), static_cast<std::uint32_t>(text.size()));
  }
  // The calls of the HTTP layer since the gate was armed; the request itself isn't made.
  static std::vector<std::string> HttpCalls() {
    std::vector<std::string> calls;
    for (const std::string& call : gate::Trace())
      if (call.starts_with("WinHttp")) calls.push_back(call);
    return calls;
  }
  static std::string Printed(const std::string& failing) {
    gate::Arm();
    gate::FailNext("WinHttpSendRequest", 12029);  // nothing leaves the test
    gate::FailNext(failing.c_str(), 12345);
    testing::internal::CaptureStdout();
    Event("event");
    return testing::internal::GetCapturedStdout();
  }
};

constexpr char kHeader[] =
    "Host: console:8080\r\nContent-Type: application/soap+xml;charset=UTF-8\r\nAccept: */*\r\n"
    "Content-Length: 5\r\n";

TEST_F(Indications, APostTakesOtherStepsOrLeavesHandlesBehind) {
  Subscribe(Record("console", "/events", 8080, 1));
  EXPECT_EQ(Printed("none"), "Error 12029 Request not sent.\n");
  const std::string opened = "WinHttpOpen(WinHTTP Example/1.0)",
                    timeouts = "WinHttpSetTimeouts(10000,10000,10000,10000)",
                    connected = "WinHttpConnect(console,8080)",
                    request = "WinHttpOpenRequest(POST,/events,0x800000)",
                    headers = std::string("WinHttpAddRequestHeaders(") + kHeader + ")",
                    option = "WinHttpSetOption(31,0x3100)", sent = "WinHttpSendRequest(5)",
                    closed = "WinHttpCloseHandle()";
  EXPECT_EQ(HttpCalls(), (std::vector<std::string>{opened, timeouts, connected, request, headers,
                                                   option, sent, closed, closed, closed}));
  struct Case {
    const char* call;
    const char* printed;
    std::size_t calls, closes;
  };
  for (const Case& each :
       {Case{"WinHttpOpen", "Error 12345 Session not established.\n", 1, 0},
        Case{"WinHttpSetTimeouts", "Error 12029 Request not sent.\n", 10, 3},
        Case{"WinHttpConnect", "Error 12345 Connection not attempted.\n", 4, 1},
        Case{"WinHttpOpenRequest", "Error 12345 Request not opened.\n", 6, 2},
        Case{"WinHttpAddRequestHeaders", "Error 12029 Request not sent.\n", 10, 3},
        Case{"WinHttpSetOption", "Error 12345 Options not set.\n", 9, 3}}) {
    EXPECT_EQ(Printed(each.call), each.printed);
    const auto calls = HttpCalls();
    EXPECT_EQ(calls.size(), each.calls) << each.call;
    EXPECT_EQ(std::count(calls.begin(), calls.end(), closed), each.closes) << each.call;
  }
  EXPECT_EQ(gIndicationSubscribed.load(), 1);  // a failed post leaves the subscription
}

TEST_F(Indications, ARecordOfAnyLengthIsReadBeyondItsEnd) {
  const IndicationSubscription record = Record("console", "/events", 1, 1);
  for (std::uint32_t length = 0; length <= sizeof record; ++length) {
    const std::vector<std::uint8_t> payload(Bytes(&record), Bytes(&record) + length);
    gIndicationSubscribed = 2;
    IndicationSubscribe(payload.data(), length);
    ASSERT_EQ(gIndicationSubscribed.load(), length > 1024 ? 1 : 0) << length;
  }
  EXPECT_TRUE(Logged("Send size is 1024, so unsubscribing"));
  EXPECT_TRUE(Logged("Send size is 1025, so subscribing to console"));
  EXPECT_EQ(gIndicationSubscription.port, 1u);
  std::vector<std::uint8_t> longer(Bytes(&record), Bytes(&record) + sizeof record);
  longer.resize(70'000, 0xFF);
  IndicationSubscribe(longer.data(), 70'000);
  EXPECT_EQ(std::memcmp(&gIndicationSubscription, &record, sizeof record), 0);
  // Without a path it is taken back, whatever the host says; the store stays.
  Subscribe(Record("another", ""));
  EXPECT_EQ(gIndicationSubscribed.load(), 0);
  EXPECT_STREQ(gIndicationSubscription.host, "console");
}

TEST_F(Indications, ATextWithoutAnEndOrWithASignRunsOn) {
  Subscribe(Record(std::string(1024, 'h'), std::string(1024, 'p')));
  EXPECT_EQ(std::strlen(gIndicationSubscription.host), 1023u);
  EXPECT_EQ(std::strlen(gIndicationSubscription.path), 1023u);
  Event("event");
  EXPECT_TRUE(Logged("Indication not posted: the host is too long for a header"));
  Subscribe(Record("evil\nINFO: forged", "/"));
  EXPECT_TRUE(Logged("Send size is 2060, so subscribing to evil?INFO: forged"));
}

TEST_F(Indications, APlaceThatIsNoneIsPostedTo) {
  struct Case {
    const char* host;
    const char* path;
    std::uint32_t port;
    const char* why;
  };
  constexpr char kHost[] = "the host is no name and no address", kPort[] = "the port is none",
                 kPath[] = "control characters in the path";
  for (const Case& each : {Case{"", "/", 80, kHost}, Case{"a\r\nX: y", "/", 80, kHost},
                           Case{"a b", "/", 80, kHost}, Case{"user@host", "/", 80, kHost},
                           Case{"host/x?", "/", 80, kHost}, Case{"h\xF6st", "/", 80, kHost},
                           Case{"host", "/a\nb", 80, kPath}, Case{"host", "/\x7F", 80, kPath},
                           Case{"host", "/a\tb", 80, kPath}, Case{"host", "/", 0, kPort},
                           Case{"host", "/", 65536, kPort}, Case{"host", "/", 0xFFFFFFFF, kPort}}) {
    gate::Arm();
    std::remove(platform::NativePath("C:\\ProgramData\\Corvane\\Stewardry\\tavrinLog.log").c_str());
    ServiceLog_Start("C:\\ProgramData\\Corvane\\Stewardry\\tavrinLog.log", 100 << 20);
    Subscribe(Record(each.host, each.path, each.port));
    Event("event");
    EXPECT_TRUE(Logged("Posting Indication Alert"));
    EXPECT_TRUE(Logged(std::string("Indication not posted: ") + each.why)) << each.host;
    EXPECT_EQ(HttpCalls(), std::vector<std::string>());
  }
}

TEST_F(Indications, AnEventIsCutOrOverrunsItsBuffer) {
  Event("early");
  EXPECT_TRUE(Logged("Not Posting Indication Alert"));
  Subscribe(Record("console", "/events"));
  struct Case {
    std::string text;
    std::size_t sent;  // 0: not at all
  };
  for (const Case& each : {Case{std::string(4095, 'x'), 4095}, Case{std::string(4096, 'x'), 0},
                           Case{std::string(131070, 'x'), 0}, Case{{'a', 'b', 0, 'c'}, 2}}) {
    gate::Arm();
    gate::FailNext("WinHttpSendRequest", 12029);
    testing::internal::CaptureStdout();
    Event(each.text);
    (void)testing::internal::GetCapturedStdout();
    const auto calls = HttpCalls();
    const std::string sent = "WinHttpSendRequest(" + std::to_string(each.sent) + ")";
    EXPECT_EQ(std::count(calls.begin(), calls.end(), sent), each.sent == 0 ? 0 : 1);
    EXPECT_EQ(calls.empty(), each.sent == 0);
  }
  EXPECT_TRUE(Logged("Indication not posted: the event is longer than 4095 bytes"));
}

TEST_F(Indications, AWideCopyOfNothingIsSomething) {
  EXPECT_EQ(ToWideString(nullptr), nullptr);
  EXPECT_EQ(std::u16string(ToWideString("").get()), u"");
  EXPECT_EQ(std::u16string(ToWideString("a\xE4").get()), u"a\xE4");
}

}  // namespace
}  // namespace stewardry

// The tool's reader of logs, with files as a service may leave them, and what it concludes.
#include <gmock/gmock.h>

#include <filesystem>
#include <fstream>

#include "platform/error.h"
#include "platform/service_manager.h"
#include "tools/archive/masker.h"
#include "tools/diagnosis/rules.h"
#include "tools/facts/run_summary.h"
#include "tools/facts/status.h"
#include "tools/logs/line_source.h"
#include "tools/logs/log_reader.h"
#include "tools/logs/log_time.h"
#include "tools/logs/sessions.h"

namespace stewardry::tools {
namespace {

using ::testing::ElementsAre;

std::string ServiceLine(int second, const std::string& text) {
  char stamp[64];
  std::snprintf(stamp, sizeof stamp, "INFO:  <2026/11/22 22:%02d:%02d>[7]-[ 9 M ] ", second / 60,
                second % 60);
  return stamp + text + " <thread=8 (0x8)>\r\n";
}

class Logs : public ::testing::Test {
 protected:
  Logs() { std::filesystem::create_directory(folder_); }
  ~Logs() override {
    reader_.reset();  // a folder with open files stays on Windows
    std::filesystem::remove_all(folder_);
  }
  std::string PathOf(const char* name) const { return folder_ + "/" + name; }
  void Append(const char* name, const std::string& bytes) const {
    std::ofstream(PathOf(name), std::ios::binary | std::ios::app) << bytes;
  }
  std::vector<std::string> Texts(std::int64_t since = 0) {
    std::vector<std::string> texts;
    LogWindow window;
    window.since = since;
    reader_->Read(window, [&](const LogLine& line) {
      texts.push_back(line.text);
      return true;
    });
    return texts;
  }

  const std::string folder_ = ::testing::TempDir() + "stewardry-" +
                              ::testing::UnitTest::GetInstance()->current_test_info()->name();
  std::unique_ptr<LogReader> reader_ = std::make_unique<LogReader>(folder_);
};

TEST(LogLine, EachFormatIsTakenApart) {
  const LogLine service = ParseLogLine(Log::kService, ServiceLine(5, "Remote port 0xdabc"));
  const LogLine wmi =
      ParseLogLine(Log::kWmi,
                   "[7]-[ 9 M ] WARN:  text $$<TAVRIN_WMI><Sun  Nov 22 22:00:05.608 "
                   "2026 UTC><thread=8 (0x8)>");
  const LogLine side = ParseLogLine(Log::kSide, "Sun Nov 22 22:00:05 2026: text\r");
  EXPECT_EQ(TimeText(service.time), "2026-11-22 22:00:05");
  EXPECT_EQ(wmi.time, service.time);
  EXPECT_EQ(side.time, service.time);
  EXPECT_EQ(service.process, 7U);
  EXPECT_EQ(service.thread, 8U);
  EXPECT_EQ(wmi.level, "WARN");
  EXPECT_EQ(wmi.text, "text");
  EXPECT_EQ(side.text, "text");
  EXPECT_EQ(WithPlainAddresses(service.text), "Remote port 48346");
  for (const char* bad : {"", "INFO:  <2026/13/22 22:00:05>[7]-[ 9 M ] x", "<", "\xFF\x01\xC3"}) {
    EXPECT_FALSE(ParseLogLine(Log::kService, bad).hasOwnTime) << bad;
  }
  EXPECT_EQ(ParseLogLine(Log::kWireless, std::string("a\0b\x01\xE4", 5)).text, "ab \xEF\xBF\xBD");
}

TEST_F(Logs, AreMergedByTimeAcrossTheBackup) {
  Append("tavrinLog.lo_", ServiceLine(1, "old"));
  Append("tavrinLog.log", ServiceLine(3, "new") + "cut");
  Append("tavrinKeyboardMouseLog.log", "Sun Nov 22 22:00:02 2026: side\r\n");
  EXPECT_THAT(Texts(), ElementsAre("old", "side", "new", "cut"));
}

TEST_F(Logs, AWindowAtTheEndIsFoundBehindTrashAndASetBackClock) {
  std::string many;
  for (int second = 0; second < 3000; ++second) many += ServiceLine(second, std::string(300, 'x'));
  Append("tavrinLog.log", many + std::string(1 << 20, '\0') + "\n" + std::string(1 << 20, 'y') +
                              "\n" + ServiceLine(1000, "set back") + ServiceLine(3599, "last"));
  EXPECT_THAT(Texts(LocalSeconds(2026, 11, 22, 22, 59, 59)), ElementsAre("last"));
}

TEST_F(Logs, ARotationLosesAndRepeatsNoFollowedLine) {
  Append("tavrinLog.log", ServiceLine(1, "one") + ServiceLine(2, "two"));
  EXPECT_THAT(Texts(), ElementsAre("one", "two"));
  Append("tavrinLog.log", ServiceLine(3, "three") + "INFO:  <2026/11/22 22:00:04>[7]-[ 9 M ] fo");
  std::vector<std::string> followed;
  const auto take = [&](const LogLine& line) {
    followed.push_back(line.text);
    return true;
  };
  EXPECT_TRUE(reader_->ReadNew(take));
  EXPECT_THAT(followed, ElementsAre("three"));
  Append("tavrinLog.log", "ur <thread=8 (0x8)>\r\n");
  std::filesystem::rename(PathOf("tavrinLog.log"), PathOf("tavrinLog.lo_"));
  Append("tavrinLog.log", ServiceLine(5, "five"));
  EXPECT_TRUE(reader_->ReadNew(take));
  EXPECT_TRUE(reader_->ReadNew(take));
  EXPECT_THAT(followed, ElementsAre("three", "four", "five"));
}

TEST(Patterns, StarsStandForAnyCharacters) {
  EXPECT_TRUE(FitsPattern("Cannot open device 5", "Cannot open device *"));
  EXPECT_TRUE(FitsPattern("a failed with error: 1167", "*failed with error: 1167"));
  EXPECT_TRUE(FitsPattern("answer of 12 bytes is too short", "answer of * bytes*short"));
  EXPECT_FALSE(FitsPattern("Socket is closed. GetLastError: 5", "Socket is closed"));
  EXPECT_FALSE(FitsPattern("x Cannot open device 5", "Cannot open device *"));
}

TEST(Masked, TheSameValueGetsTheSamePlaceholderInEachForm) {
  Masker masker;
  masker.AddHost("LabHost");
  masker.Keep("2.4.1.0");
  masker.Learn(
      "OS DomainName: ;OS Hostname: labhost;x\nsubscribing to alerts.lab:80 <thread=8>\n"
      "subscribing to 10.0.0.1\nC:\\Users\\Jo\\x C:\\Users\\Public\\x");
  EXPECT_EQ(masker.Mask("0x501a8c0 192.168.1.5:22 10.0.0.1 labhost 00-1A-2B-3C-4D-5E fe80::1"),
            "ip-1 ip-1:22 ip-2 host-1 mac-1 ip-3");
  EXPECT_EQ(masker.Mask("jo on alerts.lab"), "user-1 on host-2");
  const std::string plain =
      "1.0.0.533 2.4.1.0 255.255.255.0 22:25:42 127.0.0.1 labhosts 0x71c9 public";
  EXPECT_EQ(masker.Mask(plain), plain);
}

RunSummary SummaryOf(std::uint32_t process, const std::vector<LogLine>& lines) {
  RunSummarizer summarizer(process);
  for (const LogLine& line : lines) summarizer.Take(line);
  return summarizer.Summary();
}

LogLine LineOf(std::uint32_t process, std::int64_t time, const char* text) {
  return {Log::kService, time, true, "INFO", process, 8, text};
}

constexpr char kStart[] = "Quillon Stewardry Service 1.2 started on Windows version: 10...";

TEST(Run, IsSummarizedFromItsStartOrFromWhatIsLeftOfIt) {
  const std::vector<LogLine> lines = {
      LineOf(6, 100, "Bind to port 22 successful"),
      LineOf(7, 200, kStart),
      LineOf(7, 201, "Bind to port 664 successful"),
      LineOf(7, 202, kStart),
      LineOf(9, 203, kStart),
      LineOf(9, 204, "NetworkInfo 520"),
      LineOf(9, 205, "System is connected to LAN"),
      LineOf(9, 206, "NetworkInfo 520"),
      LineOf(7, 207, "Read prov status  is 2"),
      LineOf(7, 208, "NetworkInfo 520"),
  };
  const RunSummary started = SummaryOf(7, lines), left = SummaryOf(6, lines);
  EXPECT_EQ(started.started, 200);
  EXPECT_EQ(started.version, "1.2");
  EXPECT_EQ(started.dashBinds, 1);
  EXPECT_EQ(started.provisioning, 2);
  EXPECT_FALSE(started.lastReport);  // of a host without a network
  EXPECT_EQ(SummaryOf(9, lines).lastReport->time, 206);
  EXPECT_EQ(left.process, 6U);
  EXPECT_EQ(left.started, 0);
  EXPECT_EQ(left.kvmBinds, 1);
  EXPECT_EQ(SummaryOf(8, lines).process, 0U);
  const RunSummary latest = SummaryOf(0, lines);
  EXPECT_EQ(latest.process, 7U);
  EXPECT_EQ(latest.started, 0);
  EXPECT_EQ(SummaryOf(7, {lines[1], lines[2], LineOf(7, 9'000, kStart)}).dashBinds, 0);
}

// A host on which all is well.
Status Healthy() {
  Status status;
  status.facts.service.value = platform::ServiceView{4, 7, 0, "x"};
  status.facts.processes.value.emplace();
  status.facts.deviceInterfaces.value = 1;
  OwnedSocket dash{};
  dash.isListening = true;
  dash.localPort = kDashPort;
  dash.processId = 7;
  status.facts.sockets.value = {dash};
  status.run.process = 7;
  status.run.provisioning = kProvisioned;
  return status;
}

TEST(Verdict, RestsOnWhatWasSeen) {
  struct Case {
    Verdict verdict;
    const char* words;
    void (*change)(Status* status);
  };
  const Case cases[] = {
      {Verdict::kHealthy, "healthy", [](Status*) {}},
      {Verdict::kHealthy, "healthy",
       [](Status* s) {
         s->tray.value = TrayAnswers{true, true, "", ""};
         s->run.provisioning.reset();
       }},
      {Verdict::kDown, "not installed",
       [](Status* s) {
         s->facts.service = {{}, "", "", platform::kErrorServiceDoesNotExist};
       }},
      {Verdict::kCannotTell, "cannot be seen: denied",
       [](Status* s) {
         s->facts.service = {{}, "", "denied", platform::kErrorAccessDenied};
       }},
      {Verdict::kCannotTell, "process cannot be seen",
       [](Status* s) {
         s->facts.service = {{}, "", "", platform::kErrorServiceDoesNotExist};
         s->facts.processes = {{}, "", "denied", platform::kErrorAccessDenied};
       }},
      {Verdict::kDown, "not running", [](Status* s) { s->facts.service.value->processId = 0; }},
      {Verdict::kDown, "Another program",
       [](Status* s) { s->facts.sockets.value->front().processId = 8; }},
      {Verdict::kHealthy, "healthy",  // the owner of a port cannot always be seen
       [](Status* s) { s->facts.sockets.value->front().processId = 0; }},
      {Verdict::kCannotTell, "ports", [](Status* s) { s->facts.sockets.value.reset(); }},
      {Verdict::kDown, "device is missing", [](Status* s) { s->facts.deviceInterfaces.value = 0; }},
      {Verdict::kDegraded, "receives nothing", [](Status* s) { s->run.readerEnd = Seen{}; }},
      {Verdict::kDegraded, "port 664 is closed",
       [](Status* s) { s->facts.sockets.value->clear(); }},
      {Verdict::kDegraded, "not provisioned", [](Status* s) { s->run.provisioning = 1; }},
      {Verdict::kDegraded, "rebinds", [](Status* s) { s->run.kvmBinds = kMostBinds; }},
      {Verdict::kCannotTell, "logs cannot be read",
       [](Status* s) {
         s->unread.push_back({"x", "denied", 5});
       }},
      {Verdict::kCannotTell, "no line of it", [](Status* s) { s->run = {}; }},
      {Verdict::kCannotTell, "no line left", [](Status* s) { s->run.provisioning.reset(); }},
  };
  for (const Case& c : cases) {
    Status status = Healthy();
    c.change(&status);
    const Judgement judgement = Judge(status);
    EXPECT_EQ(judgement.verdict, c.verdict) << c.words;
    EXPECT_THAT(judgement.sentence, ::testing::HasSubstr(c.words));
  }
}

}  // namespace
}  // namespace stewardry::tools

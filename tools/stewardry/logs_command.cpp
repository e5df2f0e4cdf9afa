// stewardry logs: the four logs as one stream.
#include <CLI/CLI.hpp>
#include <cstdio>
#include <memory>
#include <nlohmann/json.hpp>
#include <string>

#include "platform/terminal.h"
#include "platform/thread.h"
#include "tools/logs/log_reader.h"
#include "tools/logs/log_time.h"
#include "tools/logs/sessions.h"
#include "tools/stewardry/commands.h"

namespace stewardry::tools {

namespace {

constexpr std::uint32_t kPollMs = 250;
constexpr const char* kLogNames[] = {"service", "wmi", "side", "wireless"};
constexpr const char* kLogColors[] = {"\x1b[36m", "\x1b[35m", "\x1b[34m", "\x1b[32m"};
constexpr const char* kPlain = "\x1b[0m";
constexpr const char* kLevels[] = {"INFO", "WARN", "ERROR"};
constexpr const char* kLevelColors[] = {"", "\x1b[33m", "\x1b[31m"};

struct Options {
  std::string since = "1d", until, level = "INFO", color = "auto";
  bool follow = false, json = false, listSessions = false;
  int session = 0;  // 0: all lines
};

int LevelOf(const LogLine& line) {
  for (int i = 0; i < 3; ++i) {
    if (line.level == kLevels[i]) return i;
  }
  return 0;  // the side logs have no levels
}

// Writes lines for people, or as JSON, one object a line.
class Printer {
 public:
  explicit Printer(const Options& options) : options_(options) {
    const bool isTerminal = platform::PrepareTerminal();
    const char* const noColor = std::getenv("NO_COLOR");
    const bool mayColor = noColor == nullptr || *noColor == 0;
    hasColors_ = options.color == "always" || (options.color == "auto" && isTerminal && mayColor);
    columns_ = static_cast<std::size_t>(platform::TerminalColumns());
    for (int i = 0; i < 3; ++i) {
      if (options.level == kLevels[i]) leastLevel_ = i;
    }
  }

  // Returns false when nobody reads the output any more.
  bool Print(const LogLine& line) {
    if (LevelOf(line) < leastLevel_) return true;
    if (options_.json) {
      PrintJson(line);
    } else {
      PrintText(line);
    }
    // What follows new lines shows each at once.
    return (options_.follow ? std::fflush(stdout) : std::ferror(stdout)) == 0;
  }

 private:
  void PrintJson(const LogLine& line) {
    std::string time = TimeText(line.time);
    if (time.size() > 10) time[10] = 'T';
    const nlohmann::ordered_json object = {
        {"time", time},          {"log", kLogNames[static_cast<int>(line.log)]},
        {"level", line.level},   {"process", line.process},
        {"thread", line.thread}, {"text", WithPlainAddresses(line.text)}};
    std::printf("%s\n", object.dump().c_str());
  }

  void PrintText(const LogLine& line) {
    const int log = static_cast<int>(line.log);
    const std::string time = TimeText(line.time);
    const char* const level = kLevelColors[LevelOf(line)];
    char head[64];
    std::snprintf(head, sizeof head, "%s %-8s ", line.time > 0 ? time.c_str() : "no time",
                  kLogNames[log]);
    std::string text = WithPlainAddresses(line.text);
    const std::size_t indent = std::char_traits<char>::length(head);
    std::printf("%s%s%s%s", hasColors_ ? kLogColors[log] : "", head, hasColors_ ? kPlain : "",
                hasColors_ ? level : "");
    // A terminal gets whole words; a pipe gets one line each.
    while (columns_ > indent + 20 && text.size() > columns_ - indent) {
      std::size_t cut = text.rfind(' ', columns_ - indent - 1);
      if (cut == std::string::npos || cut == 0) break;
      std::printf("%s\n%*s", text.substr(0, cut).c_str(), static_cast<int>(indent), "");
      text.erase(0, cut + 1);
    }
    std::printf("%s%s\n", text.c_str(), hasColors_ ? kPlain : "");
  }

  const Options& options_;
  bool hasColors_ = false;
  std::size_t columns_ = 0;
  int leastLevel_ = 0;
};

std::string LengthText(const Session& session) {
  if (session.ended == 0) return "open";
  return std::to_string(session.ended - session.started) + " s";
}

void PrintSessions(const std::vector<Session>& sessions) {
  std::printf("%-4s %-4s %-19s  %-8s %-21s %10s %10s\n", "N", "kind", "started", "length", "peer",
              "received", "sent");
  for (std::size_t i = sessions.size(); i-- > 0;) {
    const Session& session = sessions[i];
    const std::string peer = session.address + ":" + std::to_string(session.port);
    std::printf("%-4zu %-4s %-19s  %-8s %-21s %10llu %10llu\n", sessions.size() - i,
                session.isKvm ? "KVM" : "DASH", TimeText(session.started).c_str(),
                LengthText(session).c_str(), peer.c_str(),
                static_cast<unsigned long long>(session.received),
                static_cast<unsigned long long>(session.sent));
  }
  if (sessions.empty()) std::printf("no session since then\n");
}

std::vector<Session> FindSessions(LogReader* reader, LogWindow window) {
  for (int i = 0; i < kLogCount; ++i) window.logs[i] = i == static_cast<int>(Log::kService);
  SessionTracker tracker;
  reader->Read(window, [&](const LogLine& line) {
    tracker.Take(line);
    return true;
  });
  return tracker.Sessions();
}

// Prints the lines of the session that is `newest` from the end; 1 is the last one.
bool PrintSession(LogReader* reader, const LogWindow& window, int newest, Printer* printer) {
  const std::vector<Session> sessions = FindSessions(reader, window);
  const int wanted = static_cast<int>(sessions.size()) - newest;
  if (wanted < 0) {
    std::fprintf(stderr,
                 "There are %zu sessions since then; `stewardry logs --sessions` lists them.\n",
                 sessions.size());
    return false;
  }
  SessionTracker tracker;
  reader->Read(window, [&](const LogLine& line) {
    return tracker.Take(line) != wanted || printer->Print(line);
  });
  return true;
}

std::int64_t TimeOf(const std::string& text, const char* option) {
  const std::optional<std::int64_t> time = ParseWhen(text, LocalSecondsNow());
  if (!time)
    throw CLI::ValidationError(option, "\"" + text +
                                           "\" is no time: use 15m, 2h, 3d, today, 2026-11-22 or "
                                           "\"2026-11-22 22:25\"");
  return *time;
}

int Run(const Options& options) {
  LogWindow window;
  window.since = TimeOf(options.since, "--since");
  if (!options.until.empty()) window.until = TimeOf(options.until, "--until");
  LogReader reader(LogFolder());
  Printer printer(options);
  bool isDone = true;
  if (options.listSessions) {
    PrintSessions(FindSessions(&reader, window));
  } else if (options.session > 0) {
    isDone = PrintSession(&reader, window, options.session, &printer);
  } else {
    const auto print = [&](const LogLine& line) { return printer.Print(line); };
    reader.Read(window, print);
    while (options.follow && reader.ReadNew(print)) platform::Sleep(kPollMs);
  }
  for (const UnreadLog& unread : reader.Unread())
    std::fprintf(stderr, "Not read: %s: %s\n", unread.path.c_str(), unread.reason.c_str());
  if (!reader.Unread().empty()) return kCannotTell;
  return isDone ? kHealthy : kFailed;
}

}  // namespace

void AddLogsCommand(CLI::App& app, int* exitCode) {
  const auto options = std::make_shared<Options>();
  CLI::App* const command = app.add_subcommand(
      "logs", "Prints the service's four logs as one stream, in the order of time.");
  command
      ->add_option("--since", options->since,
                   "Lines from then on: 15m, 2h, 3d, today, 2026-11-22, \"2026-11-22 22:25\"")
      ->capture_default_str();
  command->add_option("--until", options->until, "Lines before then");
  command->add_option("--level", options->level, "The least level of a line")
      ->check(CLI::IsMember({"INFO", "WARN", "ERROR"}))
      ->capture_default_str();
  CLI::Option* const follow =
      command->add_flag("-f,--follow", options->follow, "Prints new lines as they are written");
  command->add_flag("--sessions", options->listSessions, "Lists the DASH and KVM sessions")
      ->excludes(follow);
  command->add_option("--session", options->session, "The lines of one session; 1 is the newest")
      ->check(CLI::PositiveNumber)
      ->excludes(follow);
  command->add_flag("--json", options->json, "One JSON object a line");
  command->add_option("--color", options->color, "Colours the lines")
      ->check(CLI::IsMember({"auto", "always", "never"}))
      ->capture_default_str();
  command->callback([options, exitCode] { *exitCode = Run(*options); });
}

}  // namespace stewardry::tools

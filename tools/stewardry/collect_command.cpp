// stewardry collect: one archive with everything that support needs.
#include <CLI/CLI.hpp>
#include <cstdio>
#include <memory>
#include <nlohmann/json.hpp>

#include "platform/clock.h"
#include "platform/desktop.h"
#include "platform/error.h"
#include "platform/file.h"
#include "platform/network.h"
#include "platform/shared_file.h"
#include "platform/socket.h"
#include "platform/survey.h"
#include "service/diagnostics/deaf_entry.h"
#include "service/diagnostics/log_file.h"
#include "tools/archive/masker.h"
#include "tools/archive/zip_writer.h"
#include "tools/diagnosis/diagnosis.h"
#include "tools/logs/line_source.h"
#include "tools/logs/log_time.h"
#include "tools/logs/sessions.h"
#include "tools/stewardry/commands.h"

namespace stewardry::tools {

namespace {

constexpr std::int64_t kMebibyte = 1 << 20;
constexpr std::int64_t kMostMebibytes =
    400;  // of each of the eight logs: see ZipWriter::kMostBytes

struct Options {
  std::string file;
  bool mask = false;
  std::int64_t most = 64;  // MiB of each log
};

// The bytes of a log of any size, in parts. With `wholeLines` a part ends with a line, and a line
// that is longer than a part is left out: a value could be cut in two there.
class LogParts {
 public:
  static constexpr std::int64_t kPart = 1 << 18;

  LogParts(const LogFileView& view, std::int64_t most, bool wholeLines)
      : file_(platform::OpenSharedFile(view.path.c_str())), end_(view.size), whole_(wholeLines) {
    if (!file_) {
      notes_.push_back(ReasonOf(platform::LastError()));
      end_ = 0;
    }
    if (end_ <= most) return;
    at_ = NextLineStart(file_, end_ - most, end_);
    notes_.push_back("its first " + std::to_string(at_) + " bytes were left out");
  }

  // Stores the next part. Returns false at the end, or where the file cannot be read.
  bool Next(std::string* part) {
    while (Fill()) {
      if (skips_) EndLongLine();
      const bool isRest = at_ >= end_ || !whole_;
      const std::size_t used = isRest ? rest_.size() : rest_.rfind('\n') + 1;  // 0 without one
      if (used == 0 && rest_.size() > kPart) BeginLongLine();
      if (used == 0) continue;
      part->assign(rest_, 0, used);
      rest_.erase(0, used);
      return true;
    }
    return false;
  }

  // What was left out, and why.
  const std::vector<std::string>& Notes() const { return notes_; }

 private:
  // Reads until there is something to take. Returns false if nothing is left.
  bool Fill() {
    std::string bytes(kPart, '\0');
    std::size_t read = 0;
    if (at_ < end_) {
      const auto wanted = static_cast<std::size_t>(std::min<std::int64_t>(kPart, end_ - at_));
      if (!platform::ReadAt(file_, at_, bytes.data(), wanted, &read))
        notes_.push_back(ReasonOf(platform::LastError()));
      at_ = read == 0 ? end_ : at_ + static_cast<std::int64_t>(read);
    }
    rest_.append(bytes, 0, read);
    return !rest_.empty();
  }

  void BeginLongLine() {
    notes_.push_back("a line of more than " + std::to_string(kPart) + " bytes was left out");
    skips_ = true;
    rest_.clear();
  }

  void EndLongLine() {
    const std::size_t end = rest_.find('\n');
    skips_ = end == std::string::npos;
    rest_.erase(0, skips_ ? rest_.size() : end + 1);
  }

  platform::SharedFile file_;
  std::int64_t at_ = 0, end_;
  bool whole_, skips_ = false;  // within a long line
  std::string rest_;            // read, and not taken yet
  std::vector<std::string> notes_;
};

// Puts texts and logs into the archive, masked if that was asked for.
class Collector {
 public:
  Collector(const Options& options, const Status& status, ZipWriter* archive)
      : options_(options), archive_(archive) {
    if (options.mask) LearnNames(status);
  }

  bool AddText(const char* name, const std::string& text) {
    return archive_->Add(name, options_.mask ? masker_.Mask(text) : text);
  }

  bool AddLog(const LogFileView& view) {
    const std::string name = view.path.substr(view.path.rfind('\\') + 1);
    LogParts parts(view, options_.most * kMebibyte, options_.mask);
    if (!archive_->Begin("logs/" + name)) return false;
    std::string part;
    while (parts.Next(&part)) {
      if (!archive_->Write(options_.mask ? masker_.Mask(part) : part)) return false;
    }
    for (const std::string& note : parts.Notes()) Note(std::string(name).append(": ").append(note));
    return archive_->End();
  }

  bool AddNotes() {
    std::string text = "Collected by stewardry at " + TimeText(LocalSecondsNow()) + ".\n";
    text += options_.mask ? "Addresses and names are replaced: ip-1, mac-1, host-1, user-1.\n"
                          : "Addresses and names are as they are.\n";
    for (const std::string& note : notes_) text += note + "\n";
    return AddText("README.txt", text);
  }

  // Returns true: what cannot be read does not end the collection.
  bool Note(const std::string& note) {
    notes_.push_back(note);
    return true;
  }

 private:
  // A name is masked wherever it stands, so all logs are searched before the first is written.
  void LearnNames(const Status& status) {
    masker_.Keep(status.run.firmwareVersion);
    char text[256] = "";
    if (platform::gethostname(text, sizeof text - 1) == 0) masker_.AddHost(text);
    std::uint32_t size = sizeof text;
    if (platform::GetComputerDnsDomain(text, &size)) masker_.AddHost(text);
    size = sizeof text;
    if (platform::GetUserNameA(text, &size)) masker_.AddUser(text);
    if (status.facts.service.value) masker_.Learn(status.facts.service.value->binaryPath);
    for (const LogFileView& view :
         status.facts.logFiles.value.value_or(std::vector<LogFileView>())) {
      LogParts parts(view, options_.most * kMebibyte, true);
      for (std::string part; parts.Next(&part);) masker_.Learn(part);
    }
  }

  const Options& options_;
  ZipWriter* archive_;
  Masker masker_;
  std::vector<std::string> notes_;
};

std::string RegistrationText(Collector* collector) {
  std::vector<platform::NamedText> values;
  if (!platform::ViewServiceRegistration(kServiceName, &values))
    collector->Note("registration: " + ReasonOf(platform::LastError()));
  std::string text;
  for (const platform::NamedText& value : values) text += value.name + " = " + value.text + "\n";
  return text;
}

// What the collection was made with and on, and the sockets as the table of the system has them.
std::string HostText(const HostFacts& facts) {
  char system[256] = "";
  if (!ReadVerLine(system, sizeof system)) std::snprintf(system, sizeof system, "not seen");
  std::string text = "tool " STEWARDRY_VERSION "\nsystem " + std::string(system) + "\n";
  if (!facts.sockets.value) return text + "sockets not seen: " + facts.sockets.why + "\n";
  for (const OwnedSocket& socket : *facts.sockets.value) {
    text += std::string(socket.isListening ? "listening " : "connected ") +
            DottedText(socket.localAddress) + ":" + std::to_string(socket.localPort) + " " +
            DottedText(socket.remoteAddress) + ":" + std::to_string(socket.remotePort) +
            " process " + std::to_string(socket.processId) + " " + socket.processName + "\n";
  }
  return text;
}

std::string EventText(const HostFacts& facts) {
  if (!facts.events.value) return "not seen: " + facts.events.why + "\n";
  std::string text;
  for (const platform::EventView& event : *facts.events.value) {
    char head[64];
    std::snprintf(head, sizeof head, "%s type %u id %u",
                  TimeText(event.time != 0 ? event.time + facts.localOffset : 0).c_str(),
                  event.type, event.id);
    text += head;
    for (const std::string& part : event.strings) text += " | " + part;
    text += '\n';
  }
  return text;
}

bool CollectAll(const Options& options, ZipWriter* archive) {
  const Diagnosis diagnosis = Diagnose();
  const Status status = GatherStatus(true);
  Collector collector(options, status, archive);
  bool ok = collector.AddText("status.txt", ToText(status)) &&
            collector.AddText("status.json", ToJson(status).dump(2)) &&
            collector.AddText("diagnosis.txt", ToText(diagnosis)) &&
            collector.AddText("diagnosis.json", ToJson(diagnosis).dump(2)) &&
            collector.AddText("host.txt", HostText(status.facts)) &&
            collector.AddText("registration.txt", RegistrationText(&collector)) &&
            collector.AddText("events.txt", EventText(status.facts));
  if (!status.facts.logFiles.value) collector.Note("logs: " + status.facts.logFiles.why);
  for (const LogFileView& view : status.facts.logFiles.value.value_or(std::vector<LogFileView>()))
    ok = ok && collector.AddLog(view);
  return ok && collector.AddNotes() && archive->Finish();
}

int Run(const Options& options) {
  platform::AppendFile file = platform::CreateNewFile(options.file.c_str());
  if (!file) {
    std::fprintf(stderr, "%s was not created: %s\n", options.file.c_str(),
                 ReasonOf(platform::LastError()).c_str());
    return kFailed;
  }
  bool isDone;
  {
    ZipWriter archive(std::move(file), platform::GetLocalTime());
    isDone = CollectAll(options, &archive);
  }
  if (isDone) {
    std::printf("%s was written. Its README.txt says what is missing.\n", options.file.c_str());
    return kHealthy;
  }
  std::fprintf(stderr, "%s could not be written completely and was removed: %s\n",
               options.file.c_str(), ReasonOf(platform::LastError()).c_str());
  (void)platform::RemoveFile(options.file.c_str());  // the part that is left harms nothing
  return kFailed;
}

}  // namespace

void AddCollectCommand(CLI::App& app, int* exitCode) {
  const auto options = std::make_shared<Options>();
  CLI::App* const command = app.add_subcommand(
      "collect",
      "Writes logs, status, diagnosis, registration and event entries to a ZIP archive.");
  command->add_option("file", options->file, "The archive; it must not exist")->required();
  command->add_flag("--mask", options->mask, "Replaces addresses and names, the same by the same");
  command->add_option("--most", options->most, "MiB of each log, its newest part")
      ->check(CLI::Range(std::int64_t{1}, kMostMebibytes))
      ->capture_default_str();
  command->callback([options, exitCode] { *exitCode = Run(*options); });
}

}  // namespace stewardry::tools

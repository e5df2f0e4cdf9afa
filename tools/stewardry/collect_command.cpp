// stewardry collect: one archive with everything that support needs.
#include <CLI/CLI.hpp>
#include <cstdio>
#include <memory>
#include <nlohmann/json.hpp>

#include "platform/clock.h"
#include "platform/desktop.h"
#include "platform/error.h"
#include "platform/file.h"
#include "platform/shared_file.h"
#include "platform/socket.h"
#include "platform/survey.h"
#include "service/diagnostics/deaf_entry.h"
#include "tools/archive/masker.h"
#include "tools/archive/zip_writer.h"
#include "tools/diagnosis/diagnosis.h"
#include "tools/logs/line_source.h"
#include "tools/logs/log_time.h"
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

// Puts texts and logs into the archive, masked if that was asked for.
class Collector {
 public:
  Collector(const Options& options, const Status& status, ZipWriter* archive)
      : options_(options), archive_(archive) {
    masker_.Keep(status.run.firmwareVersion);
    char host[256] = "";
    if (platform::gethostname(host, sizeof host - 1) == 0) masker_.AddHost(host);
    char user[256] = "";
    std::uint32_t size = sizeof user;
    if (platform::GetUserNameA(user, &size)) masker_.AddUser(user);
  }

  bool AddText(const char* name, const std::string& text) {
    return archive_->Add(name, options_.mask ? masker_.Mask(text) : text);
  }

  // A log of any size goes through in parts of whole lines. What a masked log has in a line that is
  // longer than a part may be cut in the middle of a value, so such a line is left out.
  bool AddLog(const LogFileView& view) {
    const std::string name = view.path.substr(view.path.rfind('\\') + 1);
    const platform::SharedFile file = platform::OpenSharedFile(view.path.c_str());
    if (!file) return Note(name + ": " + ReasonOf(platform::LastError()));
    const std::int64_t most = options_.most * kMebibyte;
    std::int64_t at =
        view.size > most ? NextLineStart(file, view.size - most, view.size) : std::int64_t{0};
    if (at > 0) Note(name + ": its first " + std::to_string(at) + " bytes were left out");
    if (!archive_->Begin("logs/" + name)) return false;
    std::string part, rest;
    while (at < view.size) {
      part.resize(kPart);
      std::size_t read = 0;
      const auto wanted = static_cast<std::size_t>(std::min<std::int64_t>(kPart, view.size - at));
      if (!platform::ReadAt(file, at, part.data(), wanted, &read))
        Note(name + ": " + ReasonOf(platform::LastError()));
      if (read == 0) break;
      at += static_cast<std::int64_t>(read);
      rest.append(part, 0, read);
      const std::size_t end = rest.rfind('\n') + 1;  // 0 without one
      if (end == 0 && rest.size() > kPart) {
        Note(name + ": a line of more than " + std::to_string(kPart) + " bytes was left out");
        rest.clear();
      }
      if (!WritePart(rest.substr(0, end))) return false;
      rest.erase(0, end);
    }
    return WritePart(rest) && archive_->End();
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
  static constexpr std::int64_t kPart = 1 << 18;

  bool WritePart(const std::string& text) {
    return archive_->Write(options_.mask ? masker_.Mask(text) : text);
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

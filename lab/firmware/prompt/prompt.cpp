#include "lab/firmware/prompt/prompt.h"

#include <arpa/inet.h>

#include <cstring>
#include <fstream>
#include <sstream>

#include "lab/firmware/core/frames.h"
#include "lab/firmware/core/text.h"

namespace orrin {
namespace {

constexpr std::size_t kMaxScript = std::size_t{16} << 20;
// A frame of the greatest size in hexadecimal with blanks, and the word before it.
constexpr std::size_t kMaxLine = 3 * lablink::kMaxFrame + 64;
constexpr std::size_t kMaxQueue = 1024;
constexpr std::chrono::seconds kWaitBound{30};
constexpr std::uint64_t kMaxSleep = 24ULL * 60 * 60 * 1000;
constexpr std::size_t kMaxVersion = sizeof(VersionRecord::version) - 1;

std::optional<bool> OnOrOff(std::string_view word) {
  if (word == "on") return true;
  if (word == "off") return false;
  return std::nullopt;
}

struct PowerWord {
  std::string_view word;
  std::uint8_t code;
};

constexpr PowerWord kPowerWords[] = {{"reboot", kReboot},
                                     {"shutdown", kShutdown},
                                     {"hibernate", kHibernate},
                                     {"sleep", kSleep},
                                     {"reboot-nondash", kRebootNondash}};

// An operation by name; "all" gives null in `operation`. False: there is no such operation.
bool FindTarget(std::string_view name, const Operation** operation) {
  *operation = FindOperation(name);
  return *operation || SameIgnoringCase(name, "all");
}

// Size of a region; 0 when there is no such region.
std::uint32_t RegionSize(std::uint64_t region) {
  if (region == lablink::kKeyboardMouseRegion) return lablink::kKeyboardMouseRegionSize;
  if (region == lablink::kLogRegion) return lablink::kLogRegionSize;
  return 0;
}

struct RegionPlace {
  std::uint64_t region;
  std::uint32_t offset;
  std::uint32_t room;  // bytes from the offset to the region's end
};

// "REGION OFFSET" off the front of the arguments.
std::optional<RegionPlace> TakePlace(std::string_view* arguments) {
  const auto region = Number(TakeWord(arguments), lablink::kLogRegion);
  if (!region) return std::nullopt;
  const std::uint32_t size = RegionSize(*region);
  const auto offset = Number(TakeWord(arguments), size);
  if (!offset) return std::nullopt;
  const auto place = static_cast<std::uint32_t>(*offset);
  return RegionPlace{*region, place, size - place};
}

// False when the text and its zero don't fit.
template <std::size_t N>
bool FillField(char (&field)[N], std::string_view text) {
  if (text.size() >= N) return false;
  std::memcpy(field, text.data(), text.size());
  return true;
}

std::optional<std::uint32_t> SecureFlag(std::string_view word) {
  if (word.empty() || word == "http") return 0;
  if (word == "https" || word == "secure") return 1;
  return std::nullopt;
}

}  // namespace

const Prompt::Command Prompt::kCommands[] = {
    {"help", "", "this list", &Prompt::Help},
    {"provision", "on|off", "whether DASH provisioning is complete", &Prompt::Provision},
    {"version", "TEXT", "the firmware's version text, at most 63 bytes", &Prompt::Version},
    {"kvmstatus", "N", "KVMStatus of GetTavrinVersion", &Prompt::KvmStatus},
    {"status", "N", "the byte of GetOrrinStatus", &Prompt::Status},
    {"silence", "[NAME] on|off", "hold requests unanswered; off answers them", &Prompt::Silence},
    {"fail", "NAME|all CODE [COUNT]", "requests end with a Windows error; 0 takes it back",
     &Prompt::Fail},
    {"failread", "CODE", "the oldest read ends with a Windows error", &Prompt::FailRead},
    {"power", "reboot|shutdown|hibernate|sleep|reboot-nondash", "a power command", &Prompt::Power},
    {"dash", "TEXT", "text for the DASH peer", &Prompt::Dash},
    {"frame", "HEX", "a raw frame: payload, code, last byte", &Prompt::Frame},
    {"unknown", "CODE", "a command of any code without payload", &Prompt::Unknown},
    {"subscribe", "HOST PORT PATH [http|https]", "a subscription to indications",
     &Prompt::Subscribe},
    {"unsubscribe", "", "takes the subscription back", &Prompt::Unsubscribe},
    {"indication", "TEXT", "an indication event", &Prompt::Indication},
    {"upgrade", "TEXT", "a software upgrade text", &Prompt::Upgrade},
    {"kvm", "COMMAND ...", "the console behind port 22", &Prompt::Kvm},
    {"trust", "IP PORT", "kvm trust", &Prompt::Trust},
    {"close", "", "kvm close", &Prompt::CloseKvm},
    {"resume", "", "resume from S0i3", &Prompt::Resume},
    {"drop", "", "closes the link: the device goes away", &Prompt::Drop},
    {"inventory", "", "what the host has reported, as JSON", &Prompt::ShowInventory},
    {"poke", "REGION OFFSET HEX", "writes shared memory; region 0 keyboard and mouse, 1 log",
     &Prompt::Poke},
    {"peek", "REGION OFFSET COUNT", "reads shared memory", &Prompt::Peek},
    {"sleep", "MS", "holds the next commands", &Prompt::Sleep},
    {"wait", "TEXT",
     "holds the next commands until an event line holds TEXT, at most 30 s; looks at"
     " the lines since the one that the last wait found",
     &Prompt::Wait},
    {"quit", "", "ends the simulator", &Prompt::Quit},
};

Prompt::Prompt(Firmware& firmware, Trace& trace) : firmware_(firmware), trace_(trace) {}

bool Prompt::LoadScript(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  std::ostringstream content;
  if (!file || !(content << file.rdbuf() || file.eof())) return false;
  const std::string text = content.str();
  if (text.size() > kMaxScript) return false;
  Typed(text);
  EndTyped();
  return true;
}

void Prompt::Typed(std::string_view bytes) {
  while (!bytes.empty()) {
    const std::size_t end = std::min(bytes.find('\n'), bytes.size());
    if (torn_.size() + end > kMaxLine) tooLong_ = true;
    if (!tooLong_) torn_.append(bytes.substr(0, end));
    const bool whole = end < bytes.size();
    bytes.remove_prefix(whole ? end + 1 : end);
    if (whole) EndTyped();
  }
}

void Prompt::EndTyped() {
  if (tooLong_) {
    trace_.Note("a command line was too long and is passed over");
  } else if (!torn_.empty()) {
    lines_.push_back(torn_);
  }
  torn_.clear();
  tooLong_ = false;
}

bool Prompt::HasRoom() const { return lines_.size() < kMaxQueue; }

void Prompt::Run() {
  while (!quits_ && !drops_ && !IsHeld() && !lines_.empty()) {
    const std::string line = std::move(lines_.front());
    lines_.pop_front();
    RunLine(line);
  }
}

bool Prompt::TakeDrop() { return std::exchange(drops_, false); }

bool Prompt::IsHeld() {
  if (!heldUntil_) return false;
  const bool found = !awaited_.empty() && trace_.TakeSeen(awaited_);
  if (!found && Clock::now() < *heldUntil_) return true;
  if (!found && !awaited_.empty()) trace_.Note("gave up waiting for \"" + awaited_ + "\"");
  heldUntil_.reset();
  awaited_.clear();
  return false;
}

int Prompt::MillisecondsLeft() const {
  if (drops_) return 0;
  if (!heldUntil_) return lines_.empty() ? -1 : 0;
  const auto left = std::chrono::ceil<std::chrono::milliseconds>(*heldUntil_ - Clock::now());
  return left.count() > 0 ? static_cast<int>(left.count()) : 0;
}

void Prompt::RunLine(std::string_view line) {
  std::string_view arguments = line;
  const std::string_view word = TakeWord(&arguments);
  if (word.empty() || word.starts_with('#')) return;
  const Command* command = Find(kCommands, word);
  if (!command) {
    return trace_.Note("unknown command \"" + Printable(word, 80) + "\"; help lists them");
  }
  if ((this->*command->run)(arguments)) return;
  trace_.Note("wrong arguments; usage: " + std::string(command->word) + " " +
              std::string(command->usage));
}

const Prompt::Command* Prompt::Find(std::span<const Command> commands, std::string_view word) {
  for (const Command& command : commands) {
    if (command.word == word) return &command;
  }
  return nullptr;
}

// Commands to the host say for themselves what became of them, so their results don't matter here:
// false would blame the arguments.
bool Prompt::SendEmpty(std::uint8_t code, std::string_view arguments) {
  if (!arguments.empty()) return false;
  (void)firmware_.SendCommandFrame(code, {});
  return true;
}

bool Prompt::Help(std::string_view) {
  ShowHelp("", kCommands);
  ShowKvmHelp();
  return true;
}

void Prompt::ShowHelp(const char* prefix, std::span<const Command> commands) {
  for (const Command& command : commands) {
    const std::string call = prefix + std::string(command.word) + " " + std::string(command.usage);
    trace_.Plain(Format("  %-42s  ", call.c_str()) + std::string(command.meaning));
  }
}

bool Prompt::Provision(std::string_view arguments) {
  const auto on = OnOrOff(arguments);
  if (on) firmware_.Facts().isProvisioned = *on;
  return on.has_value();
}

bool Prompt::Version(std::string_view arguments) {
  if (arguments.size() > kMaxVersion) return false;
  firmware_.Facts().version = Printable(arguments, kMaxVersion);
  return true;
}

bool Prompt::KvmStatus(std::string_view arguments) {
  const auto value = Number(arguments, UINT32_MAX);
  if (value) firmware_.Facts().kvmStatus = static_cast<std::uint32_t>(*value);
  return value.has_value();
}

bool Prompt::Status(std::string_view arguments) {
  const auto value = Number(arguments, UINT8_MAX);
  if (value) firmware_.Facts().orrinStatus = static_cast<std::uint8_t>(*value);
  return value.has_value();
}

bool Prompt::Silence(std::string_view arguments) {
  std::string_view name = TakeWord(&arguments);
  const Operation* operation = nullptr;
  if (!arguments.empty()) {
    if (!FindTarget(name, &operation)) return false;
    name = TakeWord(&arguments);
  }
  const auto on = OnOrOff(name);
  if (!on || !arguments.empty()) return false;
  firmware_.SetSilence(operation, *on);
  return true;
}

bool Prompt::Fail(std::string_view arguments) {
  const Operation* operation = nullptr;
  if (!FindTarget(TakeWord(&arguments), &operation)) return false;
  const auto error = Number(TakeWord(&arguments), UINT32_MAX);
  if (!error) return false;
  std::optional<std::uint64_t> count;
  if (!arguments.empty() && !(count = Number(arguments, UINT32_MAX))) return false;
  firmware_.SetFailure(operation, static_cast<std::uint32_t>(*error), count);
  return true;
}

bool Prompt::FailRead(std::string_view arguments) {
  const auto error = Number(arguments, UINT32_MAX);
  if (!error) return false;
  if (!firmware_.FailRead(static_cast<std::uint32_t>(*error))) {
    trace_.Note("no mailbox end is connected");
  }
  return true;
}

bool Prompt::Power(std::string_view arguments) {
  for (const PowerWord& power : kPowerWords) {
    if (power.word == arguments) return SendEmpty(power.code, {});
  }
  return false;
}

bool Prompt::Dash(std::string_view arguments) {
  (void)firmware_.SendCommandFrame(kDashData, ViewOf(arguments));
  return true;
}

bool Prompt::Frame(std::string_view arguments) {
  const auto bytes = BytesFromHex(arguments);
  if (bytes) (void)firmware_.SendRawFrame(*bytes);
  return bytes.has_value();
}

bool Prompt::Unknown(std::string_view arguments) {
  const auto code = Number(arguments, UINT8_MAX);
  return code && SendEmpty(static_cast<std::uint8_t>(*code), {});
}

bool Prompt::Subscribe(std::string_view arguments) {
  SubscriptionRecord record{};
  if (!FillField(record.host, TakeWord(&arguments))) return false;
  const auto port = Number(TakeWord(&arguments), UINT16_MAX);
  const std::string_view path = TakeWord(&arguments);
  const auto secure = SecureFlag(arguments);
  if (!port || path.empty() || !secure || !FillField(record.path, path)) return false;
  record.port = static_cast<std::uint32_t>(*port);
  record.secure = *secure;
  (void)firmware_.SendCommandFrame(kIndicationSubscribe, BytesOf(record));
  return true;
}

bool Prompt::Unsubscribe(std::string_view arguments) {
  if (!arguments.empty()) return false;
  (void)firmware_.SendCommandFrame(kIndicationSubscribe, BytesOf(SubscriptionRecord{}));
  return true;
}

bool Prompt::Indication(std::string_view arguments) {
  (void)firmware_.SendCommandFrame(kIndicationEvent, ViewOf(arguments));
  return true;
}

bool Prompt::Upgrade(std::string_view arguments) {
  (void)firmware_.SendCommandFrame(kSoftwareUpgrade, ViewOf(arguments));
  return true;
}

bool Prompt::Resume(std::string_view arguments) { return SendEmpty(kS0i3Resume, arguments); }

bool Prompt::Drop(std::string_view arguments) {
  drops_ = arguments.empty();
  return drops_;
}

bool Prompt::ShowInventory(std::string_view arguments) {
  if (!arguments.empty()) return false;
  trace_.Plain(InventoryJson(firmware_.Reported()));
  return true;
}

bool Prompt::Poke(std::string_view arguments) {
  const auto place = TakePlace(&arguments);
  const auto bytes = BytesFromHex(arguments);
  if (!place || !bytes || bytes->empty() || bytes->size() > place->room) return false;
  if (!firmware_.Poke(place->region, place->offset, *bytes)) {
    trace_.Note("no mailbox end is connected");
  }
  return true;
}

bool Prompt::Peek(std::string_view arguments) {
  const auto place = TakePlace(&arguments);
  const auto count = place ? Number(arguments, place->room) : std::nullopt;
  if (!count) return false;
  if (!firmware_.Peek(place->region, place->offset, static_cast<std::uint32_t>(*count))) {
    trace_.Note("no mailbox end is connected");
  }
  return true;
}

bool Prompt::Sleep(std::string_view arguments) {
  const auto milliseconds = Number(arguments, kMaxSleep);
  if (!milliseconds) return false;
  heldUntil_ = Clock::now() + std::chrono::milliseconds(*milliseconds);
  return true;
}

bool Prompt::Wait(std::string_view arguments) {
  if (arguments.empty()) return false;
  awaited_ = arguments;
  heldUntil_ = Clock::now() + kWaitBound;
  return true;
}

bool Prompt::Quit(std::string_view arguments) {
  quits_ = arguments.empty();
  return quits_;
}

}  // namespace orrin

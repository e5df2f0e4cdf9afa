#include "lab/firmware/prompt/commands.h"

#include <cstring>

#include "lab/firmware/core/frames.h"
#include "lab/firmware/core/text.h"

namespace orrin {
namespace {

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

// Finds an operation by name; "all" sets a null one. Returns false if there is no such operation.
bool FindTarget(std::string_view name, const Operation** operation) {
  *operation = FindOperation(name);
  return *operation != nullptr || SameIgnoringCase(name, "all");
}

struct RegionPlace {
  std::uint64_t region;
  std::uint32_t offset;
  std::uint32_t room;  // bytes from the offset to the region's end
};

// Removes "REGION OFFSET" from the front of the arguments.
std::optional<RegionPlace> TakePlace(std::string_view* arguments) {
  const auto region = ParseNumber(TakeWord(arguments), lablink::kLogRegion);
  if (!region) return std::nullopt;
  const std::uint32_t size = RegionSize(*region);
  const auto offset = ParseNumber(TakeWord(arguments), size);
  if (!offset) return std::nullopt;
  const auto place = static_cast<std::uint32_t>(*offset);
  return RegionPlace{*region, place, size - place};
}

// Returns false if the text and its terminating zero do not fit.
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

bool ShowAllHelp(CommandContext& context, std::string_view arguments);

bool SetProvisioning(CommandContext& context, std::string_view arguments) {
  const auto on = OnOrOff(arguments);
  if (on) context.firmware.Facts().isProvisioned = *on;
  return on.has_value();
}

bool SetVersion(CommandContext& context, std::string_view arguments) {
  if (arguments.size() > kMaxVersion) return false;
  context.firmware.Facts().view.version = Printable(arguments, kMaxVersion);
  return true;
}

bool SetKvmStatus(CommandContext& context, std::string_view arguments) {
  const auto value = ParseNumber(arguments, UINT32_MAX);
  if (value) context.firmware.Facts().kvmStatus = static_cast<std::uint32_t>(*value);
  return value.has_value();
}

bool AddUser(CommandContext& context, std::string_view arguments) {
  const std::string name(TakeWord(&arguments));
  const std::string_view password = TakeWord(&arguments);
  const bool isOperator = arguments == "operator";
  // Basic ends the name at a colon.
  if (password.empty() || name.find(':') != std::string::npos) return false;
  if (!isOperator && !arguments.empty() && arguments != "administrator") return false;
  context.firmware.Users().Add(name, password, isOperator ? Role::kOperator : Role::kAdministrator);
  return true;
}

bool RemoveUser(CommandContext& context, std::string_view arguments) {
  return context.firmware.Users().Remove(std::string(arguments));
}

bool SetBattery(CommandContext& context, std::string_view arguments) {
  constexpr std::uint64_t kFull = 100;
  const auto percent = ParseNumber(arguments, kFull);
  if (percent) {
    context.firmware.SetBattery(static_cast<std::uint16_t>(*percent));
  } else if (arguments == "none") {
    context.firmware.SetBattery(std::nullopt);
  }
  return percent || arguments == "none";
}

bool SetStatus(CommandContext& context, std::string_view arguments) {
  const auto value = ParseNumber(arguments, UINT8_MAX);
  if (value) context.firmware.Facts().orrinStatus = static_cast<std::uint8_t>(*value);
  return value.has_value();
}

bool SetSilence(CommandContext& context, std::string_view arguments) {
  std::string_view name = TakeWord(&arguments);
  const Operation* operation = nullptr;
  if (!arguments.empty()) {
    if (!FindTarget(name, &operation)) return false;
    name = TakeWord(&arguments);
  }
  const auto on = OnOrOff(name);
  if (!on || !arguments.empty()) return false;
  context.firmware.SetSilence(operation, *on);
  return true;
}

bool SetFailure(CommandContext& context, std::string_view arguments) {
  const Operation* operation = nullptr;
  if (!FindTarget(TakeWord(&arguments), &operation)) return false;
  const auto error = ParseNumber(TakeWord(&arguments), UINT32_MAX);
  if (!error) return false;
  std::optional<std::uint64_t> count;
  if (!arguments.empty() && !(count = ParseNumber(arguments, UINT32_MAX))) return false;
  context.firmware.SetFailure(operation, static_cast<std::uint32_t>(*error), count);
  return true;
}

bool FailRead(CommandContext& context, std::string_view arguments) {
  const auto error = ParseNumber(arguments, UINT32_MAX);
  if (!error) return false;
  const bool isSent = context.firmware.FailRead(static_cast<std::uint32_t>(*error));
  if (!isSent) context.trace.AddNote("no mailbox end is connected");
  return true;
}

bool SendPower(CommandContext& context, std::string_view arguments) {
  for (const PowerWord& power : kPowerWords) {
    if (power.word == arguments) return SendWithoutPayload(context, power.code, {});
  }
  return false;
}

bool SendDash(CommandContext& context, std::string_view arguments) {
  context.firmware.SendCommandFrame(kDashData, ViewOf(arguments));
  return true;
}

bool SendFrame(CommandContext& context, std::string_view arguments) {
  const auto bytes = BytesFromHex(arguments);
  if (bytes) context.firmware.SendRawFrame(*bytes);
  return bytes.has_value();
}

bool SendUnknown(CommandContext& context, std::string_view arguments) {
  const auto code = ParseNumber(arguments, UINT8_MAX);
  return code && SendWithoutPayload(context, static_cast<std::uint8_t>(*code), {});
}

bool Subscribe(CommandContext& context, std::string_view arguments) {
  SubscriptionRecord record{};
  if (!FillField(record.host, TakeWord(&arguments))) return false;
  const auto port = ParseNumber(TakeWord(&arguments), UINT16_MAX);
  const std::string_view path = TakeWord(&arguments);
  const auto secure = SecureFlag(arguments);
  if (!port || path.empty() || !secure || !FillField(record.path, path)) return false;
  record.port = static_cast<std::uint32_t>(*port);
  record.secure = *secure;
  context.firmware.SendCommandFrame(kIndicationSubscribe, BytesOf(record));
  return true;
}

bool Unsubscribe(CommandContext& context, std::string_view arguments) {
  if (!arguments.empty()) return false;
  context.firmware.SendCommandFrame(kIndicationSubscribe, BytesOf(SubscriptionRecord{}));
  return true;
}

bool SendIndication(CommandContext& context, std::string_view arguments) {
  context.firmware.SendCommandFrame(kIndicationEvent, ViewOf(arguments));
  return true;
}

bool SendUpgrade(CommandContext& context, std::string_view arguments) {
  context.firmware.SendCommandFrame(kSoftwareUpgrade, ViewOf(arguments));
  return true;
}

bool SendResume(CommandContext& context, std::string_view arguments) {
  return SendWithoutPayload(context, kS0i3Resume, arguments);
}

bool DropLink(CommandContext& context, std::string_view arguments) {
  context.drops = arguments.empty();
  return context.drops;
}

bool ShowInventory(CommandContext& context, std::string_view arguments) {
  if (!arguments.empty()) return false;
  context.trace.AddPlain(InventoryJson(context.firmware.Reported()));
  return true;
}

bool PokeMemory(CommandContext& context, std::string_view arguments) {
  const auto place = TakePlace(&arguments);
  const auto bytes = BytesFromHex(arguments);
  if (!place || !bytes || bytes->empty() || bytes->size() > place->room) return false;
  const bool isSent = context.firmware.Poke(place->region, place->offset, *bytes);
  if (!isSent) context.trace.AddNote("no mailbox end is connected");
  return true;
}

bool PeekMemory(CommandContext& context, std::string_view arguments) {
  const auto place = TakePlace(&arguments);
  const auto count = place ? ParseNumber(arguments, place->room) : std::nullopt;
  if (!count) return false;
  const bool isSent =
      context.firmware.Peek(place->region, place->offset, static_cast<std::uint32_t>(*count));
  if (!isSent) context.trace.AddNote("no mailbox end is connected");
  return true;
}

bool HoldForTime(CommandContext& context, std::string_view arguments) {
  const auto milliseconds = ParseNumber(arguments, kMaxSleep);
  if (!milliseconds) return false;
  context.heldUntil = PromptClock::now() + std::chrono::milliseconds(*milliseconds);
  return true;
}

bool HoldForText(CommandContext& context, std::string_view arguments) {
  if (arguments.empty()) return false;
  context.awaited = arguments;
  context.heldUntil = PromptClock::now() + kWaitBound;
  return true;
}

bool QuitSimulator(CommandContext& context, std::string_view arguments) {
  context.quits = arguments.empty();
  return context.quits;
}

constexpr Command kCommands[] = {
    {"help", "", "this list", ShowAllHelp},
    {"provision", "on|off", "whether DASH provisioning is complete", SetProvisioning},
    {"version", "TEXT", "the firmware's version text, at most 63 bytes", SetVersion},
    {"kvmstatus", "N", "KVMStatus of GetTavrinVersion", SetKvmStatus},
    {"battery", "PERCENT|none", "the host's battery, as consoles see it", SetBattery},
    {"user", "NAME PASSWORD [administrator|operator]",
     "a user of the HTTP server; with the first one, everybody else is refused", AddUser},
    {"nouser", "NAME", "removes a user", RemoveUser},
    {"status", "N", "the byte of GetOrrinStatus", SetStatus},
    {"silence", "[NAME] on|off", "holds requests unanswered; off answers them", SetSilence},
    {"fail", "NAME|all CODE [COUNT]", "requests end with a Windows error; 0 removes it",
     SetFailure},
    {"failread", "CODE", "the oldest read ends with a Windows error", FailRead},
    {"power", "reboot|shutdown|hibernate|sleep|reboot-nondash", "a power command", SendPower},
    {"dash", "TEXT", "text for the DASH peer", SendDash},
    {"frame", "HEX", "a raw frame: payload, code, last byte", SendFrame},
    {"unknown", "CODE", "a command of any code without payload", SendUnknown},
    {"subscribe", "HOST PORT PATH [http|https]", "a subscription to indications", Subscribe},
    {"unsubscribe", "", "cancels the subscription", Unsubscribe},
    {"indication", "TEXT", "an indication event", SendIndication},
    {"upgrade", "TEXT", "a software upgrade text", SendUpgrade},
    {"kvm", "COMMAND ...", "the console behind port 22", RunKvm},
    {"trust", "IP PORT", "kvm trust", TrustViewer},
    {"close", "", "kvm close", CloseKvm},
    {"resume", "", "resume from S0i3", SendResume},
    {"drop", "", "closes the link: the device is lost", DropLink},
    {"inventory", "", "what the host has reported, as JSON", ShowInventory},
    {"poke", "REGION OFFSET HEX", "writes shared memory; region 0 keyboard and mouse, 1 log",
     PokeMemory},
    {"peek", "REGION OFFSET COUNT", "reads shared memory", PeekMemory},
    {"sleep", "MS", "holds the next commands", HoldForTime},
    {"wait", "TEXT",
     "holds the next commands until an event line contains TEXT, at most 30 s; searches"
     " the lines after the one that the last wait found",
     HoldForText},
    {"quit", "", "ends the simulator", QuitSimulator},
};

bool ShowAllHelp(CommandContext& context, std::string_view) {
  ShowHelp(context, "", kCommands);
  ShowKvmHelp(context);
  return true;
}

}  // namespace

void RunLine(CommandContext& context, std::string_view line) {
  std::string_view arguments = line;
  const std::string_view word = TakeWord(&arguments);
  if (word.empty() || word.starts_with('#')) return;
  const Command* command = FindCommand(kCommands, word);
  if (command == nullptr) {
    return context.trace.AddNote("unknown command \"" + Printable(word, 80) +
                                 "\"; help lists them");
  }
  if (!command->run(context, arguments)) ReportUsage(context, "", *command);
}

const Command* FindCommand(std::span<const Command> commands, std::string_view word) {
  for (const Command& command : commands) {
    if (command.word == word) return &command;
  }
  return nullptr;
}

void ShowHelp(CommandContext& context, std::string_view prefix, std::span<const Command> commands) {
  for (const Command& command : commands) {
    const std::string call =
        std::string(prefix) + std::string(command.word) + " " + std::string(command.usage);
    context.trace.AddPlain(Format("  %-42s  ", call.c_str()) + std::string(command.meaning));
  }
}

void ReportUsage(CommandContext& context, std::string_view prefix, const Command& command) {
  context.trace.AddNote("wrong arguments; usage: " + std::string(prefix) +
                        std::string(command.word) + " " + std::string(command.usage));
}

bool SendWithoutPayload(CommandContext& context, std::uint8_t code, std::string_view arguments) {
  if (!arguments.empty()) return false;
  context.firmware.SendCommandFrame(code, {});
  return true;
}

}  // namespace orrin

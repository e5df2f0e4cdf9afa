// The commands at the prompt that begin with "kvm": the console behind port 22.
#include <arpa/inet.h>

#include <cerrno>
#include <cstring>

#include "lab/firmware/core/frames.h"
#include "lab/firmware/core/records.h"
#include "lab/firmware/core/text.h"
#include "lab/firmware/prompt/commands.h"

namespace orrin {
namespace {

constexpr std::uint64_t kMaxFlood = 1000000;

bool EnableKvm(CommandContext& context, std::string_view arguments) {
  return SendWithoutPayload(context, kKvmEnableStatus, arguments);
}

bool SaveScreen(CommandContext& context, std::string_view arguments) {
  const std::string path(arguments);
  if (path.empty()) return false;
  const bool saved = context.firmware.Kvm().Screen().Save(path);
  context.trace.AddNote(saved ? "KVM: the screen is in " + Printable(path, 200)
                              : "KVM: cannot write " + Printable(path, 200) + ": " +
                                    std::strerror(errno));
  return true;
}

bool PaintScreen(CommandContext& context, std::string_view arguments) {
  Picture& screen = context.firmware.Kvm().Screen();
  const auto counter = arguments.empty() ? std::optional<std::uint64_t>(screen.Counter() + 1)
                                         : ParseNumber(arguments, UINT32_MAX);
  if (counter) screen.SetCounter(static_cast<std::uint32_t>(*counter));
  return counter.has_value();
}

bool FloodRing(CommandContext& context, std::string_view arguments) {
  const std::string_view ring = TakeWord(&arguments);
  const auto count = ParseNumber(arguments, kMaxFlood);
  if (!count || (ring != "keys" && ring != "pointer")) return false;
  const auto events = static_cast<std::uint32_t>(*count);
  ring == "keys" ? context.firmware.Kvm().FloodKeys(events)
                 : context.firmware.Kvm().FloodPointer(events);
  return true;
}

bool StallScreen(CommandContext& context, std::string_view arguments) {
  if (arguments != "on" && arguments != "off") return false;
  context.firmware.Kvm().SetStalled(arguments == "on");
  return true;
}

bool SetRegion(CommandContext& context, std::string_view arguments) {
  if (arguments != "give" && arguments != "withhold") return false;
  context.firmware.Kvm().SetWithholdsRegion(arguments == "withhold");
  return true;
}

bool SetIndex(CommandContext& context, std::string_view arguments) {
  const std::string_view name = TakeWord(&arguments);
  if (name != kKeyboardRing.name && name != kPointerRing.name) return false;
  KvmConsole& kvm = context.firmware.Kvm();
  InputRing& ring = name == kKeyboardRing.name ? kvm.Keys() : kvm.Pointer();
  if (arguments.empty()) {
    context.trace.AddNote(Format("KVM: %s writes at %u next, %zu events wait", ring.Layout().name,
                                 ring.WriteIndex(), ring.Waiting()));
    return true;
  }
  const std::string_view which = TakeWord(&arguments);
  const auto index = ParseNumber(arguments, ring.Layout().entries - 1);
  if (!index || (which != "write" && which != "read")) return false;
  const auto place = static_cast<std::uint32_t>(*index);
  which == "write" ? ring.SetWriteIndex(place) : ring.SetReadIndex(place);
  return true;
}

constexpr Command kKvmCommands[] = {
    {"on", "", "KVM is now enabled", EnableKvm},
    {"trust", "IP PORT", "the peer to trust for KVM; 0.0.0.0 is any", TrustViewer},
    {"close", "", "closes the KVM connection", CloseKvm},
    {"save", "FILE", "the screen as a PPM", SaveScreen},
    {"paint", "[N]", "draws the screen of counter N, or of the next", PaintScreen},
    {"flood", "keys|pointer N", "that many events into the ring", FloodRing},
    {"stall", "on|off", "the viewer is not answered; off continues", StallScreen},
    {"region", "give|withhold", "whether the host gets the rings' address", SetRegion},
    {"index", "keyboard|mouse [write|read N]", "an index put to N, or both ends' state", SetIndex},
};

}  // namespace

bool RunKvm(CommandContext& context, std::string_view arguments) {
  const Command* command = FindCommand(kKvmCommands, TakeWord(&arguments));
  if (command == nullptr) {
    ShowKvmHelp(context);
    return false;
  }
  if (!command->run(context, arguments)) ReportUsage(context, "kvm ", *command);
  return true;
}

bool TrustViewer(CommandContext& context, std::string_view arguments) {
  TrustRecord record{};
  const std::string address(TakeWord(&arguments));
  const auto port = ParseNumber(arguments, UINT32_MAX);
  if (!port || inet_pton(AF_INET, address.c_str(), record.address) != 1) return false;
  record.port = static_cast<std::uint32_t>(*port);
  context.firmware.SendCommandFrame(kKvmIpPortInfo, BytesOf(record));
  return true;
}

bool CloseKvm(CommandContext& context, std::string_view arguments) {
  return SendWithoutPayload(context, kVncSocketClose, arguments);
}

void ShowKvmHelp(CommandContext& context) { ShowHelp(context, "kvm ", kKvmCommands); }

}  // namespace orrin

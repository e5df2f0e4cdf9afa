// The commands at the prompt that begin with "kvm": the console behind port 22.
#include <arpa/inet.h>

#include <cerrno>
#include <cstring>

#include "lab/firmware/core/frames.h"
#include "lab/firmware/core/text.h"
#include "lab/firmware/prompt/prompt.h"

namespace orrin {
namespace {

constexpr std::uint64_t kMaxFlood = 1000000;

}  // namespace

const Prompt::Command Prompt::kKvmCommands[] = {
    {"on", "", "KVM is now enabled", &Prompt::KvmOn},
    {"trust", "IP PORT", "the peer to trust for KVM; 0.0.0.0 is any", &Prompt::Trust},
    {"close", "", "closes the KVM connection", &Prompt::CloseKvm},
    {"save", "FILE", "the screen as a PPM", &Prompt::KvmSave},
    {"paint", "[N]", "draws the screen of counter N, or of the next", &Prompt::KvmPaint},
    {"flood", "keys|pointer N", "so many events into the ring", &Prompt::KvmFlood},
    {"stall", "on|off", "the viewer isn't answered; off goes on", &Prompt::KvmStall},
    {"region", "give|withhold", "whether the host gets the rings' address", &Prompt::KvmRegion},
    {"index", "keyboard|mouse [write|read N]", "an index put to N, or both ends' state",
     &Prompt::KvmIndex},
};

bool Prompt::Kvm(std::string_view arguments) {
  const Command* command = Find(kKvmCommands, TakeWord(&arguments));
  if (command && (this->*command->run)(arguments)) return true;
  if (!command) {
    ShowKvmHelp();
    return false;
  }
  trace_.Note("wrong arguments; usage: kvm " + std::string(command->word) + " " +
              std::string(command->usage));
  return true;
}

void Prompt::ShowKvmHelp() { ShowHelp("kvm ", kKvmCommands); }

bool Prompt::KvmOn(std::string_view arguments) { return SendEmpty(kKvmEnableStatus, arguments); }

bool Prompt::Trust(std::string_view arguments) {
  TrustRecord record{};
  const std::string address(TakeWord(&arguments));
  const auto port = Number(arguments, UINT32_MAX);
  if (!port || inet_pton(AF_INET, address.c_str(), record.address) != 1) return false;
  record.port = static_cast<std::uint32_t>(*port);
  (void)firmware_.SendCommandFrame(kKvmIpPortInfo, BytesOf(record));
  return true;
}

bool Prompt::CloseKvm(std::string_view arguments) { return SendEmpty(kVncSocketClose, arguments); }

bool Prompt::KvmSave(std::string_view arguments) {
  const std::string path(arguments);
  if (path.empty()) return false;
  const bool saved = firmware_.Kvm().Screen().Save(path);
  trace_.Note(saved ? "KVM: the screen is in " + Printable(path, 200)
                    : "KVM: cannot write " + Printable(path, 200) + ": " + std::strerror(errno));
  return true;
}

bool Prompt::KvmPaint(std::string_view arguments) {
  Picture& screen = firmware_.Kvm().Screen();
  const auto counter = arguments.empty() ? std::optional<std::uint64_t>(screen.Counter() + 1)
                                         : Number(arguments, UINT32_MAX);
  if (counter) screen.SetCounter(static_cast<std::uint32_t>(*counter));
  return counter.has_value();
}

bool Prompt::KvmFlood(std::string_view arguments) {
  const std::string_view ring = TakeWord(&arguments);
  const auto count = Number(arguments, kMaxFlood);
  if (!count || (ring != "keys" && ring != "pointer")) return false;
  const auto events = static_cast<std::uint32_t>(*count);
  ring == "keys" ? firmware_.Kvm().FloodKeys(events) : firmware_.Kvm().FloodPointer(events);
  return true;
}

bool Prompt::KvmStall(std::string_view arguments) {
  if (arguments != "on" && arguments != "off") return false;
  firmware_.Kvm().SetStalled(arguments == "on");
  return true;
}

bool Prompt::KvmRegion(std::string_view arguments) {
  if (arguments != "give" && arguments != "withhold") return false;
  firmware_.Kvm().SetWithholds(arguments == "withhold");
  return true;
}

bool Prompt::KvmIndex(std::string_view arguments) {
  const std::string_view name = TakeWord(&arguments);
  if (name != kKeyboardRing.name && name != kPointerRing.name) return false;
  KvmConsole& kvm = firmware_.Kvm();
  InputRing& ring = name == kKeyboardRing.name ? kvm.Keys() : kvm.Pointer();
  if (arguments.empty()) {
    trace_.Note(Format("KVM: %s writes at %u next, %zu events wait", ring.Layout().name,
                       ring.WriteIndex(), ring.Waiting()));
    return true;
  }
  const std::string_view which = TakeWord(&arguments);
  const auto index = Number(arguments, ring.Layout().entries - 1);
  if (!index || (which != "write" && which != "read")) return false;
  const auto place = static_cast<std::uint32_t>(*index);
  which == "write" ? ring.SetWriteIndex(place) : ring.SetReadIndex(place);
  return true;
}

}  // namespace orrin

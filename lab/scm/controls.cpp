#include "lab/scm/controls.h"

#include <algorithm>
#include <cassert>
#include <cctype>
#include <charconv>
#include <cstdio>
#include <sstream>

namespace scm {
namespace {

// winsvc.h: SERVICE_CONTROL_..., SERVICE_ACCEPT_...
constexpr std::uint32_t kControlPowerEvent = 13;
constexpr std::uint32_t kControlSessionChange = 14;
constexpr std::uint32_t kAcceptPowerEvent = 0x40;
constexpr std::uint32_t kAcceptSessionChange = 0x80;
// winuser.h: PBT_POWERSETTINGCHANGE.
constexpr std::uint32_t kPowerSettingChange = 0x8013;
// The session of the lab's session events.
constexpr std::uint32_t kConsoleSession = 1;
constexpr std::string_view kForce = "--force";

// What a service must accept for a control. A control without a command of its own is given by
// number.
struct KnownControl {
  std::string_view word;
  std::uint32_t control;
  std::uint32_t needs;
  bool isCommand;
};

constexpr KnownControl kKnownControls[] = {
    {"stop", kControlStop, 0x1, true},
    {"pause", 2, 0x2, false},
    {"continue", 3, 0x2, false},
    {"interrogate", 4, 0, true},
    {"shutdown", 5, 0x4, false},
    {"paramchange", 6, 0x8, false},
    {"hardwareprofile", 12, 0x20, false},
    {"power", kControlPowerEvent, kAcceptPowerEvent, false},
    {"session", kControlSessionChange, kAcceptSessionChange, false},
    {"preshutdown", 15, 0x100, true},
    {"timechange", 16, 0x200, false},
    {"triggerevent", 32, 0x400, false},
};

struct PowerSetting {
  std::string_view word;
  const char* guid;
};

// winnt.h: GUID_ACDC_POWER_SOURCE, GUID_BATTERY_PERCENTAGE_REMAINING, GUID_GLOBAL_USER_PRESENCE.
constexpr PowerSetting kPowerSettings[] = {
    {"acdc", "{5D3E9A59-E9D5-4B00-A6BD-FF34FF516548}"},
    {"battery", "{A7AD8041-B45A-4CAE-87A3-EECBB468A9E1}"},
    {"presence", "{786E8A1D-B427-4344-9207-09E70BDCBEA9}"},
};

struct SessionEvent {
  std::string_view word;
  std::uint32_t eventType;  // winuser.h: WTS_SESSION_LOGON and so on
};

constexpr SessionEvent kSessionEvents[] = {{"logon", 5}, {"logoff", 6}, {"lock", 7}, {"unlock", 8}};

std::optional<std::uint32_t> U32(std::string_view text) {
  std::uint32_t value = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
  if (error != std::errc() || end != text.data() + text.size()) return std::nullopt;
  return value;
}

std::string HexU32(std::uint32_t value) {
  std::string text;
  for (int i = 0; i < 4; ++i, value >>= 8) {
    char digits[3];
    std::snprintf(digits, sizeof digits, "%02x", value & 0xFFU);
    text += digits;
  }
  return text;
}

// Returns a GUID's bytes in memory: the first three fields are little-endian.
std::string HexGuid(std::string_view braced) {
  std::string digits;
  for (char c : braced) {
    if (std::isxdigit(static_cast<unsigned char>(c))) {
      digits += static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    }
  }
  assert(digits.size() == 32);
  constexpr std::size_t kOrder[] = {3, 2, 1, 0, 5, 4, 7, 6, 8, 9, 10, 11, 12, 13, 14, 15};
  std::string hex;
  for (std::size_t byte : kOrder) hex += digits.substr(2 * byte, 2);
  return hex;
}

// The data is POWERBROADCAST_SETTING with a 32-bit value.
std::optional<Control> PowerControl(const std::vector<std::string>& words) {
  if (words.size() != 3) return std::nullopt;
  const auto value = U32(words[2]);
  for (const PowerSetting& setting : kPowerSettings) {
    if (setting.word != words[1] || !value) continue;
    return Control{kControlPowerEvent,
                   kPowerSettingChange,
                   HexGuid(setting.guid) + HexU32(sizeof *value) + HexU32(*value),
                   kAcceptPowerEvent,
                   setting.guid,
                   false};
  }
  return std::nullopt;
}

// The data is WTSSESSION_NOTIFICATION: its size and the session.
std::optional<Control> SessionControl(const std::vector<std::string>& words) {
  if (words.size() != 2) return std::nullopt;
  for (const SessionEvent& event : kSessionEvents) {
    if (event.word != words[1]) continue;
    return Control{kControlSessionChange,
                   event.eventType,
                   HexU32(8) + HexU32(kConsoleSession),
                   kAcceptSessionChange,
                   {},
                   false};
  }
  return std::nullopt;
}

std::optional<Control> NumberedControl(const std::vector<std::string>& words) {
  const auto number = words.size() == 2 ? U32(words[1]) : std::nullopt;
  if (!number) return std::nullopt;
  Control control{*number, 0, "-", 0, {}, false};
  for (const KnownControl& known : kKnownControls) {
    if (known.control == *number) control.needs = known.needs;
  }
  return control;
}

std::optional<Control> ParseUnforced(const std::vector<std::string>& words) {
  if (words.empty()) return std::nullopt;
  if (words[0] == "power") return PowerControl(words);
  if (words[0] == "session") return SessionControl(words);
  if (words[0] == "control") return NumberedControl(words);
  for (const KnownControl& known : kKnownControls) {
    if (!known.isCommand || known.word != words[0] || words.size() != 1) continue;
    return Control{known.control, 0, "-", known.needs, {}, false};
  }
  return std::nullopt;
}

bool SameGuid(std::string_view left, std::string_view right) {
  return std::equal(left.begin(), left.end(), right.begin(), right.end(), [](char a, char b) {
    return std::tolower(static_cast<unsigned char>(a)) ==
           std::tolower(static_cast<unsigned char>(b));
  });
}

}  // namespace

std::string StateName(std::uint32_t state) {
  switch (state) {
    case kStopped:
      return "SERVICE_STOPPED";
    case kStartPending:
      return "SERVICE_START_PENDING";
    case kStopPending:
      return "SERVICE_STOP_PENDING";
    case kRunning:
      return "SERVICE_RUNNING";
    default:
      return "state " + std::to_string(state);
  }
}

std::string DescribeStatus(const Status& status) {
  char accepted[16];
  std::snprintf(accepted, sizeof accepted, "0x%x", status.accepted);
  return StateName(status.state) + ", accepts " + accepted + ", exit " +
         std::to_string(status.win32Exit) + "/" + std::to_string(status.specificExit) +
         ", check point " + std::to_string(status.checkPoint) + ", wait hint " +
         std::to_string(status.waitHint);
}

std::optional<Status> ParseStatus(std::string_view numbers) {
  const std::vector<std::string> words = Words(numbers);
  Status status;
  std::uint32_t* const fields[] = {&status.serviceType, &status.state,        &status.accepted,
                                   &status.win32Exit,   &status.specificExit, &status.checkPoint,
                                   &status.waitHint};
  if (words.size() != std::size(fields)) return std::nullopt;
  for (std::size_t i = 0; i < words.size(); ++i) {
    const auto value = U32(words[i]);
    if (!value) return std::nullopt;
    *fields[i] = *value;
  }
  return status;
}

std::optional<Control> ParseControl(const std::vector<std::string>& words) {
  std::vector<std::string> plain = words;
  const bool forced = std::erase(plain, kForce) > 0;
  std::optional<Control> control = ParseUnforced(plain);
  if (control) control->isForced = forced;
  return control;
}

std::uint32_t Refusal(const Control& control, const std::optional<Status>& status,
                      const std::vector<std::string>& settings) {
  if (!status || status->state == kStopped) return kErrorServiceNotActive;
  if (control.isForced) return 0;
  if (status->state == kStartPending || status->state == kStopPending) {
    return kErrorServiceCannotAcceptCtrl;
  }
  if ((status->accepted & control.needs) != control.needs) return kErrorServiceCannotAcceptCtrl;
  // A power setting is delivered only to a service that has registered for it.
  const bool registered =
      control.setting.empty() ||
      std::any_of(settings.begin(), settings.end(),
                  [&](const std::string& setting) { return SameGuid(setting, control.setting); });
  return registered ? 0 : kErrorServiceCannotAcceptCtrl;
}

std::vector<std::string> Words(std::string_view line) {
  std::istringstream stream{std::string(line)};
  std::vector<std::string> words;
  for (std::string word; stream >> word;) words.push_back(word);
  return words;
}

}  // namespace scm

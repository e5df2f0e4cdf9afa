// The service manager's numbers and words: states, controls, what a service accepts, and the
// records of a control.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace scm {

// winsvc.h: SERVICE_STOPPED and so on.
enum State : std::uint32_t { kStopped = 1, kStartPending = 2, kStopPending = 3, kRunning = 4 };

// winerror.h.
constexpr std::uint32_t kErrorServiceRequestTimeout = 1053;
constexpr std::uint32_t kErrorServiceCannotAcceptCtrl = 1061;
constexpr std::uint32_t kErrorServiceNotActive = 1062;

// winsvc.h: SERVICE_CONTROL_STOP.
constexpr std::uint32_t kControlStop = 1;

// SERVICE_STATUS, as in a STATUS line.
struct Status {
  std::uint32_t serviceType = 0;
  std::uint32_t state = kStartPending;
  std::uint32_t accepted = 0;
  std::uint32_t win32Exit = 0;
  std::uint32_t specificExit = 0;
  std::uint32_t checkPoint = 0;
  std::uint32_t waitHint = 0;
};

// One call of the service's control handler.
struct Control {
  std::uint32_t control = 0;
  std::uint32_t eventType = 0;
  std::string data;         // hexadecimal bytes of the event record, or "-"
  std::uint32_t needs = 0;  // the bit of `accepted` that it requires; 0: none
  std::string setting;      // the power setting's GUID in braces; empty: none
  bool isForced = false;    // delivered even if the service does not accept it
};

// Returns "SERVICE_RUNNING"; "state 9" for a number without a name.
std::string StateName(std::uint32_t state);
// Returns "SERVICE_RUNNING, accepts 0x101, exit 0/0, check point 0, wait hint 0".
std::string DescribeStatus(const Status& status);
// Parses the seven decimal numbers after the word STATUS. Returns nothing for any other text.
std::optional<Status> ParseStatus(std::string_view numbers);

// Parses a client's words: "stop", "preshutdown", "interrogate", "power acdc 0", "session lock
// --force", "control 200". Returns nothing for any other words.
std::optional<Control> ParseControl(const std::vector<std::string>& words);

// Returns 0 if the control may be delivered to a service of this status, else a Windows error.
// `settings` are the power settings that the service has registered for.
std::uint32_t Refusal(const Control& control, const std::optional<Status>& status,
                      const std::vector<std::string>& settings);

// Returns the blank-separated words of a line.
std::vector<std::string> Words(std::string_view line);

}  // namespace scm

// Groups the lines of the service log by the DASH or KVM session that they belong to.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "tools/logs/log_line.h"

namespace stewardry::tools {

// One connection of a console or a viewer.
struct Session {
  bool isKvm = false;
  std::int64_t started = 0, ended = 0;  // as LogLine::time; 0 while it lasts
  std::uint32_t process = 0, thread = 0;
  std::string address;  // "192.168.1.5", empty if no line says it
  std::uint16_t port = 0;
  std::uint64_t received = 0, sent = 0;  // bytes from and to the peer, where the log counts them
};

// Takes the lines in their order.
class SessionTracker {
 public:
  // Returns the index of the session that the line belongs to, -1 if it belongs to none.
  int Take(const LogLine& line);
  const std::vector<Session>& Sessions() const { return sessions_; }
  // Returns the session that lasts, null if none does; valid until the next Take.
  const Session* Current(bool isKvm) const {
    const int index = current_[isKvm];
    return index >= 0 ? &sessions_[static_cast<std::size_t>(index)] : nullptr;
  }

 private:
  int Start(const LogLine& line, bool isKvm);

  std::vector<Session> sessions_;
  int current_[2] = {-1, -1};  // of DASH and KVM
};

// Returns "192.168.1.5" for an address whose first octet is the lowest byte.
std::string DottedText(std::uint32_t address);

// Returns the message with each address and port that the service prints as a number of a socket
// address ("Remote address 0x501a8c0", "Remote port 0xdabc") in the usual form.
std::string WithPlainAddresses(const std::string& text);

}  // namespace stewardry::tools

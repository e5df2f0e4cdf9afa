// Replaces what identifies a host or a person in texts that leave the machine.
#pragma once

#include <map>
#include <string>
#include <string_view>
#include <vector>

namespace stewardry::tools {

// Replaces the same value by the same placeholder wherever it stands: "ip-1", "mac-1", "host-1",
// "user-1". An address is found in dotted form and in the form of the service's log lines, 0x and
// seven or eight hexadecimal digits, the first octet in the lowest byte. Addresses whose first
// octet is 0, 127 or 255 (masks, "any", loopback) identify nobody and stay. IPv6 addresses are
// found with "::" or all eight groups. Names are found as whole words in any case of letters.
class Masker {
 public:
  // A name of one letter is ignored: it would match too much.
  void AddHost(std::string_view name) { AddName("host", name); }
  void AddUser(std::string_view name) { AddName("user", name); }

  // Adds the names in a text that stand where the service's logs, the registration or a path have
  // one: hosts, domains and users. Names that every host has, such as "system", are left.
  void Learn(std::string_view text);

  // Leaves a value as it is that only looks like an address, such as a version of four numbers.
  void Keep(std::string_view value) { kept_.emplace_back(value); }

  // Returns the text with everything replaced. A value that is cut by the text's end may stay, so a
  // text should end with a line.
  std::string Mask(std::string_view text);

 private:
  struct Name {
    std::string folded, placeholder;
  };

  void AddName(const char* kind, std::string_view name);
  const std::string& Placeholder(const char* kind, const std::string& value);

  std::vector<Name> names_;
  std::vector<std::string> kept_;
  std::map<std::string, std::string> placeholders_;  // of "kind value"
  std::map<std::string, int> counts_;                // of each kind
};

}  // namespace stewardry::tools

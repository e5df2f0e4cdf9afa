#include "tools/logs/sessions.h"

#include <charconv>
#include <iterator>
#include <optional>
#include <string_view>

namespace stewardry::tools {

namespace {

constexpr std::string_view kStarts[] = {"New HTTPS DASH request arrived",
                                        "New KVM request arrived"};
// The last line of a session that is its own.
constexpr std::string_view kEnds[] = {"Selector remove called for HTTPS callback",
                                      "Free successful"};
// Lines of a session that other threads write: the reader, and the threads of a KVM session.
constexpr std::string_view kForeign[][3] = {
    {" Size written is", "Sockwrite Failed", "Socket is closed"},
    {"Send index:", "KVM ", "Finish KVM Session"}};

// A number that the log prints in the byte order of a socket address.
enum class Form { kAddress, kPort };
struct Prefix {
  std::string_view text;
  Form form;
};
constexpr Prefix kPrefixes[] = {
    {"Remote address 0x", Form::kAddress},
    {"Remote port 0x", Form::kPort},
    {"IP: 0x", Form::kAddress},
    {"Netwrok Addrress 0x", Form::kAddress},
    {"IPV4 address: 0x", Form::kAddress},
    {"Network byte order: 0x", Form::kAddress},
    {"IPV4 Subnet: 0x", Form::kAddress},
};

struct Number {
  std::size_t begin, end;  // in the text, from its "0x"
  std::uint32_t value;
  Form form;
};

std::optional<Number> FindNumber(std::string_view text) {
  for (const Prefix& prefix : kPrefixes) {
    const std::size_t at = text.find(prefix.text);
    if (at == std::string_view::npos) continue;
    const char* const digits = text.data() + at + prefix.text.size();
    std::uint32_t value = 0;
    const auto [end, error] = std::from_chars(digits, text.data() + text.size(), value, 16);
    if (error != std::errc()) continue;
    return Number{at + prefix.text.size() - 2, static_cast<std::size_t>(end - text.data()), value,
                  prefix.form};
  }
  return {};
}

std::uint16_t PortOf(std::uint32_t value) {
  return static_cast<std::uint16_t>((value & 0xFF) << 8 | (value >> 8 & 0xFF));
}

std::string PlainForm(const Number& number) {
  if (number.form == Form::kPort) return std::to_string(PortOf(number.value));
  return DottedText(number.value);
}

// The number behind a prefix, decimal; 0 if the text does not begin with it.
std::uint64_t CountBehind(std::string_view text, std::string_view prefix) {
  std::uint64_t count = 0;
  if (text.starts_with(prefix))
    std::from_chars(text.data() + prefix.size(), text.data() + text.size(), count);
  return count;
}

}  // namespace

std::string DottedText(std::uint32_t address) {
  std::string text;
  for (int shift = 0; shift < 32; shift += 8) {
    if (shift != 0) text += '.';
    text += std::to_string(address >> shift & 0xFF);
  }
  return text;
}

std::string WithPlainAddresses(const std::string& text) {
  const std::optional<Number> number = FindNumber(text);
  if (!number) return text;
  return text.substr(0, number->begin) + PlainForm(*number) + text.substr(number->end);
}

int SessionTracker::Start(const LogLine& line, bool isKvm) {
  Session& session = sessions_.emplace_back();
  session.isKvm = isKvm;
  session.started = line.time;
  session.process = line.process;
  session.thread = line.thread;
  return current_[isKvm] = static_cast<int>(sessions_.size()) - 1;
}

int SessionTracker::Take(const LogLine& line) {
  if (line.log != Log::kService) return -1;
  const std::string_view text = line.text;
  for (const bool isKvm : {false, true}) {
    if (text.starts_with(kStarts[isKvm])) {
      // The newest console replaces the older one, whose end is the new one's start.
      if (current_[isKvm] >= 0)
        sessions_[static_cast<std::size_t>(current_[isKvm])].ended = line.time;
      return Start(line, isKvm);
    }
    const int index = current_[isKvm];
    if (index < 0) continue;
    Session& session = sessions_[static_cast<std::size_t>(index)];
    bool belongs = line.thread == session.thread && line.process == session.process;
    for (const std::string_view foreign : kForeign[isKvm])
      belongs = belongs || text.starts_with(foreign);
    if (line.process != session.process) current_[isKvm] = -1;  // that process has ended
    if (!belongs) continue;
    const std::optional<Number> number = FindNumber(text);
    if (number && text.starts_with("Remote address")) session.address = PlainForm(*number);
    if (number && text.starts_with("Remote port")) session.port = PortOf(number->value);
    session.received += CountBehind(text, " read size ");
    session.sent += CountBehind(text, " Size written is ");
    if (text.starts_with(kEnds[isKvm])) {
      session.ended = line.time;
      current_[isKvm] = -1;
    }
    return index;
  }
  return -1;
}

}  // namespace stewardry::tools

#include "tools/archive/masker.h"

#include <algorithm>
#include <charconv>
#include <cstdint>
#include <optional>

#include "text/letter_case.h"

namespace stewardry::tools {

namespace {

constexpr std::size_t kShortestName = 2;
// Above the names of any real host's logs: each is looked for at each word.
constexpr std::size_t kMostNames = 256;

bool IsDigit(char c) { return c >= '0' && c <= '9'; }
bool IsHex(char c) { return IsDigit(c) || (ToLower(c) >= 'a' && ToLower(c) <= 'f'); }
bool IsWord(char c) { return IsDigit(c) || (ToLower(c) >= 'a' && ToLower(c) <= 'z') || c == '_'; }

std::string Folded(std::string_view text) {
  std::string folded(text);
  std::transform(folded.begin(), folded.end(), folded.begin(), ToLower<char>);
  return folded;
}

// Returns the length of the run of characters at the front for which `is` is true.
std::size_t RunOf(std::string_view text, bool (*is)(char)) {
  return static_cast<std::size_t>(std::find_if_not(text.begin(), text.end(), is) - text.begin());
}

// What stands at the front of a text.
struct Found {
  std::size_t length;
  std::string value;  // in one form, however it is written
};

bool IdentifiesAHost(unsigned firstOctet) {
  return firstOctet != 0 && firstOctet != 127 && firstOctet != 255;
}

std::optional<Found> DottedAddress(std::string_view text) {
  std::size_t at = 0;
  unsigned first = 0;
  for (int group = 0; group < 4; ++group) {
    if (group > 0 && (at >= text.size() || text[at++] != '.')) return {};
    const std::size_t digits = RunOf(text.substr(at), IsDigit);
    unsigned octet = 256;
    if (digits < 1 || digits > 3) return {};
    std::from_chars(text.data() + at, text.data() + at + digits, octet);
    if (octet > 255) return {};
    if (group == 0) first = octet;
    at += digits;
  }
  const bool goesOn = at + 1 < text.size() && text[at] == '.' && IsDigit(text[at + 1]);
  if (goesOn || !IdentifiesAHost(first)) return {};
  return Found{at, std::string(text.substr(0, at))};
}

std::optional<Found> HexAddress(std::string_view text) {
  if (text.size() < 2 || text[0] != '0' || ToLower(text[1]) != 'x') return {};
  const std::size_t digits = RunOf(text.substr(2), IsHex);
  if (digits != 7 && digits != 8) return {};
  std::uint32_t address = 0;
  std::from_chars(text.data() + 2, text.data() + 2 + digits, address, 16);
  if (!IdentifiesAHost(address & 0xFF)) return {};
  std::string dotted;
  for (int shift = 0; shift < 32; shift += 8)
    dotted += (shift == 0 ? "" : ".") + std::to_string(address >> shift & 0xFF);
  return Found{2 + digits, dotted};
}

std::optional<Found> MacAddress(std::string_view text) {
  constexpr std::size_t kLength = 17;  // six groups of two digits, five separators
  if (text.size() < kLength || (text[2] != ':' && text[2] != '-')) return {};
  for (std::size_t i = 0; i < kLength; ++i) {
    if (i % 3 == 2 ? text[i] != text[2] : !IsHex(text[i])) return {};
  }
  std::string value = Folded(text.substr(0, kLength));
  std::replace(value.begin(), value.end(), '-', ':');
  return Found{kLength, value};
}

std::optional<Found> Ipv6Address(std::string_view text) {
  const std::size_t length = RunOf(text, [](char c) { return IsHex(c) || c == ':'; });
  const std::string_view run = text.substr(0, length);
  const auto colons = std::count(run.begin(), run.end(), ':');
  const bool isShort = run.find("::") != std::string_view::npos && colons >= 2 && length > 3;
  if (!isShort && colons != 7) return {};
  return Found{length, Folded(run)};
}

struct Kind {
  const char* name;
  std::optional<Found> (*match)(std::string_view text);
};
constexpr Kind kKinds[] = {
    {"mac", MacAddress}, {"ip", DottedAddress}, {"ip", HexAddress}, {"ip", Ipv6Address}};

// Behind which a name stands.
struct NamePlace {
  std::string_view before;
  const char* kind;
};
constexpr NamePlace kNamePlaces[] = {
    {"OS DomainName: ", "host"}, {"OS Hostname: ", "host"}, {"DNS domain: ", "host"},
    {"subscribing to ", "host"}, {"Username ", "user"},     {"\\Users\\", "user"},
    {"/home/", "user"},
};
constexpr std::string_view kNameEnds = " ;:,<>\"'/\\\r\n\t";

// Names that every host has.
constexpr std::string_view kCommonNames[] = {"administrator", "all",    "default", "localhost",
                                             "public",        "system", "root",    "none"};

bool IsAnAddress(std::string_view text) {
  return std::any_of(std::begin(kKinds), std::end(kKinds), [text](const Kind& kind) {
    const std::optional<Found> found = kind.match(text);
    return found && found->length == text.size();
  });
}

}  // namespace

void Masker::Learn(std::string_view text) {
  for (const NamePlace& place : kNamePlaces) {
    for (std::size_t at = text.find(place.before); at != std::string_view::npos;
         at = text.find(place.before, at)) {
      at += place.before.size();
      const std::string_view name = text.substr(at, text.find_first_of(kNameEnds, at) - at);
      if (!IsAnAddress(name)) AddName(place.kind, name);
    }
  }
}

void Masker::AddName(const char* kind, std::string_view name) {
  const std::string folded = Folded(name);
  const auto isFolded = [&folded](std::string_view common) { return common == folded; };
  const auto isKnown = [&folded](const Name& known) { return known.folded == folded; };
  if (name.size() < kShortestName || names_.size() == kMostNames ||
      std::any_of(std::begin(kCommonNames), std::end(kCommonNames), isFolded) ||
      std::any_of(names_.begin(), names_.end(), isKnown))
    return;
  names_.push_back({folded, Placeholder(kind, folded)});
  // The longest first: a host's full name before its first label.
  std::stable_sort(names_.begin(), names_.end(),
                   [](const Name& a, const Name& b) { return a.folded.size() > b.folded.size(); });
}

const std::string& Masker::Placeholder(const char* kind, const std::string& value) {
  std::string& placeholder = placeholders_[std::string(kind) + " " + value];
  if (placeholder.empty()) placeholder = std::string(kind) + "-" + std::to_string(++counts_[kind]);
  return placeholder;
}

std::string Masker::Mask(std::string_view text) {
  std::string masked;
  masked.reserve(text.size());
  // Where a value may begin: not within a word, and not after a dot that belongs to a number.
  const auto begins = [text](std::size_t at) {
    return at == 0 || !(IsWord(text[at - 1]) || (text[at - 1] == '.' && IsDigit(text[at])));
  };
  const auto ends = [text](std::size_t at) { return at >= text.size() || !IsWord(text[at]); };
  for (std::size_t at = 0; at < text.size();) {
    const std::string_view rest = text.substr(at);
    std::size_t used = 0;
    if (begins(at) && (IsWord(rest[0]) || rest[0] == ':')) {
      for (const Kind& kind : kKinds) {
        const std::optional<Found> found = kind.match(rest);
        if (!found || !ends(at + found->length)) continue;
        if (std::find(kept_.begin(), kept_.end(), found->value) != kept_.end()) continue;
        masked += Placeholder(kind.name, found->value);
        used = found->length;
        break;
      }
      for (const Name& name : names_) {
        if (used != 0 || !ends(at + name.folded.size())) continue;
        if (!EqualIgnoringCase(rest.substr(0, name.folded.size()), name.folded)) continue;
        masked += name.placeholder;
        used = name.folded.size();
      }
    }
    if (used == 0) masked += text[at];
    at += used != 0 ? used : 1;
  }
  return masked;
}

}  // namespace stewardry::tools

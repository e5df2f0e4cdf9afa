#include "tools/logs/log_line.h"

#include <charconv>
#include <iterator>

#include "service/diagnostics/log_file.h"
#include "text/code_points.h"
#include "tools/logs/log_time.h"

namespace stewardry::tools {

namespace {

// Takes fixed texts and numbers from the front of a text. Once something does not fit, nothing
// fits any more.
class Scanner {
 public:
  explicit Scanner(std::string_view text) : rest_(text) {}

  Scanner& Skip(std::string_view fixed) {
    ok_ = ok_ && rest_.starts_with(fixed);
    if (ok_) rest_.remove_prefix(fixed.size());
    return *this;
  }
  Scanner& SkipBlanks() {
    while (ok_ && rest_.starts_with(' ')) rest_.remove_prefix(1);
    return *this;
  }
  template <class Number>
  Scanner& Take(Number* number) {
    const auto [end, error] = std::from_chars(rest_.data(), rest_.data() + rest_.size(), *number);
    ok_ = ok_ && error == std::errc();
    if (ok_) rest_.remove_prefix(static_cast<std::size_t>(end - rest_.data()));
    return *this;
  }
  // Takes one of the names; its index counts from 0.
  Scanner& TakeName(const char* const (&names)[12], int* index) {
    for (int i = 0; ok_ && i < 12; ++i) {
      if (!rest_.starts_with(names[i])) continue;
      *index = i;
      return Skip(names[i]);
    }
    ok_ = false;
    return *this;
  }
  bool IsOk() const { return ok_; }
  std::string_view Rest() const { return rest_; }

 private:
  std::string_view rest_;
  bool ok_ = true;
};

// Keeps code points that can be shown. NULs disappear, which makes UTF-16 of ASCII readable; other
// control characters become blanks, and each invalid byte a U+FFFD.
std::string Readable(std::string_view bytes) {
  std::string text;
  text.reserve(bytes.size());
  while (!bytes.empty()) {
    const auto unit = static_cast<unsigned char>(bytes[0]);
    if (unit >= 0x20 && unit < 0x7F) {
      text += bytes[0];
      bytes.remove_prefix(1);
      continue;
    }
    const DecodedPoint decoded = DecodePoint(bytes);
    const bool isControl = decoded.point < 0x20 || (decoded.point >= 0x7F && decoded.point < 0xA0);
    char encoded[4];
    if (decoded.point == 0) {
      // dropped
    } else if (isControl) {
      text += ' ';
    } else {
      text.append(encoded, EncodePoint(decoded.point, encoded));
    }
    bytes.remove_prefix(decoded.isValid ? decoded.size : 1);
  }
  while (text.ends_with(' ')) text.pop_back();
  return text;
}

// "INFO:  ", "WARN:  " and "ERROR: " at the front.
void TakeLevel(std::string_view* rest, std::string* level) {
  for (const char* known : {"INFO", "WARN", "ERROR"}) {
    Scanner scanner(*rest);
    if (!scanner.Skip(known).Skip(":").SkipBlanks().IsOk()) continue;
    *level = known;
    *rest = scanner.Rest();
    return;
  }
}

// " <thread=29129 (0x71c9)>" at the end, which both logs write.
void TakeThread(std::string_view* rest, std::uint32_t* thread) {
  constexpr std::string_view kMark = "<thread=";
  const std::size_t at = rest->rfind(kMark);
  if (at == std::string_view::npos) return;
  Scanner(rest->substr(at + kMark.size())).Take(thread);
  *rest = rest->substr(0, at);
}

// "INFO:  <2026/11/22 22:25:42>[29125]-[ 34 M ] message <thread=29129 (0x71c9)>"
bool ParseServiceLine(std::string_view rest, LogLine* line) {
  TakeLevel(&rest, &line->level);
  int year = 0, month = 0, day = 0, hour = 0, minute = 0, second = 0, megabytes = 0;
  Scanner scanner(rest);
  scanner.Skip("<").Take(&year).Skip("/").Take(&month).Skip("/").Take(&day).Skip(" ");
  scanner.Take(&hour).Skip(":").Take(&minute).Skip(":").Take(&second).Skip(">[");
  scanner.Take(&line->process).Skip("]-[ ").Take(&megabytes).Skip(" M ] ");
  if (!scanner.IsOk()) return false;
  line->time = LocalSeconds(year, month, day, hour, minute, second);
  rest = scanner.Rest();
  TakeThread(&rest, &line->thread);
  line->text = Readable(rest);
  return true;
}

// "Nov 22 22:25:42", with a fraction before the year in the WMI log.
bool TakeDate(Scanner* scanner, std::int64_t* time) {
  int year = 0, month = 0, day = 0, hour = 0, minute = 0, second = 0, milliseconds = 0;
  scanner->SkipBlanks().TakeName(kMonthNames, &month).Skip(" ").Take(&day).Skip(" ");
  scanner->Take(&hour).Skip(":").Take(&minute).Skip(":").Take(&second);
  if (scanner->Rest().starts_with('.')) scanner->Skip(".").Take(&milliseconds);
  scanner->Skip(" ").Take(&year);
  if (!scanner->IsOk()) return false;
  *time = LocalSeconds(year, month + 1, day, hour, minute, second);
  return *time != 0;
}

// "[29125]-[ 34 M ] INFO:  message $$<TAVRIN_WMI><Sun  Nov 22 22:25:42.608 2026 UTC><thread=...>";
// the name of the time zone, which is the local one, ends the date.
bool ParseWmiLine(std::string_view rest, LogLine* line) {
  int megabytes = 0;
  Scanner head(rest);
  head.Skip("[").Take(&line->process).Skip("]-[ ").Take(&megabytes).Skip(" M ] ");
  const std::size_t tail = head.IsOk() ? head.Rest().rfind(" $$<") : std::string_view::npos;
  if (tail == std::string_view::npos) return false;
  std::string_view message = head.Rest().substr(0, tail);
  std::string_view dated = head.Rest().substr(tail);
  TakeThread(&dated, &line->thread);
  const std::size_t date = dated.find("><");
  if (date == std::string_view::npos || dated.size() < date + 5) return false;
  Scanner scanner(dated.substr(date + 5));  // behind "><Sun"
  if (!TakeDate(&scanner, &line->time)) return false;
  TakeLevel(&message, &line->level);
  line->text = Readable(message);
  return true;
}

// "Sun Nov 22 22:25:46 2026: message"
bool ParseSideLine(std::string_view rest, LogLine* line) {
  if (rest.size() < 4) return false;
  Scanner scanner(rest.substr(3));
  if (!TakeDate(&scanner, &line->time) || !scanner.Skip(": ").IsOk()) return false;
  line->text = Readable(scanner.Rest());
  return true;
}

bool ParseNothing(std::string_view, LogLine*) { return false; }

constexpr bool (*kParsers[])(std::string_view, LogLine*) = {ParseServiceLine, ParseWmiLine,
                                                            ParseSideLine, ParseNothing};
static_assert(std::size(kParsers) == kLogCount);

}  // namespace

LogLine ParseLogLine(Log log, std::string_view bytes) {
  LogLine line;
  line.log = log;
  if (bytes.ends_with('\r')) bytes.remove_suffix(1);
  line.hasOwnTime = kParsers[static_cast<int>(log)](bytes, &line) && line.time != 0;
  if (line.hasOwnTime) return line;
  line = LogLine();
  line.log = log;
  line.text = Readable(bytes);
  return line;
}

}  // namespace stewardry::tools

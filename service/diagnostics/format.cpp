// The formatter behind every log line.
#include "service/diagnostics/format.h"

#include <algorithm>
#include <cstring>

namespace stewardry {

namespace {

// Appends to a bounded buffer and drops what doesn't fit.
class Output {
 public:
  Output(char* out, std::size_t size) : out_(out), room_(size - 1) {}

  void Put(std::string_view text) {
    const std::size_t n = std::min(text.size(), room_ - length_);
    std::memcpy(out_ + length_, text.data(), n);
    length_ += n;
  }
  void Put(char c) {
    if (length_ < room_) out_[length_++] = c;
  }
  void Fill(char c, int count) {
    for (; count > 0 && length_ < room_; --count) Put(c);
  }
  std::size_t Finish() {
    out_[length_] = 0;
    return length_;
  }

 private:
  char* out_;
  std::size_t room_;
  std::size_t length_ = 0;
};

void PutPadded(Output* out, const Conversion& c, std::string_view sign, std::string_view body) {
  const int pad = c.width - static_cast<int>(sign.size() + body.size());
  if (!c.zeroPadded) out->Fill(' ', pad);
  out->Put(sign);
  if (c.zeroPadded) out->Fill('0', pad);
  out->Put(body);
}

// The value as its own width holds it: unsigned, or signed for %d.
std::uint64_t Truncated(const FormatArg& arg) {
  return arg.width >= 8 ? arg.integer : arg.integer & ((std::uint64_t{1} << (8 * arg.width)) - 1);
}

bool IsNegative(const FormatArg& arg) {
  // Nothing narrower than an int is passed as one: a byte of 255 is 255, as a promotion makes it.
  if (arg.width < 4) return static_cast<std::int64_t>(arg.integer) < 0;
  return (Truncated(arg) >> (8 * arg.width - 1)) != 0;
}

std::uint64_t Negated(const FormatArg& arg) {
  FormatArg negated = arg;
  negated.integer = ~arg.integer + 1;
  return Truncated(negated);
}

void PutInteger(Output* out, const Conversion& c, const FormatArg& arg) {
  const bool isDecimal = c.letter == 'd' || c.letter == 'i' || c.letter == 'u';
  const bool isSigned = c.letter == 'd' || c.letter == 'i';
  const bool negative = isSigned && IsNegative(arg);
  std::uint64_t value = negative ? Negated(arg) : Truncated(arg);
  const char* digits = c.letter == 'X' ? "0123456789ABCDEF" : "0123456789abcdef";
  const unsigned base = isDecimal ? 10 : 16;
  char text[64];
  char* at = text + sizeof text;
  int count = 0;
  do {
    *--at = digits[value % base];
    value /= base;
  } while (++count < 60 && (value != 0 || count < c.precision));
  const char* sign = negative ? "-" : isSigned && c.blankSign ? " " : "";
  PutPadded(out, c, sign, {at, static_cast<std::size_t>(count)});
}

// UTF-8 of one code point; a lone surrogate becomes the replacement character.
void PutCodePoint(Output* out, char32_t c) {
  char bytes[4];
  std::size_t n = 0;
  auto tail = [&](int shift) { bytes[n++] = static_cast<char>(0x80 | ((c >> shift) & 0x3F)); };
  if (c < 0x80) {
    bytes[n++] = static_cast<char>(c);
  } else if (c < 0x800) {
    bytes[n++] = static_cast<char>(0xC0 | (c >> 6));
    tail(0);
  } else if (c < 0x10000) {
    bytes[n++] = static_cast<char>(0xE0 | (c >> 12));
    tail(6);
    tail(0);
  } else {
    bytes[n++] = static_cast<char>(0xF0 | (c >> 18));
    tail(12);
    tail(6);
    tail(0);
  }
  out->Put(std::string_view(bytes, n));
}

void PutWide(Output* out, const char16_t* text) {
  for (; *text != 0; ++text) {
    char32_t c = *text;
    const bool high = c >= 0xD800 && c < 0xDC00;
    if (high && text[1] >= 0xDC00 && text[1] < 0xE000) {
      c = 0x10000 + ((c - 0xD800) << 10) + (static_cast<char32_t>(*++text) - 0xDC00);
    } else if (c >= 0xD800 && c < 0xE000) {
      c = 0xFFFD;
    }
    PutCodePoint(out, c);
  }
}

void PutText(Output* out, const Conversion& c, const FormatArg& arg) {
  if (arg.wide != nullptr) return PutWide(out, arg.wide);
  std::string_view text = arg.text != nullptr ? arg.text : "(null)";
  if (c.precision >= 0) text = text.substr(0, static_cast<std::size_t>(c.precision));
  Conversion blanks = c;
  blanks.zeroPadded = false;
  PutPadded(out, blanks, "", text);
}

void PutConversion(Output* out, const Conversion& c, const FormatArg& arg) {
  if (c.letter == 's') return PutText(out, c, arg);
  if (c.letter == 'c') return out->Put(static_cast<char>(arg.integer));
  PutInteger(out, c, arg);
}

}  // namespace

std::size_t FormatText(char* out, std::size_t size, std::string_view format,
                       std::span<const FormatArg> args) {
  Output output(out, size);
  std::size_t used = 0;
  for (std::size_t i = 0; i < format.size();) {
    const std::size_t next = std::min(format.find('%', i), format.size());
    output.Put(format.substr(i, next - i));
    if (next == format.size()) break;
    const Conversion c = ReadConversion(format, next);
    i = c.end;
    if (c.letter == '%') {
      output.Put('%');
    } else if (c.letter != 0 && used < args.size()) {
      PutConversion(&output, c, args[used++]);
    }
  }
  return output.Finish();
}

std::string PrintableText(std::string_view text) {
  std::string printable(text);
  std::replace_if(
      printable.begin(), printable.end(),
      [](char c) { return static_cast<unsigned char>(c) < 0x20 || c == 0x7F; }, '?');
  return printable;
}

bool EqualIgnoringCase(const char* a, const char* b) {
  auto lower = [](char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c; };
  for (; *a != 0 && lower(*a) == lower(*b); ++a, ++b) {
  }
  return lower(*a) == lower(*b);
}

}  // namespace stewardry

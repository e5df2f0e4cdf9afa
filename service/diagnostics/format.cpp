#include "service/diagnostics/format.h"

#include <algorithm>
#include <cassert>
#include <cstring>

#include "text/code_points.h"

namespace stewardry {

namespace {

// Appends to a bounded buffer and drops what does not fit.
class Output {
 public:
  Output(char* out, std::size_t size) : out_(out), room_(size - 1) {
    assert(out != nullptr && size > 0);
  }

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
  if (!c.isZeroPadded) out->Fill(' ', pad);
  out->Put(sign);
  if (c.isZeroPadded) out->Fill('0', pad);
  out->Put(body);
}

// Returns the value cut to the width of its type.
std::uint64_t Truncated(const FormatArg& arg) {
  return arg.width >= 8 ? arg.integer : arg.integer & ((std::uint64_t{1} << (8 * arg.width)) - 1);
}

bool IsNegative(const FormatArg& arg) {
  // A narrower value was promoted to int before: a byte of 255 is not negative.
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
  char text[64];
  char* at = text + sizeof text;
  int count = 0;
  do {  // a division by a constant base is no division
    *--at = digits[isDecimal ? value % 10 : value % 16];
    value = isDecimal ? value / 10 : value / 16;
  } while (++count < 60 && (value != 0 || count < c.precision));
  const std::string_view sign = negative ? "-" : isSigned && c.hasBlank ? " " : "";
  PutPadded(out, c, sign, {at, static_cast<std::size_t>(count)});
}

void PutWide(Output* out, std::u16string_view text) {
  while (!text.empty()) {
    const DecodedPoint decoded = DecodePoint(text);
    char bytes[4];
    out->Put(std::string_view(bytes, EncodePoint(decoded.point, bytes)));
    text.remove_prefix(decoded.size);
  }
}

void PutText(Output* out, const Conversion& c, const FormatArg& arg) {
  if (arg.wide != nullptr) return PutWide(out, arg.wide);
  std::string_view text = arg.text != nullptr ? arg.text : "(null)";
  if (c.precision >= 0) text = text.substr(0, static_cast<std::size_t>(c.precision));
  Conversion blanks = c;
  blanks.isZeroPadded = false;
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
  for (std::size_t at = 0; at < format.size();) {
    const std::size_t next = std::min(format.find('%', at), format.size());
    output.Put(format.substr(at, next - at));
    if (next == format.size()) break;
    at = next + 1;
    const Conversion c = ReadFormatConversion(format, &at);
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

}  // namespace stewardry

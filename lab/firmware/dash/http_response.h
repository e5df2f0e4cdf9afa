// HTTP/1.1 responses. A body is a text that the response owns, or a pattern that is generated piece
// by piece, so that a long one takes no memory.
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace orrin {

struct HttpResponse {
  int status = 200;
  std::string contentType;  // empty: no such field
  std::string body;
  std::uint64_t patternLength = 0;  // not 0: a pattern of so many bytes instead of `body`
  std::vector<std::pair<std::string, std::string>> fields;
  // A firmware command that must reach the host before the first byte of this response does.
  std::optional<std::uint8_t> command;
  std::string note;  // for the trace, or empty
};

// Returns the byte at an offset of the pattern. The period is a prime, which reveals a lost,
// doubled or swapped block of any power of two.
constexpr std::uint8_t PatternByte(std::uint64_t offset) {
  return static_cast<std::uint8_t>(offset % 251);
}

// Returns the status line and the fields, with Content-Length and, if `close`, Connection.
std::string ResponseHead(const HttpResponse& response, bool close);

// Returns a response piece by piece.
class ResponseStream {
 public:
  // `bare` omits the body, as HEAD requires.
  ResponseStream(HttpResponse response, bool close, bool bare);
  // Returns the next piece, at most 16384 bytes (one TLS record), or an empty one at the end. It is
  // valid until the next call.
  std::string_view Next();
  bool ClosesAfter() const { return close_; }

 private:
  std::string_view NextOfPattern();

  HttpResponse response_;
  bool close_;
  std::string first_;  // the head, with the start of the body
  bool firstTaken_ = false;
  std::uint64_t offset_ = 0;
  std::uint64_t end_;
  std::string pattern_;
};

}  // namespace orrin

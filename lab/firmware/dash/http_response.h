// HTTP/1.1 responses. A body is a text that the response owns, or a pattern that is made while it
// leaves, so that a long one takes no memory.
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
};

// The byte at an offset of the pattern. Its period is a prime, so that a lost, doubled or swapped
// block of any power of two shows.
constexpr std::uint8_t PatternByte(std::uint64_t offset) {
  return static_cast<std::uint8_t>(offset % 251);
}

// The status line and fields of a response, with Content-Length and, when `close`, Connection.
std::string ResponseHead(const HttpResponse& response, bool close);

// Hands out a response piece by piece.
class ResponseStream {
 public:
  // `bare` leaves the body away, as HEAD asks for.
  ResponseStream(HttpResponse response, bool close, bool bare);
  // The next piece, at most 16384 bytes (one TLS record); empty when all has been handed out. Valid
  // until the next call.
  std::string_view Next();
  bool ClosesAfter() const { return close_; }

 private:
  std::string_view NextOfPattern();

  HttpResponse response_;
  bool close_;
  std::string first_;  // the head, with the start of a body that fits beside it
  bool firstTaken_ = false;
  std::uint64_t offset_ = 0;
  std::uint64_t end_;
  std::string pattern_;
};

}  // namespace orrin

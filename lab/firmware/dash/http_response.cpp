#include "lab/firmware/dash/http_response.h"

#include <algorithm>
#include <cinttypes>

#include "lab/firmware/core/text.h"

namespace orrin {
namespace {

// RFC 8446, section 5.1: the most that one record carries.
constexpr std::size_t kPiece = 16384;

struct Reason {
  int status;
  const char* words;
};

constexpr Reason kReasons[] = {
    {200, "OK"},
    {400, "Bad Request"},
    {401, "Unauthorized"},
    {403, "Forbidden"},
    {404, "Not Found"},
    {405, "Method Not Allowed"},
    {413, "Content Too Large"},
    {417, "Expectation Failed"},
    {431, "Request Header Fields Too Large"},
    {500, "Internal Server Error"},
    {501, "Not Implemented"},
    {505, "HTTP Version Not Supported"},
};

const char* ReasonOf(int status) {
  for (const Reason& reason : kReasons) {
    if (reason.status == status) return reason.words;
  }
  return "Unknown";
}

std::uint64_t BodyLength(const HttpResponse& response) {
  return response.patternLength != 0 ? response.patternLength : response.body.size();
}

}  // namespace

std::string ResponseHead(const HttpResponse& response, bool close) {
  std::string head = Format("HTTP/1.1 %d %s\r\n", response.status, ReasonOf(response.status));
  if (!response.contentType.empty()) head += "Content-Type: " + response.contentType + "\r\n";
  for (const auto& [name, value] : response.fields) head += name + ": " + value + "\r\n";
  head += Format("Content-Length: %" PRIu64 "\r\n", BodyLength(response));
  if (close) head += "Connection: close\r\n";
  return head + "\r\n";
}

ResponseStream::ResponseStream(HttpResponse response, bool close, bool bare)
    : response_(std::move(response)),
      close_(close),
      first_(ResponseHead(response_, close)),
      end_(bare ? 0 : BodyLength(response_)) {
  // A short answer is one record and one frame.
  if (response_.patternLength == 0 && end_ > 0 && first_.size() < kPiece) {
    const auto beside = std::min<std::uint64_t>(end_, kPiece - first_.size());
    first_.append(response_.body, 0, static_cast<std::size_t>(beside));
    offset_ = beside;
  }
}

std::string_view ResponseStream::Next() {
  if (!firstTaken_) {
    firstTaken_ = true;
    return first_;
  }
  if (offset_ == end_) return {};
  if (response_.patternLength != 0) return NextOfPattern();
  const std::string_view piece =
      std::string_view(response_.body).substr(static_cast<std::size_t>(offset_), kPiece);
  offset_ += piece.size();
  return piece;
}

std::string_view ResponseStream::NextOfPattern() {
  pattern_.resize(static_cast<std::size_t>(std::min<std::uint64_t>(kPiece, end_ - offset_)));
  for (char& c : pattern_) c = static_cast<char>(PatternByte(offset_++));
  return pattern_;
}

}  // namespace orrin

// Reads HTTP/1.1 requests from a byte stream (RFC 9112). Any peer on the network may send it,
// without a password: every length is bounded before it is used, and a request that two readers
// could understand differently is refused. It is our own reader: the parser library that Debian 12
// has is no longer maintained.
#pragma once

#include <cassert>
#include <cstdint>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace orrin {

constexpr std::size_t kMaxHttpHead = 16 * 1024;
constexpr std::size_t kMaxHttpBody = std::size_t{64} << 20;

struct HttpRequest {
  std::string method;
  std::string target;    // origin form: the path and query, also of an absolute-form target
  int minorVersion = 1;  // of HTTP/1.x
  std::vector<std::pair<std::string, std::string>> fields;  // names in lower case, values trimmed
  std::string body;
  bool keepAlive = true;

  // Returns the first field of that lower-case name, or null if there is none.
  const std::string* Field(std::string_view lowerName) const;
};

// Reads one request after another. One thread.
class HttpRequestReader {
 public:
  // Reads up to the end of the current request. Returns how many bytes it has read: none once the
  // request is complete or refused.
  std::size_t Feed(std::string_view bytes);

  bool IsComplete() const { return step_ == Step::kComplete; }
  // Returns the status that refuses the request (400, 413, 417, 431, 501, 505), or 0.
  int Failure() const { return failure_; }
  // Returns true once for a request whose sender waits for 100 (Continue) before it sends the body.
  bool TakeContinueRequest();
  // Returns true after the first byte of a request and before its last.
  bool IsPartial() const;

  // The request read last; valid once it is complete. The caller may move parts out of it.
  HttpRequest& Request() {
    assert(IsComplete());
    return request_;
  }
  // Prepares for the next request.
  void Reset() { *this = HttpRequestReader(); }

 private:
  enum class Step {
    kRequestLine,
    kField,
    kBody,
    kChunkSize,
    kChunkData,
    kChunkEnd,
    kTrailer,
    kComplete,
    kFailed
  };

  // Ends the request unless the status is 0. Returns true if it is 0. The result may be ignored
  // where nothing of the step follows.
  bool Accept(int status);
  bool InBody() const { return step_ == Step::kBody || step_ == Step::kChunkData; }
  std::size_t FeedBody(std::string_view bytes);
  std::size_t FeedLine(std::string_view bytes);
  void HandleLine();
  void FinishHead();
  int HandleChunkSize(std::string_view line);

  Step step_ = Step::kRequestLine;
  int failure_ = 0;
  bool awaitsContinue_ = false;
  std::string line_;
  std::size_t headBytes_ = 0;
  std::uint64_t bodyLeft_ = 0;  // of the body, or of the chunk
  HttpRequest request_;
};

}  // namespace orrin

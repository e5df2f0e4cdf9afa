// HTTP/1.1 requests out of a byte stream (RFC 9112). The stream comes from any peer on the network,
// through TLS but without a password: every length is bounded before it is believed, and whatever
// two readers could understand differently is refused.
#pragma once

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

  // The first field of that lower-case name; null when there is none.
  const std::string* Field(std::string_view lowerName) const;
};

// Reads one request after another. One thread.
class HttpRequestReader {
 public:
  // Takes bytes up to the end of the current request and says how many it took. After kComplete or
  // kFailed it takes none.
  std::size_t Feed(std::string_view bytes);

  bool IsComplete() const { return step_ == Step::kComplete; }
  // The status that refuses the request (400, 413, 417, 431, 501, 505); 0 while nothing is wrong.
  int Failure() const { return failure_; }
  // True once for a request whose sender waits for 100 (Continue) before it sends the body.
  bool TakeContinueWish();
  // True while some of a request is there, but not all of it.
  bool IsPartial() const;

  // The request read last; valid when complete. Its owner may move parts out of it.
  HttpRequest& Request() { return request_; }
  // Ready for the next request.
  void Reset();

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

  void Fail(int status);
  bool InBody() const { return step_ == Step::kBody || step_ == Step::kChunkData; }
  std::size_t FeedBody(std::string_view bytes);
  std::size_t FeedLine(std::string_view bytes);
  void TakeLine();
  void TakeRequestLine(std::string_view line);
  void TakeField(std::string_view line);
  void TakeChunkSize(std::string_view line);
  void FinishHead();
  bool CheckHosts();
  bool ReadConnection();
  bool ReadBodyLength(bool* chunked, std::uint64_t* length);
  bool ReadExpectation(bool hasBody);

  Step step_ = Step::kRequestLine;
  int failure_ = 0;
  bool continueWish_ = false;
  std::string line_;
  std::size_t headBytes_ = 0;
  std::uint64_t bodyLeft_ = 0;  // of the body, or of the chunk
  HttpRequest request_;
};

}  // namespace orrin

#include "lab/firmware/dash/http_request.h"

#include <algorithm>
#include <cassert>
#include <optional>

#include "lab/firmware/core/text.h"

namespace orrin {
namespace {

constexpr std::size_t kMaxChunkLine = 1024;

// RFC 9110, section 5.6.2.
bool IsTokenChar(char c) {
  if ((c >= '0' && c <= '9') || (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z')) return true;
  return std::string_view("!#$%&'*+-.^_`|~").find(c) != std::string_view::npos;
}

bool IsToken(std::string_view text) {
  return !text.empty() && std::all_of(text.begin(), text.end(), IsTokenChar);
}

// A field value: no control character but the tab.
bool IsFieldValue(std::string_view text) {
  return std::all_of(text.begin(), text.end(), [](char c) {
    const auto byte = static_cast<unsigned char>(c);
    return c == '\t' || (byte >= 0x20 && byte != 0x7F);
  });
}

bool IsVisible(std::string_view text) {
  return std::all_of(text.begin(), text.end(), [](char c) { return c > 0x20 && c < 0x7F; });
}

// Returns true if a comma-separated list contains the token, case ignored.
bool ListContains(std::string_view list, std::string_view token) {
  while (!list.empty()) {
    const std::size_t comma = std::min(list.find(','), list.size());
    if (SameIgnoringCase(Trimmed(list.substr(0, comma)), token)) return true;
    list.remove_prefix(std::min(comma + 1, list.size()));
  }
  return false;
}

// Returns the path of "http://host/path", an origin-form target as it is, and nothing for any other
// form.
std::optional<std::string> OriginForm(std::string_view target) {
  if (target.starts_with('/') || target == "*") return std::string(target);
  const std::size_t scheme = target.find("://");
  if (scheme == std::string_view::npos) return std::nullopt;
  const std::string name = LowerCase(target.substr(0, scheme));
  if (name != "http" && name != "https") return std::nullopt;
  const std::size_t path = target.find('/', scheme + 3);
  return path == std::string_view::npos ? "/" : std::string(target.substr(path));
}

bool IsDigit(char c) { return c >= '0' && c <= '9'; }

// Each function below reads a part of the head into the request. They return 0, or the status that
// refuses the request.

int ReadRequestLine(std::string_view line, HttpRequest* request) {
  const std::size_t first = line.find(' ');
  const std::size_t last = line.rfind(' ');
  if (first == std::string_view::npos || first == last) return 400;
  const std::string_view method = line.substr(0, first);
  const std::string_view target = line.substr(first + 1, last - first - 1);
  const std::string_view version = line.substr(last + 1);
  if (!IsToken(method) || target.empty() || !IsVisible(target)) return 400;
  const bool wellFormed = version.size() == 8 && version.starts_with("HTTP/") &&
                          IsDigit(version[5]) && version[6] == '.' && IsDigit(version[7]);
  if (!wellFormed) return 400;
  if (version[5] != '1') return 505;
  auto origin = OriginForm(target);
  if (!origin) return 400;
  request->method = method;
  request->target = std::move(*origin);
  request->minorVersion = version[7] == '0' ? 0 : 1;
  return 0;
}

int ReadField(std::string_view line, HttpRequest* request) {
  const std::size_t colon = line.find(':');
  if (colon == std::string_view::npos) return 400;
  const std::string_view name = line.substr(0, colon);
  const std::string_view value = Trimmed(line.substr(colon + 1));
  // This also refuses a folded line and blanks before the colon.
  if (!IsToken(name) || !IsFieldValue(value)) return 400;
  request->fields.emplace_back(LowerCase(name), value);
  return 0;
}

int CheckHosts(const HttpRequest& request) {
  const auto hosts = std::count_if(request.fields.begin(), request.fields.end(),
                                   [](const auto& field) { return field.first == "host"; });
  return hosts == 1 || (hosts == 0 && request.minorVersion == 0) ? 0 : 400;
}

void ReadConnection(HttpRequest* request) {
  request->keepAlive = request->minorVersion == 1;
  bool close = false;
  for (const auto& [name, value] : request->fields) {
    if (name != "connection") continue;
    if (ListContains(value, "keep-alive")) request->keepAlive = true;
    if (ListContains(value, "close")) close = true;
  }
  if (close) request->keepAlive = false;
}

int ReadBodyLength(const HttpRequest& request, bool* chunked, std::uint64_t* length) {
  const std::string* coding = nullptr;
  const std::string* declared = nullptr;
  bool contradicts = false;
  for (const auto& [name, value] : request.fields) {
    if (name == "transfer-encoding") {
      contradicts = contradicts || coding != nullptr;
      coding = &value;
    } else if (name == "content-length") {
      contradicts = contradicts || (declared != nullptr && *declared != value);
      declared = &value;
    }
  }
  // Two statements of the length are how one request is smuggled inside another.
  if (contradicts || (coding != nullptr && declared != nullptr)) return 400;
  if (coding != nullptr) {
    if (request.minorVersion == 0) return 400;
    if (!SameIgnoringCase(*coding, "chunked")) return 501;
    *chunked = true;
  }
  if (declared == nullptr) return 0;
  if (declared->empty() || !std::all_of(declared->begin(), declared->end(), IsDigit)) return 400;
  const auto number = ParseNumber(*declared, kMaxHttpBody);
  if (!number) return 413;
  *length = *number;
  return 0;
}

int ReadExpectation(const HttpRequest& request, bool hasBody, bool* awaitsContinue) {
  const std::string* expectation = request.Field("expect");
  if (expectation == nullptr || request.minorVersion == 0) return 0;
  if (!SameIgnoringCase(*expectation, "100-continue")) return 417;
  *awaitsContinue = hasBody;
  return 0;
}

}  // namespace

const std::string* HttpRequest::Field(std::string_view lowerName) const {
  for (const auto& [name, value] : fields) {
    if (name == lowerName) return &value;
  }
  return nullptr;
}

std::size_t HttpRequestReader::Feed(std::string_view bytes) {
  std::size_t used = 0;
  while (used < bytes.size() && step_ != Step::kComplete && step_ != Step::kFailed) {
    const std::string_view rest = bytes.substr(used);
    used += InBody() ? FeedBody(rest) : FeedLine(rest);
  }
  return used;
}

bool HttpRequestReader::TakeContinueRequest() { return std::exchange(awaitsContinue_, false); }

bool HttpRequestReader::IsPartial() const {
  if (step_ == Step::kComplete || step_ == Step::kFailed) return false;
  return step_ != Step::kRequestLine || !line_.empty();
}

bool HttpRequestReader::Accept(int status) {
  if (status == 0) return true;
  step_ = Step::kFailed;
  failure_ = status;
  request_.keepAlive = false;
  return false;
}

std::size_t HttpRequestReader::FeedBody(std::string_view bytes) {
  assert(InBody() && bodyLeft_ > 0);
  const auto count = static_cast<std::size_t>(std::min<std::uint64_t>(bytes.size(), bodyLeft_));
  request_.body.append(bytes.substr(0, count));
  bodyLeft_ -= count;
  if (bodyLeft_ == 0) step_ = step_ == Step::kBody ? Step::kComplete : Step::kChunkEnd;
  return count;
}

std::size_t HttpRequestReader::FeedLine(std::string_view bytes) {
  assert(!InBody());
  const bool inHead =
      step_ == Step::kRequestLine || step_ == Step::kField || step_ == Step::kTrailer;
  const std::size_t bound = inHead ? kMaxHttpHead - headBytes_ : kMaxChunkLine - line_.size();
  const std::size_t feed = bytes.find('\n');
  const std::size_t count = feed == std::string_view::npos ? bytes.size() : feed + 1;
  if (count > bound) {
    (void)Accept(inHead ? 431 : 400);
    return 0;
  }
  line_.append(bytes.substr(0, count));
  if (inHead) headBytes_ += count;
  if (feed != std::string_view::npos) HandleLine();
  return count;
}

void HttpRequestReader::HandleLine() {
  const std::string whole = std::exchange(line_, {});
  // A line feed alone ends a line for some readers and not for others.
  if (!Accept(whole.ends_with("\r\n") ? 0 : 400)) return;
  const std::string_view line = std::string_view(whole).substr(0, whole.size() - 2);
  switch (step_) {
    case Step::kRequestLine:
      // Empty lines before a request are allowed (RFC 9112, section 2.2).
      if (!line.empty() && Accept(ReadRequestLine(line, &request_))) step_ = Step::kField;
      return;
    case Step::kField:
      if (line.empty()) return FinishHead();
      (void)Accept(ReadField(line, &request_));
      return;
    case Step::kChunkSize:
      (void)Accept(HandleChunkSize(line));
      return;
    case Step::kChunkEnd:
      if (Accept(line.empty() ? 0 : 400)) step_ = Step::kChunkSize;
      return;
    case Step::kTrailer:
      if (line.empty()) step_ = Step::kComplete;
      return;  // trailer fields have no effect
    default:
      assert(false);
  }
}

void HttpRequestReader::FinishHead() {
  bool chunked = false;
  std::uint64_t length = 0;
  if (!Accept(CheckHosts(request_))) return;
  ReadConnection(&request_);
  if (!Accept(ReadBodyLength(request_, &chunked, &length))) return;
  if (!Accept(ReadExpectation(request_, chunked || length > 0, &awaitsContinue_))) return;
  bodyLeft_ = length;
  step_ = chunked ? Step::kChunkSize : length > 0 ? Step::kBody : Step::kComplete;
}

int HttpRequestReader::HandleChunkSize(std::string_view line) {
  const std::string_view digits = Trimmed(line.substr(0, line.find(';')));
  if (digits.starts_with("0x") || digits.starts_with("0X")) return 400;
  const auto size = ParseNumber("0x" + std::string(digits), UINT64_MAX);
  if (!size) return 400;
  if (*size > kMaxHttpBody - request_.body.size()) return 413;
  bodyLeft_ = *size;
  step_ = *size == 0 ? Step::kTrailer : Step::kChunkData;
  return 0;
}

}  // namespace orrin

#include "lab/firmware/dash/http_request.h"

#include <algorithm>
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

// Whether a comma-separated list holds the token, case ignored.
bool ListHolds(std::string_view list, std::string_view token) {
  while (!list.empty()) {
    const std::size_t comma = std::min(list.find(','), list.size());
    if (SameIgnoringCase(Trimmed(list.substr(0, comma)), token)) return true;
    list.remove_prefix(std::min(comma + 1, list.size()));
  }
  return false;
}

// The path of "http://host/path"; an origin-form target as it is; nothing for any other form.
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

}  // namespace

const std::string* HttpRequest::Field(std::string_view lowerName) const {
  for (const auto& [name, value] : fields) {
    if (name == lowerName) return &value;
  }
  return nullptr;
}

std::size_t HttpRequestReader::Feed(std::string_view bytes) {
  std::size_t taken = 0;
  while (taken < bytes.size() && step_ != Step::kComplete && step_ != Step::kFailed) {
    const std::string_view rest = bytes.substr(taken);
    taken += InBody() ? FeedBody(rest) : FeedLine(rest);
  }
  return taken;
}

bool HttpRequestReader::TakeContinueWish() { return std::exchange(continueWish_, false); }

bool HttpRequestReader::IsPartial() const {
  if (step_ == Step::kComplete || step_ == Step::kFailed) return false;
  return step_ != Step::kRequestLine || !line_.empty();
}

void HttpRequestReader::Reset() { *this = HttpRequestReader(); }

void HttpRequestReader::Fail(int status) {
  step_ = Step::kFailed;
  failure_ = status;
  request_.keepAlive = false;
}

std::size_t HttpRequestReader::FeedBody(std::string_view bytes) {
  const auto count = static_cast<std::size_t>(std::min<std::uint64_t>(bytes.size(), bodyLeft_));
  request_.body.append(bytes.substr(0, count));
  bodyLeft_ -= count;
  if (bodyLeft_ == 0) step_ = step_ == Step::kBody ? Step::kComplete : Step::kChunkEnd;
  return count;
}

std::size_t HttpRequestReader::FeedLine(std::string_view bytes) {
  const bool inHead =
      step_ == Step::kRequestLine || step_ == Step::kField || step_ == Step::kTrailer;
  const std::size_t bound = inHead ? kMaxHttpHead - headBytes_ : kMaxChunkLine - line_.size();
  const std::size_t feed = bytes.find('\n');
  const std::size_t count = feed == std::string_view::npos ? bytes.size() : feed + 1;
  if (count > bound) {
    Fail(inHead ? 431 : 400);
    return 0;
  }
  line_.append(bytes.substr(0, count));
  if (inHead) headBytes_ += count;
  if (feed != std::string_view::npos) TakeLine();
  return count;
}

void HttpRequestReader::TakeLine() {
  // A line feed alone ends a line for some readers and not for others.
  if (line_.size() < 2 || line_[line_.size() - 2] != '\r') return Fail(400);
  const std::string whole = std::exchange(line_, {});
  const std::string_view line = std::string_view(whole).substr(0, whole.size() - 2);
  switch (step_) {
    case Step::kRequestLine:
      // Empty lines before a request are allowed (RFC 9112, section 2.2).
      return line.empty() ? void() : TakeRequestLine(line);
    case Step::kField:
      return line.empty() ? FinishHead() : TakeField(line);
    case Step::kChunkSize:
      return TakeChunkSize(line);
    case Step::kChunkEnd:
      if (!line.empty()) return Fail(400);
      step_ = Step::kChunkSize;
      return;
    case Step::kTrailer:
      if (line.empty()) step_ = Step::kComplete;
      return;  // trailer fields mean nothing here
    default:
      return Fail(400);
  }
}

void HttpRequestReader::TakeRequestLine(std::string_view line) {
  const std::size_t first = line.find(' ');
  const std::size_t last = line.rfind(' ');
  if (first == std::string_view::npos || first == last) return Fail(400);
  const std::string_view method = line.substr(0, first);
  const std::string_view target = line.substr(first + 1, last - first - 1);
  const std::string_view version = line.substr(last + 1);
  if (!IsToken(method) || target.empty() || !IsVisible(target)) return Fail(400);
  const bool wellFormed = version.size() == 8 && version.starts_with("HTTP/") &&
                          IsDigit(version[5]) && version[6] == '.' && IsDigit(version[7]);
  if (!wellFormed) return Fail(400);
  if (version[5] != '1') return Fail(505);
  auto origin = OriginForm(target);
  if (!origin) return Fail(400);
  request_.method = method;
  request_.target = std::move(*origin);
  request_.minorVersion = version[7] == '0' ? 0 : 1;
  step_ = Step::kField;
}

void HttpRequestReader::TakeField(std::string_view line) {
  const std::size_t colon = line.find(':');
  if (colon == std::string_view::npos) return Fail(400);
  const std::string_view name = line.substr(0, colon);
  const std::string_view value = Trimmed(line.substr(colon + 1));
  // A name that isn't a token is also a folded line, or blanks before the colon.
  if (!IsToken(name) || !IsFieldValue(value)) return Fail(400);
  request_.fields.emplace_back(LowerCase(name), value);
}

void HttpRequestReader::FinishHead() {
  bool chunked = false;
  std::uint64_t length = 0;
  if (!CheckHosts() || !ReadConnection() || !ReadBodyLength(&chunked, &length)) return;
  if (!ReadExpectation(chunked || length > 0)) return;
  bodyLeft_ = length;
  step_ = chunked ? Step::kChunkSize : length > 0 ? Step::kBody : Step::kComplete;
}

bool HttpRequestReader::CheckHosts() {
  const auto hosts = std::count_if(request_.fields.begin(), request_.fields.end(),
                                   [](const auto& field) { return field.first == "host"; });
  if (hosts == 1 || (hosts == 0 && request_.minorVersion == 0)) return true;
  Fail(400);
  return false;
}

bool HttpRequestReader::ReadConnection() {
  request_.keepAlive = request_.minorVersion == 1;
  bool close = false;
  for (const auto& [name, value] : request_.fields) {
    if (name != "connection") continue;
    if (ListHolds(value, "keep-alive")) request_.keepAlive = true;
    if (ListHolds(value, "close")) close = true;
  }
  if (close) request_.keepAlive = false;
  return true;
}

bool HttpRequestReader::ReadBodyLength(bool* chunked, std::uint64_t* length) {
  const std::string* coding = nullptr;
  const std::string* declared = nullptr;
  bool contradicts = false;
  for (const auto& [name, value] : request_.fields) {
    if (name == "transfer-encoding") {
      contradicts = contradicts || coding;
      coding = &value;
    } else if (name == "content-length") {
      contradicts = contradicts || (declared && *declared != value);
      declared = &value;
    }
  }
  // Two statements of the length are how one request is smuggled inside another.
  const bool digits =
      !declared || (!declared->empty() && std::all_of(declared->begin(), declared->end(), IsDigit));
  if (contradicts || (coding && declared) || (coding && request_.minorVersion == 0) || !digits) {
    Fail(400);
  } else if (coding && !SameIgnoringCase(*coding, "chunked")) {
    Fail(501);
  } else if (declared && !Number(*declared, kMaxHttpBody)) {
    Fail(413);
  } else {
    *chunked = coding != nullptr;
    *length = declared ? *Number(*declared, kMaxHttpBody) : 0;
  }
  return failure_ == 0;
}

bool HttpRequestReader::ReadExpectation(bool hasBody) {
  const std::string* expectation = request_.Field("expect");
  if (!expectation || request_.minorVersion == 0) return true;
  if (!SameIgnoringCase(*expectation, "100-continue")) {
    Fail(417);
    return false;
  }
  continueWish_ = hasBody;
  return true;
}

void HttpRequestReader::TakeChunkSize(std::string_view line) {
  const std::string_view digits = Trimmed(line.substr(0, line.find(';')));
  if (digits.starts_with("0x") || digits.starts_with("0X")) return Fail(400);
  const auto size = Number("0x" + std::string(digits), UINT64_MAX);
  if (!size) return Fail(400);
  if (*size > kMaxHttpBody - request_.body.size()) return Fail(413);
  bodyLeft_ = *size;
  step_ = *size == 0 ? Step::kTrailer : Step::kChunkData;
}

}  // namespace orrin

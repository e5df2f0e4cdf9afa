#include "lab/firmware/kvm/rfb_session.h"

#include <algorithm>

#include "lab/firmware/core/big_endian.h"
#include "lab/firmware/core/text.h"

namespace orrin {
namespace {

constexpr std::string_view kServerVersion = "RFB 003.008\n";
constexpr std::string_view kScreenName = "Tavrin console (orrin)";
constexpr std::uint8_t kSecurityNone = 1;
constexpr std::int32_t kRawEncoding = 0;
// Nobody pastes more than this by hand.
constexpr std::uint32_t kMaxCutText = 1u << 20;

// "003.008" to 8; nothing for a text of another form. Versions that nobody has defined count as
// 3.3, and those after 3.8 as 3.8 (RFC 6143, section 7.1.1).
std::optional<int> MinorVersion(std::string_view text) {
  if (!text.starts_with("RFB ") || text[7] != '.' || text[11] != '\n') return std::nullopt;
  for (const std::size_t place : {4u, 5u, 6u, 8u, 9u, 10u}) {
    if (text[place] < '0' || text[place] > '9') return std::nullopt;
  }
  const std::string_view number = text.substr(4, 7);
  if (number >= "003.008") return 8;
  return number == "003.007" ? 7 : 3;
}

}  // namespace

const RfbSession::Message RfbSession::kMessages[] = {
    {0, 20, &RfbSession::TakePixelFormat},   {2, 4, &RfbSession::TakeEncodings},
    {3, 10, &RfbSession::TakeUpdateRequest}, {4, 8, &RfbSession::TakeKey},
    {5, 6, &RfbSession::TakePointer},        {6, 8, &RfbSession::TakeCutText},
};

RfbSession::RfbSession(const Picture& picture, RfbOutput& output)
    : picture_(picture), output_(output), sent_(picture.Shown()) {
  const ByteView version = ViewOf(kServerVersion);
  out_.assign(version.begin(), version.end());
  Flush();
}

void RfbSession::Receive(ByteView bytes) {
  while (!bytes.empty() && phase_ != Phase::kClosed) {
    if (bodyLeft_ > 0) {
      const auto passed =
          static_cast<std::size_t>(std::min<std::uint64_t>(bodyLeft_, bytes.size()));
      bodyLeft_ -= passed;
      bytes = bytes.subspan(passed);
      continue;
    }
    head_.push_back(bytes.front());
    bytes = bytes.subspan(1);
    if (head_.size() < NextHeadSize()) continue;
    if (phase_ != Phase::kClosed) TakeHead(head_);
    head_.clear();
  }
  Pump();
}

// Bytes of the message that `head_` begins.
std::size_t RfbSession::NextHeadSize() {
  if (phase_ == Phase::kVersion) return kServerVersion.size();
  if (phase_ != Phase::kOpen) return 1;
  const Message* message = FindMessage(head_.front());
  if (message) return message->headSize;
  Close(Format("message of unknown type %u", head_.front()));
  return 0;
}

const RfbSession::Message* RfbSession::FindMessage(std::uint8_t type) const {
  for (const Message& message : kMessages) {
    if (message.type == type) return &message;
  }
  return nullptr;
}

void RfbSession::TakeHead(ByteView head) {
  switch (phase_) {
    case Phase::kVersion:
      return TakeVersion(head);
    case Phase::kSecurity:
      return TakeSecurity(head);
    case Phase::kClientInit:
      return TakeClientInit(head);
    case Phase::kOpen:
      return (this->*FindMessage(head.front())->take)(head);
    case Phase::kClosed:
      return;
  }
}

void RfbSession::TakeVersion(ByteView head) {
  const auto minor = MinorVersion(TextOf(head));
  if (!minor) return Close("the viewer's version isn't one");
  minorVersion_ = *minor;
  output_.Say(Format("KVM: the viewer speaks RFB 3.%d", minorVersion_));
  OfferSecurity();
}

// From 3.7 on a list to choose from (section 7.1.2), before that the server's own choice.
void RfbSession::OfferSecurity() {
  if (minorVersion_ == 3) {
    AppendBig32(kSecurityNone, &out_);
    phase_ = Phase::kClientInit;
  } else {
    out_.insert(out_.end(), {1, kSecurityNone});
    phase_ = Phase::kSecurity;
  }
  Flush();
}

void RfbSession::TakeSecurity(ByteView head) {
  const bool isOffered = head.front() == kSecurityNone;
  if (minorVersion_ == 8 || !isOffered) AppendBig32(isOffered ? 0 : 1, &out_);
  if (minorVersion_ == 8 && !isOffered) {
    constexpr std::string_view kReason = "only the security type None is offered";
    AppendBig32(static_cast<std::uint32_t>(kReason.size()), &out_);
    out_.insert(out_.end(), kReason.begin(), kReason.end());
  }
  Flush();
  if (!isOffered) return Close(Format("the viewer asks for security type %u", head.front()));
  phase_ = Phase::kClientInit;
}

void RfbSession::TakeClientInit(ByteView) {
  AppendBig16(Picture::kWidth, &out_);
  AppendBig16(Picture::kHeight, &out_);
  AppendPixelFormat(kNativeFormat, &out_);
  AppendBig32(static_cast<std::uint32_t>(kScreenName.size()), &out_);
  out_.insert(out_.end(), kScreenName.begin(), kScreenName.end());
  Flush();
  phase_ = Phase::kOpen;
  output_.Say(
      Format("KVM: the viewer sees the screen, %d x %d", Picture::kWidth, Picture::kHeight));
}

void RfbSession::TakePixelFormat(ByteView head) {
  const auto format = ReadPixelFormat(head.subspan(4));
  if (!format) return Close("the viewer asks for a pixel format that isn't true colour");
  format_ = *format;
  output_.Say(Format("KVM: pixels of %u bits, %s-endian", format_.bitsPerPixel,
                     format_.isBigEndian ? "big" : "little"));
}

// Whatever is in the list: Raw is always allowed (section 7.7.1).
void RfbSession::TakeEncodings(ByteView head) {
  const std::uint16_t count = ReadBig16(head.subspan(2));
  bodyLeft_ = std::uint64_t{count} * sizeof(kRawEncoding);
  output_.Say(Format("KVM: %u encodings offered, Raw is used", count));
}

void RfbSession::TakeUpdateRequest(ByteView head) {
  const bool isIncremental = head[1] != 0;
  const Area asked = {ReadBig16(head.subspan(2)), ReadBig16(head.subspan(4)),
                      ReadBig16(head.subspan(6)), ReadBig16(head.subspan(8))};
  const Area area = Intersection(asked, Picture::kWhole);
  std::optional<Area>& wish = isIncremental ? wished_ : wishedWhole_;
  if (!area.IsEmpty()) wish = Hull(wish.value_or(Area{}), area);
}

void RfbSession::TakeKey(ByteView head) {
  output_.TakeKey(ReadBig32(head.subspan(4)), head[1] != 0);
}

void RfbSession::TakePointer(ByteView head) {
  output_.TakePointer(head[1], ReadBig16(head.subspan(2)), ReadBig16(head.subspan(4)));
}

void RfbSession::TakeCutText(ByteView head) {
  const std::uint32_t length = ReadBig32(head.subspan(4));
  if (length > kMaxCutText) return Close(Format("a cut text of %u bytes", length));
  bodyLeft_ = length;
  output_.Say(Format("KVM: a cut text of %u bytes is passed over", length));
}

void RfbSession::Pump() {
  if (phase_ == Phase::kClosed) return;
  Flush();
  while (phase_ == Phase::kOpen && !IsWaitingForRoom() && output_.HasRoom()) {
    BeginUpdate();
    if (out_.empty()) return;
    Flush();
  }
}

void RfbSession::BeginUpdate() {
  if (wishedWhole_) {
    AppendUpdate(*wishedWhole_);
    wishedWhole_.reset();
    return;
  }
  if (!wished_) return;
  const Area changed = Intersection(picture_.Difference(sent_), *wished_);
  if (changed.IsEmpty()) return;
  AppendUpdate(changed);
  wished_.reset();
}

// A FramebufferUpdate of one rectangle (section 7.6.1).
void RfbSession::AppendUpdate(const Area& area) {
  constexpr std::uint16_t kOneRectangle = 1;
  out_.insert(out_.end(), {0, 0});
  AppendBig16(kOneRectangle, &out_);
  for (const int number : {area.x, area.y, area.width, area.height}) {
    AppendBig16(static_cast<std::uint16_t>(number), &out_);
  }
  AppendBig32(kRawEncoding, &out_);
  const Picture::Pixels& pixels = picture_.Shown();
  for (int y = area.y; y < area.y + area.height; y++) {
    for (int x = area.x; x < area.x + area.width; x++) {
      const auto place = static_cast<std::size_t>(y * Picture::kWidth + x);
      AppendPixel(format_, pixels[place], &out_);
      sent_[place] = pixels[place];
    }
  }
}

// The last, short piece goes at once: nothing follows an update until the viewer asks.
void RfbSession::Flush() {
  while (IsWaitingForRoom() && output_.HasRoom()) {
    const std::size_t size = std::min(out_.size() - outSent_, kMaxRfbPiece);
    output_.SendRfbBytes(ByteView(out_).subspan(outSent_, size));
    outSent_ += size;
  }
  if (IsWaitingForRoom()) return;
  out_.clear();
  outSent_ = 0;
}

void RfbSession::Close(const std::string& words) {
  phase_ = Phase::kClosed;
  out_.clear();
  outSent_ = 0;
  output_.Say("KVM: closed, " + words);
  output_.CloseViewer();
}

}  // namespace orrin

#include "lab/firmware/kvm/rfb_session.h"

#include <algorithm>
#include <cassert>
#include <optional>

#include "lab/firmware/core/text.h"
#include "lab/firmware/kvm/pixel_format.h"

namespace orrin {
namespace {

constexpr std::string_view kServerVersion = "RFB 003.008\n";
constexpr std::string_view kScreenName = "Tavrin console (orrin)";
constexpr std::uint8_t kSecurityNone = 1;
constexpr std::int32_t kRawEncoding = 0;
// Far above any text that a person pastes.
constexpr std::uint32_t kMaxCutText = 1u << 20;

enum class Phase { kVersion, kSecurity, kClientInit, kOpen, kClosed };

// Returns 8 for "003.008", and nothing for a text of another form. An undefined version counts as
// 3.3, one after 3.8 as 3.8 (RFC 6143, section 7.1.1).
std::optional<int> MinorVersion(std::string_view text) {
  assert(text.size() == kServerVersion.size());
  if (!text.starts_with("RFB ") || text[7] != '.' || text[11] != '\n') return std::nullopt;
  for (const std::size_t place : {4u, 5u, 6u, 8u, 9u, 10u}) {
    if (text[place] < '0' || text[place] > '9') return std::nullopt;
  }
  const std::string_view number = text.substr(4, 7);
  if (number >= "003.008") return 8;
  return number == "003.007" ? 7 : 3;
}

void AppendText(std::string_view text, Bytes* bytes) {
  AppendBig32(static_cast<std::uint32_t>(text.size()), bytes);
  bytes->insert(bytes->end(), text.begin(), text.end());
}

}  // namespace

struct RfbState {
  RfbState(const Picture& shown, RfbOutput& rfbOutput)
      : picture(shown), output(rfbOutput), sent(shown.Shown()) {}
  bool IsWaitingForRoom() const { return outSent < out.size(); }

  const Picture& picture;
  RfbOutput& output;
  Phase phase = Phase::kVersion;
  int minorVersion = 8;
  PixelFormat format = kNativeFormat;
  Bytes head;                            // of a message that is not complete
  std::uint64_t bodyLeft = 0;            // bytes to skip
  std::optional<Area> requestedChanges;  // by an incremental request
  std::optional<Area> requestedWhole;    // by a request of the whole area
  Picture::Pixels sent;
  Bytes out;
  std::size_t outSent = 0;
};

namespace {

// Sends `out` while there is room. The last, short piece is not held back: nothing follows an
// update until the viewer's next request.
void Flush(RfbState& session) {
  while (session.IsWaitingForRoom() && session.output.HasRoom()) {
    const std::size_t size = std::min(session.out.size() - session.outSent, kMaxRfbPiece);
    session.output.SendRfbBytes(ByteView(session.out).subspan(session.outSent, size));
    session.outSent += size;
  }
  if (session.IsWaitingForRoom()) return;
  session.out.clear();
  session.outSent = 0;
}

void Close(RfbState& session, const std::string& words) {
  assert(session.phase != Phase::kClosed);
  session.phase = Phase::kClosed;
  session.out.clear();
  session.outSent = 0;
  session.output.AddNote("KVM: closed, " + words);
  session.output.CloseViewer();
}

// --- the handshake ---

// Offers a list of one from 3.7 on (section 7.1.2), and announces the choice before that.
void OfferSecurity(RfbState& session) {
  if (session.minorVersion == 3) {
    AppendBig32(kSecurityNone, &session.out);
    session.phase = Phase::kClientInit;
  } else {
    session.out.insert(session.out.end(), {1, kSecurityNone});
    session.phase = Phase::kSecurity;
  }
  Flush(session);
}

void HandleVersion(RfbState& session, ByteView head) {
  const auto minor = MinorVersion(TextOf(head));
  if (!minor) return Close(session, "the viewer's version is malformed");
  session.minorVersion = *minor;
  session.output.AddNote(Format("KVM: the viewer speaks RFB 3.%d", session.minorVersion));
  OfferSecurity(session);
}

void HandleSecurity(RfbState& session, ByteView head) {
  const bool isOffered = head.front() == kSecurityNone;
  if (session.minorVersion == 8 || !isOffered) AppendBig32(isOffered ? 0 : 1, &session.out);
  if (session.minorVersion == 8 && !isOffered) {
    AppendText("only the security type None is offered", &session.out);
  }
  Flush(session);
  if (!isOffered) {
    return Close(session, Format("the viewer requests security type %u", head.front()));
  }
  session.phase = Phase::kClientInit;
}

void HandleClientInit(RfbState& session) {
  AppendBig16(Picture::kWidth, &session.out);
  AppendBig16(Picture::kHeight, &session.out);
  AppendPixelFormat(kNativeFormat, &session.out);
  AppendText(kScreenName, &session.out);
  Flush(session);
  session.phase = Phase::kOpen;
  session.output.AddNote(
      Format("KVM: the viewer sees the screen, %d x %d", Picture::kWidth, Picture::kHeight));
}

// --- the viewer's messages (section 7.5) ---

void SetPixelFormat(RfbState& session, ByteView head) {
  const auto format = ReadPixelFormat(head.subspan(4));
  if (!format) return Close(session, "the viewer requests a pixel format that is not true colour");
  session.format = *format;
  session.output.AddNote(Format("KVM: pixels of %u bits, %s-endian", format->bitsPerPixel,
                                format->isBigEndian ? "big" : "little"));
}

// Ignores the list: Raw is always allowed (section 7.7.1).
void SetEncodings(RfbState& session, ByteView head) {
  const std::uint16_t count = ReadBig16(head.subspan(2));
  session.bodyLeft = std::uint64_t{count} * sizeof kRawEncoding;
  session.output.AddNote(Format("KVM: %u encodings offered, Raw is used", count));
}

void RequestUpdate(RfbState& session, ByteView head) {
  const bool isIncremental = head[1] != 0;
  const Area requested = {ReadBig16(head.subspan(2)), ReadBig16(head.subspan(4)),
                          ReadBig16(head.subspan(6)), ReadBig16(head.subspan(8))};
  const Area area = Intersection(requested, Picture::kWhole);
  std::optional<Area>& request = isIncremental ? session.requestedChanges : session.requestedWhole;
  if (!area.IsEmpty()) request = Hull(request.value_or(Area{}), area);
}

void PressKey(RfbState& session, ByteView head) {
  session.output.HandleKey(ReadBig32(head.subspan(4)), head[1] != 0);
}

void MovePointer(RfbState& session, ByteView head) {
  session.output.HandlePointer(head[1], ReadBig16(head.subspan(2)), ReadBig16(head.subspan(4)));
}

void SkipCutText(RfbState& session, ByteView head) {
  const std::uint32_t length = ReadBig32(head.subspan(4));
  if (length > kMaxCutText) return Close(session, Format("a cut text of %u bytes", length));
  session.bodyLeft = length;
  session.output.AddNote(Format("KVM: a cut text of %u bytes is ignored", length));
}

struct Message {
  std::uint8_t type;
  std::size_t headSize;
  void (*handle)(RfbState& session, ByteView head);
};

constexpr Message kMessages[] = {
    {0, 20, SetPixelFormat}, {2, 4, SetEncodings}, {3, 10, RequestUpdate},
    {4, 8, PressKey},        {5, 6, MovePointer},  {6, 8, SkipCutText},
};

// Returns null for an unknown type.
const Message* FindMessage(std::uint8_t type) {
  for (const Message& message : kMessages) {
    if (message.type == type) return &message;
  }
  return nullptr;
}

// Returns the size of the message head that `session.head` begins. Closes the session, and returns
// 0, if its type is unknown.
std::size_t HeadSize(RfbState& session) {
  if (session.phase == Phase::kVersion) return kServerVersion.size();
  if (session.phase != Phase::kOpen) return 1;
  const Message* message = FindMessage(session.head.front());
  if (message != nullptr) return message->headSize;
  Close(session, Format("message of unknown type %u", session.head.front()));
  return 0;
}

void HandleHead(RfbState& session, ByteView head) {
  switch (session.phase) {
    case Phase::kVersion:
      return HandleVersion(session, head);
    case Phase::kSecurity:
      return HandleSecurity(session, head);
    case Phase::kClientInit:
      return HandleClientInit(session);
    case Phase::kOpen:
      return FindMessage(head.front())->handle(session, head);
    case Phase::kClosed:
      return;
  }
}

// --- updates ---

// Appends a FramebufferUpdate of one rectangle (section 7.6.1).
void AppendUpdate(RfbState& session, const Area& area) {
  constexpr std::uint16_t kOneRectangle = 1;
  Bytes& out = session.out;
  out.insert(out.end(), {0, 0});
  AppendBig16(kOneRectangle, &out);
  for (const int number : {area.x, area.y, area.width, area.height}) {
    AppendBig16(static_cast<std::uint16_t>(number), &out);
  }
  AppendBig32(kRawEncoding, &out);
  const Picture::Pixels& pixels = session.picture.Shown();
  for (int y = area.y; y < area.y + area.height; ++y) {
    for (int x = area.x; x < area.x + area.width; ++x) {
      const auto place = static_cast<std::size_t>(y * Picture::kWidth + x);
      AppendPixel(session.format, pixels[place], &out);
      session.sent[place] = pixels[place];
    }
  }
}

// Leaves `out` empty if no update is due.
void BeginUpdate(RfbState& session) {
  assert(session.out.empty());
  if (session.requestedWhole) {
    AppendUpdate(session, *session.requestedWhole);
    session.requestedWhole.reset();
    return;
  }
  if (!session.requestedChanges) return;
  const Area changed =
      Intersection(session.picture.Difference(session.sent), *session.requestedChanges);
  if (changed.IsEmpty()) return;
  AppendUpdate(session, changed);
  session.requestedChanges.reset();
}

}  // namespace

RfbSession::RfbSession(const Picture& picture, RfbOutput& output)
    : state_(std::make_unique<RfbState>(picture, output)) {
  const ByteView version = ViewOf(kServerVersion);
  state_->out.assign(version.begin(), version.end());
  Flush(*state_);
}

RfbSession::~RfbSession() = default;

void RfbSession::Receive(ByteView bytes) {
  RfbState& session = *state_;
  while (!bytes.empty() && session.phase != Phase::kClosed) {
    if (session.bodyLeft > 0) {
      const auto skipped =
          static_cast<std::size_t>(std::min<std::uint64_t>(session.bodyLeft, bytes.size()));
      session.bodyLeft -= skipped;
      bytes = bytes.subspan(skipped);
      continue;
    }
    session.head.push_back(bytes.front());
    bytes = bytes.subspan(1);
    if (session.head.size() < HeadSize(session)) continue;
    HandleHead(session, session.head);
    session.head.clear();
  }
  Pump();
}

void RfbSession::Pump() {
  RfbState& session = *state_;
  if (session.phase == Phase::kClosed) return;
  Flush(session);
  while (session.phase == Phase::kOpen && !session.IsWaitingForRoom() && session.output.HasRoom()) {
    BeginUpdate(session);
    if (session.out.empty()) return;
    Flush(session);
  }
}

}  // namespace orrin

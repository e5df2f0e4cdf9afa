// One KVM connection as the firmware has it: an RFB server (RFC 6143; viewers of 3.8, 3.7 and 3.3)
// that shows the picture and takes keys and pointer. The mailbox brings the viewer's bytes in any
// pieces, and the viewer is not trusted.
//
// Invariants:
// 1. Of the viewer's bytes only the head of one message is kept; a body that isn't looked at is
//    counted off as it comes, and a number in it never becomes a size of memory.
// 2. One update is on its way at a time. Wishes that come meanwhile melt into one, so a viewer that
//    asks without reading costs the memory of one update.
// 3. `sent_` is the screen as the viewer has it; the next incremental update is what differs.
#pragma once

#include <optional>
#include <string>

#include "lab/firmware/core/bytes.h"
#include "lab/firmware/kvm/picture.h"
#include "lab/firmware/kvm/pixel_format.h"

namespace orrin {

// Where a session's output goes. Called within the session's own operations only.
class RfbOutput {
 public:
  virtual ~RfbOutput() = default;
  // At most kMaxRfbPiece bytes for the viewer.
  virtual void SendRfbBytes(ByteView bytes) = 0;
  // Whether more bulk output is welcome now.
  virtual bool HasRoom() const = 0;
  // A KeyEvent (section 7.5.4) and a PointerEvent (7.5.5) of the viewer.
  virtual void TakeKey(std::uint32_t keysym, bool pressed) = 0;
  virtual void TakePointer(std::uint8_t buttons, std::uint16_t x, std::uint16_t y) = 0;
  // The session has closed itself; the connection is of no more use.
  virtual void CloseViewer() = 0;
  // Something worth a line in the trace.
  virtual void Say(const std::string& words) = 0;
};

// A frame of this size is written by a host in one step even to a viewer that reads slowly; a
// longer one is more easily torn.
constexpr std::size_t kMaxRfbPiece = 16384;

// One thread. Picture and output outlive the session.
class RfbSession {
 public:
  // Begins with the server's version.
  RfbSession(const Picture& picture, RfbOutput& output);

  // Bytes of the viewer, any number at any boundary.
  void Receive(ByteView bytes);
  // Goes on with what waited for room or for a change of the picture.
  void Pump();
  // Whether Pump has output that waits for room.
  bool IsWaitingForRoom() const { return outSent_ < out_.size(); }
  bool IsOpen() const { return phase_ == Phase::kOpen; }

 private:
  enum class Phase { kVersion, kSecurity, kClientInit, kOpen, kClosed };
  // A message of the viewer: the bytes of its head and what to do with it.
  struct Message {
    std::uint8_t type;
    std::size_t headSize;
    void (RfbSession::*take)(ByteView head);
  };
  static const Message kMessages[];

  std::size_t NextHeadSize();
  void TakeHead(ByteView head);
  void TakeVersion(ByteView head);
  void OfferSecurity();
  void TakeSecurity(ByteView head);
  void TakeClientInit(ByteView head);
  void TakePixelFormat(ByteView head);
  void TakeEncodings(ByteView head);
  void TakeUpdateRequest(ByteView head);
  void TakeKey(ByteView head);
  void TakePointer(ByteView head);
  void TakeCutText(ByteView head);
  const Message* FindMessage(std::uint8_t type) const;

  void BeginUpdate();
  void AppendUpdate(const Area& area);
  void Flush();
  void Close(const std::string& words);

  const Picture& picture_;
  RfbOutput& output_;
  Phase phase_ = Phase::kVersion;
  int minorVersion_ = 8;
  PixelFormat format_ = kNativeFormat;
  Bytes head_;                       // of a message that isn't whole yet
  std::uint64_t bodyLeft_ = 0;       // bytes still to pass over
  std::optional<Area> wished_;       // an incremental update
  std::optional<Area> wishedWhole_;  // one that isn't
  Picture::Pixels sent_;
  Bytes out_;
  std::size_t outSent_ = 0;
};

}  // namespace orrin

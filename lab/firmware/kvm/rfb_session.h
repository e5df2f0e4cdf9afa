// The firmware's end of one KVM connection: an RFB server (RFC 6143; viewers of 3.8, 3.7 and 3.3)
// that shows the picture and receives keys and pointer. The mailbox brings the viewer's bytes split
// anywhere, and the viewer is not trusted.
//
// Invariants:
// 1. Of the viewer's bytes only the head of one message is kept. A body that is not read is counted
//    off as it arrives, and no number in it becomes a size of memory.
// 2. One update is sent at a time. Requests that arrive meanwhile are merged into one, so a viewer
//    that requests without reading costs the memory of one update.
// 3. `RfbState::sent` is the screen as the viewer has it. The next incremental update is what
// differs.
#pragma once

#include <memory>
#include <string>

#include "lab/firmware/core/bytes.h"
#include "lab/firmware/kvm/picture.h"

namespace orrin {

// Receives a session's output. Called within the session's own operations only.
class RfbOutput {
 public:
  virtual ~RfbOutput() = default;
  // Sends at most kMaxRfbPiece bytes to the viewer.
  virtual void SendRfbBytes(ByteView bytes) = 0;
  // Returns true while more bulk output can be queued.
  virtual bool HasRoom() const = 0;
  // Handles a KeyEvent (section 7.5.4) and a PointerEvent (7.5.5) of the viewer.
  virtual void HandleKey(std::uint32_t keysym, bool pressed) = 0;
  virtual void HandlePointer(std::uint8_t buttons, std::uint16_t x, std::uint16_t y) = 0;
  // Closes the connection: the session has closed itself.
  virtual void CloseViewer() = 0;
  // Adds a line to the trace.
  virtual void AddNote(const std::string& words) = 0;
};

// A host writes a frame of this size in one step even to a slow viewer. A longer one may be torn.
constexpr std::size_t kMaxRfbPiece = 16384;

struct RfbState;

// One thread. Picture and output outlive the session.
class RfbSession {
 public:
  // Sends the server's version.
  RfbSession(const Picture& picture, RfbOutput& output);
  ~RfbSession();

  // Takes bytes of the viewer, split at any boundary.
  void Receive(ByteView bytes);
  // Continues with output that waited for room or for a change of the picture.
  void Pump();

 private:
  std::unique_ptr<RfbState> state_;
};

}  // namespace orrin

// The incoming side of the lab link. Short messages are received into one buffer and cut out of it.
// The body of a long frame is received where the frame is wanted, so that it is copied once.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>

#include "lablink/messages.h"

namespace platform {

class LinkReceiver {
 public:
  enum class Result {
    kDrained,  // everything that had arrived was received
    kMore,     // more may have arrived
    kEnded,
  };
  // Receives once, without blocking.
  Result Receive(int socket);

  // Takes the next whole message. Requires that no frame is placed.
  lablink::Parsed Next(lablink::Message* message) { return reader_.Next(message); }

  // After kNeedMore: returns the head of the message that has begun, if it is a frame whose body
  // lacks enough bytes that placing it is worth a system call.
  std::optional<lablink::Head> LongFrame() const;
  // Places the frame of LongFrame at `target`, which has room for its whole body, and copies there
  // what has been received of it.
  void Place(std::uint8_t* target);
  bool IsPlaced() const { return target_ != nullptr; }
  // Moves a placed frame to another target, with what has been received of it.
  void MovePlaced(std::uint8_t* target);
  // Returns the size of the placed frame once it is complete, which ends its placement.
  std::optional<std::size_t> TakePlaced();

 private:
  lablink::MessageReader reader_;
  std::uint8_t* target_ = nullptr;  // null: no frame is placed
  std::size_t size_ = 0;            // of the placed frame's body
  std::size_t filled_ = 0;
};

}  // namespace platform

// The firmware's side of KVM: the screen, the viewer's session, and the rings that its input goes
// into.
#pragma once

#include <memory>
#include <string>

#include "lab/firmware/kvm/input_rings.h"
#include "lab/firmware/kvm/picture.h"

namespace orrin {

// What the console needs of the firmware around it.
class KvmOutput {
 public:
  virtual ~KvmOutput() = default;
  // Sends at most kMaxRfbPiece bytes to the viewer.
  virtual void SendKvmBytes(ByteView bytes) = 0;
  // Sends a CommandCode without payload.
  virtual void SendCommand(std::uint8_t code) = 0;
  // Returns true while more bulk output can be queued.
  virtual bool HasRoom() const = 0;
  // Stores bytes in the keyboard and mouse region.
  virtual void PokeInput(std::uint32_t offset, ByteView bytes) = 0;
  // Requests bytes of that region. The answer goes to KvmConsole::HandleInputMemory.
  virtual void PeekInput(std::uint32_t offset, std::uint32_t count) = 0;
  // Adds a line to the trace.
  virtual void AddNote(const std::string& words) = 0;
};

struct KvmState;

// One thread. The output outlives it.
class KvmConsole {
 public:
  explicit KvmConsole(KvmOutput& output);
  ~KvmConsole();

  // --- for the mailbox ---
  // Begins a session: the host has announced a viewer.
  void Begin();
  // Takes bytes of the viewer.
  void Receive(ByteView bytes);
  // Ends the session, if there is one.
  void End(const std::string& why);
  // Handles the host's request for the region. Its first one finds both rings empty.
  void HandleRegionRequest();
  // Handles the region's return by the host.
  void HandleRegionReturn();
  // A new host has connected, which has not requested the region.
  void HandleHostArrival();
  // The host has disconnected.
  void HandleHostLoss();
  // Takes the answer to KvmOutput::PeekInput. Answers come in the order of the requests.
  void HandleInputMemory(ByteView bytes);
  // Continues with what waited for room, for the host, or for a change of the screen.
  void Pump();
  // Returns the milliseconds until Pump is due without an event, or -1.
  int MillisecondsLeft() const;

  // --- for the prompt ---
  Picture& Screen();
  InputRing& Keys();
  InputRing& Pointer();
  // While stalled, leaves the viewer unanswered. Its bytes are kept and handled afterwards.
  void SetStalled(bool stalled);
  // Returns true if the host gets no address for the region.
  bool WithholdsRegion() const;
  void SetWithholdsRegion(bool withholds);
  // Adds that many events at once: keys a to z pressed and released in turn, or pointer steps along
  // the rows.
  void FloodKeys(std::uint32_t count);
  void FloodPointer(std::uint32_t count);

 private:
  std::unique_ptr<KvmState> state_;
};

}  // namespace orrin

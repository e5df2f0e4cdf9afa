// The firmware's side of KVM: the screen, the viewer's session, and the rings that its input goes
// into. Firmware gives it what the mailbox brings, the prompt what a person types.
#pragma once

#include <chrono>
#include <deque>
#include <memory>
#include <optional>
#include <string>

#include "lab/firmware/kvm/input_rings.h"
#include "lab/firmware/kvm/picture.h"
#include "lab/firmware/kvm/rfb_session.h"

namespace orrin {

// What the console needs of the firmware around it.
class KvmOutput {
 public:
  virtual ~KvmOutput() = default;
  virtual void SendKvmBytes(ByteView bytes) = 0;
  // A command of the vocabulary, without payload.
  virtual void SendCommand(std::uint8_t code) = 0;
  virtual bool HasRoom() const = 0;
  virtual void PokeInput(std::uint32_t offset, ByteView bytes) = 0;
  virtual void PeekInput(std::uint32_t offset, std::uint32_t count) = 0;
  virtual void Say(const std::string& words) = 0;
};

// One thread. The output outlives it.
class KvmConsole : public RfbOutput, public RegionAccess {
 public:
  using Clock = std::chrono::steady_clock;

  explicit KvmConsole(KvmOutput& output);

  // --- what the mailbox brings ---
  // The viewer has been announced.
  void Begin();
  // Bytes of the viewer.
  void Receive(ByteView bytes);
  // The connection has ended. Without a session nothing happens.
  void End(const std::string& why);
  // The host asks for the region: its first request of all finds both rings empty.
  void RegionWanted();
  // The host gives the region back.
  void RegionReturned();
  // A host that hasn't asked yet is there, or none any more.
  void HostArrived();
  void HostLeft();
  // The answer to a question asked with KvmOutput::PeekInput.
  void InputMemory(ByteView bytes);
  // Goes on with what waited: for room, for the host, for a change of the screen.
  void Pump();
  // Milliseconds until Pump has something to do of itself; -1: nothing.
  int MillisecondsLeft() const;

  // --- the prompt ---
  Picture& Screen() { return picture_; }
  InputRing& Keys() { return keys_; }
  InputRing& Pointer() { return pointer_; }
  // While stalled the viewer isn't answered; what it says is taken up afterwards.
  void SetStalled(bool stalled);
  bool Withholds() const { return withholds_; }
  void SetWithholds(bool withholds) { withholds_ = withholds; }
  // So many events at once: keys a to z pressed and released in turn, pointer steps along the rows.
  void FloodKeys(std::uint32_t count);
  void FloodPointer(std::uint32_t count);

  // --- RfbOutput ---
  void SendRfbBytes(ByteView bytes) override { output_.SendKvmBytes(bytes); }
  bool HasRoom() const override { return !isStalled_ && output_.HasRoom(); }
  void TakeKey(std::uint32_t keysym, bool pressed) override;
  void TakePointer(std::uint8_t buttons, std::uint16_t x, std::uint16_t y) override;
  void CloseViewer() override;
  void Say(const std::string& words) override { output_.Say(words); }

  // --- RegionAccess ---
  void PokeRegion(std::uint32_t offset, ByteView bytes) override;
  void PeekRegion(std::uint32_t offset, std::uint32_t count) override;

 private:
  void PutKey(std::uint32_t keysym, bool pressed);
  void PutPointer(const PointerEntry& entry);
  void SayDropped(const InputRing& ring, std::uint64_t before);
  bool IsInputBlocked() const { return keys_.IsBlocked() || pointer_.IsBlocked(); }

  KvmOutput& output_;
  Picture picture_;
  InputRing keys_;
  InputRing pointer_;
  std::deque<InputRing*> asked_;  // answers come in the order of the questions
  Clock::time_point askedAt_{};
  std::unique_ptr<RfbSession> session_;
  Bytes stalledBytes_;
  bool isStalled_ = false;
  bool withholds_ = false;
  bool hostKnowsRings_ = false;
  bool saidNobody_ = false;
};

}  // namespace orrin

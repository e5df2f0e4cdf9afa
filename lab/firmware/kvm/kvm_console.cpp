#include "lab/firmware/kvm/kvm_console.h"

#include <utility>

#include "lab/firmware/core/frames.h"
#include "lab/firmware/core/records.h"
#include "lab/firmware/core/text.h"

namespace orrin {
namespace {

// How long a host that is behind is left alone between two questions.
constexpr std::chrono::milliseconds kAskPause{5};
// What a viewer may send to a stalled screen.
constexpr std::size_t kMaxStalledBytes = std::size_t{1} << 20;

// " 'a'" for a keysym that is a character of ASCII.
std::string CharacterRemark(std::uint32_t keysym) {
  return keysym > 0x20 && keysym < 0x7F ? Format(" '%c'", static_cast<char>(keysym)) : "";
}

}  // namespace

KvmConsole::KvmConsole(KvmOutput& output)
    : output_(output), keys_(kKeyboardRing, *this), pointer_(kPointerRing, *this) {}

void KvmConsole::Begin() {
  if (session_) End("another connection takes its place");
  saidNobody_ = false;
  session_ = std::make_unique<RfbSession>(picture_, *this);
}

void KvmConsole::Receive(ByteView bytes) {
  if (!session_) {
    if (!saidNobody_) output_.Say("KVM: no connection was announced; the bytes are dropped");
    saidNobody_ = true;
    return;
  }
  if (!isStalled_) return session_->Receive(bytes);
  if (stalledBytes_.size() + bytes.size() > kMaxStalledBytes) {
    output_.Say("KVM: closed, the viewer says too much to a stalled screen");
    return CloseViewer();
  }
  stalledBytes_.insert(stalledBytes_.end(), bytes.begin(), bytes.end());
}

void KvmConsole::End(const std::string& why) {
  if (!session_) return;
  output_.Say("KVM: session ended, " + why);
  session_.reset();
  stalledBytes_.clear();
}

void KvmConsole::RegionWanted() {
  if (withholds_ || hostKnowsRings_) return;
  hostKnowsRings_ = true;
  keys_.Reset();
  pointer_.Reset();
}

void KvmConsole::RegionReturned() {
  keys_.Abandon();
  pointer_.Abandon();
}

void KvmConsole::HostArrived() { hostKnowsRings_ = false; }

void KvmConsole::HostLeft() {
  session_.reset();
  stalledBytes_.clear();
  asked_.clear();
  keys_.Forget();
  pointer_.Forget();
  hostKnowsRings_ = false;
}

void KvmConsole::InputMemory(ByteView bytes) {
  if (asked_.empty()) return;
  InputRing* ring = asked_.front();
  asked_.pop_front();
  ring->Answer(bytes);
}

void KvmConsole::Pump() {
  if (session_ && !isStalled_) session_->Pump();
  if (!IsInputBlocked() || MillisecondsLeft() > 0) return;
  askedAt_ = Clock::now();
  for (InputRing* ring : {&keys_, &pointer_}) {
    if (ring->IsBlocked()) ring->Ask();
  }
}

int KvmConsole::MillisecondsLeft() const {
  if (!IsInputBlocked()) return -1;
  const auto left =
      std::chrono::ceil<std::chrono::milliseconds>(askedAt_ + kAskPause - Clock::now());
  return left.count() > 0 ? static_cast<int>(left.count()) : 0;
}

void KvmConsole::SetStalled(bool stalled) {
  isStalled_ = stalled;
  if (stalled || !session_) return;
  const Bytes bytes = std::exchange(stalledBytes_, {});
  session_->Receive(bytes);
}

void KvmConsole::FloodKeys(std::uint32_t count) {
  const std::uint64_t before = keys_.Dropped();
  for (std::uint32_t i = 0; i < count; i++) PutKey('a' + i / 2 % 26, i % 2 == 0);
  keys_.Flush();
  SayDropped(keys_, before);
}

void KvmConsole::FloodPointer(std::uint32_t count) {
  const std::uint64_t before = pointer_.Dropped();
  for (std::uint32_t i = 0; i < count; i++) {
    const auto step = static_cast<std::int32_t>(i % (Picture::kWidth * Picture::kHeight));
    PutPointer({0, step % Picture::kWidth, step / Picture::kWidth});
  }
  pointer_.Flush();
  SayDropped(pointer_, before);
}

void KvmConsole::TakeKey(std::uint32_t keysym, bool pressed) {
  output_.Say(Format("KVM: key 0x%04x", keysym) + CharacterRemark(keysym) +
              (pressed ? " pressed" : " released") +
              Format(", keyboard entry %u", keys_.WriteIndex()));
  const std::uint64_t before = keys_.Dropped();
  PutKey(keysym, pressed);
  keys_.Flush();
  SayDropped(keys_, before);
  picture_.SetKey(keysym, pressed);
}

void KvmConsole::TakePointer(std::uint8_t buttons, std::uint16_t x, std::uint16_t y) {
  output_.Say(Format("KVM: pointer at %u,%u, buttons 0x%02x, mouse entry %u", x, y, buttons,
                     pointer_.WriteIndex()));
  const std::uint64_t before = pointer_.Dropped();
  PutPointer({buttons, x, y});
  pointer_.Flush();
  SayDropped(pointer_, before);
  picture_.SetPointer(x, y, buttons != 0);
}

void KvmConsole::PutKey(std::uint32_t keysym, bool pressed) {
  keys_.Put(BytesOf(KeyEntry(keysym, pressed)));
}

void KvmConsole::PutPointer(const PointerEntry& entry) { pointer_.Put(BytesOf(entry)); }

void KvmConsole::SayDropped(const InputRing& ring, std::uint64_t before) {
  if (ring.Dropped() == before) return;
  output_.Say(Format("KVM: the %s ring is full and too much waits, %llu events dropped",
                     ring.Layout().name, static_cast<unsigned long long>(ring.Dropped() - before)));
}

// The host is told to close; the session stays until it says that it has.
void KvmConsole::CloseViewer() { output_.SendCommand(kVncSocketClose); }

void KvmConsole::PokeRegion(std::uint32_t offset, ByteView bytes) {
  output_.PokeInput(offset, bytes);
}

void KvmConsole::PeekRegion(std::uint32_t offset, std::uint32_t count) {
  asked_.push_back(offset < kRingSize ? &keys_ : &pointer_);
  output_.PeekInput(offset, count);
}

}  // namespace orrin

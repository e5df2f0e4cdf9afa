#include "lab/firmware/kvm/kvm_console.h"

#include <cassert>
#include <chrono>
#include <deque>
#include <utility>

#include "lab/firmware/core/frames.h"
#include "lab/firmware/core/records.h"
#include "lab/firmware/core/text.h"
#include "lab/firmware/kvm/rfb_session.h"

namespace orrin {
namespace {

using Clock = std::chrono::steady_clock;

// The pause between two requests to a host that is behind.
constexpr std::chrono::milliseconds kRequestPause{5};
// What a viewer may send to a stalled screen.
constexpr std::size_t kMaxStalledBytes = std::size_t{1} << 20;

// Returns " 'a'" for a keysym that is a character of ASCII.
std::string CharacterRemark(std::uint32_t keysym) {
  return keysym > 0x20 && keysym < 0x7F ? Format(" '%c'", static_cast<char>(keysym)) : "";
}

}  // namespace

static_assert(kMaxRfbPiece <= kMaxPayload);

struct KvmState final : RfbOutput, RegionAccess {
  explicit KvmState(KvmOutput& kvmOutput) : output(kvmOutput) {}

  void SendRfbBytes(ByteView bytes) override {
    assert(bytes.size() <= kMaxRfbPiece);
    output.SendKvmBytes(bytes);
  }
  bool HasRoom() const override { return !isStalled && output.HasRoom(); }
  void HandleKey(std::uint32_t keysym, bool pressed) override;
  void HandlePointer(std::uint8_t buttons, std::uint16_t x, std::uint16_t y) override;
  // The session stays until the host reports the end of the connection.
  void CloseViewer() override { output.SendCommand(kVncSocketClose); }
  void AddNote(const std::string& words) override { output.AddNote(words); }
  void PokeRegion(std::uint32_t offset, ByteView bytes) override {
    assert(offset + bytes.size() <= 2 * kRingSize);
    output.PokeInput(offset, bytes);
  }
  void PeekRegion(std::uint32_t offset, std::uint32_t count) override {
    requested.push_back(offset < kRingSize ? &keys : &pointer);
    output.PeekInput(offset, count);
  }

  KvmOutput& output;
  Picture picture;
  InputRing keys{kKeyboardRing, *this};
  InputRing pointer{kPointerRing, *this};
  std::deque<InputRing*> requested;  // in the order of their requests
  Clock::time_point requestedAt{};
  std::unique_ptr<RfbSession> session;
  Bytes stalledBytes;
  bool isStalled = false;
  bool withholdsRegion = false;
  bool hostKnowsRings = false;
  bool reportedNoSession = false;
};

namespace {

bool IsInputBlocked(const KvmState& state) {
  return state.keys.IsBlocked() || state.pointer.IsBlocked();
}

// Puts event(0) to event(count - 1) into the ring.
template <class Event>
void PutEvents(KvmState& state, InputRing* ring, std::uint32_t count, Event event) {
  const std::uint64_t before = ring->Dropped();
  for (std::uint32_t i = 0; i < count; ++i) ring->Put(BytesOf(event(i)));
  ring->Flush();
  if (ring->Dropped() == before) return;
  state.output.AddNote(Format("KVM: the %s ring is full, %llu events dropped", ring->Layout().name,
                              static_cast<unsigned long long>(ring->Dropped() - before)));
}

std::uint32_t FloodKey(std::uint32_t index) {
  return KeyEntry('a' + index / 2 % 26, index % 2 == 0);
}

PointerEntry FloodStep(std::uint32_t index) {
  const auto step = static_cast<std::int32_t>(index % (Picture::kWidth * Picture::kHeight));
  return {0, step % Picture::kWidth, step / Picture::kWidth};
}

}  // namespace

void KvmState::HandleKey(std::uint32_t keysym, bool pressed) {
  output.AddNote(Format("KVM: key 0x%04x", keysym) + CharacterRemark(keysym) +
                 (pressed ? " pressed" : " released") +
                 Format(", keyboard entry %u", keys.WriteIndex()));
  PutEvents(*this, &keys, 1, [=](std::uint32_t) { return KeyEntry(keysym, pressed); });
  picture.SetKey(keysym, pressed);
}

void KvmState::HandlePointer(std::uint8_t buttons, std::uint16_t x, std::uint16_t y) {
  output.AddNote(Format("KVM: pointer at %u,%u, buttons 0x%02x, mouse entry %u", x, y, buttons,
                        pointer.WriteIndex()));
  PutEvents(*this, &pointer, 1, [=](std::uint32_t) { return PointerEntry{buttons, x, y}; });
  picture.SetPointer(x, y, buttons != 0);
}

KvmConsole::KvmConsole(KvmOutput& output) : state_(std::make_unique<KvmState>(output)) {}
KvmConsole::~KvmConsole() = default;

void KvmConsole::Begin() {
  if (state_->session != nullptr) End("another connection replaces it");
  state_->reportedNoSession = false;
  state_->session = std::make_unique<RfbSession>(state_->picture, *state_);
}

void KvmConsole::Receive(ByteView bytes) {
  KvmState& state = *state_;
  if (state.session == nullptr) {
    if (!state.reportedNoSession) {
      state.output.AddNote("KVM: no connection was announced; the bytes are dropped");
    }
    state.reportedNoSession = true;
    return;
  }
  if (!state.isStalled) return state.session->Receive(bytes);
  if (state.stalledBytes.size() + bytes.size() > kMaxStalledBytes) {
    state.output.AddNote("KVM: closed, the viewer sends too much to a stalled screen");
    return state.CloseViewer();
  }
  state.stalledBytes.insert(state.stalledBytes.end(), bytes.begin(), bytes.end());
}

void KvmConsole::End(const std::string& why) {
  if (state_->session == nullptr) return;
  state_->output.AddNote("KVM: session ended, " + why);
  state_->session.reset();
  state_->stalledBytes.clear();
}

void KvmConsole::HandleRegionRequest() {
  if (state_->withholdsRegion || state_->hostKnowsRings) return;
  state_->hostKnowsRings = true;
  state_->keys.Reset();
  state_->pointer.Reset();
}

void KvmConsole::HandleRegionReturn() {
  state_->keys.Abandon();
  state_->pointer.Abandon();
}

void KvmConsole::HandleHostArrival() { state_->hostKnowsRings = false; }

void KvmConsole::HandleHostLoss() {
  state_->session.reset();
  state_->stalledBytes.clear();
  state_->requested.clear();
  state_->keys.Forget();
  state_->pointer.Forget();
  state_->hostKnowsRings = false;
}

void KvmConsole::HandleInputMemory(ByteView bytes) {
  if (state_->requested.empty()) return;
  InputRing* ring = state_->requested.front();
  state_->requested.pop_front();
  ring->HandleIndexes(bytes);
}

void KvmConsole::Pump() {
  KvmState& state = *state_;
  if (state.session != nullptr && !state.isStalled) state.session->Pump();
  if (!IsInputBlocked(state) || MillisecondsLeft() > 0) return;
  state.requestedAt = Clock::now();
  for (InputRing* ring : {&state.keys, &state.pointer}) {
    if (ring->IsBlocked()) ring->RequestIndexes();
  }
}

int KvmConsole::MillisecondsLeft() const {
  if (!IsInputBlocked(*state_)) return -1;
  const auto left = std::chrono::ceil<std::chrono::milliseconds>(state_->requestedAt +
                                                                 kRequestPause - Clock::now());
  return left.count() > 0 ? static_cast<int>(left.count()) : 0;
}

Picture& KvmConsole::Screen() { return state_->picture; }
InputRing& KvmConsole::Keys() { return state_->keys; }
InputRing& KvmConsole::Pointer() { return state_->pointer; }

void KvmConsole::SetStalled(bool stalled) {
  state_->isStalled = stalled;
  if (stalled || state_->session == nullptr) return;
  const Bytes bytes = std::exchange(state_->stalledBytes, {});
  state_->session->Receive(bytes);
}

bool KvmConsole::WithholdsRegion() const { return state_->withholdsRegion; }
void KvmConsole::SetWithholdsRegion(bool withholds) { state_->withholdsRegion = withholds; }

void KvmConsole::FloodKeys(std::uint32_t count) {
  PutEvents(*state_, &state_->keys, count, FloodKey);
}

void KvmConsole::FloodPointer(std::uint32_t count) {
  PutEvents(*state_, &state_->pointer, count, FloodStep);
}

}  // namespace orrin

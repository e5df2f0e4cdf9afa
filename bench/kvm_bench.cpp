// The input of a KVM session. keys/...: ring entries translated on the platform's US layout, with a
// sink that counts the events, beside a hash map from the key symbol to ready events, which is what
// a program with one fixed layout could do. pump/...: events from the ring to the agent's pipe
// through the real pump on its own thread, beside a client that only opens, writes and closes, as
// each message must. An item is a ring entry. The counters p50_us and p99_us are times from the
// entry's index in the ring to its message in the agent's hands.
#include <benchmark/benchmark.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <filesystem>
#include <memory>
#include <random>
#include <string>
#include <thread>
#include <unordered_map>
#include <vector>

#include "bench/lab_folder.h"
#include "platform/keyboard.h"
#include "service/kvm/agent.h"
#include "service/kvm/key_translation.h"
#include "service/kvm/keyboard_pump.h"
#include "service/kvm/kvm_state.h"
#include "service/kvm/mouse_pump.h"

namespace {

using namespace stewardry;
using Clock = std::chrono::steady_clock;

std::string gFolder;
std::uint64_t gEvents;

constexpr KeyboardHost kCountingHost = {
    [](std::uint8_t c) { return static_cast<std::uint16_t>(platform::VkKeyScanA(c)); },
    [](std::uint8_t key) { return static_cast<std::uint8_t>(platform::MapVirtualKeyA(key)); },
    [](std::uint8_t key, const KeyStates& states) { return platform::ToAscii(key, states); },
    [] { return (platform::GetKeyState(0x14) & 1) != 0; },
    [](std::uint8_t key) { return (platform::GetAsyncKeyState(key) & 0x8000) != 0; },
    [](std::uint8_t, std::uint8_t, std::uint32_t) { ++gEvents; },
    [](const char*) {},
};

struct Keys {
  const char* name;
  std::vector<std::uint32_t> keysyms;
};
const Keys kKeys[] = {
    {"letters", {'a', 'e', 'k', 'q', 'z'}},
    {"capitals", {'A', 'E', 'K', 'Q', 'Z'}},
    {"missing", {0xE4, 0xF6, 0xFC, 0xDF, 0xE9}},  // a umlaut and its like, not on a US keyboard
    {"control", {0xFF0D, 0xFF1B, 0xFF51, 0xFFBE, 0xFFFF}},
};

void Translate(benchmark::State& state, const Keys& keys) {
  std::int64_t entries = 0;
  gEvents = 0;
  for (auto _ : state)
    for (const std::uint32_t keysym : keys.keysyms)
      for (const bool pressed : {true, false}) {
        ResetDeadKeys(kCountingHost);
        KeyboardActionEvent(kCountingHost, keysym, pressed);
        ++entries;
      }
  state.SetItemsProcessed(entries);
  state.counters["events_each"] = static_cast<double>(gEvents) / static_cast<double>(entries);
}

void LookUp(benchmark::State& state, const Keys& keys) {
  std::unordered_map<std::uint32_t, std::vector<keyInfo>> ready;
  for (std::uint32_t keysym = 0x20; keysym < 0x10000; keysym += keysym < 0xFF ? 1 : 0x80)
    ready[keysym] = {{keysym, 0, 0, 0}};
  for (const std::uint32_t keysym : keys.keysyms) ready[keysym] = {{keysym, 0, 0, 0}};
  std::int64_t entries = 0;
  for (auto _ : state)
    for (const std::uint32_t keysym : keys.keysyms)
      for (int press = 0; press < 2; ++press, ++entries)
        for (const keyInfo& event : ready.find(keysym)->second) {
          benchmark::DoNotOptimize(event);
          ++gEvents;
        }
  state.SetItemsProcessed(entries);
}

// The agent's place: takes one message from each connection, one after the other.
class Agent {
 public:
  explicit Agent(const std::string& pipe) {
    std::filesystem::create_directories(gFolder + "/pipe");
    path_ = gFolder + "/pipe/" + pipe.substr(pipe.rfind('\\') + 1);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    path_.copy(address.sun_path, sizeof address.sun_path - 1);
    fd_ = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (::bind(fd_, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0 ||
        ::listen(fd_, 4096) != 0)
      std::abort();
    thread_ = std::thread([this] { Run(); });
  }
  Agent(const Agent&) = delete;
  Agent& operator=(const Agent&) = delete;
  ~Agent() {
    ::shutdown(fd_, SHUT_RDWR);  // the accept fails
    thread_.join();
    ::close(fd_);
    std::filesystem::remove(path_);
  }
  // How many messages have come. Acquire: what the agent did with them is seen.
  std::uint64_t Taken() const { return taken_.load(std::memory_order_acquire); }
  // False if they don't come: a message that met no free place is lost for good.
  bool AwaitTaken(std::uint64_t count) const {
    const auto end = Clock::now() + std::chrono::seconds(10);
    while (Taken() < count) {
      if (Clock::now() > end) return false;
      std::this_thread::yield();
    }
    return true;
  }

 private:
  void Run() {
    for (int peer; (peer = ::accept4(fd_, nullptr, nullptr, SOCK_CLOEXEC)) >= 0; ::close(peer)) {
      std::array<std::uint8_t, 64> message;
      if (::recv(peer, message.data(), message.size(), 0) == sizeof(keyInfo))
        taken_.fetch_add(1, std::memory_order_release);
    }
  }

  std::string path_;
  int fd_;
  std::atomic<std::uint64_t> taken_{0};
  std::thread thread_;
};

// Puts an entry into a ring as the firmware does. Waits for room, and passes the last legal index,
// at which the pump halts, only with room behind it.
template <class Ring, class Entry>
void Put(Ring* ring, const Entry& entry) {
  const std::uint32_t at = std::atomic_ref(ring->writeIndex).load(std::memory_order_relaxed);
  const std::uint32_t next = at + 1 == Ring::kEntries ? 0 : at + 1;
  for (;;) {
    const std::uint32_t read = std::atomic_ref(ring->readIndex).load(std::memory_order_acquire);
    if (read != next && (next != Ring::kEntries - 1 || read != 0)) break;
    std::this_thread::yield();
  }
  ring->entries[at] = entry;
  std::atomic_ref(ring->writeIndex).store(next, std::memory_order_release);
}

struct KeyboardPump {
  static constexpr const char* kPipe = kAgentKeyboardPipe;
  static void Press(SharedRegion* region, std::uint32_t n) {
    Put(&region->keyboard, (n % 2 == 0 ? 0x80000000u : 0u) | ('a' + n / 2 % 26));
  }
  static std::uint32_t Last(const SharedRegion& region) { return region.keyboard.writeIndex; }
  static constexpr std::uint32_t kHaltIndex = KeyboardRing::kEntries - 1;
  static void Start() { (void)gKvm->gKeyboardThread.Start(ProcessKeyboardEvents); }
  static void End() { TerminateKeyboardThread(); }
};

struct MousePump {
  static constexpr const char* kPipe = kAgentMousePipe;
  static void Press(SharedRegion* region, std::uint32_t n) {
    Put(&region->mouse, mouseBufferRingData{n / 64 % 2, n % 1024, n % 768});
  }
  static std::uint32_t Last(const SharedRegion& region) { return region.mouse.writeIndex; }
  static constexpr std::uint32_t kHaltIndex = MouseRing::kEntries - 1;
  static void Start() { (void)gKvm->gMouseThread.Start(ProcessMouseEvents); }
  static void End() { TerminateMouseThread(); }
};

// A region, an agent, and the pump between them.
template <class Pump>
class Session {
 public:
  Session() : region_(std::make_unique<SharedRegion>()), agent_(Pump::kPipe) {
    gKvm->KeyBoardBufferVirtualAddress = reinterpret_cast<std::uint64_t>(&region_->keyboard);
    gKvm->MouseBufferVirtualAddress = reinterpret_cast<std::uint64_t>(&region_->mouse);
    Pump::Start();
  }
  Session(const Session&) = delete;
  Session& operator=(const Session&) = delete;
  ~Session() {
    Pump::End();
    UninitializeKeyboardMousePointers();
  }
  // One more entry; letters give one event each, pointer states too.
  void Put() { Pump::Press(region_.get(), put_++); }
  bool AwaitAll() {
    // At the last legal index nothing would move; the entry behind it gets it going.
    if (Pump::Last(*region_) == Pump::kHaltIndex) Put();
    return agent_.AwaitTaken(put_);
  }

 private:
  std::unique_ptr<SharedRegion> region_;
  Agent agent_;
  std::uint32_t put_ = 0;
};

// The same path without a pump: the caller opens, writes and closes for each message.
template <class Pump>
class PlainClient {
 public:
  PlainClient() : agent_(Pump::kPipe) {}
  void Put() {
    const keyInfo message{'A', 0, 0, 0};
    WriteToAgentPipe(Pump::kPipe, &message, sizeof message);
    ++put_;
  }
  bool AwaitAll() { return agent_.AwaitTaken(put_); }

 private:
  Agent agent_;
  std::uint32_t put_ = 0;
};

void SetPercentiles(benchmark::State& state, std::vector<double> micros) {
  std::sort(micros.begin(), micros.end());
  state.counters["p50_us"] = micros[micros.size() / 2];
  state.counters["p99_us"] = micros[micros.size() * 99 / 100];
}

// `rests` puts each entry at some time after the one before that is longer than the pump polls.
template <class Client, bool rests>
void Latency(benchmark::State& state) {
  Client client;
  std::minstd_rand random;
  std::vector<double> micros;
  for (auto _ : state) {
    if (rests) std::this_thread::sleep_for(std::chrono::microseconds(8'000 + random() % 4000));
    const auto start = Clock::now();
    client.Put();
    if (!client.AwaitAll()) return state.SkipWithError("an event was lost");
    micros.push_back(std::chrono::duration<double, std::micro>(Clock::now() - start).count());
  }
  SetPercentiles(state, std::move(micros));
  state.SetItemsProcessed(state.iterations());
}

// A ring that is never empty; the run ends when the agent has every event, so none may be lost.
template <class Client>
void Sustained(benchmark::State& state) {
  constexpr int kBurst = 20'000;  // more than twice the ring
  Client client;
  for (auto _ : state) {
    for (int i = 0; i < kBurst; ++i) client.Put();
    if (!client.AwaitAll()) return state.SkipWithError("an event was lost");
  }
  state.SetItemsProcessed(state.iterations() * kBurst);
}

template <class Pump>
void RegisterPump(const std::string& name) {
  const auto add = [](const std::string& full, auto run) {
    return benchmark::RegisterBenchmark(full.c_str(), run)->UseRealTime();
  };
  add("pump/latency/" + name, Latency<Session<Pump>, false>);
  add("pump/latency_plain/" + name, Latency<PlainClient<Pump>, false>);
  add("pump/rested/" + name, Latency<Session<Pump>, true>)->Iterations(100);
  add("pump/rested_plain/" + name, Latency<PlainClient<Pump>, true>)->Iterations(100);
  add("pump/sustained/" + name, Sustained<Session<Pump>>);
  add("pump/sustained_plain/" + name, Sustained<PlainClient<Pump>>);
}

}  // namespace

int main(int argc, char** argv) {
  const bench::LabFolder folder;
  gFolder = folder.Path();
  for (const Keys& keys : kKeys) {
    const auto add = [&](const std::string& name, auto run) {
      benchmark::RegisterBenchmark(name.c_str(), [&keys, run](auto& state) { run(state, keys); });
    };
    add(std::string("keys/translation/") + keys.name, Translate);
    add(std::string("keys/hash_map/") + keys.name, LookUp);
  }
  RegisterPump<KeyboardPump>("keys");
  RegisterPump<MousePump>("pointer");
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 2;
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  return 0;
}

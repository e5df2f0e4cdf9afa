// Turns of the selector beside libevent, libuv and a minimal epoll loop, with idle handlers in the
// loop. An item is one round trip: two waits, two reads, two writes. Nothing in it sleeps, so the
// measure is processor time, which other load on the machine hardly changes.
#include <benchmark/benchmark.h>
#include <event2/event.h>
#include <sys/epoll.h>
#include <uv.h>

#include <deque>

#include "bench/socket_ends.h"
#include "sock/selector.h"

namespace loop_bench {
namespace {

class OurLoop {
 public:
  explicit OurLoop(PingPong* game) : game_(game) {
    Check(stewardry::Selector_Init(&selector_) == stewardry::RESULT_OK);
  }
  OurLoop(const OurLoop&) = delete;
  OurLoop& operator=(const OurLoop&) = delete;
  ~OurLoop() { stewardry::Selector_Destroy(&selector_); }

  void Watch(int end) {
    Player& player = players_.emplace_back();
    player.sock = static_cast<stewardry::Sock>(end);
    player.eventMask = stewardry::SELECTOR_READ;
    player.callback = OnEvent;
    player.game = game_;
    Check(stewardry::Selector_AddHandler(&selector_, &player) == stewardry::RESULT_OK);
  }
  void Run() { Check(stewardry::Selector_Run(&selector_, 0, false) == stewardry::RESULT_OK); }

 private:
  struct Player : stewardry::Handler {
    Player() : stewardry::Handler{}, game(nullptr) {}
    PingPong* game;
  };
  static std::uint8_t OnEvent(stewardry::Selector* selector, stewardry::Handler* handler,
                              std::uint32_t mask, std::uint64_t) {
    if ((mask & stewardry::SELECTOR_READ) == 0) return 1;
    PingPong* game = static_cast<Player*>(handler)->game;
    if (game->Serve(static_cast<int>(handler->sock))) stewardry::Selector_StopRunning(selector);
    return 1;
  }

  PingPong* const game_;
  stewardry::Selector selector_;
  std::deque<Player> players_;
};

class LibeventLoop {
 public:
  explicit LibeventLoop(PingPong* game) : game_(game), base_(event_base_new()) {
    Check(base_ != nullptr);
  }
  LibeventLoop(const LibeventLoop&) = delete;
  LibeventLoop& operator=(const LibeventLoop&) = delete;
  ~LibeventLoop() {
    for (event* each : events_) event_free(each);
    event_base_free(base_);
  }

  void Watch(int end) {
    event* added = event_new(base_, end, EV_READ | EV_PERSIST, OnEvent, this);
    Check(added != nullptr && event_add(added, nullptr) == 0);
    events_.push_back(added);
  }
  void Run() { Check(event_base_dispatch(base_) == 0); }

 private:
  static void OnEvent(evutil_socket_t end, short, void* context) {
    auto* loop = static_cast<LibeventLoop*>(context);
    if (loop->game_->Serve(end)) event_base_loopbreak(loop->base_);
  }

  PingPong* const game_;
  event_base* const base_;
  std::vector<event*> events_;
};

class LibuvLoop {
 public:
  explicit LibuvLoop(PingPong* game) : game_(game) { Check(uv_loop_init(&loop_) == 0); }
  LibuvLoop(const LibuvLoop&) = delete;
  LibuvLoop& operator=(const LibuvLoop&) = delete;
  ~LibuvLoop() {
    for (Player& player : players_) uv_close(reinterpret_cast<uv_handle_t*>(&player.poll), nullptr);
    uv_run(&loop_, UV_RUN_DEFAULT);  // serves the closes
    uv_loop_close(&loop_);
  }

  void Watch(int end) {
    Player& player = players_.emplace_back();
    player.game = game_;
    player.end = end;
    player.poll.data = &player;
    Check(uv_poll_init(&loop_, &player.poll, end) == 0 &&
          uv_poll_start(&player.poll, UV_READABLE, OnEvent) == 0);
  }
  void Run() { uv_run(&loop_, UV_RUN_DEFAULT); }

 private:
  struct Player {
    uv_poll_t poll;
    PingPong* game;
    int end;
  };
  static void OnEvent(uv_poll_t* poll, int, int) {
    auto* player = static_cast<Player*>(poll->data);
    if (player->game->Serve(player->end)) uv_stop(poll->loop);
  }

  PingPong* const game_;
  uv_loop_t loop_;
  std::deque<Player> players_;
};

class FloorLoop {
 public:
  explicit FloorLoop(PingPong* game) : game_(game), epoll_(::epoll_create1(EPOLL_CLOEXEC)) {
    Check(epoll_ >= 0);
  }
  FloorLoop(const FloorLoop&) = delete;
  FloorLoop& operator=(const FloorLoop&) = delete;
  ~FloorLoop() { ::close(epoll_); }

  void Watch(int end) {
    epoll_event entry{};
    entry.events = EPOLLIN;
    entry.data.fd = end;
    Check(::epoll_ctl(epoll_, EPOLL_CTL_ADD, end, &entry) == 0);
  }
  void Run() {
    epoll_event seen[64];
    for (bool done = false; !done;) {
      const int count = ::epoll_wait(epoll_, seen, 64, -1);
      for (int i = 0; i < count; ++i) done = game_->Serve(seen[i].data.fd) || done;
    }
  }

 private:
  PingPong* const game_;
  const int epoll_;
};

template <class Loop>
void Turns(benchmark::State& state) {
  PingPong game(state.range(0) != 0, static_cast<int>(state.range(1)));
  Loop loop(&game);
  game.WatchWith(&loop);
  for (auto _ : state) {
    game.Start();
    loop.Run();
  }
  state.SetItemsProcessed(state.iterations() * PingPong::kTrips);
}

void Cases(benchmark::internal::Benchmark* bench) {
  bench->ArgNames({"tcp", "idle"})->ArgsProduct({{0, 1}, {1, 10, 100}});
}
BENCHMARK(Turns<OurLoop>)->Name("turns/selector")->Apply(Cases);
BENCHMARK(Turns<LibeventLoop>)->Name("turns/libevent")->Apply(Cases);
BENCHMARK(Turns<LibuvLoop>)->Name("turns/libuv")->Apply(Cases);
BENCHMARK(Turns<FloorLoop>)->Name("turns/epoll")->Apply(Cases);

}  // namespace
}  // namespace loop_bench

// Waking a loop from another thread and waiting for its answer: Selector_Wakeup, uv_async, and a
// minimal loop with an eventfd. The answer is an eventfd in all three. The measure is the processor
// time of both threads: on one processor a trip has no other time.
#include <benchmark/benchmark.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <unistd.h>
#include <uv.h>

#include <atomic>
#include <thread>

#include "bench/socket_ends.h"
#include "sock/selector.h"

namespace loop_bench {
namespace {

// A blocking eventfd that one thread signals and another waits for.
class Signal {
 public:
  Signal() : descriptor_(::eventfd(0, EFD_CLOEXEC)) { Check(descriptor_ >= 0); }
  Signal(const Signal&) = delete;
  Signal& operator=(const Signal&) = delete;
  ~Signal() { ::close(descriptor_); }

  int Get() const { return descriptor_; }
  void Send() {
    const std::uint64_t one = 1;
    Check(::write(descriptor_, &one, sizeof one) == sizeof one);
  }
  void Await() {
    std::uint64_t count;
    Check(::read(descriptor_, &count, sizeof count) == sizeof count);
  }

 private:
  const int descriptor_;
};

// A wake-up calls no callback; it can end a run. The thread then runs the selector again, where a
// handler whose deadline has passed answers, since a stop before the run would have no effect. So a
// trip has one wait more than those of the peers.
class OurWaker {
 public:
  OurWaker() {
    Check(stewardry::Selector_Init(&selector_) == stewardry::RESULT_OK);
    answerer_.callback = OnEvent;
    answerer_.answer = &answer_;
    Check(stewardry::Selector_AddHandler(&selector_, &answerer_) == stewardry::RESULT_OK);
    thread_ = std::thread([this] { RunUntilEnd(); });
    answer_.Await();
  }
  OurWaker(const OurWaker&) = delete;
  OurWaker& operator=(const OurWaker&) = delete;
  ~OurWaker() {
    ending_.store(true, std::memory_order_relaxed);  // the stop below orders it
    stewardry::Selector_StopRunning(&selector_);
    thread_.join();
    stewardry::Selector_Destroy(&selector_);
  }

  void Trip() {
    stewardry::Selector_StopRunning(&selector_);
    answer_.Await();
  }

 private:
  struct Answerer : stewardry::Handler {
    Answerer() : stewardry::Handler{}, answer(nullptr) { sock = stewardry::kInvalidSock; }
    Signal* answer;
  };
  static std::uint8_t OnEvent(stewardry::Selector*, stewardry::Handler* handler, std::uint32_t mask,
                              std::uint64_t) {
    if ((mask & stewardry::SELECTOR_TIMEOUT) == 0) return 1;
    handler->timeoutAt = 0;
    static_cast<Answerer*>(handler)->answer->Send();
    return 1;
  }
  void RunUntilEnd() {
    while (!ending_.load(std::memory_order_relaxed)) {
      answerer_.timeoutAt = 1;  // long past
      Check(stewardry::Selector_Run(&selector_, 0, false) == stewardry::RESULT_OK);
    }
  }

  stewardry::Selector selector_;
  Answerer answerer_;
  Signal answer_;
  std::atomic<bool> ending_{false};
  std::thread thread_;
};

class LibuvWaker {
 public:
  LibuvWaker() {
    Check(uv_loop_init(&loop_) == 0);
    wake_.data = &answer_;
    Check(uv_async_init(&loop_, &wake_, OnWake) == 0 && uv_async_init(&loop_, &end_, OnEnd) == 0);
    thread_ = std::thread([this] { uv_run(&loop_, UV_RUN_DEFAULT); });
  }
  LibuvWaker(const LibuvWaker&) = delete;
  LibuvWaker& operator=(const LibuvWaker&) = delete;
  ~LibuvWaker() {
    uv_async_send(&end_);
    thread_.join();
    for (uv_async_t* each : {&wake_, &end_})
      uv_close(reinterpret_cast<uv_handle_t*>(each), nullptr);
    uv_run(&loop_, UV_RUN_DEFAULT);  // serves the closes
    uv_loop_close(&loop_);
  }

  void Trip() {
    uv_async_send(&wake_);
    answer_.Await();
  }

 private:
  static void OnWake(uv_async_t* async) { static_cast<Signal*>(async->data)->Send(); }
  static void OnEnd(uv_async_t* async) { uv_stop(async->loop); }

  uv_loop_t loop_;
  uv_async_t wake_;
  uv_async_t end_;
  Signal answer_;
  std::thread thread_;
};

class FloorWaker {
 public:
  FloorWaker() : epoll_(::epoll_create1(EPOLL_CLOEXEC)) {
    epoll_event entry{};
    entry.events = EPOLLIN;
    Check(::epoll_ctl(epoll_, EPOLL_CTL_ADD, wake_.Get(), &entry) == 0);
    thread_ = std::thread([this] { RunUntilEnd(); });
  }
  FloorWaker(const FloorWaker&) = delete;
  FloorWaker& operator=(const FloorWaker&) = delete;
  ~FloorWaker() {
    ending_.store(true, std::memory_order_relaxed);  // the signal below orders it
    wake_.Send();
    thread_.join();
    ::close(epoll_);
  }

  void Trip() {
    wake_.Send();
    answer_.Await();
  }

 private:
  void RunUntilEnd() {
    while (!ending_.load(std::memory_order_relaxed)) {
      epoll_event seen;
      if (::epoll_wait(epoll_, &seen, 1, -1) <= 0) continue;
      wake_.Await();
      answer_.Send();
    }
  }

  const int epoll_;
  Signal wake_;
  Signal answer_;
  std::atomic<bool> ending_{false};
  std::thread thread_;
};

template <class Waker>
void Wakes(benchmark::State& state) {
  Waker waker;
  for (auto _ : state) waker.Trip();
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(Wakes<OurWaker>)->Name("wake/selector")->MeasureProcessCPUTime();
BENCHMARK(Wakes<LibuvWaker>)->Name("wake/uv_async")->MeasureProcessCPUTime();
BENCHMARK(Wakes<FloorWaker>)->Name("wake/eventfd")->MeasureProcessCPUTime();

}  // namespace
}  // namespace loop_bench

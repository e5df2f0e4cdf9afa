// A line of the service log, which has left the process when the call returns, beside spdlog's
// rotating file with a flush after each line (no lock between processes) and the least that is
// safe between processes: a formatted line written under a robust shared mutex. An item is a line.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <pthread.h>
#include <spdlog/sinks/rotating_file_sink.h>
#include <spdlog/spdlog.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <memory>
#include <string>

#include "bench/lab_folder.h"
#include "service/diagnostics/service_log.h"

namespace {

constexpr std::uint32_t kLimit = 10 << 20;  // the service's own
constexpr int kPort = 664;
constexpr std::uint32_t kBytes = 131072;

std::string gFolder;

void OurLine(benchmark::State& state) {
  if (state.thread_index() == 0) stewardry::ServiceLog_Start("C:\\service.log", kLimit);
  for (auto _ : state) stewardry::LogInfo("Port %d moved %d bytes to the mailbox", kPort, kBytes);
  if (state.thread_index() == 0) stewardry::ServiceLog_Close();
  state.SetItemsProcessed(state.iterations());
}

void SpdlogLine(benchmark::State& state) {
  static std::shared_ptr<spdlog::logger> logger;
  if (state.thread_index() == 0) {
    logger = spdlog::rotating_logger_mt("bench", gFolder + "/spdlog.log", kLimit, 1);
    logger->set_pattern("INFO:  <%Y/%m/%d %H:%M:%S>[%P]-[ 1 M ] %v <thread=%t>");
    logger->flush_on(spdlog::level::trace);
  }
  for (auto _ : state) logger->info("Port {} moved {} bytes to the mailbox", kPort, kBytes);
  if (state.thread_index() == 0) {
    spdlog::drop("bench");
    logger.reset();
  }
  state.SetItemsProcessed(state.iterations());
}

// A file that starts again at its limit, under a robust mutex in shared memory.
class FloorLog {
 public:
  explicit FloorLog(const std::string& path)
      : file_(::open(path.c_str(), O_CREAT | O_TRUNC | O_WRONLY | O_APPEND | O_CLOEXEC, 0644)),
        mutex_(static_cast<pthread_mutex_t*>(::mmap(nullptr, sizeof(pthread_mutex_t),
                                                    PROT_READ | PROT_WRITE,
                                                    MAP_SHARED | MAP_ANONYMOUS, -1, 0))) {
    if (file_ < 0 || mutex_ == MAP_FAILED) std::abort();
    pthread_mutexattr_t attributes;
    pthread_mutexattr_init(&attributes);
    pthread_mutexattr_setpshared(&attributes, PTHREAD_PROCESS_SHARED);
    pthread_mutexattr_setrobust(&attributes, PTHREAD_MUTEX_ROBUST);
    pthread_mutex_init(mutex_, &attributes);
    pthread_mutexattr_destroy(&attributes);
  }
  FloorLog(const FloorLog&) = delete;
  FloorLog& operator=(const FloorLog&) = delete;
  ~FloorLog() {
    pthread_mutex_destroy(mutex_);
    ::munmap(mutex_, sizeof *mutex_);
    ::close(file_);
  }

  void Write(const char* line, std::size_t size) {
    pthread_mutex_lock(mutex_);
    written_ += size;
    if (written_ > kLimit && ::ftruncate(file_, 0) == 0) written_ = 0;
    [[maybe_unused]] const ssize_t n = ::write(file_, line, size);  // a full disk costs its lines
    pthread_mutex_unlock(mutex_);
  }

 private:
  const int file_;
  pthread_mutex_t* const mutex_;
  std::size_t written_ = 0;  // under the mutex
};

int FormatFloorLine(std::array<char, 256>* line) {
  const std::time_t now = std::time(nullptr);
  std::tm t{};
  ::gmtime_r(&now, &t);
  return std::snprintf(line->data(), line->size(),
                       "INFO:  <%d/%02d/%02d %02d:%02d:%02d>[%d]-[ 1 M ] Port %d moved %u bytes to "
                       "the mailbox <thread=%d>\r\n",
                       t.tm_year + 1900, t.tm_mon + 1, t.tm_mday, t.tm_hour, t.tm_min, t.tm_sec,
                       ::getpid(), kPort, kBytes, ::gettid());
}

void FloorLine(benchmark::State& state) {
  static std::unique_ptr<FloorLog> log;
  if (state.thread_index() == 0) log = std::make_unique<FloorLog>(gFolder + "/floor.log");
  for (auto _ : state) {
    std::array<char, 256> line;
    const int size = FormatFloorLine(&line);
    log->Write(line.data(), static_cast<std::size_t>(size));
  }
  if (state.thread_index() == 0) log.reset();
  state.SetItemsProcessed(state.iterations());
}

void Cases(benchmark::internal::Benchmark* bench) { bench->UseRealTime()->Threads(1)->Threads(4); }
BENCHMARK(OurLine)->Name("log/service_log")->Apply(Cases);
BENCHMARK(SpdlogLine)->Name("log/spdlog")->Apply(Cases);
BENCHMARK(FloorLine)->Name("log/shared_mutex")->Apply(Cases);

}  // namespace

int main(int argc, char** argv) {
  const bench::LabFolder folder;
  gFolder = folder.Path();
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 2;
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  return 0;
}

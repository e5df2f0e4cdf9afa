// The log file under threads that are ended, on the platform's own files.
#include "service/diagnostics/log_file.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>

#include "platform/event.h"
#include "platform/mutex.h"
#include "platform/thread.h"
#include "tests/eventually.h"
#include "tests/host_file.h"

namespace stewardry {
namespace {

struct Shared {
  LogFile file;  // guarded by the mutex
  platform::Mutex mutex = platform::CreateMutexA(nullptr);
  std::atomic<int> lines{0};
};

void Write(Shared* shared, int lines) {
  static constexpr char kText[] = "a line that is as long as the lines of the logs mostly are\n";
  platform::WaitForSingleObject(shared->mutex, platform::kInfinite);
  for (int i = 0; i < lines; ++i) {
    shared->file.Write(kText, sizeof kText - 1);
    ++shared->lines;
  }
  platform::ReleaseMutex(shared->mutex);
}
std::uint32_t WriteOnce(void* shared) { return Write(static_cast<Shared*>(shared), 1), 0; }
std::uint32_t WriteForEver(void* shared) {
  for (;;) {
    Write(static_cast<Shared*>(shared), 100);
    platform::Sleep(0);  // where Linux ends a thread
  }
}

// Windows ends a thread where it stands, also in the middle of a write. Whatever the thread holds
// there that isn't the kernel's, the next writer waits for without end.
TEST(LogFile, WriterEndedAnywhereLeavesTheFileToTheNextOne) {
  constexpr char kPath[] = "C:\\ProgramData\\Corvane\\Stewardry\\ended-writers.log";
  MakeRoomFor(kPath);
  auto* shared = new Shared;  // the ended threads may still have their hands in it
  ASSERT_TRUE(shared->file.SetPath(kPath));
  ASSERT_TRUE(shared->file.Open("w+t", nullptr));
  shared->file.SetLimit(0xFFFFFFFF);
  for (int i = 0; i < 15; ++i) {
    const platform::Thread writer = platform::CreateThread(WriteForEver, shared);
    ASSERT_TRUE(Eventually([&, enough = shared->lines + 30] { return shared->lines > enough; }));
    ASSERT_TRUE(platform::TerminateThread(writer, 0));
    ASSERT_EQ(platform::WaitForSingleObject(writer, 60'000), 0U);
    const platform::Thread next = platform::CreateThread(WriteOnce, shared);
    if (platform::WaitForSingleObject(next, 60'000) == platform::kWaitObject0) continue;
    std::printf("the write after end %d hangs\n", i + 1);
    std::fflush(stdout);
    std::_Exit(1);  // a hung thread keeps what an orderly exit needs
  }
  delete shared;
  EXPECT_EQ(HostFileText(kPath).substr(0, 8), "a line t");
}

}  // namespace
}  // namespace stewardry

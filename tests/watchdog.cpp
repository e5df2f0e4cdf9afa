// A test that hangs prints the stacks of all its threads, then ends. The limit lies below the time
// after which ctest ends a test without a word; STEWARDRY_WATCHDOG_SECONDS sets another one.
#include <cstdio>
#include <cstdlib>

namespace {

int Seconds() {
  const char* given = std::getenv("STEWARDRY_WATCHDOG_SECONDS");
  return given != nullptr ? std::atoi(given) : 240;
}

}  // namespace

#ifdef _WIN32

#include <windows.h>

#include <string>

namespace {

void CALLBACK PrintStacks(void* /*nothing*/, BOOLEAN /*timed out, always*/) {
  std::fputs("The test hangs; the stacks of its threads:\n", stderr);
  // Wine's debugger. On Windows, where it is missing, a dump of the ended process says as much.
  (void)std::system(
      ("winedbg --command \"bt all\" " + std::to_string(GetCurrentProcessId())).c_str());
  std::abort();
}

[[maybe_unused]] const bool gArmed = [] {
  HANDLE timer = nullptr;
  return CreateTimerQueueTimer(&timer, nullptr, PrintStacks, nullptr,
                               static_cast<DWORD>(Seconds()) * 1000, 0, WT_EXECUTEONLYONCE) != 0;
}();

}  // namespace

#else

#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>

namespace {

char gProcess[16];  // this process's number, made ready because the handler may not format

// Async-signal-safe calls only: the debugger is started, and prints to standard output.
void PrintStacks(int /*SIGALRM*/) {
  constexpr char kLine[] = "The test hangs; the stacks of its threads:\n";
  (void)!write(STDOUT_FILENO, kLine, sizeof kLine - 1);
  if (const pid_t child = fork(); child == 0) {
    execlp("gdb", "gdb", "-p", gProcess, "-batch", "-nx", "-ex", "thread apply all bt", nullptr);
    _exit(127);
  } else {
    (void)waitpid(child, nullptr, 0);
  }
  std::abort();
}

// A child that a test forks has no alarm.
[[maybe_unused]] const bool gArmed = [] {
  std::snprintf(gProcess, sizeof gProcess, "%d", getpid());
  (void)prctl(PR_SET_PTRACER, PR_SET_PTRACER_ANY, 0, 0, 0);
  (void)std::signal(SIGALRM, PrintStacks);
  alarm(static_cast<unsigned>(Seconds()));
  return true;
}();

}  // namespace

#endif

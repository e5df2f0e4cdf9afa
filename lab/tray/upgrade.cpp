// upgrade, the stand-in of the software upgrade tool: it serves the service's upgrade pipe, polls
// for what the firmware has announced and prints each answer on a line.
#include <cstdio>
#include <string>

#include "lab/local/served_pipe.h"

namespace {

constexpr char kPipe[] = "SoftwareUpgradePipe";
constexpr char kPoll[] = "6";

int Poll(long count, long seconds) {
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(seconds);
  std::string problem, answer;
  lab::ServedPipe pipe;
  bool answered = pipe.Open(kPipe, &problem);
  for (long i = 0; i < count && answered; ++i) {
    answered = pipe.Ask(kPoll, deadline, &answer, &problem);
    if (!answered) break;
    std::printf("%s\n", answer.c_str());
    std::fflush(stdout);
  }
  if (!answered) std::fprintf(stderr, "upgrade: %s: %s\n", kPipe, problem.c_str());
  return answered ? 0 : 1;
}

int Usage() {
  std::fprintf(stderr,
               "usage: upgrade [--seconds N] [COUNT]\n"
               "polls the service COUNT times (1) for an upgrade notice; gives up after N seconds\n"
               "(30)\n");
  return 2;
}

}  // namespace

int main(int argc, char** argv) {
  lab::Words words(argv + 1, argv + argc);
  long seconds = 30, count = 1;
  if (!lab::TakeSeconds(&words, &seconds) || words.size() > 1) return Usage();
  if (words.size() == 1 && !lab::ReadNumber(words[0], &count)) return Usage();
  return Poll(count, seconds);
}

// The client end: what a user of the relay sees of it.
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <string_view>
#include <vector>

#include "bench/relay/ends.h"
#include "bench/relay/stream.h"

namespace relay {

namespace {

using Clock = std::chrono::steady_clock;
using Microseconds = std::chrono::duration<double, std::micro>;

int Broken() {
  std::fputs("the stream broke\n", stderr);
  return 1;
}

int MeasureThroughput(int sock, std::uint64_t total) {
  PageBuffer chunk(kChunk);
  const StreamHead head{0, total};
  if (!SendAll(sock, &head, sizeof head)) return Broken();
  const Clock::time_point began = Clock::now();
  for (std::uint64_t left = total; left > 0;) {
    const std::size_t size = std::min<std::uint64_t>(left, kChunk);
    if (!SendAll(sock, chunk.Data(), size)) return Broken();
    left -= size;
  }
  std::uint64_t taken = 0;
  if (!ReceiveAll(sock, &taken, sizeof taken) || taken != total) return Broken();
  const double microseconds = Microseconds(Clock::now() - began).count();
  std::printf("MBps %.1f\n", static_cast<double>(total) / microseconds);
  return 0;
}

void PrintRounds(std::vector<double>* microseconds) {
  std::sort(microseconds->begin(), microseconds->end());
  auto percentile = [&](std::size_t percent) {
    return (*microseconds)[(microseconds->size() - 1) * percent / 100];
  };
  std::printf("p50 %.2f p99 %.2f\n", percentile(50), percentile(99));
}

// Each byte of a round is its number, so that an echo out of step is seen.
bool RunRound(int sock, PageBuffer* round, std::size_t size, std::uint64_t number) {
  const auto mark = static_cast<std::byte>(number);
  round->Data()[0] = round->Data()[size - 1] = mark;
  return SendAll(sock, round->Data(), size) && ReceiveAll(sock, round->Data(), size) &&
         round->Data()[0] == mark && round->Data()[size - 1] == mark;
}

int MeasureRounds(int sock, std::size_t size, std::uint64_t rounds) {
  PageBuffer round(size);
  const StreamHead head{size, 0};
  if (!SendAll(sock, &head, sizeof head)) return Broken();
  const std::uint64_t warmUp = rounds / 10;
  std::vector<double> microseconds;
  microseconds.reserve(rounds);
  for (std::uint64_t i = 0; i < warmUp + rounds; ++i) {
    const Clock::time_point began = Clock::now();
    if (!RunRound(sock, &round, size, i)) return Broken();
    if (i >= warmUp) microseconds.push_back(Microseconds(Clock::now() - began).count());
  }
  PrintRounds(&microseconds);
  return 0;
}

// What is asked for goes out when the last answer is in, so no more than one answer is under way
// and nothing is lost on the way.
int MeasureAnswers(int sock, std::uint64_t rounds) {
  PageBuffer room(kPicture);
  const StreamHead head{kSmallRound, kPicture};
  if (!SendAll(sock, &head, sizeof head)) return Broken();
  const std::uint64_t warmUp = rounds / 10;
  Clock::time_point began;
  for (std::uint64_t i = 0; i < warmUp + rounds; ++i) {
    if (i == warmUp) began = Clock::now();
    if (!SendAll(sock, room.Data(), kSmallRound)) return Broken();
    if (!ReceiveAll(sock, room.Data(), kPicture)) return Broken();
  }
  const double microseconds = Microseconds(Clock::now() - began).count();
  std::printf("MBps %.1f\n", static_cast<double>(rounds * kPicture) / microseconds);
  return 0;
}

}  // namespace

int RunClient(std::uint16_t port, const std::string& mode, std::uint64_t n) {
  const Descriptor sock = DialTcp(port);
  if (!sock || n == 0) return Broken();
  if (mode == "tput") return MeasureThroughput(sock.Get(), n);
  if (mode == "rtt") return MeasureRounds(sock.Get(), kSmallRound, n);
  if (mode == "chunk") return MeasureRounds(sock.Get(), kChunk, n);
  if (mode == "down") return MeasureAnswers(sock.Get(), n);
  std::fprintf(stderr, "no mode %s\n", mode.c_str());
  return 2;
}

}  // namespace relay

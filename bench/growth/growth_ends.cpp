// The client of the relay's growth: consoles that replace each other, trips of any size, and
// traffic without a pause. It prints its numbers as words, which the Python beside it reads.
#include <openssl/ssl.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

#include "bench/relay/stream.h"

namespace growth {

namespace {

using Clock = std::chrono::steady_clock;
using relay::Descriptor;
using relay::kChunk;
using relay::PageBuffer;
using relay::ReceiveAll;
using relay::SendAll;

double MicrosecondsSince(Clock::time_point began) {
  return std::chrono::duration<double, std::micro>(Clock::now() - began).count();
}

int Broken() {
  std::fputs("the stream broke\n", stderr);
  return 1;
}

// Asks the far end to echo rounds of `size` bytes.
bool BeginRounds(int sock, std::uint64_t size) {
  const relay::StreamHead head{size, 0};
  return SendAll(sock, &head, sizeof head);
}

// Each round begins and ends with its number, which shows an echo out of step.
bool RunRound(int sock, PageBuffer* room, std::size_t size, std::uint64_t number) {
  const auto mark = static_cast<std::byte>(number);
  room->Data()[0] = room->Data()[size - 1] = mark;
  return SendAll(sock, room->Data(), size) && ReceiveAll(sock, room->Data(), size) &&
         room->Data()[0] == mark && room->Data()[size - 1] == mark;
}

// A console connected over TCP, which has had an answer from the far end.
class PlainConsole {
 public:
  bool Open(std::uint16_t port) {
    sock_ = relay::DialTcp(port);
    PageBuffer room(relay::kSmallRound);
    return sock_ && BeginRounds(sock_.Get(), relay::kSmallRound) &&
           RunRound(sock_.Get(), &room, relay::kSmallRound, 1);
  }

 private:
  Descriptor sock_;
};

SSL_CTX* ClientContext() {
  static const std::unique_ptr<SSL_CTX, void (*)(SSL_CTX*)> context(
      SSL_CTX_new(TLS_client_method()), SSL_CTX_free);
  return context.get();
}

// A console that has made a full TLS handshake with the far end and had one page from it.
class TlsConsole {
 public:
  bool Open(std::uint16_t port) {
    sock_ = relay::DialTcp(port);
    ssl_.reset(SSL_new(ClientContext()));
    if (!sock_ || !ssl_ || SSL_set_fd(ssl_.get(), sock_.Get()) != 1) return false;
    return SSL_connect(ssl_.get()) == 1 && HasPage();
  }

 private:
  bool HasPage() {
    const std::string request = "GET /bytes/1 HTTP/1.1\r\nHost: console\r\n\r\n";
    const int size = static_cast<int>(request.size());
    if (SSL_write(ssl_.get(), request.data(), size) != size) return false;
    char answer[1024];
    const int count = SSL_read(ssl_.get(), answer, sizeof answer);
    return count > 0 &&
           std::string(answer, static_cast<std::size_t>(count)).find(" 200 ") != std::string::npos;
  }

  Descriptor sock_;
  std::unique_ptr<SSL, void (*)(SSL*)> ssl_{nullptr, SSL_free};
};

// Opens `count` consoles one after the other, each in the place of the one before, the first in
// that of one that isn't counted. Those before stay open here, so that the service alone closes
// them.
template <class Console>
int ReplaceConsoles(std::uint16_t port, std::uint64_t count) {
  std::vector<Console> consoles(count);
  Console before;
  if (!before.Open(port)) return Broken();
  const Clock::time_point began = Clock::now();
  for (Console& console : consoles)
    if (!console.Open(port)) return Broken();
  std::printf("microseconds %.3f\n", MicrosecondsSince(began) / static_cast<double>(count));
  return 0;
}

// Prints the median of `count` trips of `size` bytes; a tenth more come before them.
int MakeTrips(std::uint16_t port, std::uint64_t size, std::uint64_t count) {
  const Descriptor sock = relay::DialTcp(port);
  if (!sock || size == 0 || size > kChunk || !BeginRounds(sock.Get(), size)) return Broken();
  PageBuffer room(size);
  std::vector<double> taken;
  const std::uint64_t warmUp = count / 10;
  for (std::uint64_t i = 0; i < warmUp + count; ++i) {
    const Clock::time_point began = Clock::now();
    if (!RunRound(sock.Get(), &room, size, i)) return Broken();
    if (i >= warmUp) taken.push_back(MicrosecondsSince(began));
  }
  const auto middle = taken.begin() + static_cast<std::ptrdiff_t>(taken.size() / 2);
  std::nth_element(taken.begin(), middle, taken.end());
  std::printf("microseconds %.3f\n", *middle);
  return 0;
}

// One second of trips of 128 KiB on a connection of its own. Returns the bytes that were sent and
// came back, or 0 if the stream broke.
std::uint64_t RunSecond(std::uint16_t port, PageBuffer* room) {
  const Descriptor sock = relay::DialTcp(port);
  if (!sock || !BeginRounds(sock.Get(), kChunk)) return 0;
  std::uint64_t bytes = 0;
  const Clock::time_point end = Clock::now() + std::chrono::seconds(1);
  for (std::uint64_t i = 0; Clock::now() < end; ++i) {
    if (!RunRound(sock.Get(), room, kChunk, i)) return 0;
    bytes += 2 * kChunk;
  }
  return bytes;
}

// A new console each second. Prints a line for each as it ends.
int MakeTraffic(std::uint16_t port, std::uint64_t seconds) {
  PageBuffer room(kChunk);
  for (std::uint64_t i = 0; i < seconds; ++i) {
    const std::uint64_t bytes = RunSecond(port, &room);
    if (bytes == 0) return Broken();
    std::printf("bytes %llu\n", static_cast<unsigned long long>(bytes));
    std::fflush(stdout);
  }
  return 0;
}

int Usage() {
  std::fputs(
      "growth_ends consoles PORT COUNT\n"
      "growth_ends consoles_tls PORT COUNT\n"
      "growth_ends trips PORT SIZE COUNT\n"
      "growth_ends traffic PORT SECONDS\n",
      stderr);
  return 2;
}

}  // namespace

int Run(int argc, char** argv) {
  if (argc < 4) return Usage();
  const std::string mode = argv[1];
  const auto port = static_cast<std::uint16_t>(std::strtoul(argv[2], nullptr, 10));
  const std::uint64_t amount = std::strtoull(argv[3], nullptr, 10);
  if (mode == "consoles" && argc == 4) return ReplaceConsoles<PlainConsole>(port, amount);
  if (mode == "consoles_tls" && argc == 4) return ReplaceConsoles<TlsConsole>(port, amount);
  if (mode == "trips" && argc == 5)
    return MakeTrips(port, amount, std::strtoull(argv[4], nullptr, 10));
  if (mode == "traffic" && argc == 4) return MakeTraffic(port, amount);
  return Usage();
}

}  // namespace growth

int main(int argc, char** argv) {
  std::signal(SIGPIPE, SIG_IGN);
  return growth::Run(argc, argv);
}

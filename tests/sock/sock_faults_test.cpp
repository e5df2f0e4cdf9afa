// The socket layer where the platform's calls fail, and the cases that need sockets whose bytes
// arrive with the call that sends them.
#include <dlfcn.h>
#include <gtest/gtest.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <filesystem>
#include <fstream>
#include <tuple>

#include "sock/selector.h"
#include "sock/sock.h"
#include "tests/lab_folder_fixture.h"
#include "tests/own_network.h"

// The error of the next accept4 of the process, 0 for none. Other calls go to the next definition,
// which may be a sanitizer's.
static std::atomic<int> gAcceptError{0};
extern "C" int accept4(int listener, sockaddr* peer, socklen_t* size, int flags) {
  static const auto next = reinterpret_cast<decltype(&accept4)>(::dlsym(RTLD_NEXT, "accept4"));
  const int error = gAcceptError.exchange(0);
  if (error == 0) return next(listener, peer, size, flags);
  errno = error;
  return -1;
}

namespace stewardry {
namespace {

namespace gate = platform::gate;

struct UnixPair {
  int ends[2];
  UnixPair() { EXPECT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends), 0); }
  UnixPair(const UnixPair&) = delete;
  UnixPair& operator=(const UnixPair&) = delete;
  ~UnixPair() {
    for (const int end : ends) ::close(end);
  }
};

class SockFaults : public LabTest {};

TEST_F(SockFaults, HardErrorHalvesTheWriteDownToFourKilobytes) {
  const std::pair<std::uint64_t, std::size_t> kTriesOfSizes[] = {
      {10000, 3}, {4097, 2}, {4096, 1}, {131070, 6}};
  std::uint64_t count = 7;
  for (const auto& [size, tries] : kTriesOfSizes) {
    gate::Arm();
    gate::FailEvery("send", 10054);
    EXPECT_EQ(Sock_Write(5, "", size, &count), RESULT_FAILED);
    EXPECT_EQ(CountCalls("send"), tries) << size;
    EXPECT_EQ(count, 0U);
  }
  gate::Arm();
  gate::FailNext("send", platform::kWsaEWouldBlock);
  EXPECT_EQ(Sock_Write(5, "", 131070, &count), RESULT_WOULD_BLOCK);
}

TEST_F(SockFaults, InterruptedCallIsRepeated) {
  char byte;
  std::uint64_t count;
  for (int i = 0; i < 5; ++i) gate::FailNext("recv", platform::kWsaEIntr);
  gate::FailNext("recv", platform::kWsaEWouldBlock);
  EXPECT_EQ(Sock_Read(5, &byte, 1, &count), RESULT_WOULD_BLOCK);
  EXPECT_EQ(CountCalls("recv"), 6U);
}

TEST_F(SockFaults, GatheredCallsMoveThePiecesUntilOneFailsOrIsShort) {
  const UnixPair pair;
  const Sock writer = static_cast<Sock>(pair.ends[0]), reader = static_cast<Sock>(pair.ends[1]);
  char text[] = "abcdef", first[4], second[8], third[8] = "none";
  const SockPiece pieces[] = {{text, 2}, {text + 2, 3}, {text, 1}};
  const SockPiece places[] = {{first, 4}, {second, 8}, {third, 8}};
  std::uint64_t count;
  gate::FailNext("send", platform::kWsaENotConn);
  EXPECT_EQ(Sock_WriteV(writer, pieces, &count), RESULT_NOT_FOUND);
  gate::FailNext("send", 10054, 2);
  EXPECT_EQ(Sock_WriteV(writer, pieces, &count), RESULT_OK);
  EXPECT_EQ(count, 5U);
  EXPECT_EQ(Sock_ReadV(reader, places, &count), RESULT_OK);
  EXPECT_EQ(count, 5U);
  EXPECT_EQ(std::string(first, 4) + second[0] + third, "abcdenone");
}

// A name with two addresses needs a hosts file, and so a mount namespace of the test's own.
TEST_F(SockFaults, ConnectTriesTheSecondAddressAfterTheFirst) {
  const std::string hosts = lab() + "/hosts";
  std::ofstream(hosts) << "127.0.0.1 twofold\n127.0.0.2 twofold\n";
  if (!EnterOwnNetwork() || ::unshare(CLONE_NEWNS) != 0 ||
      ::mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
      ::mount(hosts.c_str(), "/etc/hosts", nullptr, MS_BIND, nullptr) != 0)
    GTEST_SKIP() << "may not make namespaces";
  Addr second;
  Sock listener, sock;
  ASSERT_EQ(Addr_Resolve(&second, "127.0.0.2", 664, false), RESULT_OK);
  ASSERT_EQ(Sock_CreateListener(&listener, second), RESULT_OK);
  EXPECT_EQ(Sock_ConnectTo(&sock, "twofold:664"), RESULT_OK);
  EXPECT_EQ(CountCalls("connect"), 2U) << "the first address refuses";
  for (const Sock each : {listener, sock}) (void)Sock_Close(each);
}

TEST_F(SockFaults, LocalConnectReachesTheListenerAndTheAcceptSkipsConnectionsThatHaveEnded) {
  if (!EnterOwnNetwork()) GTEST_SKIP() << "may not make a network namespace";
  Sock listener, sock, accepted;
  RemoteAddress peer;
  ASSERT_EQ(Sock_ListenOnPort(&listener, "664"), RESULT_OK);
  EXPECT_NE(Sock_ConnectLocal(&sock, "664"), RESULT_FAILED);
  EXPECT_EQ(Sock_Accept(listener, &accepted, &peer), RESULT_OK);
  EXPECT_EQ(Sock_SetNoDelay(accepted, true), RESULT_OK);
  for (const Sock each : {sock, accepted}) (void)Sock_Close(each);
  EXPECT_EQ(Sock_SetBlocking(listener, false), RESULT_OK);
  for (const int error : {ECONNABORTED, EPROTO, ENETDOWN, ENETUNREACH, EHOSTDOWN, EHOSTUNREACH,
                          ENOPROTOOPT, EOPNOTSUPP, ENONET}) {
    gAcceptError = error;
    EXPECT_EQ(Sock_Accept(listener, &sock, &peer), RESULT_WOULD_BLOCK) << strerror(error);
  }
  gate::FailEvery("accept", platform::kWsaEConnReset);  // a peer that goes on for ever
  EXPECT_EQ(Sock_Accept(listener, &sock, &peer), RESULT_WOULD_BLOCK);
  (void)Sock_Close(listener);
}

std::pair<SelectorEvent, const Handler*> gReport;
std::uint32_t gMask;

std::uint8_t NoteMaskAndStop(Selector* selector, Handler*, std::uint32_t mask, std::uint64_t) {
  if (mask == SELECTOR_DESTROY) return 1;
  Selector_StopRunning(selector);
  gMask = mask;
  return 1;
}

TEST_F(SockFaults, FailingStepOfARunEndsItWithItsOwnReport) {
  const UnixPair pair;  // with a byte and a close for the handler
  EXPECT_EQ(::send(pair.ends[1], "x", 1, 0), 1);
  ::shutdown(pair.ends[1], SHUT_WR);
  Selector_SetReport([](SelectorEvent event, const Selector*, std::uint32_t, const Handler* which) {
    gReport = {event, which};
  });
  Handler handler;
  const std::tuple<const char*, Result, decltype(gReport)> kRows[] = {
      {"WSAEventSelect", RESULT_FAILED, {SelectorEvent::kSetSockEvents, &handler}},
      {"WaitForMultipleObjectsEx", RESULT_FAILED, {SelectorEvent::kWait, nullptr}},
      {"WSAEnumNetworkEvents", RESULT_FAILED, {SelectorEvent::kGetSockEvents, &handler}},
      {"none", RESULT_OK, {}}};
  for (const auto& [step, result, report] : kRows) {
    handler = {};
    handler.sock = static_cast<Sock>(pair.ends[0]);
    handler.eventMask = SELECTOR_READ;
    handler.callback = NoteMaskAndStop;
    gReport = {};
    Selector selector;
    EXPECT_EQ(Selector_Init(&selector), RESULT_OK);
    EXPECT_EQ(Selector_AddHandler(&selector, &handler), RESULT_OK);
    gate::FailNext(step, 10022);
    EXPECT_EQ(Selector_Run(&selector, 60'000'000, false), result) << step;
    EXPECT_EQ(gReport, report) << step;
    Selector_Destroy(&selector);
  }
  EXPECT_EQ(gMask, SELECTOR_READ) << "the close is reported once the byte has been read";
}

}  // namespace
}  // namespace stewardry

#include "sock/sock.h"

#include <gtest/gtest.h>

#include <string>

#include "tests/eventually.h"
#include "tests/sock/socket_pair.h"

namespace stewardry {
namespace {

class SockLayer : public SocketTest {};

// Repeats the call until it has something to do.
template <class Call>
Result WhenReady(Call call) {
  Result result = RESULT_WOULD_BLOCK;
  EXPECT_TRUE(Eventually([&] { return (result = call()) != RESULT_WOULD_BLOCK; }));
  return result;
}

TEST_F(SockLayer, ReadDistinguishesNoDataDataAndClose) {
  SocketPair pair;
  char buffer[16];
  std::uint64_t count = 99;
  const auto read = [&] { return Sock_Read(pair.a, buffer, sizeof buffer, &count); };
  EXPECT_EQ(read(), RESULT_WOULD_BLOCK);
  EXPECT_EQ(count, 0U);
  pair.Send("hello");
  EXPECT_EQ(WhenReady(read), RESULT_OK);
  EXPECT_EQ(std::string(buffer, count), "hello");
  SocketPair::Close(&pair.b);
  EXPECT_EQ(WhenReady(read), RESULT_OK);
  EXPECT_EQ(count, 0U);
}

TEST_F(SockLayer, ConnectTextNeedsAColonAListenerAndAHostOfAtMost127Characters) {
  const std::pair<std::string, Result> kRows[] = {
      {"127.0.0.1", RESULT_INVALID_PARAMETER},
      {std::string(128, 'h') + ":1", RESULT_INVALID_PARAMETER},
      {"127.0.0.1:1", RESULT_FAILED}};
  for (const auto& [text, result] : kRows) {
    Sock sock = 0;
    EXPECT_EQ(Sock_ConnectTo(&sock, text.c_str()), result) << text;
    EXPECT_EQ(sock, kInvalidSock) << text;
  }
}

// Winsock's SO_REUSEADDR would let another process take the port.
TEST_F(SockLayer, ListenerOfWinsockHasItsPortAlone) {
  Sock other, listener;
  Addr address;
  ASSERT_EQ(Sock_Create(&other, false), RESULT_OK);
  EXPECT_EQ(Sock_ReuseAddr(other, true), RESULT_OK);
  Addr_InitAny(&address, BindFreePort(other));
  EXPECT_EQ(Sock_CreateListener(&listener, address),
            platform::kSelectBeforeEachWait ? RESULT_FAILED : RESULT_OK);
  for (const Sock each : {other, listener}) (void)Sock_Close(each);
}

TEST_F(SockLayer, DatagramArrivesWithItsSendersAddress) {
  constexpr int kDatagrams = 2;  // SOCK_DGRAM
  const Sock sender = platform::socket(platform::kAfInet, kDatagrams, 0);
  const Sock receiver = platform::socket(platform::kAfInet, kDatagrams, 0);
  Addr from, to;
  Addr_InitAny(&from, BindFreePort(sender));
  ASSERT_EQ(Addr_Resolve(&to, "127.0.0.1", BindFreePort(receiver), false), RESULT_OK);
  char buffer[8];
  std::uint64_t count = 99;
  RemoteAddress peer{};
  int peerSize = sizeof peer;
  EXPECT_EQ(Sock_WriteTo(sender, "ping", 4, &count, to.storage, to.sockaddrSize), RESULT_OK);
  EXPECT_EQ(Sock_ReadFrom(receiver, buffer, sizeof buffer, &count, &peer, &peerSize), RESULT_OK);
  EXPECT_EQ(std::string(buffer, count), "ping");
  EXPECT_EQ(peer.port, from.port);
  for (const Sock each : {sender, receiver}) (void)Sock_Close(each);
}

}  // namespace
}  // namespace stewardry

// The socket layer on real sockets.
#include "sock/sock.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "tests/eventually.h"
#include "tests/sock/socket_pair.h"

namespace stewardry {
namespace {

class SockLayer : public SocketTest {};

// Makes the call until it has something to do.
template <class Call>
Result WhenReady(Call call) {
  Result result = RESULT_WOULD_BLOCK;
  EXPECT_TRUE(Eventually([&] { return (result = call()) != RESULT_WOULD_BLOCK; }));
  return result;
}

TEST_F(SockLayer, ReadDistinguishesNothingDataAndClose) {
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

TEST_F(SockLayer, GatheredReadWalksThePiecesAndStopsAtAShortOne) {
  SocketPair pair;
  pair.Send("hello");
  char first[4], second[8], third[8] = "none";
  const SockPiece pieces[] = {{first, 4}, {second, 8}, {third, 8}};
  std::uint64_t count = 0;
  const auto read = [&] { return Sock_ReadV(pair.a, pieces, &count); };
  EXPECT_EQ(WhenReady(read), RESULT_OK);
  EXPECT_EQ(count, 5U);
  EXPECT_EQ(std::string(first, 4) + second[0] + third, "hellonone");
  EXPECT_EQ(read(), RESULT_WOULD_BLOCK);
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

TEST_F(SockLayer, LocalConnectReachesTheListenerOnThePortOfTheText) {
  Sock listener, sock, accepted;
  std::string port;
  // Between the search and the bind another process may take the port.
  ASSERT_TRUE(Eventually([&] {
    port = std::to_string(TestListener().port);
    return Sock_ListenOnPort(&listener, port.c_str()) == RESULT_OK;
  }));
  ASSERT_EQ(Sock_SetBlocking(listener, false), RESULT_OK);
  RemoteAddress peer;
  const auto accept = [&] { return Sock_Accept(listener, &accepted, &peer); };
  EXPECT_EQ(accept(), RESULT_WOULD_BLOCK);
  const Result result = Sock_ConnectLocal(&sock, port.c_str());
  EXPECT_TRUE(result == RESULT_OK || result == RESULT_WOULD_BLOCK) << result;
  EXPECT_EQ(WhenReady(accept), RESULT_OK);
  EXPECT_EQ(Sock_SetNoDelay(accepted, true), RESULT_OK);
  for (const Sock each : {listener, sock, accepted}) (void)Sock_Close(each);
}

TEST_F(SockLayer, DatagramArrivesWithItsSendersAddress) {
  constexpr int kDatagrams = 2;  // SOCK_DGRAM
  const Sock sender = platform::socket(platform::kAfInet, kDatagrams, 0);
  const Sock receiver = platform::socket(platform::kAfInet, kDatagrams, 0);
  Addr from, to;
  Addr_InitAny(&from, BindFreePort(sender));
  ASSERT_EQ(Addr_Resolve(&to, "127.0.0.1", BindFreePort(receiver), false), RESULT_OK);
  ASSERT_EQ(Sock_SetBlocking(receiver, false), RESULT_OK);
  char buffer[8];
  std::uint64_t count = 99;
  RemoteAddress peer{};
  int peerSize = sizeof peer;
  const auto read = [&] {
    return Sock_ReadFrom(receiver, buffer, sizeof buffer, &count, &peer, &peerSize);
  };
  EXPECT_EQ(read(), RESULT_WOULD_BLOCK);
  EXPECT_EQ(Sock_WriteTo(sender, "ping", 4, &count, to.storage, to.sockaddrSize), RESULT_OK);
  EXPECT_EQ(count, 4U);
  EXPECT_EQ(WhenReady(read), RESULT_OK);
  EXPECT_EQ(std::string(buffer, count), "ping");
  EXPECT_EQ(peer.port, from.port);
  for (const Sock each : {sender, receiver}) (void)Sock_Close(each);
}

TEST_F(SockLayer, AddressRecordIsWrittenWhole) {
  Addr address;
  std::memset(&address, 0xEE, sizeof address);
  Addr_InitAny(&address, 664);
  const std::uint8_t any[sizeof address.storage] = {2, 0, 0x02, 0x98};
  EXPECT_EQ(std::memcmp(address.storage, any, sizeof any), 0);
  EXPECT_EQ(address.sockaddrSize, 16);
  EXPECT_EQ(address.isIPv6, 0);
  ASSERT_EQ(Addr_Resolve(&address, "127.0.0.1", 22, false), RESULT_OK);
  const std::uint8_t loopback[sizeof address.storage] = {2, 0, 0, 22, 127, 0, 0, 1};
  EXPECT_EQ(std::memcmp(address.storage, loopback, sizeof loopback), 0);
  EXPECT_EQ(Addr_Resolve(&address, "127.0.0.1", 22, true), RESULT_FAILED);
}

}  // namespace
}  // namespace stewardry
